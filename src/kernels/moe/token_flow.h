// Kernels of the token flow between token order and expert order
// (moe_index.h): the gathers that copy or quantise every token row into the
// slot of each of its routed pairs, the index-only gather form, and the
// combines that bring the rows of the slots back to their tokens.
//
//   infer_moe_ffn_pre_sorted<T, TI>          gather without a block
//                                            statistic; at most
//                                            kMaxPairsWithoutStatistic pairs.
//   infer_moe_ffn_pre_sorted_split_m<T, TI>, _split_m_large
//                                            gather with the block statistic:
//                                            pairs split across the cores, or
//                                            whole tokens per core.
//   moe_ffn_pre_sorted_quant_pe<T, TI>, _split_m, _split_m_large
//                                            the same, each row quantised
//                                            against its expert's maximum.
//   expand_expert_max_to_token_max<TI>       the expert maximum of every
//                                            slot; a null output is allowed.
//   infer_moe_ffn_pre_fusion_split_m<TI>     the gather form and the offsets,
//                                            from the block statistic.
//   infer_moe_ffn_post_fusion<T, TI, TF, TS> weighted sum of the k slot rows
//                                            of every token.
//   infer_moe_sum<T>                         sum of k rows in token order.
//
// Every core finds where its own pairs go from counts alone (the statistic,
// or the routing table before its share), so no two cores write one row and
// none waits for another. Expert numbers outside [0, e) get no slot; slots
// that an inconsistent statistic would put outside [0, m * k) get no row;
// a combine skips slots outside [0, m * k). A kernel cannot report, and
// writes nothing outside its arrays.
#pragma once

#include <algorithm>

#include "kernels/catalogue.h"

namespace tsuops::kernels::moe {

// Limits of the gathering kernels: the choices of a token, the experts, and
// the pairs that the kernel without a statistic takes.
inline constexpr long kMaxFlowChoices = 64;
inline constexpr long kMaxFlowExperts = 256;
inline constexpr long kMaxPairsWithoutStatistic = 16128;

// moe_ffn_pre_fusion: exactly this many token blocks, fewer experts than
// the limit.
inline constexpr long kPreFusionBlocks = 12;
inline constexpr long kPreFusionExpertLimit = 1024;

// A gathering core takes at least this many row elements per step of the
// counts that it makes first, which cost the same whatever its share.
inline constexpr long kRowsPerCount = 8;

// A combine cuts fewer rows than cores into pieces of at least this many
// elements, so that a decode step still spreads over the grid.
inline constexpr long kMinRowPiece = 1024;

// How rows of d elements are cut: `count` pieces of `len` elements (a whole
// number of 64-byte lines of 2-byte elements, so that neighbouring cores
// meet at line boundaries), the last ones possibly short or empty.
struct row_pieces {
    long count;
    long len;

    long begin(long i, long d) const { return i * len < d ? i * len : d; }
};

inline row_pieces cut_rows(long rows, long d) {
    const long cores = tsuemu::global_core_count();
    long count = 1;
    if (rows > 0 && rows < cores) count = std::clamp(std::min(cores / rows, d / kMinRowPiece), 1L, cores);
    const long len = (d + count - 1) / count;
    return {count, count == 1 ? d : (len + 31) / 32 * 32};
}

}  // namespace tsuops::kernels::moe

#define TSU_FAMILY_infer_moe_ffn_pre_sorted(X)                                                                     \
    X(infer_moe_ffn_pre_sorted, TSU_ENGINE_CLUSTER, (typename T, typename TI), (T, TI), (const T*, x),               \
      (const TI*, index), (T*, y), (TI*, moe_index), (TI*, expert_m), (TI*, sorted_tokens_num_lod), (long, m),       \
      (long, d), (long, e), (long, k))
TSU_KERNEL_DECLARE(infer_moe_ffn_pre_sorted)

#define TSU_FAMILY_PRE_SORTED_SPLIT(X, name)                                                                        \
    X(name, TSU_ENGINE_CLUSTER, (typename T, typename TI), (T, TI), (const T*, x), (const TI*, index),              \
      (const TI*, block_statistic), (T*, y), (TI*, moe_index), (TI*, expert_m), (TI*, sorted_tokens_num_lod),        \
      (long, m), (long, d), (long, e), (long, k), (long, block_num))
