// moe_softmax_topk: every instantiation device against host bit for bit on
// both sides of each small_shape rule, across k, n and the block counts, with
// the launch's kernel and arguments; the router's order on the host results;
// the tie rule on both paths; bad calls.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <cmath>
#include <numeric>
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

constexpr int kRouterClusters = 1;

template <class X, class Y, class I>
struct Route {
    using TX = X;
    using TY = Y;
    using TID = I;
};
using AllRoutes = ::testing::Types<
    Route<float, float, int>, Route<float, float, long>, Route<float, float16, int>, Route<float, float16, long>,
    Route<float, bfloat16, int>, Route<float, bfloat16, long>, Route<float16, float, int>, Route<float16, float, long>,
    Route<float16, float16, int>, Route<float16, float16, long>, Route<float16, bfloat16, int>,
    Route<float16, bfloat16, long>, Route<bfloat16, float, int>, Route<bfloat16, float, long>,
    Route<bfloat16, float16, int>, Route<bfloat16, float16, long>, Route<bfloat16, bfloat16, int>,
    Route<bfloat16, bfloat16, long>>;
struct RouteNames {
    template <class R>
    static std::string GetName(int) {
        return std::string(type_name<typename R::TX>()) + "_" + type_name<typename R::TY>() + "_" +
               type_name<typename R::TID>();
    }
};

// Gate logits of m rows of n, one kind of row after another: spread out; a
// large common offset; constant; four distinct values (ties); all below the
// softmax's starting maximum (0/0 rows); one NaN or infinity; nearly equal.
template <class TX>
std::vector<TX> logits(long m, long n, std::uint64_t seed) {
    const auto u = random_tensor<float>(m * n, seed, RandomSpec::range(0, 1));
    std::vector<TX> x(static_cast<std::size_t>(m * n));
    for (long r = 0; r < m; ++r) {
        for (long j = 0; j < n; ++j) {
            const float v = u[r * n + j];
            float f = 0;
            switch (r % 7) {
            case 0: f = 8 * v - 4; break;
            case 1: f = 1000 + 4 * v; break;
            case 2: f = 0.25f; break;
            case 3: f = std::array{-1.0f, 0.0f, 0.5f, 2.0f}[static_cast<int>(v * 4) % 4]; break;
            case 4: f = -20000 - 1000 * v; break;
            case 5: f = j == (r / 7) % n ? (r % 2 ? NAN : INFINITY) : 16 * v - 8; break;
            default: f = 0.01f * v; break;
            }
            x[r * n + j] = TX(f);
        }
    }
    return x;
}

struct Shape {
    long m, n, k, block_num;
    bool null_statistic = false;  // only with block_num 0
};

// k of 1, 2, 8 and n; n of 1 and 1024; block counts of 0, below and above m;
// one below, at and one above every small_shape threshold. On one cluster of
// 64 cores, a core gets whole tiles of tokens (and a rest) from 512 tokens on
// or from blocks of 8 tokens on.
std::vector<Shape> shapes() {
    std::vector<Shape> s = {{1, 1, 1, 0, true},
                            {3, 5, 2, 0},
                            {7, 64, 8, 3},
                            {5, 64, 64, 9},
                            {3, 1024, 8, 0, true},
                            {2, 1024, 1024, 1},
                            {600, 64, 8, 0},
                            {80, 1024, 8, 2},
                            {40, 1024, 1024, 1},
                            {9, 40, mk::kInsertionTopk, 1},
                            {9, 40, mk::kInsertionTopk + 1, 1}};
    for (long d : {-1, 0, 1}) {
        s.push_back({sel::kSmallPairs + d, 4, 1, d == 0 ? 12 : 0});
        s.push_back({(sel::kSmallPairs + d) / 8, 16, 8, 0});
        s.push_back({sel::kTopk2MaxTokens + d, 8, 2, d == 1 ? sel::kTopk2MaxTokens + 5 : 0});
        s.push_back({sel::kTopk5TokenLimit + d, 16, 5, 0});
    }
    return s;
}

// The flag as the rules state it, independently of the wrapper's table.
bool small_shape_expected(long m, long k) {
    return m * k < sel::kSmallPairs || (m <= sel::kTopk2MaxTokens && k == 2) || (m < sel::kTopk5TokenLimit && k == 5);
}

template <class R>
class MoeSoftmaxTopk : public ::testing::Test {};
TYPED_TEST_SUITE(MoeSoftmaxTopk, AllRoutes, RouteNames);

