// The kernel of top_k_renorm_probs: rows split over the cores, each row
// searched and renormalised as the reference does it (renorm_search.h).
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_top_k_renorm_probs(X)                                                                   \
    X(infer_top_k_renorm_probs, TSU_ENGINE_CLUSTER, (typename T, typename TK), (T, TK), (const T*, probs),       \
      (T*, renormed_probs), (long, m), (long, n), (long, k), (const TK*, top_k_arr))
TSU_KERNEL_DECLARE(infer_top_k_renorm_probs)
