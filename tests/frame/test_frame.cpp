// The frame's pieces: the debug gate, the checks with their log records,
// address classification, region validity and the region step's records,
// the parameter record, and the once-read environment switches.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "frame/env_switch.h"
#include "frame/frame.h"
#include "support/tsuops_test.h"

namespace {

using namespace orvane::tsu::api;
namespace frame = infer_ops::frame;
using tsuops_test::LogCapture;

const void* addr(std::uint64_t a) { return reinterpret_cast<const void*>(a); }
constexpr std::uint64_t at(std::uint64_t hi, std::uint64_t lo) { return (hi << 32) | lo; }

// A host context with any device type and debug word: the pieces only read them.
struct FakeDevice {
    Context ctx{DeviceType::CPU};
    FakeDevice(std::uint32_t dev, std::uint32_t flags = 0) { ctx.dev_type = dev; ctx.debug_flags = flags; }
};

// The checksum level is bits 4-7, and only while the gate is on.
TEST(Frame, DebugGateTruthTableAndChecksumLevel) {
    const struct { std::uint32_t dev, flags; bool active; } cases[] = {
        // Bits 0-15 and 20-23 switch tracing on for devices, on the host only with one of bits 16-19.
        {0, 0x30, false}, {3, 0x30, true}, {1, 0x10, true}, {5, 0x8000, true}, {0, 0x10010, true},
        {3, 0x10010, true}, {0, 0x800f0, true}, {0, 0x100000, false}, {2, 0x100000, true}, {0, 0x140000, true},
        // Bits 16-19 alone, and bits 24-31, switch nothing on anywhere.
        {0, 0x10000, false}, {3, 0xf0000, false}, {0, 0xff000000, false}, {3, 0xff0f0000, false}, {3, 0, false},
    };
    for (const auto& c : cases) {
        FakeDevice f(c.dev, c.flags);
        EXPECT_EQ(frame::debug_active(&f.ctx), c.active) << "dev " << c.dev << " flags 0x" << std::hex << c.flags;
        EXPECT_EQ(debug_checksum_level(&f.ctx), c.active ? static_cast<int>((c.flags >> 4) & 15) : 0) << c.flags;
    }
}

TEST(Frame, ShapeCheckBoundsAndLog) {
    constexpr long k2p31 = 1L << 31;
    const struct { std::vector<long> shape; std::uint32_t dev; int status; } cases[] = {
        // The 2^31 bound of the running product holds on device types 1 and 2 only.
        {{65536, 65536}, 2, 1}, {{65536, 65536}, 1, 1}, {{65536, 65536}, 3, 0}, {{65536, 65536}, 0, 0},
        {{65536, 65536}, 5, 0}, {{k2p31 - 1}, 2, 0}, {{k2p31}, 2, 1}, {{2, k2p31 / 2 - 1, 1}, 1, 0},
        {{2, k2p31 / 2}, 1, 1},
        // A dimension below 1 or an empty shape fails everywhere.
        {{3, 0, 2}, 0, 1}, {{3, 0, 2}, 3, 1}, {{-1}, 0, 1}, {{}, 3, 1}, {{1}, 3, 0},
    };
    for (const auto& c : cases) {
        FakeDevice f(c.dev);
        LogCapture logs;
        long count = -7, product = 1;
        std::vector<std::string> dims;
        for (long d : c.shape) { product *= d; dims.push_back(std::to_string(d)); }
        EXPECT_EQ(frame::check_shape(&f.ctx, c.shape, &count), c.status) << dims.size() << " dims on " << c.dev;
        EXPECT_EQ(count, c.status == 0 ? product : -7);
        const auto logged = logs.of_kind("invalid_shape");
        ASSERT_EQ(logged.size(), c.status == 0 ? 0u : 1u);
        for (const auto& r : logged) EXPECT_EQ(r.fields, dims);
    }
}

TEST(Frame, FailedChecksLogTextsAndTheCallersLine) {
    FakeDevice f(3);
    LogCapture logs;
    const int line = __LINE__;
    const std::vector<int> got = {frame::check(&f.ctx, 5L, frame::Rel::GT, 7L),
                                  frame::check(&f.ctx, 3, frame::Rel::EQ, 4),
                                  frame::check(&f.ctx, std::vector<int>(2).size(), frame::Rel::LT, 1ul),
                                  frame::check(&f.ctx, 0.5f, frame::Rel::LE, 0.25f),
                                  frame::check_ptr(&f.ctx, static_cast<float*>(nullptr)),
                                  frame::check_scratch(&f.ctx, static_cast<int*>(nullptr)),
                                  frame::check_nested(&f.ctx, 2),
                                  frame::check_dims(&f.ctx, {4, 0, 9})};
    EXPECT_EQ(got, (std::vector<int>{1, 1, 1, 1, 1, 3, 2, 1}));
    const std::vector<std::vector<std::string>> fields = {
        {"5", ">", "7"},           {"3", "==", "4"},           {"2", "<", "1"},        {"0.500000", "<=", "0.250000"},
        {"ptr(0)", "!=", "nullptr"}, {"ptr(0)", "!=", "nullptr"}, {"2", "==", "SUCCESS"}, {"4", "0", "9"}};
    const auto recs = logs.records();
    ASSERT_EQ(recs.size(), fields.size());
    for (std::size_t i = 0; i < recs.size(); ++i) {
        EXPECT_EQ(recs[i].kind, i + 1 < recs.size() ? "compare_fail" : "invalid_shape") << i;
        EXPECT_TRUE(recs[i].fields == fields[i] && recs[i].line == line + 1 + static_cast<int>(i)) << i;
        EXPECT_TRUE(recs[i].file.ends_with("test_frame.cpp")) << recs[i].file;
    }
}

TEST(Region, ClassifiesEveryBoundaryOfTheAddressMap) {
    constexpr auto INV = MemoryKind::INVALID, GM = MemoryKind::GM, L3 = MemoryKind::L3;
    const struct { std::uint32_t dev; std::uint64_t address; MemoryKind kind; } cases[] = {
        // Null is NULL everywhere; the host takes any other address.
        {0, 0, MemoryKind::NULL_PTR}, {7, 0, MemoryKind::NULL_PTR}, {0, 0x1, MemoryKind::CPU},
        {0, 0xffffffffffffffffull, MemoryKind::CPU},
        // Type 1: L3 for hi 0 or 4 with the 0xc0 top byte, GM for hi 2, 3, 6, 7.
        {1, at(4, 0xc0123456), L3}, {1, at(0, 0xc0000000), L3}, {1, at(0, 0xc0ffffff), L3}, {1, at(0, 0xc1000000), INV},
        {1, at(0, 0xbfffffff), INV}, {1, at(4, 0x1000), INV}, {1, at(2, 0), GM}, {1, at(3, 0xffffffff), GM},
        {1, at(6, 0), GM}, {1, at(7, 0), GM}, {1, at(5, 0), INV}, {1, at(8, 0), INV}, {1, at(1, 0), INV},
        // Type 2: L3 in [0xc0000000, 0xc4000000), GM in [2^35, 2^36).
        {2, 0xc0000000, L3}, {2, 0xc3ffffff, L3}, {2, 0xc4000000, INV}, {2, 0xbfffffff, INV}, {2, 0x800000000, GM},
        {2, 0xfffffffff, GM}, {2, 0x7ffffffff, INV}, {2, 0x1000000000, INV},
        // Type 3: L3 in [0x90000000, 0x96000000) with hi 0, GM when bit 6 of hi is set.
        {3, 0x90000000, L3}, {3, 0x95ffffff, L3}, {3, 0x96000000, INV}, {3, 0x8fffffff, INV},
        {3, at(1, 0x90000000), INV}, {3, at(0x40, 0), GM}, {3, at(0x3f, 0xffffffff), INV},
        {3, at(0x7fff, 0xffffffff), GM}, {3, at(0x80, 0), INV},
        // Types 4 and 5: GM when the low byte of hi is in [64, 224).
        {4, at(223, 0), GM}, {4, at(224, 0), INV}, {4, at(64, 0), GM}, {4, at(63, 0xffffffff), INV},
        {4, at(0x1c0, 0), GM}, {5, at(0x5040, 0), GM}, {5, 0x90000000, L3}, {5, 0x96000000, INV},
        // Unknown device types know no memory.
        {6, at(0x5040, 0), INV}, {6, 0x90000000, INV},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(classify_address(c.dev, addr(c.address)), c.kind) << "dev " << c.dev << std::hex << " " << c.address;
    }
}

TEST(Region, ValidityOfFloatRegions) {
    const struct { std::uint32_t dev; std::uint64_t ptr; long len; long stride; bool valid; } cases[] = {
        // The last element's first byte must still lie in the same memory.
        {3, 0x95fffff0, 4, 1, true}, {3, 0x95fffff0, 5, 1, false}, {3, at(0x7f, 0xfffffff0), 4, 1, true},
        {3, at(0x7f, 0xfffffff0), 5, 1, false}, {2, 0xffffffff0, 4, 1, true}, {2, 0xffffffff0, 5, 1, false},
        {2, 0xc3fffffc, 1, 1, true}, {2, 0xc3fffffc, 2, 1, false},
        // Straddling L3 and GM.
        {3, 0x95fffffc, 1L << 30, 1, false},
        // Type 2 also wants begin and end in the same 4 GiB; type 3 only in order.
        {2, 0x8fffffffc, 2, 1, false}, {3, at(0x40, 0xfffffffc), 2, 1, true},
        // Negative strides extend the region downwards; a zero stride stays put.
        {3, 0x90000008, 3, -1, true}, {3, 0x90000008, 4, -1, false}, {3, 0x90000000, 100, 0, true},
        // Zero length, null, and addresses that classify as nothing.
        {0, 0x1000, 0, 1, false}, {3, 0x90000000, 0, 1, false}, {3, 0, 4, 1, false}, {0, 0, 4, 1, false},
        {3, 0x1000, 4, 1, false}, {3, 0x8000000000, 4, 1, false},
        // The host knows nothing of its memory: any non-null pointer passes.
        {0, 0x1000, 4, 1, true}, {0, 0xfffffffffffffff0ull, 1L << 40, 1, true},
    };
    for (const auto& c : cases) {
        FakeDevice f(c.dev);
        memory_region r(true, addr(c.ptr), c.len, 0);
        r.strides = {c.stride};
        EXPECT_EQ(r.is_valid<float>(&f.ctx), c.valid)
            << "dev " << c.dev << std::hex << " 0x" << c.ptr << std::dec << " len " << c.len << " stride " << c.stride;
    }
    FakeDevice f(3);
    memory_region huge(true, addr(at(0x40, 0)), 1L << 62, 0);
    EXPECT_FALSE(huge.is_valid<double>(&f.ctx)) << "(high - low + 1) * 8 exceeds 2^63 - 1";
    huge.strides.push_back(1);
    EXPECT_FALSE(huge.is_valid<signed char>(&f.ctx)) << "shape and strides differ in size";
    huge.shape.clear();
    huge.strides.clear();
    EXPECT_TRUE(huge.is_valid<float>(&f.ctx)) << "an empty shape passes: one element at ptr";
}

// The fast test of a dense region agrees with the region's own on every
// device type, at the ends of each memory and across them, for element sizes
// 1 to 8.
TEST(Region, FastValidityAgreesWithTheRegionsOwnTest) {
    const std::uint64_t ptrs[] = {0,           0x1000,     0x90000000,     0x95fffff0,     0x95fffffc,
                                  0xc0000000,  0xc3fffff8, 0x800000000,    0xffffffff0,    0x4000000000,
                                  0x40fffffff8, 0x504000000000, 0x7ffffffffff8, 0xfffffffffffffff8};
    const long lens[] = {LONG_MIN, -1, 0, 1, 2, 4, 5, 1L << 31, 1L << 40, LONG_MAX};
    const auto sweep = [&]<class T>(const T*) {
        for (std::uint32_t dev = 0; dev <= 6; ++dev) {
            FakeDevice f(dev);
            for (std::uint64_t p : ptrs) {
                for (long len : lens) {
                    EXPECT_EQ(dense_region_valid<T>(&f.ctx, addr(p), len),
                              memory_region(true, addr(p), len, 0).is_valid<T>(&f.ctx))
                        << "dev " << dev << std::hex << " 0x" << p << std::dec << " len " << len << " size " << sizeof(T);
                }
            }
        }
    };
    sweep(static_cast<const signed char*>(nullptr));
    sweep(static_cast<const int4_t*>(nullptr));
    sweep(static_cast<const float16*>(nullptr));
    sweep(static_cast<const float*>(nullptr));
    sweep(static_cast<const double*>(nullptr));
}

using Params = std::vector<std::string>;

constexpr std::uint64_t kGm = 0x504000001000ull, kGm2 = 0x504000002000ull, kL3 = 0x90000100ull;
constexpr std::uint32_t kTraced = 0x1, kHostTraced = 0x10001, kPrecision = kDebugPrecisionCheck;

// The region step records a valid region only for a consumer (a log sink,
// the precision check), then as one "memory" record (name, address, extent,
// stride, direction) with the call site only where a detail was made:
// traced, or under precision checking, which needs the name that tracing
// gives. Under precision checking the guard keeps a copy of each region, the
// first of a name winning. A null optional tensor is skipped; an invalid
// region fails the step whether or not anybody listens.
TEST(RegionStep, RecordsOnlyForAConsumerAndThenInFull) {
    const struct { std::uint32_t dev, flags; bool sink, detail, kept; } cases[] = {
        {3, 0, false, false, false},       {3, 0, true, false, false},
        {0, 0, true, false, false},        {3, kTraced, true, true, false},
        {0, kTraced, true, false, false},  {0, kHostTraced, true, true, false},
        {3, kPrecision, true, false, false}, {3, kPrecision, false, false, false},
        {3, kPrecision | kTraced, true, true, true}, {3, kPrecision | kTraced, false, true, true},
        {0, kPrecision | kHostTraced, true, true, true}, {0, kPrecision | kTraced, true, false, false},
    };
    const auto* a = static_cast<const float*>(addr(kGm));
    const auto* b = static_cast<const float*>(addr(kGm2));
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "dev " << c.dev << " flags 0x" << std::hex << c.flags << " sink " << c.sink);
        FakeDevice f(c.dev, c.flags);
        tsuops_test::TraceCapture traces;
        ContextStackGuard g(&f.ctx, "INFRA");
        frame::open<float>(g, &f.ctx, "probe");
        std::optional<LogCapture> logs;
        if (c.sink) logs.emplace();
        set_log_echo(false);
        const int line = __LINE__ + 1;
        EXPECT_EQ(frame::input(g, &f.ctx, "a", a, 5), 0);
        EXPECT_EQ(frame::output(g, &f.ctx, "b", b, 7), 0);
        EXPECT_EQ(frame::optional_output(g, &f.ctx, "a", b, 9), 0);
        EXPECT_EQ(frame::optional_input(g, &f.ctx, "c", static_cast<const float*>(nullptr), 3), 0);
        set_log_echo(true);
        const std::vector<Params> want = {{"a", "0x504000001000", "{5}", "{1}", "input"},
                                          {"b", "0x504000002000", "{7}", "{1}", "output"},
                                          {"a", "0x504000002000", "{9}", "{1}", "output"}};
        const auto recs = logs ? logs->records() : std::vector<LogRecord>{};
        ASSERT_EQ(recs.size(), c.sink ? want.size() : 0u);
        for (std::size_t i = 0; i < recs.size(); ++i) {
            Params fields = want[i];
            if (!c.detail) fields[0].clear();
            EXPECT_EQ(recs[i].kind, "memory");
            EXPECT_EQ(recs[i].fields, fields) << i;
            EXPECT_EQ(recs[i].file, c.detail ? "frame/test_frame.cpp" : "") << i;
            EXPECT_EQ(recs[i].line, c.detail ? line + static_cast<int>(i) : 0) << i;
        }
        ASSERT_EQ(g.recorded_regions.size(), c.kept ? 2u : 0u);
        if (!c.kept) continue;
        const memory_region& kept = g.recorded_regions.at("a");
        EXPECT_TRUE(kept.is_input && kept.ptr == a && kept.shape == std::vector<long>{5});
        ASSERT_NE(kept.detail, nullptr);
        EXPECT_TRUE(kept.detail->name == "a" && kept.detail->dtype == Dtype::FLOAT32);
        EXPECT_EQ(kept.detail->position, "frame/test_frame.cpp:" + std::to_string(line));
        EXPECT_FALSE(g.recorded_regions.at("b").is_input);
    }
    set_log_echo(false);
    for (std::uint64_t p : {std::uint64_t{0}, std::uint64_t{0x1000}, std::uint64_t{0x95fffff0}}) {
        FakeDevice f(3);
        ContextStackGuard g(&f.ctx, "INFRA");
        EXPECT_EQ(frame::output(g, &f.ctx, "y", static_cast<const float*>(addr(p)), 5), 1) << std::hex << p;
    }
    set_log_echo(true);
}

