// top_p_sampling: draws at the cut boundary worked out by hand, on both paths
// and both device routes; device against host bit for bit on random, tied
// and adversarial rows across the fallback threshold, on grids of different
// sizes, with the kernels chosen; bad calls and scratch.
#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "support/tsuops_test.h"
#include "wrapper/sampler/top_p_select.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace orvane::tsu::api;
using namespace tsuops_test;
namespace sel = infer_ops::top_p_select;

using wrapper_test::Pair;  // the probability type and the id type
using Instances = ::testing::Types<Pair<float, int>, Pair<float, long>, Pair<float16, int>, Pair<float16, long>>;

constexpr long kUntouchedId = -7;
constexpr float kUntouchedValue = 99.0f;

// The tensors of one call; outputs start as kUntouchedId and kUntouchedValue.
template <class T, class TID>
struct Tensors {
    GuardedBuffer<T> x, top_ps, values;
    GuardedBuffer<float> u;
    GuardedBuffer<TID> ids;
    GuardedBuffer<bool> stop;
    long m, n;

    Tensors(Context* ctx, const std::vector<T>& xs, const std::vector<T>& ps, const std::vector<float>& us,
            const std::vector<bool>& stops)
        : x(ctx, xs), top_ps(ctx, ps), values(ctx, std::vector<T>(ps.size(), T(kUntouchedValue))), u(ctx, us),
          ids(ctx, std::vector<TID>(ps.size(), TID(kUntouchedId))), stop(ctx, stops),
          m(static_cast<long>(ps.size())), n(static_cast<long>(xs.size() / ps.size())) {}

    int run(Context* ctx, bool with_values = true, bool with_stop = false) {
        return infer_ops::top_p_sampling<T, TID>(ctx, x.data(), top_ps.data(), u.data(), ids.data(), m, n,
                                                 with_values ? values.data() : nullptr, with_stop ? stop.data() : nullptr);
    }
};

// ---- the draw, worked out by hand --------------------------------------------------------

struct Draw {
    const char* what;
    std::vector<float> row;
    float top_p, u;
    long id;  // kUntouchedId: no entry is drawn
};

const float kQuietNaN = std::numeric_limits<float>::quiet_NaN();
float above(float v) { return std::nextafter(v, 4.0f); }

// In descending order the base row is 0.5 (column 1), 0.25 (3), 0.25 (4),
// 0.125 (0), 0.0625 (2); with top_p 0.75 the mass before each entry is 0,
// 0.5, 0.75, 1: the first three stay, their sum is 1, and the running sums of
// the draw are 0.5, 0.75, 1 exactly. Every value is exact in float16.
const std::vector<float> kBase = {0.125f, 0.5f, 0.0625f, 0.25f, 0.25f};

