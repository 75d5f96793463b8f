// The log and trace sinks, the echo switch, source positions and the small
// queries of the host library.
#include <functional>
#include <string>
#include <vector>

#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
namespace api = orvane::tsu::api;

struct LogCase {
    const char* name;
    std::function<void(Context*)> call;
    std::string kind;
    std::string file;
    int line;
    std::vector<std::string> fields;
};

void PrintTo(const LogCase& c, std::ostream* os) { *os << c.name; }

class LogSink : public ::testing::TestWithParam<LogCase> {};

TEST_P(LogSink, EachCallReachesTheSinkWithKindPositionAndFields) {
    auto ctx = device_context();
    LogCapture cap;
    GetParam().call(ctx.get());
    const auto recs = cap.records();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].kind, GetParam().kind);
    EXPECT_EQ(recs[0].file, GetParam().file);
    EXPECT_EQ(recs[0].line, GetParam().line);
    EXPECT_EQ(recs[0].fields, GetParam().fields);
    EXPECT_EQ(cap.count(GetParam().kind), 1u);
    EXPECT_EQ(cap.of_kind(GetParam().kind).size(), 1u);
}

api::memory_region region_with_detail(bool input, const char* name, const char* position) {
    api::memory_region r(input, reinterpret_cast<const void*>(0x1000), 16, 0);
    r.detail = new api::memory_region_detail();
    r.detail->name = name;
    r.detail->position = position;
    return r;
}

INSTANTIATE_TEST_SUITE_P(
    Calls, LogSink,
    ::testing::Values(
        LogCase{"compare_fail", [](Context* c) { api::_log_compare_fail(c, "src/a.cpp", 12, "3", ">=", "4"); },
                "compare_fail", "src/a.cpp", 12, {"3", ">=", "4"}},
        LogCase{"compare_fail_null_file", [](Context* c) { api::_log_compare_fail(c, nullptr, 0, "ptr(0)", "!=", "nullptr"); },
                "compare_fail", "", 0, {"ptr(0)", "!=", "nullptr"}},
        LogCase{"invalid_shape_vector",
                [](Context* c) { api::_log_invalid_shape(c, "b.cpp", 7, std::vector<long>{2, 0, -3}); },
                "invalid_shape", "b.cpp", 7, {"2", "0", "-3"}},
        LogCase{"invalid_shape_list", [](Context* c) { api::_log_invalid_shape(c, "b.cpp", 8, {65536L, 65536L}); },
                "invalid_shape", "b.cpp", 8, {"65536", "65536"}},
        LogCase{"unimplement", [](Context* c) { api::_log_unimplement(c, "c.cpp", 99); }, "unimplement", "c.cpp",
                99, {"3"}},
        LogCase{"kernel_fail", [](Context* c) { api::_log_kernel_fail(c, "d.cpp", 5, -17); }, "kernel_fail",
                "d.cpp", 5, {"-17"}},
        LogCase{"invalid_memory",
                [](Context* c) {
                    api::memory_region r(true, reinterpret_cast<const void*>(0x1000), 16, 0);
                    api::_log_invalid_memory(c, r);
                },
                "invalid_memory", "", 0, {"", "0x1000", "{16}", "{1}", "input"}},
        LogCase{"invalid_memory_detail",
                [](Context* c) {
                    auto r = region_with_detail(false, "y", "basic/constant.cpp:42");
                    api::_log_invalid_memory(c, r);
                },
                "invalid_memory", "basic/constant.cpp", 42, {"y", "0x1000", "{16}", "{1}", "output"}},
        LogCase{"memory",
                [](Context* c) {
                    api::ContextStackGuard guard(c, "INFRA");
                    auto r = region_with_detail(true, "x", "norm/rms.cpp:7");
                    api::_log_memory(guard, c, r);
                },
                "memory", "norm/rms.cpp", 7, {"x", "0x1000", "{16}", "{1}", "input"}}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(LogSinkControl, EmptySinkRemovesIt) {
    auto ctx = device_context();
    std::vector<api::LogRecord> got;
    api::set_log_echo(false);
    api::set_log_sink([&](const api::LogRecord& r) { got.push_back(r); });
    api::_log_kernel_fail(ctx.get(), "x.cpp", 1, 1);
    api::set_log_sink({});
    api::_log_kernel_fail(ctx.get(), "x.cpp", 2, 1);
    api::set_log_echo(true);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].line, 1);
}

TEST(LogSinkControl, EchoWritesToStandardErrorOnlyWhenOn) {
    auto ctx = device_context();
    ::testing::internal::CaptureStderr();
    api::_log_compare_fail(ctx.get(), "/w/src/frame/f.cpp", 3, "1", "==", "2");
    const std::string on = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(on.find("frame/f.cpp:3"), std::string::npos) << on;
    EXPECT_NE(on.find("1 == 2"), std::string::npos) << on;

    ::testing::internal::CaptureStderr();
    {
        LogCapture cap;
        api::_log_compare_fail(ctx.get(), "f.cpp", 3, "1", "==", "2");
        EXPECT_EQ(cap.count("compare_fail"), 1u);
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");

    // The capture gave the echo back.
    ::testing::internal::CaptureStderr();
    api::_log_kernel_fail(ctx.get(), "f.cpp", 4, 2);
    EXPECT_NE(::testing::internal::GetCapturedStderr(), "");
}

TEST(LogSinkControl, NestedCapturesReceiveInnermostFirstAndRestore) {
    auto ctx = device_context();
    LogCapture outer;
    api::_log_kernel_fail(ctx.get(), "f.cpp", 1, 1);
    {
        LogCapture inner;
        api::_log_kernel_fail(ctx.get(), "f.cpp", 2, 1);
        EXPECT_EQ(inner.records().size(), 1u);
    }
    api::_log_kernel_fail(ctx.get(), "f.cpp", 3, 1);
    const auto recs = outer.records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].line, 1);
    EXPECT_EQ(recs[1].line, 3);
    EXPECT_EQ(outer.failures().size(), 2u);
}