// The trace's type string and the region detail's tag of each element type.
template <class... T>
void expect_type_strings_and_tags(const Params& strings, const std::vector<Dtype>& tags) {
    FakeDevice f(3, kTraced | kDebugPrecisionCheck);
    tsuops_test::TraceCapture traces;
    LogCapture logs;
    ContextStackGuard g(&f.ctx, "INFRA");
    frame::open<T...>(g, &f.ctx, "probe");
    EXPECT_EQ(g.info.dtypes, strings);
    std::vector<Dtype> got;
    const auto tag = [&]<class U>(const U* p) {
        const std::string name = std::to_string(got.size());
        EXPECT_EQ(frame::input(g, &f.ctx, name.c_str(), p, 4), 0);
        got.push_back(g.recorded_regions.at(name).detail->dtype);
    };
    (tag(static_cast<const T*>(addr(kGm))), ...);
    EXPECT_EQ(got, tags);
}

TEST(Region, TypeStringsAndTagsOfEveryElementType) {
    expect_type_strings_and_tags<float, float16, bfloat16, double, int, long, short, signed char, unsigned char, bool,
                                 int4_t, long long>(
        {"float", "float16", "bfloat16", "double", "int", "int64_t", "int16_t", "int8_t", "uint8_t", "bool", "int4_t",
         "unknown"},
        {Dtype::FLOAT32, Dtype::FLOAT16, Dtype::BFLOAT16, Dtype::DOUBLE, Dtype::INT32, Dtype::INT64, Dtype::INT16,
         Dtype::INT8, Dtype::UINT8, Dtype::BOOL, Dtype::INT4, Dtype::FLOAT32});
}

