// constant: host and device agree for every element type; the frame's
// failures leave the output alone.
#include <gtest/gtest.h>

#include <tsuops/infer_ops.h>

#include "support/tsuops_test.h"

namespace {

using namespace orvane::tsu::api;
using tsuops_test::GuardedBuffer;
using tsuops_test::LogCapture;

template <typename T>
class Constant : public ::testing::Test {};
TYPED_TEST_SUITE(Constant, tsuops_test::AllElementTypes);

TYPED_TEST(Constant, DeviceMatchesHost) {
    using T = TypeParam;
    auto host = tsuops_test::host_context();
    auto dev = tsuops_test::device_context();
    std::uint64_t seed = 1;
    // Lengths around the per-core split: fewer elements than cores, a ragged
    // tail, and several lines per core.
    for (long len : {1L, 7L, 63L, 512L, 513L, 4097L, 100000L}) {
        const T value = tsuops_test::random_tensor<T>(1, seed++)[0];
        GuardedBuffer<T> want(host.get(), len);
        GuardedBuffer<T> got(dev.get(), len);
        got.fill_sentinel();
        ASSERT_EQ(infer_ops::constant<T>(host.get(), want.data(), len, value), 0);
        ASSERT_EQ(infer_ops::constant<T>(dev.get(), got.data(), len, value), 0);
        EXPECT_TRUE(tsuops_test::exactly_equal(want.download(), got.download())) << "len " << len;
    }
}

TEST(ConstantFailure, NullContextIsSilent) {
    LogCapture logs;
    float x = 0;
    EXPECT_EQ(infer_ops::constant<float>(nullptr, &x, 1, 1.0f), 1);
    EXPECT_TRUE(logs.records().empty());
    EXPECT_EQ(x, 0.0f);
}

struct BadCall {
    const char* what;
    DeviceType dev;
    std::uint64_t ptr;  // 0: a real buffer
    long len;
    int status;
    const char* log;
};

class ConstantBadCall : public ::testing::TestWithParam<BadCall> {};

TEST_P(ConstantBadCall, StatusLogAndNothingWritten) {
    const auto c = GetParam();
    auto ctx = tsuops_test::make_context(c.dev);
    // Type-3 memory also classifies as global memory for types 4 and 5.
    auto owner = c.dev == DeviceType::CPU ? tsuops_test::host_context() : tsuops_test::device_context();
    GuardedBuffer<float> x(owner.get(), 16);
    x.fill_sentinel();
    float* p = c.ptr ? reinterpret_cast<float*>(c.ptr) : x.data();
    LogCapture logs;
    EXPECT_EQ(infer_ops::constant<float>(ctx.get(), p, c.len, 3.0f), c.status) << c.what;
    EXPECT_EQ(logs.count(c.log), 1u) << c.what;
    if (owner->stream) tsu_wait(owner->stream);
    EXPECT_TRUE(x.untouched()) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Frame, ConstantBadCall,
    ::testing::Values(BadCall{"zero length on the device", DeviceType::TSU3, 0, 0, 1, "invalid_memory"},
                      BadCall{"zero length on the host", DeviceType::CPU, 0, 0, 1, "invalid_memory"},
                      BadCall{"negative length", DeviceType::TSU3, 0, -4, 1, "invalid_memory"},
                      BadCall{"an address that is no memory", DeviceType::TSU3, 0x1000, 16, 1, "invalid_memory"},
                      BadCall{"an address past device memory", DeviceType::TSU3, 0x8000000000, 16, 1,
                              "invalid_memory"},
                      BadCall{"device type 1 after passing checks", DeviceType::TSU1, 0x200001000, 16, 4,
                              "unimplement"},
                      BadCall{"device type 4 after passing checks", DeviceType::TSU4, 0, 16, 4, "unimplement"}));

TEST(ConstantFailure, NullPointerFailsTheRegionOnEveryDevice) {
    for (auto dev : {DeviceType::CPU, DeviceType::TSU3}) {
        auto ctx = tsuops_test::make_context(dev);
        LogCapture logs;
        EXPECT_EQ(infer_ops::constant<int>(ctx.get(), nullptr, 4, 1), 1);
        EXPECT_EQ(logs.count("invalid_memory"), 1u);
    }
}

TEST(ConstantFailure, TraceComesBeforeTheFailingCheck) {
    auto ctx = tsuops_test::device_context({.debug_flags = 0x1});
    GuardedBuffer<float> x(ctx.get(), 4);
    LogCapture logs;
    std::vector<std::size_t> logged_before_trace;
    set_trace_sink([&](const function_info& f) {
        EXPECT_EQ(f.name, "constant");
        logged_before_trace.push_back(logs.failures().size());
    });
    EXPECT_EQ(infer_ops::constant<float>(ctx.get(), x.data(), 0, 1.0f), 1);
    set_trace_sink({});
    EXPECT_EQ(logged_before_trace, std::vector<std::size_t>{0});
    EXPECT_EQ(logs.count("invalid_memory"), 1u);
}

}  // namespace
