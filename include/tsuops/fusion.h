// Fused attention front ends: from the qkv projection to the key/value
// cache in one call.
//
// qkv [total, q_heads + 2 * kv_heads, head_dim] holds per token all query
// heads, then the key heads, then the value heads (kv_heads -1 means
// q_heads). Query and key are rotated by the adjacent-pairs rotary embedding
// of vsl_rotary_embedding_gptj ("NORMAL" or "HALF_HEAD_DIM" table,
// rope_batch and rope_max_seqlen as there) into q_emb [total, q_heads,
// head_dim] and k_emb [total, kv_heads, head_dim]; the value is copied into
// v_out. The rotated key and the value then go into the paged caches
// k_cache, v_cache [max_batch * max_blocks_per_seq, kv_heads, block_size,
// head_dim] ("HLD"; see cache.h for the block table), at logical positions
// of block-table row real_batch[b]. layout must be "BLHD" and cache_layout
// "HLD".
//
// Cache forms by TC:
//   TX            the rows bit for bit;
//   signed char   per head: the symmetric 8-bit rule against 1 / scale_inv[h]
//                 (scale_inv holds the inverse of each head's absolute
//                 maximum); per channel: rne(clamp(x * m + z, -127, 127))
//                 with a multiplier m and an optional zero point z per
//                 element of a head ([kv_heads, head_dim]), ties to even;
//   int4_t        per channel: rne(clamp(x * m + z, -8, 7)), float16
//                 multipliers and zero points; keys pair along the head (byte
//                 i of a row: element 2i low, 2i + 1 high), values along the
//                 sequence (byte d of the pair of positions (2p, 2p + 1):
//                 element d of the even position low, of the odd one high).
//
// Only the instantiations marked "reference" have a host path; the others
// answer a host context with status 4.
#pragma once

#include <string>

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>
#include <tsuops/vector_param.h>

namespace infer_ops {

using orvane::tsu::api::Context;
using orvane::tsu::api::VectorParam;

// Decoding: one new token per sequence, row b of qkv, at position
// kv_seq_lens[b] - 1 (kv_seq_lens includes the new token) of its table and
// of its cache. k_emb and v_out are both given or both null (then the key
// and value reach the caches only); a null cache is not written. For a
// signed char cache the scale tensors are required: per_channel false,
// k_cache_scale_inv and v_cache_scale_inv [kv_heads] are inverse scales;
// per_channel true, [kv_heads, head_dim] multipliers with k_cache_zp,
// v_cache_zp as optional zero points. For int4_t both are per channel; a
// value at an even position starts its byte afresh, one at an odd position
// fills the high half. At most 1024 sequences. The device path takes
// head_dim 64 or 128 and at most 64 kv heads.
// (TX, TR, TC, TS): (float16, float, float16, float) reference,
// (float16, float16, float16, float), (float16, float, signed char, float)
// reference, (float16, float16, signed char, float),
// (bfloat16, float, bfloat16, float), (bfloat16, float16, bfloat16, float),
// (bfloat16, float, signed char, float), (bfloat16, float16, signed char, float),
// (bfloat16, float, signed char, bfloat16), (bfloat16, float16, signed char, bfloat16),
// (float16, float, int4_t, float16) reference; TID int.
template <typename TX, typename TR, typename TC, typename TS, typename TID>
int split_rope_cache_kv_decoder(Context* ctx, const TX* qkv, const TR* rotary_pos_emb, const TID* block_table,
                                TX* q_emb, TX* k_emb, TX* v_out, TC* k_cache, TC* v_cache,
                                const VectorParam<TID>& kv_seq_lens, const VectorParam<TID>& real_batch, long batch,
                                long rope_batch, long rope_max_seqlen, long q_heads, long kv_heads, long head_dim,
                                long max_batch, long block_size, long max_blocks_per_seq, std::string layout,
                                std::string cache_layout, std::string rope_style, const TS* k_cache_scale_inv,
                                const TS* v_cache_scale_inv, const TS* k_cache_zp, const TS* v_cache_zp,
                                bool per_channel);

// Prefill: sequences of kv_seq_lod (batch + 1 token offsets; batch is taken
// from it), sequence b's tokens at positions start_tokens[b] onwards (empty
// start_tokens: 0 for all) of its table and of its cache. All outputs and
// both caches are required. head_dim is a multiple of 64 up to 512; a key
// row of a token (kv_heads * head_dim) at most 16384 elements; at most 512
// sequences, each at most rope_max_seqlen tokens. A signed char cache takes
// the per-head inverse scales where k_cache_scale_inv and v_cache_scale_inv
// are both given and the per-channel multipliers intx_k_pc_scale,
// intx_v_pc_scale (zero points intx_*_pc_zero optional) where both of those
// are; neither: the row's own absolute maximum. With no inverse scale and no
// key multiplier the call has no form: status 4. int4_t needs both
// multipliers; its values fill a byte from two consecutive positions of a
// sequence (start on an even position), in float16 steps:
// float16(x * m), then float16(z + that), then the clamp and rne.
// The float16 signed char forms have no per-channel kernel: on a device they
// quantise per head (by the inverse scales where both are given, else by
// each row's absolute maximum) even where multipliers are given.
// (TX, TR, TC, TS): (float16, float, float16, bfloat16) reference,
// (float16, float16, float16, bfloat16), (float16, float, signed char, bfloat16)
// reference, (float16, float16, signed char, bfloat16),
// (bfloat16, float, bfloat16, bfloat16), (bfloat16, bfloat16, bfloat16, bfloat16),
// (bfloat16, float, signed char, bfloat16), (bfloat16, bfloat16, signed char, bfloat16),
// (float16, float, int4_t, float16) reference; TID int.
template <typename TX, typename TR, typename TC, typename TID, typename TS>
int split_rope_cache_kv_encoder(Context* ctx, const TX* qkv, const TR* rotary_pos_emb, const TID* block_table,
                                TX* q_emb, TX* k_emb, TX* v_out, TC* k_cache, TC* v_cache,
                                const VectorParam<TID>& kv_seq_lod, const VectorParam<TID>& real_batch,
                                const VectorParam<TID>& start_tokens, long batch, long rope_batch, long rope_max_seqlen,
                                long q_heads, long kv_heads, long head_dim, long max_batch, long block_size,
                                long max_blocks_per_seq, std::string layout, std::string cache_layout,
                                std::string rope_style, const float* k_cache_scale_inv, const float* v_cache_scale_inv,
                                const TS* intx_k_pc_scale, const TS* intx_v_pc_scale, const TS* intx_k_pc_zero,
                                const TS* intx_v_pc_zero);

}  // namespace infer_ops
