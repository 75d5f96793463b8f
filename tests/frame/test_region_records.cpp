// The region step records a valid region only for a consumer (a log sink, a
// trace, the precision check) and then records it in full; a region nobody
// records is only tested, by a test that must agree with the region's own.
#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <string>
#include <vector>

#include "frame/frame.h"
#include "support/tsuops_test.h"

namespace {

using namespace orvane::tsu::api;
namespace frame = infer_ops::frame;
using tsuops_test::LogCapture;

const void* addr(std::uint64_t a) { return reinterpret_cast<const void*>(a); }

// A host context with any device type and debug word.
struct FakeDevice {
    Context ctx{DeviceType::CPU};
    FakeDevice(std::uint32_t dev, std::uint32_t flags = 0) {
        ctx.dev_type = dev;
        ctx.debug_flags = flags;
    }
};

// The fast test and the region's own agree on every device type, at the
// ends of each memory and across them, for element sizes 1 to 8.
template <class T>
void expect_same_verdicts() {
    const std::uint64_t ptrs[] = {0,          0x1000,       0x90000000,     0x95fffff0,        0x95fffffc,
                                  0xc0000000, 0xc3fffff8,   0x800000000,    0xffffffff0,       0x4000000000,
                                  0x40fffffff8, 0x504000000000, 0x7ffffffffff8, 0xfffffffffffffff8};
    const long lens[] = {LONG_MIN, -1, 0, 1, 2, 4, 5, 1L << 31, 1L << 40, LONG_MAX};
    for (std::uint32_t dev = 0; dev <= 6; ++dev) {
        FakeDevice f(dev);
        for (std::uint64_t p : ptrs) {
            for (long len : lens) {
                memory_region r(true, addr(p), len, 0);
                EXPECT_EQ(dense_region_valid<T>(&f.ctx, addr(p), len), r.is_valid<T>(&f.ctx))
                    << "dev " << dev << std::hex << " 0x" << p << std::dec << " len " << len << " size " << sizeof(T);
            }
        }
    }
}

TEST(RegionStep, FastValidityAgreesWithTheRegionsOwnTest) {
    expect_same_verdicts<signed char>();
    expect_same_verdicts<int4_t>();
    expect_same_verdicts<float16>();
    expect_same_verdicts<float>();
    expect_same_verdicts<double>();
}

constexpr std::uint64_t kGm = 0x504000001000ull;
constexpr std::uint32_t kTrace = 0x1;
constexpr std::uint32_t kTraceOnHost = 0x10001;

struct StepCase {
    const char* what;
    std::uint32_t dev, flags;
    bool sink;
    bool input;
    bool record;    // a "memory" record reaches the sink
    bool detailed;  // with the call site and the name
    bool kept;      // a copy stays with the guard for the precision check
};

// One region step of 5 floats as an operator runs it: the operator's name is
// set when the gate is on, as the profile phase does.
struct StepResult {
    int status;
    std::vector<LogRecord> records;
    std::vector<memory_region> kept;
    int line;
};

StepResult run_step(const StepCase& c) {
    FakeDevice f(c.dev, c.flags);
    ContextStackGuard g(&f.ctx, "INFRA");
    if (frame::debug_active(&f.ctx)) g.info.name = "probe";
    const float* p = static_cast<const float*>(addr(c.dev == 0 ? 0x1000 : kGm));
    StepResult out{};
    std::optional<LogCapture> logs;
    if (c.sink) logs.emplace();
    set_log_echo(false);
    out.line = __LINE__ + 1;
    out.status = c.input ? frame::input(g, &f.ctx, "x", p, 5) : frame::output(g, &f.ctx, "x", p, 5);
    set_log_echo(true);
    if (logs) out.records = logs->records();
    for (const auto& [name, r] : g.recorded_regions) out.kept.push_back(r);
    return out;
}

TEST(RegionStep, RecordsOnlyForAConsumerAndThenInFull) {
    const StepCase cases[] = {
        {"plain, nobody listens", 3, 0, false, true, false, false, false},
        {"plain, with a sink", 3, 0, true, false, true, false, false},
        {"plain host call, with a sink", 0, 0, true, true, true, false, false},
        {"traced", 3, kTrace, true, true, true, true, false},
        {"traced host call", 0, kTraceOnHost, true, false, true, true, false},
        {"traced under the precision check", 3, kTrace | kDebugPrecisionCheck, true, false, true, true, true},
        {"precision check without a sink", 3, kTrace | kDebugPrecisionCheck, false, true, false, true, true},
        {"precision bit without the gate", 3, kDebugPrecisionCheck, false, true, false, false, false},
    };
    for (const StepCase& c : cases) {
        SCOPED_TRACE(c.what);
        const StepResult r = run_step(c);
        EXPECT_EQ(r.status, 0);
        ASSERT_EQ(r.records.size(), c.record ? 1u : 0u);
        const std::string direction = c.input ? "input" : "output";
        if (c.record) {
            const LogRecord& rec = r.records[0];
            EXPECT_EQ(rec.kind, "memory");
            EXPECT_EQ(rec.file, c.detailed ? "frame/test_region_records.cpp" : "");
            EXPECT_EQ(rec.line, c.detailed ? r.line : 0);
            const std::string ptr = c.dev == 0 ? "0x1000" : "0x504000001000";
            EXPECT_EQ(rec.fields, (std::vector<std::string>{c.detailed ? "x" : "", ptr, "{5}", "{1}", direction}));
        }
        ASSERT_EQ(r.kept.size(), c.kept ? 1u : 0u);
        if (c.kept) {
            const memory_region& k = r.kept[0];
            EXPECT_EQ(k.is_input, c.input);
            EXPECT_EQ(k.shape, std::vector<long>{5});
            ASSERT_NE(k.detail, nullptr);
            EXPECT_EQ(k.detail->name, "x");
            EXPECT_EQ(k.detail->dtype, Dtype::FLOAT32);
            EXPECT_EQ(k.detail->position, "frame/test_region_records.cpp:" + std::to_string(r.line));
        }
    }
}

// A region that fails takes the whole step whether or not anybody listens.
TEST(RegionStep, AnInvalidRegionFailsWithoutASinkToo) {
    set_log_echo(false);
    for (std::uint64_t p : {std::uint64_t{0}, std::uint64_t{0x1000}, std::uint64_t{0x95fffff0}}) {
        FakeDevice f(3);
        ContextStackGuard g(&f.ctx, "INFRA");
        EXPECT_EQ(frame::output(g, &f.ctx, "y", static_cast<const float*>(addr(p)), 5), 1) << std::hex << p;
    }
    set_log_echo(true);
}

}  // namespace
