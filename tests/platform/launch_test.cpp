// The launch path of the emulated device: argument blocks, kernel names,
// the grid, stream order, several streams and threads.
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "platform_util.h"
#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
using platform_test::ArgReader;
using platform_test::core_share;
using platform_test::descriptor;
using platform_test::launch;

// ---- argument block ---------------------------------------------------------------------
// What the last launch of args_echo saw, written by core (0, 0) only.
std::vector<unsigned char> g_seen_args;
std::size_t g_seen_len = 0;

void args_echo_entry(const unsigned char* args) {
    if (tsuemu::global_core_id() != 0) return;
    std::memcpy(g_seen_args.data(), args, g_seen_len);
}

template <class T>
std::vector<unsigned char> bytes_of(const T& v) {
    std::vector<unsigned char> b(sizeof(T));
    std::memcpy(b.data(), &v, sizeof(T));
    return b;
}

TEST(ArgumentBlock, ReachesObserverAndKernelByteForByte) {
    // A mixed signature by the slot rule: a pointer, an int, two bools 4
    // apart, a float16, then 8-byte values realigned to 8, and one argument
    // at the very end of the block.
    const double d = -1.25e-300;
    const long l = -0x123456789abcdefl;
    const std::vector<std::pair<std::size_t, std::vector<unsigned char>>> slots = {
        {0, {1, 2, 3, 4, 5, 6, 7, 8}},
        {8, {0xff, 0xfe, 0xfd, 0x7f}},
        {12, {1}},
        {16, {0}},
        {20, bytes_of(float16::from_bits(0x3c00))},
        {24, bytes_of(d)},
        {32, bytes_of(l)},
        {4088, {9, 8, 7, 6, 5, 4, 3, 2}},
    };
    auto ctx = device_context();
    g_seen_len = 4096;
    g_seen_args.assign(4096, 0);
    const auto desc = descriptor(&args_echo_entry, "_ZN4tsu39args_echoEv");
    LaunchCapture cap;
    ASSERT_EQ(tsu_launch_config(2, 3, ctx->stream), TSU_SUCCESS);
    for (const auto& [offset, bytes] : slots) {
        ASSERT_EQ(tsu_launch_argument_set(bytes.data(), bytes.size(), offset), TSU_SUCCESS) << "offset " << offset;
    }
    ASSERT_EQ(tsu_launch_async(&desc), TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(ctx->stream), TSU_SUCCESS);

    ASSERT_EQ(cap.size(), 1u);
    const LaunchRecord r = cap.records()[0];
    EXPECT_EQ(r.nclusters, 2);
    EXPECT_EQ(r.ncores, 3);
    EXPECT_EQ(r.stream, ctx->stream);
    ASSERT_EQ(r.args.size(), 4096u) << "the block runs to the highest byte set";
    for (const auto& [offset, bytes] : slots) {
        const std::vector<unsigned char> seen_by_observer(r.args.begin() + static_cast<long>(offset),
                                                          r.args.begin() + static_cast<long>(offset + bytes.size()));
        const std::vector<unsigned char> seen_by_kernel(g_seen_args.begin() + static_cast<long>(offset),
                                                        g_seen_args.begin() + static_cast<long>(offset + bytes.size()));
        EXPECT_TRUE(exactly_equal(bytes, seen_by_observer)) << "observer, offset " << offset;
        EXPECT_TRUE(exactly_equal(bytes, seen_by_kernel)) << "kernel, offset " << offset;
    }
    EXPECT_EQ(LaunchCapture::arg<double>(r, 24), d);
    EXPECT_EQ(LaunchCapture::arg<long>(r, 32), l);
    EXPECT_TRUE(LaunchCapture::arg<bool>(r, 12));
    EXPECT_FALSE(LaunchCapture::arg<bool>(r, 16));
    EXPECT_EQ(LaunchCapture::arg<int>(r, 8), 0x7ffdfeff);
    EXPECT_EQ(std::memcmp(r.args.data(), g_seen_args.data(), r.args.size()), 0)
        << "the kernel saw another block than the observer";
}

