// The 16-bit storage types of host code. Arithmetic happens in float after
// widening; a result is narrowed once, by the rules of this header.
//
// Rounding modes, read from the environment on the first narrowing of each
// kind and kept for the life of the process (values are lower-cased):
//   float16:  TSUAPI_BF16_FP16_MODE if set, else TSUAPI_FP16_MODE, else "tsu2".
//             Only "tsu3" keeps subnormal results; every other value flushes
//             them to a zero of the same sign.
//   bfloat16: TSUAPI_BF16_ROUND_MODE, default "rne". Only "rn" rounds ties
//             away from zero; every other value rounds ties to even.
#pragma once

#include <cstdint>
#include <cstring>

namespace tsuops_half_detail {
inline float bits_to_float(std::uint32_t w) {
    float f;
    std::memcpy(&f, &w, 4);
    return f;
}
inline std::uint32_t float_to_bits(float f) {
    std::uint32_t w;
    std::memcpy(&w, &f, 4);
    return w;
}
// Widening of a binary16 pattern: exact, infinities kept, NaN stays NaN.
inline float half_bits_to_float(std::uint16_t h) {
    const std::uint32_t two_w = static_cast<std::uint32_t>(h) << 17;
    float mag;
    if (two_w < 0x8000000u) {
        mag = bits_to_float((two_w >> 17) | 0x3f000000u) - 0.5f;
    } else {
        mag = bits_to_float((two_w >> 4) | 0x70000000u) * 0x1p-112f;
    }
    return bits_to_float(float_to_bits(mag) | (static_cast<std::uint32_t>(h & 0x8000u) << 16));
}
}  // namespace tsuops_half_detail

// IEEE 754 binary16 pattern.
struct float16 {
    std::uint16_t x;

    float16() = default;
    // Round to nearest even; subnormal results flush to zero unless the
    // float16 mode is "tsu3".
    float16(float f);
    static constexpr float16 from_bits(std::uint16_t bits) {
        float16 h{};
        h.x = bits;
        return h;
    }
    operator float() const { return tsuops_half_detail::half_bits_to_float(x); }
};

// Upper half of an IEEE 754 binary32 pattern.
struct bfloat16 {
    std::uint16_t x;

    bfloat16() = default;
    // NaN gives 0x7fc0. Ties go to even, or away from zero when force_rn is
    // set or the bfloat16 mode is "rn".
    bfloat16(float f, bool force_rn = false);
    static constexpr bfloat16 from_bits(std::uint16_t bits) {
        bfloat16 h{};
        h.x = bits;
        return h;
    }
    operator float() const { return tsuops_half_detail::bits_to_float(static_cast<std::uint32_t>(x) << 16); }
};

static_assert(sizeof(float16) == 2 && alignof(float16) == 2);
static_assert(sizeof(bfloat16) == 2 && alignof(bfloat16) == 2);

namespace infer_ops {
// The float16 narrowing without the flush step: IEEE round to nearest even.
std::uint16_t float_to_half_bits_rne(float f);
// True when the cached float16 mode is "tsu3" (reads the environment once).
bool fp16_mode_is_tsu3();
// True when the cached bfloat16 mode is "rn" (reads the environment once).
bool bf16_mode_is_rn();

// Array forms of the conversions, for host loops: each gives, element for
// element, the bits that the scalar conversion gives, but tests the mode once
// per call and runs vectorised. src and dst must not overlap; n <= 0 does
// nothing.
void narrow(const float* src, float16* dst, long n);
void narrow(const float* src, bfloat16* dst, long n, bool force_rn = false);
void widen(const float16* src, float* dst, long n);
void widen(const bfloat16* src, float* dst, long n);
}  // namespace infer_ops
