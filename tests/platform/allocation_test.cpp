// Allocation on the paths that must not allocate, and a device context whose
// construction runs out of memory at any one of its allocations. The test
// program's own operator new counts allocations on any thread while asked
// to, fails the chosen allocation of an armed thread, and keeps the blocks it
// handed out meanwhile until they are freed on whatever thread.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "platform_util.h"
#include "support/tsuops_test.h"

namespace {

struct Tracker {
    std::mutex mu;
    std::array<void*, 512> live{};
    int overflow = 0;
};
Tracker& tracker() {
    static Tracker t;
    return t;
}
std::atomic<bool> g_tracking{false};
std::atomic<bool> g_counting{false};
std::atomic<long> g_allocations{0};
thread_local long t_fail_at = 0;  // 1-based allocation of this thread to fail; 0 none
thread_local long t_count = 0;

void* allocate(std::size_t n, std::size_t align) {
    if (g_counting.load(std::memory_order_relaxed)) g_allocations.fetch_add(1);
    if (t_fail_at > 0 && ++t_count == t_fail_at) throw std::bad_alloc();
    void* p = align > alignof(std::max_align_t) ? std::aligned_alloc(align, (n + align - 1) / align * align)
                                                : std::malloc(n ? n : 1);
    if (p == nullptr) throw std::bad_alloc();
    if (t_fail_at > 0) {
        Tracker& t = tracker();
        std::lock_guard<std::mutex> lk(t.mu);
        auto slot = std::find(t.live.begin(), t.live.end(), nullptr);
        if (slot == t.live.end()) ++t.overflow;
        else *slot = p;
    }
    return p;
}

void release(void* p) noexcept {
    if (p == nullptr) return;
    if (g_tracking.load(std::memory_order_relaxed)) {
        Tracker& t = tracker();
        std::lock_guard<std::mutex> lk(t.mu);
        std::replace(t.live.begin(), t.live.end(), p, static_cast<void*>(nullptr));
    }
    std::free(p);
}

}  // namespace

void* operator new(std::size_t n) { return allocate(n, 0); }
void* operator new[](std::size_t n) { return allocate(n, 0); }
void* operator new(std::size_t n, std::align_val_t a) { return allocate(n, static_cast<std::size_t>(a)); }
void* operator new[](std::size_t n, std::align_val_t a) { return allocate(n, static_cast<std::size_t>(a)); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }
void operator delete(void* p, std::align_val_t) noexcept { release(p); }
void operator delete[](void* p, std::align_val_t) noexcept { release(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { release(p); }

namespace {

using namespace tsuops_test;

// Allocations on any thread while `body` runs.
template <class F>
long allocations_during(F&& body) {
    g_allocations.store(0);
    g_counting.store(true);
    body();
    g_counting.store(false);
    return g_allocations.load();
}

// A launch and its wait, and the plain frame of an operator on the host and
// on the device, allocate nothing once the first call has set things up.
TEST(Allocation, NoneInALaunchAWaitOrThePlainFrame) {
    auto dev = device_context();
    auto host = host_context();
    GuardedBuffer<float> x(dev.get(), 64);
    float h[64];
    const auto noop = platform_test::kNoop;
    const auto launch_and_wait = [&] {
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(platform_test::launch(noop, 8, 64, dev->stream, x.data(), 64L), TSU_SUCCESS);
            if (i % 5 == 4) tsu_wait(dev->stream);
        }
    };
    const auto device_call = [&] {
        for (int i = 0; i < 50; ++i) EXPECT_EQ(infer_ops::constant<float>(dev.get(), x.data(), 64, 1.0f), 0);
        tsu_wait(dev->stream);
    };
    const auto host_call = [&] {
        for (int i = 0; i < 50; ++i) EXPECT_EQ(infer_ops::constant<float>(host.get(), h, 64, 1.0f), 0);
    };
    for (const auto& [what, body] : {std::pair<const char*, std::function<void()>>{"launch and wait", launch_and_wait},
                                     {"device call", device_call}, {"host call", host_call}}) {
        body();  // first use: pools, thread-local state
        EXPECT_EQ(allocations_during(body), 0) << what;
    }
}

TEST(Context, ConstructionThatRunsOutOfMemoryThrowsAndLeavesNothingBehind) {
    // The runtime's process-wide tables come with the first context.
    { Context warm(DeviceType::TSU3); }
    int threw = 0;
    g_tracking.store(true);
    for (long k = 1;; ++k) {
        t_count = 0;
        t_fail_at = k;
        std::unique_ptr<Context> ctx;
        try {
            ctx = std::make_unique<Context>(DeviceType::TSU3);
        } catch (const std::bad_alloc&) {
            ++threw;
        }
        // A context may also survive a failed allocation (a pool that could
        // not be had is absent); the loop ends with the first construction
        // that never reached allocation k.
        const long reached = t_count;
        t_fail_at = 0;
        ctx.reset();
        long left = 0;
        int overflow = 0;
        {
            // gtest allocates: no assertion while the tracker is locked.
            Tracker& t = tracker();
            std::lock_guard<std::mutex> lk(t.mu);
            left = static_cast<long>(t.live.size()) - std::count(t.live.begin(), t.live.end(), nullptr);
            overflow = t.overflow;
            std::fill(t.live.begin(), t.live.end(), nullptr);
        }
        ASSERT_EQ(overflow, 0);
        EXPECT_EQ(left, 0) << "blocks left behind when allocation " << k << " failed";
        if (reached < k) break;  // every allocation of a construction has failed once
        ASSERT_LT(k, 200) << "a construction that never ends allocating";
    }
    g_tracking.store(false);
    EXPECT_GT(threw, 0);
}

}  // namespace
