// split along an axis: block layout, skipped outputs and the checks that
// keep a bad call from writing anything.
#include <gtest/gtest.h>

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

// x is [2, 6, 2] = 0..23; along axis 1 the sizes 1, 2, 3 take per block of
// 12 elements the runs [0, 2), [2, 6), [6, 12).
const std::vector<std::vector<int>> kParts = {
    {0, 1, 12, 13},
    {2, 3, 4, 5, 14, 15, 16, 17},
    {6, 7, 8, 9, 10, 11, 18, 19, 20, 21, 22, 23},
};

TEST(Split, BlocksAlongTheAxisAndNullOutputsSkipped) {
    auto ctx = host_context();
    const auto x = iota(24);
    for (int skip = -1; skip < 3; ++skip) {
        std::vector<GuardedBuffer<int>> out;
        std::vector<int*> ys;
        for (int i = 0; i < 3; ++i) {
            out.emplace_back(ctx.get(), static_cast<long>(kParts[i].size()));
            ys.push_back(i == skip ? nullptr : out.back().data());
        }
        ASSERT_EQ(cpu_ops::split<int>(ctx.get(), x.data(), ys, {2, 6, 2}, {1, 2, 3}, 1), 0);
        for (int i = 0; i < 3; ++i) {
            if (i == skip) EXPECT_TRUE(out[i].untouched());
            else EXPECT_TRUE(tsuops_test::exactly_equal(kParts[i], out[i].download())) << "skip " << skip;
        }
    }
}

TEST(Split, RunsOnADeviceContext) {
    auto dev = tsuops_test::device_context();
    const std::vector<float> x = {1, 2, 3, 4};
    std::vector<float> a(2), b(2);
    ASSERT_EQ(cpu_ops::split<float>(dev.get(), x.data(), {a.data(), b.data()}, {2, 2}, {1, 1}, 1), 0);
    EXPECT_EQ(a, (std::vector<float>{1, 3}));
    EXPECT_EQ(b, (std::vector<float>{2, 4}));
}

struct BadSplit {
    const char* what;
    std::vector<long> xshape;
    std::vector<long> sizes;
    long axis;
    int outputs;
};

TEST(Split, MismatchedShapesWriteNothing) {
    const BadSplit cases[] = {
        {"sizes sum below the axis", {2, 6, 2}, {1, 2, 2}, 1, 3},
        {"sizes sum above the axis", {2, 6, 2}, {1, 2, 4}, 1, 3},
        {"negative size", {2, 6, 2}, {-1, 4, 3}, 1, 3},
        {"fewer outputs than sizes", {2, 6, 2}, {1, 2, 3}, 1, 2},
        {"negative axis is not wrapped", {2, 6, 2}, {1, 2, 3}, -2, 3},
        {"axis past the rank", {2, 6, 2}, {1, 1}, 3, 2},
    };
    auto ctx = host_context();
    const auto x = iota(24);
    for (const auto& c : cases) {
        std::vector<GuardedBuffer<int>> out;
        std::vector<int*> ys;
        for (int i = 0; i < c.outputs; ++i) {
            out.emplace_back(ctx.get(), 24);
            ys.push_back(out.back().data());
        }
        LogCapture logs;
        EXPECT_EQ(cpu_ops::split<int>(ctx.get(), x.data(), ys, c.xshape, c.sizes, c.axis), 1) << c.what;
        EXPECT_EQ(logs.failures().size(), 1u) << c.what;
        EXPECT_EQ(logs.count("compare_fail"), 1u) << c.what;
        for (auto& o : out) EXPECT_TRUE(o.untouched()) << c.what;
    }
}

}  // namespace
