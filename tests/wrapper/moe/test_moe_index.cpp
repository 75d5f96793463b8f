// The index operators of the token flow: the worked example of the slot
// order on both paths; random routing tables device against host bit for bit
// and against the properties that tie the arrays together; expert numbers
// out of range; the launches; bad calls; the catalogue's families.
#include <algorithm>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "kernels/moe/moe_index.h"
#include "kernels/moe/token_index.h"
#include "moe_test.h"
#include "wrapper/moe/moe_select.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace moe_test;
namespace sel = infer_ops::moe_select;
namespace mi = infer_ops::moe_index;

// Sentinel of slots and blocks that must stay unwritten.
constexpr int kUnset = -7;

// Every index array of one routing table on one context. Each operator's
// status is kept; outputs sit in guarded buffers.
struct IndexArrays {
    long m, k, n, block_num, block_size;
    GuardedBuffer<int> table, lod, gather, scatter, twice, stat, padded, block_experts, total;
    GuardedBuffer<int> counts;
    GuardedBuffer<long> lod_long;
    int st_sorted = -1, st_scatter = -1, st_twice = -1, st_stat = -1, st_align = -1, st_lod = -1;

    IndexArrays(Context* ctx, const std::vector<int>& tab, long m_, long k_, long n_, long blocks, long bs,
                const std::vector<int>& expert_m)
        : m(m_), k(k_), n(n_), block_num(blocks), block_size(bs), table(ctx, tab), lod(ctx, n + 1),
          gather(ctx, m * k), scatter(ctx, m * k), twice(ctx, m * k), stat(ctx, blocks * n),
          padded(ctx, std::vector<int>(mi::padded_capacity(n, bs, m * k), kUnset)),
          block_experts(ctx, std::vector<int>(mi::padded_blocks(n, bs, m * k), kUnset)), total(ctx, 1),
          counts(ctx, expert_m), lod_long(ctx, n + 1) {
        if (::testing::Test::IsSkipped()) return;
        st_sorted = infer_ops::moe_sorted_topk_idx<int>(ctx, table.data(), lod.data(), gather.data(), m, k, n);
        st_scatter = infer_ops::moe_resort_idx<int>(ctx, gather.data(), scatter.data(), m * k, 0);
        st_twice = infer_ops::moe_resort_idx<int>(ctx, scatter.data(), twice.data(), m * k, 0);
        st_stat = infer_ops::gen_block_statistic<int>(ctx, table.data(), stat.data(), m, n, k, blocks);
        st_align = infer_ops::moe_align_block_size<int>(ctx, table.data(), padded.data(), block_experts.data(),
                                                        total.data(), n, bs, m * k);
        st_lod = infer_ops::moe_expert_m_to_lod<int, long>(ctx, counts.data(), lod_long.data(), n, bs % 2 == 0);
    }
};

std::vector<int> histogram(const std::vector<int>& table, long n) {
    std::vector<int> h(static_cast<std::size_t>(n));
    for (int e : table) ++h[e];
    return h;
}

// m = 3, k = 2, n = 4, the table 2 0 1 2 0 2, two token blocks, block_size 2.
TEST(MoeIndex, WorkedExampleOnBothPaths) {
    for (const auto& ctx : {reference_context(), emulated_device()}) {
        SCOPED_TRACE("device type " + std::to_string(ctx->dev_type));
        IndexArrays a(ctx.get(), {2, 0, 1, 2, 0, 2}, 3, 2, 4, 2, 2, {2, 1, 3, 0});
        TSUOPS_RETURN_IF_SKIPPED();
        EXPECT_EQ(a.st_sorted + a.st_scatter + a.st_twice + a.st_stat + a.st_align + a.st_lod, 0);
        EXPECT_EQ(a.lod.download(), (std::vector<int>{0, 2, 3, 6, 6}));
        EXPECT_EQ(a.gather.download(), (std::vector<int>{1, 4, 2, 0, 3, 5}));
        EXPECT_EQ(a.scatter.download(), (std::vector<int>{3, 0, 2, 4, 1, 5}));
        EXPECT_EQ(a.twice.download(), a.gather.download());
        EXPECT_EQ(a.stat.download(), (std::vector<int>{1, 1, 2, 0, 1, 0, 1, 0}));
        const int _ = kUnset;
        EXPECT_EQ(a.padded.download(), (std::vector<int>{1, 4, 2, _, 0, 3, 5, _, _, _}));
        EXPECT_EQ(a.block_experts.download(), (std::vector<int>{0, 1, 2, 2, _}));
        EXPECT_EQ(a.total.download(), std::vector<int>{8});
        EXPECT_EQ(a.lod_long.download(), (std::vector<long>{0, 2, 3, 6, 6}));
    }
}

