// The index operators of the token flow: the worked example of the slot
// order on both paths; random routing tables device against host bit for bit,
// with their launches, and against the properties that tie the arrays
// together; expert numbers out of range; bad calls.
#include <algorithm>
#include <numeric>
#include <tuple>
#include <string>
#include <vector>

#include "kernels/moe/moe_index.h"
#include "kernels/moe/token_index.h"
#include "moe_test.h"
#include "wrapper/moe/moe_select.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace moe_test;
namespace mi = infer_ops::moe_index;

// Sentinel of slots and blocks that must stay unwritten.
constexpr int kUnset = -7;

// Every index array of one routing table on one context, with the sum of
// the operators' statuses.
struct IndexArrays {
    long m, k, n, block_num, block_size;
    GuardedBuffer<int> table, counts, lod, gather, scatter, twice, stat, padded, block_experts, total;
    GuardedBuffer<long> lod_long;
    int status = -1;

    IndexArrays(Context* ctx, const std::vector<int>& tab, long m_, long k_, long n_, long blocks, long bs)
        : m(m_), k(k_), n(n_), block_num(blocks), block_size(bs), table(ctx, tab), counts(ctx, histogram(tab, n_)),
          lod(ctx, n + 1), gather(ctx, m * k), scatter(ctx, m * k), twice(ctx, m * k), stat(ctx, blocks * n),
          padded(ctx, std::vector<int>(mi::padded_capacity(n, bs, m * k), kUnset)),
          block_experts(ctx, std::vector<int>(mi::padded_blocks(n, bs, m * k), kUnset)), total(ctx, 1),
          lod_long(ctx, n + 1) {
        if (::testing::Test::IsSkipped()) return;
        status = infer_ops::moe_sorted_topk_idx<int>(ctx, table.data(), lod.data(), gather.data(), m, k, n) +
                 infer_ops::moe_resort_idx<int>(ctx, gather.data(), scatter.data(), m * k, 0) +
                 infer_ops::moe_resort_idx<int>(ctx, scatter.data(), twice.data(), m * k, 0) +
                 infer_ops::gen_block_statistic<int>(ctx, table.data(), stat.data(), m, n, k, blocks) +
                 infer_ops::moe_align_block_size<int>(ctx, table.data(), padded.data(), block_experts.data(),
                                                      total.data(), n, bs, m * k) +
                 infer_ops::moe_expert_m_to_lod<int, long>(ctx, counts.data(), lod_long.data(), n, bs % 2 == 0);
    }

    static std::vector<int> histogram(const std::vector<int>& table, long n) {
        std::vector<int> h(static_cast<std::size_t>(n));
        for (int e : table) ++h[e];
        return h;
    }
};

// m = 3, k = 2, n = 4, the table 2 0 1 2 0 2, two token blocks, block_size 2.
TEST(MoeIndex, WorkedExampleOnBothPaths) {
    for (const auto& ctx : {reference_context(), emulated_device()}) {
        SCOPED_TRACE("device type " + std::to_string(ctx->dev_type));
        IndexArrays a(ctx.get(), {2, 0, 1, 2, 0, 2}, 3, 2, 4, 2, 2);
        TSUOPS_RETURN_IF_SKIPPED();
        const int _ = kUnset;
        EXPECT_EQ(a.status, 0);
        EXPECT_EQ(a.lod.download(), (std::vector<int>{0, 2, 3, 6, 6}));
        EXPECT_EQ(a.gather.download(), (std::vector<int>{1, 4, 2, 0, 3, 5}));
        EXPECT_EQ(a.scatter.download(), (std::vector<int>{3, 0, 2, 4, 1, 5}));
        EXPECT_EQ(a.stat.download(), (std::vector<int>{1, 1, 2, 0, 1, 0, 1, 0}));
        EXPECT_EQ(a.padded.download(), (std::vector<int>{1, 4, 2, _, 0, 3, 5, _, _, _}));
        EXPECT_EQ(a.block_experts.download(), (std::vector<int>{0, 1, 2, 2, _}));
        EXPECT_EQ(a.total.download(), std::vector<int>{8});
        EXPECT_EQ(a.lod_long.download(), (std::vector<long>{0, 2, 3, 6, 6}));
    }
}

