// rms_layer_norm: the device agrees with the host across every row-length
// threshold, the host agrees with an independent computation, the device
// picks its kernel by the table and the GMX switch, and bad arguments leave
// the output alone.
//
// The independent computation rounds every step on its own.
#pragma GCC optimize("fp-contract=off")

#include <cmath>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/infer_ops.h>

#include "kernels/layer_norm/norm_rows.h"
#include "support/child_process.h"
#include "support/tsuops_test.h"
#include "wrapper/rms_norm/rms_norm_select.h"

namespace {

using namespace orvane::tsu::api;
using tsuops_test::GuardedBuffer;
using tsuops_test::LaunchCapture;
using tsuops_test::LogCapture;
using tsuops_test::RandomSpec;
namespace sel = infer_ops::rms_norm;

template <class T, class TW>
struct Pair {
    using X = T;
    using W = TW;
};
using RmsPairs = ::testing::Types<Pair<float16, float16>, Pair<float16, float>, Pair<bfloat16, bfloat16>,
                                  Pair<bfloat16, float>, Pair<float, float>>;
struct PairNames {
    template <class P>
    static std::string GetName(int) {
        return std::string(tsuops_test::type_name<typename P::X>()) + "_" + tsuops_test::type_name<typename P::W>();
    }
};

// One below, at and one above every row capacity of the ns table, the GMX
// limit and the kernels' staging chunk, and the shortest row.
std::vector<long> row_sweep() {
    std::set<long> at{1, sel::kMaxGmxRow, tsuops::kernels::norm::kRowChunk};
    for (int k : sel::kNsCapacities) at.insert(sel::kNsRowUnit * k);
    std::set<long> out;
    for (long t : at) {
        for (long d : {-1L, 0L, 1L}) {
            if (t + d >= 1) out.insert(t + d);
        }
    }
    return {out.begin(), out.end()};
}

// Few rows, fewer still for the long ones.
long rows_for(long n) { return n <= 4097 ? 3 : 2; }

struct Variant {
    bool scale;
    bool bias;
    bool rms_out;
    bool is_rstd;
};
constexpr Variant kVariants[] = {
    {false, false, false, false}, {true, false, false, false}, {true, true, false, false},
    {false, false, true, true},   {true, true, true, false},
};

// The arguments of one call, in host or device memory.
template <class T, class TW>
struct Tensors {
    GuardedBuffer<T> x, y;
    GuardedBuffer<TW> scale, bias;
    GuardedBuffer<float> rms;

    Tensors(Context* ctx, long m, long n, std::uint64_t seed)
        : x(ctx, tsuops_test::random_tensor<T>(m * n, seed)),
          y(ctx, m * n),
          scale(ctx, tsuops_test::random_tensor<TW>(n, seed + 1, RandomSpec::range(0.5, 1.5))),
          bias(ctx, tsuops_test::random_tensor<TW>(n, seed + 2, RandomSpec::range(-0.5, 0.5))),
          rms(ctx, m) {}