// What ties the arrays of one table together, checked on the host's.
void expect_consistent(IndexArrays& a, const std::vector<int>& table) {
    const auto lod = a.lod.download(), gather = a.gather.download(), scatter = a.scatter.download();
    const auto counts = histogram(table, a.n);
    // The offsets are the running sum of the counts, here and from the counts alone.
    ASSERT_EQ(lod[0], 0);
    for (long e = 0; e < a.n; ++e) ASSERT_EQ(lod[e + 1] - lod[e], counts[e]) << "expert " << e;
    const auto lod_long = a.lod_long.download();
    EXPECT_TRUE(std::equal(lod.begin(), lod.end(), lod_long.begin()));
    // Each expert's slots hold its flat positions in ascending order: the
    // counting-sort order, which makes the gather form a permutation.
    for (long e = 0; e < a.n; ++e) {
        for (int s = lod[e]; s < lod[e + 1]; ++s) {
            ASSERT_EQ(table[gather[s]], e) << "slot " << s;
            if (s > lod[e]) {
                ASSERT_LT(gather[s - 1], gather[s]) << "slot " << s;
            }
        }
    }
    // Scatter and gather are inverses; resorting twice gives the input back.
    for (long s = 0; s < a.m * a.k; ++s) ASSERT_EQ(scatter[gather[s]], s);
    EXPECT_EQ(a.twice.download(), gather);
    // Each block's row counts k pairs per token of the block, all rows m * k.
    const auto stat = a.stat.download();
    long all = 0;
    for (long b = 0; b < a.block_num; ++b) {
        const auto span = mi::token_block(b, a.block_num, a.m);
        const long row = std::accumulate(stat.begin() + b * a.n, stat.begin() + (b + 1) * a.n, 0L);
        EXPECT_EQ(row, (span.end - span.begin) * a.k) << "block " << b;
        all += row;
    }
    EXPECT_EQ(all, a.m * a.k);
    // Each expert's run starts at a multiple of block_size and holds its
    // gather run; the padding behind it and everything past the total stay
    // unwritten; its blocks name it.
    const auto padded = a.padded.download(), blocks = a.block_experts.download();
    const long bs = a.block_size;
    long offset = 0;
    for (long e = 0; e < a.n; ++e) {
        const long c = counts[e], run = (c + bs - 1) / bs * bs;
        for (long i = 0; i < run; ++i) {
            ASSERT_EQ(padded[offset + i], i < c ? gather[lod[e] + i] : kUnset) << "expert " << e << " slot " << i;
        }
        for (long b = offset / bs; b < (offset + run) / bs; ++b) ASSERT_EQ(blocks[b], e) << "block " << b;
        offset += run;
    }
    EXPECT_EQ(a.total.download()[0], offset);
    EXPECT_TRUE(std::all_of(padded.begin() + offset, padded.end(), [](int v) { return v == kUnset; }));
    EXPECT_TRUE(std::all_of(blocks.begin() + offset / bs, blocks.end(), [](int v) { return v == kUnset; }));
}

TEST(MoeIndex, RandomTablesDeviceMatchesHostAndTheArraysAgree) {
    struct Case {
        long m, k, n;
        bool skewed;
        long block_num, block_size;
    };
    const long most = tsuops::kernels::moe::kSortedTopkExpertLimit - 1;
    const Case cases[] = {{1, 1, 1, false, 1, 1},       {5, 2, 4, false, 3, 2},       {64, 8, 16, true, 70, 16},
                          {300, 8, 256, false, 12, 64}, {129, 6, most, true, 5, 3},   {40, 3, 7, false, 40, 1},
                          {1, 8, 8, false, 2, 8}};
    auto host = reference_context();
    auto dev = emulated_device();
    std::uint64_t seed = 40;
    for (const Case& c : cases) {
        SCOPED_TRACE("m " + std::to_string(c.m) + " k " + std::to_string(c.k) + " n " + std::to_string(c.n));
        const auto table = routing_table(c.m, c.k, c.n, ++seed, c.skewed);
        const auto counts = histogram(table, c.n);
        IndexArrays want(host.get(), table, c.m, c.k, c.n, c.block_num, c.block_size, counts);
        LaunchCapture launches;
        IndexArrays got(dev.get(), table, c.m, c.k, c.n, c.block_num, c.block_size, counts);
        TSUOPS_RETURN_IF_SKIPPED();
        for (const IndexArrays* a : {&want, &got}) {
            EXPECT_EQ(a->st_sorted + a->st_scatter + a->st_twice + a->st_stat + a->st_align + a->st_lod, 0);
        }
        EXPECT_EQ(launches.size(), 6u);
        for (auto [w, g] : {std::pair{&want.lod, &got.lod}, {&want.gather, &got.gather}, {&want.scatter, &got.scatter},
                            {&want.twice, &got.twice}, {&want.stat, &got.stat}, {&want.padded, &got.padded},
                            {&want.block_experts, &got.block_experts}, {&want.total, &got.total}}) {
            EXPECT_TRUE(same_bits(*w, *g));
        }
        EXPECT_TRUE(same_bits(want.lod_long, got.lod_long));
        expect_consistent(want, table);
    }
}

