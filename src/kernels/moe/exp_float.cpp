// Four lanes of a double-precision exponential whose relative error stays
// below 2^-50 (x = (64 m + j) ln 2 / 64 + r with |r| <= ln 2 / 128, a table
// of 2^(j / 64) rounded once, the Taylor polynomial of degree 5 for e^r),
// against the C library's, which stays below 2^-52. Rounded to float, the
// two agree unless the exact value lies within their errors of a point
// halfway between two floats: a value whose 29 dropped mantissa bits are
// within kMargin of the halfway pattern is recomputed with the C library's
// exp, and so is every argument outside the range whose result is a normal
// float of at most 1. kMargin covers errors up to 2^-41, far above both
// bounds, and sends about one value in 65536 (with its chunk) to the library.
#pragma GCC optimize("fp-contract=off")
// Lane helpers are always inlined into the clones, so no vector crosses a
// call and the default clone's ABI note does not apply. For the same reason
// vectors are reinterpreted with __builtin_bit_cast: std::bit_cast is a call
// in an unoptimised build, and a vector passed to it from the avx2 clone
// does not survive.
#pragma GCC diagnostic ignored "-Wpsabi"

#include "kernels/moe/exp_float.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace tsuops::kernels::moe {

namespace {

using f64x4 = double __attribute__((vector_size(32)));
using i64x4 = std::int64_t __attribute__((vector_size(32)));
using f32x4 = float __attribute__((vector_size(16)));

// exp(-87) is still a normal float; 0 bounds the result by 1.
constexpr float kFastLowest = -87.0f;
constexpr float kFastHighest = 0.0f;

constexpr int kTableBits = 6;
constexpr int kTableSize = 1 << kTableBits;
// 2^(j / 64), each correctly rounded by the compiler's own evaluation.
constexpr auto kTable = [] {
    std::array<double, kTableSize> t{};
    for (int j = 0; j < kTableSize; ++j) t[j] = __builtin_exp2(static_cast<double>(j) / kTableSize);
    return t;
}();

constexpr double kInvStep = 0x1.71547652b82fep0 * kTableSize;  // 64 / ln 2
// ln 2 / 64 in two parts; the high part has 33 significant bits, so k times
// it is exact for every |k| below 2^20.
constexpr double kStepHi = 0x1.62e42fee00000p-1 / kTableSize;
constexpr double kStepLo = 0x1.a39ef35793c76p-33 / kTableSize;
// Adding it rounds to an integer, which then sits in the low mantissa bits.
constexpr double kShifter = 0x1.8p52;

constexpr std::uint32_t kDropped = (1u << 29) - 1;  // the mantissa bits a float drops
constexpr std::uint32_t kHalfway = 1u << 28;
constexpr std::uint32_t kMargin = 1u << 12;

[[gnu::always_inline]] inline f64x4 splat(double v) { return f64x4{v, v, v, v}; }
[[gnu::always_inline]] inline i64x4 splat_int(std::int64_t v) { return i64x4{v, v, v, v}; }

[[gnu::always_inline]] inline f64x4 approx4(const f64x4& x) {
    const f64x4 t = x * kInvStep + kShifter;
    const f64x4 kf = t - kShifter;
    const i64x4 k = __builtin_bit_cast(i64x4, t) - std::bit_cast<std::int64_t>(kShifter);
    const f64x4 r = (x - kf * kStepHi) - kf * kStepLo;
    const f64x4 p =
        1.0 + r * (1.0 + r * (0.5 + r * (0x1.5555555555555p-3 + r * (0x1.5555555555555p-5 + r * 0x1.1111111111111p-7))));
    const i64x4 j = k & (kTableSize - 1);
    const f64x4 tj = {kTable[j[0]], kTable[j[1]], kTable[j[2]], kTable[j[3]]};
    return (tj * p) * __builtin_bit_cast(f64x4, ((k >> kTableBits) + 1023) << 52);
}

inline float library_exp(float d) { return static_cast<float>(std::exp(static_cast<double>(d))); }

// The logistic function through the same exponential: e = exp(-x) within
// 2^-50 of the library's value, then t = e + 1 and q = 1 / t rounded in
// double as the host rounds them. Each step keeps q within 2^-48 of the
// host's q, a few units of its last place, so that the float of q is the
// host's unless q lies within kMargin of a halfway pattern; such a chunk,
// and every argument beyond kSigmoidReach, goes to the library.
constexpr double kSigmoidReach = 80.0;

inline float library_sigmoid(float x) { return static_cast<float>(1.0 / (std::exp(-static_cast<double>(x)) + 1.0)); }

// Values go through in chunks, so that one test per chunk finds the rare
// lane that needs the library; such a chunk is recomputed whole.
constexpr long kChunk = 64;

enum class Fn { exp, sigmoid };

// Runs the lanes of F over v, four double lanes at a time, and keeps its float
// where the argument lies within [lowest, highest] and the double result
// clear of a halfway pattern; a chunk with any other lane goes whole to
// the library.

template <Fn F>
[[gnu::always_inline]] inline void to_float_in_chunks(float* v, long n, double lowest, double highest) {
    const f64x4 lo = splat(lowest), hi = splat(highest);
    const i64x4 near_below = splat_int(kHalfway - kMargin), near_above = splat_int(kHalfway + kMargin);
    for (long i = 0; i < n; i += kChunk) {
        const long len = n - i < kChunk ? n - i : kChunk;
        alignas(32) float in[kChunk] = {};
        alignas(32) float out[kChunk];
        std::memcpy(in, v + i, static_cast<std::size_t>(len) * sizeof(float));
        i64x4 slow = splat_int(0);
        for (long g = 0; g < kChunk; g += 4) {
            f32x4 d;
            std::memcpy(&d, in + g, sizeof d);
            f64x4 x = __builtin_convertvector(d, f64x4);
            const i64x4 in_range = (x >= lo) & (x <= hi);
            x = in_range ? x : splat(0.0);
            const f64x4 y = F == Fn::exp ? approx4(x) : 1.0 / (approx4(-x) + 1.0);
            const i64x4 dropped = __builtin_bit_cast(i64x4, y) & static_cast<std::int64_t>(kDropped);
            slow |= ~in_range | ((dropped >= near_below) & (dropped <= near_above));
            const f32x4 f = __builtin_convertvector(y, f32x4);
            std::memcpy(out + g, &f, sizeof f);
        }
        if ((slow[0] | slow[1] | slow[2] | slow[3]) != 0) {
            for (long j = 0; j < len; ++j) out[j] = F == Fn::exp ? library_exp(in[j]) : library_sigmoid(in[j]);
        }
        std::memcpy(v + i, out, static_cast<std::size_t>(len) * sizeof(float));
    }
}

}  // namespace

__attribute__((target_clones("avx2", "default"))) void exp_to_float(float* v, long n) {
    to_float_in_chunks<Fn::exp>(v, n, kFastLowest, kFastHighest);
}

__attribute__((target_clones("avx2", "default"))) void sigmoid_to_float(float* v, long n) {
    to_float_in_chunks<Fn::sigmoid>(v, n, -kSigmoidReach, kSigmoidReach);
}

}  // namespace tsuops::kernels::moe