    int run(Context* ctx, long m, long n, float eps, const Variant& v) {
        return infer_ops::rms_layer_norm<T, TW>(ctx, x.data(), y.data(), m, n, eps, v.scale ? scale.data() : nullptr,
                                                v.bias ? bias.data() : nullptr, v.rms_out ? rms.data() : nullptr,
                                                v.is_rstd);
    }
};

// The kernels sum in a different order: a relative bound that grows with
// the row, and an absolute floor of the same size for results that cancel
// against the bias.
template <class T>
tsuops_test::Tolerance row_tolerance(long n) {
    const auto t = tsuops_test::reduction_tolerance<T>(n);
    return t.with_abs(4.0 * t.rel);
}

template <class P>
class RmsNorm : public ::testing::Test {};
TYPED_TEST_SUITE(RmsNorm, RmsPairs, PairNames);

TYPED_TEST(RmsNorm, DeviceMatchesHostAcrossRowLengths) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    auto host = tsuops_test::host_context();
    auto dev = tsuops_test::device_context();
    std::uint64_t seed = 100;
    for (long n : row_sweep()) {
        const long m = rows_for(n);
        for (const Variant& v : kVariants) {
            seed += 10;
            Tensors<T, TW> want(host.get(), m, n, seed);
            Tensors<T, TW> got(dev.get(), m, n, seed);
            ASSERT_EQ(want.run(host.get(), m, n, 1e-5f, v), 0);
            ASSERT_EQ(got.run(dev.get(), m, n, 1e-5f, v), 0);
            const std::string what = "n " + std::to_string(n) + " scale " + std::to_string(v.scale) + " bias " +
                                     std::to_string(v.bias) + " rms_out " + std::to_string(v.rms_out);
            EXPECT_TRUE(tsuops_test::nearly_equal(want.y.download(), got.y.download(), row_tolerance<T>(n))) << what;
            if (v.rms_out) {
                EXPECT_TRUE(tsuops_test::nearly_equal(want.rms.download(), got.rms.download(),
                                                      row_tolerance<float>(n)))
                    << what;
            } else {
                EXPECT_TRUE(got.rms.untouched()) << what;
            }
        }
    }
}

// The documented steps, written out independently: the mean square summed in
// element order, 1 / sqrt in double narrowed to float, (x * r) * w + b.
template <class T, class TW>
void independent_rms(const std::vector<T>& x, std::vector<T>& y, long m, long n, float eps,
                     const std::vector<TW>& scale, const std::vector<TW>& bias, std::vector<float>& rstd,
                     std::vector<float>& ms) {
    for (long i = 0; i < m; ++i) {
        float q = 0.0f;
        for (long j = 0; j < n; ++j) {
            const float v = static_cast<float>(x[i * n + j]);
            q += v * v;
        }
        const float mean_sq = q / static_cast<float>(n);
        const float r = static_cast<float>(1.0 / std::sqrt(static_cast<double>(eps + mean_sq)));
        for (long j = 0; j < n; ++j) {
            const float a = static_cast<float>(x[i * n + j]) * r;
            const float b = a * static_cast<float>(scale[j]);
            y[i * n + j] = T(b + static_cast<float>(bias[j]));
        }
        rstd[i] = r;
        ms[i] = mean_sq;
    }
}

TYPED_TEST(RmsNorm, HostMatchesIndependentComputationExactly) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    auto host = tsuops_test::host_context();
    const long m = 5;
    const long n = 777;
    const float eps = 1e-6f;
    const auto x = tsuops_test::random_tensor<T>(m * n, 7, RandomSpec::range(-3, 3));
    const auto scale = tsuops_test::random_tensor<TW>(n, 8, RandomSpec::range(-2, 2));
    const auto bias = tsuops_test::random_tensor<TW>(n, 9);
    std::vector<T> want(m * n);
    std::vector<float> rstd(m), ms(m);
    independent_rms(x, want, m, n, eps, scale, bias, rstd, ms);

    for (bool is_rstd : {true, false}) {
        std::vector<T> y(m * n);
        std::vector<float> rms(m);
        ASSERT_EQ((infer_ops::rms_layer_norm<T, TW>(host.get(), x.data(), y.data(), m, n, eps, scale.data(),
                                                   bias.data(), rms.data(), is_rstd)),
                  0);
        EXPECT_TRUE(tsuops_test::exactly_equal(want, y));
        EXPECT_TRUE(tsuops_test::exactly_equal(is_rstd ? rstd : ms, rms));
    }
}

