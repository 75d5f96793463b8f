// No fused multiply-add anywhere: the reference rounds the product and the
// sum separately, and so must every loop here.
#pragma GCC optimize("fp-contract=off")

#include "kernels/layer_norm/norm_loops.h"

#include <immintrin.h>

#include <tsuops/float16.h>

namespace tsuops::kernels::norm {

namespace {

// The vector loops are compiled for AVX2 with F16C and chosen at run time
// where the CPU has both; the plain loops below give the same bits anywhere.
#define TSUOPS_NORM_VECTOR __attribute__((target("avx2,f16c")))
#define TSUOPS_NORM_INLINE __attribute__((target("avx2,f16c"), always_inline)) inline

bool vector_loops() {
    static const bool yes = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("f16c");
    return yes;
}

// Eight consecutive elements as floats.
TSUOPS_NORM_INLINE __m256 load8(const float* p) { return _mm256_loadu_ps(p); }
TSUOPS_NORM_INLINE __m256 load8(const float16* p) {
    return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}
TSUOPS_NORM_INLINE __m256 load8(const bfloat16* p) {
    const __m256i h = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    return _mm256_castsi256_ps(_mm256_slli_epi32(h, 16));
}

// ---- the row sums ---------------------------------------------------------------------------
// Sixteen rows, two vectors of eight lanes: eight consecutive elements of
// each row are loaded and transposed in registers, so that vector k holds
// element j + k of eight rows, and the lanes add them in order k = 0, 1, ...,
// 7. Each lane's adds form a chain; the two halves of the group give the CPU
// two independent chains to overlap.

TSUOPS_NORM_INLINE void transpose8(__m256& r0, __m256& r1, __m256& r2, __m256& r3, __m256& r4, __m256& r5,
                                   __m256& r6, __m256& r7) {
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
TSUOPS_NORM_INLINE void add_column(__m256& s, __m256& q, const __m256& c) {
    if constexpr (WithSum) s = _mm256_add_ps(s, c);
    q = _mm256_add_ps(q, _mm256_mul_ps(c, c));
}

// Columns [j, j + 8) of the eight rows at p, added to s and q in order.
template <bool WithSum, typename T>
TSUOPS_NORM_INLINE void add_block(const T* const* p, long j, __m256& s, __m256& q) {
    __m256 c0 = load8(p[0] + j), c1 = load8(p[1] + j), c2 = load8(p[2] + j), c3 = load8(p[3] + j);
    __m256 c4 = load8(p[4] + j), c5 = load8(p[5] + j), c6 = load8(p[6] + j), c7 = load8(p[7] + j);
    transpose8(c0, c1, c2, c3, c4, c5, c6, c7);
    add_column<WithSum>(s, q, c0);
    add_column<WithSum>(s, q, c1);
    add_column<WithSum>(s, q, c2);
    add_column<WithSum>(s, q, c3);
    add_column<WithSum>(s, q, c4);
    add_column<WithSum>(s, q, c5);
    add_column<WithSum>(s, q, c6);
    add_column<WithSum>(s, q, c7);
}

// Column j of the eight rows at p.
template <bool WithSum, typename T>
TSUOPS_NORM_INLINE void add_one(const T* const* p, long j, __m256& s, __m256& q) {
    const auto f = [j, p](int r) { return static_cast<float>(p[r][j]); };
    add_column<WithSum>(s, q, _mm256_setr_ps(f(0), f(1), f(2), f(3), f(4), f(5), f(6), f(7)));
}

template <bool WithSum, typename T>
TSUOPS_NORM_VECTOR void sums_vector(const T* const* rows, long n, float* s, float* q) {
    __m256 sa = WithSum ? _mm256_loadu_ps(s) : _mm256_setzero_ps();
    __m256 sb = WithSum ? _mm256_loadu_ps(s + 8) : _mm256_setzero_ps();
    __m256 qa = _mm256_loadu_ps(q), qb = _mm256_loadu_ps(q + 8);
    const T* a[8];
    const T* b[8];
    for (int r = 0; r < 8; ++r) {
        a[r] = rows[r];
        b[r] = rows[8 + r];
    }
    // Sixteen rows are sixteen streams from memory, more than the hardware
    // prefetcher follows well: each line of each row is asked for a few
    // lines ahead, once.
    constexpr long line = 64 / static_cast<long>(sizeof(T));
    constexpr long ahead = 8 * line;
    long j = 0;
    for (; j + 8 <= n; j += 8) {
        if (j % line == 0) {
            for (int r = 0; r < 8; ++r) {
                _mm_prefetch(reinterpret_cast<const char*>(a[r] + j + ahead), _MM_HINT_T0);
                _mm_prefetch(reinterpret_cast<const char*>(b[r] + j + ahead), _MM_HINT_T0);
            }
        }
        add_block<WithSum>(a, j, sa, qa);
        add_block<WithSum>(b, j, sb, qb);
    }
    for (; j < n; ++j) {
        add_one<WithSum>(a, j, sa, qa);
        add_one<WithSum>(b, j, sb, qb);
    }
    if constexpr (WithSum) {
        _mm256_storeu_ps(s, sa);
        _mm256_storeu_ps(s + 8, sb);
    }
    _mm256_storeu_ps(q, qa);
    _mm256_storeu_ps(q + 8, qb);
}

template <bool WithSum, typename T>
void sums_plain(const T* const* rows, long n, float* s, float* q) {
    for (long j = 0; j < n; ++j) {
        for (int r = 0; r < kGroup; ++r) {
            const float v = static_cast<float>(rows[r][j]);
            const float sq = v * v;
            if constexpr (WithSum) s[r] = s[r] + v;
            q[r] = q[r] + sq;
        }
    }
}

// ---- the scale pass -------------------------------------------------------------------------
// One element of a row: (x - mean) for layer norm only, times r, times the
// weight where there is one, plus the bias or +0.
template <bool Layer, typename T>
[[gnu::always_inline]] inline float scaled(T x, float mean, float r, const float* w, const float* b, long j) {
    float v = static_cast<float>(x);
    if constexpr (Layer) v = v - mean;
    v = v * r;
    if (w != nullptr) v = v * w[j];
    return v + (b != nullptr ? b[j] : 0.0f);
}

template <bool Layer, bool HasW, bool HasB, typename T>
TSUOPS_NORM_VECTOR void scale_vector(const T* x, float mean, float r, const float* w, const float* b, float* out,
                                     long n) {
    const __m256 vm = _mm256_set1_ps(mean), vr = _mm256_set1_ps(r), zero = _mm256_setzero_ps();
    long j = 0;
    for (; j + 8 <= n; j += 8) {
        __m256 v = load8(x + j);
        if constexpr (Layer) v = _mm256_sub_ps(v, vm);
        v = _mm256_mul_ps(v, vr);
        if constexpr (HasW) v = _mm256_mul_ps(v, _mm256_loadu_ps(w + j));
        v = _mm256_add_ps(v, HasB ? _mm256_loadu_ps(b + j) : zero);
        _mm256_storeu_ps(out + j, v);
    }
    for (; j < n; ++j) out[j] = scaled<Layer>(x[j], mean, r, w, b, j);
}

template <bool Layer, typename T>
void scale_row(const T* x, float mean, float r, const float* w, const float* b, float* out, long n) {
    if (!vector_loops()) {
        for (long j = 0; j < n; ++j) out[j] = scaled<Layer>(x[j], mean, r, w, b, j);
    } else if (w != nullptr) {
        (b != nullptr ? scale_vector<Layer, true, true, T> : scale_vector<Layer, true, false, T>)(x, mean, r, w, b,
                                                                                                   out, n);
    } else {
        (b != nullptr ? scale_vector<Layer, false, true, T> : scale_vector<Layer, false, false, T>)(x, mean, r, w, b,
                                                                                                     out, n);
    }
}

}  // namespace

template <typename T>
void group_sums(const T* const* rows, long n, float* s, float* q) {
    if (vector_loops()) {
        (s != nullptr ? sums_vector<true, T> : sums_vector<false, T>)(rows, n, s, q);
    } else {
        (s != nullptr ? sums_plain<true, T> : sums_plain<false, T>)(rows, n, s, q);
    }
}

template <typename T>
void rms_scale(const T* x, float r, const float* w, const float* b, float* out, long n) {
    scale_row<false>(x, 0.0f, r, w, b, out, n);
}

template <typename T>
void layer_scale(const T* x, float mean, float r, const float* w, const float* b, float* out, long n) {
    scale_row<true>(x, mean, r, w, b, out, n);
}

#define TSUOPS_NORM_LOOPS(T)                                                                    \
    template void group_sums<T>(const T* const*, long, float*, float*);                         \
    template void rms_scale<T>(const T*, float, const float*, const float*, float*, long);      \
    template void layer_scale<T>(const T*, float, float, const float*, const float*, float*, long);
TSUOPS_NORM_LOOPS(float)
TSUOPS_NORM_LOOPS(float16)
TSUOPS_NORM_LOOPS(bfloat16)
#undef TSUOPS_NORM_LOOPS

}  // namespace tsuops::kernels::norm