Params dump(std::uint32_t dev, const std::vector<const void*>& ptrs) {
    FakeDevice f(dev);
    function_info info;
    for (const void* p : ptrs) info.add_param(&f.ctx, p);
    return info.params;
}

// A recurring device pointer labels its first entry too, by a counter common
// to GM and L3; host, null and unclassified pointers are never labelled.
TEST(ParamDump, PointerEntriesAndAliasLabels) {
    const void *gm = addr(kGm), *gm2 = addr(kGm2), *l3 = addr(kL3), *bad = addr(0x1000);
    EXPECT_EQ(dump(3, {gm, gm, gm, gm2, gm2}), (Params{"\"GM_0\"", "\"GM_0\"", "\"GM_0\"", "\"GM_1\"", "\"GM_1\""}));
    EXPECT_EQ(dump(3, {l3, gm, gm, l3, bad, bad}),
              (Params{"\"L3_1\"", "\"GM_0\"", "\"GM_0\"", "\"L3_1\"", "\"INVALID\"", "\"INVALID\""}));
    float x = 0;
    EXPECT_EQ(dump(0, {&x, &x, nullptr, nullptr}), (Params{"\"CPU\"", "\"CPU\"", "\"NULL\"", "\"NULL\""}));

    FakeDevice f(3);
    function_info info;
    info.add_param(&f.ctx, std::vector<float*>{reinterpret_cast<float*>(kGm), reinterpret_cast<float*>(kL3), nullptr});
    EXPECT_EQ(info.params, (Params{"{", "\"GM\"", "\"L3\"", "\"NULL\"", "}"}));
}

