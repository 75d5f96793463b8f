// rms_layer_norm: across every row-length threshold, with and without each
// optional tensor and with TSUOPS_RMSNORM_GMX on and off, device against host
// bit for bit and the kernel of the selection table, also on rows with a large
// common offset; the host against an independent computation (which rounds
// every step on its own); bad calls.
#pragma GCC optimize("fp-contract=off")

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "kernels/layer_norm/norm_rows.h"
#include "support/tsuops_test.h"
#include "wrapper/wrapper_test.h"
#include "wrapper/rms_norm/rms_norm_select.h"

namespace {

using namespace orvane::tsu::api;
using namespace tsuops_test;
using wrapper_test::Tensors;
using wrapper_test::offset_rows;
namespace sel = infer_ops::rms_norm;
namespace nk = tsuops::kernels::norm;

constexpr int kClusters = 4, kGmx = 2;

struct Variant { bool scale, bias, rms_out, is_rstd; };
constexpr Variant kVariants[] = {{false, false, false, false}, {true, false, false, true}, {true, true, false, false},
                                 {false, false, true, true},   {true, true, true, false}};

template <class T, class TW>
int run(Context* ctx, Tensors<T, TW>& t, long m, long n, const Variant& v) {
    return infer_ops::rms_layer_norm<T, TW>(ctx, t.x.data(), t.y.data(), m, n, 1e-5f,
                                            v.scale ? t.scale.data() : nullptr, v.bias ? t.bias.data() : nullptr,
                                            v.rms_out ? t.s1.data() : nullptr, v.is_rstd);
}

// One below, at and one above every ns row capacity, the GMX limit, the
// kernels' chunk and the longest row whose weights they widen whole; every
// multiple of the GMX row unit up to its limit.
std::vector<long> row_sweep() {
    std::set<long> at{1, 1000, sel::kMaxGmxRow, nk::kRowChunk, nk::kWholeRow}, out;
    for (int k : sel::kNsCapacities) at.insert(sel::kNsRowUnit * k);
    for (long t : at) {
        for (long n : {t - 1, t, t + 1}) out.insert(std::max(n, 1L));
    }
    for (long n = sel::kGmxRowUnit; n <= sel::kMaxGmxRow; n += sel::kGmxRowUnit) out.insert(n);
    return {out.begin(), out.end()};
}

// The launch that the selection rule asks for, up to the parameter list.
template <class T, class TW>
std::string expected_kernel(long n, const Variant& v, bool gmx_on) {
    const std::string types = std::string(type_name<T>()) + ", " + type_name<TW>();
    if ((std::is_same_v<T, float> && std::is_same_v<TW, float>) || v.bias || v.rms_out || n > sel::kMaxNsRow) {
        return "tsu3::infer_rms_layer_norm<" + types + ">(";
    }
    int k = 64;  // the ns capacity: where GMX is asked for but the types have none, the widest
    if (gmx_on && n % sel::kGmxRowUnit == 0 && n <= sel::kMaxGmxRow) {
        if (std::is_same_v<T, TW>) return "tsu3::infer_rms_layer_norm_gmx<" + types + ">(";
    } else {
        k = *std::find_if(std::begin(sel::kNsCapacities), std::end(sel::kNsCapacities),
                          [n](int cap) { return n <= sel::kNsRowUnit * cap; });
    }
    return "tsu3::infer_rms_layer_norm_ns<" + types + ", " + std::to_string(k) + ">(";
}

// One call on each path, bit for bit, and the launch the table asks for.
template <class T, class TW>
void check(Context* host, Context* dev, Tensors<T, TW>& want, Tensors<T, TW>& got, long m, long n, const Variant& v,
           bool gmx_on) {
    ASSERT_EQ(run(host, want, m, n, v), 0);
    LaunchCapture launches;
    ASSERT_EQ(run(dev, got, m, n, v), 0);
    EXPECT_TRUE(identical(want.y.download(), got.y.download()));
    EXPECT_TRUE(v.rms_out ? identical(want.s1.download(), got.s1.download())
                          : ::testing::AssertionResult(got.s1.untouched()));
    ASSERT_EQ(launches.size(), 1u);
    const auto r = launches.records()[0];
    const std::string want_kernel = expected_kernel<T, TW>(n, v, gmx_on);
    const bool gmx = want_kernel.find("_gmx<") != std::string::npos;
    EXPECT_EQ(r.kernel.rfind(want_kernel, 0), 0u) << r.kernel;
    EXPECT_EQ(r.nclusters, gmx ? kGmx : kClusters);
    EXPECT_EQ(r.ncores, gmx ? 8 : 64);
    EXPECT_EQ(LaunchCapture::arg<long>(r, 8), m);
    EXPECT_EQ(LaunchCapture::arg<long>(r, 16), n);
    EXPECT_TRUE(want_kernel.find("norm<") != std::string::npos || !LaunchCapture::arg<bool>(r, 48))
        << "the last bool of the ns and GMX kernels is always false";
}

// Every row length of the sweep with every variant, or (probe) the two
// lengths where the switch decides, with no optional tensor. A group of rows
// and one more, or two rows where the rows are long.
template <class T, class TW>
void sweep(bool gmx_on, bool probe) {
    auto host = host_context();
    auto dev = device_context({.ncluster = kClusters, .ngmx = kGmx});
    std::uint64_t seed = 100;
    const std::vector<long> rows = probe ? std::vector<long>{sel::kGmxRowUnit, sel::kMaxGmxRow} : row_sweep();
    for (long n : rows) {
        const long m = n <= 4097 ? nk::kGroup + 1 : 2;
        for (const Variant& v : kVariants) {
            if (probe && &v != kVariants) break;
            SCOPED_TRACE(std::string(type_name<T>()) + ", " + type_name<TW>() + ": n " + std::to_string(n) +
                         " variant " + std::to_string(&v - kVariants));
            Tensors<T, TW> want(host.get(), m, n, ++seed, 0.5), got(dev.get(), m, n, seed, 0.5);
            check(host.get(), dev.get(), want, got, m, n, v, gmx_on);
        }
    }
    // Rows with a large common offset: a sum of squares of large equal terms,
    // where any other order of the adds gives other bits. On the table's
    // kernel and on the general one.
    for (long n : {4096L, 8192L}) {
        for (const Variant& v : {kVariants[1], kVariants[4]}) {
            Tensors<T, TW> want(host.get(), 3, n, 5, 0.5), got(dev.get(), 3, n, 5, 0.5);
            want.x.upload(offset_rows<T>(n));
            got.x.upload(offset_rows<T>(n));
            check(host.get(), dev.get(), want, got, 3, n, v, gmx_on);
        }
    }
}

// The switch is read once per process, so each value runs in a child; only
// exactly "1" counts as on. RMS_NORM_TEST_PROBE asks for the short sweep.
TEST(RmsNormChild, DISABLED_Sweep) {
    const char* value = std::getenv("TSUOPS_RMSNORM_GMX");
    const bool on = value != nullptr && std::string(value) == "1";
    const bool probe = std::getenv("RMS_NORM_TEST_PROBE") != nullptr;
    sweep<float16, float16>(on, probe);
    sweep<float16, float>(on, probe);
    sweep<bfloat16, bfloat16>(on, probe);
    sweep<bfloat16, float>(on, probe);
    sweep<float, float>(on, probe);
    // Read at the first call: a later change of the environment changes nothing.
    if (on) {
        unsetenv("TSUOPS_RMSNORM_GMX");
    } else {
        setenv("TSUOPS_RMSNORM_GMX", "1", 1);
    }
    sweep<float16, float16>(on, true);
    sweep<bfloat16, float>(on, true);
}

TEST(RmsNormSelection, DeviceMatchesHostAndTheTableWithTheSwitchOnAndOff) {
    using Env = std::vector<std::pair<std::string, std::string>>;
    const Env probe = {{"RMS_NORM_TEST_PROBE", "1"}};
    for (const Env& env : {Env{{"TSUOPS_RMSNORM_GMX", "1"}}, Env{}, Env{{"TSUOPS_RMSNORM_GMX", "0"}, probe[0]},
                           Env{{"TSUOPS_RMSNORM_GMX", "true"}, probe[0]}, Env{{"TSUOPS_RMSNORM_GMX", ""}, probe[0]}}) {
        EXPECT_TRUE(run_child("RmsNormChild.DISABLED_Sweep", env, {"TSUOPS_RMSNORM_GMX", "RMS_NORM_TEST_PROBE"}));
    }
}

template <class P>
class RmsNorm : public ::testing::Test {};
TYPED_TEST_SUITE(RmsNorm, wrapper_test::AllPairs, wrapper_test::PairNames);

// The documented steps for one row, written out independently: the mean square
// in element order, 1 / sqrt in double narrowed to float, (x * r) * w + b.
TYPED_TEST(RmsNorm, HostMatchesIndependentComputationExactly) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    const long n = 777;
    const float eps = 1e-6f;
    const auto x = random_tensor<T>(n, 7, RandomSpec::range(-3, 3));
    const auto scale = random_tensor<TW>(n, 8, RandomSpec::range(-2, 2)), bias = random_tensor<TW>(n, 9);
    float q = 0.0f;
    for (T e : x) q += static_cast<float>(e) * static_cast<float>(e);
    const float ms = q / static_cast<float>(n), r = static_cast<float>(1.0 / std::sqrt(double(eps + ms)));
    std::vector<T> want;
    for (long j = 0; j < n; ++j) {
        const float a = static_cast<float>(x[j]) * r, b = a * static_cast<float>(scale[j]);
        want.push_back(T(b + static_cast<float>(bias[j])));
    }
    auto host = host_context();
    for (bool is_rstd : {true, false}) {
        std::vector<T> y(n);
        float rms = 0;
        ASSERT_EQ((infer_ops::rms_layer_norm<T, TW>(host.get(), x.data(), y.data(), 1, n, eps, scale.data(),
                                                   bias.data(), &rms, is_rstd)),
                  0);
        EXPECT_TRUE(identical(want, y));
        EXPECT_TRUE(identical({is_rstd ? r : ms}, std::vector<float>{rms})) << "is_rstd " << is_rstd;
    }
}

