// Rotary position embeddings.
#pragma once

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops {

using orvane::tsu::api::Context;

// Rotates query [num_tokens, num_heads, head_size] and key [num_tokens,
// num_kv_heads, head_size] in place, split-halves pairing: within the first
// rotary_dim elements of a head, element k pairs with k + rotary_dim / 2 and
// becomes (x * cos - y * sin, y * cos + x * sin), computed in float and
// narrowed once. Token t uses row positions[t] of cos_sin_cache, whose rows
// hold rotary_dim / 2 cosines, then as many sines; the positions must lie in
// the table, whose extent is not checked. The rest of each head is neither
// read nor written. rotary_dim must be a positive multiple of 16 and at most
// head_size; num_tokens must be positive (an empty batch is an error).
// (TX, TCS, TID): (float16, float16, int), (float16, float16, long),
// (float16, float, long), (bfloat16, bfloat16, int), (bfloat16, bfloat16, long),
// (bfloat16, float, int), (bfloat16, float, long), (float, float, int),
// (float, float, long).
template <typename TX, typename TCS, typename TID>
int rotary_embedding_neox(Context* ctx, const TID* positions, TX* query, TX* key, const TCS* cos_sin_cache,
                          long rotary_dim, long num_heads, long num_kv_heads, long head_size, long num_tokens);

}  // namespace infer_ops