TEST(ParamDump, ValueTexts) {
    Context ctx;
    const std::pair<float, const char*> cases[] = {
        {1e-5f, "1e-05"}, {0.5f, "0.5"}, {1234567.0f, "1.23457e+06"}, {-2.0f, "-2"},
        {-std::numeric_limits<float>::infinity(), "-INFINITY"}, {std::nanf(""), "NAN"},
    };
    for (const auto& [v, text] : cases) EXPECT_EQ(ornet_param_to_str<float>(&ctx, v), text) << v;
    const long lod[] = {0, 3, 1L << 40};
    EXPECT_EQ(ornet_param_to_str(&ctx, VectorParam<long>{lod, 3}), "{0, 3, 1099511627776}");
    EXPECT_EQ(ornet_param_to_str(&ctx, VectorParam<int>{nullptr, 4}), "\"cpu_nullptr\"");
}

// A traced constant records its name, types, arguments and L3 size before any check fails.
TEST(ParamDump, TracedConstantRecordsItsArgumentsBeforeTheChecks) {
    auto ctx = tsuops_test::device_context();
    ctx->debug_flags = 0x1;
    tsuops_test::GuardedBuffer<float16> x(ctx.get(), 8);
    tsuops_test::LogCapture logs;
    std::vector<std::size_t> failures_at_trace;
    std::vector<function_info> seen;
    set_trace_sink([&](const function_info& f) {
        seen.push_back(f);
        failures_at_trace.push_back(logs.failures().size());
    });
    EXPECT_EQ(infer_ops::constant<float16>(ctx.get(), x.data(), 8, float16(1.5f)), 0);
    EXPECT_EQ(infer_ops::constant<float>(ctx.get(), reinterpret_cast<float*>(x.data()), 0, 1.5f), 1);
    set_trace_sink({});
    ASSERT_EQ(seen.size(), 2u);
    const std::string l3 = std::to_string(ctx->l3_size);
    EXPECT_TRUE(seen[0].name == "constant" && seen[0].dtypes == Params{"float16"} && seen[1].dtypes == Params{"float"});
    EXPECT_EQ(seen[0].params, (Params{"\"GM\"", "8", "1.500000", l3}));
    EXPECT_EQ(seen[1].params, (Params{"\"GM\"", "0", "1.5", l3}));
    EXPECT_EQ(failures_at_trace, (std::vector<std::size_t>{0, 0}));
    EXPECT_EQ(logs.count("invalid_memory"), 1u);
}

