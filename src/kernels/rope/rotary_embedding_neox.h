// Kernels of rotary_embedding_neox: query and key rotated in place, split
// halves, one cos/sin table row per token. Every family does the same
// arithmetic on the same signature; they differ in how the work is split
// across cores.
//
//   rotary_embedding_neox<TX, TCS, TID, Wide>       tokens split across cores;
//   rotary_embedding_neox_gqa<TX, TCS, TID, Wide>   gqa: fewer key heads than
//                                                   query heads.
//   rotary_embedding_neox_small_case<...>           fewer tokens than cores:
//   rotary_embedding_neox_small_case_gqa<...>       the heads of the tokens
//                                                   split across cores; gqa:
//                                                   one key head.
//
// Wide: rotary_dim is a multiple of 32, so the pairs of a head come in whole
// blocks of 16; otherwise in blocks of 8. Either form rotates any rotary_dim
// correctly; the flag only shapes the loops.
#pragma once

#include "kernels/catalogue.h"

#define TSU_ROPE_NEOX_FAMILY(X, name)                                                                     \
    X(name, TSU_ENGINE_CLUSTER, (typename TX, typename TCS, typename TID, bool Wide), (TX, TCS, TID, Wide), \
      (const TID*, positions), (TX*, query), (TX*, key), (const TCS*, cos_sin_cache), (int, rotary_dim),    \
      (int, num_heads), (int, num_kv_heads), (int, head_size), (int, num_tokens))

#define TSU_FAMILY_rotary_embedding_neox(X) TSU_ROPE_NEOX_FAMILY(X, rotary_embedding_neox)
#define TSU_FAMILY_rotary_embedding_neox_gqa(X) TSU_ROPE_NEOX_FAMILY(X, rotary_embedding_neox_gqa)
#define TSU_FAMILY_rotary_embedding_neox_small_case(X) TSU_ROPE_NEOX_FAMILY(X, rotary_embedding_neox_small_case)
#define TSU_FAMILY_rotary_embedding_neox_small_case_gqa(X) \
    TSU_ROPE_NEOX_FAMILY(X, rotary_embedding_neox_small_case_gqa)

TSU_KERNEL_DECLARE(rotary_embedding_neox)
TSU_KERNEL_DECLARE(rotary_embedding_neox_gqa)
TSU_KERNEL_DECLARE(rotary_embedding_neox_small_case)
TSU_KERNEL_DECLARE(rotary_embedding_neox_small_case_gqa)

namespace tsuops::kernels::neox {

// Pairs of a head rotated per pass over a token: every rotary_dim up to
// 2 * kPairs takes one pass, so the token's cos/sin row is read once and
// serves all its heads; longer ones take a pass per kPairs pairs.
inline constexpr long kPairs = 2048;

}  // namespace tsuops::kernels::neox
