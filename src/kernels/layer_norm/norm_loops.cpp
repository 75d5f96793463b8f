#include "kernels/layer_norm/norm_loops.h"

// Each loop works in blocks of 16 elements whose inner loop has a fixed trip
// count, which GCC turns into straight vector code at -O2; the ragged tail
// runs one element at a time through the same formula.
#define TSUOPS_NORM_CLONES __attribute__((target_clones("avx2", "default")))

namespace tsuops::kernels::norm {

namespace {

constexpr long kLanes = 16;

// Halves the partial sums until one is left: a fixed tree, so the result
// depends only on the data.
[[gnu::always_inline]] inline float fold(float* acc) {
    for (long w = kLanes / 2; w > 0; w /= 2) {
        for (long l = 0; l < w; ++l) acc[l] += acc[l + w];
    }
    return acc[0];
}

// y[j] = f(j) over [0, n). A block's results are all formed before any is
// stored, so y may be the array that f reads.
template <class F>
[[gnu::always_inline]] inline void blocks(float* y, long n, F f) {
    long j = 0;
    for (; j + kLanes <= n; j += kLanes) {
        float t[kLanes];
        for (long l = 0; l < kLanes; ++l) t[l] = f(j + l);
        for (long l = 0; l < kLanes; ++l) y[j + l] = t[l];
    }
    for (; j < n; ++j) y[j] = f(j);
}

}  // namespace

TSUOPS_NORM_CLONES float sum_squares(const float* x, long n) {
    float acc[kLanes] = {};
    long j = 0;
    for (; j + kLanes <= n; j += kLanes) {
        for (long l = 0; l < kLanes; ++l) acc[l] += x[j + l] * x[j + l];
    }
    for (long l = 0; j + l < n; ++l) acc[l] += x[j + l] * x[j + l];
    return fold(acc);
}

TSUOPS_NORM_CLONES void sum_and_squares(const float* x, long n, float* s, float* q) {
    float as[kLanes] = {};
    float aq[kLanes] = {};
    long j = 0;
    for (; j + kLanes <= n; j += kLanes) {
        for (long l = 0; l < kLanes; ++l) {
            as[l] += x[j + l];
            aq[l] += x[j + l] * x[j + l];
        }
    }
    for (long l = 0; j + l < n; ++l) {
        as[l] += x[j + l];
        aq[l] += x[j + l] * x[j + l];
    }
    *s = fold(as);
    *q = fold(aq);
}

TSUOPS_NORM_CLONES void rms_apply(const float* x, float r, const float* w, const float* b, float* y, long n) {
    if (w != nullptr && b != nullptr) {
        blocks(y, n, [=](long j) { return (x[j] * r) * w[j] + b[j]; });
    } else if (w != nullptr) {
        blocks(y, n, [=](long j) { return (x[j] * r) * w[j] + 0.0f; });
    } else if (b != nullptr) {
        blocks(y, n, [=](long j) { return x[j] * r + b[j]; });
    } else {
        blocks(y, n, [=](long j) { return x[j] * r + 0.0f; });
    }
}

TSUOPS_NORM_CLONES void layer_apply(const float* x, float mean, float r, const float* w, bool plus_one,
                                    const float* b, float* y, long n) {
    const float b0 = 0.0f;
    if (w == nullptr) {
        if (b != nullptr) {
            blocks(y, n, [=](long j) { return ((x[j] - mean) * r) + b[j]; });
        } else {
            blocks(y, n, [=](long j) { return ((x[j] - mean) * r) + b0; });
        }
    } else if (plus_one) {
        if (b != nullptr) {
            blocks(y, n, [=](long j) { return ((x[j] - mean) * r) * (w[j] + 1.0f) + b[j]; });
        } else {
            blocks(y, n, [=](long j) { return ((x[j] - mean) * r) * (w[j] + 1.0f) + b0; });
        }
    } else {
        if (b != nullptr) {
            blocks(y, n, [=](long j) { return ((x[j] - mean) * r) * w[j] + b[j]; });
        } else {
            blocks(y, n, [=](long j) { return ((x[j] - mean) * r) * w[j] + b0; });
        }
    }
}

}  // namespace tsuops::kernels::norm