// A switch keeps what the environment said at its first reading: later
// changes of the variable, or its removal, change nothing. Run in a child,
// whose environment the test may change.
TEST(FrameChild, DISABLED_SwitchesReadOnce) {
    constexpr const char* kVar = "TSUOPS_TEST_SWITCH";
    using rule = frame::env_switch::rule;
    const struct { const char* value; bool exactly_one, nonzero; } cases[] = {
        {nullptr, false, false}, {"1", true, true},   {"01", false, true}, {"1 ", false, true}, {" 1", false, true},
        {"", false, false},      {"0", false, false}, {"2", false, true},  {"-3", false, true}, {"on", false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value ? c.value : "unset");
        c.value ? setenv(kVar, c.value, 1) : unsetenv(kVar);
        const frame::env_switch one(kVar, rule::exactly_one), any(kVar, rule::nonzero);
        for (const char* later : {c.value, c.nonzero ? "0" : "1", static_cast<const char*>(nullptr)}) {
            later ? setenv(kVar, later, 1) : unsetenv(kVar);
            EXPECT_TRUE(one.on() == c.exactly_one && any.on() == c.nonzero) << (later ? later : "unset");
        }
    }
}

TEST(Frame, SwitchesReadOnceInAChild) {
    EXPECT_TRUE(tsuops_test::run_child("FrameChild.DISABLED_SwitchesReadOnce", {}, {"TSUOPS_TEST_SWITCH"}));
}

}  // namespace
