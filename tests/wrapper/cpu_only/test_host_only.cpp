// Host-only routines refuse a device context before touching anything.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include <tsuops/cpu_ops.h>

#include "support/tsuops_test.h"

namespace {

namespace cpu_ops = infer_ops::cpu_ops;
using tsuops_test::GuardedBuffer;
using tsuops_test::LogCapture;
using orvane::tsu::api::Context;
using orvane::tsu::api::DeviceType;

struct Refusal {
    const char* name;
    int status;  // 4 with an unimplement record, or 1 with no record
    std::function<int(Context*, const float*, float*)> call;
};

std::vector<Refusal> refusals() {
    static const long shape_ok = 4;
    return {
        {"copy2d", 4, [](Context* c, const float* x, float* y) { return cpu_ops::copy2d<float>(c, x, y, 2, 2, 2, 2); }},
        {"findmax", 4, [](Context* c, const float* x, float* y) { return cpu_ops::findmax<float>(c, x, y, 4); }},
        {"gather", 4,
         [](Context* c, const float* x, float* y) {
             static const int idx[2] = {0, 1};
             return cpu_ops::gather<float, int>(c, x, idx, y, {2, 2}, 2, 0);
         }},
        {"scale", 4,
         [](Context* c, const float* x, float* y) {
             return cpu_ops::scale<float, float>(c, x, y, shape_ok, true, 2.0f, 1.0f);
         }},
        {"silu", 4,
         [](Context* c, const float* x, float* y) { return cpu_ops::silu<float>(c, x, y, 4, nullptr, nullptr); }},
        {"softmax2d", 4, [](Context* c, const float* x, float* y) { return cpu_ops::softmax2d<float>(c, x, y, 2, 2); }},
        {"concat", 4,
         [](Context* c, const float* x, float* y) {
             return cpu_ops::concat<float>(c, {x, x + 2}, y, {{1, 2}, {1, 2}}, 0);
         }},
        {"sigmoid", 4, [](Context* c, const float* x, float* y) { return cpu_ops::sigmoid<float>(c, x, y, 4); }},
        {"quantization", 1,
         [](Context* c, const float* x, float* y) {
             return cpu_ops::quantization<float, signed char>(c, x, reinterpret_cast<signed char*>(y), 4, nullptr);
         }},
    };
}

TEST(HostOnly, DeviceContextsAreRefused) {
    for (DeviceType type : {DeviceType::TSU3, DeviceType::TSU2, DeviceType::TSU1}) {
        auto ctx = tsuops_test::make_context(type);
        const std::vector<float> x = {1, 2, 3, 4};
        auto host = tsuops_test::host_context();
        for (const auto& r : refusals()) {
            GuardedBuffer<float> y(host.get(), 4);
            LogCapture logs;
            EXPECT_EQ(r.call(ctx.get(), x.data(), y.data()), r.status) << r.name;
            const auto failures = logs.failures();
            if (r.status == 4) {
                ASSERT_EQ(failures.size(), 1u) << r.name;
                EXPECT_EQ(failures[0].kind, "unimplement") << r.name;
                EXPECT_NE(failures[0].file.find("cpu_only"), std::string::npos) << failures[0].file;
            } else {
                EXPECT_TRUE(failures.empty()) << r.name;
            }
            EXPECT_TRUE(y.untouched()) << r.name;
        }
    }
}

TEST(HostOnly, NullContextIsSilent) {
    const std::vector<float> x = {1, 2, 3, 4};
    for (const auto& r : refusals()) {
        std::vector<float> y(4, -1.0f);
        LogCapture logs;
        EXPECT_EQ(r.call(nullptr, x.data(), y.data()), 1) << r.name;
        EXPECT_TRUE(logs.records().empty()) << r.name;
        EXPECT_EQ(y, std::vector<float>(4, -1.0f)) << r.name;
    }
}

TEST(HostOnly, CopyAndFindmaxOnTheHost) {
    auto ctx = tsuops_test::host_context();
    const std::vector<double> x = {1, 2, 3, 4, 5, 6};
    std::vector<double> y(6, 0.0);
    ASSERT_EQ(cpu_ops::copy2d<double>(ctx.get(), x.data(), y.data(), 2, 3, 4, 2), 0);
    EXPECT_EQ(y, (std::vector<double>{1, 2, 0, 0, 4, 5}));
    ASSERT_EQ(cpu_ops::copy2d<double>(ctx.get(), x.data(), y.data(), 0, 3, 4, 2), 0);

    const std::vector<bfloat16> h = {bfloat16(-3.0f), bfloat16::from_bits(0x7fc0), bfloat16(2.0f)};
    float out = -1.0f;
    ASSERT_EQ(cpu_ops::findmax<bfloat16>(ctx.get(), h.data(), &out, 3), 0);
    EXPECT_EQ(out, 3.0f);
    ASSERT_EQ(cpu_ops::findmax<bfloat16>(ctx.get(), h.data(), &out, 0), 0);
    EXPECT_EQ(out, 0.0f);
}

}  // namespace