// Inside the pool the rows run inline; the thread number comes back.
TEST(RmsNormHost, InsideTheThreadPoolRowsRunInlineAndTheThreadNumberIsKept) {
    auto host = tsuops_test::host_context();
    const long m = 4;
    const long n = 64;
    const auto x = tsuops_test::random_tensor<float>(m * n, 3);
    std::vector<float> want(m * n), got(m * n);
    ASSERT_EQ((infer_ops::rms_layer_norm<float, float>(host.get(), x.data(), want.data(), m, n, 1e-5f, nullptr,
                                                      nullptr, nullptr, false)),
              0);
    int status = -1;
    int before = -1;
    int after = -2;
    cpu::internal::invoke_parallel(0, 1, 0, [&](long, long) {
        before = cpu::get_thread_num();
        status = infer_ops::rms_layer_norm<float, float>(host.get(), x.data(), got.data(), m, n, 1e-5f, nullptr,
                                                         nullptr, nullptr, false);
        after = cpu::get_thread_num();
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(before, after);
    EXPECT_TRUE(tsuops_test::exactly_equal(want, got));
}

// ---- kernel selection ----------------------------------------------------------------------
// Every selection test runs in a child process, so that the once-read switch
// has the value the test gives it. The child is told what to expect through
// TSUOPS_TEST_GMX_EXPECTED ("on" or "off").

constexpr int kClusters = 4;
constexpr int kGmx = 2;

template <class T, class TW>
std::string kernel_prefix(const char* family, int k = 0) {
    std::string s = std::string("tsu3::") + family + "<" + tsuops_test::type_name<T>() + ", " +
                    tsuops_test::type_name<TW>();
    if (k != 0) s += ", " + std::to_string(k);
    return s + ">(";
}

// The smallest ns capacity that holds the row.
int smallest_capacity(long n) {
    for (int k : {1, 4, 8, 16, 64}) {
        if (n <= sel::kNsRowUnit * k) return k;
    }
    return 0;
}

struct Expected {
    std::string kernel;
    int nclusters;
    int ncores;
};

template <class T, class TW>
Expected expected_kernel(long n, bool bias, bool rms_out, bool gmx_on) {
    constexpr bool floats = std::is_same_v<T, float> && std::is_same_v<TW, float>;
    constexpr bool equal_halves = std::is_same_v<T, TW> && !floats;
    if (floats || bias || rms_out || n > sel::kMaxNsRow) {
        return {kernel_prefix<T, TW>("infer_rms_layer_norm"), kClusters, 64};
    }
    if (gmx_on && n % sel::kGmxRowUnit == 0 && n <= sel::kMaxGmxRow) {
        if (equal_halves) return {kernel_prefix<T, TW>("infer_rms_layer_norm_gmx"), kGmx, 8};
        return {kernel_prefix<T, TW>("infer_rms_layer_norm_ns", 64), kClusters, 64};
    }
    return {kernel_prefix<T, TW>("infer_rms_layer_norm_ns", smallest_capacity(n)), kClusters, 64};
}

std::vector<long> selection_rows() {
    std::vector<long> rows = row_sweep();
    for (long k = 2; k * sel::kGmxRowUnit < sel::kMaxGmxRow; ++k) rows.push_back(k * sel::kGmxRowUnit);
    rows.push_back(1000);
    return rows;
}

template <class T, class TW>
void check_selection(bool gmx_on) {
    auto dev = tsuops_test::device_context({.ncluster = kClusters, .ngmx = kGmx});
    const long max_n = sel::kMaxNsRow + 1;
    GuardedBuffer<T> x(dev.get(), max_n), y(dev.get(), max_n);
    GuardedBuffer<TW> w(dev.get(), max_n);
    GuardedBuffer<float> rms(dev.get(), 1);
    for (long n : selection_rows()) {
        for (int extra = 0; extra < 3; ++extra) {
            const bool bias = extra == 1;
            const bool rms_out = extra == 2;
            LaunchCapture launches;
            ASSERT_EQ((infer_ops::rms_layer_norm<T, TW>(dev.get(), x.data(), y.data(), 1, n, 1e-5f, w.data(),
                                                       bias ? w.data() : nullptr, rms_out ? rms.data() : nullptr,
                                                       true)),
                      0);
            const auto rec = launches.records();
            ASSERT_EQ(rec.size(), 1u);
            const Expected e = expected_kernel<T, TW>(n, bias, rms_out, gmx_on);
            EXPECT_EQ(rec[0].kernel.rfind(e.kernel, 0), 0u) << "n " << n << " extra " << extra << ": " << rec[0].kernel;
            EXPECT_EQ(rec[0].nclusters, e.nclusters) << "n " << n;
            EXPECT_EQ(rec[0].ncores, e.ncores) << "n " << n;
            EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 8), 1) << "m";
            EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 16), n) << "n";
            if (!bias && !rms_out && e.kernel.find("infer_rms_layer_norm<") == std::string::npos) {
                EXPECT_FALSE(LaunchCapture::arg<bool>(rec[0], 48)) << "the last bool is always false";
            }
        }
    }
}

