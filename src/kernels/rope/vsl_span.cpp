// Every output is the reference's three float roundings (two products and
// their difference or sum), also in the clone built for CPUs with fused
// multiply-add.
#pragma GCC optimize("fp-contract=off")

#include "kernels/rope/vsl_span.h"

namespace tsuops::kernels::vsl {

namespace rot = infer_ops::rope;

#define TSUOPS_VSL_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))

TSUOPS_VSL_CLONES void products_adjacent(const float* __restrict x, const float* __restrict c,
                                         const float* __restrict s, float* __restrict own, float* __restrict cross,
                                         long n) {
    for (long k = 0; k < n / 2; ++k) {
        const float x0 = x[2 * k], x1 = x[2 * k + 1];
        own[2 * k] = rot::one_nan(x0 * c[2 * k]);
        cross[2 * k] = rot::one_nan(x1 * s[2 * k]);
        own[2 * k + 1] = rot::one_nan(x1 * c[2 * k + 1]);
        cross[2 * k + 1] = rot::one_nan(x0 * s[2 * k + 1]);
    }
}

TSUOPS_VSL_CLONES void products_split(const float* __restrict x, const float* __restrict c, const float* __restrict s,
                                      float* __restrict own, float* __restrict cross, long n) {
    const long h = n / 2;
    for (long k = 0; k < h; ++k) {
        const float x0 = x[k], x1 = x[k + h];
        own[k] = rot::one_nan(x0 * c[k]);
        cross[k] = rot::one_nan(x1 * s[k]);
        own[k + h] = rot::one_nan(x1 * c[k + h]);
        cross[k + h] = rot::one_nan(x0 * s[k + h]);
    }
}

TSUOPS_VSL_CLONES void combine_adjacent(const float* __restrict own, const float* __restrict cross,
                                        float* __restrict y, long n) {
    for (long k = 0; k < n / 2; ++k) {
        y[2 * k] = rot::first_of_pair(own[2 * k], cross[2 * k]);
        y[2 * k + 1] = rot::second_of_pair(own[2 * k + 1], cross[2 * k + 1]);
    }
}

TSUOPS_VSL_CLONES void combine_split(const float* __restrict own, const float* __restrict cross, float* __restrict y,
                                     long n) {
    const long h = n / 2;
    for (long k = 0; k < h; ++k) {
        y[k] = rot::first_of_pair(own[k], cross[k]);
        y[k + h] = rot::second_of_pair(own[k + h], cross[k + h]);
    }
}

}  // namespace tsuops::kernels::vsl
