// sort: every instantiation across the row-length table, device against host
// and both against std::stable_sort under the documented order; the radix
// kernels of the catalogue that no route reaches; the documented order of
// NaN, infinities and signed zeros; bad calls, scratch and launch failures.
#include <numeric>
#include <set>

#include "kernels/basic/sort.h"
#include "kernels/basic/sort_rows.h"
#include "kernels/basic/sort_select.h"
#include "support/tsuops_test.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace orvane::tsu::api;
using namespace tsuops_test;
namespace sel = infer_ops::sort_select;
using detail::bits_of;

constexpr int kClusters = 3;

template <class T, class I>
struct Inst { using X = T; using Index = I; };
using SortInstances =
    ::testing::Types<Inst<float, int>, Inst<float, long>, Inst<float16, int>, Inst<float16, long>, Inst<bfloat16, int>,
                     Inst<bfloat16, long>, Inst<int, int>, Inst<int, long>, Inst<long, int>, Inst<long, long>>;
struct InstNames {
    template <class P>
    static std::string GetName(int) { return std::string(type_name<typename P::X>()) + "_" + type_name<typename P::Index>(); }
};

// The documented order, spelled out on widened values: -NaN, the numbers
// (with -0 equal to +0), +NaN.
template <class T>
bool ranks_below(T a, T b) {
    if constexpr (is_floating_v<T>) {
        const double x = static_cast<float>(a), y = static_cast<float>(b);
        const auto rank = [](double v) { return std::isnan(v) ? (std::signbit(v) ? 0 : 2) : 1; };
        return rank(x) != rank(y) ? rank(x) < rank(y) : (rank(x) == 1 && x < y);
    } else {
        return a < b;
    }
}

// index and y as std::stable_sort gives them, row by row.
template <class T, class I>
std::pair<std::vector<I>, std::vector<T>> stable_sorted(const std::vector<T>& xs, long m, long n, bool descending) {
    std::vector<I> index, cols(static_cast<std::size_t>(n));
    std::vector<T> y;
    for (long r = 0; r < m; ++r) {
        const T* row = xs.data() + r * n;
        std::iota(cols.begin(), cols.end(), I(0));
        std::stable_sort(cols.begin(), cols.end(), [row, descending](I a, I b) {
            return descending ? ranks_below(row[b], row[a]) : ranks_below(row[a], row[b]);
        });
        for (I c : cols) {
            index.push_back(c);
            y.push_back(row[static_cast<long>(c)]);
        }
    }
    return {index, y};
}

enum class Rows { mixed, equal, ascending, descending };

// mixed: every element drawn from a pool of 12 values (so rows are full of
// duplicates), the pool salted with NaN of both signs (with three payloads
// each, still equal keys), infinities, signed zeros and subnormals, or an
// integer type's extremes; equal: one value; ascending and descending: a ramp
// around zero.
template <class T>
std::vector<T> make_rows(Rows kind, long m, long n, std::uint64_t seed) {
    std::vector<T> out(static_cast<std::size_t>(m * n));
    const auto pool = random_tensor<T>(12, seed, RandomSpec::with_specials(0.5).in(-6, 6));
    const auto pick = random_tensor<int>(m * n, seed + 1, RandomSpec::range(0, 11));
    for (std::size_t i = 0; i < out.size(); ++i) {
        const long j = static_cast<long>(i) % n;
        const long v = kind == Rows::equal ? 3 : kind == Rows::ascending ? j - n / 2 : n / 2 - j;
        if (kind != Rows::mixed) out[i] = is_floating_v<T> ? T(static_cast<float>(v) * 0.25f) : static_cast<T>(v);
        else out[i] = pool[static_cast<std::size_t>(pick[i])];
        if (kind == Rows::mixed && is_floating_v<T> && std::isnan(static_cast<float>(out[i]))) {
            const std::uint64_t b = bits_of(out[i]) ^ (i % 3);
            std::memcpy(&out[i], &b, sizeof(T));
        }
    }
    return out;
}

