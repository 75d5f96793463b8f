// Each log call of the host library reaches the sink with its kind, source
// position and fields.
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
namespace api = orvane::tsu::api;

// A region at 0x1000 of 16 elements, with a detail when it has a name.
api::memory_region region(bool input, const char* name = nullptr, const char* position = nullptr) {
    api::memory_region r(input, reinterpret_cast<const void*>(0x1000), 16, 0);
    if (name == nullptr) return r;
    r.detail = new api::memory_region_detail();
    r.detail->name = name;
    r.detail->position = position;
    return r;
}

TEST(LogSink, ReceivesEachRecordWithItsFields) {
    const std::pair<std::function<void(Context*)>, LogRecord> cases[] = {
        {[](Context* c) { api::_log_compare_fail(c, "src/a.cpp", 12, "3", ">=", "4"); },
         {"compare_fail", "src/a.cpp", 12, {"3", ">=", "4"}}},
        {[](Context* c) { api::_log_invalid_shape(c, "b.cpp", 7, std::vector<long>{2, 0, -3}); },
         {"invalid_shape", "b.cpp", 7, {"2", "0", "-3"}}},
        {[](Context* c) { api::_log_unimplement(c, "c.cpp", 99); }, {"unimplement", "c.cpp", 99, {"3"}}},
        {[](Context* c) { api::_log_kernel_fail(c, "d.cpp", 5, -17); }, {"kernel_fail", "d.cpp", 5, {"-17"}}},
        {[](Context* c) { auto r = region(true); api::_log_invalid_memory(c, r); },
         {"invalid_memory", "", 0, {"", "0x1000", "{16}", "{1}", "input"}}},
        {[](Context* c) { auto r = region(false, "y", "basic/constant.cpp:42"); api::_log_invalid_memory(c, r); },
         {"invalid_memory", "basic/constant.cpp", 42, {"y", "0x1000", "{16}", "{1}", "output"}}},
        {[](Context* c) {
             api::ContextStackGuard guard(c, "INFRA");
             auto r = region(true, "x", "norm/rms.cpp:7");
             api::_log_memory(guard, c, r);
         },
         {"memory", "norm/rms.cpp", 7, {"x", "0x1000", "{16}", "{1}", "input"}}},
    };
    auto ctx = device_context();
    for (const auto& [call, want] : cases) {
        LogCapture cap;
        call(ctx.get());
        const auto got = cap.records();
        ASSERT_EQ(got.size(), 1u) << want.kind;
        EXPECT_TRUE(got[0].kind == want.kind && got[0].file == want.file && got[0].line == want.line) << want.kind;
        EXPECT_EQ(got[0].fields, want.fields) << want.kind;
    }
}

}  // namespace
