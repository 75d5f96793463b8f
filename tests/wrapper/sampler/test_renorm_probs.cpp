// top_k_renorm_probs and top_p_renorm_probs: device against host bit for bit
// in every instantiation, on rows that make the search work (peaked and flat
// distributions, ties at the cut, zeros, masses below 1e-8, negative
// values, infinities and NaN), with k and p per row across their range and
// rows across the kernels' chunk, with each launch; named rows against the
// documented result; bad calls.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "kernels/sampler/renorm_search.h"
#include "support/tsuops_test.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace tsuops_test;
namespace sk = tsuops::kernels::sampler;

constexpr int kClusters = 2;

auto emulated_device() { return device_context({.ncluster = kClusters}); }

template <class T>
class RenormProbs : public ::testing::Test {};
TYPED_TEST_SUITE(RenormProbs, HalfAndFloatTypes, ElementTypeNames);

// Row r of kind (r + salt) % 9: a peaked softmax; uniform values normalised;
// flat 1/n; four distinct values (ties everywhere); zeros; masses far below
// 1e-8; a few negative values; one +infinity; NaN among the values.
template <class T>
std::vector<T> probability_rows(long m, long n, std::uint64_t seed) {
    const auto u = random_tensor<float>(m * n, seed, RandomSpec::range(0, 1));
    std::vector<T> out;
    for (long r = 0; r < m; ++r) {
        const int kind = static_cast<int>((r + seed) % 9);
        std::vector<float> row(u.begin() + r * n, u.begin() + (r + 1) * n);
        float sum = 0.0f;
        for (float& v : row) {
            v = kind == 0 ? std::exp(12.0f * v) : kind == 3 ? std::floor(4.0f * v) : v;
            sum += v;
        }
        for (long j = 0; j < n; ++j) {
            float v = row[j] / sum;
            if (kind == 2) v = 1.0f / static_cast<float>(n);
            if (kind == 4) v = 0.0f;
            if (kind == 5) v *= 1e-12f;
            if (kind == 6 && j % 4 == 1) v = -v;
            if (kind == 7 && j == n / 2) v = INFINITY;
            if (kind == 8 && j % 3 == 0) v = NAN;
            out.push_back(T(v));
        }
    }
    return out;
}

struct Shape {
    long m, n;
};
// One value, lane tails, the kernels' chunk and past it, many rows over the cores.
const std::vector<Shape> kShapes = {{1, 1}, {9, 17}, {9, 1000}, {5, sk::kChunk}, {5, sk::kChunk + 17}, {70, 40},
                                    {2, 2 * sk::kChunk + 3}};

// Both operators on one context, on the same rows: per-row arrays or the
// scalars alone, or the arrays in place (where the kernels cannot use the
// output as scratch).
template <class T>
struct Calls {
    GuardedBuffer<T> x, yk, yp;
    GuardedBuffer<int> karr;
    GuardedBuffer<float> parr;
    bool in_place, arrays;

    Calls(Context* ctx, const std::vector<T>& xs, const std::vector<int>& ks, const std::vector<float>& ps, int form)
        : x(ctx, xs), yk(ctx, form == 3 ? xs : std::vector<T>(xs.size())), yp(ctx, form == 3 ? xs : std::vector<T>(xs.size())),
          karr(ctx, ks), parr(ctx, ps), in_place(form == 3), arrays(form == 0 || form == 3) {}
    const T* xk() const { return in_place ? yk.data() : x.data(); }
    const T* xp() const { return in_place ? yp.data() : x.data(); }
    const int* ka() const { return arrays ? karr.data() : nullptr; }
    const float* pa() const { return arrays ? parr.data() : nullptr; }
    int run(Context* ctx, long m, long n, long k, float p) {
        const int st = infer_ops::top_k_renorm_probs<T, int>(ctx, xk(), yk.data(), m, n, k, ka());
        return st ? st : infer_ops::top_p_renorm_probs<T>(ctx, xp(), yp.data(), pa(), p, m, n);
    }
};

