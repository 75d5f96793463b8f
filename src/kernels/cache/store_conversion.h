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

}  // namespace infer_ops::cache
