// moe_softmax_topk: every instantiation device against host bit for bit on
// both sides of each small_shape rule, across k, n and the block counts, with
// the launch's arguments; the router's order on the host results; the
// kernels' exponential; the tie rule on both paths; bad calls.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
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

// Rows of seven kinds in turn: spread out; a large common offset; constant;
// four distinct values (ties); all below the softmax's starting maximum
// (0/0 rows); one NaN or infinity; nearly equal.
template <class TX>
std::vector<TX> logits(long m, long n, std::uint64_t seed) {
    const auto u = random_tensor<float>(m * n, seed, RandomSpec::range(0, 1));
    std::vector<TX> x;
    for (long i = 0; i < m * n; ++i) {
        const long r = i / n, j = i % n;
        const float v = u[i];
        const float kinds[] = {8 * v - 4, 1000 + 4 * v, 0.25f, std::array{-1.0f, 0.0f, 0.5f, 2.0f}[int(v * 4) % 4],
                               -20000 - 1000 * v, j == (r / 7) % n ? (r % 2 ? NAN : INFINITY) : 16 * v - 8, 0.01f * v};
        x.push_back(TX(kinds[r % 7]));
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
constexpr int kRouterClusters = 1;
std::vector<Shape> shapes() {
    std::vector<Shape> s = {{1, 1, 1, 0, true}, {3, 5, 2, 0},        {7, 64, 8, 3},     {5, 64, 64, 9},
                            {3, 1024, 8, 0, true}, {2, 1024, 1024, 1}, {600, 64, 8, 0},   {80, 1024, 8, 2},
                            {40, 1024, 1024, 1}, {9, 40, mk::kInsertionTopk, 1}, {9, 40, mk::kInsertionTopk + 1, 1}};
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

// On the host's results: distinct experts in range, scores that never rise,
// equal float scores with ascending experts (rounding to a half type may
// make unequal scores equal), and k choices per token in each block's row.
template <class TY, class TID>
void expect_router_properties(const std::vector<TY>& s, const std::vector<TID>& idx, const std::vector<int>& stat,
                              const Shape& sh) {
    for (long p = 0; p < sh.m * sh.k; ++p) {
        const long t = p / sh.k, j = p % sh.k;
        ASSERT_TRUE(idx[p] >= 0 && idx[p] < sh.n && std::count(&idx[t * sh.k], &idx[p], idx[p]) == 0) << p;
        const float a = j ? static_cast<float>(s[p - 1]) : INFINITY, b = static_cast<float>(s[p]);
        if (std::isnan(a) || std::isnan(b)) continue;
        EXPECT_TRUE(a > b || (a == b && (!std::is_same_v<TY, float> || idx[p - 1] < idx[p])))
            << "token " << t << " choice " << j << ": " << a << " then " << b;
    }
    for (long b = 0; b < sh.block_num; ++b) {
        const long tokens = sh.m / sh.block_num + (b < sh.m % sh.block_num ? 1 : 0);
        EXPECT_EQ(std::accumulate(stat.begin() + b * sh.n, stat.begin() + (b + 1) * sh.n, 0L), tokens * sh.k) << b;
    }
}

template <class R>
class MoeSoftmaxTopk : public ::testing::Test {};
TYPED_TEST_SUITE(MoeSoftmaxTopk, AllRoutes, RouteNames);

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
        const auto route = [&](Context* c, auto& x, auto& s, auto& i, GuardedBuffer<int>& b) {
            return infer_ops::moe_softmax_topk<TX, TY, TID>(c, x.data(), s.data(), i.data(),
                                                            sh.null_statistic ? nullptr : b.data(), sh.m, sh.n, sh.k,
                                                            sh.block_num);
        };
        ASSERT_EQ(route(host.get(), hx, hs, hi, hb), 0);
        LaunchCapture launches;
        ASSERT_EQ(route(dev.get(), dx, ds, di, db), 0);
        EXPECT_TRUE(same_bits(hi, di));
        EXPECT_TRUE(same_bits(hs, ds));
        EXPECT_TRUE(sh.block_num > 0 ? same_bits(hb, db) : ::testing::AssertionResult(hb.untouched() && db.untouched()));
        expect_router_properties(hs.download(), hi.download(), hb.download(), sh);

        ASSERT_EQ(launches.size(), 1u);
        const auto r = launches.records()[0];
        EXPECT_EQ(r.kernel.rfind("tsu3::infer_moe_softmax_topk<" + spelled<TX>() + ", " + spelled<TY>() + ", " +
                                     spelled<TID>() + ">(",
                                 0),
                  0u)
            << r.kernel;
        EXPECT_TRUE(r.nclusters == kRouterClusters && r.ncores == 64);
        const auto ptr = [&](std::size_t at) { return LaunchCapture::arg<const void*>(r, at); };
        EXPECT_TRUE(ptr(0) == dx.data() && ptr(8) == di.data() && ptr(16) == ds.data()) << "the index before the score";
        EXPECT_EQ(ptr(24), sh.null_statistic ? nullptr : db.data());
        const auto int_at = [&](std::size_t at) { return LaunchCapture::arg<int>(r, at); };
        EXPECT_EQ((std::vector<long>{int_at(32), int_at(36), int_at(40), int_at(44)}),
                  (std::vector<long>{sh.k, sh.m, sh.n, sh.block_num}));
        EXPECT_EQ(LaunchCapture::arg<bool>(r, 48), small_shape_expected(sh.m, sh.k));
    }
}

// Against the C library's, over every 263rd float from -0 to -87 (where it
// takes its fast path), its edges and what lies beyond them.
TEST(MoeSoftmaxKernel, ExponentialIsTheLibrarysToTheBit) {
    std::vector<float> d = {0.0f, -0.0f, -87.0f, std::nextafter(-87.0f, -INFINITY), -87.5f, -103.9f, -104.0f, -150.0f,
                            -1e30f, -INFINITY, INFINITY, NAN, -NAN, std::nextafter(0.0f, 1.0f), 0.5f, 88.8f, 89.0f,
                            -std::numeric_limits<float>::denorm_min()};
    for (std::uint32_t b = 0x80000000u; b <= std::bit_cast<std::uint32_t>(-87.0f); b += 263) {
        d.push_back(std::bit_cast<float>(b));
    }
    std::vector<float> want = d, got = d;
    for (float& f : want) f = static_cast<float>(std::exp(static_cast<double>(f)));
    mk::exp_to_float(got.data(), static_cast<long>(got.size()));
    EXPECT_TRUE(exactly_equal(want, got));
}

struct TieCase {
    const char* what;
    std::vector<float> x;
    long k;
    std::vector<int> want;
};

template <class TX, class TY, class TID>
void expect_order(const std::vector<TieCase>& cases) {
    for (const auto& ctx : {reference_context(), emulated_device()}) {
        for (const TieCase& c : cases) {
            SCOPED_TRACE(std::string(c.what) + " on device type " + std::to_string(ctx->dev_type) + ", " +
                         type_name<TX>() + " to " + type_name<TY>());
            std::vector<TX> xs(c.x.begin(), c.x.end());
            GuardedBuffer<TX> x(ctx.get(), xs);
            GuardedBuffer<TY> s(ctx.get(), c.k);
            GuardedBuffer<TID> i(ctx.get(), c.k);
            TSUOPS_RETURN_IF_SKIPPED();
            ASSERT_EQ((infer_ops::moe_softmax_topk<TX, TY, TID>(ctx.get(), x.data(), s.data(), i.data(), nullptr, 1,
                                                                static_cast<long>(xs.size()), c.k, 0)),
                      0);
            EXPECT_EQ(i.download(), std::vector<TID>(c.want.begin(), c.want.end()));
            if (std::is_same_v<TY, float> && std::count(c.x.begin(), c.x.end(), c.x[0]) == static_cast<long>(c.x.size())) {
                EXPECT_TRUE(all_equal(s.download(), TY(1.0f / static_cast<float>(xs.size()))));
            }
        }
    }
}

// Equal scores go to the lower expert, at the boundary of the choice and
// inside it. Expert 5 of the last row scores a hair above the others in
// float but not in bfloat16: the float order stands.
TEST(MoeSoftmaxTopkOrder, TiesGoToTheLowerExpertAndTheFloatOrderStands) {
    std::vector<float> hair(8, 0.0f), wide(2 * mk::kInsertionTopk, 1.0f);
    hair[5] = 0.001f;
    wide[5] = 2.0f;
    std::vector<int> wide_want = {5};
    for (int e = 0; static_cast<long>(wide_want.size()) <= mk::kInsertionTopk; ++e) {
        if (e != 5) wide_want.push_back(e);
    }
    const std::vector<TieCase> ties = {
        {"bit-equal scores straddle the boundary", {2, 0, 0, 1, 0, 0, 0, 1}, 2, {0, 3}},
        {"three equal scores, room for two", {0, 1, 1, 1}, 2, {1, 2}},
        {"equal scores inside the choice", {0, 3, 0, 3, 1}, 3, {1, 3, 4}},
        {"all equal: each 1/n", {0.5, 0.5, 0.5, 0.5, 0.5, 0.5}, 3, {0, 1, 2}},
        {"all equal, k = n", {7, 7, 7, 7}, 4, {0, 1, 2, 3}},
        {"all below the starting maximum: every score 0/0", {-30000, -20000, -25000}, 2, {0, 1}},
        {"one peak and many choices: the sorting path", wide, mk::kInsertionTopk + 1, wide_want},
        {"scores equal only in bfloat16", hair, 3, {5, 0, 1}},
    };
    expect_order<float, float, int>(ties);
    expect_order<bfloat16, bfloat16, long>(ties);
    expect_order<float16, bfloat16, int>(ties);
    // The premise of the last row: in bfloat16 the three scores are one value.
    auto host = reference_context();
    std::vector<bfloat16> s(3);
    std::vector<int> i(3);
    ASSERT_EQ((infer_ops::moe_softmax_topk<float, bfloat16, int>(host.get(), hair.data(), s.data(), i.data(), nullptr,
                                                                 1, 8, 3, 0)),
              0);
    EXPECT_TRUE(s[0].x == s[1].x && s[1].x == s[2].x);
}

// x, topk_score, topk_index and block_statistic are p[0..3]; k travels as
// the row's parameter. Call 0 asks for 2 blocks, call 1 for none with a null
// statistic.
TEST(MoeSoftmaxTopkFailure, StatusLogAndNothingWritten) {
    using wrapper_test::as;
    const auto call = [](long block_num, bool null_stat) {
        return [=](Context* c, void* const* p, long m, long n, double k) {
            return infer_ops::moe_softmax_topk<float16, bfloat16, int>(c, as<float16>(p[0]), as<bfloat16>(p[1]),
                                                                       as<int>(p[2]), null_stat ? nullptr : as<int>(p[3]),
                                                                       m, n, static_cast<long>(k), block_num);
        };
    };
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;
    using S = tsuemu::Site;
    wrapper_test::expect_failures(
        {call(2, false), call(0, true)}, {1, 2, 3},
        {{"null context", 0, wrapper_test::kNoContext, 2, 8, 2, 0, 0, {}, 1, nullptr, {}},
         {"n above the limit", 0, dev, 1, sel::kMaxRouterExperts + 1, 2, 0, 0, {}, 1, "compare_fail",
          {"1025", "<=", "1024"}},
         {"k above n", 1, cpu, 2, 8, 9, 0, 0, {}, 1, "compare_fail", {"9", "<=", "8"}},
         {"k above n and n above the limit: n first", 0, cpu, 1, 1100, 1200, 0, 0, {}, 1, "compare_fail",
          {"1100", "<=", "1024"}},
         {"no tokens", 0, dev, 0, 8, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"no experts", 1, cpu, 2, 0, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"no choices", 0, dev, 2, 8, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"score past device memory", 0, dev, 2, 8, 2, 1, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"index no memory", 0, dev, 2, 8, 2, 2, 0x1000, {}, 1, "invalid_memory", {}},
         {"null statistic with blocks", 0, dev, 2, 8, 2, 3, 1, {}, 1, "invalid_memory", {}},
         {"every pointer bad and n above the limit: x first", 0, dev, 2, 2000, 2, -1, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{4000}", "{1}", "input"}},
         {"device type without a path", 0, DeviceType::TSU4, 2, 8, 2, 0, 0, {}, 4, "unimplement", {}},
         {"configuration fails: the runtime's code, no log", 0, dev, 2, 8, 2, 0, 0, S::Config, 7, nullptr, {}},
         {"launch fails: the runtime's code, no log", 1, dev, 2, 8, 2, 0, 0, S::Async, 7, nullptr, {}}});
}

}  // namespace