TEST(ArgumentBlock, ObserverRecordEndsAtTheHighestByteSet) {
    auto ctx = device_context();
    const auto desc = descriptor(&platform_test::noop_entry, platform_test::kNoopName);
    LaunchCapture cap;
    const int a = 7;
    const bool flag = true;
    ASSERT_EQ(launch(desc, 1, 1, ctx->stream, a, flag), TSU_SUCCESS);
    ASSERT_EQ(launch(desc, 1, 1, ctx->stream), TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(ctx->stream), TSU_SUCCESS);
    ASSERT_EQ(cap.size(), 2u);
    EXPECT_EQ(cap.records()[0].args.size(), 5u) << "a bool is set with its true size";
    EXPECT_EQ(cap.records()[1].args.size(), 0u);
}

// Bytes that this launch never set must not carry another launch's data:
// a block that depends on what the thread launched before cannot be compared
// byte for byte.
TEST(ArgumentBlock, GapsHoldNoStaleBytesOfAnEarlierLaunch) {
    auto ctx = device_context();
    const auto desc = descriptor(&platform_test::noop_entry, platform_test::kNoopName);
    LaunchCapture cap;
    const long fill = -1;
    ASSERT_EQ(launch(desc, 1, 1, ctx->stream, fill, fill), TSU_SUCCESS);
    // An int then a pointer: bytes 4..7 are padding.
    const int i = 1;
    const void* p = nullptr;
    ASSERT_EQ(launch(desc, 1, 1, ctx->stream, i, p), TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(ctx->stream), TSU_SUCCESS);
    const LaunchRecord r = cap.records().at(1);
    ASSERT_EQ(r.args.size(), 16u);
    for (std::size_t b = 4; b < 8; ++b) EXPECT_EQ(r.args[b], 0) << "padding byte " << b;
}

// ---- kernel names --------------------------------------------------------------------------
struct NameCase {
    const char* mangled;
    const char* demangled;
};

void PrintTo(const NameCase& c, std::ostream* os) { *os << c.mangled; }

class KernelName : public ::testing::TestWithParam<NameCase> {};

TEST_P(KernelName, ObserverGetsTheDemangledNameWithoutReturnType) {
    const auto desc = descriptor(&platform_test::noop_entry, GetParam().mangled);
    LaunchCapture cap;
    ASSERT_EQ(launch(desc, 1, 1, nullptr), TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(nullptr), TSU_SUCCESS);
    ASSERT_EQ(cap.size(), 1u);
    EXPECT_EQ(cap.kernels()[0], GetParam().demangled);
}

INSTANTIATE_TEST_SUITE_P(
    Names, KernelName,
    ::testing::Values(
        NameCase{"_ZN4tsu314infer_constantIfEEvPclT_", "tsu3::infer_constant<float>(char*, long, float)"},
        NameCase{"_ZN4tsu312infer_swigluI7float16EEvPKT_S4_PS2_lllb",
                 "tsu3::infer_swiglu<float16>(float16 const*, float16 const*, float16*, long, long, long, bool)"},
        NameCase{"_ZN4tsu322infer_cluster_cast_mk3I8bfloat16aEEvPKT_PT0_l",
                 "tsu3::infer_cluster_cast_mk3<bfloat16, signed char>(bfloat16 const*, signed char*, long)"},
        NameCase{"_ZN4tsu34fillEPflf", "tsu3::fill(float*, long, float)"},
        NameCase{"not_mangled", "not_mangled"}));

TEST(KernelNameNull, NullNameGivesEmptyString) {
    const tsuemu::KernelDescriptor desc = descriptor(&platform_test::noop_entry, nullptr);
    LaunchCapture cap;
    ASSERT_EQ(launch(desc, 1, 1, nullptr), TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(nullptr), TSU_SUCCESS);
    ASSERT_EQ(cap.size(), 1u);
    EXPECT_EQ(cap.kernels()[0], "");
}

// ---- the grid -----------------------------------------------------------------------------------
struct GridProbe {
    std::atomic<int> visits[16][64];
    std::atomic<int> bad_counts{0};
    std::atomic<int> bad_global{0};
    int clusters = 0;
    int cores = 0;
};

void grid_probe_entry(const unsigned char* args) {
    ArgReader r(args);
    auto* probe = r.next<GridProbe*>();
    const int cl = tsuemu::cluster_id();
    const int co = tsuemu::core_id();
    if (tsuemu::cluster_count() != probe->clusters || tsuemu::core_count() != probe->cores) ++probe->bad_counts;
    if (tsuemu::global_core_id() != cl * probe->cores + co || tsuemu::global_core_count() != probe->clusters * probe->cores)
        ++probe->bad_global;
    if (cl >= 0 && cl < 16 && co >= 0 && co < 64) ++probe->visits[cl][co];
}

