// Kernels of layer_norm and nn_layer_norm: every row normalised to zero mean
// and unit variance, then weighted and shifted per column; rows are split
// over every core of the launch.
//
//   infer_layer_norm<T, TW, P>          P: the weight is scale[j] + 1.
//                                       kernel_flag selects nothing here.
//   infer_ops_layer_norm_infer<T, TW>   also writes each row's mean and its
//                                       reciprocal standard deviation
//                                       (is_rstd) or variance, when mean is
//                                       not null.
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_layer_norm(X)                                                                      \
    X(infer_layer_norm, TSU_ENGINE_CLUSTER, (typename T, typename TW, bool P), (T, TW, P), (float, eps),      \
      (long, m), (long, n), (const T*, x), (T*, y), (const TW*, scale), (const TW*, bias), (bool, kernel_flag))
TSU_KERNEL_DECLARE(infer_layer_norm)

#define TSU_FAMILY_infer_ops_layer_norm_infer(X)                                                              \
    X(infer_ops_layer_norm_infer, TSU_ENGINE_CLUSTER, (typename T, typename TW), (T, TW), (float, eps),         \
      (long, m), (long, n), (const T*, x), (T*, y), (const TW*, scale), (const TW*, bias), (float*, mean),      \
      (float*, var), (bool, is_rstd))
TSU_KERNEL_DECLARE(infer_ops_layer_norm_infer)
