// The kernel of moe_softmax_topk: per token the softmax of the gate logits,
// the k experts of highest score in the router's order (topk_rule.h), and
// with block_num above 0 the per-block histogram, in one launch.
//
// small_shape changes how the tokens of a core are worked, never the result:
// set, one token at a time; clear, tiles of kTileTokens tokens with one token
// per vector lane, and the last few tokens of the core one at a time.
#pragma once

#include "kernels/catalogue.h"

namespace tsuops::kernels::moe {

// Tokens worked side by side on the tiled path.
inline constexpr int kTileTokens = 8;
// Rows of at most this many choices are selected by insertion into a sorted
// list of k; longer ones sort the whole row.
inline constexpr long kInsertionTopk = 32;
// The largest row of experts.
inline constexpr long kMaxExperts = 1024;

}  // namespace tsuops::kernels::moe

#define TSU_FAMILY_infer_moe_softmax_topk(X)                                                                      \
    X(infer_moe_softmax_topk, TSU_ENGINE_CLUSTER, (typename TX, typename TY, typename TID), (TX, TY, TID),         \
      (const TX*, x), (TID*, topk_index), (TY*, topk_score), (int*, block_statistic), (int, k), (int, m), (int, n), \
      (int, block_num), (bool, small_shape))
TSU_KERNEL_DECLARE(infer_moe_softmax_topk)
