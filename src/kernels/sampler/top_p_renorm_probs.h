// The kernel of top_p_renorm_probs: rows split over the cores, each row
// searched and renormalised as the reference does it (renorm_search.h).
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_top_p_renorm_probs(X)                                                                   \
    X(infer_top_p_renorm_probs, TSU_ENGINE_CLUSTER, (typename T), (T), (const T*, x), (T*, y),                    \
      (const float*, top_p_arr), (float, top_p), (long, m), (long, n))
TSU_KERNEL_DECLARE(infer_top_p_renorm_probs)
