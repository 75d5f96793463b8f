// Kernels of the cache stores. Each moves whole head rows: (token, head)
// pairs are split across the cores of the launch, and a row is one
// contiguous copy or one conversion loop over the head dimension.
//
//   infer_reshape_and_cache<T, TID>   flat tokens into a paged "HLD" cache
//                                     by slot_mapping, bit for bit; values
//                                     only where both v and v_cache are set.
//   reshape_cached_kv_v2_gmx<TX, TC, TID, LAYOUT, MODE>
//                                     sequences of a "BHLD" (LAYOUT 0) or
//                                     "BLHD" (LAYOUT 1) input into a paged
//                                     cache by block_table; a signed char
//                                     cache quantises each row by the
//                                     symmetric 8-bit rule against its scale
//                                     or its own absolute maximum. The GMX
//                                     engine; MODE is 0 in every instance.
//   store_kv_cache<T, TC>             x_lod sequences into a slot-major
//                                     cache, with the store conversion.
//   store_paged_kv_cache<T, TC>       flat tokens into a paged cache by
//                                     slot_mapping, with the store
//                                     conversion.
#pragma once

#include "kernels/catalogue.h"

namespace tsuops::kernels::cache {

// The GMX engine keeps one head's block of a paged cache on chip:
// head_dim * block_size cache elements of at most this many bytes.
inline constexpr long kMaxHeadBlockBytes = 200704;

}  // namespace tsuops::kernels::cache

#define TSU_FAMILY_infer_reshape_and_cache(X)                                                                     \
    X(infer_reshape_and_cache, TSU_ENGINE_CLUSTER, (typename T, typename TID), (T, TID), (const T*, k),          \
      (const T*, v), (T*, k_cache), (T*, v_cache), (const TID*, slot_mapping), (int, num_tokens), (int, num_heads), \
      (int, k_dim), (int, v_dim), (int, block_size))
TSU_KERNEL_DECLARE(infer_reshape_and_cache)

#define TSU_FAMILY_reshape_cached_kv_v2_gmx(X)                                                                    \
    X(reshape_cached_kv_v2_gmx, TSU_ENGINE_GMX, (typename TX, typename TC, typename TID, int LAYOUT, int MODE),    \
      (TX, TC, TID, LAYOUT, MODE), (const TX*, k), (const TX*, v), (TC*, k_cache), (TC*, v_cache),                 \
      (const TID*, block_table), (const int*, kv_seq_lod), (const int*, start_tokens), (const int*, real_batch),   \
      (long, batch), (long, num_heads), (long, head_dim), (long, max_batch), (long, block_size),                    \
      (long, max_blocks_per_seq), (const float*, k_scale), (const float*, v_scale))
TSU_KERNEL_DECLARE(reshape_cached_kv_v2_gmx)

#define TSU_FAMILY_store_kv_cache(X)                                                                              \
    X(store_kv_cache, TSU_ENGINE_CLUSTER, (typename T, typename TC), (T, TC), (const T*, key), (const T*, value), \
      (TC*, k_cache), (TC*, v_cache), (const int*, slot_id), (const int*, offset), (const int*, x_lod),            \
      (const float*, key_scale), (const float*, value_scale), (long, batch), (long, max_slots),                    \
      (long, max_seq_len), (long, num_heads), (long, head_dim))
TSU_KERNEL_DECLARE(store_kv_cache)

#define TSU_FAMILY_store_paged_kv_cache(X)                                                                        \
    X(store_paged_kv_cache, TSU_ENGINE_CLUSTER, (typename T, typename TC), (T, TC), (const T*, key),              \
      (const T*, value), (TC*, key_cache), (TC*, value_cache), (const int*, slot_mapping),                        \
      (const float*, key_scale), (const float*, value_scale), (long, num_tokens), (long, num_heads),              \
      (long, head_dim), (long, num_blocks), (long, block_size))
TSU_KERNEL_DECLARE(store_paged_kv_cache)
