// The launch path of the emulated device: the argument block and the grid
// (the order of a stream is in the concurrency tests).
#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "platform_util.h"
#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
using namespace platform_test;

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
    EXPECT_EQ(want, r.args) << "observer";
    EXPECT_EQ(want, g_seen) << "kernel";
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

}  // namespace
