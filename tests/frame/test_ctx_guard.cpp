// The scratch guard: its calls into the context in order, where each form
// allocates, that all ends with the guard; length-offset parameters' uploads.
#include <string>
#include <vector>

#include <tsuops/ctx_guard.h>
#include <tsuops/vector_param.h>

#include "support/tsuops_test.h"

namespace {

using orvane::tsu::api::ctx_guard;
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
// proves), the caller's allocator unasked; a length-offset parameter gets no copy.
TEST(CtxGuard, HostFormsUseMalloc) {
    auto ctx = tsuops_test::host_context();
    bool asked = false;
    ctx->overload_alloc = [&](unsigned long) -> void* { asked = true; return nullptr; };
    ctx_guard guard(ctx.get());
    const std::vector<void*> got = {guard.alloc<float>(10), guard.alloc_l3_first<bfloat16>(10),
                                    guard.alloc_cpu<unsigned int>(5), guard.alloc<long>(0)};
    int lod[3] = {0, 2, 5};
    EXPECT_EQ((VectorParam<int>{lod, 3, lod}.to_tsu(guard).tsu), lod);
    EXPECT_EQ((VectorParam<int>{lod, 3}.to_tsu(guard).tsu), nullptr);
    for (void* p : got) EXPECT_NE(p, nullptr);
    EXPECT_EQ(guard.host_buffers, got);
    EXPECT_FALSE(asked);
    static_cast<float*>(got[0])[9] = 1.0f;
}

// Two parameters upload in order into general scratch, given back with the guard.
// A caller's device copy is used as it is, even where it differs from the host
// copy; a caller's allocator serves the upload.
TEST(VectorParam, UploadsCallersCopyAndCallersAllocator) {
    auto ctx = device_context();
    const std::vector<int> lod = {0, 3, 7, 12, 20};
    const std::vector<long> starts = {5, 1, 1L << 40};
    {
        ctx_guard guard(ctx.get());
        const VectorParam<int> a{lod.data(), 5};
        const VectorParam<int> a_tsu = a.to_tsu(guard);
        const VectorParam<long> b_tsu = VectorParam<long>{starts.data(), 3}.to_tsu(guard);
        EXPECT_TRUE(a_tsu.cpu == a.cpu && a_tsu.len == 5 && a.tsu == nullptr);
        EXPECT_EQ(static_cast<void*>(a_tsu.tsu), ctx->gm_mgr.base());
        EXPECT_GE(static_cast<void*>(b_tsu.tsu), static_cast<void*>(a_tsu.tsu + 5));
        EXPECT_EQ(read_back(ctx.get(), a_tsu.tsu, 5), lod);
        EXPECT_EQ(read_back(ctx.get(), b_tsu.tsu, 3), starts);
        int* dev = guard.alloc<int>(3);
        const int other[3] = {9, 9, 9};
        ASSERT_EQ(orvane::tsu::api::do_host2device(ctx.get(), other, dev, sizeof other), 0);
        const unsigned long top = ctx->gm_mgr.top();
        EXPECT_EQ((VectorParam<int>{lod.data(), 3, dev}.to_tsu(guard).tsu), dev);
        EXPECT_EQ(ctx->gm_mgr.top(), top);
        EXPECT_EQ(read_back(ctx.get(), dev, 3), std::vector<int>(3, 9));
    }
    EXPECT_EQ(ctx->gm_mgr.top(), 0u);
    alignas(64) static int caller_block[16];
    ctx->overload_alloc = [&](unsigned long bytes) -> void* { return bytes == 20 ? caller_block : nullptr; };
    ctx_guard guard(ctx.get());
    EXPECT_EQ((VectorParam<int>{lod.data(), 5}.to_tsu(guard).tsu), caller_block);
    EXPECT_EQ(caller_block[4], 20);
}

// Every failure gives a null tsu and no log record; a length of 0 asks the
// pool for 0 bytes, which a present pool serves and an absent one does not.
TEST(VectorParam, FailuresAreASilentNull) {
    const auto none = tsuemu::Site::Config;  // stands for nothing injected
    const struct { tsuemu::Site site; unsigned long pool; long len; bool copied; } cases[] = {
        {tsuemu::Site::HostToDevice, 1 << 20, 4, false}, {tsuemu::Site::PoolAlloc, 1 << 20, 4, false},
        {none, 1 << 20, 0, true}, {none, 0, 0, false}};
    const long lod[4] = {0, 1, 2, 3};
    for (const auto& c : cases) {
        orvane::tsu::api::ContextOptions opts;
        opts.gm_pool_bytes = c.pool;
        auto ctx = device_context(opts);
        tsuops_test::LogCapture logs;
        ctx_guard guard(ctx.get());
        if (c.site != none) tsuemu::inject_failure(c.site, 1, 7);
        const VectorParam<long> p = VectorParam<long>{lod, c.len}.to_tsu(guard);
        tsuemu::clear_failures();
        EXPECT_EQ(p.tsu != nullptr, c.copied) << static_cast<int>(c.site) << " len " << c.len;
        EXPECT_TRUE(p.cpu == lod && p.len == c.len && logs.records().empty());
    }
}

}  // namespace
