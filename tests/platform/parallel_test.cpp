// The host thread pool of the reference paths.
#include <algorithm>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <vector>

#include "support/tsuops_test.h"

namespace {

namespace cpu = orvane::tsu::api::cpu;

struct Chunk {
    long begin, end;
    int thread_num;
    bool in_parallel;
};

std::vector<Chunk> run_recorded(long begin, long end, long grain) {
    std::mutex mu;
    std::vector<Chunk> chunks;
    cpu::internal::invoke_parallel(begin, end, grain, [&](long b, long e) {
        std::lock_guard<std::mutex> lk(mu);
        chunks.push_back({b, e, cpu::get_thread_num(), cpu::in_parallel_region()});
    });
    std::sort(chunks.begin(), chunks.end(), [](const Chunk& a, const Chunk& b) { return a.begin < b.begin; });
    return chunks;
}

class Tiling : public ::testing::TestWithParam<std::tuple<long, long, long>> {};

TEST_P(Tiling, ChunksTileTheRangeExactly) {
    const auto [begin, end, grain] = GetParam();
    const auto chunks = run_recorded(begin, end, grain);
    ASSERT_FALSE(chunks.empty());
    EXPECT_EQ(chunks.front().begin, begin);
    EXPECT_EQ(chunks.back().end, end);
    for (std::size_t i = 0; i < chunks.size(); ++i) {
        EXPECT_LT(chunks[i].begin, chunks[i].end) << "empty chunk " << i;
        if (i > 0) {
            EXPECT_EQ(chunks[i].begin, chunks[i - 1].end) << "gap or overlap before chunk " << i;
        }
    }
    EXPECT_LE(static_cast<int>(chunks.size()), cpu::get_num_threads());
    std::set<int> nums;
    for (const Chunk& c : chunks) {
        EXPECT_GE(c.thread_num, 0);
        EXPECT_LT(c.thread_num, cpu::get_num_threads());
        nums.insert(c.thread_num);
        if (chunks.size() > 1) {
            EXPECT_TRUE(c.in_parallel);
        }
    }
    EXPECT_EQ(nums.size(), chunks.size()) << "two chunks ran under one thread number";
    EXPECT_FALSE(cpu::in_parallel_region());
    EXPECT_EQ(cpu::get_thread_num(), 0);
}

INSTANTIATE_TEST_SUITE_P(Ranges, Tiling,
                         ::testing::Values(std::tuple{0L, 1L, 0L}, std::tuple{0L, 10L, 0L}, std::tuple{0L, 10L, 1L},
                                           std::tuple{5L, 1005L, 0L}, std::tuple{-7L, 3L, 2L},
                                           std::tuple{0L, 100000L, 64L}, std::tuple{0L, 3L, 2L},
                                           std::tuple{0L, 7L, 100L}));

// The pool promises chunks of at least `grain` elements (all of the range if
// it is shorter): a kernel imitation that processes whole units of `grain`
// relies on it.
TEST(Parallel, ChunksAreAtLeastTheGrain) {
    for (const auto& [n, grain] : std::vector<std::pair<long, long>>{{3, 2}, {10, 3}, {100, 40}, {5, 4}}) {
        for (const Chunk& c : run_recorded(0, n, grain)) {
            EXPECT_GE(c.end - c.begin, std::min(grain, n)) << "n " << n << ", grain " << grain << ": chunk ["
                                                          << c.begin << ", " << c.end << ")";
        }
    }
}

TEST(Parallel, EmptyRangeCallsNothing) {
    int calls = 0;
    cpu::internal::invoke_parallel(5, 5, 0, [&](long, long) { ++calls; });
    cpu::internal::invoke_parallel(5, 2, 0, [&](long, long) { ++calls; });
    EXPECT_EQ(calls, 0);
}

TEST(Parallel, NestedCallsRunInlineOnTheCallingThread) {
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
    for (const auto& [b, e, same] : inner) {
        EXPECT_EQ(b, 0);
        EXPECT_EQ(e, 1000) << "a nested call was split";
        EXPECT_TRUE(same);
    }
}

TEST(Parallel, ExceptionReachesTheCallerAndThePoolSurvives) {
    for (long throw_at : {0L, 999L}) {
        EXPECT_THROW(cpu::internal::invoke_parallel(0, 1000, 0,
                                                    [&](long b, long e) {
                                                        if (b <= throw_at && throw_at < e) throw std::runtime_error("x");
                                                    }),
                     std::runtime_error)
            << "thrown in the chunk holding " << throw_at;
        EXPECT_FALSE(cpu::in_parallel_region());
    }
    EXPECT_THROW(cpu::internal::invoke_parallel(0, 1, 0, [](long, long) { throw std::logic_error("inline"); }),
                 std::logic_error);
    EXPECT_EQ(run_recorded(0, 100, 0).back().end, 100);
}

TEST(Parallel, ThreadNumberCanBeSetAndRestored) {
    const int saved = cpu::get_thread_num();
    cpu::internal::set_thread_num(5);
    EXPECT_EQ(cpu::get_thread_num(), 5);
    cpu::internal::set_thread_num(saved);
    EXPECT_EQ(cpu::get_thread_num(), saved);
    EXPECT_GE(cpu::get_num_threads(), 1);
}

}  // namespace
