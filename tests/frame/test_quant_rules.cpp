// The shared scale conventions: the absolute-maximum rule, rule Q8 with its
// 16-bit and 2^30 forms and its AVX2 form, rules Q4, QD and QM, and the
// packed int4_t layout; beside them the other float-to-int8 rule, the
// device's saturating cast, and its AVX2 form.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "frame/convert.h"
#include "frame/quant_rules.h"
#include "frame/scale_rules.h"
#include "support/tsuops_test.h"

namespace {

namespace quant = infer_ops::quant;
using orvane::tsu::api::quant_fp32;

constexpr float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kDenorm = std::numeric_limits<float>::denorm_min() * 5;

// llround (ties away from zero) stepped towards zero on an odd tie: ties to even.
long rne_llround(float v) {
    long r = std::llround(v);
    if (std::fabs(std::roundf(v) - v) == 0.5f && (r & 1) != 0) r += r > 0 ? -1 : 1;
    return r;
}

// Rule Q8 written out step by step, independently of the library's form.
long q8_literal(float x, float s, int lim, int sat) {
    auto clean = [](float v) {
        if (std::isnan(v)) return std::signbit(v) ? -kInf : kInf;
        return v == 0.0f || std::fpclassify(v) == FP_SUBNORMAL ? 0.0f : v;
    };
    x = clean(x);
    const float f = static_cast<float>(lim) / clean(s);
    if (std::isinf(f)) return std::signbit(x) ? -sat : sat;
    float v = f * x;
    if (std::isnan(v)) return sat;
    if (std::fpclassify(v) == FP_SUBNORMAL) v = 0.0f;
    if (std::fabs(v) > static_cast<float>(lim)) return v > 0 ? sat : -sat;
    return std::clamp<long>(rne_llround(v), -sat, sat);
}

TEST(RuleQ8, TiesSaturationZeroScaleAndNaN) {
    const struct { float x, s; int q; } cases[] = {
        // Ties go to even (63.5, 2.5, 3.5, -2.5); saturation is symmetric, -128 is never produced.
        {0.5f, 1.0f, 64}, {2.5f, 127.0f, 2}, {3.5f, 127.0f, 4}, {-2.5f, 127.0f, -2}, {-1.5f, 1.0f, -127},
        {1.0f, 1.0f, 127}, {-1.0f, 1.0f, -127}, {-kInf, 1.0f, -127},
        // A zero, subnormal or too small scale: the sign bit of x decides, a zero x counts as positive.
        {-2.0f, 0.0f, -127}, {-0.0f, 0.0f, 127}, {3.0f, -0.0f, 127}, {-3.0f, kDenorm, -127}, {-1.0f, -1e-37f, -127},
        // NaN in x: an infinity of its sign. NaN in s: an infinite scale, so finite x gives 0.
        {kNaN, 1.0f, 127}, {-kNaN, 1.0f, -127}, {1.0f, kNaN, 0}, {-kInf, kInf, 127},
        // A subnormal x or product counts as 0; the floor scale against a zero span.
        {kDenorm, 1.0f, 0}, {1e-31f, 1e10f, 0}, {0.0f, quant::kScaleFloor, 0}, {1e-30f, quant::kScaleFloor, 127},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(quant_fp32<signed char>(c.x, c.s), c.q) << "x " << c.x << " s " << c.s;
        EXPECT_EQ((orvane::tsu::api::__fp32_to_intx<signed char, 127>(c.x, c.s)), c.q) << "x " << c.x << " s " << c.s;
    }
}

// Random (x, s) pairs of every class (bit patterns, subnormals, exact ties), in all three widths.
TEST(RuleQ8, AgreesWithTheStepByStepFormula) {
    std::mt19937_64 rng(20240611);
    auto uniform = [&](float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng); };
    auto pattern = [&](std::uint32_t mask) { return std::bit_cast<float>(static_cast<std::uint32_t>(rng()) & mask); };
    for (int i = 0; i < 400000; ++i) {
        const std::uint64_t k = rng();
        const float s = k % 6 == 0 ? pattern(~0u) : k % 6 == 1 ? 127.0f : k % 6 == 2 ? pattern(0x007fffffu)
                        : k % 6 == 3 ? 0.0f : std::exp2(uniform(-40.0f, 40.0f));
        const float x = k / 6 % 5 == 0 ? pattern(~0u) : k / 6 % 5 == 1 ? uniform(-2.0f, 2.0f) * s
                        : k / 6 % 5 == 2 ? static_cast<float>(static_cast<int>(rng() % 300) - 150) + 0.5f
                        : k / 6 % 5 == 3 ? pattern(0x807fffffu)
                                         : s * static_cast<float>(static_cast<int>(rng() % 255) - 127) / 127.0f;
        ASSERT_EQ(quant_fp32<signed char>(x, s), q8_literal(x, s, 127, 127)) << "x " << x << " s " << s;
        ASSERT_EQ(quant_fp32<short>(x, s), q8_literal(x, s, 32767, 32767)) << "x " << x << " s " << s;
        ASSERT_EQ(quant_fp32<int>(x, s), q8_literal(x, s, 1 << 30, (1 << 30) - 1)) << "x " << x << " s " << s;
    }
}