class Grid : public ::testing::TestWithParam<std::pair<int, int>> {};

TEST_P(Grid, VisitsEveryCoreExactlyOnce) {
    const auto [clusters, cores] = GetParam();
    auto probe = std::make_unique<GridProbe>();
    for (auto& row : probe->visits)
        for (auto& v : row) v = 0;
    probe->clusters = clusters;
    probe->cores = cores;
    auto ctx = device_context();
    const auto desc = descriptor(&grid_probe_entry, "_ZN4tsu35probeEPv");
    GridProbe* p = probe.get();
    ASSERT_EQ(launch(desc, clusters, cores, ctx->stream, p), TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(ctx->stream), TSU_SUCCESS);
    EXPECT_EQ(probe->bad_counts.load(), 0);
    EXPECT_EQ(probe->bad_global.load(), 0);
    int wrong = 0;
    for (int cl = 0; cl < 16; ++cl) {
        for (int co = 0; co < 64; ++co) {
            const int want = (cl < clusters && co < cores) ? 1 : 0;
            if (probe->visits[cl][co].load() != want) {
                if (wrong++ == 0) {
                    ADD_FAILURE() << "core (" << cl << ", " << co << ") ran " << probe->visits[cl][co].load()
                                  << " times";
                }
            }
        }
    }
    EXPECT_EQ(wrong, 0);
}

INSTANTIATE_TEST_SUITE_P(Shapes, Grid,
                         ::testing::Values(std::pair{8, 64}, std::pair{1, 1}, std::pair{3, 5}, std::pair{8, 8},
                                           std::pair{16, 64}),
                         [](const auto& p) {
                             return std::to_string(p.param.first) + "x" + std::to_string(p.param.second);
                         });

TEST(Grid, AccessorsOutsideALaunch) {
    EXPECT_EQ(tsuemu::cluster_id(), 0);
    EXPECT_EQ(tsuemu::core_id(), 0);
    EXPECT_EQ(tsuemu::cluster_count(), 1);
    EXPECT_EQ(tsuemu::core_count(), 1);
    EXPECT_EQ(tsuemu::global_core_count(), 1);
}

// ---- stream order ------------------------------------------------------------------------------
// x = 3 * x + k over each core's share: the final value depends on the order
// of the launches, and a launch that overlapped its predecessor would read
// half-updated data.
void affine_entry(const unsigned char* args) {
    ArgReader r(args);
    auto* x = r.next<long*>();
    const long n = r.next<long>();
    const long k = r.next<long>();
    long b, e;
    core_share(n, &b, &e);
    for (long i = b; i < e; ++i) x[i] = 3 * x[i] + k;
}

// y[i] = x[n - 1 - i]: reads what other cores of the previous launch wrote.
void reverse_entry(const unsigned char* args) {
    ArgReader r(args);
    const auto* x = r.next<const long*>();
    auto* y = r.next<long*>();
    const long n = r.next<long>();
    long b, e;
    core_share(n, &b, &e);
    for (long i = b; i < e; ++i) y[i] = x[n - 1 - i];
}

const auto kAffine = descriptor(&affine_entry, "_ZN4tsu36affineEPlll");
const auto kReverse = descriptor(&reverse_entry, "_ZN4tsu37reverseEPKlPll");

class StreamOrder : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { tsuemu::set_sync_override(GetParam()); }
    void TearDown() override { tsuemu::set_sync_override(-1); }
};

