// add: host and device agree bit for bit across the folding of a single long
// row; the folded shape is what the GMX kernel receives; the bfloat16 sum
// rounds ties away from zero; failures leave the output alone.
#include <bit>
#include <cstdint>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/infer_ops.h>

#include "support/tsuops_test.h"
#include "wrapper/basic/add_fold.h"

namespace {

using namespace orvane::tsu::api;
using infer_ops::add_fold::kFoldMinCols;
using infer_ops::add_fold::kFoldWidths;
using tsuops_test::GuardedBuffer;
using tsuops_test::LaunchCapture;
using tsuops_test::LogCapture;

// Shapes on both sides of the folding rule: one below, at and above the
// shortest folded row; rows that each width folds (and the widths below it
// do not take first); an odd row that no width divides; several rows.
std::vector<std::pair<long, long>> shapes() {
    std::vector<std::pair<long, long>> s = {{1, kFoldMinCols - 1}, {1, kFoldMinCols}, {1, kFoldMinCols + 1},
                                            {1, 3 * 1024 + 1},     {3, 2048},           {7, 33}};
    for (long w : kFoldWidths) s.push_back({1, w * 33});
    return s;
}

template <typename T>
class Add : public ::testing::Test {};
using AddTypes = ::testing::Types<float, bfloat16>;
TYPED_TEST_SUITE(Add, AddTypes, tsuops_test::ElementTypeNames);

TYPED_TEST(Add, DeviceMatchesHost) {
    using T = TypeParam;
    auto host = tsuops_test::host_context();
    auto dev = tsuops_test::device_context();
    std::uint64_t seed = 7;
    for (auto [m, n] : shapes()) {
        const long len = m * n;
        const auto spec = tsuops_test::RandomSpec::with_specials(0.05).in(-100, 100);
        const auto xs = tsuops_test::random_tensor<T>(len, seed++, spec);
        const auto ys = tsuops_test::random_tensor<T>(len, seed++, spec);
        GuardedBuffer<T> hx(host.get(), xs), hy(host.get(), ys), hz(host.get(), len);
        GuardedBuffer<T> dx(dev.get(), xs), dy(dev.get(), ys), dz(dev.get(), len);
        ASSERT_EQ(infer_ops::add<T>(host.get(), hx.data(), hy.data(), hz.data(), m, n, false), 0);
        ASSERT_EQ(infer_ops::add<T>(dev.get(), dx.data(), dy.data(), dz.data(), m, n, false), 0);
        // Bit for bit, except which NaN a sum of two NaNs gives: that depends
        // on the order in which the compiler put the operands.
        EXPECT_TRUE(tsuops_test::exactly_equal(hz.download(), dz.download())) << m << " x " << n;
    }
}

struct Fold {
    long m, n;
    long rows, cols;
};

class AddFold : public ::testing::TestWithParam<Fold> {};

TEST_P(AddFold, KernelSeesTheFoldedShape) {
    const auto f = GetParam();
    auto dev = tsuops_test::device_context();
    const long len = f.m * f.n;
    GuardedBuffer<bfloat16> x(dev.get(), len), y(dev.get(), len), z(dev.get(), len);
    LaunchCapture launches;
    ASSERT_EQ(infer_ops::add<bfloat16>(dev.get(), x.data(), y.data(), z.data(), f.m, f.n, true), 0);
    const auto rec = launches.records();
    ASSERT_EQ(rec.size(), 1u);
    EXPECT_EQ(rec[0].kernel,
              "tsu3::infer_add_gmx<bfloat16>(bfloat16 const*, bfloat16 const*, bfloat16*, long, long)");
    EXPECT_EQ(rec[0].nclusters, dev->ngmx);
    EXPECT_EQ(rec[0].ncores, 8);
    EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 24), f.rows);
    EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 32), f.cols);
}

