// The group routers: every instantiation device against host bit for bit
// across the small_shape rules, both selection paths of the kernels, groups
// of one expert and the block counts, with each launch's kernel and
// arguments; random rows full of ties against the three sort stages stated
// independently; named rows for the documented cases (equal leaders, the
// two-best group score, the correction bias, the shared experts); the
// kernels' sigmoid; bad calls.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "kernels/moe/exp_float.h"
#include "kernels/moe/softmax_topk.h"
#include "moe_test.h"
#include "wrapper/moe/moe_select.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace moe_test;
namespace sel = infer_ops::moe_select;
namespace mk = tsuops::kernels::moe;

enum class Op { group_topk, sigmoid, singlek };

// For singlek `extra` is shared_num and k is unused; for the others `extra`
// is group_topk.
struct Shape {
    long m, n, group_num, extra, k, block_num;
};

// Grouped shapes that every router takes, groups of at least 2.
std::vector<Shape> grouped_shapes() {
    std::vector<Shape> s = {{7, 64, 8, 3, 8, 3},  {6, 256, 8, 4, mk::kInsertionTopk + 1, 2},
                            {4, 24, 12, 5, 4, 1}, {2, 64, 32, 32, 64, 1},
                            {3, 1024, 8, 4, 8, 0}, {5, 16, 4, 4, 16, 7}};
    for (long d : {-1, 0, 1}) {
        s.push_back({sel::kSmallPairs + d, 8, 4, 2, 1, d == 0 ? 12 : 0});
        s.push_back({sel::kTopk2MaxTokens + d, 8, 4, 2, 2, 0});
        s.push_back({sel::kTopk5TokenLimit + d, 16, 4, 2, 5, 0});
    }
    return s;
}

std::vector<Shape> shapes(Op op) {
    std::vector<Shape> s = grouped_shapes();
    if (op == Op::group_topk) {
        s.insert(s.end(), {{5, 16, 0, 0, 3, 0}, {9, 64, 0, 0, mk::kInsertionTopk + 1, 2}, {3, 1024, 0, 0, 8, 0},
                           {2, 1, 0, 0, 1, 1}, {4, 12, 12, 5, 4, 1}});
    }
    if (op == Op::singlek) {
        s = {{5, 64, 8, 0, 0, 0}, {7, 64, 8, 2, 0, 3}, {3, 1024, 16, 1, 0, 0}, {4, 12, 12, 3, 0, 1}, {2, 16, 1, 0, 0, 5}};
        for (long d : {-1, 0, 1}) {
            s.push_back({sel::kSmallPairs + d, 4, 1, 1, 0, d == 0 ? 12 : 0});
            s.push_back({sel::kTopk2MaxTokens + d, 8, 2, 0, 0, 0});
            s.push_back({sel::kTopk5TokenLimit + d, 10, 5, 2, 0, 0});
        }
    }
    return s;
}

// The flag as the rules state it, independently of the wrapper's table.
bool small_shape_expected(long m, long k) {
    return m * k < sel::kSmallPairs || (m <= sel::kTopk2MaxTokens && k == 2) || (m < sel::kTopk5TokenLimit && k == 5);
}

// Rows of six kinds in turn: spread out; a large common offset (ties once
// rounded to a half type); constant; four distinct values; nearly equal;
// infinities among spread values.
template <class TX>
std::vector<TX> logits(long m, long n, std::uint64_t seed) {
    const auto u = random_tensor<float>(m * n, seed, RandomSpec::range(0, 1));
    std::vector<TX> x;
    for (long i = 0; i < m * n; ++i) {
        const long r = i / n, j = i % n;
        const float v = u[i];
        const float kinds[] = {8 * v - 4, 1000 + 4 * v, 0.25f, std::array{-1.0f, 0.0f, 0.5f, 2.0f}[int(v * 4) % 4],
                               0.01f * v, j % 5 == r % 5 ? (j % 2 ? INFINITY : -INFINITY) : 8 * v - 4};
        x.push_back(TX(kinds[r % 6]));
    }
    return x;
}

// The tensors of one call on one context.
template <class R>
struct Call {
    using TX = typename R::TX;
    using TY = typename R::TY;
    using TID = typename R::TID;
    GuardedBuffer<TX> x;
    GuardedBuffer<float> bias;
    GuardedBuffer<TY> score;
    GuardedBuffer<TID> index;
    GuardedBuffer<int> stat;
    int status = -1;