// ---- trace ----------------------------------------------------------------------------------------
TEST(Trace, SinkReceivesTheGuardsRecord) {
    auto ctx = device_context();
    TraceCapture cap;
    api::ContextStackGuard guard(ctx.get(), "INFRA");
    guard.info.name = "swiglu";
    guard.info.dtypes = {"float16", "float"};
    guard.info.params = {"ptr(0x1000)", "16", "true"};
    guard.trace();
    const auto recs = cap.records();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].name, "swiglu");
    EXPECT_EQ(recs[0].dtypes, guard.info.dtypes);
    EXPECT_EQ(recs[0].params, guard.info.params);
}

TEST(Trace, WithoutASinkOneLineGoesToStandardError) {
    auto ctx = device_context();
    api::ContextStackGuard guard(ctx.get(), "INFRA");
    guard.info.name = "constant";
    guard.info.dtypes = {"float"};
    guard.info.params = {"ptr", "4"};
    ::testing::internal::CaptureStderr();
    guard.trace();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("constant<float>(ptr, 4)"), std::string::npos) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
}

// ---- source positions ---------------------------------------------------------------------------
struct PathCase {
    const char* file;
    int line;
    const char* short_path;
    const char* npy_path;
};

void PrintTo(const PathCase& c, std::ostream* os) { *os << (c.file ? c.file : "(null)") << ":" << c.line; }

class SourcePosition : public ::testing::TestWithParam<PathCase> {};

TEST_P(SourcePosition, ShortAndFileNameForms) {
    EXPECT_EQ(api::short_file_path(GetParam().file, GetParam().line), GetParam().short_path);
    EXPECT_EQ(api::npy_short_file_path(GetParam().file, GetParam().line), GetParam().npy_path);
}

INSTANTIATE_TEST_SUITE_P(Paths, SourcePosition,
                         ::testing::Values(PathCase{"/work/main/src/wrapper/basic/constant.cpp", 42,
                                                    "basic/constant.cpp:42", "basic_constant_cpp_42"},
                                           PathCase{"dir/file.cpp", 7, "dir/file.cpp:7", "dir_file_cpp_7"},
                                           PathCase{"/dir/file.cpp", 0, "dir/file.cpp:0", "dir_file_cpp_0"},
                                           PathCase{"file.cpp", 1, "file.cpp:1", "file_cpp_1"},
                                           PathCase{"a/b c/d.h", 12, "b c/d.h:12", "b_c_d_h_12"},
                                           PathCase{nullptr, 3, ":3", "_3"}));

// ---- small queries ----------------------------------------------------------------------------
TEST(Queries, OpcountCountsGuardsPerContext) {
    auto a = device_context();
    auto b = host_context();
    const int a0 = api::_get_ctx_opcount(a.get());
    {
        api::ContextStackGuard g1(a.get(), "INFRA");
        api::ContextStackGuard g2(a.get(), "INFRA");
    }
    api::ContextStackGuard g3(a.get(), "INFRA");
    EXPECT_EQ(api::_get_ctx_opcount(a.get()), a0 + 3);
    EXPECT_EQ(api::_get_ctx_opcount(b.get()), 0);
    EXPECT_EQ(api::_get_ctx_opcount(nullptr), 0);
}

TEST(Queries, DebugWordBits) {
    struct Case {
        std::uint32_t flags;
        const char* name;
        bool accelerate;
        bool precision;
    };
    for (const Case c : {Case{0, "op", false, false}, Case{1u << 25, "op", true, false},
                         Case{1u << 24, "op", false, true}, Case{1u << 24, "", false, false},
                         Case{(1u << 24) | (1u << 25), "op", true, true}, Case{0xf0ffffu, "op", false, false}}) {
        ContextOptions opts;
        opts.debug_flags = c.flags;
        auto ctx = host_context(opts);
        EXPECT_EQ(ctx->debug_level(), c.flags);
        EXPECT_EQ(api::_get_checksum_accelerate_flag(ctx.get()), c.accelerate) << std::hex << c.flags;
        EXPECT_EQ(orvane::tsu::api_infrastructure::should_check_precision(ctx.get(), c.name), c.precision)
            << std::hex << c.flags << " '" << c.name << "'";
    }
    EXPECT_FALSE(api::_get_checksum_accelerate_flag(nullptr));
    EXPECT_FALSE(orvane::tsu::api_infrastructure::should_check_precision(nullptr, "op"));
}

}  // namespace
