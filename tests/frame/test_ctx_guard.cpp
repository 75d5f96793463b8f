// The scratch guard: the order of its calls into the context, where each
// allocation form takes its memory, and that everything ends with the guard.
#include <dlfcn.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <ostream>
#include <vector>

#include <tsuops/ctx_guard.h>

#include "support/tsuops_test.h"

using orvane::tsu::api::BufferMgr;
using orvane::tsu::api::Context;
using orvane::tsu::api::ContextOptions;
using orvane::tsu::api::ctx_guard;

namespace {

// The events of the guard under test, in order, while a recorder is active.
std::vector<std::string>* g_events = nullptr;
const Context* g_recorded_ctx = nullptr;

void note(const BufferMgr* mgr, const char* what) {
    if (g_events == nullptr || g_recorded_ctx == nullptr) return;
    if (mgr == &g_recorded_ctx->gm_mgr) g_events->push_back(std::string(what) + " gm");
    if (mgr == &g_recorded_ctx->l3_mgr) g_events->push_back(std::string(what) + " l3");
}

template <class Fn>
Fn next_symbol(const char* mangled) {
    void* sym = dlsym(RTLD_NEXT, mangled);
    if (sym == nullptr) std::abort();
    return reinterpret_cast<Fn>(sym);
}

}  // namespace

// The pools' save and restore leave no trace of their order in the pools'
// state, so this program interposes them: the library's calls land here, are
// noted, and go on to the platform's own definitions.
namespace orvane::tsu::api {

void BufferMgr::save() {
    using fn = void (*)(BufferMgr*);
    static const fn next = next_symbol<fn>("_ZN6orvane3tsu3api9BufferMgr4saveEv");
    note(this, "save");
    next(this);
}

void BufferMgr::restore(void* stream) {
    using fn = void (*)(BufferMgr*, void*);
    static const fn next = next_symbol<fn>("_ZN6orvane3tsu3api9BufferMgr7restoreEPv");
    note(this, "restore");
    next(this, stream);
}

}  // namespace orvane::tsu::api

