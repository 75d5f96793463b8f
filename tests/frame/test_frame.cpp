// The frame's pieces: the debug gate, the checks and their log records, and
// the order of trace and checks in a real operator.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/frame.h"
#include "support/tsuops_test.h"

namespace {

using namespace orvane::tsu::api;
namespace frame = infer_ops::frame;
using tsuops_test::LogCapture;

// A host context whose device type and debug word a case sets freely; the
// checks and the gate only read them.
struct FakeDevice {
    Context ctx{DeviceType::CPU};
    FakeDevice(std::uint32_t dev, std::uint32_t flags) {
        ctx.dev_type = dev;
        ctx.debug_flags = flags;
    }
};

struct GateCase {
    std::uint32_t dev;
    std::uint32_t flags;
    bool active;
};

class DebugGate : public ::testing::TestWithParam<GateCase> {};

TEST_P(DebugGate, TruthTable) {
    const auto c = GetParam();
    FakeDevice f(c.dev, c.flags);
    EXPECT_EQ(frame::debug_active(&f.ctx), c.active) << "dev " << c.dev << " flags 0x" << std::hex << c.flags;
}

INSTANTIATE_TEST_SUITE_P(
    Frame, DebugGate,
    ::testing::Values(
        // Bits 0-15 switch tracing on for devices, and on the host only with one of bits 16-19.
        GateCase{0, 0x10, false}, GateCase{3, 0x10, true}, GateCase{1, 0x10, true}, GateCase{5, 0x8000, true},
        // Bits 16-19 alone switch nothing on anywhere.
        GateCase{0, 0x10000, false}, GateCase{3, 0x10000, false}, GateCase{3, 0xf0000, false},
        GateCase{0, 0x10010, true}, GateCase{3, 0x10010, true}, GateCase{0, 0x80001, true},
        // Bits 20-23 count like bits 0-15.
        GateCase{0, 0x100000, false}, GateCase{2, 0x100000, true}, GateCase{0, 0x140000, true},
        // Bits 24-31 are never part of the gate.
        GateCase{0, 0xff000000, false}, GateCase{3, 0xff000000, false}, GateCase{3, 0xff0f0000, false},
        GateCase{0, 0, false}, GateCase{3, 0, false}));

TEST(DebugChecksumLevel, ReadsBitsFourToSevenOnlyWhenTheGateIsOn) {
    FakeDevice host(0, 0x30);
    EXPECT_EQ(debug_checksum_level(&host.ctx), 0);
    FakeDevice dev(3, 0x30);
    EXPECT_EQ(debug_checksum_level(&dev.ctx), 3);
    FakeDevice host_on(0, 0x100f0);
    EXPECT_EQ(debug_checksum_level(&host_on.ctx), 15);
}

struct ShapeCase {
    std::vector<long> shape;
    std::uint32_t dev;
    int status;
};

class ShapeCheck : public ::testing::TestWithParam<ShapeCase> {};

TEST_P(ShapeCheck, BoundsAndLog) {
    const auto& c = GetParam();
    FakeDevice f(c.dev, 0);
    LogCapture logs;
    long count = -7;
    EXPECT_EQ(frame::check_shape(&f.ctx, c.shape, &count), c.status);
    if (c.status == 0) {
        long product = 1;
        for (long d : c.shape) product *= d;
        EXPECT_EQ(count, product);
        EXPECT_EQ(logs.records().size(), 0u);
    } else {
        EXPECT_EQ(count, -7) << "a failed check leaves the count alone";
        ASSERT_EQ(logs.count("invalid_shape"), 1u);
        const auto rec = logs.of_kind("invalid_shape").front();
        ASSERT_EQ(rec.fields.size(), c.shape.size());
        for (std::size_t i = 0; i < c.shape.size(); ++i) EXPECT_EQ(rec.fields[i], std::to_string(c.shape[i]));
    }
}

constexpr long k2p31 = 1L << 31;

INSTANTIATE_TEST_SUITE_P(
    Frame, ShapeCheck,
    ::testing::Values(
        // The 2^31 bound holds on device types 1 and 2 only.
        ShapeCase{{65536, 65536}, 2, 1}, ShapeCase{{65536, 65536}, 1, 1}, ShapeCase{{65536, 65536}, 3, 0},
        ShapeCase{{65536, 65536}, 0, 0}, ShapeCase{{65536, 65536}, 5, 0}, ShapeCase{{k2p31 - 1}, 2, 0},
        ShapeCase{{k2p31}, 2, 1}, ShapeCase{{k2p31}, 3, 0}, ShapeCase{{2, k2p31 / 2 - 1, 1}, 1, 0},
        ShapeCase{{2, k2p31 / 2}, 1, 1},
        // A dimension below 1 or an empty shape fails everywhere.
        ShapeCase{{3, 0, 2}, 0, 1}, ShapeCase{{3, 0, 2}, 3, 1}, ShapeCase{{-1}, 0, 1}, ShapeCase{{}, 0, 1},
        ShapeCase{{}, 3, 1}, ShapeCase{{1}, 3, 0}));

TEST(CompareCheck, LogsBothSidesAsTextWithTheCallersPosition) {
    FakeDevice f(3, 0);
    LogCapture logs;
    struct Case {
        int status;
        std::vector<std::string> fields;
    };
    std::vector<Case> got;
    std::vector<int> lines;
    auto record = [&](int st) {
        got.push_back({st, logs.records().empty() ? std::vector<std::string>{} : logs.records().back().fields});
    };
    lines.push_back(__LINE__ + 1);
    record(frame::check(&f.ctx, 5L, frame::Rel::GT, 7L));
    lines.push_back(__LINE__ + 1);
    record(frame::check(&f.ctx, 3, frame::Rel::EQ, 4));
    lines.push_back(__LINE__ + 1);
    record(frame::check(&f.ctx, std::vector<int>(2).size(), frame::Rel::LT, 1ul));
    lines.push_back(__LINE__ + 1);
    record(frame::check(&f.ctx, 0.5f, frame::Rel::LE, 0.25f));
    lines.push_back(__LINE__ + 1);
    record(frame::check_ptr(&f.ctx, static_cast<float*>(nullptr)));
    lines.push_back(__LINE__ + 1);
    record(frame::check_scratch(&f.ctx, static_cast<int*>(nullptr)));
    lines.push_back(__LINE__ + 1);
    record(frame::check_nested(&f.ctx, 2));

    const std::vector<Case> want = {
        {1, {"5", ">", "7"}},          {1, {"3", "==", "4"}},       {1, {"2", "<", "1"}},
        {1, {"0.500000", "<=", "0.250000"}}, {1, {"ptr(0)", "!=", "nullptr"}}, {3, {"ptr(0)", "!=", "nullptr"}},
        {2, {"2", "==", "SUCCESS"}},
    };
    ASSERT_EQ(got.size(), want.size());
    ASSERT_EQ(logs.count("compare_fail"), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(got[i].status, want[i].status) << i;
        EXPECT_EQ(got[i].fields, want[i].fields) << i;
        EXPECT_EQ(logs.records()[i].line, lines[i]) << i;
        EXPECT_NE(logs.records()[i].file.find("test_frame.cpp"), std::string::npos);
    }
}

TEST(CompareCheck, PassingChecksLogNothing) {
    FakeDevice f(0, 0);
    LogCapture logs;
    int x = 0;
    EXPECT_EQ(frame::check(&f.ctx, -1L, frame::Rel::LT, 0), 0);
    EXPECT_EQ(frame::check(&f.ctx, std::size_t{3}, frame::Rel::GE, 3L), 0);
    EXPECT_EQ(frame::check_ptr(&f.ctx, &x), 0);
    EXPECT_EQ(frame::check_dims(&f.ctx, {1, 2, 3}), 0);
    EXPECT_EQ(frame::check_nested(&f.ctx, 0), 0);
    EXPECT_TRUE(logs.records().empty());
}

TEST(DimensionCheck, LogsAllSizesOnTheFirstBadOne) {
    FakeDevice f(3, 0);
    LogCapture logs;
    EXPECT_EQ(frame::check_dims(&f.ctx, {4, 0, 9}), 1);
    ASSERT_EQ(logs.count("invalid_shape"), 1u);
    EXPECT_EQ(logs.of_kind("invalid_shape").front().fields, (std::vector<std::string>{"4", "0", "9"}));
}

TEST(Dispatch, PicksThePathByDeviceType) {
    LogCapture logs;
    auto run = [](std::uint32_t dev, frame::Device accepted) {
        FakeDevice f(dev, 0);
        return frame::dispatch(&f.ctx, [] { return 10; }, [] { return 20; }, accepted);
    };
    EXPECT_EQ(run(0, frame::Device::tsu3), 10);
    EXPECT_EQ(run(3, frame::Device::tsu3), 20);
    EXPECT_EQ(run(2, frame::Device::tsu2or3), 20);
    EXPECT_EQ(logs.count("unimplement"), 0u);
    for (std::uint32_t dev : {1u, 2u, 4u, 5u, 9u}) EXPECT_EQ(run(dev, frame::Device::tsu3), 4) << dev;
    EXPECT_EQ(logs.count("unimplement"), 5u);
}

}  // namespace