    Call(Context* c, Op op, const Shape& s, const std::vector<TX>& xs, const std::vector<float>& b)
        : x(c, xs), bias(c, b), score(c, s.m * width(op, s)), index(c, s.m * width(op, s)),
          stat(c, std::max(1L, s.block_num * (s.n + (op == Op::singlek ? s.extra : 0)))) {
        if (::testing::Test::IsSkipped()) return;
        int* st = s.block_num > 0 ? stat.data() : nullptr;
        switch (op) {
        case Op::group_topk:
            status = infer_ops::moe_group_topk_fusion<TX, TY, TID>(c, x.data(), score.data(), index.data(), st, s.m,
                                                                   s.n, s.group_num, s.extra, s.k, s.block_num);
            break;
        case Op::sigmoid:
            status = infer_ops::moe_sigmoid_topk_norm_fusion<TX, TY, TID>(c, x.data(), bias.data(), 1.5f,
                                                                          score.data(), index.data(), st, s.m, s.n,
                                                                          s.group_num, s.extra, s.k, s.block_num);
            break;
        case Op::singlek:
            status = infer_ops::moe_softmax_group_singlek_norm<TX, TY, TID>(
                c, x.data(), score.data(), index.data(), st, s.m, s.n, s.group_num, s.extra, s.block_num);
            break;
        }
    }
    static long width(Op op, const Shape& s) { return op == Op::singlek ? s.group_num + s.extra : s.k; }
};

template <class R>
void expect_launch(Op op, const Shape& s, const Call<R>& d, const LaunchRecord& r) {
    const auto ptr = [&](std::size_t at) { return LaunchCapture::arg<const void*>(r, at); };
    const auto lng = [&](std::size_t at) { return LaunchCapture::arg<long>(r, at); };
    EXPECT_TRUE(r.nclusters == kClusters && r.ncores == 64);
    EXPECT_TRUE(ptr(0) == d.x.data() && ptr(8) == d.index.data() && ptr(16) == d.score.data())
        << "the index before the score";
    EXPECT_EQ(ptr(24), s.block_num > 0 ? d.stat.data() : nullptr);
    const bool plain = op == Op::group_topk && s.group_num == 0 && s.extra == 0;
    const char* family = plain                 ? "moe_topk"
                         : op == Op::group_topk ? "moe_group_topk"
                         : op == Op::sigmoid    ? "moe_sigmoid_group_topk_norm"
                                                : "infer_moe_softmax_group_singlek_norm";
    EXPECT_EQ(r.kernel.rfind(router_kernel<R>(family), 0), 0u) << r.kernel;
    std::vector<long> sizes, want;
    bool flag = false;
    if (plain) {
        sizes = {lng(32), lng(40), lng(48), lng(56)};
        want = {s.k, s.m, s.n, s.block_num};
    } else if (op == Op::group_topk) {
        const auto i32 = [&](std::size_t at) { return long{LaunchCapture::arg<int>(r, at)}; };
        sizes = {i32(32), i32(36), i32(40), i32(44), i32(48), i32(52)};
        want = {s.k, s.m, s.n, s.group_num, s.extra, s.block_num};
        flag = LaunchCapture::arg<bool>(r, 56);
    } else if (op == Op::sigmoid) {
        EXPECT_EQ(ptr(32), d.bias.data());
        EXPECT_EQ(LaunchCapture::arg<float>(r, 40), 1.5f);
        sizes = {lng(48), lng(56), lng(64), lng(72), lng(80), lng(88)};
        want = {s.k, s.m, s.n, s.group_num, s.extra, s.block_num};
        flag = LaunchCapture::arg<bool>(r, 96);
    } else {
        sizes = {lng(32), lng(40), lng(48), lng(56), lng(64)};
        want = {s.group_num, s.extra, s.m, s.n, s.block_num};
        flag = LaunchCapture::arg<bool>(r, 72);
    }
    EXPECT_EQ(sizes, want);
    if (!plain) {
        EXPECT_EQ(flag, small_shape_expected(s.m, op == Op::singlek ? s.group_num : s.k));
    }
}

