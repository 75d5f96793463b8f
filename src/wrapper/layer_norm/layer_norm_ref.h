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

template <typename T, typename TW>
row_stats layer_norm_reference_row(const T* x, T* y, long n, float eps, const TW* scale, const TW* bias,
                                   bool scale_plus_one) {
    float s = 0.0f;
    float q = 0.0f;
    for (long j = 0; j < n; ++j) {
        const float v = static_cast<float>(x[j]);
        const float sq = v * v;
        s = s + v;
        q = q + sq;
    }
    const row_stats st = layer_stats(s, q, n, eps);
    for (long j = 0; j < n; ++j) {
        float w = 1.0f;
        if (scale != nullptr) {
            w = static_cast<float>(scale[j]);
            if (scale_plus_one) w = w + 1.0f;
        }
        const float b = bias != nullptr ? static_cast<float>(bias[j]) : 0.0f;
        const float centred = static_cast<float>(x[j]) - st.mean;
        const float normed = centred * st.rstd;
        const float weighted = normed * w;
        const float out = weighted + b;
        y[j] = T(out);
    }
    return st;
}

}  // namespace infer_ops::norm

#pragma GCC pop_options
