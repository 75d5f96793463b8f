// The numeric steps that every normalisation computes the same way, on the
// host and in the kernels: from a row's sums to its statistics. One
// definition, so that the two paths cannot differ in a rounding.
#pragma once

#include <cmath>

// Every intermediate is a float of its own; nothing may become a fused
// multiply-add, whatever the target.
#pragma GCC push_options
#pragma GCC optimize("fp-contract=off")

namespace infer_ops::norm {

// The reciprocal square root of a row's (variance + eps): taken in double
// and narrowed once, so that it is exactly the same number on every path.
inline float rstd_of(float t) {
    const double d = static_cast<double>(t);
    return static_cast<float>(1.0 / std::sqrt(d));
}

// The statistics of a row. var is the variance (layer norm) or the mean
// square (RMS norm), without eps; mean is 0 for RMS norm.
struct row_stats {
    float mean;
    float var;
    float rstd;
};

// From the element-order sum s and sum of squares q of n elements:
// E[x^2] - mean^2, not clamped at zero, so a row whose rounding makes it
// negative gives a NaN rstd, as the definition does.
inline row_stats layer_stats(float s, float q, long n, float eps) {
    const float fn = static_cast<float>(n);
    const float mean = s / fn;
    const float mean_sq = mean * mean;
    const float var = q / fn - mean_sq;
    const float t = var + eps;
    return {mean, var, rstd_of(t)};
}

// From the element-order sum of squares q of n elements.
inline row_stats rms_stats(float q, long n, float eps) {
    const float ms = q / static_cast<float>(n);
    const float t = eps + ms;
    return {0.0f, ms, rstd_of(t)};
}

}  // namespace infer_ops::norm

#pragma GCC pop_options