template <class R>
class GroupRouters : public ::testing::Test {};
TYPED_TEST_SUITE(GroupRouters, RouterInstances, RouterInstanceNames);

TYPED_TEST(GroupRouters, DeviceMatchesHostBitForBitWithTheirLaunches) {
    using TX = typename TypeParam::TX;
    auto host = reference_context();
    auto dev = emulated_device();
    std::uint64_t seed = 11;
    for (Op op : {Op::group_topk, Op::sigmoid, Op::singlek}) {
        for (const Shape& s : shapes(op)) {
            SCOPED_TRACE("op " + std::to_string(static_cast<int>(op)) + " m " + std::to_string(s.m) + " n " +
                         std::to_string(s.n) + " groups " + std::to_string(s.group_num) + "/" +
                         std::to_string(s.extra) + " k " + std::to_string(s.k) + " blocks " +
                         std::to_string(s.block_num));
            const auto xs = logits<TX>(s.m, s.n, ++seed);
            const auto bias = random_tensor<float>(s.n, ++seed, RandomSpec::range(-0.5, 0.5));
            Call<TypeParam> h(host.get(), op, s, xs, bias);
            LaunchCapture launches;
            Call<TypeParam> d(dev.get(), op, s, xs, bias);
            TSUOPS_RETURN_IF_SKIPPED();
            ASSERT_EQ(h.status, 0);
            ASSERT_EQ(d.status, 0);
            EXPECT_TRUE(same_bits(h.index, d.index));
            EXPECT_TRUE(same_bits(h.score, d.score));
            EXPECT_TRUE(s.block_num > 0 ? same_bits(h.stat, d.stat)
                                        : ::testing::AssertionResult(h.stat.untouched() && d.stat.untouched()));
            ASSERT_EQ(launches.size(), 1u);
            expect_launch(op, s, d, launches.records()[0]);
        }
    }
}

// The three sort stages stated directly: groups by their score, the lower
// group first on ties; the candidates of the first group_topk groups by key,
// then by the rank of their group, then by expert.
std::vector<int> grouped_choice(const std::vector<float>& key, long gs, long group_topk, long k,
                                const std::function<float(long)>& group_score) {
    std::vector<long> groups(key.size() / gs);
    std::iota(groups.begin(), groups.end(), 0);
    std::sort(groups.begin(), groups.end(), [&](long a, long b) {
        return std::make_tuple(-group_score(a), a) < std::make_tuple(-group_score(b), b);
    });
    std::vector<std::tuple<float, long, long>> cand;  // -key, rank, expert
    for (long r = 0; r < group_topk; ++r) {
        for (long e = groups[r] * gs; e < (groups[r] + 1) * gs; ++e) cand.emplace_back(-key[e], r, e);
    }
    std::sort(cand.begin(), cand.end());
    std::vector<int> out;
    for (long j = 0; j < k; ++j) out.push_back(static_cast<int>(std::get<2>(cand[j])));
    return out;
}

float host_sigmoid(float x) { return static_cast<float>(1.0 / (std::exp(-static_cast<double>(x)) + 1.0)); }

