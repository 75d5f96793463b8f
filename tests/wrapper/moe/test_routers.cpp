// The routers (moe_softmax_topk and the three group routers): every
// instantiation device against host bit for bit across the small_shape rules,
// both selection paths of the kernels, groups of one expert and the block
// counts, with each launch's kernel and arguments; named rows of the
// documented order on both paths; the kernels' exponential and sigmoid;
// traces; bad calls.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
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

enum class Op { softmax, group_topk, sigmoid, singlek };

// For singlek `extra` is shared_num and k is unused; for the group routers
// `extra` is group_topk. With no blocks the statistic is null unless
// `stat_unused` passes it anyway.
struct Shape {
    long m, n, group_num, extra, k, block_num;
    bool stat_unused = false;
};

// One below, at and one above every small_shape threshold; k of 1, 2, 8, n
// and either side of the insertion limit; n of 1 and 1024; block counts of
// 0, below and above m. On one cluster of 64 cores the softmax kernel gives
// a core whole tiles of tokens from 512 tokens on or from blocks of 8.
std::vector<Shape> shapes(Op op) {
    std::vector<Shape> s;
    if (op == Op::softmax) {
        s = {{1, 1, 0, 0, 1, 0},      {3, 5, 0, 0, 2, 0, true}, {7, 64, 0, 0, 8, 3},
             {5, 64, 0, 0, 64, 9},    {3, 1024, 0, 0, 8, 0},    {2, 1024, 0, 0, 1024, 1},
             {600, 64, 0, 0, 8, 0, true}, {80, 1024, 0, 0, 8, 2}, {40, 1024, 0, 0, 1024, 1},
             {9, 40, 0, 0, mk::kInsertionTopk, 1}, {9, 40, 0, 0, mk::kInsertionTopk + 1, 1}};
        for (long d : {-1, 0, 1}) s.push_back({(sel::kSmallPairs + d) / 8, 16, 0, 0, 8, 0});
    } else if (op == Op::singlek) {
        s = {{5, 64, 8, 0, 0, 0}, {7, 64, 8, 2, 0, 3}, {3, 1024, 16, 1, 0, 0}, {4, 12, 12, 3, 0, 1}, {2, 16, 1, 0, 0, 5}};
    } else {
        s = {{7, 64, 8, 3, 8, 3},   {6, 256, 8, 4, mk::kInsertionTopk + 1, 2}, {4, 24, 12, 5, 4, 1},
             {2, 64, 32, 32, 64, 1}, {3, 1024, 8, 4, 8, 0},                     {5, 16, 4, 4, 16, 7}};
    }
    if (op == Op::group_topk) {
        s.insert(s.end(), {{5, 16, 0, 0, 3, 0}, {9, 64, 0, 0, mk::kInsertionTopk + 1, 2}, {3, 1024, 0, 0, 8, 0},
                           {2, 1, 0, 0, 1, 1}, {4, 12, 12, 5, 4, 1}});
    }
    // k (group_num for singlek) of 1, 2 and 5 at the thresholds.
    const bool single = op == Op::singlek;
    for (long d : {-1, 0, 1}) {
        s.push_back({sel::kSmallPairs + d, single ? 4 : 8, single ? 1 : 4, single ? 1 : 2, 1, d == 0 ? 12 : 0});
        s.push_back({sel::kTopk2MaxTokens + d, 8, single ? 2 : 4, single ? 0 : 2, 2,
                     op == Op::softmax && d == 1 ? sel::kTopk2MaxTokens + 5 : 0});
        s.push_back({sel::kTopk5TokenLimit + d, single ? 10 : 16, single ? 5 : 4, 2, 5, 0});
    }
    return s;
}

// The flag as the rules state it, independently of the wrapper's table.
bool small_shape_expected(long m, long k) {
    return m * k < sel::kSmallPairs || (m <= sel::kTopk2MaxTokens && k == 2) || (m < sel::kTopk5TokenLimit && k == 5);
}