namespace {

using tsuops_test::device_context;
using tsuops_test::host_context;

class Recorder {
public:
    explicit Recorder(const Context* ctx) {
        g_events = &events;
        g_recorded_ctx = ctx;
    }
    ~Recorder() {
        g_events = nullptr;
        g_recorded_ctx = nullptr;
    }
    std::vector<std::string> events;
};

bool within(const void* p, const BufferMgr& mgr) {
    const auto* base = static_cast<const char*>(mgr.base());
    const auto* q = static_cast<const char*>(p);
    return base != nullptr && q >= base && q < base + mgr.capacity();
}

struct HookCase {
    const char* name;
    bool alloc;
    bool free;
    bool enter;
    std::vector<std::string> expected;
};

void PrintTo(const HookCase& c, std::ostream* os) { *os << c.name; }

class CtxGuardHooks : public ::testing::TestWithParam<HookCase> {};

// Hooks run only for a context with an allocator; the pools are marked and
// rolled back in both cases, general pool first. A guard that allocates
// nothing makes the same calls.
TEST_P(CtxGuardHooks, CallsInOrder) {
    const HookCase& c = GetParam();
    auto ctx = device_context();
    Recorder rec(ctx.get());
    if (c.alloc) ctx->overload_alloc = [&](unsigned long) -> void* { rec.events.push_back("alloc"); return nullptr; };
    if (c.free) ctx->overload_free = [&] { rec.events.push_back("free"); };
    if (c.enter) ctx->overload_enter = [&] { rec.events.push_back("enter"); };
    const std::size_t gm_depth = ctx->gm_mgr.depth();
    const std::size_t l3_depth = ctx->l3_mgr.depth();
    {
        ctx_guard guard(ctx.get());
        EXPECT_EQ(ctx->gm_mgr.depth(), gm_depth + 1);
        EXPECT_EQ(ctx->l3_mgr.depth(), l3_depth + 1);
        EXPECT_EQ(static_cast<bool>(guard.overload_alloc), c.alloc);
        EXPECT_EQ(static_cast<bool>(guard.overload_free), c.alloc && c.free);
    }
    EXPECT_EQ(rec.events, c.expected);
    EXPECT_EQ(ctx->gm_mgr.depth(), gm_depth);
    EXPECT_EQ(ctx->l3_mgr.depth(), l3_depth);
}

const std::vector<std::string> kPoolsOnly = {"save gm", "save l3", "restore gm", "restore l3"};

INSTANTIATE_TEST_SUITE_P(
    Hooks, CtxGuardHooks,
    ::testing::Values(
        HookCase{"all_hooks", true, true, true, {"enter", "save gm", "save l3", "free", "restore gm", "restore l3"}},
        HookCase{"alloc_without_free", true, false, true, {"enter", "save gm", "save l3", "restore gm", "restore l3"}},
        HookCase{"alloc_without_enter", true, true, false, {"save gm", "save l3", "free", "restore gm", "restore l3"}},
        HookCase{"no_allocator", false, false, false, kPoolsOnly},
        HookCase{"hooks_without_allocator", false, true, true, kPoolsOnly}),
    [](const ::testing::TestParamInfo<HookCase>& p) { return std::string(p.param.name); });

// The guard keeps its own copies: a context changed during the call does not
// reach the release step.
TEST(CtxGuard, KeepsCopiesOfTheHooks) {
    auto ctx = device_context();
    int released = 0;
    ctx->overload_alloc = [](unsigned long) -> void* { return nullptr; };
    ctx->overload_free = [&] { ++released; };
    {
        ctx_guard guard(ctx.get());
        ctx->overload_free = nullptr;
    }
    EXPECT_EQ(released, 1);
}

TEST(CtxGuard, ExceptionRollsBack) {
    auto ctx = device_context();
    Recorder rec(ctx.get());
    const unsigned long top = ctx->gm_mgr.top();
    try {
        ctx_guard guard(ctx.get());
        ASSERT_NE(guard.alloc<float>(1000), nullptr);
        EXPECT_GT(ctx->gm_mgr.top(), top);
        throw std::runtime_error("out");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(rec.events, kPoolsOnly);
    EXPECT_EQ(ctx->gm_mgr.top(), top);
}

// Which source serves each form, with and without a caller's allocator.
TEST(CtxGuard, SourcesOnDevice) {
    ContextOptions opts;
    auto ctx = device_context(opts);
    ASSERT_GT(ctx->gm_mgr.capacity(), 0u);
    const bool have_l3 = ctx->l3_mgr.capacity() > 0;  // absent under AddressSanitizer
    {
        ctx_guard guard(ctx.get());
        float* a = guard.alloc<float>(256);
        EXPECT_TRUE(within(a, ctx->gm_mgr));
        float16* b = guard.alloc_l3_first<float16>(256);
        EXPECT_TRUE(within(b, have_l3 ? ctx->l3_mgr : ctx->gm_mgr));
        // More than the fast pool holds falls through to the general pool.
        char* c = guard.alloc_l3_first<char>(opts.l3_pool_bytes + 1);
        EXPECT_TRUE(within(c, ctx->gm_mgr));
        EXPECT_TRUE(guard.host_buffers.empty());
    }
    EXPECT_EQ(ctx->gm_mgr.top(), 0u);
    EXPECT_EQ(ctx->l3_mgr.top(), 0u);

    std::vector<unsigned long> asked;
    alignas(64) static char caller_block[4096];
    ctx->overload_alloc = [&](unsigned long bytes) -> void* {
        asked.push_back(bytes);
        return caller_block;
    };
    {
        ctx_guard guard(ctx.get());
        EXPECT_EQ(guard.alloc<int>(100), reinterpret_cast<int*>(caller_block));
        if (have_l3) {
            // The fast pool comes before the caller's allocator.
            EXPECT_TRUE(within(guard.alloc_l3_first<long>(10), ctx->l3_mgr));
        }
        EXPECT_EQ(guard.alloc_l3_first<char>(opts.l3_pool_bytes + 1), caller_block);
    }
    EXPECT_EQ(asked, (std::vector<unsigned long>{400, opts.l3_pool_bytes + 1}));
    EXPECT_EQ(ctx->gm_mgr.top(), 0u);
}

TEST(CtxGuard, NoFastPoolFallsThrough) {
    ContextOptions opts;
    opts.l3_pool_bytes = 0;
    auto ctx = device_context(opts);
    ctx_guard guard(ctx.get());
    EXPECT_TRUE(within(guard.alloc_l3_first<float>(16), ctx->gm_mgr));
}

// A zero count still asks the pool; an absent or failing pool gives null.
TEST(CtxGuard, EmptyRequestsAndExhaustion) {
    auto ctx = device_context();
    {
        ctx_guard guard(ctx.get());
        EXPECT_NE(guard.alloc<float>(0), nullptr);
        tsuemu::inject_failure(tsuemu::Site::PoolAlloc, 1, 0);
        EXPECT_EQ(guard.alloc<float>(1), nullptr);
        tsuemu::clear_failures();
        EXPECT_EQ(guard.alloc<float>(ctx->gm_mgr.capacity()), nullptr);
        // A byte count that wraps around is refused, not shortened.
        EXPECT_EQ(guard.alloc<double>(std::numeric_limits<unsigned long>::max() / 4), nullptr);
    }
    ContextOptions none;
    none.l3_pool_bytes = 0;
    none.gm_pool_bytes = 0;
    auto bare = device_context(none);
    ctx_guard guard(bare.get());
    EXPECT_EQ(guard.alloc<float>(0), nullptr);
    EXPECT_EQ(guard.alloc_l3_first<float>(4), nullptr);
}

// Scratch of an inner guard goes at its end; the outer guard's stays.
TEST(CtxGuard, NestedGuardsStack) {
    auto ctx = device_context();
    ctx_guard outer(ctx.get());
    int* a = outer.alloc<int>(64);
    ASSERT_NE(a, nullptr);
    const unsigned long top = ctx->gm_mgr.top();
    {
        ctx_guard inner(ctx.get());
        int* b = inner.alloc<int>(64);
        EXPECT_GE(reinterpret_cast<char*>(b), reinterpret_cast<char*>(a + 64));
    }
    EXPECT_EQ(ctx->gm_mgr.top(), top);
    EXPECT_EQ(reinterpret_cast<char*>(outer.alloc<int>(64)), static_cast<char*>(ctx->gm_mgr.base()) + top);
}

// On the host every form is malloc, recorded for the destructor; the
// caller's allocator is not asked.
TEST(CtxGuard, HostFormsUseMalloc) {
    auto ctx = host_context();
    bool asked = false;
    ctx->overload_alloc = [&](unsigned long) -> void* {
        asked = true;
        return nullptr;
    };
    ctx_guard guard(ctx.get());
    std::vector<void*> got = {guard.alloc<float>(10),       guard.alloc_l3_first<bfloat16>(10),
                              guard.alloc_cpu<float16>(10), guard.alloc_cpu<bool>(3),
                              guard.alloc_cpu<unsigned int>(5), guard.alloc<long>(0)};
    for (void* p : got) EXPECT_NE(p, nullptr);
    EXPECT_EQ(guard.host_buffers, got);
    EXPECT_FALSE(asked);
    // Usable memory: the sanitizer preset also proves that each block is
    // freed when the guard ends.
    static_cast<float*>(got[0])[9] = 1.0f;
}

TEST(CtxGuard, NullContextHandsOutNothing) {
    ctx_guard guard(nullptr);
    EXPECT_EQ(guard.alloc<float>(4), nullptr);
    EXPECT_EQ(guard.alloc_l3_first<float>(4), nullptr);
    EXPECT_TRUE(guard.host_buffers.empty());
}

}  // namespace