// Rows drawn from four values, so that ties fall inside groups, between
// group scores and at the candidate cut; the sigmoid router's bias takes
// two values, so that equal sums stay equal.
TEST(GroupRouterOrder, RowsFullOfTiesFollowTheThreeStagesOnBothPaths) {
    constexpr long m = 40, n = 32, gs = 4, group_topk = 3, k = 6;
    const auto draw = random_tensor<int>(m * n + n, 5, RandomSpec::range(0, 3));
    std::vector<float> x(m * n), bias(n);
    for (long i = 0; i < m * n; ++i) x[i] = std::array{-1.0f, 0.5f, 1.0f, 2.0f}[draw[i]];
    for (long e = 0; e < n; ++e) bias[e] = draw[m * n + e] % 2 ? 0.25f : 0.0f;
    for (const auto& ctx : {reference_context(), emulated_device()}) {
        SCOPED_TRACE("device type " + std::to_string(ctx->dev_type));
        GuardedBuffer<float> dx(ctx.get(), x), db(ctx.get(), bias), score(ctx.get(), m * k), norm(ctx.get(), m * k);
        GuardedBuffer<int> index(ctx.get(), m * k), sindex(ctx.get(), m * k);
        TSUOPS_RETURN_IF_SKIPPED();
        ASSERT_EQ((infer_ops::moe_group_topk_fusion<float, float, int>(ctx.get(), dx.data(), score.data(),
                                                                       index.data(), nullptr, m, n, n / gs,
                                                                       group_topk, k, 0)),
                  0);
        ASSERT_EQ((infer_ops::moe_sigmoid_topk_norm_fusion<float, float, int>(ctx.get(), dx.data(), db.data(), 1.0f,
                                                                              norm.data(), sindex.data(), nullptr, m,
                                                                              n, n / gs, group_topk, k, 0)),
                  0);
        const auto got = index.download(), sgot = sindex.download();
        const auto got_score = score.download(), got_norm = norm.download();
        for (long t = 0; t < m; ++t) {
            const std::vector<float> row(x.begin() + t * n, x.begin() + (t + 1) * n);
            std::vector<float> b(n), s(n);
            for (long e = 0; e < n; ++e) b[e] = (s[e] = host_sigmoid(row[e])) + bias[e];
            const auto want = grouped_choice(row, gs, group_topk, k, [&](long g) {
                return *std::max_element(row.begin() + g * gs, row.begin() + (g + 1) * gs);
            });
            const auto swant = grouped_choice(b, gs, group_topk, k, [&](long g) {
                std::vector<float> v(b.begin() + g * gs, b.begin() + (g + 1) * gs);
                std::sort(v.rbegin(), v.rend());
                return v[0] + v[1];
            });
            float sum = 1e-7f;
            for (int e : swant) sum += s[e];
            for (long j = 0; j < k; ++j) {
                ASSERT_EQ(got[t * k + j], want[j]) << "token " << t << " choice " << j;
                ASSERT_EQ(got_score[t * k + j], row[want[j]]);
                ASSERT_EQ(sgot[t * k + j], swant[j]) << "sigmoid router, token " << t << " choice " << j;
                ASSERT_EQ(got_norm[t * k + j], s[swant[j]] * (1.0f / sum)) << "the weight ignores the bias";
            }
        }
    }
}

struct NamedRow {
    const char* what;
    Op op;
    std::vector<float> x, bias;
    long group_num, extra, k;
    std::vector<int> want;
};

// Each row on both paths, in float and in bfloat16 to float16 (the named
// values are exact in both); for the sigmoid router also the weights.
TEST(GroupRouterOrder, NamedRowsOnBothPaths) {
    const std::vector<float> flat(8, 0.0f);
    std::vector<float> shared64(64, 0.0f);
    shared64[9] = 2.0f;
    const std::vector<NamedRow> rows = {
        {"tie inside a group: the lower expert", Op::group_topk, {3, 7, 7, 1}, {}, 1, 1, 2, {1, 2}},
        {"equal leaders: the lower group, and its experts first on a tie", Op::group_topk,
         {5, 2, 5, 2, 0, 0}, {}, 3, 2, 3, {0, 2, 1}},
        {"tied candidates: the higher-ranked group before the lower expert", Op::group_topk,
         {4, 1, 4, 9, 0, 0}, {}, 3, 2, 3, {3, 2, 0}},
        {"no groups: a plain top-k, ties to the lower expert", Op::group_topk, {1, 3, 3, 2}, {}, 0, 0, 2, {1, 2}},
        {"one strong and one weak expert lose to two medium ones", Op::sigmoid, {4, -4, 1, 1}, {0, 0, 0, 0}, 2, 1, 1,
         {2}},
        {"the bias chooses, the weight stays unbiased", Op::sigmoid, {2, 0, 0, 1}, {0, 0, 0, 3}, 2, 2, 1, {3}},
        {"every group chosen: the list order decides the ties", Op::sigmoid, flat, flat, 4, 4, 3, {0, 1, 2}},
        {"the first maximum of each group", Op::singlek, {3, 7, 7, 1, 0, 0, 0, 0}, {}, 2, 0, 0, {1, 4}},
        {"two shared experts after 64 routed", Op::singlek, shared64, {}, 8, 2, 0, {0, 9, 16, 24, 32, 40, 48, 56, 64, 65}},
    };
    for (const auto& ctx : {reference_context(), emulated_device()}) {
        for (const NamedRow& row : rows) {
            SCOPED_TRACE(std::string(row.what) + " on device type " + std::to_string(ctx->dev_type));
            const long n = static_cast<long>(row.x.size());
            const Shape s{1, n, row.group_num, row.extra, row.k, 1};
            const std::vector<float> bias = row.bias.empty() ? std::vector<float>(n, 0.0f) : row.bias;
            Call<RouterTypes<float, float, int>> c(ctx.get(), row.op, s, row.x, bias);
            Call<RouterTypes<bfloat16, float16, long>> h(ctx.get(), row.op, s,
                                                         std::vector<bfloat16>(row.x.begin(), row.x.end()), bias);
            TSUOPS_RETURN_IF_SKIPPED();
            ASSERT_EQ(c.status, 0);
            ASSERT_EQ(h.status, 0);
            EXPECT_EQ(c.index.download(), row.want);
            EXPECT_EQ(h.index.download(), std::vector<long>(row.want.begin(), row.want.end()));
            const auto w = c.score.download();
            if (row.op == Op::sigmoid) {
                float sum = 1e-7f;
                for (int e : row.want) sum += host_sigmoid(row.x[e]);
                for (std::size_t j = 0; j < row.want.size(); ++j) {
                    EXPECT_EQ(w[j], host_sigmoid(row.x[row.want[j]]) * (1.5f / sum)) << j;
                }
            }
            if (row.op == Op::singlek) {
                const auto stat = c.stat.download();
                for (long e = 0; e < n + row.extra; ++e) {
                    EXPECT_EQ(stat[e], std::count(row.want.begin(), row.want.end(), e)) << "expert " << e;
                }
                for (long i = 0; i < row.extra; ++i) EXPECT_EQ(w[row.group_num + i], 1.0f);
            }
        }
    }
}

