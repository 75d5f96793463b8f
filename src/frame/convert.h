// The element conversions of `cast`. Every conversion passes through a 32-bit
// intermediate, a float or an int, because that is what the device does and
// host results must agree with it. `Sim` asks for the device's own rules where
// the plain host rules differ: narrowing to an 8-bit integer saturates instead
// of wrapping, and narrowing to bfloat16 rounds ties away from zero.
//
// The reference path of `cast` applies element() one value at a time; the
// kernel bodies build their vectorised loops from the same pieces (to_float,
// trunc32, from_float, bf16_bits_away), so the two cannot drift apart.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <type_traits>

#include <immintrin.h>

#include <tsuops/float16.h>

namespace infer_ops::convert {

template <class T>
inline constexpr bool is_half_v = std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>;
template <class T>
inline constexpr bool is_floating_v = std::is_floating_point_v<T> || is_half_v<T>;

// The float of a floating source: exact for the half types, rounded for
// double.
template <class T>
inline float widen(T x) {
    static_assert(is_floating_v<T>);
    if constexpr (std::is_same_v<T, float16>) {
        return tsuops_half_detail::half_bits_to_float(x.x);
    } else if constexpr (std::is_same_v<T, bfloat16>) {
        return std::bit_cast<float>(static_cast<std::uint32_t>(x.x) << 16);
    } else {
        return static_cast<float>(x);
    }
}

// The 32-bit value of an integer source: sign-extended for signed char and
// short, zero-extended for bool and unsigned char, the low 32 bits of a long.
template <class T>
inline std::int32_t low32(T x) {
    static_assert(std::is_integral_v<T>);
    return static_cast<std::int32_t>(x);
}

// The float intermediate of any source.
template <class T>
inline float to_float(T x) {
    if constexpr (is_floating_v<T>) {
        return widen(x);
    } else {
        return static_cast<float>(low32(x));
    }
}

// Truncation towards zero into 32 bits. NaN and values outside the range give
// the most negative value, which is what the host's truncating instruction
// gives; spelling it out keeps scalar and vector code in agreement.
inline std::int32_t trunc32(float f) {
    return f >= -0x1p31f && f < 0x1p31f ? static_cast<std::int32_t>(f) : std::numeric_limits<std::int32_t>::min();
}

// The one 64-bit truncation: double to long.
inline long trunc64(double d) {
    return d >= -0x1p63 && d < 0x1p63 ? static_cast<long>(d) : std::numeric_limits<long>::min();
}

// bfloat16 narrowing with ties away from zero, the device's rule: the bits
// that bfloat16(f, true) gives, inline for vector loops.
inline std::uint16_t bf16_bits_away(float f) {
    const std::uint32_t w = std::bit_cast<std::uint32_t>(f);
    const std::uint32_t r = (w + 0x8000u) >> 16;
    return static_cast<std::uint16_t>((w & 0x7fffffffu) > 0x7f800000u ? 0x7fc0u : r);
}

// The inline bfloat16 narrowing of a few reference paths (add and some fused
// normalisations): ties away from zero whatever the bfloat16 mode, and no
// special case for NaN.
inline bfloat16 bf16_inline(float f) {
    return bfloat16::from_bits(static_cast<std::uint16_t>((std::bit_cast<std::uint32_t>(f) + 0x8000u) >> 16));
}

// From the float intermediate of a floating source to any destination.
template <class TY, bool Sim>
inline TY from_float(float w) {
    if constexpr (std::is_same_v<TY, float>) {
        return w;
    } else if constexpr (std::is_same_v<TY, float16>) {
        return float16(w);
    } else if constexpr (std::is_same_v<TY, bfloat16>) {
        return bfloat16(w, Sim);
    } else if constexpr (std::is_same_v<TY, double>) {
        return static_cast<double>(w);
    } else if constexpr (std::is_same_v<TY, bool>) {
        return w != 0.0f;  // NaN counts as true
    } else if constexpr (std::is_same_v<TY, signed char>) {
        if constexpr (Sim) {
            // Clamped as the device's max and min instructions do: a NaN
            // compares false and takes the lower bound.
            const float lo = w > -128.0f ? w : -128.0f;
            const float c = lo < 127.0f ? lo : 127.0f;
            return static_cast<signed char>(static_cast<std::int32_t>(c));
        } else {
            return static_cast<signed char>(trunc32(w));
        }
    } else if constexpr (std::is_same_v<TY, unsigned char>) {
        if constexpr (Sim) {
            return static_cast<unsigned char>(std::min(std::max(trunc32(w), 0), 255));
        } else {
            return static_cast<unsigned char>(trunc32(w));
        }
    } else {
        // short keeps the low 16 bits, long sign-extends.
        static_assert(std::is_same_v<TY, short> || std::is_same_v<TY, int> || std::is_same_v<TY, long>);
        return static_cast<TY>(trunc32(w));
    }
}

// The device's narrowing of floats to signed char in AVX2 form, for kernel
// loops compiled for AVX2 and chosen at run time: element for element what
// from_float<signed char, true> gives. The max and min instructions clamp in
// the same operand order as the scalar form (a NaN takes the lower bound),
// then the truncation.
namespace avx2 {

__attribute__((target("avx2"), always_inline)) inline __m256i int8_sim_lanes(const float* x) {
    const __m256 lo = _mm256_max_ps(_mm256_loadu_ps(x), _mm256_set1_ps(-128.0f));
    return _mm256_cvttps_epi32(_mm256_min_ps(lo, _mm256_set1_ps(127.0f)));
}

// y[0..32) from x[0..32).
__attribute__((target("avx2"), always_inline)) inline void int8_sim_32(const float* x, signed char* y) {
    const __m256i a = int8_sim_lanes(x), b = int8_sim_lanes(x + 8);
    const __m256i c = int8_sim_lanes(x + 16), d = int8_sim_lanes(x + 24);
    // The packs work within 128-bit halves; the permutation restores the order.
    const __m256i bytes = _mm256_packs_epi16(_mm256_packs_epi32(a, b), _mm256_packs_epi32(c, d));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(y),
                        _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7)));
}

}  // namespace avx2