bool expected_gmx() {
    const char* e = std::getenv("TSUOPS_TEST_GMX_EXPECTED");
    return e != nullptr && std::string(e) == "on";
}

TEST(RmsNormSelectionChild, DISABLED_Table) {
    const bool on = expected_gmx();
    check_selection<float16, float16>(on);
    check_selection<float16, float>(on);
    check_selection<bfloat16, bfloat16>(on);
    check_selection<bfloat16, float>(on);
    check_selection<float, float>(on);
    // The switch was read at the first call: changing it now changes nothing.
    setenv("TSUOPS_RMSNORM_GMX", on ? "0" : "1", 1);
    check_selection<float16, float16>(on);
}

TEST(RmsNormSelection, TableWithTheSwitchOnAndOff) {
    struct Case {
        const char* value;  // null: unset
        bool on;
    };
    for (const Case& c : {Case{nullptr, false}, Case{"1", true}, Case{"0", false}, Case{"true", false},
                          Case{"", false}, Case{"11", false}, Case{" 1", false}}) {
        std::vector<std::pair<std::string, std::string>> env = {{"TSUOPS_TEST_GMX_EXPECTED", c.on ? "on" : "off"}};
        std::vector<std::string> unset;
        if (c.value) {
            env.emplace_back("TSUOPS_RMSNORM_GMX", c.value);
        } else {
            unset.emplace_back("TSUOPS_RMSNORM_GMX");
        }
        EXPECT_TRUE(tsuops_test::run_child("RmsNormSelectionChild.DISABLED_Table", env, unset))
            << "switch " << (c.value ? c.value : "(unset)");
    }
}

// Calls that never reach the switch do not read it: the (float, float) pair
// and calls with a bias or a row statistic. The first call that does reach it
// reads the value set by then.
TEST(RmsNormSelectionChild, DISABLED_SwitchReadOnlyWhenReached) {
    auto dev = tsuops_test::device_context({.ncluster = kClusters, .ngmx = kGmx});
    const long n = sel::kGmxRowUnit;
    GuardedBuffer<float> xf(dev.get(), n), yf(dev.get(), n), rms(dev.get(), 1);
    GuardedBuffer<float16> xh(dev.get(), n), yh(dev.get(), n);
    ASSERT_EQ((infer_ops::rms_layer_norm<float, float>(dev.get(), xf.data(), yf.data(), 1, n, 1e-5f, nullptr, nullptr,
                                                      nullptr, false)),
              0);
    ASSERT_EQ((infer_ops::rms_layer_norm<float16, float16>(dev.get(), xh.data(), yh.data(), 1, n, 1e-5f, nullptr,
                                                          xh.data(), nullptr, false)),
              0);
    ASSERT_EQ((infer_ops::rms_layer_norm<float16, float16>(dev.get(), xh.data(), yh.data(), 1, n, 1e-5f, nullptr,
                                                          nullptr, rms.data(), false)),
              0);
    setenv("TSUOPS_RMSNORM_GMX", "1", 1);
    LaunchCapture launches;
    ASSERT_EQ((infer_ops::rms_layer_norm<float16, float16>(dev.get(), xh.data(), yh.data(), 1, n, 1e-5f, nullptr,
                                                          nullptr, nullptr, false)),
              0);
    ASSERT_EQ(launches.size(), 1u);
    EXPECT_EQ(tsuops_test::kernel_family(launches.kernels()[0]), "infer_rms_layer_norm_gmx");
}