INSTANTIATE_TEST_SUITE_P(Shapes, AddFold,
                         ::testing::Values(Fold{1, 1024, 1, 1024}, Fold{1, 1025, 1, 1025}, Fold{1, 1536, 3, 512},
                                           Fold{1, 2048, 2, 1024}, Fold{1, 1056, 33, 32}, Fold{1, 1040, 1, 1040},
                                           Fold{2, 2048, 2, 2048}, Fold{1, 3 * 4096, 12, 1024}));

// The sum is narrowed inline: (bits + 0x8000) >> 16, whatever the bfloat16
// mode, on both paths.
TEST(AddBfloat16, TieRoundsAwayFromZero) {
    for (auto type : {DeviceType::CPU, DeviceType::TSU3}) {
        auto ctx = tsuops_test::make_context(type);
        const std::vector<bfloat16> xs = {bfloat16(1.0f), bfloat16(-1.0f), bfloat16::from_bits(0x3f82)};
        const std::vector<bfloat16> ys = {bfloat16(0x1p-8f), bfloat16(-0x1p-8f), bfloat16(0x1p-8f)};
        GuardedBuffer<bfloat16> x(ctx.get(), xs), y(ctx.get(), ys), z(ctx.get(), 3);
        ASSERT_EQ(infer_ops::add<bfloat16>(ctx.get(), x.data(), y.data(), z.data(), 1, 3, false), 0);
        const auto got = z.download();
        EXPECT_EQ(got[0].x, 0x3f81);
        EXPECT_EQ(got[1].x, 0xbf81);
        EXPECT_EQ(got[2].x, 0x3f83);  // a tie whose lower neighbour is even
    }
}

struct BadAdd {
    const char* what;
    DeviceType dev;
    std::uint64_t z;  // 0: a real buffer
    long m, n;
    int status;
    const char* log;
};

class AddBadCall : public ::testing::TestWithParam<BadAdd> {};

TEST_P(AddBadCall, StatusLogAndNothingWritten) {
    const auto c = GetParam();
    auto ctx = tsuops_test::make_context(c.dev);
    auto owner = c.dev == DeviceType::CPU ? tsuops_test::host_context() : tsuops_test::device_context();
    GuardedBuffer<float> x(owner.get(), 16), y(owner.get(), 16), z(owner.get(), 16);
    float* pz = c.z ? reinterpret_cast<float*>(c.z) : z.data();
    LogCapture logs;
    EXPECT_EQ(infer_ops::add<float>(ctx.get(), x.data(), y.data(), pz, c.m, c.n, false), c.status) << c.what;
    EXPECT_EQ(logs.failures().size(), 1u) << c.what;
    EXPECT_EQ(logs.count(c.log), 1u) << c.what;
    EXPECT_TRUE(z.untouched()) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Frame, AddBadCall,
    ::testing::Values(BadAdd{"no rows", DeviceType::TSU3, 0, 0, 16, 1, "invalid_memory"},
                      BadAdd{"no columns on the host", DeviceType::CPU, 0, 4, 0, 1, "invalid_memory"},
                      BadAdd{"one negative dimension", DeviceType::TSU3, 0, -4, 4, 1, "invalid_memory"},
                      BadAdd{"a product past the range of long", DeviceType::TSU3, 0, 1L << 40, 1L << 40, 1,
                             "invalid_memory"},
                      BadAdd{"an output that is no memory", DeviceType::TSU3, 0x1000, 4, 4, 1, "invalid_memory"},
                      BadAdd{"device type 4", DeviceType::TSU4, 0, 4, 4, 4, "unimplement"}));

TEST(AddFailure, LaunchFailureGivesStatusTwo) {
    auto dev = tsuops_test::device_context();
    GuardedBuffer<float> x(dev.get(), 64), y(dev.get(), 64), z(dev.get(), 64);
    LogCapture logs;
    tsuemu::inject_failure(tsuemu::Site::Async, 1, 3);
    EXPECT_EQ(infer_ops::add<float>(dev.get(), x.data(), y.data(), z.data(), 8, 8, false), 2);
    tsuemu::clear_failures();
    EXPECT_EQ(logs.count("kernel_fail"), 1u);
    EXPECT_TRUE(z.untouched());
}

}  // namespace
