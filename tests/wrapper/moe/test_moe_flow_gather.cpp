// The gathering operators: moe_ffn_pre_sorted and moe_ffn_pre_sorted_quant_pe
// device against host bit for bit across the kernel choice and the device
// limits, with and without each nullable array, with the launches; the
// quantised rows against rule Q8; moe_ffn_pre_fusion against the sorted
// index of the same table.
#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "frame/quant_rules.h"
#include "kernels/moe/moe_index.h"
#include "kernels/moe/token_index.h"
#include "moe_test.h"
#include "wrapper/moe/moe_flow.h"

namespace {

using namespace moe_test;
namespace flow = infer_ops::moe_flow;

constexpr int kUnset = -7;

struct GatherShape {
    long m, d, e, k, block_num;
    bool given_statistic = true;  // else null: made in scratch when block_num >= 1
    bool rows = true;             // x and y, else both null (moe_ffn_pre_sorted)
    bool counts = true;           // expert_m, else null
    int strays = 0;               // pairs routed outside [0, e)
    long extra_rows = 0;          // quant_pe: y_rows beyond m * k

    long pairs() const { return m * k; }
    bool device_accepts() const {
        return k <= flow::kMaxFlowChoices && e <= flow::kMaxFlowExperts &&
               (block_num >= 1 || pairs() <= flow::kMaxPairsWithoutStatistic);
    }
    std::string name() const {
        return ::testing::PrintToString(std::vector<long>{m, d, e, k, block_num, given_statistic, rows, counts, strays});
    }
};

// One below, at and one above every limit and threshold (pairs with k 1 and
// with k 4), decode shapes, rows long enough to spread over many cores,
// blocks beyond the tokens, the nullable arrays left out, and expert numbers
// out of range.
std::vector<GatherShape> gather_shapes() {
    std::vector<GatherShape> s = {{flow::kLargeSplitPairs / 4 - 1, 5, 32, 4, 12, false},
                                  {flow::kLargeSplitPairs / 4, 5, 32, 4, 12, false},
                                  {flow::kMaxPairsWithoutStatistic / 4, 2, 256, 4, 0},
                                  {flow::kMaxPairsWithoutStatistic / 4 + 1, 2, 256, 4, 0},
                                  {1, 4000, 8, 8, 0}, {2, 3000, 256, 8, 4}, {300, 64, 16, 4, 0},
                                  {3, 7, 4, 2, 7, true, false, false}, {6, 33, 1, 3, 0, false, true, false, 5},
                                  {40, 17, 6, 3, 3, false, false, true, 9, 11}};
    for (long dd : {-1, 0, 1}) {
        s.push_back({flow::kLargeSplitPairs + dd, 3, 16, 1, 5});
        s.push_back({flow::kMaxPairsWithoutStatistic + dd, 2, 8, 1, 0, false});
        s.push_back({flow::kMaxFlowChoices + dd, 8, 80, flow::kMaxFlowChoices + dd, 2});
        s.push_back({9, 8, flow::kMaxFlowExperts + dd, 4, 0, false});
    }
    return s;
}

template <class T>
struct Gathered {
    GuardedBuffer<T> x, y;
    GuardedBuffer<signed char> q;
    GuardedBuffer<int> index, stat, moe_index, expert_m, lod;
    GuardedBuffer<float> pe_max, token_max;
    int status = -1;
    std::vector<std::string> kernels;