template <class T>
constexpr bool is_half = std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>;

// What the device gives for y: the host's y, except where half rows take the
// radix route through float, whose narrowing back (the device's) the host
// imitates with sim_dev_type 3.
template <class T>
std::vector<T> device_y(const std::vector<T>& host_y, long n) {
    if (!is_half<T> || n <= sel::kMaxLargeNRow) return host_y;
    auto sim = host_context({.sim_dev_type = 3});
    const long len = static_cast<long>(host_y.size());
    std::vector<float> wide(host_y.size());
    std::vector<T> back(host_y.size());
    EXPECT_EQ((infer_ops::cast<T, float>(sim.get(), host_y.data(), wide.data(), len)), 0);
    EXPECT_EQ((infer_ops::cast<float, T>(sim.get(), wide.data(), back.data(), len)), 0);
    return back;
}

// The launches that the table asks for, as kernel families.
template <class T>
std::vector<std::string> expected_families(long n) {
    if (n <= sel::kMaxLargeMRow) return {"infer_sort_large_m"};
    if (n <= sel::kMaxLargeNRow) return {"infer_sort_large_n"};
    if (is_half<T>) return {"infer_cluster_cast_mk3", "infer_radix_sort_gm", "infer_cluster_cast_mk3"};
    return {"infer_radix_sort_gm"};
}

template <class P>
class Sort : public ::testing::Test {};
TYPED_TEST_SUITE(Sort, SortInstances, InstNames);

// One below, at and one above the row-length thresholds of the table and the
// kernels' shortest radix row; single elements and pairs.
TYPED_TEST(Sort, DeviceMatchesHostAndStableSortAcrossTheTable) {
    using T = typename TypeParam::X;
    using I = typename TypeParam::Index;
    auto host = host_context();
    auto dev = device_context({.ncluster = kClusters});
    std::uint64_t seed = 500;
    std::set<long> lengths{1, 2};
    for (long t : {tsuops::kernels::rowsort::kInsertionRow, sel::kMaxLargeMRow, sel::kMaxLargeNRow})
        lengths.insert({t - 1, t, t + 1});
    for (long n : lengths) {
        const long m = n <= sel::kMaxLargeMRow + 1 ? 3 : 2;
        for (Rows kind : {Rows::mixed, Rows::equal, Rows::ascending, Rows::descending}) {
            for (bool descending : {false, true}) {
                SCOPED_TRACE("n " + std::to_string(n) + ", rows " + std::to_string(int(kind)) +
                             (descending ? ", descending" : ""));
                const auto xs = make_rows<T>(kind, m, n, ++seed);
                GuardedBuffer<T> hx(host.get(), xs), hy(host.get(), m * n), dx(dev.get(), xs), dy(dev.get(), m * n);
                GuardedBuffer<I> hi(host.get(), m * n), di(dev.get(), m * n);
                ASSERT_EQ((infer_ops::sort<T, I>(host.get(), hx.data(), hy.data(), hi.data(), m, n, descending)), 0);
                LaunchCapture launches;
                ASSERT_EQ((infer_ops::sort<T, I>(dev.get(), dx.data(), dy.data(), di.data(), m, n, descending)), 0);
                const auto [want_index, want_y] = stable_sorted<T, I>(xs, m, n, descending);
                EXPECT_TRUE(exactly_equal(want_index, hi.download())) << "host index";
                EXPECT_TRUE(identical(want_y, hy.download())) << "host y";
                EXPECT_TRUE(exactly_equal(want_index, di.download())) << "device index";
                EXPECT_TRUE(identical(device_y(want_y, n), dy.download())) << "device y";

                std::vector<std::string> families;
                for (const auto& r : launches.records()) {
                    const std::string fam = families.emplace_back(kernel_family(r.kernel));
                    EXPECT_TRUE(r.nclusters == kClusters && r.ncores == 64);
                    if (fam == "infer_radix_sort_gm") {
                        EXPECT_EQ(LaunchCapture::arg<long long>(r, 40), m);
                        EXPECT_EQ(LaunchCapture::arg<long long>(r, 48), n);
                        EXPECT_EQ(LaunchCapture::arg<int>(r, 56), descending ? 0 : 1);
                        EXPECT_NE(r.kernel.find(descending ? ", 0, 0>::eval(" : ", 1, 0>::eval("), std::string::npos);
                    } else if (fam.starts_with("infer_sort_")) {
                        EXPECT_EQ(LaunchCapture::arg<long>(r, 24), m);
                        EXPECT_EQ(LaunchCapture::arg<long>(r, 32), n);
                        EXPECT_EQ(LaunchCapture::arg<bool>(r, 40), descending);
                    }
                }
                ASSERT_EQ(families, expected_families<T>(n));
            }
        }
    }
}

