// The shared scale conventions: the absolute-maximum rule and the integer
// conversion of rule Q8 with its 16-bit and 2^30 forms.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <ostream>
#include <random>
#include <vector>

#include "frame/quant_rules.h"
#include "support/tsuops_test.h"

namespace {

namespace quant = infer_ops::quant;
using orvane::tsu::api::__fp32_to_intx;
using orvane::tsu::api::quant_fp32;

constexpr float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kDenorm = std::numeric_limits<float>::denorm_min() * 5;

float bits(std::uint32_t w) { return std::bit_cast<float>(w); }

// The conversion written out step by step, with llround and its tie step,
// independently of the library's branch-free form.
long reference_quant(float x, float s, int lim, int sat) {
    auto clean = [](float v) {
        if (std::isnan(v)) return std::signbit(v) ? -kInf : kInf;
        if (v == 0.0f || std::fpclassify(v) == FP_SUBNORMAL) return 0.0f;
        return v;
    };
    x = clean(x);
    s = clean(s);
    const float f = static_cast<float>(lim) / s;
    if (std::isinf(f)) return std::signbit(x) ? -sat : sat;
    float v = f * x;
    if (std::isnan(v)) return sat;
    if (std::fpclassify(v) == FP_SUBNORMAL) v = 0.0f;
    if (v > static_cast<float>(lim)) return sat;
    if (v < -static_cast<float>(lim)) return -sat;
    long r = std::llround(v);
    if (std::fabs(std::roundf(v) - v) == 0.5f && (r & 1) != 0) r += r > 0 ? -1 : 1;
    if (r > sat) r = sat;
    if (r < -sat) r = -sat;
    return r;
}

struct Q8Case {
    float x;
    float s;
    int expected;
};

void PrintTo(const Q8Case& c, std::ostream* os) {
    *os << "x " << c.x << " s " << c.s << " -> " << c.expected;
}

class RuleQ8 : public ::testing::TestWithParam<Q8Case> {};

TEST_P(RuleQ8, Table) {
    const auto c = GetParam();
    EXPECT_EQ(quant_fp32<signed char>(c.x, c.s), c.expected) << "x " << c.x << " s " << c.s;
    EXPECT_EQ((__fp32_to_intx<signed char, 127>(c.x, c.s)), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    QuantRules, RuleQ8,
    ::testing::Values(
        // Ties go to even: 63.5, 2.5, 3.5, -2.5, -0.5.
        Q8Case{0.5f, 1.0f, 64}, Q8Case{2.5f, 127.0f, 2}, Q8Case{3.5f, 127.0f, 4}, Q8Case{-2.5f, 127.0f, -2},
        Q8Case{-0.5f, 127.0f, 0}, Q8Case{1.5f, 127.0f, 2}, Q8Case{126.5f, 127.0f, 126},
        // Just off a tie.
        Q8Case{std::nextafter(2.5f, 3.0f), 127.0f, 3}, Q8Case{std::nextafter(0.5f, 0.0f), 127.0f, 0},
        // Saturation, symmetric: -128 is never produced.
        Q8Case{-1.5f, 1.0f, -127}, Q8Case{1.0f, 1.0f, 127}, Q8Case{-1.0f, 1.0f, -127}, Q8Case{3.5f, 3.5f, 127},
        Q8Case{-3.5f, 3.5f, -127}, Q8Case{1e30f, 1.0f, 127}, Q8Case{-kInf, 1.0f, -127},
        // A zero or subnormal scale: the sign bit of x decides, a zero x counts as positive.
        Q8Case{-2.0f, 0.0f, -127}, Q8Case{0.0f, 0.0f, 127}, Q8Case{-0.0f, 0.0f, 127}, Q8Case{3.0f, -0.0f, 127},
        Q8Case{-3.0f, kDenorm, -127}, Q8Case{-kDenorm, 0.0f, 127},
        // A scale too small for 127 / s to stay finite, of either sign.
        Q8Case{1.0f, 1e-37f, 127}, Q8Case{1.0f, -1e-37f, 127}, Q8Case{-1.0f, -1e-37f, -127},
        // NaN in x: an infinity of its sign. NaN in s: an infinite scale.
        Q8Case{kNaN, 1.0f, 127}, Q8Case{-kNaN, 1.0f, -127}, Q8Case{1.0f, kNaN, 0},
        // Infinite scale: finite x gives 0, infinite x a NaN product, which gives 127.
        Q8Case{5.0f, kInf, 0}, Q8Case{kInf, kInf, 127}, Q8Case{-kInf, kInf, 127},
        // A subnormal x counts as 0; a subnormal product too.
        Q8Case{kDenorm, 1.0f, 0}, Q8Case{-kDenorm, 1e-30f, 0}, Q8Case{1e-31f, 1e10f, 0},
        // The floor scale against a zero span.
        Q8Case{0.0f, quant::kScaleFloor, 0}, Q8Case{1e-30f, quant::kScaleFloor, 127}));

TEST(QuantRules, WiderForms) {
    EXPECT_EQ(quant_fp32<short>(0.5f, 1.0f), 16384);  // 16383.5, a tie to even
    EXPECT_EQ(quant_fp32<short>(-1.0f, 1.0f), -32767);
    EXPECT_EQ(quant_fp32<short>(-7.0f, 0.0f), -32767);
    constexpr int kSat = (1 << 30) - 1;
    EXPECT_EQ(quant_fp32<int>(1.0f, 1.0f), kSat);
    EXPECT_EQ(quant_fp32<int>(-1.0f, 1.0f), -kSat);
    EXPECT_EQ(quant_fp32<int>(0.5f, 1.0f), 1 << 29);
    EXPECT_EQ(quant_fp32<int>(0.0f, 0.0f), kSat);
    EXPECT_EQ(quant_fp32<int>(kNaN, 2.0f), kSat);
    EXPECT_EQ((__fp32_to_intx<int, (1 << 30)>(-kInf, 1.0f)), -kSat);
    EXPECT_EQ((__fp32_to_intx<short, 32767>(1.0f, 2.0f)), 16384);
}

// A float drawn to reach every class: bit patterns (NaNs, infinities,
// subnormals, huge and tiny values), ordinary magnitudes, and exact ties.
float draw(std::mt19937_64& rng, float s) {
    switch (rng() % 5) {
    case 0: return bits(static_cast<std::uint32_t>(rng()));
    case 1: return std::uniform_real_distribution<float>(-2.0f, 2.0f)(rng) * s;
    case 2: return static_cast<float>(static_cast<int>(rng() % 300) - 150) + 0.5f;  // ties when s = 127
    case 3: return bits(static_cast<std::uint32_t>(rng() % 0x00800000u) | (rng() & 1 ? 0x80000000u : 0u));
    default: return s * static_cast<float>(static_cast<int>(rng() % 255) - 127) / 127.0f;
    }
}

float draw_scale(std::mt19937_64& rng) {
    switch (rng() % 6) {
    case 0: return bits(static_cast<std::uint32_t>(rng()));
    case 1: return 127.0f;
    case 2: return bits(static_cast<std::uint32_t>(rng() % 0x00800000u));
    case 3: return 0.0f;
    default: return std::exp2(std::uniform_real_distribution<float>(-40.0f, 40.0f)(rng));
    }
}

TEST(QuantRules, AgreesWithTheStepByStepFormula) {
    std::mt19937_64 rng(20240611);
    long ties = 0;
    for (int i = 0; i < 400000; ++i) {
        const float s = draw_scale(rng);
        const float x = draw(rng, s);
        ASSERT_EQ(quant_fp32<signed char>(x, s), reference_quant(x, s, 127, 127))
            << "x " << std::bit_cast<std::uint32_t>(x) << " s " << std::bit_cast<std::uint32_t>(s);
        ASSERT_EQ(quant_fp32<short>(x, s), reference_quant(x, s, 32767, 32767))
            << "x " << std::bit_cast<std::uint32_t>(x) << " s " << std::bit_cast<std::uint32_t>(s);
        ASSERT_EQ(quant_fp32<int>(x, s), reference_quant(x, s, 1 << 30, (1 << 30) - 1))
            << "x " << std::bit_cast<std::uint32_t>(x) << " s " << std::bit_cast<std::uint32_t>(s);
        const float v = 127.0f / s * x;
        if (std::fabs(v) < 127.0f && std::fabs(std::roundf(v) - v) == 0.5f) ++ties;
    }
    EXPECT_GT(ties, 1000) << "the draw should reach many exact ties";
}

TEST(QuantRules, SpanMatchesElementwise) {
    const auto x = tsuops_test::random_tensor<float>(1000, 7, tsuops_test::RandomSpec::with_specials(0.2));
    for (float s : {0.0f, 0.37f, 1.0f, kInf}) {
        std::vector<signed char> y(x.size());
        quant::quantize_span(x.data(), y.data(), static_cast<long>(x.size()), s);
        for (std::size_t i = 0; i < x.size(); ++i) ASSERT_EQ(y[i], quant_fp32<signed char>(x[i], s)) << i;
    }
}

template <class T>
class AbsMax : public ::testing::Test {};
TYPED_TEST_SUITE(AbsMax, tsuops_test::HalfAndFloatTypes, tsuops_test::ElementTypeNames);

TYPED_TEST(AbsMax, MatchesTheSequentialRuleAtEveryLength) {
    // Lengths around the lane count, with NaNs, infinities and signed zeros.
    for (long n = 0; n < 70; ++n) {
        const auto x = tsuops_test::random_tensor<TypeParam>(n, 100 + n,
                                                             tsuops_test::RandomSpec::with_specials(0.15));
        for (float start : {quant::kScaleFloor, 0.0f}) {
            float s = start;
            for (TypeParam v : x) {
                const float a = std::fabs(static_cast<float>(v));
                if (a > s) s = a;
            }
            EXPECT_EQ(std::bit_cast<std::uint32_t>(quant::absmax(x.data(), n, start)), std::bit_cast<std::uint32_t>(s))
                << "n " << n;
        }
    }
}

TEST(QuantRules, AbsMaxFloorAndSpecials) {
    EXPECT_EQ(std::bit_cast<std::uint32_t>(quant::kScaleFloor), 0x0DA24260u);
    const std::vector<float> zeros(33, -0.0f);
    EXPECT_EQ(quant::absmax(zeros.data(), 33), quant::kScaleFloor);
    EXPECT_EQ(quant::absmax(zeros.data(), 33, 0.0f), 0.0f);
    EXPECT_EQ(quant::absmax(zeros.data(), 0), quant::kScaleFloor);
    std::vector<float> with_nan(40, 0.25f);
    with_nan[3] = kNaN;
    with_nan[20] = -3.5f;
    EXPECT_EQ(quant::absmax(with_nan.data(), 40), 3.5f);
    with_nan[39] = -kInf;
    EXPECT_EQ(quant::absmax(with_nan.data(), 40), kInf);
}

}  // namespace
