// The scale conventions that every quantising operator shares: how a scale
// float is found (the absolute-maximum rule) and how a float becomes a
// saturated integer against it (rule Q8 and its 16-bit and 2^30 forms, and
// an AVX2 form of rule Q8 for the kernels' loops).
//
// Reference paths and kernel bodies both call these, because the two paths
// must agree bit for bit on flushing, ties and saturation. Everything here is
// header-only, allocation-free and branch-light, so that a loop over a row
// inlines it and GCC can vectorise the loop.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include <immintrin.h>

#include <tsuops/float16.h>

namespace infer_ops::quant {

// The start of the absolute-maximum rule: the float with bits 0x0DA24260.
// Starting above zero keeps 127 / s finite for an all-zero span, so such a
// span quantises to zeros instead of saturating, and a span without elements
// still stores a usable scale.
inline constexpr std::uint32_t kScaleFloorBits = 0x0DA24260u;
inline constexpr float kScaleFloor = std::bit_cast<float>(kScaleFloorBits);

namespace detail {

inline std::uint32_t bits(float f) { return std::bit_cast<std::uint32_t>(f); }
inline float from_bits(std::uint32_t w) { return std::bit_cast<float>(w); }

// c ? a : b through a bit mask. A plain conditional with a constant arm
// invites GCC to thread the constant through the rounding that follows,
// which leaves the float-to-int conversion on one path only; under the
// default trapping-math rules that conversion then cannot be if-converted
// and the loop does not vectorise.
inline float select(bool c, float a, float b) {
    const std::uint32_t m = 0u - static_cast<std::uint32_t>(c);
    return from_bits((bits(a) & m) | (bits(b) & ~m));
}

template <typename T>
inline float widen(T v) {
    return static_cast<float>(v);
}

}  // namespace detail

// One step of the absolute-maximum rule. Written as `a > s ? a : s` so that
// a NaN element never wins (every comparison with NaN is false) and the
// compiler can use a max instruction, whose NaN operand order is exactly
// this one.
inline float absmax_step(float s, float a) { return a > s ? a : s; }

// The absolute-maximum rule over n elements, widened to float, starting at
// `start`: kScaleFloor for the scale float of a quantised span, 0 for the
// few places that want an all-zero span to give 0 (findmax, reduce_absmax).
// Magnitudes are never -0 and NaN never wins, so the order in which elements
// are compared cannot change the result; the lanes below only exist so that
// the loop vectorises.
template <typename T>
inline float absmax(const T* x, long n, float start = kScaleFloor) {
    constexpr int kLanes = 16;
    float lane[kLanes];
    for (int k = 0; k < kLanes; ++k) lane[k] = start;
    long i = 0;
    for (; i + kLanes <= n; i += kLanes) {
        for (int k = 0; k < kLanes; ++k) lane[k] = absmax_step(lane[k], std::fabs(detail::widen(x[i + k])));
    }
    float s = start;
    for (; i < n; ++i) s = absmax_step(s, std::fabs(detail::widen(x[i])));
    for (int k = 0; k < kLanes; ++k) s = absmax_step(s, lane[k]);
    return s;
}

// Both inputs of the integer conversion are cleaned first: a NaN counts as
// the infinity of its own sign, so a NaN element saturates by its sign bit
// instead of reaching the rounding; a subnormal counts as +0, as the device
// flushes them; and a zero of either sign counts as +0, so that against an
// infinite factor -0 saturates upwards like +0.
inline float normalise(float v) {
    const std::uint32_t w = detail::bits(v);
    const std::uint32_t mag = w & 0x7fffffffu;
    std::uint32_t out = w;
    out = mag > 0x7f800000u ? ((w & 0x80000000u) | 0x7f800000u) : out;
    out = mag < 0x00800000u ? 0u : out;
    return detail::from_bits(out);
}

// Round to nearest, ties to even, for |v| below 2^31. Conversions used by
// the device's toolchain round with llround (ties away from zero) and then
// step one towards zero when the value was exactly halfway and the rounded
// result is odd; that is the same as ties-to-even. Here it is computed from
// the truncation, with the fraction compared as bits and the sign applied
// arithmetically: no floating-point comparison that the compiler must keep
// behind a branch, no dependence on the rounding mode, no library call, so
// loops over it vectorise.
inline int round_half_even(float v) {
    constexpr std::uint32_t half = 0x3f000000u;
    const int t = static_cast<int>(v);
    // Exact: v and t share the integer part.
    const std::uint32_t frac = detail::bits(v - static_cast<float>(t)) & 0x7fffffffu;
    const int up = static_cast<int>((frac > half) | ((frac == half) & static_cast<std::uint32_t>(t)));
    const int neg = -static_cast<int>(detail::bits(v) >> 31);
    return t + ((up ^ neg) - neg);
}

// The conversion of rule Q8 and its wider forms: x against the scale float s
// (the span's absolute maximum, not a step size), LIM / s as the factor.
// The factor is computed once per scale so that loops over a span pay for
// one division; `quant_fp32` below is the one-element form.
//   - An infinite factor (s zero, or too small for LIM / s to stay finite)
//     cannot multiply meaningfully; the result is +-SAT by the sign bit of x.
//   - A NaN product (infinite s against infinite x) gives +SAT.
//   - Products beyond +-LIM saturate; the range is symmetric, so the most
//     negative value of Q is never produced and negation stays exact.
// SAT is LIM except in the 2^30 form, which must fit two 16-bit planes of a
// 15-bit low part and a signed high part, so it stops one short of 2^30.
template <typename Q, int LIM, int SAT = LIM>
class scaled_quantiser {
    static_assert(std::is_signed_v<Q> && std::is_integral_v<Q>);
    static_assert(LIM > 0 && SAT > 0 && SAT <= LIM && static_cast<long>(SAT) <= std::numeric_limits<Q>::max());

public:
    // An infinite factor is folded into the per-element work without a
    // branch: x is replaced by +-1 carrying its sign bit and the factor by
    // LIM, which lands on +-LIM exactly.
    explicit scaled_quantiser(float s) : factor_(static_cast<float>(LIM) / normalise(s)) {
        const bool inf = std::fabs(factor_) == std::numeric_limits<float>::infinity();
        applied_ = inf ? static_cast<float>(LIM) : factor_;
        keep_bits_ = inf ? 0x80000000u : 0xffffffffu;
        one_bits_ = inf ? 0x3f800000u : 0u;
    }