// All four type pairs, with and without the GMX engine; int sums wrap.
TEST(MoeIndex, ExpertCountsToOffsetsInEveryTypePair) {
    const auto run = [](auto tin, auto tout) {
        using TIN = decltype(tin);
        using TOUT = decltype(tout);
        const std::vector<TIN> counts = {5, 0, 2147483647, 3, 0, 9};
        for (const auto& ctx : {reference_context(), emulated_device()}) {
            for (bool gmx : {false, true}) {
                GuardedBuffer<TIN> in(ctx.get(), counts);
                GuardedBuffer<TOUT> out(ctx.get(), 7);
                TSUOPS_RETURN_IF_SKIPPED();
                ASSERT_EQ((infer_ops::moe_expert_m_to_lod<TIN, TOUT>(ctx.get(), in.data(), out.data(), 6, gmx)), 0);
                std::vector<TOUT> want = {0};
                for (TIN c : counts) want.push_back(static_cast<TOUT>(static_cast<long>(want.back()) + c));
                if constexpr (std::is_same_v<TOUT, int>) want = {0, 5, 5, -2147483644, -2147483641, -2147483641, -2147483632};
                EXPECT_EQ(out.download(), want) << spelled<TIN>() << " to " << spelled<TOUT>() << " gmx " << gmx;
            }
        }
    };
    run(int{}, int{});
    run(int{}, long{});
    run(long{}, int{});
    run(long{}, long{});
}

// Expert numbers (or slots) out of range: the reference paths of the two
// operators that read values stop with 1 and no log; the kernels give such
// entries nothing; the others skip them on both paths.
TEST(MoeIndex, ValuesOutOfRange) {
    auto host = reference_context();
    auto dev = emulated_device();
    const std::vector<int> table = {1, 0, 5, 2};  // m 2, k 2, n 4: flat position 2 is no expert
    for (const auto& ctx : {host.get(), dev.get()}) {
        const bool on_host = ctx->dev_type == 0;
        SCOPED_TRACE(on_host ? "host" : "device");
        GuardedBuffer<int> t(ctx, table), lod(ctx, std::vector<int>(5, kUnset)), idx(ctx, std::vector<int>(4, kUnset));
        TSUOPS_RETURN_IF_SKIPPED();
        LogCapture logs;
        EXPECT_EQ(infer_ops::moe_sorted_topk_idx<int>(ctx, t.data(), lod.data(), idx.data(), 2, 2, 4), on_host ? 1 : 0);
        EXPECT_TRUE(logs.failures().empty());
        // The host counted up to the bad entry and placed nothing.
        EXPECT_EQ(lod.download(), on_host ? (std::vector<int>{0, 1, 1, 0, 0}) : (std::vector<int>{0, 1, 2, 3, 3}));
        EXPECT_EQ(idx.download(), on_host ? std::vector<int>(4, kUnset) : (std::vector<int>{1, 0, 3, kUnset}));

        GuardedBuffer<int> gather(ctx, std::vector<int>{2, 0, 7, 1}), out(ctx, std::vector<int>(4, kUnset));
        EXPECT_EQ(infer_ops::moe_resort_idx<int>(ctx, gather.data(), out.data(), 4, 0), on_host ? 1 : 0);
        EXPECT_TRUE(logs.failures().empty());
        EXPECT_EQ(out.download(), on_host ? (std::vector<int>{1, kUnset, 0, kUnset}) : (std::vector<int>{1, 3, 0, kUnset}));

        GuardedBuffer<int> stat(ctx, 8), padded(ctx, std::vector<int>(mi::padded_capacity(4, 2, 4), kUnset));
        GuardedBuffer<int> blocks(ctx, std::vector<int>(mi::padded_blocks(4, 2, 4), kUnset)), total(ctx, 1);
        EXPECT_EQ(infer_ops::gen_block_statistic<int>(ctx, t.data(), stat.data(), 2, 4, 2, 2), 0);
        EXPECT_EQ(stat.download(), (std::vector<int>{1, 1, 0, 0, 0, 0, 1, 0}));
        EXPECT_EQ(infer_ops::moe_align_block_size<int>(ctx, t.data(), padded.data(), blocks.data(), total.data(), 4, 2, 4),
                  0);
        EXPECT_EQ(padded.download(), (std::vector<int>{1, kUnset, 0, kUnset, 3, kUnset, kUnset, kUnset}));
        EXPECT_EQ(total.download(), std::vector<int>{6});
    }
}

