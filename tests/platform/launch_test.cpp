// The launch path of the emulated device: the argument block, the grid and
// the order of one stream.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "platform_util.h"
#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
using platform_test::ArgReader;
using platform_test::core_share;
using platform_test::descriptor;
using platform_test::launch;

// The block as core (0, 0) saw it; its first argument is the block's length.
std::vector<unsigned char> g_seen;

void echo_entry(const unsigned char* args) {
    if (tsuemu::global_core_id() == 0) g_seen.assign(args, args + ArgReader(args).next<long>());
}

TEST(ArgumentBlock, ReachesObserverAndKernelByteForByteWithZeroPadding) {
    auto ctx = device_context();
    const long len = 40;
    const int i = -2;
    const bool t = true, f = false;
    const float16 h = float16::from_bits(0x3c01);
    const double d = -1.25e-300;
    void* const p = reinterpret_cast<void*>(0x0102030405060708);
    // The slot rule written out: 8-byte values at multiples of 8, the rest at
    // multiples of 4, and every byte between them zero.
    std::vector<unsigned char> want(len, 0);
    const auto put = [&](std::size_t offset, const auto& v) { std::memcpy(want.data() + offset, &v, sizeof v); };
    put(0, len); put(8, i); put(12, t); put(16, f); put(20, h); put(24, d); put(32, p);

    const auto echo = descriptor(&echo_entry);
    LaunchCapture cap;
    const long ones = -1;  // leaves stale bytes where the next launch pads
    ASSERT_EQ(launch(echo, 1, 1, ctx->stream, len, ones, ones, ones, ones), TSU_SUCCESS);
    ASSERT_EQ(launch(echo, 2, 3, ctx->stream, len, i, t, f, h, d, p), TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(ctx->stream), TSU_SUCCESS);
    ASSERT_EQ(cap.size(), 2u);
    const LaunchRecord r = cap.records()[1];
    EXPECT_EQ(r.nclusters, 2);
    EXPECT_EQ(r.ncores, 3);
    EXPECT_EQ(r.stream, ctx->stream);
    EXPECT_TRUE(exactly_equal(want, r.args)) << "observer";
    EXPECT_TRUE(exactly_equal(want, g_seen)) << "kernel";
}

std::atomic<int> g_visits[8][64];

void visit_entry(const unsigned char*) {
    const int cl = tsuemu::cluster_id(), co = tsuemu::core_id();
    if (tsuemu::cluster_count() == 8 && tsuemu::core_count() == 64 && cl >= 0 && cl < 8 && co >= 0 && co < 64) {
        ++g_visits[cl][co];
    }
}

TEST(Grid, EveryCoreOfEightClustersOf64RunsExactlyOnce) {
    for (auto& cluster : g_visits) std::fill(std::begin(cluster), std::end(cluster), 0);
    auto ctx = device_context();
    ASSERT_EQ(launch(descriptor(&visit_entry), 8, 64, ctx->stream), TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(ctx->stream), TSU_SUCCESS);
    for (int cl = 0; cl < 8; ++cl) {
        for (int co = 0; co < 64; ++co) ASSERT_EQ(g_visits[cl][co].load(), 1) << "core (" << cl << ", " << co << ")";
    }
}

// x = 3 * x + k over each core's share: the result depends on the order of
// the launches.
void affine_entry(const unsigned char* args) {
    ArgReader r(args);
    auto* x = r.next<long*>();
    const long n = r.next<long>(), k = r.next<long>();
    long b, e;
    core_share(n, &b, &e);
    for (long i = b; i < e; ++i) x[i] = 3 * x[i] + k;
}

// y[i] = x[n - 1 - i]: reads what other cores of the launch before wrote.
void reverse_entry(const unsigned char* args) {
    ArgReader r(args);
    const auto* x = r.next<const long*>();
    auto* y = r.next<long*>();
    const long n = r.next<long>();
    long b, e;
    core_share(n, &b, &e);
    for (long i = b; i < e; ++i) y[i] = x[n - 1 - i];
}

class StreamOrder : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { tsuemu::set_sync_override(GetParam()); }
    void TearDown() override { tsuemu::set_sync_override(-1); }
};

TEST_P(StreamOrder, EachLaunchSeesWhatTheOneBeforeWrote) {
    EXPECT_EQ(tsuemu::sync_mode(), GetParam() == 1);
    auto ctx = device_context();
    const long n = 4099;
    GuardedBuffer<long> x(ctx.get(), std::vector<long>(n, 1)), y(ctx.get(), n);
    std::vector<long> want(n, 1);
    long *xp = x.data(), *yp = y.data();
    const auto affine = descriptor(&affine_entry), reverse = descriptor(&reverse_entry);
    for (long k = 0; k < 10; ++k) {
        ASSERT_EQ(launch(affine, 8, 64, ctx->stream, xp, n, k), TSU_SUCCESS);
        ASSERT_EQ(launch(reverse, 8, 64, ctx->stream, xp, yp, n), TSU_SUCCESS);
        ASSERT_EQ(launch(reverse, 8, 64, ctx->stream, yp, xp, n), TSU_SUCCESS);
        for (long& v : want) v = 3 * v + k;
    }
    EXPECT_TRUE(exactly_equal(want, x.download()));
}

INSTANTIATE_TEST_SUITE_P(SyncModes, StreamOrder, ::testing::Values(0, 1),
                         [](const auto& p) { return p.param ? "sync" : "async"; });

}  // namespace
