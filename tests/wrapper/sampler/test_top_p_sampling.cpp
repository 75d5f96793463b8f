// top_p_sampling: draws at the cut boundary worked out by hand, on both paths
// and both device routes; device against host bit for bit on random,
// tied and adversarial rows across the fallback threshold, on grids of
// different sizes; the kernels chosen; bad calls and scratch.
#include <cmath>
#include <cstdint>
#include <cstring>
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

template <class T, class TID>
struct Inst {
    using X = T;
    using Id = TID;
};
using Instances = ::testing::Types<Inst<float, int>, Inst<float, long>, Inst<float16, int>, Inst<float16, long>>;
struct InstNames {
    template <class P>
    static std::string GetName(int) {
        return std::string(type_name<typename P::X>()) + "_" + type_name<typename P::Id>();
    }
};

constexpr long kUntouchedId = -7;
constexpr float kUntouchedValue = 99.0f;

template <class T>
std::uint64_t bits(T v) {
    std::uint64_t b = 0;
    std::memcpy(&b, &v, sizeof(T));
    return b;
}

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
                                                 with_values ? values.data() : nullptr,
                                                 with_stop ? stop.data() : nullptr);
    }
    std::vector<std::uint64_t> value_bits() const {
        std::vector<std::uint64_t> out;
        for (T v : values.download()) out.push_back(bits(v));
        return out;
    }
};

// ---- the draw, worked out by hand --------------------------------------------------------

