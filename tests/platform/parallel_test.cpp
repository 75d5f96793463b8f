// The host thread pool of the reference paths.
#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <vector>

#include "support/tsuops_test.h"

namespace {

namespace cpu = orvane::tsu::api::cpu;

std::vector<std::pair<long, long>> chunks_of(long begin, long end, long grain) {
    std::mutex mu;
    std::vector<std::pair<long, long>> chunks;
    cpu::internal::invoke_parallel(begin, end, grain, [&](long b, long e) {
        std::lock_guard<std::mutex> lk(mu);
        chunks.emplace_back(b, e);
    });
    std::sort(chunks.begin(), chunks.end());
    return chunks;
}

class Tiling : public ::testing::TestWithParam<std::tuple<long, long, long>> {};

// Chunks of at least the grain (all of a shorter range): a kernel imitation
// that processes whole units of the grain relies on it.
TEST_P(Tiling, ChunksTileTheRangeExactlyAndHoldAtLeastTheGrain) {
    const auto [begin, end, grain] = GetParam();
    const auto chunks = chunks_of(begin, end, grain);
    ASSERT_FALSE(chunks.empty());
    EXPECT_LE(static_cast<int>(chunks.size()), cpu::get_num_threads());
    long next = begin;
    for (const auto& [b, e] : chunks) {
        EXPECT_EQ(b, next) << "gap or overlap";
        EXPECT_GE(e - b, std::min(grain, end - begin)) << "[" << b << ", " << e << ")";
        next = e;
    }
    EXPECT_EQ(next, end);
}

INSTANTIATE_TEST_SUITE_P(Ranges, Tiling,
                         ::testing::Values(std::tuple{0L, 1L, 0L}, std::tuple{-7L, 3L, 2L}, std::tuple{0L, 3L, 2L},
                                           std::tuple{0L, 7L, 100L}, std::tuple{0L, 100L, 40L},
                                           std::tuple{0L, 100000L, 64L}));

TEST(Parallel, EmptyRangeCallsNothing) {
    int calls = 0;
    cpu::internal::invoke_parallel(5, 5, 0, [&](long, long) { ++calls; });
    cpu::internal::invoke_parallel(5, 2, 0, [&](long, long) { ++calls; });
    EXPECT_EQ(calls, 0);
}

TEST(Parallel, NestedCallsRunWholeOnTheCallingThread) {
    std::mutex mu;
    std::vector<std::tuple<long, long, bool>> inner;  // range, same thread
    cpu::internal::invoke_parallel(0, 64, 0, [&](long, long) {
        const auto me = std::this_thread::get_id();
        cpu::internal::invoke_parallel(0, 1000, 0, [&](long b, long e) {
            std::lock_guard<std::mutex> lk(mu);
            inner.emplace_back(b, e, std::this_thread::get_id() == me);
        });
    });
    ASSERT_FALSE(inner.empty());
    for (const auto& c : inner) EXPECT_EQ(c, std::tuple(0L, 1000L, true));
}

TEST(Parallel, ExceptionReachesTheCallerAndThePoolSurvives) {
    for (long throw_at : {0L, 999L}) {
        const auto body = [&](long b, long e) {
            if (b <= throw_at && throw_at < e) throw std::runtime_error("x");
        };
        EXPECT_THROW(cpu::internal::invoke_parallel(0, 1000, 0, body), std::runtime_error) << throw_at;
        EXPECT_FALSE(cpu::in_parallel_region());
    }
    EXPECT_EQ(chunks_of(0, 100, 0).back().second, 100);
}

}  // namespace