template <class T>
void differential() {
    auto host = host_context();
    auto dev = emulated_device();
    std::uint64_t seed = 3;
    for (const Shape& s : kShapes) {
        const auto xs = probability_rows<T>(s.m, s.n, ++seed);
        std::vector<int> ks;
        std::vector<float> ps;
        const long k_choices[] = {1, 2, s.n / 2, s.n - 1, s.n, s.n + 5, 0, -3};
        const float p_choices[] = {0.0f, 0.3f, 0.9f, 1.0f, 1.5f, 0.999f};
        for (long r = 0; r < s.m; ++r) {
            ks.push_back(static_cast<int>(k_choices[(r + seed) % 8]));
            ps.push_back(p_choices[(r + seed) % 6]);
        }
        for (int form = 0; form < 4; ++form) {
            SCOPED_TRACE("m " + std::to_string(s.m) + " n " + std::to_string(s.n) + " form " + std::to_string(form));
            const long k = form == 1 ? 1 : std::max(1L, s.n / 3);
            const float p = form == 1 ? 0.0f : 0.8f;
            Calls<T> want(host.get(), xs, ks, ps, form), got(dev.get(), xs, ks, ps, form);
            TSUOPS_RETURN_IF_SKIPPED();
            ASSERT_EQ(want.run(host.get(), s.m, s.n, k, p), 0);
            LaunchCapture launches;
            ASSERT_EQ(got.run(dev.get(), s.m, s.n, k, p), 0);
            EXPECT_TRUE(identical(want.yk.download(), got.yk.download())) << "top_k";
            EXPECT_TRUE(identical(want.yp.download(), got.yp.download())) << "top_p";
            ASSERT_EQ(launches.size(), 2u);
            const auto r = launches.records();
            const std::string t = type_name<T>();
            EXPECT_EQ(r[0].kernel.rfind("tsu3::infer_top_k_renorm_probs<" + t + ", int>(", 0), 0u) << r[0].kernel;
            EXPECT_EQ(r[1].kernel.rfind("tsu3::infer_top_p_renorm_probs<" + t + ">(", 0), 0u) << r[1].kernel;
            using L = LaunchCapture;
            for (const auto& l : r) EXPECT_TRUE(l.nclusters == kClusters && l.ncores == 64);
            EXPECT_EQ((std::vector<const void*>{L::arg<const void*>(r[0], 0), L::arg<const void*>(r[0], 8),
                                                L::arg<const void*>(r[0], 40), L::arg<const void*>(r[1], 0),
                                                L::arg<const void*>(r[1], 8), L::arg<const void*>(r[1], 16)}),
                      (std::vector<const void*>{got.xk(), got.yk.data(), got.ka(), got.xp(), got.yp.data(), got.pa()}));
            EXPECT_EQ((std::vector<long>{L::arg<long>(r[0], 16), L::arg<long>(r[0], 24), L::arg<long>(r[0], 32),
                                         L::arg<long>(r[1], 32), L::arg<long>(r[1], 40)}),
                      (std::vector<long>{s.m, s.n, k, s.m, s.n}));
            EXPECT_EQ(L::arg<float>(r[1], 24), p);
        }
    }
}

TYPED_TEST(RenormProbs, DeviceMatchesHostBitForBitWithItsLaunch) { differential<TypeParam>(); }

// The kernels narrow by the type's plain conversion in the other rounding
// modes too (float16 keeping subnormals, bfloat16 ties away from zero), which
// are fixed once per process.
TEST(RenormProbsChild, DISABLED_OtherRoundingModes) {
    differential<float16>();
    differential<bfloat16>();
}

TEST(RenormProbsModes, DeviceMatchesHostInTheOtherRoundingModes) {
    EXPECT_TRUE(run_child("RenormProbsChild.DISABLED_OtherRoundingModes",
                          {{"TSUAPI_FP16_MODE", "tsu3"}, {"TSUAPI_BF16_ROUND_MODE", "rn"}}, {"TSUAPI_BF16_FP16_MODE"}));
}


// The documented result of a row: the entries of `kept` scaled by one over
// their float sum in column order (top_k in double, with the divisor at
// least 1e-8; top_p in float), or unscaled where no pass lifted low; all
// other entries 0.
struct Named {
    const char* what;
    std::vector<float> row;
    double k_or_p;
    std::vector<int> kept;
    bool scaled;
};

template <class T>
std::vector<T> documented(const Named& c, bool top_k) {
    std::vector<float> v;
    for (float f : c.row) v.push_back(static_cast<float>(T(f)));
    float sum = 0.0f;
    for (int j : c.kept) sum += v[j];
    std::vector<T> out(v.size(), T(0.0f));
    for (int j : c.kept) {
        if (top_k) {
            const double norm = c.scaled ? 1.0 / std::max(static_cast<double>(sum), 1e-8) : 1.0;
            out[j] = T(static_cast<float>(static_cast<double>(v[j]) * norm));
        } else {
            out[j] = T(v[j] * (c.scaled ? 1.0f / std::max(1e-8f, sum) : 1.0f));
        }
    }
    return out;
}