TEST(MoeIndex, LaunchesAndTheirArguments) {
    auto dev = emulated_device();
    GuardedBuffer<int> table(dev.get(), std::vector<int>{2, 0, 1, 2, 0, 2}), a(dev.get(), 16), b(dev.get(), 16),
        c(dev.get(), 16), d(dev.get(), 1);
    GuardedBuffer<long> wide(dev.get(), 16);
    TSUOPS_RETURN_IF_SKIPPED();
    struct Expect {
        std::string kernel;
        int nclusters, ncores;
        std::vector<long> longs;  // the leading or trailing 64-bit sizes, by offset below
        std::size_t longs_at;
    };
    const auto check = [&](const std::function<int()>& call, const Expect& want) {
        LaunchCapture launches;
        ASSERT_EQ(call(), 0) << want.kernel;
        ASSERT_EQ(launches.size(), 1u) << want.kernel;
        const auto r = launches.records()[0];
        EXPECT_EQ(r.kernel.rfind(want.kernel, 0), 0u) << r.kernel;
        EXPECT_EQ(r.nclusters, want.nclusters) << want.kernel;
        EXPECT_EQ(r.ncores, want.ncores) << want.kernel;
        for (std::size_t i = 0; i < want.longs.size(); ++i) {
            EXPECT_EQ(LaunchCapture::arg<long>(r, want.longs_at + 8 * i), want.longs[i]) << want.kernel << " size " << i;
        }
    };
    check([&] { return infer_ops::moe_sorted_topk_idx<int>(dev.get(), table.data(), a.data(), b.data(), 3, 2, 4); },
          {"tsu3::infer_moe_sorted_topk_idx(long, long, long,", kClusters, 64, {3, 2, 4}, 0});
    check([&] { return infer_ops::gen_block_statistic<int>(dev.get(), table.data(), a.data(), 3, 4, 2, 3); },
          {"tsu3::gen_block_statistic<int>(", 3, 64, {4, 3, 2, 3}, 16});
    check([&] { return infer_ops::moe_resort_idx<int>(dev.get(), table.data(), a.data(), 6, 99); },
          {"tsu3::moe_resort_idx<int, int>(int const*, int*, int)", kClusters, 64, {}, 0});
    check([&] { return infer_ops::moe_align_block_size<int>(dev.get(), table.data(), a.data(), b.data(), d.data(), 4, 2, 6); },
          {"tsu3::infer_moe_align_block_size<int>(", kClusters, 64, {4, 2, 6}, 32});
    check([&] { return infer_ops::moe_expert_m_to_lod<int, long>(dev.get(), table.data(), wide.data(), 4, false); },
          {"tsu3::infer_moe_expert_m_to_lod<int, long>(", kClusters, 64, {4}, 16});
    check([&] { return infer_ops::moe_expert_m_to_lod<int, long>(dev.get(), table.data(), wide.data(), 4, true); },
          {"tsu3::infer_moe_expert_m_to_lod_gmx<int, long>(", kGmx, 8, {4}, 16});
}

// The count that moe_resort_idx hands to its kernel: int up to the limit,
// long above it (too large to run here, so the table itself).
TEST(MoeIndex, ResortCountTypeAcrossTheLimit) {
    EXPECT_EQ(sel::resort_kernel(sel::kResortIntCount - 1), sel::ResortKernel::int_count);
    EXPECT_EQ(sel::resort_kernel(sel::kResortIntCount), sel::ResortKernel::int_count);
    EXPECT_EQ(sel::resort_kernel(sel::kResortIntCount + 1), sel::ResortKernel::long_count);
}