// From an integer source to an integer destination.
template <class TX, class TY, bool Sim>
inline TY int_to_int(TX x) {
    if constexpr (std::is_same_v<TY, bool>) {
        return x != 0;  // over the full width
    } else if constexpr (Sim && std::is_same_v<TY, signed char>) {
        return static_cast<signed char>(std::min(std::max(low32(x), -128), 127));
    } else if constexpr (Sim && std::is_same_v<TY, unsigned char>) {
        return static_cast<unsigned char>(std::min(std::max(low32(x), 0), 255));
    } else {
        return static_cast<TY>(x);
    }
}

// One element of cast<TX, TY>.
template <class TX, class TY, bool Sim>
inline TY element(TX x) {
    if constexpr (std::is_same_v<TX, TY>) {
        // The half types pass through float even here, so a float16 loses its
        // subnormals in the default mode and every bfloat16 NaN becomes 0x7fc0.
        if constexpr (is_half_v<TX>) {
            return from_float<TY, Sim>(widen(x));
        } else {
            return x;
        }
    } else if constexpr (is_floating_v<TX>) {
        if constexpr (std::is_same_v<TX, double> && std::is_same_v<TY, long>) {
            return trunc64(x);
        } else {
            return from_float<TY, Sim>(widen(x));
        }
    } else if constexpr (std::is_same_v<TY, double>) {
        // long converts in full; int rounds to 24 bits through float; the
        // narrower sources are exact either way.
        if constexpr (std::is_same_v<TX, long>) {
            return static_cast<double>(x);
        } else {
            return static_cast<double>(static_cast<float>(low32(x)));
        }
    } else if constexpr (is_floating_v<TY>) {
        return from_float<TY, Sim>(static_cast<float>(low32(x)));
    } else {
        return int_to_int<TX, TY, Sim>(x);
    }
}

}  // namespace infer_ops::convert
