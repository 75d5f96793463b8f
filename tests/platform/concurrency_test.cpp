// Several threads on the runtime at once: streams keep their order and lose
// nothing, the grid executor and the host thread pool keep the jobs of
// concurrent callers apart, and a wait covers the launch that is running.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "platform_util.h"
#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
using namespace platform_test;
namespace cpu = orvane::tsu::api::cpu;

// Runs `body(t)` on `threads` threads at once, started together. A job the
// runtime loses leaves a thread waiting for ever: past a deadline far beyond
// any normal run the process ends, so that the test fails instead of hanging.
void together(int threads, const std::function<void(int)>& body) {
    std::atomic<int> ready{0};
    std::mutex mu;
    std::condition_variable all_done;
    int done = 0;
    std::vector<std::thread> team;
    for (int t = 0; t < threads; ++t) {
        team.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < threads) std::this_thread::yield();
            body(t);
            std::lock_guard<std::mutex> lk(mu);
            if (++done == threads) all_done.notify_one();
        });
    }
    {
        std::unique_lock<std::mutex> lk(mu);
        if (!all_done.wait_for(lk, std::chrono::seconds(120), [&] { return done == threads; })) {
            std::fprintf(stderr, "%d of %d threads still wait after 120 s: the runtime lost or stalled a job\n",
                         threads - done, threads);
            std::abort();
        }
    }
    for (auto& th : team) th.join();
}

using StreamOrder = SyncModes;

// Many more launches than a stream queues at once, from two threads on two
// streams, waited for only at the end: each stream runs all of its own, in
// order, each seeing what the one before wrote, and none of the other's.
TEST_P(StreamOrder, ManyLaunchesFromTwoThreadsCompleteInOrderPerStream) {
    constexpr long n = 1031;
    constexpr int launches = 600;
    std::vector<long> got[2];
    together(2, [&](int t) {
        auto ctx = device_context();
        GuardedBuffer<long> x(ctx.get(), std::vector<long>(n, t)), y(ctx.get(), n);
        long *xp = x.data(), *yp = y.data();
        const auto affine = descriptor(&affine_entry), reverse = descriptor(&reverse_entry);
        for (int k = 0; k < launches; k += 3) {
            EXPECT_EQ(launch(affine, 8, 64, ctx->stream, xp, n, static_cast<long>(k + t)), TSU_SUCCESS);
            EXPECT_EQ(launch(reverse, 8, 64, ctx->stream, xp, yp, n), TSU_SUCCESS);
            EXPECT_EQ(launch(reverse, 4, 16, ctx->stream, yp, xp, n), TSU_SUCCESS);
        }
        EXPECT_EQ(tsu_wait(ctx->stream), TSU_SUCCESS);
        got[t] = x.download();
    });
    for (int t = 0; t < 2; ++t) {
        long want = t;
        for (int k = 0; k < launches; k += 3) want = platform_test::affine(want, k + t);
        EXPECT_EQ(std::vector<long>(n, want), got[t]) << "stream of thread " << t;
    }
}

PLATFORM_SYNC_MODES(StreamOrder);

// A tenth of a microsecond or so of work, so that the jobs of concurrent
// callers are long enough to meet.
unsigned long busy_work(long seed) {
    volatile unsigned long v = static_cast<unsigned long>(seed);
    for (int i = 0; i < 64; ++i) v = v * 7 + 1;
    return v;
}

// Every core of a launch adds its stream's tag to its own counter once.
void tally_entry(const unsigned char* args) {
    ArgReader r(args);
    auto* counts = r.next<long*>();
    const long tag = r.next<long>();
    busy_work(tag);
    counts[tsuemu::global_core_id()] += tag;
}

// Two contexts launching on two threads while two more threads run the host
// thread pool: every job is served whole, by its own caller's state.
TEST(Executor, ConcurrentLaunchesAndHostJobsStayApart) {
    constexpr int rounds = 1000;
    together(4, [&](int t) {
        if (t < 2) {
            auto ctx = device_context();
            const long cores = 8 * 64;
            GuardedBuffer<long> counts(ctx.get(), std::vector<long>(cores, 0));
            for (int i = 0; i < rounds; ++i) {
                ASSERT_EQ(launch(descriptor(&tally_entry), 8, 64, ctx->stream, counts.data(), t + 1L), TSU_SUCCESS);
                if (i % 8 == 7) tsu_wait(ctx->stream);
            }
            EXPECT_EQ(std::vector<long>(cores, rounds * (t + 1L)), counts.download()) << "launcher " << t;
            return;
        }
        const long len = 1000 + t;
        for (int i = 0; i < rounds; ++i) {
            std::vector<std::atomic<int>> seen(static_cast<std::size_t>(len));
            cpu::internal::invoke_parallel(0, len, 1, [&](long b, long e) {
                for (long j = b; j < e; ++j) {
                    busy_work(j);
                    seen[static_cast<std::size_t>(j)].fetch_add(1);
                }
            });
            ASSERT_TRUE(std::all_of(seen.begin(), seen.end(), [](const auto& s) { return s.load() == 1; }))
                << "host caller " << t << ", round " << i;
        }
    });
}

// Raises the flag, then sleeps, then writes: a wait or copy issued after
// the flag is up meets the launch while it runs.
std::atomic<bool> g_running{false};

void flag_then_write_entry(const unsigned char* args) {
    ArgReader r(args);
    auto* x = r.next<long*>();
    const long v = r.next<long>();
    g_running.store(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    x[0] = v;
}

using RunningLaunch = SyncModes;

// The launch is queued by another thread (in the synchronous mode that
// thread runs it, inside tsu_launch_async); this thread waits for it to be
// running before it waits or copies, so each must wait for the running
// launch itself, not only for what is still queued.
TEST_P(RunningLaunch, WaitsAndCopiesCoverTheLaunchThatRuns) {
    using Wait = int (*)(Context*, long* dev, long* host);
    const std::pair<const char*, Wait> kinds[] = {
        {"tsu_wait", [](Context* c, long* dev, long* host) { const int rc = tsu_wait(c->stream); *host = *dev; return rc; }},
        {"tsu_memcpy", [](Context*, long* dev, long* host) { return tsu_memcpy(host, dev, 8, TSU_MEMCPY_D2H); }},
        {"do_device2host",
         [](Context* c, long* dev, long* host) { return orvane::tsu::api::do_device2host(c, dev, host, 8); }},
    };
    auto ctx = device_context();
    GuardedBuffer<long> x(ctx.get(), std::vector<long>{0});
    long* xp = x.data();
    long v = 0;
    for (const auto& [name, wait] : kinds) {
        ++v;
        g_running.store(false);
        std::thread launcher(
            [&] { EXPECT_EQ(launch(descriptor(&flag_then_write_entry), 1, 1, ctx->stream, xp, v), TSU_SUCCESS); });
        while (!g_running.load()) std::this_thread::yield();
        long out = -1;
        EXPECT_EQ(wait(ctx.get(), xp, &out), TSU_SUCCESS) << name;
        EXPECT_EQ(out, v) << name << " returned while the launch still ran";
        launcher.join();
    }
}

PLATFORM_SYNC_MODES(RunningLaunch);

}  // namespace
