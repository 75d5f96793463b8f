// Rotary position embeddings.
#pragma once

#include <string>

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>
#include <tsuops/vector_param.h>

namespace infer_ops {

using orvane::tsu::api::Context;
using orvane::tsu::api::VectorParam;

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

// ---- variable-length sequences ----------------------------------------------------------
// Sequences packed back to back: lod holds batch + 1 token offsets (host copy
// required), total = lod[batch]. The outputs are separate tensors; the inputs
// are not changed. The table rotary_pos_emb holds two planes, the cosines
// and then the sines, of rope_batch * rope_max_seqlen rows: rope_batch 1
// shares one table among all sequences, otherwise sequence b owns rows
// [b * rope_max_seqlen, (b + 1) * rope_max_seqlen). Token j of sequence b
// reads row base(b) + j, where base(b) is that first row plus positions[b]
// (positions: empty, or one entry per sequence). The longest sequence must
// fit rope_max_seqlen; an empty sequence is skipped. num_kv_heads -1 means
// num_heads.
//
// Arithmetic of one pair, outputs y0 = cos0 * x0 - sin0 * x1 and
// y1 = x0 * sin1 + x1 * cos1: in float with one rounding to T at the store,
// except for a 16-bit T against a table of its own type, which rounds each
// product to T and then the difference or sum once more. Every NaN result is
// the positive quiet NaN.

// Adjacent pairs (2i, 2i + 1) of q [total, num_heads, head_dim] and k
// [total, num_kv_heads, head_dim] into q_emb and k_emb. rope_style "NORMAL":
// rows of head_dim entries, one per element (y0 takes entry 2i, y1 entry
// 2i + 1); "HALF_HEAD_DIM": rows of head_dim / 2 entries, one per pair, used
// by both outputs. layout "BLHD" (token-major within a sequence's stretch of
// tokens) or "BHLD" (head-major within it, as for the cache stores). An odd
// last element of a head is copied. At most 15360 sequences; device_flag
// requires "NORMAL" and changes nothing else.
// (T, TR): (float, float), (float16, float), (float16, float16),
// (bfloat16, float), (bfloat16, bfloat16); TID: int.
template <typename T, typename TR, typename TID>
int vsl_rotary_embedding_gptj(Context* ctx, const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb, T* k_emb,
                              const VectorParam<TID>& lod, long rope_batch, long rope_max_seqlen, long num_heads,
                              long head_dim, const std::string& layout, const VectorParam<TID>& positions,
                              const std::string& rope_style, long num_kv_heads, bool device_flag);

// Split halves of the first (TAIL: the last) rotary_dim elements of each
// head: element i pairs with i + rotary_dim / 2 and takes entry i of a table
// row of rotary_dim entries, its partner entry i + rotary_dim / 2. The other
// elements of a head are copied. layout must be "BLHD" and rope_style
// "NORMAL"; rotary_dim even, at most 256 and at most head_dim; at most 1024
// sequences. HAS_K false rotates q only; k and k_emb are not read and may be
// null. device_flag changes nothing of the result.
// (T, TR) as above; TID int or long (long has no device form: status 4 on a
// device); TAIL and HAS_K free.
template <typename T, typename TR, typename TID, bool TAIL, bool HAS_K>
int vsl_rotary_embedding_neox(Context* ctx, const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb, T* k_emb,
                              const VectorParam<TID>& lod, long rope_batch, long rope_max_seqlen, long num_heads,
                              long head_dim, long rotary_dim, std::string layout, const VectorParam<TID>& positions,
                              std::string rope_style, long num_kv_heads, bool device_flag);

}  // namespace infer_ops
