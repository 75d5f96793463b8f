// The store conversion of the cache stores: how a new key or value element
// becomes a cache element when the cache is filled with a multiplier per
// element (key_scale, value_scale), or with none.
//
//                 | cache of T                        | signed char cache
//   scale given   | q below, as a whole number in T   | q below
//   scale null    | the element bit for bit           | low 8 bits of x truncated
//
//   q = round_half_away(clamp(x * scale, -128, 127))
//
// The clamp comes first and the range is -128 to 127: the scale is a
// multiplier, not the largest magnitude of the symmetric 8-bit rule. The
// clamp is max then min as the device's instructions do them: a comparison
// with NaN is false, so a NaN product lands on the lower bound, -128.
//
// Reference paths call the element form; kernel bodies the span forms over
// rows of floats, which inline the same steps into loops GCC vectorises.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <type_traits>

#include <tsuops/float16.h>

#include "frame/convert.h"
#include "frame/quant_rules.h"

namespace infer_ops::cache {

inline constexpr float kStoreMin = -128.0f;
inline constexpr float kStoreMax = 127.0f;

// Round to nearest, ties away from zero, for |v| below 2^31: the truncation
// and one step away from zero when the dropped fraction is at least a half.
// No library call and no branch, so that loops over it vectorise.
inline int round_half_away(float v) {
    const int t = static_cast<int>(v);
    const float frac = std::fabs(v - static_cast<float>(t));  // exact: v and t share the integer part
    const int up = frac >= 0.5f ? 1 : 0;
    const int neg = -static_cast<int>(std::bit_cast<std::uint32_t>(v) >> 31);
    return t + ((up ^ neg) - neg);
}

// c ? a : b through a bit mask. With a plain conditional GCC threads the
// constant arm past the rounding, which leaves the float-to-int conversion
// on one path only, and the loop stays scalar.
inline float select(bool c, float a, float b) {
    const std::uint32_t m = 0u - static_cast<std::uint32_t>(c);
    return std::bit_cast<float>((std::bit_cast<std::uint32_t>(a) & m) | (std::bit_cast<std::uint32_t>(b) & ~m));
}

// q of a scaled store, a whole number in [-128, 127].
inline int store_scaled(float x, float scale) {
    float v = x * scale;
    v = select(v > kStoreMin, v, kStoreMin);
    v = select(v < kStoreMax, v, kStoreMax);
    return round_half_away(v);
}

// An unscaled store into signed char: truncation towards zero and the low
// eight bits. NaN, infinities and magnitudes from 2^31 on truncate to the
// most negative 32-bit value, whose low byte is 0.
inline signed char store_truncated(float x) {
    return static_cast<signed char>(static_cast<std::uint8_t>(convert::trunc32(x) & 0xff));
}

// One element: x of T into a cache of TC (T itself or signed char), against
// its multiplier *scale or, with scale null, unscaled.
template <typename T, typename TC>
inline TC store_element(T x, const float* scale) {
    static_assert(std::is_same_v<TC, T> || std::is_same_v<TC, signed char>);
    if (scale != nullptr) {
        const int q = store_scaled(static_cast<float>(x), *scale);
        if constexpr (std::is_same_v<TC, signed char>) {
            return static_cast<signed char>(q);
        } else {
            return TC(static_cast<float>(q));
        }
    }
    if constexpr (std::is_same_v<TC, T>) {
        return x;
    } else {
        return store_truncated(static_cast<float>(x));
    }
}

// ---- span forms over widened rows ------------------------------------------------------------
// Blocks of a fixed length over restrict pointers, so that GCC vectorises
// without alias checks or an unknown trip count.
inline constexpr long kStoreBlock = 32;

// q for n elements and their n multipliers: as whole-number floats, for a
// cache of T that narrows them afterwards, or as signed char.
inline void store_scaled_span(const float* __restrict x, const float* __restrict scale, float* __restrict q,
                              long n) {
    long i = 0;
    for (; i + kStoreBlock <= n; i += kStoreBlock) {
        for (long k = 0; k < kStoreBlock; ++k) q[i + k] = static_cast<float>(store_scaled(x[i + k], scale[i + k]));
    }
    for (; i < n; ++i) q[i] = static_cast<float>(store_scaled(x[i], scale[i]));
}

inline void store_scaled_span(const float* __restrict x, const float* __restrict scale, signed char* __restrict q,
                              long n) {
    long i = 0;
    for (; i + kStoreBlock <= n; i += kStoreBlock) {
        for (long k = 0; k < kStoreBlock; ++k) q[i + k] = static_cast<signed char>(store_scaled(x[i + k], scale[i + k]));
    }
    for (; i < n; ++i) q[i] = static_cast<signed char>(store_scaled(x[i], scale[i]));
}

inline void store_truncated_span(const float* __restrict x, signed char* __restrict q, long n) {
    long i = 0;
    for (; i + kStoreBlock <= n; i += kStoreBlock) {
        for (long k = 0; k < kStoreBlock; ++k) q[i + k] = store_truncated(x[i + k]);
    }
    for (; i < n; ++i) q[i] = store_truncated(x[i]);
}

// ---- per-channel caches with zero points -------------------------------------------------------
// The caches of the fused front ends that hold one multiplier m and one
// optional zero point z per channel (element of a head):
//
//   signed char:  rne(clamp(x * m + z, -127, 127))
//   4-bit:        rne(clamp(x * m + z, -8, 7))
//
// rne rounds to nearest with ties to even; the product and the sum are two
// float roundings (includers compile with floating contraction off). The
// clamp is max then min as above, so a NaN lands on the lower bound; the
// range of the 8-bit form is symmetric. Rounding after the clamp gives what
// rounding before it gives, since the bounds are whole numbers.
inline constexpr float kChannelInt8Max = 127.0f;
inline constexpr float kChannelInt4Min = -8.0f;
inline constexpr float kChannelInt4Max = 7.0f;

inline int clamp_round(float v, float lo, float hi) {
    v = select(v > lo, v, lo);
    v = select(v < hi, v, hi);
    return quant::round_half_even(v);
}

inline signed char store_channel_int8(float x, float m, float z) {
    return static_cast<signed char>(clamp_round(x * m + z, -kChannelInt8Max, kChannelInt8Max));
}

inline int store_channel_int4(float x, float m, float z) {
    return clamp_round(x * m + z, kChannelInt4Min, kChannelInt4Max);
}

// The 4-bit form in float16 steps (the values of the prefill store): the
// product, then the sum with the zero point, each rounded to float16 by the
// float16 mode before the clamp. x, m and z are float16 values.
inline int store_channel_int4_half(float x, float m, float z) {
    const float t = static_cast<float>(float16(x * m));
    const float u = static_cast<float>(float16(z + t));
    return clamp_round(u, kChannelInt4Min, kChannelInt4Max);
}

// Two 4-bit values in one byte: lo in the low four bits, hi in the high.
inline std::uint8_t pack_int4(int lo, int hi) {
    return static_cast<std::uint8_t>((static_cast<unsigned>(hi) << 4) | (static_cast<unsigned>(lo) & 15u));
}

}  // namespace infer_ops::cache