// Against the host's formula over every 509th float from -90 to 90, the
// edges of the fast range and what lies beyond.
TEST(GroupRouterKernel, SigmoidIsTheHostsToTheBit) {
    std::vector<float> x = {0.0f, -0.0f, 80.0f, -80.0f, std::nextafter(80.0f, 100.0f), -80.5f, 88.0f, -104.0f,
                            1e30f, -1e30f, INFINITY, -INFINITY, NAN, std::numeric_limits<float>::denorm_min()};
    for (std::uint32_t b = 0; b <= std::bit_cast<std::uint32_t>(90.0f); b += 509) {
        x.push_back(std::bit_cast<float>(b));
        x.push_back(-std::bit_cast<float>(b));
    }
    std::vector<float> want = x, got = x;
    for (float& f : want) f = host_sigmoid(f);
    mk::sigmoid_to_float(got.data(), static_cast<long>(got.size()));
    EXPECT_TRUE(exactly_equal(want, got));
}

// The profile name, the type strings and the scalar entries of the dump, in
// the documented order.
TEST(GroupRouterFrame, TracesNameTypesAndArguments) {
    struct Case {
        Op op;
        Shape s;
        const char* name;
        std::size_t count, first;
        std::vector<std::string> scalars;
    };
    auto dev = device_context({.ncluster = kClusters, .debug_flags = 1});
    for (const Case& c : {Case{Op::group_topk, {2, 8, 4, 2, 3, 1}, "moe_group_topk_fusion", 11, 3,
                               {"2", "8", "4", "2", "3", "1"}},
                          Case{Op::sigmoid, {2, 8, 4, 2, 3, 1}, "moe_sigmoid_group_topk_norm_fusion", 13, 4,
                               {"1.5", "2", "8", "4", "2", "3", "1"}},
                          Case{Op::singlek, {2, 8, 4, 1, 0, 1}, "moe_softmax_group_singlek_norm", 10, 3,
                               {"2", "8", "4", "1", "1"}}}) {
        SCOPED_TRACE(c.name);
        TraceCapture traces;
        LogCapture quiet;  // a traced call logs its regions
        Call<RouterTypes<float16, bfloat16, long>> call(dev.get(), c.op, c.s, std::vector<float16>(16, float16(0.5f)),
                                                        std::vector<float>(8, 0.0f));
        TSUOPS_RETURN_IF_SKIPPED();
        ASSERT_EQ(call.status, 0);
        ASSERT_EQ(traces.size(), 1u);
        const function_info info = traces.records()[0];
        EXPECT_EQ(info.name, c.name);
        EXPECT_EQ(info.dtypes, (std::vector<std::string>{"float16", "bfloat16", "int64_t"}));
        ASSERT_EQ(info.params.size(), c.count);
        EXPECT_EQ(std::vector<std::string>(info.params.begin() + c.first, info.params.begin() + c.first + c.scalars.size()),
                  c.scalars);
    }
}