// The documented example, and signed zeros that keep their column order and
// their bits, on both paths and through every kernel of the table: each case
// padded with 2.5, which sits between the numbers and the positive NaNs.
TEST(SortOrder, NaNInfinitiesAndSignedZerosWhereTheOrderPutsThem) {
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const struct { std::vector<float> x; bool descending; std::vector<int> index; } cases[] = {
        {{nan, 1.0f, -inf, -nan, inf}, false, {3, 2, 1, 4, 0}},
        {{nan, 1.0f, -inf, -nan, inf}, true, {0, 4, 1, 2, 3}},
        {{0.0f, -0.0f, 0.0f, -0.0f, -1.0f}, false, {4, 0, 1, 2, 3}},
        {{0.0f, -0.0f, 0.0f, -0.0f, -1.0f}, true, {0, 1, 2, 3, 4}},
        {{-nan, 2.0f, -nan, nan, nan}, true, {3, 4, 1, 0, 2}},
    };
    auto host = host_context();
    auto dev = device_context();
    for (long n : {5L, sel::kMaxLargeMRow + 1, sel::kMaxLargeNRow + 1}) {
        for (const auto& c : cases) {
            std::vector<float> x = c.x;
            x.resize(static_cast<std::size_t>(n), 2.5f);
            for (Context* ctx : {host.get(), dev.get()}) {
                SCOPED_TRACE("n " + std::to_string(n) + (ctx == dev.get() ? " device" : " host"));
                GuardedBuffer<float> bx(ctx, x), by(ctx, n);
                GuardedBuffer<int> bi(ctx, n);
                ASSERT_EQ((infer_ops::sort<float, int>(ctx, bx.data(), by.data(), bi.data(), 1, n, c.descending)), 0);
                std::vector<int> first;
                std::vector<float> gathered;
                for (int i : bi.download()) {
                    if (i < 5) first.push_back(i);
                    gathered.push_back(x[std::size_t(i)]);
                }
                EXPECT_EQ(first, c.index);
                EXPECT_TRUE(identical(gathered, by.download()));
            }
        }
    }
}

