#include "kernels/basic/cast.h"

#include <algorithm>

#include "frame/convert.h"
#include "kernels/grid.h"

namespace tsu3 {

namespace {

namespace cv = infer_ops::convert;
using tsuops::kernels::map;

// Values converted through a stack block of floats, for the conversions whose
// fast form is an array routine (float16 both ways).
constexpr long kBlock = 1024;

// The device's narrowing of the float intermediate to TY, inline.
template <typename TY>
inline TY from_float(float v) {
    if constexpr (std::is_same_v<TY, bfloat16>) {
        return bfloat16::from_bits(cv::bf16_bits_away(v));
    } else {
        return cv::from_float<TY, true>(v);
    }
}

// The device's narrowing of n floats to signed char: 32 at a time in its
// AVX2 form where the CPU has it.
__attribute__((target("avx2"))) void floats_to_int8_avx2(const float* x, signed char* y, long n) {
    long i = 0;
    for (; i + 32 <= n; i += 32) cv::avx2::int8_sim_32(x + i, y + i);
    for (; i < n; ++i) y[i] = from_float<signed char>(x[i]);
}

void floats_to_int8(const float* x, signed char* y, long n) {
    if (tsuops::kernels::host_has_avx2()) {
        floats_to_int8_avx2(x, y, n);
    } else {
        map(x, y, n, [](float v) { return from_float<signed char>(v); });
    }
}

// n floats to TY.
template <typename TY>
void from_floats(const float* __restrict x, TY* __restrict y, long n) {
    if constexpr (std::is_same_v<TY, signed char>) {
        floats_to_int8(x, y, n);
    } else {
        map(x, y, n, [](float v) { return from_float<TY>(v); });
    }
}

// One run of elements with the device's rules (Sim).
template <typename TX, typename TY>
void cast_run(const TX* __restrict x, TY* __restrict y, long n) {
    if constexpr (std::is_same_v<TX, bool>) {
        // A bool is the byte 0 or 1 and converts as that unsigned char would;
        // GCC vectorises loads of bytes but not of bools.
        cast_run(reinterpret_cast<const unsigned char*>(x), y, n);
    } else if constexpr (std::is_same_v<TY, float16>) {
        if constexpr (std::is_same_v<TX, float>) {
            infer_ops::narrow(x, y, n);
        } else {
            float f[kBlock];
            for (long b = 0; b < n; b += kBlock) {
                const long c = std::min(kBlock, n - b);
                map(x + b, f, c, [](TX v) { return cv::to_float(v); });
                infer_ops::narrow(f, y + b, c);
            }
        }
    } else if constexpr (std::is_same_v<TX, float16>) {
        if constexpr (std::is_same_v<TY, float>) {
            infer_ops::widen(x, y, n);
        } else {
            float f[kBlock];
            for (long b = 0; b < n; b += kBlock) {
                const long c = std::min(kBlock, n - b);
                infer_ops::widen(x + b, f, c);
                from_floats(f, y + b, c);
            }
        }
    } else if constexpr (std::is_same_v<TY, bfloat16>) {
        map(x, y, n, [](TX v) { return from_float<TY>(cv::to_float(v)); });
    } else if constexpr (std::is_same_v<TX, float> && std::is_same_v<TY, signed char>) {
        floats_to_int8(x, y, n);
    } else {
        map(x, y, n, [](TX v) { return cv::element<TX, TY, true>(v); });
    }
}

}  // namespace

// Each core takes whole lines of both the source and the destination.
template <typename TX, typename TY>
void infer_cluster_cast_mk3(const TX* x, TY* y, long len) {
    constexpr long unit = std::max(tsuops::kernels::line_elems<TX>, tsuops::kernels::line_elems<TY>);
    const auto [b, e] = tsuops::kernels::core_share(len, unit);
    if (e > b) cast_run(x + b, y + b, e - b);
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_cluster_cast_mk3)
// Every ordered pair of different types, less bfloat16 <-> short and int
// (no kernel) and float16 <-> bool, short and long (two hops through float).
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float, float16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float, bfloat16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float, bool)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float, signed char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float, short)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float, int)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float, long)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float, unsigned char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float, double)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float16, float)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float16, bfloat16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float16, signed char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float16, int)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float16, unsigned char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, float16, double)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bfloat16, float)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bfloat16, float16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bfloat16, bool)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bfloat16, signed char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bfloat16, long)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bfloat16, unsigned char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bfloat16, double)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bool, float)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bool, bfloat16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bool, signed char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bool, short)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bool, int)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bool, long)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bool, unsigned char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, bool, double)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, signed char, float)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, signed char, float16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, signed char, bfloat16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, signed char, bool)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, signed char, short)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, signed char, int)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, signed char, long)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, signed char, unsigned char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, signed char, double)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, short, float)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, short, bool)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, short, signed char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, short, int)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, short, long)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, short, unsigned char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, short, double)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, int, float)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, int, float16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, int, bool)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, int, signed char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, int, short)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, int, long)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, int, unsigned char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, int, double)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, long, float)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, long, bfloat16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, long, bool)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, long, signed char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, long, short)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, long, int)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, long, unsigned char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, long, double)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, unsigned char, float)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, unsigned char, float16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, unsigned char, bfloat16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, unsigned char, bool)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, unsigned char, signed char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, unsigned char, short)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, unsigned char, int)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, unsigned char, long)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, unsigned char, double)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, double, float)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, double, float16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, double, bfloat16)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, double, bool)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, double, signed char)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, double, short)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, double, int)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, double, long)
TSU_KERNEL_INSTANCE(infer_cluster_cast_mk3, double, unsigned char)
