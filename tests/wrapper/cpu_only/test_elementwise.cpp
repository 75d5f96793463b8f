// Elementwise arithmetic with broadcasting, and the affine and silu maps.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include <tsuops/cpu_ops.h>

#include "support/tsuops_test.h"

namespace {

namespace cpu_ops = infer_ops::cpu_ops;
using tsuops_test::host_context;

// The per-element definition: decompose the output index over the output
// shape and form each input's row-major offset, 0 where it has dimension 1.
template <class T>
std::vector<T> broadcast_reference(const std::vector<T>& x, const std::vector<T>& y, std::vector<long> xs,
                                   std::vector<long> ys, int cal, std::vector<long>* zshape) {
    while (xs.size() < ys.size()) xs.insert(xs.begin(), 1);
    while (ys.size() < xs.size()) ys.insert(ys.begin(), 1);
    std::vector<long> zs(xs.size());
    long count = 1;
    for (std::size_t i = 0; i < xs.size(); ++i) count *= zs[i] = std::max(xs[i], ys[i]);
    std::vector<T> z(static_cast<std::size_t>(count));
    for (long e = 0; e < count; ++e) {
        long rest = e, xo = 0, yo = 0, xstride = 1, ystride = 1;
        for (std::size_t d = zs.size(); d-- > 0;) {
            const long c = rest % zs[d];
            rest /= zs[d];
            xo += (xs[d] == 1 ? 0 : c) * xstride;
            yo += (ys[d] == 1 ? 0 : c) * ystride;
            xstride *= xs[d];
            ystride *= ys[d];
        }
        const float a = static_cast<float>(x[xo]), b = static_cast<float>(y[yo]);
        z[e] = T(cal == 0 ? a + b : a * b);
    }
    *zshape = zs;
    return z;
}

long count_of(const std::vector<long>& s) {
    long n = 1;
    for (long d : s) n *= d;
    return n;
}

struct Shapes {
    std::vector<long> x, y, z;
};

const Shapes kShapes[] = {
    {{2, 1, 3}, {4, 3}, {2, 4, 3}}, {{4, 3}, {2, 1, 3}, {2, 4, 3}}, {{3}, {2, 3}, {2, 3}},
    {{2, 3}, {1}, {2, 3}},          {{1, 4}, {3, 1}, {3, 4}},       {{7}, {7}, {7}},
    {{2, 3, 4}, {2, 1, 4}, {2, 3, 4}}, {{2, 1, 4, 1}, {3, 1, 5}, {2, 3, 4, 5}}, {{1, 1}, {1}, {1, 1}},
    {{5, 1}, {1, 1, 6}, {1, 5, 6}},
};

template <class T>
class Broadcast : public ::testing::Test {};
TYPED_TEST_SUITE(Broadcast, tsuops_test::HalfAndFloatTypes, tsuops_test::ElementTypeNames);

TYPED_TEST(Broadcast, UnequalRanksMatchThePerElementDefinition) {
    using T = TypeParam;
    auto ctx = host_context();
    int seed = 1;
    for (const auto& s : kShapes) {
        const auto x = tsuops_test::random_tensor<T>(count_of(s.x), ++seed, tsuops_test::RandomSpec::range(-4, 4));
        const auto y = tsuops_test::random_tensor<T>(count_of(s.y), ++seed, tsuops_test::RandomSpec::range(-4, 4));
        for (int cal : {0, 1}) {
            std::vector<long> zshape;
            const auto expected = broadcast_reference(x, y, s.x, s.y, cal, &zshape);
            EXPECT_EQ(zshape, s.z);
            tsuops_test::GuardedBuffer<T> z(ctx.get(), count_of(s.z));
            const int st = cal == 0 ? cpu_ops::broadcast_add<T>(ctx.get(), x.data(), y.data(), z.data(), s.x, s.y)
                                    : cpu_ops::broadcast_mul<T>(ctx.get(), x.data(), y.data(), z.data(), s.x, s.y);
            EXPECT_EQ(st, 0);
            EXPECT_TRUE(tsuops_test::exactly_equal(expected, z.download())) << "shape case " << seed << " cal " << cal;
        }
    }
}

TYPED_TEST(Broadcast, AddAndMulInPlace) {
    using T = TypeParam;
    auto ctx = host_context();
    const auto x = tsuops_test::random_tensor<T>(37, 3);
    const auto y = tsuops_test::random_tensor<T>(37, 4);
    std::vector<long> zs;
    auto sum = x;
    EXPECT_EQ(cpu_ops::add<T>(ctx.get(), sum.data(), y.data(), sum.data(), 37), 0);
    EXPECT_TRUE(tsuops_test::exactly_equal(broadcast_reference(x, y, {37}, {37}, 0, &zs), sum));
    auto prod = y;
    EXPECT_EQ(cpu_ops::mul<T>(ctx.get(), x.data(), prod.data(), prod.data(), 37), 0);
    EXPECT_TRUE(tsuops_test::exactly_equal(broadcast_reference(x, y, {37}, {37}, 1, &zs), prod));
}

TEST(Elementwise, NarrowsWithThePlainConstructorAndIgnoresTheDevice) {
    // 1 + 2^-8 is a bfloat16 tie: the plain constructor rounds it to even.
    auto dev = tsuops_test::device_context();
    const bfloat16 one = bfloat16::from_bits(0x3f80), step = bfloat16::from_bits(0x3b80);
    bfloat16 z{};
    EXPECT_EQ(cpu_ops::add<bfloat16>(dev.get(), &one, &step, &z, 1), 0);
    EXPECT_EQ(z.x, 0x3f80);
}

TEST(Scale, OrderOfTheTwoOperations) {
    auto ctx = host_context();
    const std::vector<float> x = {0.5f, -3.0f, 10.0f};
    std::vector<float> y(3);
    EXPECT_EQ((cpu_ops::scale<float, float>(ctx.get(), x.data(), y.data(), 3, true, 2.0f, 1.0f)), 0);
    EXPECT_EQ(y, (std::vector<float>{2.0f, -5.0f, 21.0f}));
    EXPECT_EQ((cpu_ops::scale<float, float>(ctx.get(), x.data(), y.data(), 3, false, 2.0f, 1.0f)), 0);
    EXPECT_EQ(y, (std::vector<float>{3.0f, -4.0f, 22.0f}));
}

TEST(Scale, IntegerFormsWrapOrTruncate) {
    auto ctx = host_context();
    const std::vector<signed char> x = {100, -100, 7};
    std::vector<signed char> y(3);
    // In signed char: 100 * 2 wraps to -56, -100 * 2 to 56.
    EXPECT_EQ((cpu_ops::scale<signed char, signed char>(ctx.get(), x.data(), y.data(), 3, true, 2, 1)), 0);
    EXPECT_EQ(y, (std::vector<signed char>{-55, 57, 15}));
    // Through float: 100 * 3.007 = 300.7 truncates to 300, low 8 bits 44.
    EXPECT_EQ((cpu_ops::scale<signed char, float>(ctx.get(), x.data(), y.data(), 3, true, 3.007f, 0.0f)), 0);
    EXPECT_EQ(y, (std::vector<signed char>{44, -44, 21}));
    const std::vector<int> xi = {2147483647, -7};
    std::vector<int> yi(2);
    EXPECT_EQ((cpu_ops::scale<int, int>(ctx.get(), xi.data(), yi.data(), 2, false, 1, 1)), 0);
    EXPECT_EQ(yi, (std::vector<int>{-2147483647 - 1, -6}));
    EXPECT_EQ((cpu_ops::scale<int, float>(ctx.get(), xi.data(), yi.data(), 2, true, 0.5f, -0.25f)), 0);
    EXPECT_EQ(yi[1], -3);  // -3.75 truncates towards zero
}

TEST(Silu, OneDivisionInDoubleThenNarrowed) {
    auto ctx = host_context();
    const std::vector<float> x = {0.0f, 1.0f, -1.0f, 20.0f, -100.0f};
    std::vector<float> y(x.size());
    ASSERT_EQ(cpu_ops::silu<float>(ctx.get(), x.data(), y.data(), 5, nullptr, nullptr), 0);
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double v = x[i];
        EXPECT_EQ(y[i], static_cast<float>(v / (std::exp(-v) + 1.0))) << x[i];
    }
    std::vector<float16> xh = {float16(1.0f), float16(-2.0f)}, yh(2);
    ASSERT_EQ(cpu_ops::silu<float16>(ctx.get(), xh.data(), yh.data(), 2, nullptr, nullptr), 0);
    EXPECT_EQ(yh[0].x, float16(static_cast<float>(1.0 / (std::exp(-1.0) + 1.0))).x);
}

}  // namespace