// The radix kernels for unsigned keys and unsigned columns, and the
// multi-cluster family, stand in the catalogue though no route launches
// them: launched directly, each sorts like std::stable_sort.
template <class K, class V, int Ascending>
void expect_catalogue_radix(Context* ctx, long m, long n) {
    const auto xs = std::is_same_v<K, float> ? make_rows<K>(Rows::mixed, m, n, 77)
                                             : random_tensor<K>(m * n, 78, RandomSpec::range(0, 40));
    GuardedBuffer<K> x(ctx, xs), y(ctx, m * n), key_tmp(ctx, m * n), y2(ctx, m * n), key_tmp2(ctx, m * n);
    GuardedBuffer<V> index(ctx, m * n), index_tmp(ctx, m * n), index2(ctx, m * n), index_tmp2(ctx, m * n);
    GuardedBuffer<int> counts(ctx, 8);
    counts.fill_sentinel();
    ASSERT_EQ(tsu_launch_config(ctx->ncluster, 64, ctx->stream), 0);
    ASSERT_EQ((tsu3::infer_radix_sort_gm<K, V, Ascending, 0>::__device_stub__eval(
                  x.data(), y.data(), index.data(), key_tmp.data(), index_tmp.data(), m, n, Ascending)), 0);
    ASSERT_EQ(tsu_launch_config(ctx->ncluster, 64, ctx->stream), 0);
    ASSERT_EQ((tsu3::infer_radix_sort_multicl_gm_sm<K, V, Ascending, 0>::__device_stub__eval(
                  x.data(), y2.data(), index2.data(), key_tmp2.data(), index_tmp2.data(), static_cast<int>(m),
                  static_cast<int>(n), Ascending, counts.data())), 0);
    const auto [want_index, want_y] = stable_sorted<K, V>(xs, m, n, Ascending == 0);
    for (const auto* got : {&index, &index2}) EXPECT_TRUE(exactly_equal(want_index, got->download()));
    for (const auto* got : {&y, &y2}) EXPECT_TRUE(identical(want_y, got->download()));
    EXPECT_TRUE(counts.untouched());
}

TEST(SortCatalogue, RadixInstancesNoRouteReachesSortToo) {
    auto dev = device_context({.ncluster = 2});
    expect_catalogue_radix<unsigned int, unsigned int, 1>(dev.get(), 3, 1000);
    expect_catalogue_radix<unsigned int, unsigned long long, 0>(dev.get(), 3, 1000);
    expect_catalogue_radix<float, unsigned int, 0>(dev.get(), 2, 3000);
    expect_catalogue_radix<long, long long, 1>(dev.get(), 2, 3000);
}

TEST(SortTrace, NameTypesAndArgumentsInOrder) {
    auto dev = device_context({.debug_flags = 0x1});
    GuardedBuffer<float16> x(dev.get(), 8), y(dev.get(), 8);
    GuardedBuffer<long> index(dev.get(), 8);
    LogCapture quiet;
    TraceCapture traces;
    ASSERT_EQ((infer_ops::sort<float16, long>(dev.get(), x.data(), y.data(), index.data(), 2, 4, true)), 0);
    ASSERT_EQ(traces.size(), 1u);
    const auto t = traces.records()[0];
    EXPECT_EQ(t.name, "sort");
    EXPECT_EQ(t.dtypes, (std::vector<std::string>{"float16", "int64_t"}));
    EXPECT_EQ(t.params, (std::vector<std::string>{"\"GM\"", "\"GM\"", "\"GM\"", "2", "4", "true",
                                                  std::to_string(dev->l3_size)}));
}

