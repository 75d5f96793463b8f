// Rules Q4, QD and QM and the packed int4_t layout, against their literal
// definitions: Q4 through the float16 constructor and llround with the
// ties-to-even correction, QD and QM through roundf.
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/float16.h>

#include "frame/scale_rules.h"

namespace {

namespace quant = infer_ops::quant;

constexpr float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Rule Q4 word for word, for finite products: clamp, float16 and back,
// llround stepped one towards zero on an odd tie.
int q4_literal(float x, float s) {
    const float f = 7.0f / s;
    float v = x * f;
    v = std::fmax(v, -8.0f);
    v = std::fmin(v, 7.0f);
    const float h = static_cast<float>(float16(v));
    long long r = std::llround(h);
    if (std::fabs(std::roundf(h) - h) == 0.5f && (r & 1) != 0) r += r > 0 ? -1 : 1;
    return static_cast<int>(r);
}

TEST(RuleQ4, MatchesTheLiteralRuleOverRandomProducts) {
    std::mt19937 gen(7);
    std::uniform_real_distribution<float> scale(0.01f, 100.0f);
    std::uniform_real_distribution<float> ratio(-1.3f, 1.3f);
    for (int i = 0; i < 200000; ++i) {
        const float s = scale(gen);
        const float x = ratio(gen) * s;
        ASSERT_EQ(quant::q4_quantiser(s)(x), q4_literal(x, s)) << "x " << x << " s " << s;
    }
}

// Products exactly at the halves and one float step either side of them,
// where the round trip decides.
TEST(RuleQ4, MatchesTheLiteralRuleAroundEveryHalf) {
    for (int k = -17; k <= 15; ++k) {
        const float half = 0.5f * static_cast<float>(k);
        float v = half;
        for (int step = 0; step < 64; ++step) v = std::nextafter(v, -kInf);
        for (int step = 0; step < 129; ++step, v = std::nextafter(v, kInf)) {
            ASSERT_EQ(quant::q4_quantiser(7.0f)(v), q4_literal(v, 7.0f)) << "v " << v;
        }
    }
}

// Values that are not ties in float but land on one after the float16
// round trip, and so round to even where plain rounding would not.
TEST(RuleQ4, TheFloat16RoundTripMovesValuesOntoTies) {
    struct Case {
        float v;
        int q;        // rule Q4
        int without;  // plain ties-to-even rounding of v
    };
    const Case cases[] = {{2.5004f, 2, 3},  {3.4998f, 4, 3},   {0.5002f, 0, 1},   {-0.5002f, 0, -1},
                          {4.5015f, 4, 5},  {-4.5015f, -4, -5}, {6.5015f, 6, 7},   {-6.4986f, -6, -6}};
    for (const Case& c : cases) {
        EXPECT_EQ(quant::q4_quantiser(7.0f)(c.v), c.q) << c.v;
        EXPECT_EQ(quant::round_half_even(c.v), c.without) << c.v;
    }
}

TEST(RuleQ4, ClampsToTheAsymmetricRangeAndHandlesSpecials) {
    struct Case {
        float x;
        float s;
        int q;
    };
    const Case cases[] = {
        {7.0f, 7.0f, 7},     {-7.0f, 7.0f, -7},  {-8.0f, 7.0f, -8},  {-9.5f, 7.0f, -8},  {7.4f, 7.0f, 7},
        {100.0f, 7.0f, 7},   {kInf, 7.0f, 7},     {-kInf, 7.0f, -8},  {kNaN, 7.0f, 0},    {-kNaN, 7.0f, 0},
        {1.0f, 0.0f, 7},     {-1.0f, 0.0f, -8},   {0.0f, 0.0f, 0},    {1e-40f, 0.0f, 7},  {1.0f, kNaN, 0},
        {kInf, kInf, 0},     {3.0f, kInf, 0},     {-7.5f, 7.0f, -8},  {6.5f, 7.0f, 6},    {-0.5f, 7.0f, 0},
    };
    for (const Case& c : cases) EXPECT_EQ(quant::q4_quantiser(c.s)(c.x), c.q) << c.x << " against " << c.s;
}

TEST(Int4Layout, EvenIndexInTheLowNibbleAndSignExtension) {
    for (int even = -8; even <= 7; ++even) {
        for (int odd = -8; odd <= 7; ++odd) {
            const int4_t b{quant::pack_int4(even, odd)};
            ASSERT_EQ(b.x & 0xf, even & 0xf);
            ASSERT_EQ(quant::int4_at(&b, 0), even);
            ASSERT_EQ(quant::int4_at(&b, 1), odd);
        }
    }
    EXPECT_EQ(quant::int4_row_bytes(1), 1);
    EXPECT_EQ(quant::int4_row_bytes(3), 2);
    EXPECT_EQ(quant::int4_row_bytes(4), 2);
}

TEST(Int4Layout, AnOddSpanEndsWithTheQuantisedZero) {
    const std::vector<float> x = {7.0f, -7.0f, 3.5f};
    for (float s : {7.0f, 0.0f}) {
        std::vector<int4_t> y(2, int4_t{0xff});
        quant::quantize_span_int4(x.data(), y.data(), 3, s);
        const quant::q4_quantiser q(s);
        for (long j = 0; j < 3; ++j) EXPECT_EQ(quant::int4_at(y.data(), j), q(x[j])) << j;
        EXPECT_EQ(y[1].x >> 4, 0) << "against " << s;
    }
}

// QD divides by s / 127, QM multiplies by 127 / s; the two differ in the
// last bit of the quotient often enough to move a rounding.
TEST(RulesQDAndQM, RoundHalfAwayAndKeepTheirOwnArithmetic) {
    std::mt19937 gen(11);
    std::uniform_real_distribution<float> scale(0.01f, 50.0f);
    std::uniform_real_distribution<float> ratio(-1.0f, 1.0f);
    for (int i = 0; i < 200000; ++i) {
        const float s = scale(gen);
        const float v = ratio(gen) * s;
        ASSERT_EQ(quant::qd_quantiser(s)(v), static_cast<int>(std::roundf(v / (s / 127.0f))));
        ASSERT_EQ(quant::qm_quantiser(s)(v), static_cast<int>(std::roundf(v * (127.0f / s))));
    }
    const float v = 0x1.3f9ceep-4f;
    const float s = 0x1.6a6b18p+1f;
    EXPECT_EQ(quant::qd_quantiser(s)(v), 3);
    EXPECT_EQ(quant::qm_quantiser(s)(v), 4);

    EXPECT_EQ(quant::qm_quantiser(127.0f)(2.5f), 3);
    EXPECT_EQ(quant::qm_quantiser(127.0f)(-2.5f), -3);
    EXPECT_EQ(quant::qd_quantiser(127.0f)(0.5f), 1);
    EXPECT_EQ(quant::qd_quantiser(127.0f)(127.0f), 127);
}

TEST(RulesQDAndQM, QuotientsOutsideTheIntRangeStoreZero) {
    for (float v : {kNaN, kInf, -kInf, 3e9f}) {
        EXPECT_EQ(quant::round_half_away(v), INT_MIN) << v;
        EXPECT_EQ(quant::low_byte(quant::qm_quantiser(1.0f)(v)), 0) << v;
    }
    EXPECT_EQ(quant::low_byte(quant::qd_quantiser(kInf)(kInf)), 0);
    EXPECT_EQ(quant::qd_quantiser(kInf)(5.0f), 0);
}

}  // namespace