TEST(RmsNormSelection, SwitchReadOnlyWhenReached) {
    EXPECT_TRUE(
        tsuops_test::run_child("RmsNormSelectionChild.DISABLED_SwitchReadOnlyWhenReached", {}, {"TSUOPS_RMSNORM_GMX"}));
}

// The GMX kernel and the ns kernel that replaces it compute what the host
// computes.
TEST(RmsNormSelectionChild, DISABLED_GmxPathMatchesHost) {
    auto host = tsuops_test::host_context();
    auto dev = tsuops_test::device_context();
    const long m = 3;
    for (long n : {sel::kGmxRowUnit, sel::kMaxGmxRow}) {
        auto check = [&](auto type_tag) {
            using P = decltype(type_tag);
            using T = typename P::X;
            using TW = typename P::W;
            Tensors<T, TW> want(host.get(), m, n, 5);
            Tensors<T, TW> got(dev.get(), m, n, 5);
            const Variant v{true, false, false, false};
            ASSERT_EQ(want.run(host.get(), m, n, 1e-5f, v), 0);
            LaunchCapture launches;
            ASSERT_EQ(got.run(dev.get(), m, n, 1e-5f, v), 0);
            EXPECT_TRUE(tsuops_test::nearly_equal(want.y.download(), got.y.download(), row_tolerance<T>(n)))
                << launches.kernels()[0];
        };
        check(Pair<float16, float16>{});
        check(Pair<bfloat16, bfloat16>{});
        check(Pair<float16, float>{});
        check(Pair<bfloat16, float>{});
    }
}

TEST(RmsNormSelection, GmxPathMatchesHost) {
    EXPECT_TRUE(tsuops_test::run_child("RmsNormSelectionChild.DISABLED_GmxPathMatchesHost",
                                       {{"TSUOPS_RMSNORM_GMX", "1"}}));
}

// ---- failures --------------------------------------------------------------------------------

TEST(RmsNormFailure, NullContextIsSilent) {
    LogCapture logs;
    float x = 1.0f;
    float y = 0.0f;
    EXPECT_EQ((infer_ops::rms_layer_norm<float, float>(nullptr, &x, &y, 1, 1, 1e-5f, nullptr, nullptr, nullptr, false)),
              1);
    EXPECT_TRUE(logs.records().empty());
    EXPECT_EQ(y, 0.0f);
}

struct BadCall {
    const char* what;
    DeviceType dev;
    long m, n;
    float eps;
    std::uint64_t x, y, scale, bias;  // 0: the real buffer; 1: null
    int status;
    const char* log;
    std::vector<std::string> fields;  // checked when not empty
};

constexpr std::uint64_t kNoMemory = 0x1000;         // classifies as nothing
constexpr std::uint64_t kPastDevice = 0x8000000000;  // neither device nor L3 memory

class RmsNormBadCall : public ::testing::TestWithParam<BadCall> {};