// 1024 twice, then 64 entries of 2^-14, each below half a float step of
// 2048: the float sum stays 2048 and the draw reaches 1 at the second entry,
// where a wider sum, or one in another order, would not.
std::vector<float> absorbed_tail() {
    std::vector<float> row = {1024.0f, 1024.0f};
    row.resize(66, 0x1p-14f);
    return row;
}
const Draw kDraws[] = {
    {"u on the first running sum", kBase, 0.75f, 0.5f, 1},
    {"u just past it", kBase, 0.75f, above(0.5f), 3},
    {"u on the second running sum", kBase, 0.75f, 0.75f, 3},
    {"just past it: the equal value in the next column", kBase, 0.75f, above(0.75f), 4},
    {"u on the last kept sum", kBase, 0.75f, 1.0f, 4},
    {"u past every kept sum", kBase, 0.75f, above(1.0f), kUntouchedId},
    {"u of 0", kBase, 0.75f, 0.0f, 1},
    {"top_p just below a mass: the entry that reaches it is cut", kBase, 0.75f - 0x1p-11f, 1.0f, 3},
    {"top_p of 0 keeps the first entry", kBase, 0.0f, 1.0f, 1},
    {"top_p of 1 keeps while the mass is at most 1", kBase, 1.0f, 0.95f, 0},
    {"negative top_p cuts everything", kBase, -1.0f, 0.0f, kUntouchedId},
    {"the mass in one token", {0.0f, 0.0f, 1.0f, 0.0f}, 0.9f, 1.0f, 2},
    {"one element", {0.375f}, 0.5f, 1.0f, 0},
    {"one element, u past 1", {0.375f}, 0.5f, above(1.0f), kUntouchedId},
    {"equal probabilities go in column order", {0.25f, 0.25f, 0.25f, 0.25f}, 0.5f, 0.5f, 1},
    {"a row of zeros: 0 / 0", {0.0f, 0.0f, 0.0f}, 0.5f, 0.0f, kUntouchedId},
    {"a positive NaN sorts first and poisons the mass", {0.5f, kQuietNaN, 0.5f}, 0.9f, 0.5f, kUntouchedId},
    {"a negative NaN sorts last, past the cut", {0.5f, -kQuietNaN, 0.5f}, 0.9f, 0.75f, 2},
    {"a negative entry sorts last", {-0.5f, 0.25f, 0.25f}, 0.3f, 0.5f, 1},
    {"entries summing to 0: v / 0 is infinite", {0.5f, -0.5f}, 1.0f, 1.0f, 0},
    {"entries too small for the float sum", absorbed_tail(), 1e4f, 1.0f, 1},
};

template <class P>
class TopP : public ::testing::Test {};
TYPED_TEST_SUITE(TopP, Instances, wrapper_test::PairNames);

// Each case one row, padded with zeros to n, which leaves every draw as it
// was: zeros sort after the positive entries and add nothing. Rows of 66 on
// the sampling kernel; rows at the threshold, sorted by the sort operator, for
// one instance.
TYPED_TEST(TopP, HandWorkedDrawsOnBothPathsAndRoutes) {
    using T = typename TypeParam::X;
    using TID = typename TypeParam::W;
    const bool fallback_too = std::is_same_v<T, float16> && std::is_same_v<TID, long>;
    for (long n : {66L, sel::kFallbackRow}) {
        if (n != 66 && !fallback_too) continue;
        for (const auto& ctx : {host_context(), device_context({.ncluster = 2, .gm_pool_bytes = 512ul << 20})}) {
            SCOPED_TRACE("n " + std::to_string(n) + " on device type " + std::to_string(ctx->dev_type));
            std::vector<T> xs, ps;
            std::vector<float> us;
            for (const Draw& d : kDraws) {
                for (long j = 0; j < n; ++j) xs.push_back(T(j < long(d.row.size()) ? d.row[std::size_t(j)] : 0.0f));
                ps.push_back(T(d.top_p));
                us.push_back(d.u);
            }
            Tensors<T, TID> t(ctx.get(), xs, ps, us, std::vector<bool>(ps.size(), false));
            ASSERT_EQ(t.run(ctx.get()), 0);
            const auto ids = t.ids.download();
            const auto values = t.values.download();
            for (std::size_t i = 0; i < std::size(kDraws); ++i) {
                const Draw& d = kDraws[i];
                EXPECT_EQ(long(ids[i]), d.id) << d.what;
                const float want = d.id == kUntouchedId ? kUntouchedValue : d.row[std::size_t(d.id)];
                EXPECT_TRUE(identical(std::vector<T>{T(want)}, {values[i]})) << d.what;
            }
        }
    }
}

// ---- device against host --------------------------------------------------------------------