// Rule Q8 through its AVX2 form, as the kernels run it.
__attribute__((target("avx2"))) std::vector<signed char> q8_vector(const std::vector<float>& x, float s) {
    std::vector<signed char> y(x.size());
    quant::avx2::q8_span(quant::quantiser<signed char>(s), x.data(), y.data(), static_cast<long>(x.size()));
    return y;
}

std::vector<signed char> q8_scalar(const std::vector<float>& x, float s) {
    std::vector<signed char> y;
    for (float v : x) y.push_back(quant_fp32<signed char>(v, s));
    return y;
}

// Every float16 and every bfloat16 value against scales of every kind (a
// span's maximum, the floor, a zero, subnormal, too small, negative, infinite
// or NaN scale, and either side of the factor 2^125 where the short form
// stops), then random floats, bit patterns and exact ties against random
// scales.
TEST(RuleQ8, VectorFormMatchesTheScalarRule) {
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this machine";
    std::vector<float> every;
    for (std::uint32_t h = 0; h < 0x10000; ++h) {
        every.push_back(static_cast<float>(float16::from_bits(static_cast<std::uint16_t>(h))));
        every.push_back(std::bit_cast<float>(h << 16));
    }
    const float short_edge = 127.0f / 0x1p125f;  // the factor is 2^125 exactly
    for (float s : {1.0f, 3.5f, 127.0f, 65504.0f, 0x1.fep127f, quant::kScaleFloor, 0.0f, -0.0f, kDenorm, 1e-37f, -2.0f,
                    kInf, -kInf, kNaN, -kNaN, 0x1p-126f, short_edge / 1.5f, short_edge,
                    std::nextafter(short_edge, kInf)}) {
        ASSERT_TRUE(tsuops_test::identical(q8_scalar(every, s), q8_vector(every, s))) << "s " << s;
    }
    std::mt19937_64 rng(99);
    std::vector<float> x(256);
    for (int i = 0; i < 40000; ++i) {
        const std::uint64_t k = rng();
        const float s = k % 3 == 0 ? std::bit_cast<float>(static_cast<std::uint32_t>(rng()))
                                   : std::exp2(static_cast<float>(static_cast<int>(rng() % 80)) - 40.0f) * 1.37f;
        for (float& v : x) {
            const std::uint64_t r = rng();
            v = r % 3 == 0 ? std::bit_cast<float>(static_cast<std::uint32_t>(r >> 32))
                : r % 3 == 1 ? s * static_cast<float>(static_cast<std::int32_t>(r >> 32)) * 0x1p-30f
                             : s * (static_cast<float>(static_cast<int>(r >> 40) % 255 - 127) + 0.5f) / 127.0f;
        }
        ASSERT_TRUE(tsuops_test::identical(q8_scalar(x, s), q8_vector(x, s))) << "s " << s;
    }
}

__attribute__((target("avx2"))) std::vector<signed char> int8_cast_vector(const std::vector<float>& x) {
    std::vector<signed char> y(x.size());
    for (std::size_t j = 0; j + 32 <= x.size(); j += 32) {
        infer_ops::convert::avx2::int8_sim_32(x.data() + j, y.data() + j);
    }
    return y;
}

// The cast to signed char as the device does it (clamped to [-128, 127],
// NaN to -128, then truncated): its AVX2 form against the scalar one on
// every float16 and bfloat16 value, then on random bit patterns and on
// values within a few units of the clamps.
TEST(Int8Cast, VectorFormMatchesTheScalarRule) {
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this machine";
    std::vector<float> x;
    for (std::uint32_t h = 0; h < 0x10000; ++h) {
        x.push_back(static_cast<float>(float16::from_bits(static_cast<std::uint16_t>(h))));
        x.push_back(std::bit_cast<float>(h << 16));
    }
    std::mt19937_64 rng(5);
    for (int i = 0; i < 4000000; ++i) {
        const std::uint64_t r = rng();
        x.push_back(r % 2 ? std::bit_cast<float>(static_cast<std::uint32_t>(r >> 32))
                          : static_cast<float>(static_cast<std::int32_t>(r >> 32)) * 0x1p-24f);  // within +-128
    }
    std::vector<signed char> want;
    for (float v : x) want.push_back(infer_ops::convert::from_float<signed char, true>(v));
    EXPECT_TRUE(tsuops_test::identical(want, int8_cast_vector(x)));
}

__attribute__((target("avx2"))) float absmax_vector(const std::vector<float>& x, float start) {
    return quant::avx2::absmax(x.data(), static_cast<long>(x.size()), start);
}