struct Draw {
    const char* what;
    std::vector<float> row;
    float top_p;
    float u;
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

// Each case one row, padded with zeros to n, which leaves every draw as it
// was: zeros sort after the positive entries and add nothing.
template <class T, class TID>
void expect_hand_draws(Context* ctx, long n) {
    std::vector<T> xs, ps;
    std::vector<float> us;
    for (const Draw& d : kDraws) {
        for (long j = 0; j < n; ++j) xs.push_back(T(j < long(d.row.size()) ? d.row[std::size_t(j)] : 0.0f));
        ps.push_back(T(d.top_p));
        us.push_back(d.u);
    }
    Tensors<T, TID> t(ctx, xs, ps, us, std::vector<bool>(ps.size(), false));
    ASSERT_EQ(t.run(ctx), 0);
    const auto ids = t.ids.download();
    const auto values = t.values.download();
    for (std::size_t i = 0; i < std::size(kDraws); ++i) {
        const Draw& d = kDraws[i];
        const float want = d.id == kUntouchedId ? kUntouchedValue : d.row[std::size_t(d.id)];
        EXPECT_EQ(long(ids[i]), d.id) << d.what;
        EXPECT_EQ(bits(values[i]), bits(T(want))) << d.what;
    }
}

template <class P>
class TopP : public ::testing::Test {};
TYPED_TEST_SUITE(TopP, Instances, InstNames);

TYPED_TEST(TopP, HandWorkedDrawsOnBothPaths) {
    using T = typename TypeParam::X;
    using TID = typename TypeParam::Id;
    auto host = host_context();
    auto dev = device_context({.ncluster = 2});
    for (Context* ctx : {host.get(), dev.get()}) {
        SCOPED_TRACE(ctx == host.get() ? "host" : "device");
        expect_hand_draws<T, TID>(ctx, 66);
    }
}

// The fallback route: rows at the threshold, sorted by the sort operator.
TEST(TopPFallback, HandWorkedDrawsOnBothPaths) {
    auto host = host_context();
    auto dev = device_context({.gm_pool_bytes = 512ul << 20});
    for (Context* ctx : {host.get(), dev.get()}) {
        SCOPED_TRACE(ctx == host.get() ? "host" : "device");
        expect_hand_draws<float16, long>(ctx, sel::kFallbackRow);
    }
}

// ---- device against host --------------------------------------------------------------------

enum class Probs { softmax, grid, specials, one_token };
const char* name_of(Probs p) {
    constexpr const char* names[] = {"softmax", "grid", "specials", "one token"};
    return names[static_cast<int>(p)];
}

// softmax: random logits at a temperature per row, so that some rows hold
// their mass in a few tokens and others spread it thinly; grid: multiples of
// 1/64, exact in both types and full of ties; specials: values in [-0.1, 1)
// salted with NaN, infinities, signed zeros and subnormals; one token: a 1
// among zeros.
template <class T>
std::vector<T> make_probs(Probs kind, long m, long n, std::uint64_t seed) {
    std::vector<T> out(static_cast<std::size_t>(m * n), T(0.0f));
    switch (kind) {
    case Probs::softmax: {
        const auto logits = random_tensor<double>(m * n, seed, RandomSpec::range(-8, 8));
        for (long r = 0; r < m; ++r) {
            const double temp = r % 3 == 0 ? 0.3 : r % 3 == 1 ? 1.0 : 4.0;
            double sum = 0;
            for (long j = 0; j < n; ++j) sum += std::exp(logits[std::size_t(r * n + j)] / temp);
            for (long j = 0; j < n; ++j) {
                out[std::size_t(r * n + j)] = T(static_cast<float>(std::exp(logits[std::size_t(r * n + j)] / temp) / sum));
            }
        }
        break;
    }
    case Probs::grid: {
        const auto k = random_tensor<int>(m * n, seed, RandomSpec::range(0, 64));
        for (std::size_t i = 0; i < out.size(); ++i) out[i] = T(static_cast<float>(k[i]) / 64.0f);
        break;
    }
    case Probs::specials:
        out = random_tensor<T>(m * n, seed,
                               RandomSpec::with_specials(0.05, kNaN | kInfinity | kSignedZero | kSubnormal).in(-0.1, 1));
        break;
    case Probs::one_token: {
        const auto at = random_tensor<long>(m, seed, RandomSpec::range(0, double(n - 1)));
        for (long r = 0; r < m; ++r) out[std::size_t(r * n + at[std::size_t(r)])] = T(1.0f);
        break;
    }
    }
    return out;
}

// Per row: a threshold from the edges and the middle, a coefficient from the
// edges and the middle, a stop flag on every fifth row.
template <class T>
void make_row_inputs(long m, std::uint64_t seed, std::vector<T>& ps, std::vector<float>& us, std::vector<bool>& stop) {
    const float tops[] = {0.0f, 0.9f, 1.0f, 0.5f, -0.5f, 1e6f, 0.3f};
    const auto r = random_tensor<float>(m, seed, RandomSpec::range(0, 1));
    for (long i = 0; i < m; ++i) {
        ps.push_back(T(tops[std::size_t(i) % std::size(tops)]));
        us.push_back(i % 4 == 0 ? 0.0f : i % 4 == 1 ? 1.0f : r[std::size_t(i)]);
        stop.push_back(i % 5 == 4);
    }
}

template <class T>
std::vector<std::string> expected_families(long n) {
    if (n < sel::kFallbackRow) return {"top_p_sampling"};
    if (std::is_same_v<T, float16>) {
        return {"infer_cluster_cast_mk3", "infer_radix_sort_gm", "infer_cluster_cast_mk3", "top_p_sampling_fallback"};
    }
    return {"infer_radix_sort_gm", "top_p_sampling_fallback"};
}

// Rows of float16 at the threshold stay clear of float16 subnormals, which
// the fallback's sort does not keep (see FallbackFlushesSubnormalFloat16).
TYPED_TEST(TopP, DeviceMatchesHostBitForBitAcrossTheThreshold) {
    using T = typename TypeParam::X;
    using TID = typename TypeParam::Id;
    // The rows at the threshold run once: what varies the rest changes
    // nothing there.
    struct Shape {
        long m, n;
        std::vector<Probs> kinds;
        std::vector<bool> with_values;
        std::vector<int> clusters;
    };
    const std::vector<Probs> all = {Probs::softmax, Probs::grid, Probs::specials, Probs::one_token};
    const Shape shapes[] = {{7, 1, all, {true, false}, {1, 5}},
                            {7, 2, all, {true, false}, {1, 5}},
                            {9, 33, all, {true, false}, {1, 5}},
                            {9, 1000, all, {true, false}, {1, 5}},
                            {5, 20000, all, {true}, {1, 5}},
                            {1, sel::kFallbackRow - 1, {Probs::grid}, {true}, {2}},
                            {2, sel::kFallbackRow, {Probs::one_token}, {true}, {2}},
                            {1, sel::kFallbackRow + 1, {Probs::grid}, {true}, {2}}};
    auto host = host_context();
    std::uint64_t seed = 900;
    for (const Shape& s : shapes) {
        for (Probs kind : s.kinds) {
            for (bool with_values : s.with_values) {
                SCOPED_TRACE("n " + std::to_string(s.n) + ", " + name_of(kind) + (with_values ? "" : ", no values"));
                const auto xs = make_probs<T>(kind, s.m, s.n, ++seed);
                std::vector<T> ps;
                std::vector<float> us;
                std::vector<bool> stop;
                make_row_inputs<T>(s.m, seed, ps, us, stop);
                Tensors<T, TID> want(host.get(), xs, ps, us, stop);
                ASSERT_EQ(want.run(host.get(), with_values, true), 0);
                for (int clusters : s.clusters) {
                    auto dev = device_context({.ncluster = clusters});
                    Tensors<T, TID> got(dev.get(), xs, ps, us, stop);
                    LaunchCapture launches;
                    ASSERT_EQ(got.run(dev.get(), with_values, true), 0);
                    EXPECT_TRUE(exactly_equal(want.ids.download(), got.ids.download())) << clusters << " clusters";
                    EXPECT_TRUE(exactly_equal(want.value_bits(), got.value_bits())) << clusters << " clusters";
                    std::vector<std::string> families;
                    for (const auto& k : launches.kernels()) families.push_back(kernel_family(k));
                    ASSERT_EQ(families, expected_families<T>(s.n));
                    const auto last = launches.records().back();
                    EXPECT_EQ(last.nclusters, clusters);
                    EXPECT_EQ(last.ncores, 64);
                    const std::size_t at_m = families.back() == "top_p_sampling" ? 64 : 56;
                    EXPECT_EQ(LaunchCapture::arg<long>(last, at_m), s.m);
                    EXPECT_EQ(LaunchCapture::arg<long>(last, at_m + 8), s.n);
                }
                const auto ids = want.ids.download();
                for (long i = 0; i < s.m; ++i) {
                    if (stop[std::size_t(i)]) {
                        EXPECT_EQ(long(ids[std::size_t(i)]), kUntouchedId) << "stopped row " << i;
                    }
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
    const long n = sel::kFallbackRow;
    const std::vector<float16> xs(static_cast<std::size_t>(n), float16::from_bits(0x0100));
    auto host = host_context();
    auto dev = device_context();
    Tensors<float16, int> want(host.get(), xs, {float16(1.0f)}, {0.5f}, {false});
    Tensors<float16, int> got(dev.get(), xs, {float16(1.0f)}, {0.5f}, {false});
    ASSERT_EQ(want.run(host.get()), 0);
    ASSERT_EQ(got.run(dev.get()), 0);
    EXPECT_NE(long(want.ids.download()[0]), kUntouchedId);
    if (infer_ops::fp16_mode_is_tsu3()) {
        EXPECT_TRUE(exactly_equal(want.ids.download(), got.ids.download()));
        EXPECT_TRUE(exactly_equal(want.value_bits(), got.value_bits()));
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

TEST(TopPCatalogue, BothFamiliesWithTheirInstanceCounts) {
    std::map<std::string, int> families;
    for (const auto& k : infer_ops::kernel_catalogue()) ++families[k.family];
    EXPECT_EQ(families["top_p_sampling"], 4);
    EXPECT_EQ(families["top_p_sampling_fallback"], 4);
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
    struct Case {
        const char* what;
        long n;
        bool pools;
        std::optional<tsuemu::Site> fault;
        int status;
        std::vector<std::vector<std::string>> records;
    };
    const Case cases[] = {
        {"sampling kernel, no scratch", 64, false, {}, 3, {{"ptr(0)", "!=", "nullptr"}}},
        {"fallback, no scratch", sel::kFallbackRow, false, {}, 3, {{"ptr(0)", "!=", "nullptr"}}},
        {"fallback, the sort fails", sel::kFallbackRow, true, tsuemu::Site::Async, 2,
         {{"7"}, {"2", "==", "SUCCESS"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto dev = device_context(c.pools ? ContextOptions{} : ContextOptions{.l3_pool_bytes = 0, .gm_pool_bytes = 0});
        Tensors<float, int> t(dev.get(), std::vector<float>(static_cast<std::size_t>(c.n), 0.5f), {0.5f}, {0.5f},
                              {false});
        t.ids.fill_sentinel();
        t.values.fill_sentinel();
        LogCapture logs;
        if (c.fault) tsuemu::inject_failure(*c.fault, 1, 7);
        EXPECT_EQ(t.run(dev.get()), c.status);
        tsuemu::clear_failures();
        std::vector<std::vector<std::string>> fields;
        for (const auto& r : logs.failures()) fields.push_back(r.fields);
        EXPECT_EQ(fields, c.records);
        EXPECT_TRUE(t.ids.untouched() && t.values.untouched());
    }
}

}  // namespace
