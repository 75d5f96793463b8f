// Kernels of the variable-length rotary embeddings: the query and key of
// sequences packed back to back (a lod of batch + 1 token offsets) rotated
// into separate outputs against a table of one cosine and one sine per
// element. All families do the reference's arithmetic; they differ in the
// pairing, the layout of the tensors and how long a head may be.
//
//   infer_vsl_rotary_embedding_opt_blhd<T, TR>      adjacent pairs, "BLHD",
//   infer_vsl_rotary_embedding_opt_bhld<T, TR>      or "BHLD"; heads of up
//                                                   to kOptMaxHeadDim
//                                                   elements in one pass;
//   ..._opt_blhd_fp16<TR>, ..._opt_bhld_fp16<TR>    their float16 forms,
//                                                   without device_flag;
//   infer_vsl_rotary_embedding_func_blhd<T, TR>     adjacent pairs, heads of
//   infer_vsl_rotary_embedding_func_bhld<T, TR>     any length, a pass per
//                                                   kSpan elements;
//   ..._neox_blhd<T, TR, TAIL, HAS_K>               split halves of the first
//   ..._neox_blhd_fp16<TR, TAIL, HAS_K>             (TAIL: last) rotary_dim
//                                                   elements, "BLHD", the
//                                                   rest copied; HAS_K false
//                                                   leaves k and k_emb alone.
//
// positions may be null (every sequence starts at its table's row 0);
// half_head_dim picks the "HALF_HEAD_DIM" table. device_flag changes
// nothing of the result: a kernel's result is the reference's.
#pragma once

#include "kernels/catalogue.h"

#define TSU_VSL_ADJACENT_ARGS(T, TR)                                                                              \
    (const T*, q), (const T*, k), (const TR*, rotary_pos_emb), (T*, q_emb), (T*, k_emb), (const int*, lod),        \
        (int, batch), (int, rope_max_seqlen), (int, num_heads), (int, head_dim), (int, rope_batch),                \
        (const int*, positions), (bool, half_head_dim), (int, num_kv_heads)
#define TSU_VSL_ADJACENT_FAMILY(X, name)                                                                          \
    X(name, TSU_ENGINE_CLUSTER, (typename T, typename TR), (T, TR), TSU_VSL_ADJACENT_ARGS(T, TR),                 \
      (bool, device_flag))
#define TSU_VSL_ADJACENT_FP16_FAMILY(X, name) \
    X(name, TSU_ENGINE_CLUSTER, (typename TR), (TR), TSU_VSL_ADJACENT_ARGS(float16, TR))

#define TSU_VSL_SPLIT_ARGS(T, TR)                                                                                 \
    (const T*, q), (const T*, k), (const TR*, rotary_pos_emb), (T*, q_emb), (T*, k_emb), (const int*, lod),        \
        (int, batch), (int, rope_max_seqlen), (int, num_heads), (int, head_dim), (int, rotary_dim),                \
        (int, rope_batch), (const int*, positions), (int, num_kv_heads)

#define TSU_FAMILY_infer_vsl_rotary_embedding_func_bhld(X) \
    TSU_VSL_ADJACENT_FAMILY(X, infer_vsl_rotary_embedding_func_bhld)
#define TSU_FAMILY_infer_vsl_rotary_embedding_func_blhd(X) \
    TSU_VSL_ADJACENT_FAMILY(X, infer_vsl_rotary_embedding_func_blhd)
#define TSU_FAMILY_infer_vsl_rotary_embedding_opt_bhld(X) \
    TSU_VSL_ADJACENT_FAMILY(X, infer_vsl_rotary_embedding_opt_bhld)
#define TSU_FAMILY_infer_vsl_rotary_embedding_opt_blhd(X) \
    TSU_VSL_ADJACENT_FAMILY(X, infer_vsl_rotary_embedding_opt_blhd)
#define TSU_FAMILY_infer_vsl_rotary_embedding_opt_bhld_fp16(X) \
    TSU_VSL_ADJACENT_FP16_FAMILY(X, infer_vsl_rotary_embedding_opt_bhld_fp16)
#define TSU_FAMILY_infer_vsl_rotary_embedding_opt_blhd_fp16(X) \
    TSU_VSL_ADJACENT_FP16_FAMILY(X, infer_vsl_rotary_embedding_opt_blhd_fp16)
#define TSU_FAMILY_infer_vsl_rotary_embedding_neox_blhd(X)                                                       \
    X(infer_vsl_rotary_embedding_neox_blhd, TSU_ENGINE_CLUSTER, (typename T, typename TR, bool TAIL, bool HAS_K), \
      (T, TR, TAIL, HAS_K), TSU_VSL_SPLIT_ARGS(T, TR), (bool, device_flag))
#define TSU_FAMILY_infer_vsl_rotary_embedding_neox_blhd_fp16(X)                                                  \
    X(infer_vsl_rotary_embedding_neox_blhd_fp16, TSU_ENGINE_CLUSTER, (typename TR, bool TAIL, bool HAS_K),       \
      (TR, TAIL, HAS_K), TSU_VSL_SPLIT_ARGS(float16, TR))

TSU_KERNEL_DECLARE(infer_vsl_rotary_embedding_func_bhld)
TSU_KERNEL_DECLARE(infer_vsl_rotary_embedding_func_blhd)
TSU_KERNEL_DECLARE(infer_vsl_rotary_embedding_opt_bhld)
TSU_KERNEL_DECLARE(infer_vsl_rotary_embedding_opt_blhd)
TSU_KERNEL_DECLARE(infer_vsl_rotary_embedding_opt_bhld_fp16)
TSU_KERNEL_DECLARE(infer_vsl_rotary_embedding_opt_blhd_fp16)
TSU_KERNEL_DECLARE(infer_vsl_rotary_embedding_neox_blhd)
TSU_KERNEL_DECLARE(infer_vsl_rotary_embedding_neox_blhd_fp16)

namespace tsuops::kernels::vsl {

// The longest head the opt kernels rotate in one pass.
inline constexpr long kOptMaxHeadDim = 512;

}  // namespace tsuops::kernels::vsl