// Rows whose product of sizes is what is checked: a zero, a negative and an
// overflowing product fail, two negative sizes pass (and sort no row).
TEST(SortFailure, StatusLogAndNothingWritten) {
    using wrapper_test::as, wrapper_test::fp;
    auto sort_float = [](Context* c, void* const* p, long m, long n, double) {
        return infer_ops::sort<float, int>(c, fp(p[0]), fp(p[1]), as<int>(p[2]), m, n, false);
    };
    auto sort_half = [](Context* c, void* const* p, long m, long n, double) {
        return infer_ops::sort<bfloat16, long>(c, as<bfloat16>(p[0]), as<bfloat16>(p[1]), as<long>(p[2]), m, n, true);
    };
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;
    wrapper_test::expect_failures(
        {sort_float, sort_half}, {1, 2},
        {{"no rows", 0, dev, 0, 8, 0, 0, 0, {}, 1, "invalid_shape", {"0"}},
         {"no columns, host", 1, cpu, 4, 0, 0, 0, 0, {}, 1, "invalid_shape", {"0"}},
         {"negative product", 0, dev, -2, 8, 0, 0, 0, {}, 1, "invalid_shape", {"-16"}},
         {"the product overflows", 1, dev, 1L << 40, 1L << 40, 0, 0, 0, {}, 1, "invalid_shape", {"0"}},
         {"2^31 elements on device type 2", 0, DeviceType::TSU2, 1L << 16, 1L << 15, 0, 0, 0, {}, 1,
          "invalid_shape", {"2147483648"}},
         {"two negative sizes: a product of 8", 0, dev, -2, -4, 0, 0, 0, {}, 0, nullptr, {}},
         {"null x", 1, dev, 2, 8, 0, 0, 1, {}, 1, "invalid_memory", {}},
         {"y in no memory", 0, dev, 2, 8, 0, 1, 0x1000, {}, 1, "invalid_memory", {}},
         {"index past device memory", 1, dev, 2, 8, 0, 2, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"no path on device type 4", 0, DeviceType::TSU4, 2, 8, 0, 0, 0, {}, 4, "unimplement", {}},
         {"no path on device type 2", 1, DeviceType::TSU2, 2, 8, 0, 0, 0, {}, 4, "unimplement", {}},
         {"two faults, no rows and a null x: the count first", 0, dev, 0, 8, 0, 0, 1, {}, 1, "invalid_shape", {"0"}},
         {"every pointer bad: x first", 1, dev, 2, 8, 0, -1, 0x8000000000, {}, 1, "invalid_memory",
          {"", "0x8000000000", "{16}", "{1}", "input"}},
         {"a table kernel fails to launch", 1, dev, 2, 8, 0, 0, 0, tsuemu::Site::Config, 2, "kernel_fail", {"7"}},
         {"the radix kernel fails to launch", 0, dev, 1, sel::kMaxLargeNRow + 1, 0, 0, 0, tsuemu::Site::Async, 2,
          "kernel_fail", {"7"}}});
}

// The radix route: the half types pass the runtime's code on as it came,
// after the casts; without scratch the float route reports the scratch
// check's 3 as a failed launch, the half route as itself.
TEST(SortFailure, RadixRouteScratchAndRuntimeCodes) {
    const long n = sel::kMaxLargeNRow + 1;
    const struct {
        const char* what;
        bool half, pools;
        std::optional<tsuemu::Site> fault;
        int nth, status;
        std::vector<std::vector<std::string>> records;
    } cases[] = {
        {"half, the radix launch fails", true, true, tsuemu::Site::Async, 2, 7, {{"7", "==", "SUCCESS"}}},
        {"half, the first cast fails", true, true, tsuemu::Site::Async, 1, 2, {{"7"}, {"2", "==", "SUCCESS"}}},
        {"half, no scratch", true, false, {}, 0, 3, {{"ptr(0)", "!=", "nullptr"}}},
        {"float, no scratch", false, false, {}, 0, 2, {{"ptr(0)", "!=", "nullptr"}, {"3"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto dev = device_context(c.pools ? ContextOptions{} : ContextOptions{.l3_pool_bytes = 0, .gm_pool_bytes = 0});
        GuardedBuffer<float> fx(dev.get(), n), fy(dev.get(), n);
        GuardedBuffer<float16> hx(dev.get(), n), hy(dev.get(), n);
        GuardedBuffer<int> index(dev.get(), n);
        fy.fill_sentinel();
        hy.fill_sentinel();
        index.fill_sentinel();
        LogCapture logs;
        if (c.fault) tsuemu::inject_failure(*c.fault, c.nth, 7);
        const int st = c.half ? infer_ops::sort<float16, int>(dev.get(), hx.data(), hy.data(), index.data(), 1, n, true)
                              : infer_ops::sort<float, int>(dev.get(), fx.data(), fy.data(), index.data(), 1, n, true);
        tsuemu::clear_failures();
        EXPECT_EQ(st, c.status);
        std::vector<std::vector<std::string>> fields;
        for (const auto& r : logs.failures()) fields.push_back(r.fields);
        EXPECT_EQ(fields, c.records);
        EXPECT_TRUE(fy.untouched() && hy.untouched() && index.untouched());
    }
}

}  // namespace
