// Kernels of the fused attention front ends: from each token's qkv row
// [q_heads + 2 * kv_heads, head_dim] the query heads rotated into q_emb, the
// key heads rotated into k_emb and into the paged "HLD" key cache, the value
// heads copied into v_out and into the value cache, in one pass over the
// row. The rotation is the adjacent-pairs one of the variable-length rotary
// embedding; a cache of TX takes the rows bit for bit, an integer cache
// converts them on the way:
//
//   signed char, per head        rule Q8 against 1 / scale_inv[h] (against
//                                the row's own absolute maximum where the
//                                inverse scales are not given);
//   signed char, per channel     rne(clamp(x * m + z, -127, 127));
//   int4_t                       rne(clamp(x * m + z, -8, 7)), keys paired
//                                along the head, values along the sequence
//                                (prefill values in float16 steps).
//
//   qkv_split_rope_cache_kv_decoder<TX, TR, TC, TS, K>
//       one new token per sequence at position kv_seq_lens[b] - 1; the work
//       is split by (sequence, group of kv heads); K false: no k_emb, v_out.
//   qkv_split_rope_reshape_kv_encoder<TX, TR, TC>            tokens per core;
//   qkv_split_rope_reshape_kv_encoder_short_seq<TX, TR, TC>  (token, group of
//                                                            kv heads) per core;
//   ..._encoder_int8_pc<TX, TR>, ..._short_seq_int8_pc<TX, TR>
//       the per-channel signed char cache, zero points each optional;
//   ..._encoder_int4<TX, TR, Z>, ..._short_seq_int4<TX, TR, Z>
//       the 4-bit cache; Z 1 promises both zero points, with Z 0 each is
//       still applied where given.
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_qkv_split_rope_cache_kv_decoder(X)                                                             \
    X(qkv_split_rope_cache_kv_decoder, TSU_ENGINE_CLUSTER,                                                        \
      (typename TX, typename TR, typename TC, typename TS, bool K), (TX, TR, TC, TS, K), (const TX*, qkv),          \
      (const TR*, rotary_pos_emb), (const int*, block_table), (const int*, real_batch), (TX*, q_emb),              \
      (TX*, k_emb), (TX*, v_out), (TC*, k_cache), (TC*, v_cache), (const TS*, k_cache_scale_inv),                  \
      (const TS*, v_cache_scale_inv), (const TS*, k_cache_zp), (const TS*, v_cache_zp), (const int*, kv_seq_lens), \
      (long, batch), (long, rope_max_seqlen), (long, q_heads), (long, head_dim), (long, kv_heads),                 \
      (long, rope_batch), (long, max_batch), (long, block_size), (long, max_blocks_per_seq),                       \
      (bool, half_head_dim), (long, group), (bool, per_channel))
TSU_KERNEL_DECLARE(qkv_split_rope_cache_kv_decoder)

// The decoder's eleven type lists (TX, TR, TC, TS): its kernel instances and
// the operator's instantiations both come from this one list.
#define TSU_DECODER_TYPE_LISTS(X)             \
    X(float16, float, float16, float)         \
    X(float16, float16, float16, float)       \
    X(float16, float, signed char, float)     \
    X(float16, float16, signed char, float)   \
    X(bfloat16, float, bfloat16, float)       \
    X(bfloat16, float16, bfloat16, float)     \
    X(bfloat16, float, signed char, float)    \
    X(bfloat16, float16, signed char, float)  \
    X(bfloat16, float, signed char, bfloat16) \
    X(bfloat16, float16, signed char, bfloat16) \
    X(float16, float, int4_t, float16)

// The encoder families differ only in their scale pointers.
#define TSU_ENCODER_ARGS(TX, TR, TC, ...)                                                                         \
    (const TX*, qkv), (const TR*, rotary_pos_emb), (const int*, block_table), (TX*, q_emb), (TX*, k_emb),          \
        (TX*, v_out), (TC*, k_cache), (TC*, v_cache), __VA_ARGS__, (const int*, kv_seq_lod),                       \
        (const int*, real_batch), (const int*, start_tokens), (long, batch), (long, rope_max_seqlen),              \
        (long, q_heads), (long, kv_heads), (long, head_dim), (long, rope_batch), (long, max_batch),                \
        (long, block_size), (long, max_blocks_per_seq), (bool, half_head_dim)
