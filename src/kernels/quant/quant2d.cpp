#include "kernels/quant/quant2d.h"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include <tsuops/float16.h>

#include "frame/quant_rules.h"
#include "kernels/grid.h"

namespace {

namespace quant = infer_ops::quant;

// Elements widened at a time on the streaming path: a few KiB of floats,
// which stay in the first-level cache between the widening and their use.
constexpr long kChunk = 1024;

// The absolute-maximum rule over n floats, continuing from s.
__attribute__((target("avx2"))) float span_absmax_avx2(const float* x, long n, float s) {
    return quant::avx2::absmax(x, n, s);
}

inline float span_absmax(const float* x, long n, float s) {
    return tsuops::kernels::host_has_avx2() ? span_absmax_avx2(x, n, s) : quant::absmax(x, n, s);
}

// Rule Q8 over n floats against the scale float s, in the rule's AVX2 form.
__attribute__((target("avx2"))) void span_convert_avx2(const float* x, signed char* y, long n, float s) {
    quant::avx2::q8_span(quant::quantiser<signed char>(s), x, y, n);
}

// The same without AVX2: the scalar rule in blocks that GCC vectorises.
void span_convert_plain(const float* __restrict x, signed char* __restrict y, long n, float s) {
    constexpr long kBlock = 32;
    const quant::quantiser<signed char> q(s);
    long j = 0;
    for (; j + kBlock <= n; j += kBlock) {
        for (long k = 0; k < kBlock; ++k) y[j + k] = q(x[j + k]);
    }
    for (; j < n; ++j) y[j] = q(x[j]);
}

inline void span_convert(const float* x, signed char* y, long n, float s) {
    if (tsuops::kernels::host_has_avx2()) {
        span_convert_avx2(x, y, n, s);
    } else {
        span_convert_plain(x, y, n, s);
    }
}

// n elements of x as floats: float rows as they are, 16-bit rows widened
// into buf by the library's vectorised array conversion (a widening inside
// the rule loops would keep them scalar).
template <typename T>
inline const float* as_floats(const T* x, long n, float* buf) {
    if constexpr (std::is_same_v<T, float>) {
        return x;
    } else {
        infer_ops::widen(x, buf, n);
        return buf;
    }
}

// One row of any length straight from memory: a pass for the absolute
// maximum, then a pass for the conversion, chunk by chunk.
template <typename T>
inline void quantise_row(const T* x, signed char* y, float* scale, long n, float start) {
    alignas(64) float buf[kChunk];
    float s = start;
    for (long j = 0; j < n; j += kChunk) {
        const long len = std::min(kChunk, n - j);
        s = span_absmax(as_floats(x + j, len, buf), len, s);
    }
    *scale = s;
    for (long j = 0; j < n; j += kChunk) {
        const long len = std::min(kChunk, n - j);
        span_convert(as_floats(x + j, len, buf), y + j, len, s);
    }
}

// One row of at most Cap elements, widened once into an on-chip stage and
// read from there by both passes. A float row needs no stage.
template <typename T, long Cap>
inline void quantise_row_staged(const T* x, signed char* y, float* scale, long n, float start) {
    if constexpr (std::is_same_v<T, float>) {
        quantise_row(x, y, scale, n, start);
    } else {
        alignas(64) float stage[Cap];
        infer_ops::widen(x, stage, n);
        const float s = span_absmax(stage, n, start);
        *scale = s;
        span_convert(stage, y, n, s);
    }
}

// Contiguous rows per core over the whole grid, so each host thread of the
// emulator walks one stretch of memory.
template <typename Row>
inline void rows_over_grid(long m, Row&& row) {
    const auto [b, e] = tsuops::kernels::core_share(m);
    for (long r = b; r < e; ++r) row(r);
}

}  // namespace