// Each row with the scalar and as a one-row array, on both paths; the other
// operator of the pair runs alongside with k of 1 or p of 0.5.
template <class T>
void expect_named(const std::vector<Named>& rows, bool top_k) {
    for (const auto& ctx : {host_context(), emulated_device()}) {
        for (const Named& c : rows) {
            // float16 has no values as small as the tiny masses.
            if (std::any_of(c.row.begin(), c.row.end(), [](float f) { return f != 0.0f && float(T(f)) == 0.0f; })) {
                continue;
            }
            for (int form : {2, 0}) {
                SCOPED_TRACE(std::string(c.what) + (form == 0 ? ", per row" : "") + " on device type " +
                             std::to_string(ctx->dev_type) + " in " + type_name<T>());
                const int k = top_k ? static_cast<int>(c.k_or_p) : 1;
                const float p = top_k ? 0.5f : static_cast<float>(c.k_or_p);
                Calls<T> t(ctx.get(), std::vector<T>(c.row.begin(), c.row.end()), {k}, {p}, form);
                TSUOPS_RETURN_IF_SKIPPED();
                ASSERT_EQ(t.run(ctx.get(), 1, static_cast<long>(c.row.size()), form ? k : 1, form ? p : 0.5f), 0);
                EXPECT_TRUE(exactly_equal(documented<T>(c, top_k), (top_k ? t.yk : t.yp).download()));
            }
        }
    }
}

TYPED_TEST(RenormProbs, NamedRowsGiveTheDocumentedResult) {
    expect_named<TypeParam>(
        {{"ties at the cut stay whole", {0.4f, 0.3f, 0.3f}, 2, {0, 1, 2}, true},
         {"equal values at the cut, low lifted in the closing pass", {0.2f, 0.2f, 0.0f}, 1, {0, 1}, true},
         {"k of 1", {0.1f, 0.6f, 0.3f}, 1, {1}, true},
         {"k of the whole row: unchanged", {0.25f, 0.5f, 0.25f}, 3, {0, 1, 2}, false},
         {"k above the row: unchanged", {0.125f, 0.5f, 0.25f}, 7, {0, 1, 2}, false},
         {"zeros", {0.0f, 0.0f, 0.0f, 0.0f}, 2, {}, true},
         {"a mass below 1e-8: the divisor is 1e-8", {1e-9f, 2e-9f, 0.0f, 0.0f}, 1, {1}, true},
         {"a search that closes before lifting low: unscaled", {0.9f, 0.01f, 0.01f, 0.0f}, 3, {0, 1, 2}, false}},
        true);
    expect_named<TypeParam>(
        {{"p of 0: only the largest", {0.1f, 0.6f, 0.3f}, 0.0, {1}, true},
         {"p of 1 on a row summing to 1: every positive entry", {0.5f, 0.25f, 0.25f, 0.0f}, 1.0, {0, 1, 2}, true},
         {"ties at the cut stay whole", {0.4f, 0.3f, 0.3f}, 0.5, {0, 1, 2}, true},
         {"equal values at the cut, low lifted in the closing pass", {0.2f, 0.2f, 0.0f}, 0.3, {0, 1}, true},
         {"p above the mass: nothing lifts low, unscaled", {0.3f, 0.3f, 0.0f}, 1.5, {0, 1}, false},
         {"zeros", {0.0f, 0.0f, 0.0f}, 0.5, {}, true}},
        false);
}

// The profile name, the type strings and the scalar entries of the dump.
TEST(RenormProbsFrame, TracesNameTypesAndArguments) {
    auto dev = emulated_device();
    dev->debug_flags = 1;
    Calls<bfloat16> t(dev.get(), std::vector<bfloat16>(6, bfloat16(0.25f)), {}, {}, 2);
    TSUOPS_RETURN_IF_SKIPPED();
    TraceCapture traces;
    LogCapture quiet;  // a traced call logs its regions
    ASSERT_EQ(t.run(dev.get(), 2, 3, 2, 0.5f), 0);
    std::vector<std::vector<std::string>> seen;
    for (const auto& r : traces.records()) {
        seen.push_back({r.name, std::to_string(r.params.size())});
        seen.back().insert(seen.back().end(), r.dtypes.begin(), r.dtypes.end());
        const std::size_t np = r.params.size();
        seen.back().insert(seen.back().end(), r.params.begin() + std::min(2ul, np), r.params.begin() + std::min(6ul, np));
    }
    EXPECT_EQ(seen, (std::vector<std::vector<std::string>>{
                        {"top_k_renorm_probs", "7", "bfloat16", "int", "2", "3", "2", "\"NULL\""},
                        {"top_p_renorm_probs", "7", "bfloat16", "\"NULL\"", "0.5", "2", "3"}}));
}