    Q operator()(float x) const {
        constexpr float lim = static_cast<float>(LIM);
        const float xs = detail::from_bits((detail::bits(normalise(x)) & keep_bits_) | one_bits_);
        float v = applied_ * xs;
        v = detail::select(v > lim, lim, v);
        v = detail::select(v < -lim, -lim, v);
        v = detail::select(v != v, lim, v);
        int r = round_half_even(v);
        r = r > SAT ? SAT : r;
        r = r < -SAT ? -SAT : r;
        return static_cast<Q>(r);
    }

    // LIM / s after normalising s; infinite when the sign of x alone decides.
    float factor() const { return factor_; }

    // What operator() applies to every element, for a vector form of the
    // rule: the factor (LIM where the sign of x alone decides), and the mask
    // and bits that keep x or replace it by +-1.
    struct lane_constants {
        float applied;
        std::uint32_t keep_bits;
        std::uint32_t one_bits;
    };
    lane_constants constants() const { return {applied_, keep_bits_, one_bits_}; }

private:
    float factor_;
    float applied_;
    std::uint32_t keep_bits_;
    std::uint32_t one_bits_;
};

// The 2^30 form of quantization<float, int>.
inline constexpr int kInt30Limit = 1 << 30;

template <typename Q>
struct quantiser_of;
template <>
struct quantiser_of<signed char> {
    using type = scaled_quantiser<signed char, 127>;
};
template <>
struct quantiser_of<short> {
    using type = scaled_quantiser<short, 32767>;
};
template <>
struct quantiser_of<int> {
    using type = scaled_quantiser<int, kInt30Limit, kInt30Limit - 1>;
};

template <typename Q>
using quantiser = typename quantiser_of<Q>::type;

// A span quantised against one scale float. Kernels and reference paths use
// this rather than a per-element call so the division happens once.
// Fixed blocks of 16 with restrict-qualified pointers let GCC vectorise the
// loop even under its cheapest cost model (no runtime alias checks, no
// unknown trip count).
template <typename T, typename Q>
inline void quantize_span(const T* __restrict x, Q* __restrict y, long n, float s) {
    const quantiser<Q> q(s);
    constexpr int kBlock = 16;
    long i = 0;
    for (; i + kBlock <= n; i += kBlock) {
        for (int k = 0; k < kBlock; ++k) y[i + k] = q(detail::widen(x[i + k]));
    }
    for (; i < n; ++i) y[i] = q(detail::widen(x[i]));
}

// ---- the AVX2 forms --------------------------------------------------------------------------
// Rule Q8 and the absolute-maximum rule for loops compiled for AVX2 (chosen
// at run time where the CPU has it), each giving exactly what the scalar rule
// above gives.
#define TSUOPS_QUANT_AVX2 __attribute__((target("avx2"), always_inline)) inline

namespace avx2 {

// The absolute-maximum rule over n floats, continuing from s: four vectors
// of lanes, each lane keeping `a > lane ? a : lane` (the max instruction's
// operand order, so a NaN never wins), folded at the end. As for absmax
// above, the order of the comparisons cannot change the result.
TSUOPS_QUANT_AVX2 float absmax(const float* x, long n, float s) {
    const __m256 abs = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
    __m256 m0 = _mm256_set1_ps(s), m1 = m0, m2 = m0, m3 = m0;
    long j = 0;
    for (; j + 32 <= n; j += 32) {
        m0 = _mm256_max_ps(_mm256_and_ps(_mm256_loadu_ps(x + j), abs), m0);
        m1 = _mm256_max_ps(_mm256_and_ps(_mm256_loadu_ps(x + j + 8), abs), m1);
        m2 = _mm256_max_ps(_mm256_and_ps(_mm256_loadu_ps(x + j + 16), abs), m2);
        m3 = _mm256_max_ps(_mm256_and_ps(_mm256_loadu_ps(x + j + 24), abs), m3);
    }
    for (; j < n; ++j) s = absmax_step(s, std::fabs(x[j]));
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, _mm256_max_ps(_mm256_max_ps(m0, m1), _mm256_max_ps(m2, m3)));
    for (float l : lanes) s = absmax_step(s, l);
    return s;
}

// Rule Q8 on eight lanes, as int32 results in [-127, 127]. The full form
// does what operator() does, step for step: the same cleaning of x (NaN to
// the infinity of its sign, subnormal and zero to +0), the same substitution
// where the factor is infinite, the same clamps in the same order (a NaN
// product becomes +127), and ties to even from the rounding instruction in
// its explicit nearest-even form, whatever the rounding mode.
TSUOPS_QUANT_AVX2 __m256i q8_full(const quantiser<signed char>::lane_constants& c, const float* x) {
    const __m256i sign = _mm256_set1_epi32(static_cast<int>(0x80000000u));
    const __m256i inf = _mm256_set1_epi32(0x7f800000);
    const __m256 lim = _mm256_set1_ps(127.0f);
    __m256i w = _mm256_castps_si256(_mm256_loadu_ps(x));
    const __m256i mag = _mm256_andnot_si256(sign, w);
    const __m256i nan = _mm256_cmpgt_epi32(mag, inf);
    w = _mm256_blendv_epi8(w, _mm256_or_si256(_mm256_and_si256(w, sign), inf), nan);
    w = _mm256_andnot_si256(_mm256_cmpgt_epi32(_mm256_set1_epi32(0x00800000), mag), w);
    w = _mm256_or_si256(_mm256_and_si256(w, _mm256_set1_epi32(static_cast<int>(c.keep_bits))),
                        _mm256_set1_epi32(static_cast<int>(c.one_bits)));
    __m256 v = _mm256_mul_ps(_mm256_set1_ps(c.applied), _mm256_castsi256_ps(w));
    v = _mm256_min_ps(v, lim);  // above 127, and NaN, give 127
    v = _mm256_max_ps(v, _mm256_set1_ps(-127.0f));
    return _mm256_cvttps_epi32(_mm256_round_ps(v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
}

// The factors for which the short form gives the same: finite, positive and
// below 2^125, which holds for every scale float from the absolute-maximum
// rule (at least the floor 1e-30). Then a subnormal x makes a product below
// 0.5 in magnitude, which rounds to 0 as the cleaned +0 does; a zero x makes
// a zero; and a NaN x makes a NaN product of the NaN's own sign, where the
// cleaned infinity makes an infinity of that sign.
inline bool q8_short_applies(const quantiser<signed char>::lane_constants& c) {
    return c.keep_bits == 0xffffffffu && c.applied > 0.0f && c.applied < 0x1p125f;
}

// The short form: the product, its magnitude clamped to 127 (a NaN
// magnitude gives 127, the min instruction's second operand), its sign put
// back, then rounded as above.
TSUOPS_QUANT_AVX2 __m256i q8_short(const quantiser<signed char>::lane_constants& c, const float* x) {
    const __m256 sign = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(0x80000000u)));
    const __m256 v = _mm256_mul_ps(_mm256_set1_ps(c.applied), _mm256_loadu_ps(x));
    const __m256 mag = _mm256_min_ps(_mm256_andnot_ps(sign, v), _mm256_set1_ps(127.0f));
    const __m256 clamped = _mm256_or_ps(mag, _mm256_and_ps(v, sign));
    return _mm256_cvttps_epi32(_mm256_round_ps(clamped, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
}

// y[0..32) from x[0..32), eight lanes at a time in the short or full form.
template <bool Short>
TSUOPS_QUANT_AVX2 void q8_store32(const quantiser<signed char>::lane_constants& c, const float* x, signed char* y) {
    const auto lanes = [&c](const float* p) __attribute__((target("avx2"), always_inline)) {
        return Short ? q8_short(c, p) : q8_full(c, p);
    };
    const __m256i a = lanes(x), b = lanes(x + 8), d = lanes(x + 16), e = lanes(x + 24);
    // The packs work within 128-bit halves; the permutation puts the four
    // groups of four back in element order.
    const __m256i bytes = _mm256_packs_epi16(_mm256_packs_epi32(a, b), _mm256_packs_epi32(d, e));
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(y), _mm256_permutevar8x32_epi32(bytes, order));
}

// y[j] = q(x[j]) for j in [0, n): 32 elements at a time in the short form
// where it applies, else in the full form; the rest through q itself.
TSUOPS_QUANT_AVX2 void q8_span(const quantiser<signed char>& q, const float* x, signed char* y, long n) {
    const auto c = q.constants();
    long j = 0;
    if (q8_short_applies(c)) {
        for (; j + 32 <= n; j += 32) q8_store32<true>(c, x + j, y + j);
    } else {
        for (; j + 32 <= n; j += 32) q8_store32<false>(c, x + j, y + j);
    }
    for (; j < n; ++j) y[j] = q(x[j]);
}

}  // namespace avx2

}  // namespace infer_ops::quant

namespace orvane::tsu::api {

// Rule Q8 and its wider forms under the names the quantising operators use.
template <typename Q, int LIM>
inline Q __fp32_to_intx(float x, float s) {
    if constexpr (std::is_same_v<Q, int> && LIM == infer_ops::quant::kInt30Limit) {
        return infer_ops::quant::scaled_quantiser<int, LIM, LIM - 1>(s)(x);
    } else {
        return infer_ops::quant::scaled_quantiser<Q, LIM>(s)(x);
    }
}

template <typename Q>
inline Q quant_fp32(float x, float s) {
    return infer_ops::quant::quantiser<Q>(s)(x);
}

}  // namespace orvane::tsu::api