TEST_P(StreamOrder, LaterLaunchesSeeEarlierResults) {
    EXPECT_EQ(tsuemu::sync_mode(), GetParam() == 1);
    auto ctx = device_context();
    const long n = 4099;
    GuardedBuffer<long> x(ctx.get(), std::vector<long>(n, 1));
    GuardedBuffer<long> y(ctx.get(), n);
    std::vector<long> want(n, 1);
    long* xp = x.data();
    long* yp = y.data();
    for (long k = 0; k < 20; ++k) {
        ASSERT_EQ(launch(kAffine, ctx->ncluster, 64, ctx->stream, xp, n, k), TSU_SUCCESS);
        for (auto& v : want) v = 3 * v + k;
        ASSERT_EQ(launch(kReverse, ctx->ncluster, 64, ctx->stream, static_cast<const long*>(xp), yp, n), TSU_SUCCESS);
        ASSERT_EQ(launch(kReverse, ctx->ncluster, 64, ctx->stream, static_cast<const long*>(yp), xp, n), TSU_SUCCESS);
    }
    EXPECT_TRUE(exactly_equal(want, x.download()));
}

TEST_P(StreamOrder, SyncModeRunsTheLaunchBeforeAsyncReturns) {
    if (GetParam() != 1) GTEST_SKIP() << "asynchronous mode promises no timing";
    auto ctx = device_context();
    GuardedBuffer<long> x(ctx.get(), std::vector<long>(100, 2));
    long* xp = x.data();
    const long n = 100;
    const long k = 1;
    ASSERT_EQ(launch(kAffine, 8, 64, ctx->stream, xp, n, k), TSU_SUCCESS);
    // No wait: read the device memory directly.
    for (long i = 0; i < n; ++i) ASSERT_EQ(xp[i], 7) << i;
}

INSTANTIATE_TEST_SUITE_P(SyncModes, StreamOrder, ::testing::Values(0, 1),
                         [](const auto& p) { return p.param ? "sync" : "async"; });

// ---- several streams --------------------------------------------------------------------------
void slow_set_entry(const unsigned char* args) {
    ArgReader r(args);
    auto* x = r.next<long*>();
    const long v = r.next<long>();
    if (tsuemu::global_core_id() != 0) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    x[0] = v;
}
const auto kSlowSet = descriptor(&slow_set_entry, "_ZN4tsu38slow_setEPll");

TEST(Streams, IndependentStreamsEachKeepTheirOrder) {
    constexpr int kStreams = 4;
    const long n = 1000;
    std::vector<void*> streams(kStreams);
    for (auto& s : streams) ASSERT_EQ(tsu_stream_create(&s), TSU_SUCCESS);
    auto ctx = device_context();
    std::vector<GuardedBuffer<long>> bufs;
    for (int s = 0; s < kStreams; ++s) bufs.emplace_back(ctx.get(), std::vector<long>(n, s));
    std::vector<std::vector<long>> want(kStreams);
    for (int s = 0; s < kStreams; ++s) want[s].assign(n, s);
    for (long k = 0; k < 6; ++k) {
        for (int s = 0; s < kStreams; ++s) {
            long* xp = bufs[s].data();
            const long kk = k + s;
            ASSERT_EQ(launch(kAffine, 8, 64, streams[s], xp, n, kk), TSU_SUCCESS);
            for (auto& v : want[s]) v = 3 * v + kk;
        }
    }
    for (int s = 0; s < kStreams; ++s) {
        ASSERT_EQ(tsu_wait(streams[s]), TSU_SUCCESS);
        // Read directly: the buffers' own waits are for the context's stream.
        std::vector<long> got(bufs[s].data(), bufs[s].data() + n);
        EXPECT_TRUE(exactly_equal(want[s], got)) << "stream " << s;
    }
    for (auto s : streams) EXPECT_EQ(tsu_stream_destroy(s), TSU_SUCCESS);
}

TEST(Streams, MemcpyIsOrderedAfterEveryStream) {
    void* s = nullptr;
    ASSERT_EQ(tsu_stream_create(&s), TSU_SUCCESS);
    void* dev = nullptr;
    ASSERT_EQ(tsu_malloc(&dev, 64, 3), TSU_SUCCESS);
    static_cast<long*>(dev)[0] = 0;
    long* xp = static_cast<long*>(dev);
    const long v = 42;
    ASSERT_EQ(launch(kSlowSet, 1, 4, s, xp, v), TSU_SUCCESS);
    long out = -1;
    ASSERT_EQ(tsu_memcpy(&out, dev, sizeof out, TSU_MEMCPY_D2H), TSU_SUCCESS);
    EXPECT_EQ(out, 42) << "tsu_memcpy overtook the queued kernel";
    EXPECT_EQ(tsu_stream_destroy(s), TSU_SUCCESS);
    EXPECT_EQ(tsu_free(dev), TSU_SUCCESS);
}