template <class TX, class TY, class TID>
int route(Context* ctx, GuardedBuffer<TX>& x, GuardedBuffer<TY>& s, GuardedBuffer<TID>& i, GuardedBuffer<int>& b,
          const Shape& sh) {
    return infer_ops::moe_softmax_topk<TX, TY, TID>(ctx, x.data(), s.data(), i.data(),
                                                    sh.null_statistic ? nullptr : b.data(), sh.m, sh.n, sh.k,
                                                    sh.block_num);
}

// The router's order in one row of host results: scores never rise, and
// equal scores come with ascending expert numbers (TY float only: rounding
// to a half type may make unequal scores equal).
template <class TY, class TID>
void expect_router_order(const std::vector<TY>& s, const std::vector<TID>& idx, long m, long n, long k) {
    for (long t = 0; t < m; ++t) {
        std::vector<bool> seen(static_cast<std::size_t>(n));
        for (long j = 0; j < k; ++j) {
            const TID e = idx[t * k + j];
            ASSERT_TRUE(e >= 0 && e < n && !seen[e]) << "token " << t << " choice " << j << ": " << e;
            seen[e] = true;
            if (j == 0) continue;
            const float a = static_cast<float>(s[t * k + j - 1]), b = static_cast<float>(s[t * k + j]);
            if (std::isnan(a) || std::isnan(b)) continue;
            EXPECT_TRUE(a > b || (a == b && (!std::is_same_v<TY, float> || idx[t * k + j - 1] < e)))
                << "token " << t << " choice " << j << ": " << a << " then " << b;
        }
    }
}

TYPED_TEST(MoeSoftmaxTopk, DeviceMatchesHostBitForBitWithTheFlagOfTheRules) {
    using TX = typename TypeParam::TX;
    using TY = typename TypeParam::TY;
    using TID = typename TypeParam::TID;
    auto host = reference_context();
    auto dev = device_context({.ncluster = kRouterClusters});
    std::uint64_t seed = 1;
    for (const Shape& sh : shapes()) {
        SCOPED_TRACE("m " + std::to_string(sh.m) + " n " + std::to_string(sh.n) + " k " + std::to_string(sh.k) +
                     " blocks " + std::to_string(sh.block_num));
        const auto xs = logits<TX>(sh.m, sh.n, ++seed);
        const long pairs = sh.m * sh.k, stat = std::max(sh.block_num * sh.n, 1L);
        GuardedBuffer<TX> hx(host.get(), xs), dx(dev.get(), xs);
        GuardedBuffer<TY> hs(host.get(), pairs), ds(dev.get(), pairs);
        GuardedBuffer<TID> hi(host.get(), pairs), di(dev.get(), pairs);
        GuardedBuffer<int> hb(host.get(), stat), db(dev.get(), stat);
        TSUOPS_RETURN_IF_SKIPPED();
        ASSERT_EQ(route(host.get(), hx, hs, hi, hb, sh), 0);
        LaunchCapture launches;
        ASSERT_EQ(route(dev.get(), dx, ds, di, db, sh), 0);
        EXPECT_TRUE(same_bits(hi, di));
        EXPECT_TRUE(same_bits(hs, ds));
        if (sh.block_num > 0) {
            EXPECT_TRUE(same_bits(hb, db));
        } else {
            EXPECT_TRUE(hb.untouched() && db.untouched());
        }
        expect_router_order(hs.download(), hi.download(), sh.m, sh.n, sh.k);
        if (sh.block_num > 0) {
            // Each block's row adds up to k per token of the block.
            const auto b = hb.download();
            for (long blk = 0; blk < sh.block_num; ++blk) {
                const long tokens = sh.m / sh.block_num + (blk < sh.m % sh.block_num ? 1 : 0);
                EXPECT_EQ(std::accumulate(b.begin() + blk * sh.n, b.begin() + (blk + 1) * sh.n, 0L), tokens * sh.k);
            }
        }

        ASSERT_EQ(launches.size(), 1u);
        const auto r = launches.records()[0];
        const std::string kernel = "tsu3::infer_moe_softmax_topk<" + spelled<TX>() + ", " + spelled<TY>() + ", " +
                                   spelled<TID>() + ">(";
        EXPECT_EQ(r.kernel.rfind(kernel, 0), 0u) << r.kernel;
        EXPECT_EQ(r.nclusters, kRouterClusters);
        EXPECT_EQ(r.ncores, 64);
        EXPECT_EQ(LaunchCapture::arg<const void*>(r, 0), dx.data());
        EXPECT_EQ(LaunchCapture::arg<const void*>(r, 8), di.data()) << "the index before the score";
        EXPECT_EQ(LaunchCapture::arg<const void*>(r, 16), ds.data());
        EXPECT_EQ(LaunchCapture::arg<const void*>(r, 24), sh.null_statistic ? nullptr : db.data());
        EXPECT_EQ(LaunchCapture::arg<int>(r, 32), sh.k);
        EXPECT_EQ(LaunchCapture::arg<int>(r, 36), sh.m);
        EXPECT_EQ(LaunchCapture::arg<int>(r, 40), sh.n);
        EXPECT_EQ(LaunchCapture::arg<int>(r, 44), sh.block_num);
        EXPECT_EQ(LaunchCapture::arg<bool>(r, 48), small_shape_expected(sh.m, sh.k));
    }
}