// Rows of kinds in turn: spread out; a large common offset (ties once
// rounded to a half type); constant; four distinct values; nearly equal;
// infinities among spread values (for the softmax one NaN or infinity);
// for the softmax also all below its starting maximum (0/0 rows).
template <class TX>
std::vector<TX> logits(long m, long n, std::uint64_t seed, bool softmax) {
    const auto u = random_tensor<float>(m * n, seed, RandomSpec::range(0, 1));
    std::vector<TX> x;
    for (long i = 0; i < m * n; ++i) {
        const long r = i / n, j = i % n;
        const float v = u[i];
        const float special = softmax ? (j == (r / 7) % n ? (r % 2 ? NAN : INFINITY) : 16 * v - 8)
                                      : (j % 5 == r % 5 ? (j % 2 ? INFINITY : -INFINITY) : 8 * v - 4);
        const float kinds[] = {8 * v - 4, 1000 + 4 * v, 0.25f, std::array{-1.0f, 0.0f, 0.5f, 2.0f}[int(v * 4) % 4],
                               0.01f * v, special,      -20000 - 1000 * v};
        x.push_back(TX(kinds[r % (softmax ? 7 : 6)]));
    }
    return x;
}

// The tensors of one call on one context.
template <class R>
struct Routed {
    using TX = typename R::TX;
    GuardedBuffer<TX> x;
    GuardedBuffer<float> bias;
    GuardedBuffer<typename R::TY> score;
    GuardedBuffer<typename R::TID> index;
    GuardedBuffer<int> stat;
    int status = -1;