TEST(Streams, TransfersAreOrderedAfterTheContextsStream) {
    auto ctx = device_context();
    GuardedBuffer<long> x(ctx.get(), std::vector<long>(8, 0));
    long* xp = x.data();
    const long v = 9;
    ASSERT_EQ(launch(kSlowSet, 1, 4, ctx->stream, xp, v), TSU_SUCCESS);
    long out = -1;
    ASSERT_EQ(orvane::tsu::api::do_device2host(ctx.get(), xp, &out, sizeof out), 0);
    EXPECT_EQ(out, 9);
    const long in = 5;
    ASSERT_EQ(launch(kSlowSet, 1, 4, ctx->stream, xp, v), TSU_SUCCESS);
    ASSERT_EQ(orvane::tsu::api::do_host2device(ctx.get(), &in, xp, sizeof in), 0);
    EXPECT_EQ(x.download()[0], 5) << "the kernel's write landed after the transfer";
}

TEST(Streams, DestroyingAStreamDrainsIt) {
    void* s = nullptr;
    ASSERT_EQ(tsu_stream_create(&s), TSU_SUCCESS);
    std::vector<long> host(1, 0);
    long* xp = host.data();
    const long v = 3;
    ASSERT_EQ(launch(kSlowSet, 1, 1, s, xp, v), TSU_SUCCESS);
    ASSERT_EQ(tsu_stream_destroy(s), TSU_SUCCESS);
    EXPECT_EQ(host[0], 3);
    EXPECT_NE(tsu_wait(s), TSU_SUCCESS) << "a destroyed stream is no longer known";
}

TEST(Streams, DestroyingAContextDrainsItsStream) {
    std::vector<long> host(1, 0);
    {
        auto ctx = device_context();
        long* xp = host.data();
        const long v = 4;
        ASSERT_EQ(launch(kSlowSet, 1, 1, ctx->stream, xp, v), TSU_SUCCESS);
    }
    EXPECT_EQ(host[0], 4);
}

// ---- the pending launch belongs to the thread --------------------------------------------
TEST(Threads, InterleavedLaunchesOfTwoThreadsKeepTheirOwnArguments) {
    auto ctx = device_context();
    std::vector<long> a(64, 0), b(64, 0);
    std::barrier sync(2);
    LaunchCapture cap;
    auto body = [&](long* x, long k) {
        const long n = 64;
        int rc = tsu_launch_config(2, 4, ctx->stream);
        sync.arrive_and_wait();  // both configured
        if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&x, 8, 0);
        sync.arrive_and_wait();  // both set their first argument
        if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&n, 8, 8);
        if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&k, 8, 16);
        sync.arrive_and_wait();
        if (rc == TSU_SUCCESS) rc = tsu_launch_async(&kAffine);
        EXPECT_EQ(rc, TSU_SUCCESS);
    };
    std::thread t1(body, a.data(), 10);
    std::thread t2(body, b.data(), 20);
    t1.join();
    t2.join();
    ASSERT_EQ(tsu_wait(ctx->stream), TSU_SUCCESS);
    EXPECT_TRUE(all_equal(a, 10L));
    EXPECT_TRUE(all_equal(b, 20L));
    EXPECT_EQ(cap.size(), 2u);
}

TEST(Threads, ObserverRunsOnTheLaunchingThreadBeforeTheKernel) {
    std::atomic<bool> kernel_ran{false};
    static std::atomic<bool>* flag;
    flag = &kernel_ran;
    const auto desc = descriptor(+[](const unsigned char*) { flag->store(true); }, "_ZN4tsu34markEv");
    const auto me = std::this_thread::get_id();
    bool same_thread = false;
    bool ran_before = true;
    tsuemu::set_launch_observer([&](const LaunchRecord&) {
        same_thread = std::this_thread::get_id() == me;
        ran_before = kernel_ran.load();
    });
    const int rc = launch(desc, 1, 1, nullptr);
    tsuemu::set_launch_observer({});
    ASSERT_EQ(rc, TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(nullptr), TSU_SUCCESS);
    EXPECT_TRUE(same_thread);
    EXPECT_FALSE(ran_before);
    EXPECT_TRUE(kernel_ran.load());
}

}  // namespace
