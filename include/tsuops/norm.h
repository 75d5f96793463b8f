// Layer and RMS normalisation of the rows of a matrix.
#pragma once

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops {

using orvane::tsu::api::Context;

// Each of the m rows of n elements of x, normalised to zero mean and unit
// variance, times an optional weight per column, plus an optional bias per
// column, into y. A null scale is a weight of 1, a null bias a bias of 0.
// With scale_plus_one the weight is scale[j] + 1. kernel_flag changes no
// output. eps must be above 0.
// (T, TW): (float16, float16), (float16, float), (bfloat16, bfloat16),
// (bfloat16, float), (float, float).
template <typename T, typename TW>
int layer_norm(Context* ctx, const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias,
               bool kernel_flag, bool scale_plus_one);

// layer_norm that also writes each row's mean to mean[i] and to var[i] the
// reciprocal standard deviation (is_rstd) or the variance without eps; mean
// and var are both null or both given. eps may be 0.
// (T, TW): (float16, float16), (float16, float), (float, float).
template <typename T, typename TW>
int nn_layer_norm(Context* ctx, const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias,
                  float* mean, float* var, bool is_rstd);

// Each row divided by its root mean square (with eps added to the mean
// square), times an optional weight and plus an optional bias per column.
// rms_out, if given, receives per row the reciprocal root mean square
// (is_rstd) or the mean square without eps. eps must be above 0.
// On the device, TSUOPS_RMSNORM_GMX=1 (read once per process) moves rows that
// are a multiple of 1024 elements, up to 8192, to the GMX engine.
// (T, TW): (float16, float16), (float16, float), (bfloat16, bfloat16),
// (bfloat16, float), (float, float).
template <typename T, typename TW>
int rms_layer_norm(Context* ctx, const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias,
                   float* rms_out, bool is_rstd);

}  // namespace infer_ops
