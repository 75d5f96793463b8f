// gather along an axis, and the work partition that imitates the core grid.
#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include <tsuops/cpu_ops.h>

#include "support/tsuops_test.h"

namespace {

namespace cpu_ops = infer_ops::cpu_ops;
using tsuops_test::host_context;

template <class T>
class Gather : public ::testing::Test {};
using GatherTypes = ::testing::Types<float, bfloat16, signed char, long, short>;
TYPED_TEST_SUITE(Gather, GatherTypes, tsuops_test::ElementTypeNames);

template <class T, class I>
void gather_middle_axis(long axis) {
    // x is [2, 5, 3]; along the axis of 5 an index of -1 takes coordinate 4,
    // -6 and 5 lie outside and give zeros.
    auto ctx = host_context();
    const std::vector<long> xshape = {2, 5, 3};
    const auto x = tsuops_test::random_tensor<T>(30, 11);
    const std::vector<I> index = {-1, -6, 5, 0, 2, -5, 4};
    const std::vector<long> coord = {4, -1, -1, 0, 2, 0, 4};
    tsuops_test::GuardedBuffer<T> y(ctx.get(), 2 * 7 * 3);
    ASSERT_EQ((cpu_ops::gather<T, I>(ctx.get(), x.data(), index.data(), y.data(), xshape, 7, axis)), 0);
    std::vector<T> expected;
    for (long b = 0; b < 2; ++b)
        for (long k : coord)
            for (long a = 0; a < 3; ++a) expected.push_back(k < 0 ? T{} : x[(b * 5 + k) * 3 + a]);
    EXPECT_TRUE(tsuops_test::exactly_equal(expected, y.download()));
}

TYPED_TEST(Gather, NegativeAndOutOfRangeIndices) {
    gather_middle_axis<TypeParam, int>(1);
    gather_middle_axis<TypeParam, long>(-2);
}

TEST(Gather, FirstAndLastAxis) {
    auto ctx = host_context();
    const std::vector<float> x = {0, 1, 2, 3, 4, 5};  // [2, 3]
    const std::vector<long> rows = {1, -2, 2};
    std::vector<float> y(9);
    ASSERT_EQ((cpu_ops::gather<float, long>(ctx.get(), x.data(), rows.data(), y.data(), {2, 3}, 3, 0)), 0);
    EXPECT_EQ(y, (std::vector<float>{3, 4, 5, 0, 1, 2, 0, 0, 0}));
    const std::vector<int> cols = {2, -1, -4};
    std::vector<float> z(6);
    ASSERT_EQ((cpu_ops::gather<float, int>(ctx.get(), x.data(), cols.data(), z.data(), {2, 3}, 3, -1)), 0);
    EXPECT_EQ(z, (std::vector<float>{2, 2, 0, 5, 5, 0}));
}

TEST(Gather, EmptyOutputAndBadAxis) {
    auto ctx = host_context();
    const std::vector<float> x(6, 1.0f);
    const std::vector<int> index = {0};
    tsuops_test::GuardedBuffer<float> y(ctx.get(), 6);
    EXPECT_EQ((cpu_ops::gather<float, int>(ctx.get(), x.data(), index.data(), y.data(), {2, 3}, 0, 1)), 0);
    EXPECT_TRUE(y.untouched());
    tsuops_test::LogCapture logs;
    EXPECT_EQ((cpu_ops::gather<float, int>(ctx.get(), x.data(), index.data(), y.data(), {2, 3}, 1, 2)), 1);
    EXPECT_EQ((cpu_ops::gather<float, int>(ctx.get(), x.data(), index.data(), y.data(), {2, 3}, 1, -3)), 1);
    EXPECT_EQ(logs.count("compare_fail"), 2u);
    EXPECT_TRUE(y.untouched());
}

long ceil_div(long a, long b) { return a / b + (a % b != 0 ? 1 : 0); }

// The ranges of all workers tile [0, len) in worker order; every range
// starts on a unit boundary; counts of whole units differ by at most one,
// the larger counts first.
template <class T>
void check_partition(int nthreads, T len, int unit) {
    SCOPED_TRACE(::testing::Message() << "nthreads " << nthreads << " len " << len << " unit " << unit);
    T expect_begin = 0;
    long prev_units = std::numeric_limits<long>::max();
    long min_units = std::numeric_limits<long>::max(), max_units = 0;
    for (int tid = 0; tid < nthreads; ++tid) {
        T b = -1, e = -1;
        cpu_ops::partition<T>(tid, nthreads, len, unit, &b, &e);
        if (unit < 1) {
            ASSERT_EQ(b, 0);
            ASSERT_EQ(e, 0);
            continue;
        }
        ASSERT_EQ(b, expect_begin) << "tid " << tid;
        ASSERT_LE(b, e);
        ASSERT_TRUE(b % unit == 0 || b == len);
        const long units = ceil_div(static_cast<long>(e - b), unit);
        ASSERT_LE(units, prev_units) << "tid " << tid;
        prev_units = units;
        min_units = std::min(min_units, units);
        max_units = std::max(max_units, units);
        expect_begin = e;
    }
    if (unit >= 1) {
        EXPECT_EQ(expect_begin, len);
        const long blocks = ceil_div(static_cast<long>(len), unit);
        // The last unit may be short, so a worker holding it counts one block.
        if (blocks >= nthreads) EXPECT_LE(max_units - min_units, 1);
        else EXPECT_EQ(max_units, blocks > 0 ? 1 : 0);
    }
}

TEST(Partition, TilesInOrderWithBalance) {
    for (int nthreads = 1; nthreads <= 9; ++nthreads)
        for (int len = 0; len <= 40; ++len)
            for (int unit = 0; unit <= 7; ++unit) {
                check_partition<int>(nthreads, len, unit);
                check_partition<long>(nthreads, len, unit);
            }
    for (int nthreads : {1, 3, 64, 1000})
        for (int unit : {1, 16, 4096}) {
            check_partition<long>(nthreads, 1L << 40, unit);
            check_partition<long>(nthreads, std::numeric_limits<long>::max(), unit);
            check_partition<int>(nthreads, std::numeric_limits<int>::max(), unit);
        }
}

TEST(Partition, Examples) {
    const int expected[4][2] = {{0, 3}, {3, 6}, {6, 8}, {8, 10}};
    for (int tid = 0; tid < 4; ++tid) {
        int b, e;
        cpu_ops::partition<int>(tid, 4, 10, 1, &b, &e);
        EXPECT_EQ(b, expected[tid][0]);
        EXPECT_EQ(e, expected[tid][1]);
    }
    long b, e;
    cpu_ops::partition<long>(3, 4, 10, 4, &b, &e);
    EXPECT_EQ(b, 10);
    EXPECT_EQ(e, 10);
    cpu_ops::partition<long>(2, 4, 10, 4, &b, &e);
    EXPECT_EQ(b, 8);
    EXPECT_EQ(e, 10);
}

}  // namespace