TEST(GroupRouterKernel, CatalogueHoldsEveryInstanceOfTheFamilies) {
    std::map<std::string, int> families;
    for (const auto& k : infer_ops::kernel_catalogue()) families[k.family] += k.engine == 0 ? 1 : 100;
    for (const char* family : {"moe_topk", "moe_group_topk", "moe_sigmoid_group_topk_norm",
                               "infer_moe_softmax_group_singlek_norm"}) {
        EXPECT_EQ(families[family], 18) << family;
    }
}

using wrapper_test::as;
using S = tsuemu::Site;
constexpr auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;

// x, score, topk_index, block_statistic are p[0..3]; k travels as the row's
// parameter. Calls: 0 grouped (4 groups, 2 taken, 2 blocks), 1 no groups
// (no histogram), 2 no groups to split into (group_topk 1), 3 more groups
// taken than there are (5 of 4).
TEST(GroupRouterFailure, GroupTopkFusion) {
    const auto call = [](long group_num, long group_topk, long block_num) {
        return [=](Context* c, void* const* p, long m, long n, double k) {
            return infer_ops::moe_group_topk_fusion<float, bfloat16, int>(
                c, as<float>(p[0]), as<bfloat16>(p[1]), as<int>(p[2]), block_num > 0 ? as<int>(p[3]) : nullptr, m,
                n, group_num, group_topk, static_cast<long>(k), block_num);
        };
    };
    wrapper_test::expect_failures(
        {call(4, 2, 2), call(0, 0, 0), call(0, 1, 0), call(4, 5, 0)}, {1, 2, 3},
        {{"null context", 0, wrapper_test::kNoContext, 2, 8, 2, 0, 0, {}, 1, nullptr, {}},
         {"n not a multiple of the groups, on the host", 0, cpu, 2, 10, 2, 0, 0, {}, 1, "compare_fail",
          {"2", "==", "0"}},
         {"no groups to split into", 2, cpu, 2, 8, 1, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"no groups to split into, on the device", 2, dev, 2, 8, 1, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"more groups taken than there are", 3, dev, 2, 8, 1, 0, 0, {}, 1, "compare_fail", {"5", "<=", "4"}},
         {"fewer candidates than k", 0, cpu, 2, 8, 5, 0, 0, {}, 1, "compare_fail", {"5", "<=", "4"}},
         {"fewer candidates than k, on the device", 0, dev, 2, 8, 5, 0, 0, {}, 1, "compare_fail", {"5", "<=", "4"}},
         {"both: the groups taken first", 3, cpu, 2, 8, 9, 0, 0, {}, 1, "compare_fail", {"5", "<=", "4"}},
         {"no groups, k above n", 1, cpu, 2, 8, 9, 0, 0, {}, 1, "compare_fail", {"9", "<=", "8"}},
         {"no groups, k above n, on the device", 1, dev, 2, 8, 9, 0, 0, {}, 1, "compare_fail", {"9", "<=", "8"}},
         {"no groups, negative sizes", 1, cpu, -1, -1, -1, 0, 0, {}, 1, "compare_fail", {"-1", ">=", "0"}},
         {"a row longer than the kernels hold", 1, dev, 1, sel::kGroupKernelExperts + 1, 2, 0, 0, {}, 1,
          "compare_fail", {"1025", "<=", "1024"}},
         {"null statistic with blocks", 0, dev, 2, 8, 2, 3, 1, {}, 1, "invalid_memory", {}},
         {"bad x and n not a multiple: the region first", 0, cpu, 2, 10, 2, 0, 1, {}, 1, "invalid_memory", {}},
         {"no tokens", 0, dev, 0, 8, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"device type without a path", 0, DeviceType::TSU4, 2, 8, 2, 0, 0, {}, 4, "unimplement", {}},
         {"configuration fails: the runtime's code, no log", 0, dev, 2, 8, 2, 0, 0, S::Config, 7, nullptr, {}},
         {"launch fails: the runtime's code, no log", 1, dev, 2, 8, 2, 0, 0, S::Async, 7, nullptr, {}}});
}

