// No fused multiply-add anywhere: the reference rounds the product and the
// sum separately, and so must every loop here.
#pragma GCC optimize("fp-contract=off")

#include "kernels/layer_norm/norm_loops.h"

#include <immintrin.h>

#include "kernels/grid.h"

// The elementwise loops work in blocks of 16 elements whose inner loop has a
// fixed trip count, which GCC turns into straight vector code; each lane is
// one element, so the order of operations is the reference's.
#define TSUOPS_NORM_CLONES __attribute__((target_clones("avx2", "default")))

namespace tsuops::kernels::norm {

namespace {

constexpr long kLanes = 16;

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

// ---- the row sums -------------------------------------------------------------------------
// Eight rows, eight lanes: eight consecutive elements of each row are loaded
// and transposed in registers, so that vector k holds element j + k of every
// row, and the lanes add them in order k = 0, 1, ..., 7.

#define TSUOPS_AVX2 __attribute__((target("avx2")))

TSUOPS_AVX2 [[gnu::always_inline]] inline void transpose8(__m256& r0, __m256& r1, __m256& r2, __m256& r3, __m256& r4,
                                                          __m256& r5, __m256& r6, __m256& r7) {
    const __m256 t0 = _mm256_unpacklo_ps(r0, r1), t1 = _mm256_unpackhi_ps(r0, r1);
    const __m256 t2 = _mm256_unpacklo_ps(r2, r3), t3 = _mm256_unpackhi_ps(r2, r3);
    const __m256 t4 = _mm256_unpacklo_ps(r4, r5), t5 = _mm256_unpackhi_ps(r4, r5);
    const __m256 t6 = _mm256_unpacklo_ps(r6, r7), t7 = _mm256_unpackhi_ps(r6, r7);
    const __m256 u0 = _mm256_shuffle_ps(t0, t2, 0x44), u1 = _mm256_shuffle_ps(t0, t2, 0xee);
    const __m256 u2 = _mm256_shuffle_ps(t1, t3, 0x44), u3 = _mm256_shuffle_ps(t1, t3, 0xee);
    const __m256 u4 = _mm256_shuffle_ps(t4, t6, 0x44), u5 = _mm256_shuffle_ps(t4, t6, 0xee);
    const __m256 u6 = _mm256_shuffle_ps(t5, t7, 0x44), u7 = _mm256_shuffle_ps(t5, t7, 0xee);
    r0 = _mm256_permute2f128_ps(u0, u4, 0x20);
    r1 = _mm256_permute2f128_ps(u1, u5, 0x20);
    r2 = _mm256_permute2f128_ps(u2, u6, 0x20);
    r3 = _mm256_permute2f128_ps(u3, u7, 0x20);
    r4 = _mm256_permute2f128_ps(u0, u4, 0x31);
    r5 = _mm256_permute2f128_ps(u1, u5, 0x31);
    r6 = _mm256_permute2f128_ps(u2, u6, 0x31);
    r7 = _mm256_permute2f128_ps(u3, u7, 0x31);
}

template <bool WithSum>
TSUOPS_AVX2 [[gnu::always_inline]] inline void add_column(__m256& s, __m256& q, const __m256& c) {
    if constexpr (WithSum) s = _mm256_add_ps(s, c);
    q = _mm256_add_ps(q, _mm256_mul_ps(c, c));
}

template <bool WithSum>
TSUOPS_AVX2 void sums_avx2(const float* const* rows, long n, float* s, float* q) {
    __m256 vs = WithSum ? _mm256_loadu_ps(s) : _mm256_setzero_ps();
    __m256 vq = _mm256_loadu_ps(q);
    const float *p0 = rows[0], *p1 = rows[1], *p2 = rows[2], *p3 = rows[3];
    const float *p4 = rows[4], *p5 = rows[5], *p6 = rows[6], *p7 = rows[7];
    long j = 0;
    for (; j + kGroup <= n; j += kGroup) {
        __m256 c0 = _mm256_loadu_ps(p0 + j), c1 = _mm256_loadu_ps(p1 + j);
        __m256 c2 = _mm256_loadu_ps(p2 + j), c3 = _mm256_loadu_ps(p3 + j);
        __m256 c4 = _mm256_loadu_ps(p4 + j), c5 = _mm256_loadu_ps(p5 + j);
        __m256 c6 = _mm256_loadu_ps(p6 + j), c7 = _mm256_loadu_ps(p7 + j);
        transpose8(c0, c1, c2, c3, c4, c5, c6, c7);
        add_column<WithSum>(vs, vq, c0);
        add_column<WithSum>(vs, vq, c1);
        add_column<WithSum>(vs, vq, c2);
        add_column<WithSum>(vs, vq, c3);
        add_column<WithSum>(vs, vq, c4);
        add_column<WithSum>(vs, vq, c5);
        add_column<WithSum>(vs, vq, c6);
        add_column<WithSum>(vs, vq, c7);
    }
    for (; j < n; ++j) {
        add_column<WithSum>(vs, vq, _mm256_setr_ps(p0[j], p1[j], p2[j], p3[j], p4[j], p5[j], p6[j], p7[j]));
    }
    if constexpr (WithSum) _mm256_storeu_ps(s, vs);
    _mm256_storeu_ps(q, vq);
}

// The same sums one element at a time, for machines without AVX2.
template <bool WithSum>
void sums_plain(const float* const* rows, long n, float* s, float* q) {
    for (long j = 0; j < n; ++j) {
        for (int r = 0; r < kGroup; ++r) {
            const float v = rows[r][j];
            const float sq = v * v;
            if constexpr (WithSum) s[r] = s[r] + v;
            q[r] = q[r] + sq;
        }
    }
}

}  // namespace

void group_sums(const float* const* rows, long n, float* s, float* q) {
    if (host_has_avx2()) {
        sums_avx2<true>(rows, n, s, q);
    } else {
        sums_plain<true>(rows, n, s, q);
    }
}

void group_squares(const float* const* rows, long n, float* q) {
    if (host_has_avx2()) {
        sums_avx2<false>(rows, n, nullptr, q);
    } else {
        sums_plain<false>(rows, n, nullptr, q);
    }
}

// ---- the scale pass -------------------------------------------------------------------------

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