// rms_out goes with the bias, so that a null bias leaves the row-length table
// in charge. The last row holds two faults at once: the first check in the
// documented order is the one reported.
TEST(RmsNormFailure, StatusLogAndNothingWritten) {
    using wrapper_test::as;
    auto rms = [](Context* c, void* const* p, long m, long n, double eps) {
        return infer_ops::rms_layer_norm<float16, float16>(c, as<float16>(p[0]), as<float16>(p[1]), m, n, float(eps),
                                                          as<float16>(p[2]), as<float16>(p[3]),
                                                          p[3] ? as<float>(p[4]) : nullptr, true);
    };
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;
    wrapper_test::expect_failures(
        {rms}, {1, 4},
        {{"eps of zero", 0, dev, 2, 32, 0.0, 0, 0, {}, 1, "compare_fail", {"0.000000", ">", "0"}},
         {"NaN eps, host", 0, cpu, 2, 32, NAN, 0, 0, {}, 1, "compare_fail", {}},
         {"no rows", 0, dev, 0, 32, 1e-5, 0, 0, {}, 1, "invalid_shape", {}},
         {"negative rows, host", 0, cpu, -2, 32, 1e-5, 0, 0, {}, 1, "invalid_shape", {}},
         {"no columns", 0, dev, 2, 0, 1e-5, 0, 0, {}, 1, "invalid_shape", {}},
         {"null x", 0, dev, 2, 32, 1e-5, 0, 1, {}, 1, "invalid_memory", {}},
         {"y past device memory", 0, dev, 2, 32, 1e-5, 1, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"scale past device memory", 0, dev, 2, 32, 1e-5, 2, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"bias no memory", 0, dev, 2, 32, 1e-5, 3, 0x1000, {}, 1, "invalid_memory", {}},
         {"device type without a path", 0, DeviceType::TSU4, 2, 32, 1e-5, 0, 0, {}, 4, "unimplement", {}},
         {"the general kernel fails", 0, dev, 2, 32, 1e-5, 0, 0, tsuemu::Site::Config, 2, "kernel_fail", {"7"}},
         {"a table kernel fails", 0, dev, 2, 32, 1e-5, 3, 1, tsuemu::Site::Async, 2, "kernel_fail", {"7"}},
         {"scale no memory and eps of zero: eps first", 0, dev, 2, 32, 0.0, 2, 0x1000, {}, 1, "compare_fail",
          {"0.000000", ">", "0"}}});
}

}  // namespace