using wrapper_test::as;
constexpr auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;

// x (probs), y (renormed_probs) and the per-row array are p[0..2]; k or
// top_p is the row's parameter. Calls 0 and 1 are top_k with and without
// top_k_arr, calls 2 and 3 top_p with and without top_p_arr.
TEST(RenormProbsFailure, StatusLogAndNothingWritten) {
    const auto top_k_call = [](bool arr) {
        return [=](Context* c, void* const* p, long m, long n, double k) {
            return infer_ops::top_k_renorm_probs<bfloat16, int>(c, as<bfloat16>(p[0]), as<bfloat16>(p[1]), m, n,
                                                                static_cast<long>(k), arr ? as<int>(p[2]) : nullptr);
        };
    };
    const auto top_p_call = [](bool arr) {
        return [=](Context* c, void* const* p, long m, long n, double top_p) {
            return infer_ops::top_p_renorm_probs<float16>(c, as<float16>(p[0]), as<float16>(p[1]),
                                                          arr ? as<float>(p[2]) : nullptr, static_cast<float>(top_p),
                                                          m, n);
        };
    };
    wrapper_test::expect_failures(
        {top_k_call(true), top_k_call(false), top_p_call(true), top_p_call(false)}, {1},
        {{"top_k: null context", 0, wrapper_test::kNoContext, 2, 8, 2, 0, 0, {}, 1, nullptr, {}},
         {"top_k: no rows", 0, dev, 0, 8, 2, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"top_k: no columns", 1, cpu, 2, 0, 2, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"top_k: k of 0, with top_k_arr", 0, cpu, 2, 8, 0, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"top_k: negative rows and k: rows first", 1, dev, -2, 8, -1, 0, 0, {}, 1, "compare_fail", {"-2", ">", "0"}},
         {"top_k: no rows and a null input: the comparison first", 0, dev, 0, 8, 2, 0, 1, {}, 1, "compare_fail",
          {"0", ">", "0"}},
         {"top_k: null input", 1, dev, 2, 8, 2, 0, 1, {}, 1, "invalid_memory", {}},
         {"top_k: output past device memory", 1, dev, 2, 8, 2, 1, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"top_k: top_k_arr no memory", 0, dev, 2, 8, 2, 2, 0x1000, {}, 1, "invalid_memory", {}},
         {"top_k: device type without a path", 1, DeviceType::TSU2, 2, 8, 2, 0, 0, {}, 4, "unimplement", {}},
         {"top_k: launch fails", 0, dev, 2, 8, 2, 0, 0, tsuemu::Site::Async, 2, "kernel_fail", {"7"}},
         {"top_p: null context", 2, wrapper_test::kNoContext, 2, 8, 0.5, 0, 0, {}, 1, nullptr, {}},
         {"top_p: no rows", 2, dev, 0, 8, 0.5, 0, 0, {}, 1, "invalid_shape", {"0", "8"}},
         {"top_p: no columns", 3, cpu, 2, 0, 0.5, 0, 0, {}, 1, "invalid_shape", {"2", "0"}},
         {"top_p: 2^32 values on device type 2", 3, DeviceType::TSU2, 65536, 65536, 0.5, 0, 0, {}, 1, "invalid_shape",
          {}},
         {"top_p: no rows and a null input: the shape first", 3, cpu, 0, 8, 0.5, 0, 1, {}, 1, "invalid_shape", {}},
         {"top_p: null output", 3, dev, 2, 8, 0.5, 1, 1, {}, 1, "invalid_memory", {}},
         {"top_p: top_p_arr no memory", 2, dev, 2, 8, 0.5, 2, 0x1000, {}, 1, "invalid_memory", {}},
         {"top_p: device type without a path", 2, DeviceType::TSU4, 2, 8, 0.5, 0, 0, {}, 4, "unimplement", {}},
         {"top_p: configuration fails", 3, dev, 2, 8, 0.5, 0, 0, tsuemu::Site::Config, 2, "kernel_fail", {"7"}}});
}

}  // namespace