TEST_P(RmsNormBadCall, StatusLogAndNothingWritten) {
    const BadCall& c = GetParam();
    auto ctx = tsuops_test::make_context(c.dev);
    auto owner = c.dev == DeviceType::CPU ? tsuops_test::host_context() : tsuops_test::device_context();
    const long len = 64;
    GuardedBuffer<float16> x(owner.get(), len), y(owner.get(), len), w(owner.get(), len), b(owner.get(), len);
    GuardedBuffer<float> rms(owner.get(), len);
    auto pick = [](std::uint64_t p, GuardedBuffer<float16>& buf) -> float16* {
        if (p == 0) return buf.data();
        if (p == 1) return nullptr;
        return reinterpret_cast<float16*>(p);
    };
    LogCapture logs;
    EXPECT_EQ((infer_ops::rms_layer_norm<float16, float16>(ctx.get(), pick(c.x, x), pick(c.y, y), c.m, c.n, c.eps,
                                                          pick(c.scale, w), pick(c.bias, b), rms.data(), true)),
              c.status)
        << c.what;
    const auto failures = logs.failures();
    ASSERT_EQ(failures.size(), 1u) << c.what;
    EXPECT_EQ(failures[0].kind, c.log) << c.what;
    if (!c.fields.empty()) {
        EXPECT_EQ(failures[0].fields, c.fields) << c.what;
    }
    if (owner->stream) tsu_wait(owner->stream);
    EXPECT_TRUE(y.untouched()) << c.what;
    EXPECT_TRUE(rms.untouched()) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Frame, RmsNormBadCall,
    ::testing::Values(
        BadCall{"eps of zero", DeviceType::TSU3, 2, 32, 0.0f, 0, 0, 0, 0, 1, "compare_fail", {"0.000000", ">", "0"}},
        BadCall{"negative eps", DeviceType::TSU3, 2, 32, -1e-3f, 0, 0, 0, 0, 1, "compare_fail",
                {"-0.001000", ">", "0"}},
        BadCall{"eps of zero on the host", DeviceType::CPU, 2, 32, 0.0f, 0, 0, 0, 0, 1, "compare_fail", {}},
        BadCall{"NaN eps", DeviceType::TSU3, 2, 32, NAN, 0, 0, 0, 0, 1, "compare_fail", {}},
        BadCall{"no rows", DeviceType::TSU3, 0, 32, 1e-5f, 0, 0, 0, 0, 1, "invalid_shape", {}},
        BadCall{"no columns", DeviceType::TSU3, 2, 0, 1e-5f, 0, 0, 0, 0, 1, "invalid_shape", {}},
        BadCall{"negative rows on the host", DeviceType::CPU, -2, 32, 1e-5f, 0, 0, 0, 0, 1, "invalid_shape", {}},
        BadCall{"null x", DeviceType::TSU3, 2, 32, 1e-5f, 1, 0, 0, 0, 1, "invalid_memory", {}},
        BadCall{"host address as x", DeviceType::TSU3, 2, 32, 1e-5f, kNoMemory, 0, 0, 0, 1, "invalid_memory", {}},
        BadCall{"y past device memory", DeviceType::TSU3, 2, 32, 1e-5f, 0, kPastDevice, 0, 0, 1, "invalid_memory",
                {}},
        BadCall{"scale of the wrong memory", DeviceType::TSU3, 2, 32, 1e-5f, 0, 0, kPastDevice, 0, 1,
                "invalid_memory", {}},
        BadCall{"bias of the wrong memory", DeviceType::TSU3, 2, 32, 1e-5f, 0, 0, 0, kNoMemory, 1, "invalid_memory",
                {}},
        BadCall{"device type without a path", DeviceType::TSU4, 2, 32, 1e-5f, 0, 0, 0, 0, 4, "unimplement", {}}));

// A failed launch is logged once and gives status 2, on the general kernel
// and on the table's kernels alike, and the kernel never runs.
TEST(RmsNormFailure, LaunchFailureGivesStatusTwo) {
    auto dev = tsuops_test::device_context();
    const long n = 2048;
    GuardedBuffer<bfloat16> x(dev.get(), n), y(dev.get(), n);
    GuardedBuffer<float> rms(dev.get(), 1);
    for (auto site : {tsuemu::Site::Config, tsuemu::Site::ArgumentSet, tsuemu::Site::Async}) {
        for (bool general : {true, false}) {
            LogCapture logs;
            tsuemu::inject_failure(site, 1, 7);
            EXPECT_EQ((infer_ops::rms_layer_norm<bfloat16, float>(dev.get(), x.data(), y.data(), 1, n, 1e-5f, nullptr,
                                                                 nullptr, general ? rms.data() : nullptr, false)),
                      2);
            tsuemu::clear_failures();
            const auto failures = logs.failures();
            ASSERT_EQ(failures.size(), 1u);
            EXPECT_EQ(failures[0].kind, "kernel_fail");
            EXPECT_TRUE(y.untouched());
            EXPECT_TRUE(rms.untouched());
        }
    }
}

}  // namespace