// Calls of int buffers p[0..]; m, n and the row's parameter as each call
// says.
TEST(MoeIndexFailure, StatusLogAndNothingWritten) {
    using wrapper_test::as;
    const auto i = [](void* p) { return as<int>(p); };
    const std::vector<wrapper_test::Call> calls = {
        [&](Context* c, void* const* p, long m, long n, double k) {  // 0: k in the parameter
            return infer_ops::moe_sorted_topk_idx<int>(c, i(p[0]), i(p[1]), i(p[2]), m, static_cast<long>(k), n);
        },
        [&](Context* c, void* const* p, long m, long n, double) {  // 1: count m
            return infer_ops::moe_resort_idx<int>(c, i(p[0]), i(p[1]), m, n);
        },
        [&](Context* c, void* const* p, long m, long n, double bs) {  // 2: numel m, block_size in the parameter
            return infer_ops::moe_align_block_size<int>(c, i(p[0]), i(p[1]), i(p[2]), i(p[3]), n,
                                                        static_cast<long>(bs), m);
        },
        [&](Context* c, void* const* p, long m, long n, double blocks) {  // 3: k 2, block_num in the parameter
            return infer_ops::gen_block_statistic<int>(c, i(p[0]), i(p[1]), m, n, 2, static_cast<long>(blocks));
        },
        [&](Context* c, void* const* p, long, long n, double gmx) {  // 4
            return infer_ops::moe_expert_m_to_lod<int, long>(c, i(p[0]), as<long>(p[1]), n, gmx != 0);
        },
    };
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3, other = DeviceType::TSU4;
    const auto none = wrapper_test::kNoContext;
    using S = tsuemu::Site;
    wrapper_test::expect_failures(
        calls, {1, 2, 3},
        {{"sorted: null context", 0, none, 2, 4, 2, 0, 0, {}, 1, nullptr, {}},
         {"sorted: n below k, and too many experts: n >= k first", 0, dev, 2, 600, 700, 0, 0, {}, 1, "compare_fail",
          {"600", ">=", "700"}},
         {"sorted: no tokens", 0, cpu, 0, 4, 2, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"sorted: no choices", 0, dev, 2, 4, 0, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"sorted: 513 experts, and a null table: the limit before the regions", 0, dev, 2, 513, 2, 0, 1, {}, 1,
          "compare_fail", {"513", "<", "513"}},
         {"sorted: null table", 0, cpu, 2, 4, 2, 0, 1, {}, 1, "invalid_memory", {}},
         {"sorted: every pointer bad: the table first", 0, dev, 2, 4, 2, -1, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{4}", "{1}", "input"}},
         {"sorted: offsets no memory", 0, dev, 2, 4, 2, 1, 0x1000, {}, 1, "invalid_memory", {}},
         {"sorted: launch fails", 0, dev, 2, 4, 2, 0, 0, S::Config, 2, "kernel_fail", {"7"}},
         {"sorted: device type without a path", 0, other, 2, 4, 2, 0, 0, {}, 4, "unimplement", {}},
         {"resort: nothing to resort", 1, dev, 0, 0, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"resort: every pointer bad: the input first", 1, dev, 5, 0, 0, -1, 0x1000, {}, 1, "invalid_memory", {}},
         {"resort: output past device memory", 1, dev, 5, 0, 0, 1, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"resort: another device type does nothing", 1, other, 5, 0, 0, 0, 0, {}, 0, nullptr, {}},
         {"align: block_size 0, and no pairs: the size first", 2, dev, 0, 4, 0, 0, 0, {}, 1, "compare_fail",
          {"0", ">", "0"}},
         {"align: no pairs", 2, cpu, 0, 4, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"align: every pointer bad: the table first", 2, dev, 6, 4, 2, -1, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{6}", "{1}", "input"}},
         {"align: null block experts", 2, dev, 6, 4, 2, 2, 1, {}, 1, "invalid_memory", {}},
         {"align: null total", 2, cpu, 6, 4, 2, 3, 1, {}, 1, "invalid_memory", {}},
         {"align: another device type does nothing", 2, other, 6, 4, 2, 0, 0, {}, 0, nullptr, {}},
         {"statistic: no blocks", 3, dev, 3, 4, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"statistic: every pointer bad: the histogram first", 3, dev, 3, 4, 2, -1, 0x1000, {}, 1, "invalid_memory",
          {"", "0x2000", "{8}", "{1}", "output"}},
         {"statistic: no tokens", 3, cpu, 0, 4, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"statistic: launch fails", 3, dev, 3, 4, 2, 0, 0, S::Async, 2, "kernel_fail", {"7"}},
         {"statistic: device type without a path", 3, other, 3, 4, 2, 0, 0, {}, 4, "unimplement", {}},
         {"offsets: no counts, and a null input: the count first", 4, dev, 0, 0, 0, 0, 1, {}, 1, "compare_fail",
          {"0", ">", "0"}},
         {"offsets: null counts", 4, cpu, 0, 4, 0, 0, 1, {}, 1, "invalid_memory", {}},
         {"offsets: another device type does nothing", 4, other, 0, 4, 1, 0, 0, {}, 0, nullptr, {}}});
}

// Failures told twice, or as a compare failure and a kernel failure.
TEST(MoeIndexFailure, KernelFailuresAreLoggedAsDocumented) {
    struct Row {
        const char* what;
        DeviceType dev;
        std::optional<tsuemu::Site> fault;
        int op;
        std::vector<std::string> kinds;
        std::vector<std::string> last_fields;
    };
    using S = tsuemu::Site;
    const auto dev = DeviceType::TSU3, tsu2 = DeviceType::TSU2;
    const Row rows[] = {
        {"align: wrapper and entry", dev, S::Config, 0, {"kernel_fail", "kernel_fail"}, {"2"}},
        {"offsets: wrapper and entry", dev, S::Async, 1, {"kernel_fail", "kernel_fail"}, {"2"}},
        {"offsets on the second generation", tsu2, std::nullopt, 1, {"unimplement", "kernel_fail"}, {"4"}},
        {"resort: the launch's code against 0", dev, S::Async, 2, {"compare_fail", "kernel_fail"}, {"7"}},
        {"resort on the second generation", tsu2, std::nullopt, 2, {"unimplement", "kernel_fail"}, {"4"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        if (row.dev == tsu2 && !tsuemu::gm_available(2)) continue;
        auto ctx = make_context(row.dev, {.ncluster = kClusters, .ngmx = kGmx});
        GuardedBuffer<int> in(ctx.get(), std::vector<int>{1, 0, 3, 2}), out(ctx.get(), 16), e(ctx.get(), 16),
            t(ctx.get(), 1);
        GuardedBuffer<long> lod(ctx.get(), 5);
        TSUOPS_RETURN_IF_SKIPPED();
        out.fill_sentinel();
        LogCapture logs;
        if (row.fault) tsuemu::inject_failure(*row.fault, 1, 7);
        int st = -1;
        if (row.op == 0) st = infer_ops::moe_align_block_size<int>(ctx.get(), in.data(), out.data(), e.data(), t.data(), 4, 2, 4);
        if (row.op == 1) st = infer_ops::moe_expert_m_to_lod<int, long>(ctx.get(), in.data(), lod.data(), 4, true);
        if (row.op == 2) st = infer_ops::moe_resort_idx<int>(ctx.get(), in.data(), out.data(), 4, 0);
        tsuemu::clear_failures();
        EXPECT_EQ(st, 2);
        const auto f = logs.failures();
        std::vector<std::string> kinds;
        for (const auto& r : f) kinds.push_back(r.kind);
        EXPECT_EQ(kinds, row.kinds);
        ASSERT_FALSE(f.empty());
        EXPECT_EQ(f.back().fields, row.last_fields);
        if (row.op == 2 && row.dev == dev) {
            EXPECT_EQ(f[0].fields, (std::vector<std::string>{"7", "==", "0"}));
        }
        EXPECT_TRUE(out.untouched());
    }
}

TEST(MoeIndex, CatalogueHoldsEveryInstanceOfTheFamilies) {
    std::map<std::string, int> families;
    std::map<std::string, std::uint64_t> engines;
    for (const auto& k : infer_ops::kernel_catalogue()) {
        ++families[k.family];
        engines[k.family] = k.engine;
    }
    const std::map<std::string, int> want = {{"infer_moe_softmax_topk", 18},   {"gen_block_statistic", 1},
                                             {"infer_moe_align_block_size", 1}, {"infer_moe_expert_m_to_lod", 4},
                                             {"infer_moe_expert_m_to_lod_gmx", 4}, {"infer_moe_sorted_topk_idx", 1},
                                             {"moe_resort_idx", 2}};
    for (const auto& [family, count] : want) {
        EXPECT_EQ(families[family], count) << family;
        EXPECT_EQ(engines[family], family.ends_with("_gmx") ? 1u : 0u) << family;
    }
}

}  // namespace
