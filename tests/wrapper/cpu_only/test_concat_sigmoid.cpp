// concat along an axis and sigmoid: the two routines that stand on the
// operators copy and cast.
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

#include <tsuops/cpu_ops.h>

#include "support/tsuops_test.h"

namespace {

namespace cpu_ops = infer_ops::cpu_ops;
using tsuops_test::GuardedBuffer;
using tsuops_test::host_context;
using tsuops_test::LogCapture;

std::vector<int> iota(long n) {
    std::vector<int> v(static_cast<std::size_t>(n));
    std::iota(v.begin(), v.end(), 0);
    return v;
}

// The three parts that split takes out of [2, 6, 2] = 0..23 along axis 1
// with sizes 1, 2, 3.
const std::vector<std::vector<int>> kParts = {
    {0, 1, 12, 13},
    {2, 3, 4, 5, 14, 15, 16, 17},
    {6, 7, 8, 9, 10, 11, 18, 19, 20, 21, 22, 23},
};

TEST(Concat, JoinsBlocksInInputOrder) {
    auto ctx = host_context();
    // [2, 1, 2] and [2, 2, 2] along axis 1: per block, two then four elements.
    const std::vector<short> a = {1, 2, 3, 4};
    const std::vector<short> b = {10, 11, 12, 13, 14, 15, 16, 17};
    GuardedBuffer<short> y(ctx.get(), 12);
    ASSERT_EQ(cpu_ops::concat<short>(ctx.get(), {a.data(), b.data()}, y.data(), {{2, 1, 2}, {2, 2, 2}}, 1), 0);
    EXPECT_TRUE(tsuops_test::exactly_equal(std::vector<short>{1, 2, 10, 11, 12, 13, 3, 4, 14, 15, 16, 17},
                                           y.download()));
    // concat undoes split.
    const auto x = iota(24);
    std::vector<std::vector<int>> parts = kParts;
    GuardedBuffer<int> joined(ctx.get(), 24);
    ASSERT_EQ(cpu_ops::concat<int>(ctx.get(), {parts[0].data(), parts[1].data(), parts[2].data()}, joined.data(),
                                   {{2, 1, 2}, {2, 2, 2}, {2, 3, 2}}, 1),
              0);
    EXPECT_TRUE(tsuops_test::exactly_equal(x, joined.download()));
}

struct BadConcat {
    const char* what;
    std::vector<std::vector<long>> shapes;
    long axis;
    int inputs;
    int status;
    const char* kind;
};

TEST(Concat, BadArgumentsWriteNothing) {
    const BadConcat cases[] = {
        {"no input", {}, 0, 0, 1, "compare_fail"},
        {"fewer shapes than inputs", {{2, 2}}, 0, 2, 1, "compare_fail"},
        {"negative axis", {{2, 2}, {2, 2}}, -1, 2, 1, "compare_fail"},
        {"axis past the rank", {{2, 2}, {2, 2}}, 2, 2, 1, "compare_fail"},
        {"other dimension differs", {{2, 2}, {3, 2}}, 1, 2, 4, "unimplement"},
        {"rank differs", {{2, 2}, {2, 2, 1}}, 1, 2, 4, "unimplement"},
    };
    auto ctx = host_context();
    const std::vector<float> in(16, 1.0f);
    for (const auto& c : cases) {
        std::vector<const float*> xs(static_cast<std::size_t>(c.inputs), in.data());
        GuardedBuffer<float> y(ctx.get(), 16);
        LogCapture logs;
        EXPECT_EQ(cpu_ops::concat<float>(ctx.get(), xs, y.data(), c.shapes, c.axis), c.status) << c.what;
        EXPECT_EQ(logs.failures().size(), 1u) << c.what;
        EXPECT_EQ(logs.count(c.kind), 1u) << c.what;
        EXPECT_TRUE(y.untouched()) << c.what;
    }
}

TEST(Concat, OneInputIsACopyOnAnyContext) {
    for (bool device : {false, true}) {
        auto ctx = device ? tsuops_test::device_context() : host_context();
        const auto values = tsuops_test::random_tensor<bfloat16>(30, 5);
        GuardedBuffer<bfloat16> x(ctx.get(), values);
        GuardedBuffer<bfloat16> y(ctx.get(), 30);
        TSUOPS_RETURN_IF_SKIPPED();
        ASSERT_EQ(cpu_ops::concat<bfloat16>(ctx.get(), {x.data()}, y.data(), {{5, 6}}, 1), 0) << device;
        EXPECT_TRUE(tsuops_test::exactly_equal(values, y.download())) << device;
    }
}

TEST(Sigmoid, ThroughFloatAndBack) {
    auto ctx = host_context();
    const std::vector<float> x = {0.0f, 2.0f, -3.0f, 20.0f, -200.0f};
    std::vector<float> y(x.size());
    ASSERT_EQ(cpu_ops::sigmoid<float>(ctx.get(), x.data(), y.data(), 5), 0);
    for (std::size_t i = 0; i < x.size(); ++i)
        EXPECT_EQ(y[i], static_cast<float>(1.0 / (std::exp(-static_cast<double>(x[i])) + 1.0))) << x[i];

    // In place, and narrowed through the cast of the element type.
    std::vector<float16> h = {float16(0.0f), float16(1.0f)};
    ASSERT_EQ(cpu_ops::sigmoid<float16>(ctx.get(), h.data(), h.data(), 2), 0);
    EXPECT_EQ(h[0].x, float16(0.5f).x);
    EXPECT_EQ(h[1].x, float16(static_cast<float>(1.0 / (std::exp(-1.0) + 1.0))).x);

    // signed char: the cast back truncates, so only a result of exactly 1.0 survives.
    const std::vector<signed char> c = {0, 3, 20, -5};
    std::vector<signed char> d(4, 9);
    ASSERT_EQ(cpu_ops::sigmoid<signed char>(ctx.get(), c.data(), d.data(), 4), 0);
    EXPECT_EQ(d, (std::vector<signed char>{0, 0, 1, 0}));
}

TEST(Sigmoid, AFailedCastIsAKernelFailure) {
    auto ctx = host_context();
    const std::vector<float> x = {1.0f};
    std::vector<float> y = {-1.0f};
    LogCapture logs;
    // An empty tensor fails the cast's region step.
    EXPECT_EQ(cpu_ops::sigmoid<float>(ctx.get(), x.data(), y.data(), 0), 2);
    EXPECT_EQ(logs.count("kernel_fail"), 1u);
    EXPECT_EQ(y[0], -1.0f);
}

}  // namespace