    Gathered(Context* ctx, const GatherShape& s, const std::vector<T>& xs, const std::vector<int>& table,
             const std::vector<int>& statistic, const std::vector<float>& maxima, bool quant)
        : x(ctx, xs), y(ctx, s.pairs() * s.d), q(ctx, (s.pairs() + s.extra_rows) * s.d), index(ctx, table),
          stat(ctx, statistic), moe_index(ctx, std::vector<int>(s.pairs(), kUnset)), expert_m(ctx, s.e + 1),
          lod(ctx, s.e + 1), pe_max(ctx, maxima), token_max(ctx, s.pairs() + s.extra_rows) {
        TSUOPS_RETURN_IF_SKIPPED();
        LogCapture quiet;
        LaunchCapture launches;
        const int* st = s.given_statistic && s.block_num >= 1 ? stat.data() : nullptr;
        int* counts = s.counts ? expert_m.data() : nullptr;
        status = quant ? infer_ops::moe_ffn_pre_sorted_quant_pe<T, int>(
                             ctx, x.data(), index.data(), pe_max.data(), st, q.data(), moe_index.data(), counts,
                             lod.data(), s.counts ? token_max.data() : nullptr, s.m, s.d, s.e, s.k, s.block_num,
                             s.extra_rows ? s.pairs() + s.extra_rows : 0)
                       : infer_ops::moe_ffn_pre_sorted<T, int>(ctx, s.rows ? x.data() : nullptr, index.data(), st,
                                                              s.rows ? y.data() : nullptr, moe_index.data(), counts,
                                                              lod.data(), s.m, s.d, s.e, s.k, s.block_num);
        const auto records = launches.records();
        for (const auto& r : records) {
            kernels.push_back(kernel_family(r.kernel));
            EXPECT_TRUE(r.ncores == 64 && r.nclusters == (kernels.back() == "gen_block_statistic" ? s.block_num : kClusters));
        }
        if (!records.empty() && !quant) {
            const auto& r = records.back();
            const std::size_t sizes = s.block_num >= 1 ? 56 : 48;
            EXPECT_EQ((std::vector<long>{LaunchCapture::arg<long>(r, sizes), LaunchCapture::arg<long>(r, sizes + 8),
                                         LaunchCapture::arg<long>(r, sizes + 16), LaunchCapture::arg<long>(r, sizes + 24)}),
                      (std::vector<long>{s.m, s.d, s.e, s.k}));
        }
    }
};

// x with an offset row, a constant row, and in the quantised runs NaN,
// infinities, subnormals and values at the scale itself.
template <class T>
std::vector<T> token_rows(const GatherShape& s, std::uint64_t seed) {
    auto v = random_tensor<T>(s.m * s.d, seed, RandomSpec::with_specials(0.05, kFloatSpecials).in(-3, 3));
    for (long c = 0; c < s.d && s.m > 2; ++c) {
        v[c] = T(1000.0f + static_cast<float>(c % 7) / 8);
        v[s.d + c] = T(0.75f);
        v[2 * s.d + c] = T(c % 2 ? 2.0f : -2.0f);
    }
    if (s.m > 2) v[2 * s.d] = T(2.5f / 127 * 2);  // half a step of scale 2
    return v;
}

std::vector<int> table_with_strays(const GatherShape& s, std::uint64_t seed) {
    auto t = routing_table(s.m, s.k, std::max(s.e, 1L), seed, seed % 2 == 0);
    for (int i = 0; i < s.strays; ++i) t[(i * 7919) % t.size()] = i % 2 ? static_cast<int>(s.e) : -1 - i;
    return t;
}

// Per-block histogram as the routers give it, strays not counted.
std::vector<int> statistic(const std::vector<int>& table, const GatherShape& s) {
    std::vector<int> h(static_cast<std::size_t>(std::max(s.block_num, 1L) * s.e));
    for (long b = 0; b < s.block_num; ++b) {
        const auto span = infer_ops::moe_index::token_block(b, s.block_num, s.m);
        for (long p = span.begin * s.k; p < span.end * s.k; ++p) {
            if (table[p] >= 0 && table[p] < s.e) ++h[b * s.e + table[p]];
        }
    }
    return h;
}

std::vector<std::string> expected_kernels(const GatherShape& s, bool quant) {
    std::vector<std::string> k;
    if (!s.device_accepts()) return k;
    if (s.block_num >= 1 && !s.given_statistic) k.push_back("gen_block_statistic");
    const std::string base = quant ? "moe_ffn_pre_sorted_quant_pe" : "infer_moe_ffn_pre_sorted";
    k.push_back(s.block_num < 1 ? base : s.pairs() < flow::kLargeSplitPairs ? base + "_split_m" : base + "_split_m_large");
    if (quant) k.push_back("expand_expert_max_to_token_max");
    return k;
}

// The host's quantised rows against rule Q8 with the maximum of each pair's
// expert, element by element; pairs routed outside the experts have no slot.
template <class T>
void expect_rule_q8(const Gathered<T>& g, const GatherShape& s, const std::vector<T>& xs,
                    const std::vector<int>& table, const std::vector<float>& maxima) {
    const auto q = g.q.download(), slot = g.moe_index.download(), token_max = g.token_max.download();
    for (long p = 0; p < s.pairs(); ++p) {
        if (table[p] < 0 || table[p] >= s.e) continue;
        const float sc = maxima[table[p]];
        EXPECT_TRUE(!s.counts || token_max[slot[p]] == sc);
        for (long c = 0; c < s.d; ++c) {
            const float v = static_cast<float>(xs[p / s.k * s.d + c]);
            ASSERT_EQ(q[slot[p] * s.d + c], (orvane::tsu::api::__fp32_to_intx<signed char, 127>(v, sc)))
                << "pair " << p << " column " << c << " value " << v << " scale " << sc;
        }
    }
}

template <class T>
class MoeGather : public ::testing::Test {};
TYPED_TEST_SUITE(MoeGather, HalfAndFloatTypes, ElementTypeNames);

TYPED_TEST(MoeGather, DeviceMatchesHostAcrossTheKernelChoiceAndTheLimits) {
    using T = TypeParam;
    auto host = reference_context();
    auto dev = emulated_device();
    std::uint64_t seed = 300;
    for (const GatherShape& s : gather_shapes()) {
        SCOPED_TRACE(s.name());
        const auto xs = token_rows<T>(s, ++seed);
        const auto table = table_with_strays(s, seed);
        const auto stat = statistic(table, s);
        auto maxima = random_tensor<float>(s.e, seed, RandomSpec::range(0.5, 4));
        // Scale 2 (row 2 holds +-2), 0 (every value saturates by its sign), tiny, infinite.
        if (s.e > 2) maxima[1] = 0.0f;
        for (std::size_t i = 0; i < 4 && s.e > 4; ++i) maxima[i] = std::array{2.0f, 0.0f, 1e-38f, INFINITY}[i];
        for (bool quant : {false, true}) {
            SCOPED_TRACE(quant ? "quant_pe" : "copy");
            Gathered<T> want(host.get(), s, xs, table, stat, maxima, quant);
            Gathered<T> got(dev.get(), s, xs, table, stat, maxima, quant);
            TSUOPS_RETURN_IF_SKIPPED();
            ASSERT_EQ(want.status, 0);
            if (quant) expect_rule_q8(want, s, xs, table, maxima);
            EXPECT_EQ(got.kernels, expected_kernels(s, quant));
            if (!s.device_accepts()) {
                EXPECT_EQ(got.status, 2);
                EXPECT_TRUE(all_equal(got.moe_index.download(), kUnset));
                EXPECT_TRUE(got.lod.untouched() && got.y.untouched() && got.q.untouched());
                continue;
            }
            ASSERT_EQ(got.status, 0);
            EXPECT_TRUE(same_bits(want.moe_index, got.moe_index));
            EXPECT_TRUE(same_bits(want.lod, got.lod));
            EXPECT_TRUE(same_bits(want.expert_m, got.expert_m));
            EXPECT_TRUE(same_bits(want.y, got.y));
            EXPECT_TRUE(same_bits(want.q, got.q));
            EXPECT_TRUE(same_bits(want.token_max, got.token_max));
        }
    }
}

// moe_ffn_pre_fusion on both paths: the order of moe_sorted_topk_idx where
// that takes the experts, and the inverse of the scatter form of
// moe_ffn_pre_sorted where that does.
TEST(MoePreFusion, GatherFormOfTheSortedIndexOnBothPaths) {
    for (const auto& [m, n, k] : std::vector<std::array<long, 3>>{
             {1, 1, 1}, {5, 3, 3}, {100, 64, 8}, {301, 500, 6}, {40, flow::kPreFusionExpertLimit - 1, 4}}) {
        SCOPED_TRACE(::testing::PrintToString(std::array{m, n, k}));
        const auto table = routing_table(m, k, n, m + n, m % 2 == 1);
        std::vector<std::vector<int>> results;
        for (const auto& ctx : {reference_context(), emulated_device()}) {
            Context* c = ctx.get();
            GuardedBuffer<int> t(c, table), stat(c, statistic(table, {m, 1, n, k, flow::kPreFusionBlocks})),
                gather(c, m * k), lod(c, n + 1), other(c, m * k), other_lod(c, n + 1), back(c, m * k);
            TSUOPS_RETURN_IF_SKIPPED();
            LaunchCapture launches;
            ASSERT_EQ(infer_ops::moe_ffn_pre_fusion<int>(c, t.data(), stat.data(), gather.data(), lod.data(), m, n, k,
                                                         flow::kPreFusionBlocks),
                      0);
            if (c->dev_type != 0) {
                ASSERT_EQ(launches.size(), 1u);
                EXPECT_EQ(launches.records()[0].kernel.rfind("tsu3::infer_moe_ffn_pre_fusion_split_m<int>(", 0), 0u);
                EXPECT_EQ(LaunchCapture::arg<long>(launches.records()[0], 56), flow::kPreFusionBlocks);
            }
            results.push_back(gather.download());
            results.push_back(lod.download());
            if (n < tsuops::kernels::moe::kSortedTopkExpertLimit) {
                ASSERT_EQ(infer_ops::moe_sorted_topk_idx<int>(c, t.data(), other_lod.data(), other.data(), m, k, n), 0);
                EXPECT_EQ(results.end()[-2], other.download());
                EXPECT_EQ(results.back(), other_lod.download());
            }
            if (n <= flow::kMaxFlowExperts) {
                ASSERT_EQ((infer_ops::moe_ffn_pre_sorted<float, int>(c, nullptr, t.data(), nullptr, nullptr, other.data(),
                                                                     nullptr, other_lod.data(), m, 1, n, k, 0)),
                          0);
                ASSERT_EQ(infer_ops::moe_resort_idx<int>(c, other.data(), back.data(), m * k, 0), 0);
                EXPECT_EQ(back.download(), results.end()[-2]);
            }
        }
        EXPECT_TRUE(results[0] == results[2] && results[1] == results[3]);
    }
}

}  // namespace