// Rows of kind 0: softmax of random logits at a temperature per row, so that
// some rows hold their mass in a few tokens and others spread it thinly;
// 1: multiples of 1/64, exact in both types and full of ties; 2: values in
// [-0.1, 1) salted with NaN, infinities, signed zeros and subnormals; 3: a 1
// among zeros.
template <class T>
std::vector<T> make_probs(int kind, long m, long n, std::uint64_t seed) {
    std::vector<T> out(static_cast<std::size_t>(m * n), T(0.0f));
    if (kind == 2) {
        return random_tensor<T>(m * n, seed,
                                RandomSpec::with_specials(0.05, kNaN | kInfinity | kSignedZero | kSubnormal).in(-0.1, 1));
    }
    const auto logits = random_tensor<double>(m * n, seed, RandomSpec::range(-8, 8));
    const auto k = random_tensor<int>(m * n, seed, RandomSpec::range(0, 64));
    const auto at = random_tensor<long>(m, seed, RandomSpec::range(0, double(n - 1)));
    for (long r = 0; r < m; ++r) {
        const double temp = r % 3 == 0 ? 0.3 : r % 3 == 1 ? 1.0 : 4.0;
        double sum = 0;
        for (long j = 0; j < n; ++j) sum += std::exp(logits[std::size_t(r * n + j)] / temp);
        for (long j = 0; j < n; ++j) {
            const std::size_t i = std::size_t(r * n + j);
            out[i] = T(kind == 0   ? static_cast<float>(std::exp(logits[i] / temp) / sum)
                       : kind == 1 ? static_cast<float>(k[i]) / 64.0f
                                   : (j == at[std::size_t(r)] ? 1.0f : 0.0f));
        }
    }
    return out;
}

// Rows of float16 at the threshold stay clear of float16 subnormals, which
// the fallback's sort does not keep (see FlushesSubnormalFloat16WhereTheModeFlushes).
// Per row: a threshold from the edges and the middle, a coefficient from the
// edges and the middle, a stop flag on every fifth row.
TYPED_TEST(TopP, DeviceMatchesHostBitForBitAcrossTheThreshold) {
    using T = typename TypeParam::X;
    using TID = typename TypeParam::W;
    const long f = sel::kFallbackRow;
    // m, n, the kinds of row (bits), with and without values (bits), grid sizes
    struct Shape { long m, n; int kinds, values; std::vector<int> clusters; };
    const Shape shapes[] = {{7, 1, 15, 3, {1, 5}},     {7, 2, 15, 3, {1, 5}},    {9, 33, 15, 3, {1, 5}},
                            {9, 1000, 15, 3, {1, 5}},  {5, 20000, 15, 1, {1, 5}}, {1, f - 1, 2, 1, {2}},
                            {2, f, 8, 1, {2}},         {1, f + 1, 2, 1, {2}}};
    const float tops[] = {0.0f, 0.9f, 1.0f, 0.5f, -0.5f, 1e6f, 0.3f};
    auto host = host_context();
    std::uint64_t seed = 900;
    for (const Shape& s : shapes) {
        for (int kind = 0; kind < 4; ++kind) {
            for (bool with_values : {true, false}) {
                if (!(s.kinds >> kind & 1) || !(s.values >> !with_values & 1)) continue;
                SCOPED_TRACE("n " + std::to_string(s.n) + ", kind " + std::to_string(kind) + (with_values ? "" : ", no values"));
                const auto xs = make_probs<T>(kind, s.m, s.n, ++seed);
                const auto r = random_tensor<float>(s.m, seed, RandomSpec::range(0, 1));
                std::vector<T> ps;
                std::vector<float> us;
                std::vector<bool> stop;
                for (long i = 0; i < s.m; ++i) {
                    ps.push_back(T(tops[std::size_t(i) % std::size(tops)]));
                    us.push_back(i % 4 == 0 ? 0.0f : i % 4 == 1 ? 1.0f : r[std::size_t(i)]);
                    stop.push_back(i % 5 == 4);
                }
                Tensors<T, TID> want(host.get(), xs, ps, us, stop);
                ASSERT_EQ(want.run(host.get(), with_values, true), 0);
                const auto ids = want.ids.download();
                for (long i = 4; i < s.m; i += 5) EXPECT_EQ(long(ids[std::size_t(i)]), kUntouchedId) << "stopped row " << i;
                for (int clusters : s.clusters) {
                    auto dev = device_context({.ncluster = clusters});
                    Tensors<T, TID> got(dev.get(), xs, ps, us, stop);
                    LaunchCapture launches;
                    ASSERT_EQ(got.run(dev.get(), with_values, true), 0);
                    EXPECT_TRUE(identical(ids, got.ids.download())) << clusters << " clusters";
                    EXPECT_TRUE(identical(want.values.download(), got.values.download())) << clusters << " clusters";
                    std::vector<std::string> families;
                    for (const auto& k : launches.kernels()) families.push_back(kernel_family(k));
                    const std::vector<std::string> sort = std::is_same_v<T, float16>
                        ? std::vector<std::string>{"infer_cluster_cast_mk3", "infer_radix_sort_gm", "infer_cluster_cast_mk3"}
                        : std::vector<std::string>{"infer_radix_sort_gm"};
                    std::vector<std::string> expected = s.n < f ? std::vector<std::string>{} : sort;
                    expected.push_back(s.n < f ? "top_p_sampling" : "top_p_sampling_fallback");
                    ASSERT_EQ(families, expected);
                    const auto last = launches.records().back();
                    EXPECT_TRUE(last.nclusters == clusters && last.ncores == 64);
                    const std::size_t at_m = s.n < f ? 64 : 56;
                    EXPECT_EQ(LaunchCapture::arg<long>(last, at_m), s.m);
                    EXPECT_EQ(LaunchCapture::arg<long>(last, at_m + 8), s.n);
                }
            }
        }
    }
}