// x, bias, norm_score, topk_index, block_statistic are p[0..4]; k is the
// parameter. Calls: 0 (4 groups, 2 taken), 1 (8 groups, 2 taken), 2 (no
// groups at all).
TEST(GroupRouterFailure, SigmoidTopkNormFusion) {
    const auto call = [](long group_num, long group_topk) {
        return [=](Context* c, void* const* p, long m, long n, double k) {
            return infer_ops::moe_sigmoid_topk_norm_fusion<float16, float, long>(
                c, as<float16>(p[0]), as<float>(p[1]), 1.0f, as<float>(p[2]), as<long>(p[3]), as<int>(p[4]), m, n,
                group_num, group_topk, static_cast<long>(k), 1);
        };
    };
    wrapper_test::expect_failures(
        {call(4, 2), call(8, 2), call(0, 0)}, {2, 3, 4},
        {{"n above the limit", 0, dev, 1, sel::kMaxRouterExperts + 1, 2, 0, 0, {}, 1, "compare_fail",
          {"1025", "<=", "1024"}},
         {"k above n", 0, cpu, 2, 8, 9, 0, 0, {}, 1, "compare_fail", {"9", "<=", "8"}},
         {"k above n and n above the limit: n first", 0, cpu, 1, 1100, 1200, 0, 0, {}, 1, "compare_fail",
          {"1100", "<=", "1024"}},
         {"no groups", 2, dev, 2, 8, 2, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"groups of one expert", 1, cpu, 2, 8, 2, 0, 0, {}, 1, "compare_fail", {"1", ">=", "2"}},
         {"fewer candidates than k", 0, dev, 2, 8, 5, 0, 0, {}, 1, "compare_fail", {"5", "<=", "4"}},
         {"null bias", 0, dev, 2, 8, 2, 1, 1, {}, 1, "invalid_memory", {}},
         {"device type without a path", 0, DeviceType::TSU2, 2, 8, 2, 0, 0, {}, 4, "unimplement", {}},
         {"launch fails: the runtime's code, no log", 0, dev, 2, 8, 2, 0, 0, S::Async, 7, nullptr, {}}});
}

// x, norm_score, topk_index, block_statistic are p[0..3]; shared_num is the
// parameter. Calls: 0 (4 groups, 1 block), 1 (groups above n: 9 of 8),
// 2 (no groups).
TEST(GroupRouterFailure, SoftmaxGroupSinglekNorm) {
    const auto call = [](long group_num) {
        return [=](Context* c, void* const* p, long m, long n, double shared) {
            return infer_ops::moe_softmax_group_singlek_norm<bfloat16, bfloat16, int>(
                c, as<bfloat16>(p[0]), as<bfloat16>(p[1]), as<int>(p[2]), as<int>(p[3]), m, n, group_num,
                static_cast<long>(shared), 1);
        };
    };
    wrapper_test::expect_failures(
        {call(4), call(9), call(0)}, {1, 2, 3},
        {{"n above the limit", 0, cpu, 1, sel::kMaxRouterExperts + 1, 0, 0, 0, {}, 1, "compare_fail",
          {"1025", "<=", "1024"}},
         {"more groups than experts", 1, dev, 1, 8, 0, 0, 0, {}, 1, "compare_fail", {"9", "<=", "8"}},
         {"no groups", 2, cpu, 1, 8, 1, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"negative shared experts", 0, dev, 1, 8, -1, 0, 0, {}, 1, "compare_fail", {"-1", ">=", "0"}},
         {"both: the groups first", 1, cpu, 1, 8, -1, 0, 0, {}, 1, "compare_fail", {"9", "<=", "8"}},
         {"n not a multiple of the groups, on the host", 0, cpu, 1, 10, 0, 0, 0, {}, 1, "compare_fail",
          {"2", "==", "0"}},
         {"weights past device memory", 0, dev, 1, 8, 0, 1, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"configuration fails: logged, status 2", 0, dev, 1, 8, 0, 0, 0, S::Config, 2, "kernel_fail", {"7"}},
         {"launch fails: logged, status 2", 0, dev, 1, 8, 2, 0, 0, S::Async, 2, "kernel_fail", {"7"}}});
}

}  // namespace