// What ties the arrays of one table together, on the host's.
void expect_consistent(const IndexArrays& a, const std::vector<int>& table) {
    const auto lod = a.lod.download(), gather = a.gather.download(), scatter = a.scatter.download();
    const auto counts = a.counts.download();
    const auto lod_long = a.lod_long.download();
    // The offsets are the running sum of the counts, here and from the counts alone.
    for (long e = 0; e <= a.n; ++e) ASSERT_TRUE(lod[e] == (e ? lod[e - 1] + counts[e - 1] : 0) && lod_long[e] == lod[e]);
    // Each expert's slots hold its flat positions in ascending order: the
    // counting-sort order, which makes the gather form a permutation.
    for (long s = 0; s < a.m * a.k; ++s) {
        const long e = std::upper_bound(lod.begin(), lod.end(), s) - lod.begin() - 1;
        ASSERT_EQ(table[gather[s]], e) << "slot " << s;
        ASSERT_TRUE(s == lod[e] || gather[s - 1] < gather[s]) << "slot " << s;
        ASSERT_EQ(scatter[gather[s]], s) << "the scatter form inverts the gather form";
    }
    EXPECT_EQ(a.twice.download(), gather) << "resorting twice gives the input back";
    // Each block's row counts k pairs per token of the block, all rows m * k.
    const auto stat = a.stat.download();
    for (long b = 0; b < a.block_num; ++b) {
        const auto span = mi::token_block(b, a.block_num, a.m);
        EXPECT_EQ(std::accumulate(stat.begin() + b * a.n, stat.begin() + (b + 1) * a.n, 0L), (span.end - span.begin) * a.k);
    }
    EXPECT_EQ(std::accumulate(stat.begin(), stat.end(), 0L), a.m * a.k);
    // Each expert's run starts at a multiple of block_size and holds its
    // gather run; its padding and everything past the total stay unwritten;
    // its blocks name it.
    const auto padded = a.padded.download(), blocks = a.block_experts.download();
    long offset = 0;
    for (long e = 0; e < a.n; ++e) {
        const long c = counts[e], run = (c + a.block_size - 1) / a.block_size * a.block_size;
        for (long i = 0; i < run; ++i) ASSERT_EQ(padded[offset + i], i < c ? gather[lod[e] + i] : kUnset) << e;
        for (long b = offset; b < offset + run; b += a.block_size) ASSERT_EQ(blocks[b / a.block_size], e) << b;
        offset += run;
    }
    EXPECT_EQ(a.total.download()[0], offset);
    EXPECT_TRUE(std::all_of(padded.begin() + offset, padded.end(), [](int v) { return v == kUnset; }));
    EXPECT_TRUE(std::all_of(blocks.begin() + offset / a.block_size, blocks.end(), [](int v) { return v == kUnset; }));
}

TEST(MoeIndex, RandomTablesDeviceMatchesHostAndTheArraysAgree) {
    struct Case {
        long m, k, n;
        bool skewed;
        long block_num, block_size;
    };
    const long most = tsuops::kernels::moe::kSortedTopkExpertLimit - 1;
    const Case cases[] = {{1, 1, 1, false, 1, 1},     {5, 2, 4, false, 3, 2},     {64, 8, 16, true, 70, 16},
                          {300, 8, 256, false, 12, 64}, {129, 6, most, true, 5, 3}, {40, 3, 7, false, 40, 1}};
    auto host = reference_context();
    auto dev = emulated_device();
    std::uint64_t seed = 40;
    for (const Case& c : cases) {
        SCOPED_TRACE("m " + std::to_string(c.m) + " k " + std::to_string(c.k) + " n " + std::to_string(c.n));
        const auto table = routing_table(c.m, c.k, c.n, ++seed, c.skewed);
        IndexArrays want(host.get(), table, c.m, c.k, c.n, c.block_num, c.block_size);
        LaunchCapture launches;
        IndexArrays got(dev.get(), table, c.m, c.k, c.n, c.block_num, c.block_size);
        TSUOPS_RETURN_IF_SKIPPED();
        EXPECT_TRUE(want.status == 0 && got.status == 0);
        for (auto [w, g] : {std::pair{&want.lod, &got.lod}, {&want.gather, &got.gather}, {&want.scatter, &got.scatter},
                            {&want.twice, &got.twice}, {&want.stat, &got.stat}, {&want.padded, &got.padded},
                            {&want.block_experts, &got.block_experts}, {&want.total, &got.total}}) {
            EXPECT_TRUE(same_bits(*w, *g));
        }
        EXPECT_TRUE(same_bits(want.lod_long, got.lod_long));
        expect_consistent(want, table);

        // Kernel and grid of each launch: one cluster per block for the
        // histogram, the GMX engine for the offsets where asked.
        const bool gmx = c.block_size % 2 == 0;
        const std::vector<std::tuple<std::string, int, int>> plan = {
            {"tsu3::infer_moe_sorted_topk_idx(long, long, long, int const*, int*, int*)", kClusters, 64},
            {"tsu3::moe_resort_idx<int, int>(int const*, int*, int)", kClusters, 64},
            {"tsu3::moe_resort_idx<int, int>(int const*, int*, int)", kClusters, 64},
            {"tsu3::gen_block_statistic<int>(int const*, int*, long, long, long, long)", int(c.block_num), 64},
            {"tsu3::infer_moe_align_block_size<int>(int const*, int*, int*, int*, long, long, long)", kClusters, 64},
            {gmx ? "tsu3::infer_moe_expert_m_to_lod_gmx<int, long>(int const*, long*, long)"
                 : "tsu3::infer_moe_expert_m_to_lod<int, long>(int const*, long*, long)",
             gmx ? kGmx : kClusters, gmx ? 8 : 64}};
        const auto rec = launches.records();
        ASSERT_EQ(rec.size(), plan.size());
        for (std::size_t i = 0; i < plan.size(); ++i) {
            EXPECT_EQ(std::tuple(rec[i].kernel, rec[i].nclusters, rec[i].ncores), plan[i]);
        }
        EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 0) * LaunchCapture::arg<long>(rec[0], 8), c.m * c.k);
        EXPECT_EQ(LaunchCapture::arg<long>(rec[3], 40), c.block_num);
        EXPECT_EQ(LaunchCapture::arg<long>(rec[4], 40), c.block_size);
    }
}