// The fallback sorts float16 rows as floats and narrows them back, which
// flushes float16 subnormals unless the float16 mode is "tsu3": a row of
// subnormal probabilities then has mass 0 there, and no draw, where the host
// draws. The mode is read once per process, so each runs in a child.
TEST(TopPFallbackChild, DISABLED_SubnormalRow) {
    const std::vector<float16> xs(static_cast<std::size_t>(sel::kFallbackRow), float16::from_bits(0x0100));
    auto host = host_context();
    auto dev = device_context();
    Tensors<float16, int> want(host.get(), xs, {float16(1.0f)}, {0.5f}, {false});
    Tensors<float16, int> got(dev.get(), xs, {float16(1.0f)}, {0.5f}, {false});
    ASSERT_EQ(want.run(host.get()), 0);
    ASSERT_EQ(got.run(dev.get()), 0);
    EXPECT_NE(long(want.ids.download()[0]), kUntouchedId);
    if (infer_ops::fp16_mode_is_tsu3()) {
        EXPECT_TRUE(identical(want.ids.download(), got.ids.download()));
        EXPECT_TRUE(identical(want.values.download(), got.values.download()));
    } else {
        EXPECT_EQ(long(got.ids.download()[0]), kUntouchedId);
    }
}

TEST(TopPFallback, FlushesSubnormalFloat16WhereTheModeFlushes) {
    const std::vector<std::string> modes = {"TSUAPI_BF16_FP16_MODE", "TSUAPI_FP16_MODE"};
    EXPECT_TRUE(run_child("TopPFallbackChild.DISABLED_SubnormalRow", {}, modes)) << "default mode";
    EXPECT_TRUE(run_child("TopPFallbackChild.DISABLED_SubnormalRow", {{"TSUAPI_FP16_MODE", "tsu3"}},
                          {"TSUAPI_BF16_FP16_MODE"}))
        << "tsu3";
}

TEST(TopPTrace, NameTypesAndArgumentsInOrder) {
    auto dev = device_context({.debug_flags = 0x1});
    Tensors<float16, long> t(dev.get(), std::vector<float16>(8, float16(0.125f)), {float16(0.5f), float16(0.5f)},
                             {0.5f, 0.5f}, {false, false});
    LogCapture quiet;
    TraceCapture traces;
    ASSERT_EQ(t.run(dev.get(), false, true), 0);
    ASSERT_EQ(traces.size(), 1u);
    const auto r = traces.records()[0];
    EXPECT_EQ(r.name, "top_p_sampling");
    EXPECT_EQ(r.dtypes, (std::vector<std::string>{"float16", "int64_t"}));
    EXPECT_EQ(r.params, (std::vector<std::string>{"\"GM\"", "\"GM\"", "\"GM\"", "\"GM\"", "2", "4", "\"NULL\"",
                                                  "\"GM\"", std::to_string(dev->l3_size)}));
}