#define TSU_FAMILY_infer_moe_ffn_pre_sorted_split_m(X) TSU_FAMILY_PRE_SORTED_SPLIT(X, infer_moe_ffn_pre_sorted_split_m)
TSU_KERNEL_DECLARE(infer_moe_ffn_pre_sorted_split_m)
#define TSU_FAMILY_infer_moe_ffn_pre_sorted_split_m_large(X) \
    TSU_FAMILY_PRE_SORTED_SPLIT(X, infer_moe_ffn_pre_sorted_split_m_large)
TSU_KERNEL_DECLARE(infer_moe_ffn_pre_sorted_split_m_large)

#define TSU_FAMILY_moe_ffn_pre_sorted_quant_pe(X)                                                                  \
    X(moe_ffn_pre_sorted_quant_pe, TSU_ENGINE_CLUSTER, (typename T, typename TI), (T, TI), (const T*, x),            \
      (const TI*, index), (const float*, pe_max), (signed char*, y), (TI*, moe_index), (TI*, expert_m),               \
      (TI*, sorted_tokens_num_lod), (float*, token_max_out), (long, m), (long, d), (long, e), (long, k))
TSU_KERNEL_DECLARE(moe_ffn_pre_sorted_quant_pe)

#define TSU_FAMILY_QUANT_PE_SPLIT(X, name)                                                                          \
    X(name, TSU_ENGINE_CLUSTER, (typename T, typename TI), (T, TI), (const T*, x), (const TI*, index),              \
      (const float*, pe_max), (const TI*, block_statistic), (signed char*, y), (TI*, moe_index), (TI*, expert_m),     \
      (TI*, sorted_tokens_num_lod), (float*, token_max_out), (long, m), (long, d), (long, e), (long, k),             \
      (long, block_num))
#define TSU_FAMILY_moe_ffn_pre_sorted_quant_pe_split_m(X) TSU_FAMILY_QUANT_PE_SPLIT(X, moe_ffn_pre_sorted_quant_pe_split_m)
TSU_KERNEL_DECLARE(moe_ffn_pre_sorted_quant_pe_split_m)
#define TSU_FAMILY_moe_ffn_pre_sorted_quant_pe_split_m_large(X) \
    TSU_FAMILY_QUANT_PE_SPLIT(X, moe_ffn_pre_sorted_quant_pe_split_m_large)
TSU_KERNEL_DECLARE(moe_ffn_pre_sorted_quant_pe_split_m_large)

#define TSU_FAMILY_expand_expert_max_to_token_max(X)                                                               \
    X(expand_expert_max_to_token_max, TSU_ENGINE_CLUSTER, (typename TI), (TI), (const float*, pe_max),               \
      (const TI*, expert_m), (const TI*, sorted_tokens_num_lod), (float*, token_max_out), (long, m), (long, e),      \
      (long, k))
TSU_KERNEL_DECLARE(expand_expert_max_to_token_max)

#define TSU_FAMILY_infer_moe_ffn_pre_fusion_split_m(X)                                                             \
    X(infer_moe_ffn_pre_fusion_split_m, TSU_ENGINE_CLUSTER, (typename TI), (TI), (const TI*, index),                 \
      (const TI*, block_statistic), (TI*, moe_index), (TI*, expert_offset_m), (long, m), (long, n), (long, k),       \
      (long, block_num))
TSU_KERNEL_DECLARE(infer_moe_ffn_pre_fusion_split_m)

#define TSU_FAMILY_infer_moe_ffn_post_fusion(X)                                                                    \
    X(infer_moe_ffn_post_fusion, TSU_ENGINE_CLUSTER, (typename T, typename TI, typename TF, typename TS),            \
      (T, TI, TF, TS), (const T*, x), (const TI*, moe_index), (const TS*, normed_score), (const TF*, dequant_score),  \
      (T*, y), (long, m), (long, d), (long, k))
TSU_KERNEL_DECLARE(infer_moe_ffn_post_fusion)

#define TSU_FAMILY_infer_moe_sum(X)                                                                                \
    X(infer_moe_sum, TSU_ENGINE_CLUSTER, (typename T), (T), (const T*, x), (T*, y), (long, m), (long, d), (long, k))
TSU_KERNEL_DECLARE(infer_moe_sum)