    Routed(Context* c, Op op, const Shape& s, const std::vector<TX>& xs, const std::vector<float>& b)
        : x(c, xs), bias(c, b), score(c, s.m * width(op, s)), index(c, s.m * width(op, s)),
          stat(c, std::max(1L, s.block_num * (s.n + (op == Op::singlek ? s.extra : 0)))) {
        if (::testing::Test::IsSkipped()) return;
        int* st = s.block_num > 0 || s.stat_unused ? stat.data() : nullptr;
        using TY = typename R::TY;
        using TID = typename R::TID;
        switch (op) {
        case Op::softmax:
            status = infer_ops::moe_softmax_topk<TX, TY, TID>(c, x.data(), score.data(), index.data(), st, s.m, s.n,
                                                              s.k, s.block_num);
            break;
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

// Kernel, grid, pointers (the index before the score), sizes in the
// kernel's order and width, and the small_shape flag after them.
template <class R>
void expect_launch(Op op, const Shape& s, const Routed<R>& d, const LaunchRecord& r, int clusters) {
    const auto ptr = [&](std::size_t at) { return LaunchCapture::arg<const void*>(r, at); };
    EXPECT_TRUE(r.nclusters == clusters && r.ncores == 64);
    EXPECT_TRUE(ptr(0) == d.x.data() && ptr(8) == d.index.data() && ptr(16) == d.score.data());
    EXPECT_EQ(ptr(24), s.block_num > 0 || s.stat_unused ? d.stat.data() : nullptr);
    const bool plain = op == Op::group_topk && s.group_num == 0 && s.extra == 0;
    const char* family = op == Op::softmax      ? "infer_moe_softmax_topk"
                         : plain                ? "moe_topk"
                         : op == Op::group_topk ? "moe_group_topk"
                         : op == Op::sigmoid    ? "moe_sigmoid_group_topk_norm"
                                                : "infer_moe_softmax_group_singlek_norm";
    EXPECT_EQ(r.kernel.rfind(router_kernel<R>(family), 0), 0u) << r.kernel;
    if (op == Op::sigmoid) {
        EXPECT_EQ(ptr(32), d.bias.data());
        EXPECT_EQ(LaunchCapture::arg<float>(r, 40), 1.5f);
    }
    const std::vector<long> want = op == Op::softmax || plain ? std::vector<long>{s.k, s.m, s.n, s.block_num}
                                   : op == Op::singlek ? std::vector<long>{s.group_num, s.extra, s.m, s.n, s.block_num}
                                                       : std::vector<long>{s.k, s.m, s.n, s.group_num, s.extra, s.block_num};
    const bool wide = plain || op == Op::sigmoid || op == Op::singlek;
    const std::size_t first = op == Op::sigmoid ? 48 : 32, step = wide ? 8 : 4;
    std::vector<long> sizes;
    for (std::size_t i = 0; i < want.size(); ++i) {
        sizes.push_back(wide ? LaunchCapture::arg<long>(r, first + step * i) : LaunchCapture::arg<int>(r, first + step * i));
    }
    EXPECT_EQ(sizes, want);
    if (!plain) {
        EXPECT_EQ(LaunchCapture::arg<bool>(r, first + step * want.size()),
                  small_shape_expected(s.m, op == Op::singlek ? s.group_num : s.k));
    }
}

template <class R>
class Routers : public ::testing::Test {};
TYPED_TEST_SUITE(Routers, RouterInstances, RouterInstanceNames);

TYPED_TEST(Routers, DeviceMatchesHostBitForBitWithTheirLaunches) {
    auto host = reference_context();
    auto dev = emulated_device();
    auto one_cluster = device_context({.ncluster = 1});
    std::uint64_t seed = 11;
    for (Op op : {Op::softmax, Op::group_topk, Op::sigmoid, Op::singlek}) {
        Context* d_ctx = op == Op::softmax ? one_cluster.get() : dev.get();
        for (const Shape& s : shapes(op)) {
            SCOPED_TRACE(::testing::PrintToString(std::vector<long>{static_cast<int>(op), s.m, s.n, s.group_num,
                                                                    s.extra, s.k, s.block_num}));
            const auto xs = logits<typename TypeParam::TX>(s.m, s.n, ++seed, op == Op::softmax);
            const auto bias = random_tensor<float>(s.n, ++seed, RandomSpec::range(-0.5, 0.5));
            Routed<TypeParam> h(host.get(), op, s, xs, bias);
            LaunchCapture launches;
            Routed<TypeParam> d(d_ctx, op, s, xs, bias);
            TSUOPS_RETURN_IF_SKIPPED();
            ASSERT_TRUE(h.status == 0 && d.status == 0);
            EXPECT_TRUE(same_bits(h.index, d.index));
            EXPECT_TRUE(same_bits(h.score, d.score));
            EXPECT_TRUE(s.block_num > 0 ? same_bits(h.stat, d.stat)
                                        : ::testing::AssertionResult(h.stat.untouched() && d.stat.untouched()));
            ASSERT_EQ(launches.size(), 1u);
            expect_launch(op, s, d, launches.records()[0], op == Op::softmax ? 1 : kClusters);
        }
    }
}

float host_sigmoid(float x) { return static_cast<float>(1.0 / (std::exp(-static_cast<double>(x)) + 1.0)); }

struct NamedRow {
    const char* what;
    Op op;
    std::vector<float> x, bias;
    long group_num, extra, k;
    std::vector<int> want;
};

// Each row on both paths in four type triples (the named values are exact
// in each); in float also the weights of the sigmoid router, the shared
// experts' histogram and weight, and the softmax of a constant row.
TEST(RouterOrder, NamedRowsOnBothPaths) {
    std::vector<float> hair(8, 0.0f), wide(2 * mk::kInsertionTopk, 1.0f), shared64(64, 0.0f);
    const std::vector<float> flat(8, 0.0f);
    hair[5] = 0.001f;
    wide[5] = 2.0f;
    shared64[9] = 2.0f;
    std::vector<int> wide_want = {5};
    for (int e = 0; static_cast<long>(wide_want.size()) <= mk::kInsertionTopk; ++e) {
        if (e != 5) wide_want.push_back(e);
    }
    const std::vector<NamedRow> rows = {
        {"bit-equal scores straddle the boundary", Op::softmax, {2, 0, 0, 1, 0, 0, 0, 1}, {}, 0, 0, 2, {0, 3}},
        {"three equal scores, room for two", Op::softmax, {0, 1, 1, 1}, {}, 0, 0, 2, {1, 2}},
        {"equal scores inside the choice", Op::softmax, {0, 3, 0, 3, 1}, {}, 0, 0, 3, {1, 3, 4}},
        {"all equal: each 1/n", Op::softmax, {0.5, 0.5, 0.5, 0.5, 0.5, 0.5}, {}, 0, 0, 3, {0, 1, 2}},
        {"all equal, k = n", Op::softmax, {7, 7, 7, 7}, {}, 0, 0, 4, {0, 1, 2, 3}},
        {"all below the starting maximum: every score 0/0", Op::softmax, {-30000, -20000, -25000}, {}, 0, 0, 2, {0, 1}},
        {"one peak and many choices: the sorting path", Op::softmax, wide, {}, 0, 0, mk::kInsertionTopk + 1, wide_want},
        {"scores equal only in bfloat16: the float order stands", Op::softmax, hair, {}, 0, 0, 3, {5, 0, 1}},
        {"tie inside a group: the lower expert", Op::group_topk, {3, 7, 7, 1}, {}, 1, 1, 2, {1, 2}},
        {"equal leaders: the lower group, and its experts first on a tie", Op::group_topk, {5, 2, 5, 2, 0, 0}, {}, 3,
         2, 3, {0, 2, 1}},
        {"tied candidates: the higher-ranked group before the lower expert", Op::group_topk, {4, 1, 4, 9, 0, 0}, {},
         3, 2, 3, {3, 2, 0}},
        {"no groups: a plain top-k, ties to the lower expert", Op::group_topk, {1, 3, 3, 2}, {}, 0, 0, 2, {1, 2}},
        {"one strong and one weak expert lose to two medium ones", Op::sigmoid, {4, -4, 1, 1}, {0, 0, 0, 0}, 2, 1, 1,
         {2}},
        {"the bias chooses, the weight stays unbiased", Op::sigmoid, {2, 0, 0, 1}, {0, 0, 0, 3}, 2, 2, 1, {3}},
        {"every group chosen: the list order decides the ties", Op::sigmoid, flat, flat, 4, 4, 3, {0, 1, 2}},
        {"the first maximum of each group", Op::singlek, {3, 7, 7, 1, 0, 0, 0, 0}, {}, 2, 0, 0, {1, 4}},
        {"two shared experts after 64 routed", Op::singlek, shared64, {}, 8, 2, 0, {0, 9, 16, 24, 32, 40, 48, 56, 64, 65}},
    };
    const auto chosen = [](auto r, Context* ctx, const NamedRow& row, const Shape& s, const std::vector<float>& bias) {
        using R = decltype(r);
        Routed<R> c(ctx, row.op, s, std::vector<typename R::TX>(row.x.begin(), row.x.end()), bias);
        EXPECT_EQ(c.status, 0);
        EXPECT_EQ(c.index.download(), std::vector<typename R::TID>(row.want.begin(), row.want.end())) << type_name<typename R::TX>();
    };
    for (const auto& ctx : {reference_context(), emulated_device()}) {
        for (const NamedRow& row : rows) {
            SCOPED_TRACE(std::string(row.what) + " on device type " + std::to_string(ctx->dev_type));
            const long n = static_cast<long>(row.x.size());
            const Shape s{1, n, row.group_num, row.extra, row.k, 1};
            const std::vector<float> bias = row.bias.empty() ? std::vector<float>(n, 0.0f) : row.bias;
            Routed<RouterTypes<float, float, int>> c(ctx.get(), row.op, s, row.x, bias);
            TSUOPS_RETURN_IF_SKIPPED();
            ASSERT_EQ(c.status, 0);
            EXPECT_EQ(c.index.download(), row.want);
            chosen(RouterTypes<bfloat16, bfloat16, long>{}, ctx.get(), row, s, bias);
            chosen(RouterTypes<float16, bfloat16, int>{}, ctx.get(), row, s, bias);
            chosen(RouterTypes<bfloat16, float16, long>{}, ctx.get(), row, s, bias);
            const auto w = c.score.download();
            if (row.op == Op::softmax && std::count(row.x.begin(), row.x.end(), row.x[0]) == n) {
                EXPECT_TRUE(all_equal(w, 1.0f / static_cast<float>(n)));
            }
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
    // The premise of the bfloat16 row: there the three scores are one value.
    std::vector<bfloat16> s(3);
    std::vector<int> i(3);
    ASSERT_EQ((infer_ops::moe_softmax_topk<float, bfloat16, int>(reference_context().get(), hair.data(), s.data(),
                                                                 i.data(), nullptr, 1, 8, 3, 0)),
              0);
    EXPECT_TRUE(s[0].x == s[1].x && s[1].x == s[2].x);
}

// The kernels' exponential against the C library's and their sigmoid
// against the host's formula, over strides of floats across their fast
// ranges (exp: -0 to -87, sigmoid: -90 to 90), the edges and beyond.
TEST(RouterKernel, ExponentialAndSigmoidAreTheHostsToTheBit) {
    std::vector<float> e = {0.0f, -0.0f, -87.0f, std::nextafter(-87.0f, -INFINITY), -87.5f, -103.9f, -104.0f, -150.0f,
                            -1e30f, -INFINITY, INFINITY, NAN, -NAN, std::nextafter(0.0f, 1.0f), 0.5f, 88.8f, 89.0f,
                            -std::numeric_limits<float>::denorm_min()};
    std::vector<float> s = {0.0f, -0.0f, 80.0f, -80.0f, std::nextafter(80.0f, 100.0f), -80.5f, 88.0f, -104.0f,
                            1e30f, -1e30f, INFINITY, -INFINITY, NAN, std::numeric_limits<float>::denorm_min()};
    for (std::uint32_t b = 0x80000000u; b <= std::bit_cast<std::uint32_t>(-87.0f); b += 263) e.push_back(std::bit_cast<float>(b));
    for (std::uint32_t b = 0; b <= std::bit_cast<std::uint32_t>(90.0f); b += 509) {
        s.push_back(std::bit_cast<float>(b));
        s.push_back(-std::bit_cast<float>(b));
    }
    std::vector<float> want_e = e, want_s = s;
    for (float& f : want_e) f = static_cast<float>(std::exp(static_cast<double>(f)));
    for (float& f : want_s) f = host_sigmoid(f);
    mk::exp_to_float(e.data(), static_cast<long>(e.size()));
    mk::sigmoid_to_float(s.data(), static_cast<long>(s.size()));
    EXPECT_TRUE(exactly_equal(want_e, e));
    EXPECT_TRUE(exactly_equal(want_s, s));
}

// The profile name, the type strings and the scalar entries of the dump, in
// the documented order.
TEST(RouterFrame, TracesNameTypesAndArguments) {
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
        Routed<RouterTypes<float16, bfloat16, long>> call(dev.get(), c.op, c.s, std::vector<float16>(16, float16(0.5f)),
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

// x, score, topk_index, block_statistic, bias are p[0..4]; k (shared_num
// for singlek) travels as the row's parameter. Calls: softmax 0 (2 blocks),
// 1 (none, a null statistic); group_topk 2 (4 groups, 2 taken, 2 blocks),
// 3 (no groups, no histogram), 4 (group_topk 1 of no groups), 5 (5 groups
// taken of 4); sigmoid 6 (4 groups, 2 taken), 7 (8 groups, 2 taken), 8 (no
// groups); singlek 9 (4 groups), 10 (9 groups of 8 experts), 11 (none).
TEST(RouterFailure, StatusLogAndNothingWritten) {
    using wrapper_test::as;
    using wrapper_test::Call;
    const auto softmax = [](long blocks, bool null_stat) -> Call {
        return [=](Context* c, void* const* p, long m, long n, double k) {
            return infer_ops::moe_softmax_topk<float16, bfloat16, int>(c, as<float16>(p[0]), as<bfloat16>(p[1]),
                                                                       as<int>(p[2]), null_stat ? nullptr : as<int>(p[3]),
                                                                       m, n, static_cast<long>(k), blocks);
        };
    };
    const auto grouped = [](long groups, long taken, long blocks) -> Call {
        return [=](Context* c, void* const* p, long m, long n, double k) {
            return infer_ops::moe_group_topk_fusion<float, bfloat16, int>(
                c, as<float>(p[0]), as<bfloat16>(p[1]), as<int>(p[2]), blocks > 0 ? as<int>(p[3]) : nullptr, m, n,
                groups, taken, static_cast<long>(k), blocks);
        };
    };
    const auto sigmoid = [](long groups, long taken) -> Call {
        return [=](Context* c, void* const* p, long m, long n, double k) {
            return infer_ops::moe_sigmoid_topk_norm_fusion<float16, float, long>(
                c, as<float16>(p[0]), as<float>(p[4]), 1.0f, as<float>(p[1]), as<long>(p[2]), as<int>(p[3]), m, n,
                groups, taken, static_cast<long>(k), 1);
        };
    };
    const auto singlek = [](long groups) -> Call {
        return [=](Context* c, void* const* p, long m, long n, double shared) {
            return infer_ops::moe_softmax_group_singlek_norm<bfloat16, bfloat16, int>(
                c, as<bfloat16>(p[0]), as<bfloat16>(p[1]), as<int>(p[2]), as<int>(p[3]), m, n, groups,
                static_cast<long>(shared), 1);
        };
    };
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3, none = wrapper_test::kNoContext;
    using S = tsuemu::Site;
    const std::vector<std::string> limit = {"1025", "<=", "1024"}, no_groups = {"0", ">", "0"},
                                   few = {"5", "<=", "4"}, k_above = {"9", "<=", "8"}, multiple = {"2", "==", "0"};
    wrapper_test::expect_failures(
        {softmax(2, false), softmax(0, true), grouped(4, 2, 2), grouped(0, 0, 0), grouped(0, 1, 0), grouped(4, 5, 0),
         sigmoid(4, 2), sigmoid(8, 2), sigmoid(0, 0), singlek(4), singlek(9), singlek(0)},
        {1, 2, 3},
        {{"softmax: null context", 0, none, 2, 8, 2, 0, 0, {}, 1, nullptr, {}},
         {"softmax: n above the limit", 0, dev, 1, sel::kMaxRouterExperts + 1, 2, 0, 0, {}, 1, "compare_fail", limit},
         {"softmax: k above n", 1, cpu, 2, 8, 9, 0, 0, {}, 1, "compare_fail", k_above},
         {"softmax: k above n and n above the limit: n first", 0, cpu, 1, 1100, 1200, 0, 0, {}, 1, "compare_fail",
          {"1100", "<=", "1024"}},
         {"softmax: no tokens", 0, dev, 0, 8, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"softmax: no experts", 1, cpu, 2, 0, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"softmax: no choices", 0, dev, 2, 8, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"softmax: score past device memory", 0, dev, 2, 8, 2, 1, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"softmax: index no memory", 0, dev, 2, 8, 2, 2, 0x1000, {}, 1, "invalid_memory", {}},
         {"softmax: null statistic with blocks", 0, dev, 2, 8, 2, 3, 1, {}, 1, "invalid_memory", {}},
         {"softmax: every pointer bad and n above the limit: x first", 0, dev, 2, 2000, 2, -1, 0x1000, {}, 1,
          "invalid_memory", {"", "0x1000", "{4000}", "{1}", "input"}},
         {"softmax: device type without a path", 0, DeviceType::TSU4, 2, 8, 2, 0, 0, {}, 4, "unimplement", {}},
         {"softmax: configuration fails: the runtime's code, no log", 0, dev, 2, 8, 2, 0, 0, S::Config, 7, nullptr, {}},
         {"softmax: launch fails: the runtime's code, no log", 1, dev, 2, 8, 2, 0, 0, S::Async, 7, nullptr, {}},
         {"group: null context", 2, none, 2, 8, 2, 0, 0, {}, 1, nullptr, {}},
         {"group: n not a multiple of the groups, on the host", 2, cpu, 2, 10, 2, 0, 0, {}, 1, "compare_fail", multiple},
         {"group: no groups to split into", 4, cpu, 2, 8, 1, 0, 0, {}, 1, "compare_fail", no_groups},
         {"group: no groups to split into, on the device", 4, dev, 2, 8, 1, 0, 0, {}, 1, "compare_fail", no_groups},
         {"group: more groups taken than there are", 5, dev, 2, 8, 1, 0, 0, {}, 1, "compare_fail", few},
         {"group: fewer candidates than k", 2, cpu, 2, 8, 5, 0, 0, {}, 1, "compare_fail", few},
         {"group: fewer candidates than k, on the device", 2, dev, 2, 8, 5, 0, 0, {}, 1, "compare_fail", few},
         {"group: both: the groups taken first", 5, cpu, 2, 8, 9, 0, 0, {}, 1, "compare_fail", few},
         {"group: no groups, k above n", 3, cpu, 2, 8, 9, 0, 0, {}, 1, "compare_fail", k_above},
         {"group: no groups, k above n, on the device", 3, dev, 2, 8, 9, 0, 0, {}, 1, "compare_fail", k_above},
         {"group: no groups, negative sizes", 3, cpu, -1, -1, -1, 0, 0, {}, 1, "compare_fail", {"-1", ">=", "0"}},
         {"group: a row longer than the kernels hold", 3, dev, 1, sel::kGroupKernelExperts + 1, 2, 0, 0, {}, 1,
          "compare_fail", limit},
         {"group: null statistic with blocks", 2, dev, 2, 8, 2, 3, 1, {}, 1, "invalid_memory", {}},
         {"group: bad x and n not a multiple: the region first", 2, cpu, 2, 10, 2, 0, 1, {}, 1, "invalid_memory", {}},
         {"group: no tokens", 2, dev, 0, 8, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"group: device type without a path", 2, DeviceType::TSU4, 2, 8, 2, 0, 0, {}, 4, "unimplement", {}},
         {"group: configuration fails: the runtime's code, no log", 2, dev, 2, 8, 2, 0, 0, S::Config, 7, nullptr, {}},
         {"group: launch fails: the runtime's code, no log", 3, dev, 2, 8, 2, 0, 0, S::Async, 7, nullptr, {}},
         {"sigmoid: n above the limit", 6, dev, 1, sel::kMaxRouterExperts + 1, 2, 0, 0, {}, 1, "compare_fail", limit},
         {"sigmoid: k above n", 6, cpu, 2, 8, 9, 0, 0, {}, 1, "compare_fail", k_above},
         {"sigmoid: k above n and n above the limit: n first", 6, cpu, 1, 1100, 1200, 0, 0, {}, 1, "compare_fail",
          {"1100", "<=", "1024"}},
         {"sigmoid: no groups", 8, dev, 2, 8, 2, 0, 0, {}, 1, "compare_fail", no_groups},
         {"sigmoid: groups of one expert", 7, cpu, 2, 8, 2, 0, 0, {}, 1, "compare_fail", {"1", ">=", "2"}},
         {"sigmoid: fewer candidates than k", 6, dev, 2, 8, 5, 0, 0, {}, 1, "compare_fail", few},
         {"sigmoid: null bias", 6, dev, 2, 8, 2, 4, 1, {}, 1, "invalid_memory", {}},
         {"sigmoid: device type without a path", 6, DeviceType::TSU2, 2, 8, 2, 0, 0, {}, 4, "unimplement", {}},
         {"sigmoid: launch fails: the runtime's code, no log", 6, dev, 2, 8, 2, 0, 0, S::Async, 7, nullptr, {}},
         {"singlek: n above the limit", 9, cpu, 1, sel::kMaxRouterExperts + 1, 0, 0, 0, {}, 1, "compare_fail", limit},
         {"singlek: more groups than experts", 10, dev, 1, 8, 0, 0, 0, {}, 1, "compare_fail", {"9", "<=", "8"}},
         {"singlek: no groups", 11, cpu, 1, 8, 1, 0, 0, {}, 1, "compare_fail", no_groups},
         {"singlek: negative shared experts", 9, dev, 1, 8, -1, 0, 0, {}, 1, "compare_fail", {"-1", ">=", "0"}},
         {"singlek: both: the groups first", 10, cpu, 1, 8, -1, 0, 0, {}, 1, "compare_fail", {"9", "<=", "8"}},
         {"singlek: n not a multiple of the groups, on the host", 9, cpu, 1, 10, 0, 0, 0, {}, 1, "compare_fail", multiple},
         {"singlek: weights past device memory", 9, dev, 1, 8, 0, 1, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"singlek: configuration fails: logged, status 2", 9, dev, 1, 8, 0, 0, 0, S::Config, 2, "kernel_fail", {"7"}},
         {"singlek: launch fails: logged, status 2", 9, dev, 1, 8, 2, 0, 0, S::Async, 2, "kernel_fail", {"7"}}});
}

}  // namespace
