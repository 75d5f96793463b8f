// Kernels of the index operators of the token flow (moe_index.h):
//
//   gen_block_statistic<T>           the per-block histogram of a routing
//                                    table; launched with one cluster per
//                                    block.
//   infer_moe_sorted_topk_idx        the offsets and the gather form of a
//                                    routing table; n below
//                                    kSortedTopkExpertLimit.
//   moe_resort_idx<T, TI>            gather form to scatter form and back;
//                                    TI holds the count.
//   infer_moe_align_block_size<T>    the block-padded gather form.
//   infer_moe_expert_m_to_lod<TIN, TOUT>, _gmx
//                                    offsets from counts, on the clusters or
//                                    the GMX engine.
//
// Expert numbers (and, in moe_resort_idx, slots) outside their range are
// skipped: a kernel cannot report, and writes nothing outside its arrays.
#pragma once

#include "kernels/catalogue.h"

namespace tsuops::kernels::moe {

// moe_sorted_topk_idx takes fewer experts than this.
inline constexpr long kSortedTopkExpertLimit = 513;

}  // namespace tsuops::kernels::moe

#define TSU_FAMILY_gen_block_statistic(X)                                                                  \
    X(gen_block_statistic, TSU_ENGINE_CLUSTER, (typename T), (T), (const T*, topk_ids), (T*, block_statistic), \
      (long, n), (long, m), (long, k), (long, block_num))
TSU_KERNEL_DECLARE(gen_block_statistic)

#define TSU_FAMILY_infer_moe_sorted_topk_idx(X)                                                              \
    X(infer_moe_sorted_topk_idx, TSU_ENGINE_CLUSTER, (), (), (long, m), (long, k), (long, n),                  \
      (const int*, topk_idx), (int*, sorted_tokens_num_lod), (int*, sorted_tokens_idx))
TSU_KERNEL_DECLARE_PLAIN(infer_moe_sorted_topk_idx)

#define TSU_FAMILY_moe_resort_idx(X)                                                                      \
    X(moe_resort_idx, TSU_ENGINE_CLUSTER, (typename T, typename TI), (T, TI), (const T*, moe_index),          \
      (T*, sorted_token_idx), (TI, count))
TSU_KERNEL_DECLARE(moe_resort_idx)

#define TSU_FAMILY_infer_moe_align_block_size(X)                                                          \
    X(infer_moe_align_block_size, TSU_ENGINE_CLUSTER, (typename T), (T), (const T*, topk_idx),                \
      (T*, sorted_token_ids), (T*, expert_ids), (T*, total_tokens_post_pad), (long, n), (long, block_size),   \
      (long, numel))
TSU_KERNEL_DECLARE(infer_moe_align_block_size)

#define TSU_FAMILY_infer_moe_expert_m_to_lod(X)                                                           \
    X(infer_moe_expert_m_to_lod, TSU_ENGINE_CLUSTER, (typename TIN, typename TOUT), (TIN, TOUT),              \
      (const TIN*, expert_m), (TOUT*, sorted_tokens_num_lod), (long, n))
TSU_KERNEL_DECLARE(infer_moe_expert_m_to_lod)

#define TSU_FAMILY_infer_moe_expert_m_to_lod_gmx(X)                                                       \
    X(infer_moe_expert_m_to_lod_gmx, TSU_ENGINE_GMX, (typename TIN, typename TOUT), (TIN, TOUT),              \
      (const TIN*, expert_m), (TOUT*, sorted_tokens_num_lod), (long, n))
TSU_KERNEL_DECLARE(infer_moe_expert_m_to_lod_gmx)
