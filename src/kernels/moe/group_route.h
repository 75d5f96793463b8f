// The kernels of the group routers: the plain top-k of the raw input
// (moe_topk), the grouped top-k of the raw input (moe_group_topk), the
// grouped sigmoid router with correction bias and renormalised weights
// (moe_sigmoid_group_topk_norm), and one softmax winner per group with
// shared experts appended (infer_moe_softmax_group_singlek_norm). Each
// routes whole tokens per core and, with block_num above 0, writes the
// per-block histogram from the choices of the blocks it routed.
//
// The order of every stage is the routers' order (topk_rule.h), extended to
// the lists that the grouped routers build: the groups are ranked by their
// score with the lower group first on ties, and a candidate ranks by its
// key, then by the rank of its group, then by its place in the group.
//
// small_shape changes nothing here: every kernel works one token at a time.
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_moe_topk(X)                                                                                    \
    X(moe_topk, TSU_ENGINE_CLUSTER, (typename TX, typename TY, typename TID), (TX, TY, TID), (const TX*, x),       \
      (TID*, topk_index), (TY*, score), (int*, block_statistic), (long, k), (long, m), (long, n), (long, block_num))
TSU_KERNEL_DECLARE(moe_topk)

#define TSU_FAMILY_moe_group_topk(X)                                                                              \
    X(moe_group_topk, TSU_ENGINE_CLUSTER, (typename TX, typename TY, typename TID), (TX, TY, TID), (const TX*, x), \
      (TID*, topk_index), (TY*, score), (int*, block_statistic), (int, k), (int, m), (int, n), (int, group_num),    \
      (int, group_topk), (int, block_num), (bool, small_shape))
TSU_KERNEL_DECLARE(moe_group_topk)

#define TSU_FAMILY_moe_sigmoid_group_topk_norm(X)                                                                  \
    X(moe_sigmoid_group_topk_norm, TSU_ENGINE_CLUSTER, (typename TX, typename TY, typename TID), (TX, TY, TID),     \
      (const TX*, x), (TID*, topk_index), (TY*, norm_score), (int*, block_statistic), (const float*, bias),         \
      (float, scale), (long, k), (long, m), (long, n), (long, group_num), (long, group_topk), (long, block_num),    \
      (bool, small_shape))
TSU_KERNEL_DECLARE(moe_sigmoid_group_topk_norm)

#define TSU_FAMILY_infer_moe_softmax_group_singlek_norm(X)                                                         \
    X(infer_moe_softmax_group_singlek_norm, TSU_ENGINE_CLUSTER, (typename TX, typename TY, typename TID),          \
      (TX, TY, TID), (const TX*, x), (TID*, topk_index), (TY*, norm_score), (int*, block_statistic),               \
      (long, group_num), (long, shared_num), (long, m), (long, n), (long, block_num), (bool, small_shape))
TSU_KERNEL_DECLARE(infer_moe_softmax_group_singlek_norm)