// The other three type pairs of moe_expert_m_to_lod; an int sum wraps.
TEST(MoeIndex, ExpertCountsToOffsetsInEveryTypePair) {
    const auto run = [](auto tin, auto tout, std::vector<decltype(tout)> want) {
        using TIN = decltype(tin);
        using TOUT = decltype(tout);
        for (const auto& ctx : {reference_context(), emulated_device()}) {
            GuardedBuffer<TIN> in(ctx.get(), std::vector<TIN>{5, 0, 2147483647, 3});
            GuardedBuffer<TOUT> out(ctx.get(), 5);
            TSUOPS_RETURN_IF_SKIPPED();
            ASSERT_EQ((infer_ops::moe_expert_m_to_lod<TIN, TOUT>(ctx.get(), in.data(), out.data(), 4, true)), 0);
            EXPECT_EQ(out.download(), want) << spelled<TIN>() << " to " << spelled<TOUT>() << " on " << ctx->dev_type;
        }
    };
    run(int{}, int{}, {0, 5, 5, -2147483644, -2147483641});
    run(long{}, int{}, {0, 5, 5, -2147483644, -2147483641});
    run(long{}, long{}, {0, 5, 5, 2147483652, 2147483655});
}

// The reference paths of the two operators that read values stop with 1 and
// no log; the kernels give such entries nothing; the others skip them on
// both paths.
TEST(MoeIndex, ValuesOutOfRange) {
    for (const auto& ctx : {reference_context(), emulated_device()}) {
        const bool host = ctx->dev_type == 0;
        SCOPED_TRACE(host ? "host" : "device");
        // m 2, k 2, n 4: flat position 2 names no expert.
        GuardedBuffer<int> t(ctx.get(), std::vector<int>{1, 0, 5, 2}), lod(ctx.get(), std::vector<int>(5, kUnset)),
            idx(ctx.get(), std::vector<int>(4, kUnset));
        GuardedBuffer<int> gather(ctx.get(), std::vector<int>{2, 0, 7, 1}), out(ctx.get(), std::vector<int>(4, kUnset));
        GuardedBuffer<int> stat(ctx.get(), 8), padded(ctx.get(), std::vector<int>(8, kUnset)), blocks(ctx.get(), 6),
            total(ctx.get(), 1);
        TSUOPS_RETURN_IF_SKIPPED();
        LogCapture logs;
        EXPECT_EQ(infer_ops::moe_sorted_topk_idx<int>(ctx.get(), t.data(), lod.data(), idx.data(), 2, 2, 4), host ? 1 : 0);
        // The host counted up to the bad entry and placed nothing.
        EXPECT_EQ(lod.download(), host ? (std::vector<int>{0, 1, 1, 0, 0}) : (std::vector<int>{0, 1, 2, 3, 3}));
        EXPECT_EQ(idx.download(), host ? std::vector<int>(4, kUnset) : (std::vector<int>{1, 0, 3, kUnset}));
        EXPECT_EQ(infer_ops::moe_resort_idx<int>(ctx.get(), gather.data(), out.data(), 4, 0), host ? 1 : 0);
        EXPECT_EQ(out.download(), host ? (std::vector<int>{1, kUnset, 0, kUnset}) : (std::vector<int>{1, 3, 0, kUnset}));
        EXPECT_TRUE(logs.failures().empty());
        EXPECT_EQ(infer_ops::gen_block_statistic<int>(ctx.get(), t.data(), stat.data(), 2, 4, 2, 2), 0);
        EXPECT_EQ(stat.download(), (std::vector<int>{1, 1, 0, 0, 0, 0, 1, 0}));
        EXPECT_EQ(infer_ops::moe_align_block_size<int>(ctx.get(), t.data(), padded.data(), blocks.data(), total.data(),
                                                       4, 2, 4),
                  0);
        EXPECT_EQ(padded.download(), (std::vector<int>{1, kUnset, 0, kUnset, 3, kUnset, kUnset, kUnset}));
        EXPECT_EQ(total.download(), std::vector<int>{6});
    }
}

// The count that moe_resort_idx hands to its kernel: int up to the limit,
// long above it (too large to run here, so the table itself).
TEST(MoeIndex, ResortCountTypeAcrossTheLimit) {
    namespace sel = infer_ops::moe_select;
    for (long d : {-1, 0, 1}) {
        EXPECT_EQ(sel::resort_kernel(sel::kResortIntCount + d),
                  d < 1 ? sel::ResortKernel::int_count : sel::ResortKernel::long_count);
    }
}

}  // namespace