// ---- bad calls ------------------------------------------------------------------------------

TEST(TopPFailure, StatusLogAndNothingWritten) {
    using wrapper_test::as;
    auto op = [](Context* c, void* const* p, long m, long n, double) {
        return infer_ops::top_p_sampling<float16, int>(c, as<float16>(p[0]), as<float16>(p[1]), as<float>(p[2]),
                                                       as<int>(p[3]), m, n, as<float16>(p[4]), as<bool>(p[5]));
    };
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;
    wrapper_test::expect_failures(
        {op}, {3, 4},
        {{"no rows", 0, dev, 0, 8, 0, 0, 0, {}, 1, "invalid_shape", {"0", "8"}},
         {"no columns, host", 0, cpu, 2, 0, 0, 0, 0, {}, 1, "invalid_shape", {"2", "0"}},
         {"2^31 elements on device type 2", 0, DeviceType::TSU2, 1L << 16, 1L << 15, 0, 0, 0, {}, 1,
          "invalid_shape", {}},
         {"null x", 0, dev, 2, 8, 0, 0, 1, {}, 1, "invalid_memory", {}},
         {"top_ps in no memory", 0, dev, 2, 8, 0, 1, 0x1000, {}, 1, "invalid_memory", {}},
         {"rand_coeff past device memory", 0, dev, 2, 8, 0, 2, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"null top_p_ids", 0, dev, 2, 8, 0, 3, 1, {}, 1, "invalid_memory", {}},
         {"top_p_values in no memory", 0, dev, 2, 8, 0, 4, 0x1000, {}, 1, "invalid_memory", {}},
         {"stop_flags past device memory", 0, dev, 2, 8, 0, 5, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"no path on device type 2", 0, DeviceType::TSU2, 2, 8, 0, 0, 0, {}, 4, "unimplement", {}},
         {"two faults, no columns and a null x: the shape first", 0, dev, 2, 0, 0, 0, 1, {}, 1, "invalid_shape",
          {"2", "0"}},
         {"every pointer bad: x first", 0, dev, 2, 8, 0, -1, 0x8000000000, {}, 1, "invalid_memory",
          {"", "0x8000000000", "{16}", "{1}", "input"}},
         {"the kernel fails to launch", 0, dev, 2, 8, 0, 0, 0, tsuemu::Site::Async, 2, "kernel_fail", {"7"}}});
}

// Without scratch each route stops at its first allocation; a failed sort on
// the fallback route is passed on with its own status.
TEST(TopPFailure, ScratchAndTheFallbackSort) {
    const std::vector<std::string> no_scratch = {"ptr(0)", "!=", "nullptr"};
    struct Case { long n; bool pools; int status; std::vector<std::vector<std::string>> records; };
    for (const Case& c : {Case{64, false, 3, {no_scratch}}, Case{sel::kFallbackRow, false, 3, {no_scratch}},
                          Case{sel::kFallbackRow, true, 2, {{"7"}, {"2", "==", "SUCCESS"}}}}) {
        SCOPED_TRACE("n " + std::to_string(c.n) + (c.pools ? ", the sort fails" : ", no scratch"));
        auto dev = device_context(c.pools ? ContextOptions{} : ContextOptions{.l3_pool_bytes = 0, .gm_pool_bytes = 0});
        Tensors<float, int> t(dev.get(), std::vector<float>(static_cast<std::size_t>(c.n), 0.5f), {0.5f}, {0.5f}, {false});
        t.ids.fill_sentinel();
        t.values.fill_sentinel();
        LogCapture logs;
        if (c.pools) tsuemu::inject_failure(tsuemu::Site::Async, 1, 7);
        EXPECT_EQ(t.run(dev.get()), c.status);
        tsuemu::clear_failures();
        std::vector<std::vector<std::string>> fields;
        for (const auto& r : logs.failures()) fields.push_back(r.fields);
        EXPECT_EQ(fields, c.records);
        EXPECT_TRUE(t.ids.untouched() && t.values.untouched());
    }
}

}  // namespace