// The kernels' exponential against the C library's, over every 263rd float
// from -0 to -87 (where it takes its fast path), its edges and what lies
// beyond them.
TEST(MoeSoftmaxKernel, ExponentialIsTheLibrarysToTheBit) {
    std::vector<float> d;
    for (std::uint32_t b = 0x80000000u; b <= std::bit_cast<std::uint32_t>(-87.0f); b += 263) {
        d.push_back(std::bit_cast<float>(b));
    }
    const float below = std::nextafter(-87.0f, -INFINITY), above = std::nextafter(0.0f, 1.0f);
    for (float f : {0.0f, -0.0f, -87.0f, below, -87.5f, -103.9f, -104.0f, -150.0f, -1e30f, -INFINITY, INFINITY, NAN,
                    -NAN, above, 1e-30f, 0.5f, 88.0f, 88.8f, 89.0f, -std::numeric_limits<float>::denorm_min()}) {
        d.push_back(f);
    }
    std::vector<float> want = d, got = d;
    for (float& f : want) f = static_cast<float>(std::exp(static_cast<double>(f)));
    tsuops::kernels::moe::exp_to_float(got.data(), static_cast<long>(got.size()));
    EXPECT_TRUE(exactly_equal(want, got));
}

// Rows whose order is known, on both paths.
struct TieCase {
    const char* what;
    std::vector<float> x;
    long k;
    std::vector<int> want;
};

template <class TX, class TY, class TID>
void expect_ties(const std::vector<TieCase>& cases) {
    for (const auto& ctx : {reference_context(), emulated_device()}) {
        for (const TieCase& c : cases) {
            SCOPED_TRACE(std::string(c.what) + " on device type " + std::to_string(ctx->dev_type));
            const long n = static_cast<long>(c.x.size());
            std::vector<TX> xs;
            for (float f : c.x) xs.push_back(TX(f));
            GuardedBuffer<TX> x(ctx.get(), xs);
            GuardedBuffer<TY> s(ctx.get(), c.k);
            GuardedBuffer<TID> i(ctx.get(), c.k);
            TSUOPS_RETURN_IF_SKIPPED();
            ASSERT_EQ((infer_ops::moe_softmax_topk<TX, TY, TID>(ctx.get(), x.data(), s.data(), i.data(), nullptr, 1, n,
                                                                c.k, 0)),
                      0);
            EXPECT_EQ(i.download(), std::vector<TID>(c.want.begin(), c.want.end()));
        }
    }
}

TEST(MoeSoftmaxTopkTies, EqualScoresGoToTheLowerExpert) {
    const std::vector<TieCase> cases = {
        {"bit-equal scores straddle the boundary", {2, 0, 0, 1, 0, 0, 0, 1}, 2, {0, 3}},
        {"three equal scores, room for two", {0, 1, 1, 1}, 2, {1, 2}},
        {"equal scores inside the choice", {0, 3, 0, 3, 1}, 3, {1, 3, 4}},
        {"all equal", {0.5, 0.5, 0.5, 0.5, 0.5, 0.5}, 3, {0, 1, 2}},
        {"all equal, k = n", {7, 7, 7, 7}, 4, {0, 1, 2, 3}},
        {"all below the starting maximum: every score 0/0", {-30000, -20000, -25000}, 2, {0, 1}},
    };
    expect_ties<float, float, int>(cases);
    expect_ties<bfloat16, bfloat16, long>(cases);
    expect_ties<float16, float, int>(cases);
    // Many choices take the sorting path of the kernel.
    std::vector<float> wide(2 * mk::kInsertionTopk, 1.0f);
    wide[5] = 2.0f;
    std::vector<int> want = {5};
    for (int e = 0; static_cast<long>(want.size()) < mk::kInsertionTopk + 1; ++e) {
        if (e != 5) want.push_back(e);
    }
    expect_ties<float, bfloat16, int>({{"constant row with one peak, many choices", wide, mk::kInsertionTopk + 1, want}});
}

