// The kernel of verify_tree_greedy: sequences split over the cores, each
// tree walked from its root as the reference walks it.
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_verify_tree_greedy(X)                                                                  \
    X(infer_verify_tree_greedy, TSU_ENGINE_CLUSTER, (typename TI, typename TL), (TI, TL), (TI*, predicts),      \
      (TI*, accept_index), (TI*, accept_token_num), (TL*, candidates), (TL*, retrive_index),                    \
      (TL*, retrive_next_token), (TL*, retrive_next_sibling), (TL*, target_predict), (long, bs),                \
      (long, num_spec_step), (long, num_draft_tokens))
TSU_KERNEL_DECLARE(infer_verify_tree_greedy)
