// copy: host and device agree byte for byte for every element type; the
// device path is one byte-copy kernel; an in-place copy does nothing on any
// device type; failures leave the destination alone.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/infer_ops.h>

#include "support/tsuops_test.h"

namespace {

using namespace orvane::tsu::api;
using tsuops_test::GuardedBuffer;
using tsuops_test::LaunchCapture;
using tsuops_test::LogCapture;

template <typename T>
class Copy : public ::testing::Test {};
TYPED_TEST_SUITE(Copy, tsuops_test::AllElementTypes, tsuops_test::ElementTypeNames);

TYPED_TEST(Copy, DeviceMatchesHostWithOneKernel) {
    using T = TypeParam;
    auto host = tsuops_test::host_context();
    auto dev = tsuops_test::device_context();
    std::uint64_t seed = 1;
    // The kernel splits bytes in 64-byte lines over the grid: fewer bytes than
    // one line, a ragged last line, more lines than cores.
    for (long len : {1L, 7L, 1000L, 40001L}) {
        const auto xs = tsuops_test::random_tensor<T>(len, seed++, tsuops_test::RandomSpec::with_specials());
        GuardedBuffer<T> hx(host.get(), xs);
        GuardedBuffer<T> dx(dev.get(), xs);
        GuardedBuffer<T> hy(host.get(), len);
        GuardedBuffer<T> dy(dev.get(), len);
        LaunchCapture launches;
        ASSERT_EQ(infer_ops::copy<T>(host.get(), hx.data(), hy.data(), len), 0);
        ASSERT_EQ(infer_ops::copy<T>(dev.get(), dx.data(), dy.data(), len), 0);
        EXPECT_EQ(hy.raw_bytes(), dx.raw_bytes()) << "len " << len;
        EXPECT_EQ(dy.raw_bytes(), dx.raw_bytes()) << "len " << len;
        const auto rec = launches.records();
        ASSERT_EQ(rec.size(), 1u);
        EXPECT_EQ(rec[0].kernel, "tsu3::infer_memcpy_1d<>(char const*, char*, long)");
        EXPECT_EQ(rec[0].nclusters, dev->ncluster);
        EXPECT_EQ(rec[0].ncores, 64);
        EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 16), len * static_cast<long>(sizeof(T)));
    }
}

// x equal to y returns before the device type is looked at.
TEST(CopyInPlace, DoesNothingOnAnyDeviceType) {
    auto owner = tsuops_test::device_context();
    GuardedBuffer<int> x(owner.get(), 8);
    for (auto type : {DeviceType::CPU, DeviceType::TSU3, DeviceType::TSU4}) {
        auto ctx = tsuops_test::make_context(type);
        LogCapture logs;
        LaunchCapture launches;
        EXPECT_EQ(infer_ops::copy<int>(ctx.get(), x.data(), x.data(), 8), 0);
        EXPECT_TRUE(logs.failures().empty());
        EXPECT_EQ(launches.size(), 0u);
    }
    EXPECT_TRUE(x.untouched());
}

struct BadCopy {
    const char* what;
    DeviceType dev;
    std::uint64_t y;  // 0: a real buffer
    long len;
    tsuemu::Site fault;
    bool inject;
    int status;
    const char* log;
};

class CopyBadCall : public ::testing::TestWithParam<BadCopy> {
protected:
    void TearDown() override { tsuemu::clear_failures(); }
};

TEST_P(CopyBadCall, StatusLogAndNothingWritten) {
    const auto c = GetParam();
    auto ctx = tsuops_test::make_context(c.dev);
    auto owner = c.dev == DeviceType::CPU ? tsuops_test::host_context() : tsuops_test::device_context();
    GuardedBuffer<float> x(owner.get(), std::vector<float>(16, 2.0f));
    GuardedBuffer<float> y(owner.get(), 16);
    float* py = c.y ? reinterpret_cast<float*>(c.y) : y.data();
    LogCapture logs;
    if (c.inject) tsuemu::inject_failure(c.fault, 1, 5);
    EXPECT_EQ(infer_ops::copy<float>(ctx.get(), x.data(), py, c.len), c.status) << c.what;
    tsuemu::clear_failures();
    EXPECT_EQ(logs.failures().size(), 1u) << c.what;
    EXPECT_EQ(logs.count(c.log), 1u) << c.what;
    EXPECT_TRUE(y.untouched()) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Frame, CopyBadCall,
    ::testing::Values(
        BadCopy{"zero length", DeviceType::TSU3, 0, 0, {}, false, 1, "invalid_memory"},
        BadCopy{"zero length on the host", DeviceType::CPU, 0, 0, {}, false, 1, "invalid_memory"},
        BadCopy{"a destination that is no memory", DeviceType::TSU3, 0x1000, 16, {}, false, 1, "invalid_memory"},
        BadCopy{"device type 4", DeviceType::TSU4, 0, 16, {}, false, 4, "unimplement"},
        BadCopy{"launch configuration fails", DeviceType::TSU3, 0, 16, tsuemu::Site::Config, true, 2, "kernel_fail"},
        BadCopy{"launch fails", DeviceType::TSU3, 0, 16, tsuemu::Site::Async, true, 2, "kernel_fail"}));

TEST(CopyFailure, NullContextIsSilent) {
    LogCapture logs;
    const long x = 1;
    long y = 0;
    EXPECT_EQ(infer_ops::copy<long>(nullptr, &x, &y, 1), 1);
    EXPECT_TRUE(logs.records().empty());
    EXPECT_EQ(y, 0);
}

}  // namespace