// Lengths around the lane counts, with NaNs, infinities and signed zeros; the
// AVX2 form where the machine has it.
TEST(AbsMax, MatchesTheSequentialRuleAtEveryLength) {
    const bool avx2 = __builtin_cpu_supports("avx2");
    for (long n = 0; n < 70; ++n) {
        const auto x = tsuops_test::random_tensor<float16>(n, 100 + n, tsuops_test::RandomSpec::with_specials(0.15));
        const std::vector<float> xf(x.begin(), x.end());
        for (float start : {quant::kScaleFloor, 0.0f}) {
            float s = start;
            for (float v : x) s = std::fabs(v) > s ? std::fabs(v) : s;
            const std::uint32_t want = std::bit_cast<std::uint32_t>(s);
            EXPECT_EQ(std::bit_cast<std::uint32_t>(quant::absmax(x.data(), n, start)), want);
            EXPECT_EQ(avx2 ? std::bit_cast<std::uint32_t>(absmax_vector(xf, start)) : want, want);
        }
    }
}

// Rule Q4 word for word: clamp, float16 and back, then ties to even.
int q4_literal(float x, float s) {
    const float v = std::fmin(std::fmax(x * (7.0f / s), -8.0f), 7.0f);
    return static_cast<int>(rne_llround(static_cast<float>(float16(v))));
}

TEST(RuleQ4, RoundTripTiesClampsAndSpecials) {
    const struct { float x, s; int q; } cases[] = {
        // Not ties in float, but the float16 round trip moves them onto one.
        {2.5004f, 7.0f, 2}, {3.4998f, 7.0f, 4}, {0.5002f, 7.0f, 0}, {-4.5015f, 7.0f, -4}, {6.5015f, 7.0f, 6},
        // The asymmetric range, an infinite factor (s zero) and NaN products.
        {-8.0f, 7.0f, -8}, {-9.5f, 7.0f, -8}, {7.4f, 7.0f, 7}, {kInf, 7.0f, 7}, {-kInf, 7.0f, -8},
        {kNaN, 7.0f, 0}, {1.0f, 0.0f, 7}, {-1.0f, 0.0f, -8}, {0.0f, 0.0f, 0}, {1.0f, kNaN, 0}, {3.0f, kInf, 0},
    };
    for (const auto& c : cases) EXPECT_EQ(quant::q4_quantiser(c.s)(c.x), c.q) << c.x << " against " << c.s;
    // Random products, and products at every half and 64 float steps either side, where the round trip decides.
    std::mt19937 gen(7);
    for (int i = 0; i < 100000; ++i) {
        const float s = std::uniform_real_distribution<float>(0.01f, 100.0f)(gen);
        const float x = std::uniform_real_distribution<float>(-1.3f, 1.3f)(gen) * s;
        ASSERT_EQ(quant::q4_quantiser(s)(x), q4_literal(x, s)) << "x " << x << " s " << s;
    }
    for (int k = -17; k <= 15; ++k) {
        float v = 0.5f * static_cast<float>(k);
        for (int step = 0; step < 64; ++step) v = std::nextafter(v, -kInf);
        for (int step = 0; step < 129; ++step, v = std::nextafter(v, kInf)) {
            ASSERT_EQ(quant::q4_quantiser(7.0f)(v), q4_literal(v, 7.0f)) << "v " << v;
        }
    }
}

TEST(Int4Layout, EvenIndexInTheLowNibbleAndAnOddSpanEndsWithZero) {
    for (int even = -8; even <= 7; ++even) {
        for (int odd = -8; odd <= 7; ++odd) {
            const int4_t b{quant::pack_int4(even, odd)};
            ASSERT_EQ(b.x & 0xf, even & 0xf);
            ASSERT_TRUE(quant::int4_at(&b, 0) == even && quant::int4_at(&b, 1) == odd) << even << " " << odd;
        }
    }
    const std::vector<float> x = {7.0f, -7.0f, 3.5f};
    for (float s : {7.0f, 0.0f}) {
        std::vector<int4_t> y(2, int4_t{0xff});
        quant::quantize_span_int4(x.data(), y.data(), 3, s);
        for (long j = 0; j < 3; ++j) EXPECT_EQ(quant::int4_at(y.data(), j), quant::q4_quantiser(s)(x[j])) << j;
        EXPECT_EQ(y[1].x >> 4, 0) << "against " << s;
    }
}

// QD divides by s / 127, QM multiplies by 127 / s: the last bit can move a
// rounding. Both round ties away from zero; a quotient beyond int stores 0.
TEST(RulesQDAndQM, OwnArithmeticAndTiesAwayFromZero) {
    const float v = 0x1.3f9ceep-4f, s = 0x1.6a6b18p+1f;
    EXPECT_TRUE(quant::qd_quantiser(s)(v) == 3 && quant::qm_quantiser(s)(v) == 4);
    EXPECT_TRUE(quant::qm_quantiser(127.0f)(-2.5f) == -3 && quant::qd_quantiser(127.0f)(0.5f) == 1);
    for (float q : {kNaN, kInf, 3e9f}) EXPECT_EQ(quant::low_byte(quant::qm_quantiser(1.0f)(q)), 0) << q;
}

}  // namespace