namespace tsu3 {

template <typename T>
void infer_quant2d(const T* x, signed char* y, float* scale, long m, long n, long ld) {
    rows_over_grid(m, [&](long r) { quantise_row(x + r * ld, y + r * n, scale + r, n, quant::kScaleFloor); });
}

// Fewer rows than clusters: each row goes to one cluster and is shared among
// its cores. A body cannot wait for its neighbours, so quant2d launches this
// kernel twice: with a null y, the first core of the cluster stores the row's
// scale float; then with y, every core of the cluster converts its share of
// the row (whole lines of y) against that scale.
template <typename T>
void infer_quant2d_smallm(const T* x, signed char* y, float* scale, long m, long n, long ld) {
    const long first = tsuemu::cluster_id(), step = tsuemu::cluster_count();
    if (y == nullptr) {
        if (tsuemu::core_id() != 0) return;
        alignas(64) float buf[kChunk];
        for (long r = first; r < m; r += step) {
            float s = quant::kScaleFloor;
            for (long j = 0; j < n; j += kChunk) {
                const long len = std::min(kChunk, n - j);
                s = span_absmax(as_floats(x + r * ld + j, len, buf), len, s);
            }
            scale[r] = s;
        }
        return;
    }
    const auto [b, e] = tsuops::kernels::cluster_share(n, tsuops::kernels::line_elems<signed char>);
    alignas(64) float buf[kChunk];
    for (long r = first; r < m; r += step) {
        const float s = scale[r];
        for (long j = b; j < e; j += kChunk) {
            const long len = std::min(kChunk, e - j);
            span_convert(as_floats(x + r * ld + j, len, buf), y + r * n + j, len, s);
        }
    }
}

template <typename T, int N, int K>
void infer_quant2d_midm(const T* x, signed char* y, float* scale, long m, long n, long ld) {
    static_assert(K == tsuops::kernels::quant2d_tiles<T>(N));
    rows_over_grid(m, [&](long r) {
        quantise_row_staged<T, N>(x + r * ld, y + r * n, scale + r, n, quant::kScaleFloor);
    });
}

template <typename T, int N, int K>
void infer_quant2d_bigm(const T* x, signed char* y, float* scale, long m, long n, long ld) {
    static_assert(K == tsuops::kernels::quant2d_tiles<T>(N));
    rows_over_grid(m, [&](long r) {
        quantise_row_staged<T, N>(x + r * ld, y + r * n, scale + r, n, quant::kScaleFloor);
    });
}

template <typename T, bool A, bool F>
void infer_quant2d_gmx(const T* x, signed char* y, float* scale, long m, long n, long ld) {
    constexpr float start = F ? quant::kScaleFloor : 0.0f;
    rows_over_grid(m, [&](long r) {
        if constexpr (A) {
            quantise_row_staged<T, 8192>(x + r * ld, y + r * n, scale + r, n, start);
        } else {
            quantise_row(x + r * ld, y + r * n, scale + r, n, start);
        }
    });
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_quant2d)
TSU_KERNEL_INSTANCE(infer_quant2d, float16)
TSU_KERNEL_INSTANCE(infer_quant2d, float)
TSU_KERNEL_INSTANCE(infer_quant2d, bfloat16)

TSU_KERNEL_DEFINE(infer_quant2d_smallm)
TSU_KERNEL_INSTANCE(infer_quant2d_smallm, float16)
TSU_KERNEL_INSTANCE(infer_quant2d_smallm, float)
TSU_KERNEL_INSTANCE(infer_quant2d_smallm, bfloat16)

// Only N = 1536 is selected; the longer midm rows are catalogue entries.
TSU_KERNEL_DEFINE(infer_quant2d_midm)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, float16, 1536, 1)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, float16, 6144, 4)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, float16, 12288, 8)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, float16, 24576, 16)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, float, 1536, 4)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, float, 6144, 8)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, float, 12288, 16)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, float, 24576, 32)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, bfloat16, 1536, 1)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, bfloat16, 6144, 4)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, bfloat16, 12288, 8)
TSU_KERNEL_INSTANCE(infer_quant2d_midm, bfloat16, 24576, 16)

TSU_KERNEL_DEFINE(infer_quant2d_bigm)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, float16, 1536, 1)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, float16, 6144, 4)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, float16, 12288, 8)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, float16, 24576, 16)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, float, 1536, 4)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, float, 6144, 8)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, float, 12288, 16)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, float, 24576, 32)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, bfloat16, 1536, 1)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, bfloat16, 6144, 4)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, bfloat16, 12288, 8)
TSU_KERNEL_INSTANCE(infer_quant2d_bigm, bfloat16, 24576, 16)

// quant2d passes F = true; the F = false forms are catalogue entries.
TSU_KERNEL_DEFINE(infer_quant2d_gmx)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, float16, true, true)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, float16, false, true)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, float16, true, false)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, float16, false, false)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, float, true, true)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, float, false, true)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, float, true, false)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, float, false, false)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, bfloat16, true, true)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, bfloat16, false, true)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, bfloat16, true, false)
TSU_KERNEL_INSTANCE(infer_quant2d_gmx, bfloat16, false, false)
