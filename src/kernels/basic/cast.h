#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_cluster_cast_mk3(X)                                                        \
    X(infer_cluster_cast_mk3, TSU_ENGINE_CLUSTER, (typename TX, typename TY), (TX, TY), (const TX*, x), \
      (TY*, y), (long, len))
TSU_KERNEL_DECLARE(infer_cluster_cast_mk3)
