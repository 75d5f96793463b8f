// Kernels of rms_layer_norm: every row divided by its root mean square, then
// weighted and shifted per column; rows are split over every core of the
// launch.
//
//   infer_rms_layer_norm<T, TW>        any row length, with bias and a row
//                                      statistic (reciprocal root mean square
//                                      when is_rstd, else the mean square) when
//                                      rms_out is not null.
//   infer_rms_layer_norm_ns<T, TW, K>  rows of up to 1024 * K elements; no
//                                      bias, no statistic.
//   infer_rms_layer_norm_gmx<T, TW>    the GMX engine; rows of up to 8192
//                                      elements.
//
// The last bool of the ns and GMX kernels selects nothing; callers pass false.
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_rms_layer_norm(X)                                                                     \
    X(infer_rms_layer_norm, TSU_ENGINE_CLUSTER, (typename T, typename TW), (T, TW), (float, eps), (long, m),     \
      (long, n), (const T*, x), (T*, y), (const TW*, scale), (const TW*, bias), (float*, rms_out),             \
      (bool, is_rstd))
TSU_KERNEL_DECLARE(infer_rms_layer_norm)

#define TSU_FAMILY_infer_rms_layer_norm_ns(X)                                                                  \
    X(infer_rms_layer_norm_ns, TSU_ENGINE_CLUSTER, (typename T, typename TW, int K), (T, TW, K), (float, eps),   \
      (long, m), (long, n), (const T*, x), (T*, y), (const TW*, scale), (bool, unused))
TSU_KERNEL_DECLARE(infer_rms_layer_norm_ns)

#define TSU_FAMILY_infer_rms_layer_norm_gmx(X)                                                                 \
    X(infer_rms_layer_norm_gmx, TSU_ENGINE_GMX, (typename T, typename TW), (T, TW), (float, eps), (long, m),     \
      (long, n), (const T*, x), (T*, y), (const TW*, scale), (bool, unused))
TSU_KERNEL_DECLARE(infer_rms_layer_norm_gmx)
