// The quantisation rules beside rule Q8 (which lives in quant_rules.h with
// the absolute-maximum rule): the 4-bit rule Q4 with its float16 round trip,
// the two rules of the normalising operators, QD and QM, and the packed
// int4_t layout.
//
// Every scale float here is the largest magnitude of its span, not a step
// size: a stored q stands for q * s / 127 (8 bits) or q * s / 7 (4 bits).
// Reference paths and kernel bodies call these same routines, so they are
// header-only, allocation-free and free of branches on the value, so that a
// loop over a span inlines them and vectorises.
#pragma once

#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>

#include <tsuops/types.h>

#include "frame/quant_rules.h"

namespace infer_ops::quant {

// ---- rule Q4 ------------------------------------------------------------------------------------
// The 4-bit range: not symmetric, although the scale is.
inline constexpr int kInt4Min = -8;
inline constexpr int kInt4Max = 7;

// The float16 round trip of a value that the Q4 clamps have already put into
// [-8, 7]: rounding to binary16 precision, to nearest with ties to even, and
// back to float. For |v| >= 2^-14 (normal binary16) this is the exact round
// trip. Below that binary16 would be subnormal or flushed, depending on the
// float16 mode; the result here stays below 2^-14 as well, so the integer
// rounding that follows gives 0 in every mode, as the true round trip does.
// The round trip matters because it can move a value onto a tie: 2.5004
// becomes 2.5 and then rounds to 2, not 3.
inline float q4_half_round_trip(float v) {
    const std::uint32_t w = std::bit_cast<std::uint32_t>(v);
    const std::uint32_t r = (w + 0xfffu + ((w >> 13) & 1u)) & 0xffffe000u;
    return std::bit_cast<float>(r);
}

// Rule Q4 against the scale float s: f = 7 / s once per span, then for each
// element v = x * f, clamped to at least -8 and then to at most 7, rounded
// through float16, then to the nearest integer with ties to even. Nothing is
// normalised first, unlike rule Q8: an infinite factor (s zero or tiny)
// sends any non-zero x to -8 or 7. A NaN product (x NaN, s NaN, or a zero x
// against an infinite factor) passes both clamps and gives 0.
class q4_quantiser {
public:
    explicit q4_quantiser(float s) : factor_(7.0f / s) {}

    // The value in [-8, 7]; the stored nibble is its low four bits.
    int operator()(float x) const {
        float v = x * factor_;
        v = v < -8.0f ? -8.0f : v;
        v = v > 7.0f ? 7.0f : v;
        const bool nan = v != v;
        v = q4_half_round_trip(nan ? 0.0f : v);
        return round_half_even(v);
    }

    float factor() const { return factor_; }

private:
    float factor_;
};

// ---- the int4_t layout ------------------------------------------------------------------------
// Two two's-complement 4-bit values per byte: element 2k in the low nibble
// of byte k, element 2k + 1 in the high nibble. A row of n elements takes
// (n + 1) / 2 bytes; with an odd n the last high nibble holds the quantised
// value of 0.
inline constexpr long int4_row_bytes(long n) { return (n + 1) / 2; }

inline constexpr std::uint8_t pack_int4(int even, int odd) {
    return static_cast<std::uint8_t>((static_cast<unsigned>(even) & 0xfu) | ((static_cast<unsigned>(odd) & 0xfu) << 4));
}

// Sign-extends a nibble to -8..7.
inline constexpr int int4_value(unsigned nibble) { return static_cast<int>((nibble & 0xfu) ^ 0x8u) - 8; }

// Element j of a packed row.
inline int int4_at(const int4_t* row, long j) {
    const unsigned b = row[j / 2].x;
    return int4_value((j & 1) != 0 ? b >> 4 : b);
}

// A span of n elements quantised by rule Q4 against s into (n + 1) / 2
// packed bytes. Whole bytes are written, so two cores never share a byte as
// long as their spans start at even elements.
template <typename T>
inline void quantize_span_int4(const T* x, int4_t* y, long n, float s) {
    const q4_quantiser q(s);
    long j = 0;
    for (; j + 1 < n; j += 2) {
        y[j / 2].x = pack_int4(q(static_cast<float>(x[j])), q(static_cast<float>(x[j + 1])));
    }
    if (j < n) y[j / 2].x = pack_int4(q(static_cast<float>(x[j])), q(0.0f));
}

// ---- rules QD and QM ------------------------------------------------------------------------------
// Both round half away from zero (roundf) and apply no range of their own:
// with s the span's absolute maximum the quotient is at most 127 in
// magnitude. What they give for a quotient that is NaN or outside the int
// range (a NaN element, or an infinite one against a finite s) is fixed
// here as the x86 conversion's own answer, INT_MIN, whose low byte makes a
// stored signed char 0; C++ leaves that conversion undefined.

// roundf(v) truncated to int, INT_MIN when v is NaN or |v| >= 2^31.
inline int round_half_away(float v) {
    const bool in_range = std::fabs(v) < 2147483648.0f;  // false for NaN
    const float safe = in_range ? v : 0.0f;
    const int t = static_cast<int>(safe);
    const float frac = std::fabs(safe - static_cast<float>(t));  // exact: safe and t share the integer part
    const int up = frac >= 0.5f ? 1 : 0;
    const int r = t + (safe < 0.0f ? -up : up);
    return in_range ? r : INT_MIN;
}

// The int's low byte, as every operator stores it.
inline signed char low_byte(int q) { return static_cast<signed char>(q); }

// Rule QD: q = trunc(roundf(v / (s / 127))). The step s / 127 is the same
// for the whole span; the division by it stays per element, because
// v / (s / 127) and v * (127 / s) differ in the last bit often enough to
// move a rounding.
class qd_quantiser {
public:
    explicit qd_quantiser(float s) : step_(s / 127.0f) {}
    int operator()(float v) const { return round_half_away(v / step_); }
    float step() const { return step_; }

private:
    float step_;
};

// Rule QM: q = trunc(roundf(v * (127 / s))).
class qm_quantiser {
public:
    explicit qm_quantiser(float s) : factor_(127.0f / s) {}
    int operator()(float v) const { return round_half_away(v * factor_); }
    float factor() const { return factor_; }

private:
    float factor_;
};

}  // namespace infer_ops::quant