#define TSU_ENCODER_FAMILY(X, name)                                                                                \
    X(name, TSU_ENGINE_CLUSTER, (typename TX, typename TR, typename TC), (TX, TR, TC),                              \
      TSU_ENCODER_ARGS(TX, TR, TC, (const float*, k_cache_scale_inv), (const float*, v_cache_scale_inv)))
#define TSU_ENCODER_INT8_PC_FAMILY(X, name)                                                                        \
    X(name, TSU_ENGINE_CLUSTER, (typename TX, typename TR), (TX, TR),                                              \
      TSU_ENCODER_ARGS(TX, TR, signed char, (const bfloat16*, intx_k_pc_scale), (const bfloat16*, intx_k_pc_zero), \
                       (const bfloat16*, intx_v_pc_scale), (const bfloat16*, intx_v_pc_zero)))
#define TSU_ENCODER_INT4_FAMILY(X, name)                                                                           \
    X(name, TSU_ENGINE_CLUSTER, (typename TX, typename TR, int Z), (TX, TR, Z),                                    \
      TSU_ENCODER_ARGS(TX, TR, int4_t, (const float16*, intx_k_pc_scale), (const float16*, intx_k_pc_zero),       \
                       (const float16*, intx_v_pc_scale), (const float16*, intx_v_pc_zero)))

#define TSU_FAMILY_qkv_split_rope_reshape_kv_encoder(X) \
    TSU_ENCODER_FAMILY(X, qkv_split_rope_reshape_kv_encoder)
#define TSU_FAMILY_qkv_split_rope_reshape_kv_encoder_short_seq(X) \
    TSU_ENCODER_FAMILY(X, qkv_split_rope_reshape_kv_encoder_short_seq)
#define TSU_FAMILY_qkv_split_rope_reshape_kv_encoder_int8_pc(X) \
    TSU_ENCODER_INT8_PC_FAMILY(X, qkv_split_rope_reshape_kv_encoder_int8_pc)
#define TSU_FAMILY_qkv_split_rope_reshape_kv_encoder_short_seq_int8_pc(X) \
    TSU_ENCODER_INT8_PC_FAMILY(X, qkv_split_rope_reshape_kv_encoder_short_seq_int8_pc)
#define TSU_FAMILY_qkv_split_rope_reshape_kv_encoder_int4(X) \
    TSU_ENCODER_INT4_FAMILY(X, qkv_split_rope_reshape_kv_encoder_int4)
#define TSU_FAMILY_qkv_split_rope_reshape_kv_encoder_short_seq_int4(X) \
    TSU_ENCODER_INT4_FAMILY(X, qkv_split_rope_reshape_kv_encoder_short_seq_int4)

TSU_KERNEL_DECLARE(qkv_split_rope_reshape_kv_encoder)
TSU_KERNEL_DECLARE(qkv_split_rope_reshape_kv_encoder_short_seq)
TSU_KERNEL_DECLARE(qkv_split_rope_reshape_kv_encoder_int8_pc)
TSU_KERNEL_DECLARE(qkv_split_rope_reshape_kv_encoder_short_seq_int8_pc)
TSU_KERNEL_DECLARE(qkv_split_rope_reshape_kv_encoder_int4)
TSU_KERNEL_DECLARE(qkv_split_rope_reshape_kv_encoder_short_seq_int4)

namespace tsuops::kernels::front_end {

// The elements of kv heads that one work item of the decoder (and of the
// short-sequence encoder forms) takes at most: group * head_dim.
inline constexpr long kGroupSpan = 512;

// The largest g from kGroupSpan / head_dim down to 1 that divides kv_heads.
constexpr long head_group(long kv_heads, long head_dim) {
    for (long g = head_dim > 0 ? kGroupSpan / head_dim : 1; g > 1; --g) {
        if (kv_heads % g == 0) return g;
    }
    return 1;
}

}  // namespace tsuops::kernels::front_end
