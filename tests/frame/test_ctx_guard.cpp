// The scratch guard: its calls into the context in order, where each form
// allocates, that all ends with the guard; the device copies of length-offset
// parameters through the frame.
#include <sstream>
#include <string>
#include <vector>

#include <tsuops/ctx_guard.h>
#include <tsuops/vector_param.h>

#include "frame/frame.h"
#include "support/tsuops_test.h"

namespace {

using orvane::tsu::api::ctx_guard;
using orvane::tsu::api::DeviceType;
using orvane::tsu::api::VectorParam;
using tsuops_test::device_context;

bool within(const void* p, const orvane::tsu::api::BufferMgr& mgr) {
    const auto *base = static_cast<const char*>(mgr.base()), *q = static_cast<const char*>(p);
    return base != nullptr && q >= base && q < base + mgr.capacity();
}

template <class T>
std::vector<T> read_back(orvane::tsu::api::Context* ctx, const T* dev, long n) {
    std::vector<T> out(static_cast<std::size_t>(n));
    EXPECT_EQ(orvane::tsu::api::do_device2host(ctx, dev, out.data(), n * static_cast<long>(sizeof(T))), 0);
    return out;
}

// Hooks run only for a context with an allocator, from the guard's copies:
// enter before the pools' marks (depths noted), free before their rollback.
TEST(CtxGuard, CallsInOrder) {
    const struct { bool alloc, free; std::vector<std::string> expected; } cases[] = {
        {true, true, {"enter 00", "inside 11", "free 11", "end 00"}},
        {true, false, {"enter 00", "inside 11", "end 00"}}, {false, true, {"inside 11", "end 00"}},
    };
    for (const auto& c : cases) {
        auto ctx = device_context();
        std::vector<std::string> events;
        auto note = [&](std::string what) {
            events.push_back(what + " " + std::to_string(ctx->gm_mgr.depth()) + std::to_string(ctx->l3_mgr.depth()));
        };
        if (c.alloc) ctx->overload_alloc = [](unsigned long) -> void* { return nullptr; };
        if (c.free) ctx->overload_free = [&] { note("free"); };
        ctx->overload_enter = [&] { note("enter"); };
        {
            ctx_guard guard(ctx.get());
            ctx->overload_free = nullptr;
            note("inside");
        }
        note("end");
        EXPECT_EQ(events, c.expected) << "allocator " << c.alloc << " free " << c.free;
    }
}

// Which source serves each form, with and without a caller's allocator.
TEST(CtxGuard, SourcesOnDevice) {
    auto ctx = device_context();
    const unsigned long l3_bytes = orvane::tsu::api::ContextOptions{}.l3_pool_bytes;
    const bool have_l3 = ctx->l3_mgr.capacity() > 0;  // absent under AddressSanitizer
    {
        ctx_guard guard(ctx.get());
        EXPECT_TRUE(within(guard.alloc<float>(256), ctx->gm_mgr));
        EXPECT_TRUE(within(guard.alloc_l3_first<char>(l3_bytes + 1), ctx->gm_mgr)) << "more than the fast pool holds";
    }
    std::vector<unsigned long> asked;
    alignas(64) static char caller_block[4096];
    ctx->overload_alloc = [&](unsigned long bytes) -> void* { asked.push_back(bytes); return caller_block; };
    {
        ctx_guard guard(ctx.get());
        EXPECT_EQ(guard.alloc<int>(100), reinterpret_cast<int*>(caller_block));
        // While the fast pool has room, the caller's allocator is not asked.
        EXPECT_TRUE(!have_l3 || within(guard.alloc_l3_first<float16>(256), ctx->l3_mgr));
        EXPECT_EQ(guard.alloc_l3_first<char>(l3_bytes + 1), caller_block);
    }
    EXPECT_EQ(asked, (std::vector<unsigned long>{400, l3_bytes + 1}));
    EXPECT_EQ(ctx->gm_mgr.top(), 0u);
}

// On the host every form is malloc, freed by the guard (as the sanitizer preset
// proves), the caller's allocator unasked.
TEST(CtxGuard, HostFormsUseMalloc) {
    auto ctx = tsuops_test::host_context();
    bool asked = false;
    ctx->overload_alloc = [&](unsigned long) -> void* { asked = true; return nullptr; };
    ctx_guard guard(ctx.get());
    const std::vector<void*> got = {guard.alloc<float>(10), guard.alloc_l3_first<bfloat16>(10),
                                    guard.alloc_cpu<unsigned int>(5), guard.alloc<long>(0)};
    for (void* p : got) EXPECT_NE(p, nullptr);
    EXPECT_EQ(guard.host_buffers, got);
    EXPECT_FALSE(asked);
    static_cast<float*>(got[0])[9] = 1.0f;
}

// A length-offset parameter's device copy: the caller's copy as it is, else an
// upload into general scratch; no copy is the pointer check, status 1, and
// the only record (to_tsu itself logs nothing); a copy is the region
// "<local>.tsu", an output of len elements, at the call site. The host has no
// device copy and checks none.
TEST(DeviceCopy, CopiesChecksAndRecords) {
    using enum DeviceType;
    using tsuemu::Site;
    const auto none = Site::Config;  // stands for nothing injected
    const struct { const char* what; DeviceType dev; bool callers; Site fault; long len; int status; const char* log; }
        cases[] = {
            {"upload", TSU3, false, none, 5, 0, nullptr},
            {"the caller's copy", TSU3, true, none, 5, 0, nullptr},
            {"no scratch", TSU3, false, Site::PoolAlloc, 5, 1, "compare_fail"},
            {"upload fails", TSU3, false, Site::HostToDevice, 5, 1, "compare_fail"},
            {"empty", TSU3, false, none, 0, 1, "invalid_memory"},
            {"host", CPU, false, none, 5, 0, nullptr},
            {"host, the caller's copy", CPU, true, none, 5, 0, nullptr},
        };
    const std::vector<int> lod = {0, 3, 7, 12, 20};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto ctx = tsuops_test::make_context(c.dev, {.debug_flags = 0x1});
        tsuops_test::GuardedBuffer<int> theirs(ctx.get(), std::vector<int>(5, 9));
        orvane::tsu::api::ContextStackGuard g(ctx.get(), "INFRA");
        ctx_guard scratch(ctx.get());
        VectorParam<int> out;
        tsuops_test::LogCapture logs;
        const unsigned long top = ctx->gm_mgr.top();
        if (c.fault != none) tsuemu::inject_failure(c.fault, 1, 7);
        const VectorParam<int> lod_param{lod.data(), c.len, c.callers ? theirs.data() : nullptr};
        const int line = __LINE__ + 1;
        const int status = infer_ops::frame::device_copy(g, ctx.get(), scratch, lod_param, "lod_tsu", out);
        tsuemu::clear_failures();
        EXPECT_EQ(status, c.status);
        EXPECT_TRUE(out.cpu == lod.data() && out.len == c.len);
        const auto failures = logs.failures();
        ASSERT_EQ(failures.size(), c.log ? 1u : 0u);
        for (const auto& f : failures) {
            EXPECT_EQ(f.kind, c.log);
            EXPECT_EQ(f.line, line);
            EXPECT_EQ(f.fields[0], f.kind == "compare_fail" ? "ptr(0)" : "lod_tsu.tsu");
        }
        if (c.callers) {
            EXPECT_EQ(out.tsu, theirs.data());
            EXPECT_EQ(ctx->gm_mgr.top(), top) << "no scratch taken";
            EXPECT_EQ(theirs.download(), std::vector<int>(5, 9)) << "nothing uploaded";
        } else if (c.dev == CPU) {
            EXPECT_EQ(out.tsu, nullptr);
        } else if (status == 0) {
            EXPECT_EQ(read_back(ctx.get(), out.tsu, 5), lod);
        }
        const auto memory = logs.of_kind("memory");
        ASSERT_EQ(memory.size(), c.dev == TSU3 && status == 0 ? 1u : 0u);
        for (const auto& m : memory) {
            std::ostringstream address;
            address << static_cast<const void*>(out.tsu);
            EXPECT_EQ(m.fields, (std::vector<std::string>{"lod_tsu.tsu", address.str(), "{5}", "{1}", "output"}));
            EXPECT_EQ(m.line, line);
        }
    }
}

}  // namespace
