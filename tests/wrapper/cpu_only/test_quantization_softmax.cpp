// Fixed-point quantisation (including the two-plane 2^30 form) and softmax.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include <tsuops/cpu_ops.h>

#include "frame/quant_rules.h"
#include "support/tsuops_test.h"

namespace {

namespace cpu_ops = infer_ops::cpu_ops;
using orvane::tsu::api::quant_fp32;
using tsuops_test::host_context;

template <class Q>
void quantises_against_the_rowmax(long len) {
    auto ctx = host_context();
    const auto x = tsuops_test::random_tensor<float>(len, 40 + len, tsuops_test::RandomSpec::with_specials(0.05));
    float s = 1e-30f;
    for (float v : x)
        if (std::fabs(v) > s) s = std::fabs(v);
    tsuops_test::GuardedBuffer<Q> y(ctx.get(), len);
    ASSERT_EQ((cpu_ops::quantization<float, Q>(ctx.get(), x.data(), y.data(), len, nullptr)), 0);
    std::vector<Q> expected;
    for (float v : x) expected.push_back(quant_fp32<Q>(v, s));
    EXPECT_TRUE(tsuops_test::exactly_equal(expected, y.download()));

    const float given = 0.3f;
    ASSERT_EQ((cpu_ops::quantization<float, Q>(ctx.get(), x.data(), y.data(), len, &given)), 0);
    expected.clear();
    for (float v : x) expected.push_back(quant_fp32<Q>(v, given));
    EXPECT_TRUE(tsuops_test::exactly_equal(expected, y.download()));
}

TEST(Quantization, EightAndSixteenBit) {
    for (long len : {1L, 17L, 300L}) {
        quantises_against_the_rowmax<signed char>(len);
        quantises_against_the_rowmax<short>(len);
    }
    auto ctx = host_context();
    const std::vector<float16> xh = {float16(-2.0f), float16(1.0f), float16(0.0f)};
    std::vector<signed char> y(3);
    ASSERT_EQ((cpu_ops::quantization<float16, signed char>(ctx.get(), xh.data(), y.data(), 3, nullptr)), 0);
    EXPECT_EQ(y, (std::vector<signed char>{-127, 64, 0}));  // 63.5 ties to 64
}

TEST(Quantization, IntTwoPlanes) {
    auto ctx = host_context();
    const std::vector<float> x = {4.0f, -4.0f, 2.0f, 0.0f, -1.0f, 3.0e-3f, std::numeric_limits<float>::quiet_NaN()};
    const long len = static_cast<long>(x.size());
    tsuops_test::GuardedBuffer<int> y(ctx.get(), len);
    ASSERT_EQ((cpu_ops::quantization<float, int>(ctx.get(), x.data(), y.data(), len, nullptr)), 0);
    const auto raw = y.raw_bytes();
    std::vector<std::int16_t> words(2 * len);
    std::memcpy(words.data(), raw.data(), raw.size());
    for (long i = 0; i < len; ++i) {
        const int v = quant_fp32<int>(x[i], 4.0f);
        EXPECT_EQ(words[i], static_cast<std::int16_t>(v & 0x7fff)) << i;
        EXPECT_EQ(words[len + i], static_cast<std::int16_t>(v >> 15)) << i;
        EXPECT_GE(words[i], 0);
        EXPECT_EQ(words[i] + words[len + i] * 32768, v) << i;
    }
    // The saturated ends: +-(2^30 - 1).
    EXPECT_EQ(words[0], 0x7fff);
    EXPECT_EQ(words[len + 0], 0x7fff);
    EXPECT_EQ(words[1], 1);
    EXPECT_EQ(words[len + 1], -32768);
    EXPECT_EQ(words[2] + words[len + 2] * 32768, 1 << 29);
}

template <class T>
class Softmax : public ::testing::Test {};
TYPED_TEST_SUITE(Softmax, tsuops_test::HalfAndFloatTypes, tsuops_test::ElementTypeNames);

TYPED_TEST(Softmax, RowsAreIndependentDistributions) {
    using T = TypeParam;
    auto ctx = host_context();
    const long m = 5, n = 33;
    auto x = tsuops_test::random_tensor<T>(m * n, 9, tsuops_test::RandomSpec::range(-8, 8));
    for (long j = 0; j < n; ++j) x[n + j] = T(2.5f);  // row 1: all equal
    tsuops_test::GuardedBuffer<T> y(ctx.get(), m * n);
    ASSERT_EQ(cpu_ops::softmax2d<T>(ctx.get(), x.data(), y.data(), m, n), 0);
    const auto out = y.download();
    for (long r = 0; r < m; ++r) {
        double mx = -1e300, sum = 0;
        for (long j = 0; j < n; ++j) mx = std::max(mx, static_cast<double>(static_cast<float>(x[r * n + j])));
        for (long j = 0; j < n; ++j) sum += std::exp(static_cast<float>(x[r * n + j]) - mx);
        std::vector<T> expected;
        for (long j = 0; j < n; ++j)
            expected.push_back(T(static_cast<float>(std::exp(static_cast<float>(x[r * n + j]) - mx) / sum)));
        EXPECT_TRUE(tsuops_test::nearly_equal(expected, std::vector<T>(out.begin() + r * n, out.begin() + (r + 1) * n),
                                              tsuops_test::reduction_tolerance<T>(n)))
            << "row " << r;
    }
    EXPECT_TRUE(tsuops_test::all_equal(std::vector<T>(out.begin() + n, out.begin() + 2 * n), T(1.0f / n)));
}

TEST(Softmax, MaximumStartsAtMinusTenThousand) {
    auto ctx = host_context();
    // Far below the start every exponential underflows: 0 / 0. A start at
    // the row's own maximum would have given 1/2 each.
    const std::vector<float> x = {-20000.0f, -20000.0f, -10001.0f, -10002.0f};
    std::vector<float> y(4);
    ASSERT_EQ(cpu_ops::softmax2d<float>(ctx.get(), x.data(), y.data(), 2, 2), 0);
    EXPECT_TRUE(std::isnan(y[0]) && std::isnan(y[1]));
    EXPECT_FLOAT_EQ(y[2], 1.0f / (1.0f + std::exp(-1.0f)));
}

}  // namespace
