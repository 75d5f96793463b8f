// The reference computation of one layer-norm row, shared by layer_norm and
// nn_layer_norm: sum and sum of squares in element order, the variance as
// E[x^2] - mean^2 (not clamped), the reciprocal standard deviation through
// double, then ((x - mean) * r) * w + b narrowed once.
#pragma once

#include "kernels/layer_norm/norm_numerics.h"

// Every intermediate is rounded to float on its own: no fused multiply-add,
// whatever the target, since the reference defines the result bit for bit.
#pragma GCC push_options
#pragma GCC optimize("fp-contract=off")

namespace infer_ops::norm {

struct layer_stats {
    float mean;
    float var;  // without eps
    float rstd;
};

template <typename T, typename TW>
layer_stats layer_norm_reference_row(const T* x, T* y, long n, float eps, const TW* scale, const TW* bias,
                                     bool scale_plus_one) {
    float s = 0.0f;
    float q = 0.0f;
    for (long j = 0; j < n; ++j) {
        const float v = static_cast<float>(x[j]);
        const float sq = v * v;
        s = s + v;
        q = q + sq;
    }
    const float fn = static_cast<float>(n);
    const float mean = s / fn;
    const float mean_sq = mean * mean;
    const float var = q / fn - mean_sq;
    const float t = var + eps;
    const float r = rstd_of(t);
    for (long j = 0; j < n; ++j) {
        float w = 1.0f;
        if (scale != nullptr) {
            w = static_cast<float>(scale[j]);
            if (scale_plus_one) w = w + 1.0f;
        }
        const float b = bias != nullptr ? static_cast<float>(bias[j]) : 0.0f;
        const float centred = static_cast<float>(x[j]) - mean;
        const float normed = centred * r;
        const float weighted = normed * w;
        const float out = weighted + b;
        y[j] = T(out);
    }
    return {mean, var, r};
}

}  // namespace infer_ops::norm

#pragma GCC pop_options