TEST(MoeSoftmaxTopkTies, EqualRowsScoreOneOverN) {
    for (const auto& ctx : {reference_context(), emulated_device()}) {
        GuardedBuffer<float> x(ctx.get(), std::vector<float>(6, 3.0f)), s(ctx.get(), 6);
        GuardedBuffer<int> i(ctx.get(), 6);
        TSUOPS_RETURN_IF_SKIPPED();
        ASSERT_EQ((infer_ops::moe_softmax_topk<float, float, int>(ctx.get(), x.data(), s.data(), i.data(), nullptr, 1,
                                                                  6, 6, 0)),
                  0);
        EXPECT_TRUE(all_equal(s.download(), 1.0f / 6.0f));
    }
}

// Expert 5 scores a little more than the others in float, not in bfloat16:
// the float order stands, rounding comes after it.
TEST(MoeSoftmaxTopkTies, ScoresEqualOnlyInTheOutputTypeKeepTheFloatOrder) {
    std::vector<float> x(8, 0.0f);
    x[5] = 0.001f;
    const std::vector<TieCase> cases = {{"expert 5 a hair ahead", x, 3, {5, 0, 1}}};
    expect_ties<float, bfloat16, int>(cases);
    expect_ties<bfloat16, bfloat16, long>(cases);
    expect_ties<float16, bfloat16, int>(cases);
    // The premise: in bfloat16 the three scores are one value.
    auto host = reference_context();
    std::vector<bfloat16> s(3);
    std::vector<int> i(3);
    ASSERT_EQ((infer_ops::moe_softmax_topk<float, bfloat16, int>(host.get(), x.data(), s.data(), i.data(), nullptr, 1,
                                                                 8, 3, 0)),
              0);
    EXPECT_TRUE(s[0].x == s[1].x && s[1].x == s[2].x);
}

// Calls take x, topk_score, topk_index and block_statistic from p[0..3]; k
// travels as the row's parameter. Call 0 asks for 2 blocks, call 1 for none
// with a null statistic.
TEST(MoeSoftmaxTopkFailure, StatusLogAndNothingWritten) {
    using wrapper_test::as;
    const auto call = [](long block_num, bool null_stat) {
        return [=](Context* c, void* const* p, long m, long n, double k) {
            return infer_ops::moe_softmax_topk<float16, bfloat16, int>(c, as<float16>(p[0]), as<bfloat16>(p[1]),
                                                                       as<int>(p[2]),
                                                                       null_stat ? nullptr : as<int>(p[3]), m, n,
                                                                       static_cast<long>(k), block_num);
        };
    };
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;
    const auto none = wrapper_test::kNoContext;
    using S = tsuemu::Site;
    wrapper_test::expect_failures(
        {call(2, false), call(0, true)}, {1, 2, 3},
        {{"null context", 0, none, 2, 8, 2, 0, 0, {}, 1, nullptr, {}},
         {"n above the router's limit", 0, dev, 1, sel::kMaxRouterExperts + 1, 2, 0, 0, {}, 1, "compare_fail",
          {"1025", "<=", "1024"}},
         {"n above the limit, host", 1, cpu, 1, sel::kMaxRouterExperts + 1, 2, 0, 0, {}, 1, "compare_fail", {}},
         {"k above n", 0, dev, 2, 8, 9, 0, 0, {}, 1, "compare_fail", {"9", "<=", "8"}},
         {"k above n and n above the limit: n first", 0, cpu, 1, 1100, 1200, 0, 0, {}, 1, "compare_fail",
          {"1100", "<=", "1024"}},
         {"no tokens", 0, dev, 0, 8, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"no experts", 1, cpu, 2, 0, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"no choices", 0, dev, 2, 8, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"null x", 0, dev, 2, 8, 2, 0, 1, {}, 1, "invalid_memory", {}},
         {"score past device memory", 0, dev, 2, 8, 2, 1, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"index no memory", 0, dev, 2, 8, 2, 2, 0x1000, {}, 1, "invalid_memory", {}},
         {"null statistic with blocks", 0, dev, 2, 8, 2, 3, 1, {}, 1, "invalid_memory", {}},
         {"every pointer bad and n too large: x first", 0, dev, 2, 2000, 2, -1, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{4000}", "{1}", "input"}},
         {"device type without a path", 0, DeviceType::TSU4, 2, 8, 2, 0, 0, {}, 4, "unimplement", {}},
         {"configuration fails: the runtime's code, no log", 0, dev, 2, 8, 2, 0, 0, S::Config, 7, nullptr, {}},
         {"launch fails: the runtime's code, no log", 1, dev, 2, 8, 2, 0, 0, S::Async, 7, nullptr, {}}});
}

}  // namespace
