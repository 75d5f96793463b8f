// The parameter record: pointer entries and alias labels, value texts, and
// the record a traced operator produces.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <tsuops/infer_ops.h>

#include "frame/frame.h"
#include "support/tsuops_test.h"

namespace {

using namespace orvane::tsu::api;
using Params = std::vector<std::string>;

float* fake(std::uint64_t a) { return reinterpret_cast<float*>(a); }
constexpr std::uint64_t kGm = 0x504000001000ull;
constexpr std::uint64_t kGm2 = 0x504000002000ull;
constexpr std::uint64_t kL3 = 0x90000100ull;

struct DumpOn {
    Context ctx{DeviceType::CPU};
    function_info info;
    explicit DumpOn(std::uint32_t dev) { ctx.dev_type = dev; }
};

TEST(ParamDump, RecurringDevicePointersShareALabel) {
    DumpOn d(3);
    d.info.add_param(&d.ctx, fake(kGm));
    d.info.add_param(&d.ctx, fake(kGm));
    d.info.add_param(&d.ctx, fake(kGm));
    d.info.add_param(&d.ctx, fake(kGm2));
    d.info.add_param(&d.ctx, fake(kGm2));
    EXPECT_EQ(d.info.params, (Params{"\"GM_0\"", "\"GM_0\"", "\"GM_0\"", "\"GM_1\"", "\"GM_1\""}));
    EXPECT_EQ(d.info.alias_counter, 2);
}

TEST(ParamDump, TheCounterIsCommonToGmAndL3) {
    DumpOn d(3);
    d.info.add_param(&d.ctx, fake(kL3));
    d.info.add_param(&d.ctx, fake(kGm));
    d.info.add_param(&d.ctx, fake(kGm));
    d.info.add_param(&d.ctx, fake(kL3));
    d.info.add_param(&d.ctx, reinterpret_cast<const float16*>(0x1000));
    EXPECT_EQ(d.info.params, (Params{"\"L3_1\"", "\"GM_0\"", "\"GM_0\"", "\"L3_1\"", "\"INVALID\""}));
}

TEST(ParamDump, HostAndNullPointersAreNeverLabelled) {
    DumpOn host(0);
    float x = 0;
    host.info.add_param(&host.ctx, &x);
    host.info.add_param(&host.ctx, &x);
    host.info.add_param(&host.ctx, static_cast<float*>(nullptr));
    host.info.add_param(&host.ctx, static_cast<float*>(nullptr));
    EXPECT_EQ(host.info.params, (Params{"\"CPU\"", "\"CPU\"", "\"NULL\"", "\"NULL\""}));
    EXPECT_EQ(host.info.alias_counter, 0);

    DumpOn dev(3);
    dev.info.add_param(&dev.ctx, fake(0x1000));
    dev.info.add_param(&dev.ctx, fake(0x1000));
    EXPECT_EQ(dev.info.params, (Params{"\"INVALID\"", "\"INVALID\""}));
}

TEST(ParamDump, VectorsStringsAndTexts) {
    DumpOn d(3);
    d.info.add_param(&d.ctx, std::vector<float*>{fake(kGm), fake(kL3)});
    char name[] = "neox";
    char empty[] = "";
    d.info.add_param(&d.ctx, name);
    d.info.add_param(&d.ctx, empty);
    d.info.add_param(&d.ctx, std::string("raw"));
    EXPECT_EQ(d.info.params, (Params{"{", "\"GM\"", "\"L3\"", "}", "\"neox\"", "\"\"", "raw"}));
}

TEST(ParamDump, FloatText) {
    Context ctx;
    const std::pair<float, const char*> cases[] = {
        {1e-5f, "1e-05"}, {0.5f, "0.5"}, {1234567.0f, "1.23457e+06"}, {-2.0f, "-2"}, {0.0f, "0"},
        {std::numeric_limits<float>::infinity(), "INFINITY"}, {-std::numeric_limits<float>::infinity(), "-INFINITY"},
        {std::nanf(""), "NAN"},
    };
    for (const auto& [v, text] : cases) EXPECT_EQ(ornet_param_to_str<float>(&ctx, v), text) << v;
    EXPECT_EQ(ornet_param_to_str<long>(&ctx, std::vector<long>{}), "{}");
    EXPECT_EQ(ornet_param_to_str<long>(&ctx, std::vector<long>{3, -2, 1L << 40}), "{3, -2, 1099511627776}");
    const int lod[] = {0, 3, 7};
    EXPECT_EQ(ornet_param_to_str(&ctx, VectorParam<int>{lod, 3}), "{0, 3, 7}");
    EXPECT_EQ(ornet_param_to_str(&ctx, VectorParam<int>{lod, 0}), "{}");
    EXPECT_EQ(ornet_param_to_str(&ctx, VectorParam<int>{nullptr, 4}), "\"cpu_nullptr\"");
    const long offs[] = {-1, 1L << 33};
    EXPECT_EQ(ornet_param_to_str(&ctx, VectorParam<long>{offs, 2}), "{-1, 8589934592}");
    EXPECT_EQ(__wrapper_tostring(static_cast<float*>(nullptr)), "ptr(0)");
    EXPECT_EQ(__wrapper_tostring(fake(kGm)), "ptr(" + std::to_string(kGm) + ")");
}

// The record of a traced constant: name, type string, one entry per argument
// and the L3 size last.
template <typename T>
Params traced_constant(T value, std::vector<std::string>* dtypes) {
    auto ctx = tsuops_test::device_context();
    ctx->debug_flags = 0x1;
    tsuops_test::GuardedBuffer<T> x(ctx.get(), 8);
    std::vector<function_info> seen;
    set_trace_sink([&](const function_info& f) { seen.push_back(f); });
    EXPECT_EQ(infer_ops::constant<T>(ctx.get(), x.data(), 8, value), 0);
    set_trace_sink({});
    EXPECT_EQ(seen.size(), 1u);
    if (seen.empty()) return {};
    EXPECT_EQ(seen[0].name, "constant");
    *dtypes = seen[0].dtypes;
    Params p = seen[0].params;
    EXPECT_EQ(p.back(), std::to_string(ctx->l3_size));
    p.pop_back();
    return p;
}

TEST(ParamDump, ConstantRecordsItsArguments) {
    std::vector<std::string> dtypes;
    EXPECT_EQ(traced_constant<float>(1.5f, &dtypes), (Params{"\"GM\"", "8", "1.5"}));
    EXPECT_EQ(dtypes, (Params{"float"}));
    EXPECT_EQ(traced_constant<float16>(float16(1.5f), &dtypes), (Params{"\"GM\"", "8", "1.500000"}));
    EXPECT_EQ(dtypes, (Params{"float16"}));
    EXPECT_EQ(traced_constant<long>(-3, &dtypes), (Params{"\"GM\"", "8", "-3"}));
    EXPECT_EQ(dtypes, (Params{"int64_t"}));
    EXPECT_EQ(traced_constant<bool>(true, &dtypes), (Params{"\"GM\"", "8", "true"}));
    EXPECT_EQ(traced_constant<signed char>(-7, &dtypes), (Params{"\"GM\"", "8", "-7"}));
    EXPECT_EQ(dtypes, (Params{"int8_t"}));
    EXPECT_EQ(traced_constant<unsigned char>(200, &dtypes), (Params{"\"GM\"", "8", "200"}));
    EXPECT_EQ(dtypes, (Params{"uint8_t"}));
}

TEST(ParamDump, NothingIsRecordedWithTheGateOff) {
    auto ctx = tsuops_test::host_context();
    ctx->debug_flags = 0x1;  // a host context needs one of bits 16-19 as well
    std::vector<float> x(4);
    int traces = 0;
    set_trace_sink([&](const function_info&) { ++traces; });
    EXPECT_EQ(infer_ops::constant<float>(ctx.get(), x.data(), 4, 1.0f), 0);
    ctx->debug_flags = 0x10001;
    EXPECT_EQ(infer_ops::constant<float>(ctx.get(), x.data(), 4, 1.0f), 0);
    set_trace_sink({});
    EXPECT_EQ(traces, 1);
}

}  // namespace
