// layer_norm and nn_layer_norm: the device agrees with the host over row
// lengths around the kernels' staging chunk, the host agrees with an
// independent computation, each launches its one kernel, and bad arguments
// leave the outputs alone.
//
// The independent computation rounds every step on its own.
#pragma GCC optimize("fp-contract=off")

#include <cmath>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/infer_ops.h>

#include "kernels/layer_norm/norm_rows.h"
#include "support/tsuops_test.h"

namespace {

using namespace orvane::tsu::api;
using tsuops_test::GuardedBuffer;
using tsuops_test::LaunchCapture;
using tsuops_test::LogCapture;
using tsuops_test::RandomSpec;

template <class T, class TW>
struct Pair {
    using X = T;
    using W = TW;
};
using LayerPairs = ::testing::Types<Pair<float16, float16>, Pair<float16, float>, Pair<bfloat16, bfloat16>,
                                    Pair<bfloat16, float>, Pair<float, float>>;
using NnPairs = ::testing::Types<Pair<float16, float16>, Pair<float16, float>, Pair<float, float>>;
struct PairNames {
    template <class P>
    static std::string GetName(int) {
        return std::string(tsuops_test::type_name<typename P::X>()) + "_" + tsuops_test::type_name<typename P::W>();
    }
};

// The shortest row, one below, at and one above the kernels' staging chunk
// and its double, and a long row.
std::vector<long> row_sweep() {
    const long c = tsuops::kernels::norm::kRowChunk;
    std::set<long> out{1, 2, 65537};
    for (long t : {c, 2 * c}) {
        for (long d : {-1L, 0L, 1L}) out.insert(t + d);
    }
    return {out.begin(), out.end()};
}

long rows_for(long n) { return n <= 4097 ? 3 : 2; }

// The kernels sum in a different order; x - mean and the bias may cancel, so
// an absolute floor of the same size as the relative bound.
template <class T>
tsuops_test::Tolerance row_tolerance(long n) {
    const auto t = tsuops_test::reduction_tolerance<T>(n);
    return t.with_abs(8.0 * t.rel);
}

template <class T, class TW>
struct Tensors {
    GuardedBuffer<T> x, y;
    GuardedBuffer<TW> scale, bias;
    GuardedBuffer<float> mean, var;

    Tensors(Context* ctx, long m, long n, std::uint64_t seed)
        // An offset keeps the mean away from zero, as it is in real activations.
        : x(ctx, tsuops_test::random_tensor<T>(m * n, seed, RandomSpec::range(-0.5, 1.5))),
          y(ctx, m * n),
          scale(ctx, tsuops_test::random_tensor<TW>(n, seed + 1, RandomSpec::range(-1.5, 1.5))),
          bias(ctx, tsuops_test::random_tensor<TW>(n, seed + 2, RandomSpec::range(-0.5, 0.5))),
          mean(ctx, m),
          var(ctx, m) {}
};

struct LayerVariant {
    bool scale, bias, kernel_flag, plus_one;
};
constexpr LayerVariant kLayerVariants[] = {
    {false, false, false, false}, {true, false, true, false}, {true, true, false, true}, {false, true, true, true}};

template <class P>
class LayerNorm : public ::testing::Test {};
TYPED_TEST_SUITE(LayerNorm, LayerPairs, PairNames);

TYPED_TEST(LayerNorm, DeviceMatchesHostAcrossRowLengths) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    auto host = tsuops_test::host_context();
    auto dev = tsuops_test::device_context();
    std::uint64_t seed = 300;
    for (long n : row_sweep()) {
        const long m = rows_for(n);
        for (const LayerVariant& v : kLayerVariants) {
            seed += 10;
            Tensors<T, TW> want(host.get(), m, n, seed);
            Tensors<T, TW> got(dev.get(), m, n, seed);
            auto run = [&](Context* ctx, Tensors<T, TW>& t) {
                return infer_ops::layer_norm<T, TW>(ctx, t.x.data(), t.y.data(), m, n, 1e-5f,
                                                    v.scale ? t.scale.data() : nullptr,
                                                    v.bias ? t.bias.data() : nullptr, v.kernel_flag, v.plus_one);
            };
            ASSERT_EQ(run(host.get(), want), 0);
            ASSERT_EQ(run(dev.get(), got), 0);
            EXPECT_TRUE(tsuops_test::nearly_equal(want.y.download(), got.y.download(), row_tolerance<T>(n)))
                << "n " << n << " scale " << v.scale << " bias " << v.bias << " plus_one " << v.plus_one;
        }
    }
}

// The documented steps, written out independently.
template <class T, class TW>
void independent_layer_norm(const std::vector<T>& x, std::vector<T>& y, long m, long n, float eps,
                            const std::vector<TW>& scale, const std::vector<TW>& bias, bool plus_one,
                            std::vector<float>& mean, std::vector<float>& var, std::vector<float>& rstd) {
    for (long i = 0; i < m; ++i) {
        float s = 0.0f;
        float q = 0.0f;
        for (long j = 0; j < n; ++j) {
            const float v = static_cast<float>(x[i * n + j]);
            s += v;
            q += v * v;
        }
        const float mu = s / static_cast<float>(n);
        const float mu2 = mu * mu;
        const float v = q / static_cast<float>(n) - mu2;
        const float r = static_cast<float>(1.0 / std::sqrt(static_cast<double>(v + eps)));
        for (long j = 0; j < n; ++j) {
            const float w = plus_one ? static_cast<float>(scale[j]) + 1.0f : static_cast<float>(scale[j]);
            const float a = (static_cast<float>(x[i * n + j]) - mu) * r;
            const float b = a * w;
            y[i * n + j] = T(b + static_cast<float>(bias[j]));
        }
        mean[i] = mu;
        var[i] = v;
        rstd[i] = r;
    }
}

TYPED_TEST(LayerNorm, HostMatchesIndependentComputationExactly) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    auto host = tsuops_test::host_context();
    const long m = 4;
    const long n = 333;
    const float eps = 1e-5f;
    const auto x = tsuops_test::random_tensor<T>(m * n, 17, RandomSpec::range(-2, 3));
    const auto scale = tsuops_test::random_tensor<TW>(n, 18, RandomSpec::range(-2, 2));
    const auto bias = tsuops_test::random_tensor<TW>(n, 19);
    for (bool plus_one : {false, true}) {
        std::vector<T> want(m * n), got(m * n);
        std::vector<float> mean(m), var(m), rstd(m);
        independent_layer_norm(x, want, m, n, eps, scale, bias, plus_one, mean, var, rstd);
        ASSERT_EQ((infer_ops::layer_norm<T, TW>(host.get(), x.data(), got.data(), m, n, eps, scale.data(), bias.data(),
                                                true, plus_one)),
                  0);
        EXPECT_TRUE(tsuops_test::exactly_equal(want, got)) << "plus_one " << plus_one;
    }
}

// A null scale has weight 1 whatever scale_plus_one says; kernel_flag
// changes nothing on the device.
TYPED_TEST(LayerNorm, FlagsWithoutEffect) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    auto host = tsuops_test::host_context();
    auto dev = tsuops_test::device_context();
    const long m = 3;
    const long n = 100;
    Tensors<T, TW> h(host.get(), m, n, 23);
    Tensors<T, TW> d(dev.get(), m, n, 23);
    std::vector<std::vector<T>> host_out, dev_out;
    for (bool flag : {false, true}) {
        ASSERT_EQ((infer_ops::layer_norm<T, TW>(host.get(), h.x.data(), h.y.data(), m, n, 1e-5f, nullptr,
                                                h.bias.data(), false, flag)),
                  0);
        host_out.push_back(h.y.download());
        ASSERT_EQ((infer_ops::layer_norm<T, TW>(dev.get(), d.x.data(), d.y.data(), m, n, 1e-5f, d.scale.data(),
                                                d.bias.data(), flag, false)),
                  0);
        dev_out.push_back(d.y.download());
    }
    EXPECT_TRUE(tsuops_test::exactly_equal(host_out[0], host_out[1])) << "scale_plus_one without a scale";
    EXPECT_TRUE(tsuops_test::exactly_equal(dev_out[0], dev_out[1])) << "kernel_flag";
}

template <class P>
class NnLayerNorm : public ::testing::Test {};
TYPED_TEST_SUITE(NnLayerNorm, NnPairs, PairNames);

TYPED_TEST(NnLayerNorm, DeviceMatchesHostWithStatistics) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    auto host = tsuops_test::host_context();
    auto dev = tsuops_test::device_context();
    std::uint64_t seed = 500;
    for (long n : row_sweep()) {
        const long m = rows_for(n);
        for (int variant = 0; variant < 3; ++variant) {
            const bool stats = variant != 0;
            const bool is_rstd = variant == 2;
            seed += 10;
            Tensors<T, TW> want(host.get(), m, n, seed);
            Tensors<T, TW> got(dev.get(), m, n, seed);
            auto run = [&](Context* ctx, Tensors<T, TW>& t) {
                return infer_ops::nn_layer_norm<T, TW>(ctx, t.x.data(), t.y.data(), m, n, 1e-5f, t.scale.data(),
                                                       stats ? t.bias.data() : nullptr,
                                                       stats ? t.mean.data() : nullptr,
                                                       stats ? t.var.data() : nullptr, is_rstd);
            };
            ASSERT_EQ(run(host.get(), want), 0);
            ASSERT_EQ(run(dev.get(), got), 0);
            const std::string what = "n " + std::to_string(n) + " variant " + std::to_string(variant);
            EXPECT_TRUE(tsuops_test::nearly_equal(want.y.download(), got.y.download(), row_tolerance<T>(n))) << what;
            if (stats) {
                EXPECT_TRUE(tsuops_test::nearly_equal(want.mean.download(), got.mean.download(),
                                                      row_tolerance<float>(n)))
                    << what;
                EXPECT_TRUE(
                    tsuops_test::nearly_equal(want.var.download(), got.var.download(), row_tolerance<float>(n)))
                    << what;
            } else {
                EXPECT_TRUE(got.mean.untouched() && got.var.untouched()) << what;
            }
        }
    }
}

TYPED_TEST(NnLayerNorm, HostMatchesIndependentComputationExactly) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    auto host = tsuops_test::host_context();
    const long m = 4;
    const long n = 257;
    const auto x = tsuops_test::random_tensor<T>(m * n, 27, RandomSpec::range(-1, 2));
    const auto scale = tsuops_test::random_tensor<TW>(n, 28);
    const auto bias = tsuops_test::random_tensor<TW>(n, 29);
    std::vector<T> want(m * n);
    std::vector<float> mean(m), var(m), rstd(m);
    // eps of 0 is allowed here.
    independent_layer_norm(x, want, m, n, 0.0f, scale, bias, false, mean, var, rstd);
    for (bool is_rstd : {false, true}) {
        std::vector<T> got(m * n);
        std::vector<float> got_mean(m), got_var(m);
        ASSERT_EQ((infer_ops::nn_layer_norm<T, TW>(host.get(), x.data(), got.data(), m, n, 0.0f, scale.data(),
                                                   bias.data(), got_mean.data(), got_var.data(), is_rstd)),
                  0);
        EXPECT_TRUE(tsuops_test::exactly_equal(want, got));
        EXPECT_TRUE(tsuops_test::exactly_equal(mean, got_mean));
        EXPECT_TRUE(tsuops_test::exactly_equal(is_rstd ? rstd : var, got_var));
    }
}

// ---- kernel launches ------------------------------------------------------------------------

TEST(LayerNormLaunch, OneKernelOnEveryClusterWithItsArguments) {
    auto dev = tsuops_test::device_context({.ncluster = 3});
    const long m = 2;
    const long n = 48;
    GuardedBuffer<bfloat16> x(dev.get(), m * n), y(dev.get(), m * n);
    GuardedBuffer<float> w(dev.get(), n);
    for (bool plus_one : {false, true}) {
        for (bool flag : {false, true}) {
            LaunchCapture launches;
            ASSERT_EQ((infer_ops::layer_norm<bfloat16, float>(dev.get(), x.data(), y.data(), m, n, 1e-5f, w.data(),
                                                              nullptr, flag, plus_one)),
                      0);
            const auto rec = launches.records();
            ASSERT_EQ(rec.size(), 1u);
            EXPECT_EQ(rec[0].kernel.rfind(std::string("tsu3::infer_layer_norm<bfloat16, float, ") +
                                              (plus_one ? "true" : "false") + ">(",
                                          0),
                      0u)
                << rec[0].kernel;
            EXPECT_EQ(rec[0].nclusters, 3);
            EXPECT_EQ(rec[0].ncores, 64);
            EXPECT_EQ(LaunchCapture::arg<float>(rec[0], 0), 1e-5f);
            EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 8), m);
            EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 16), n);
            EXPECT_EQ(LaunchCapture::arg<bool>(rec[0], 56), flag) << "kernel_flag goes last";
        }
    }
}

TEST(NnLayerNormLaunch, OneKernelOnEveryClusterWithItsArguments) {
    auto dev = tsuops_test::device_context({.ncluster = 5});
    const long m = 2;
    const long n = 48;
    GuardedBuffer<float16> x(dev.get(), m * n), y(dev.get(), m * n);
    GuardedBuffer<float> mean(dev.get(), m), var(dev.get(), m);
    for (bool is_rstd : {false, true}) {
        LaunchCapture launches;
        ASSERT_EQ((infer_ops::nn_layer_norm<float16, float16>(dev.get(), x.data(), y.data(), m, n, 1e-5f, nullptr,
                                                              nullptr, mean.data(), var.data(), is_rstd)),
                  0);
        const auto rec = launches.records();
        ASSERT_EQ(rec.size(), 1u);
        EXPECT_EQ(rec[0].kernel.rfind("tsu3::infer_ops_layer_norm_infer<float16, float16>(", 0), 0u) << rec[0].kernel;
        EXPECT_EQ(rec[0].nclusters, 5);
        EXPECT_EQ(rec[0].ncores, 64);
        EXPECT_EQ(LaunchCapture::arg<float*>(rec[0], 56), mean.data());
        EXPECT_EQ(LaunchCapture::arg<float*>(rec[0], 64), var.data());
        EXPECT_EQ(LaunchCapture::arg<bool>(rec[0], 72), is_rstd);
    }
}

// ---- failures --------------------------------------------------------------------------------

constexpr std::uint64_t kNoMemory = 0x1000;
constexpr std::uint64_t kPastDevice = 0x8000000000;

struct BadCall {
    const char* what;
    bool nn;  // nn_layer_norm, else layer_norm
    DeviceType dev;
    long m, n;
    float eps;
    std::uint64_t x, scale, mean, var;  // 0: the real buffer; 1: null
    int status;
    const char* log;
    std::vector<std::string> fields;  // checked when not empty
};

class LayerNormBadCall : public ::testing::TestWithParam<BadCall> {};

TEST_P(LayerNormBadCall, StatusLogAndNothingWritten) {
    const BadCall& c = GetParam();
    auto ctx = tsuops_test::make_context(c.dev);
    auto owner = c.dev == DeviceType::CPU ? tsuops_test::host_context() : tsuops_test::device_context();
    const long len = 64;
    GuardedBuffer<float> x(owner.get(), len), y(owner.get(), len), w(owner.get(), len), mean(owner.get(), len),
        var(owner.get(), len);
    auto pick = [](std::uint64_t p, GuardedBuffer<float>& buf) -> float* {
        if (p == 0) return buf.data();
        if (p == 1) return nullptr;
        return reinterpret_cast<float*>(p);
    };
    LogCapture logs;
    const int status =
        c.nn ? infer_ops::nn_layer_norm<float, float>(ctx.get(), pick(c.x, x), y.data(), c.m, c.n, c.eps,
                                                      pick(c.scale, w), nullptr, pick(c.mean, mean),
                                                      pick(c.var, var), true)
             : infer_ops::layer_norm<float, float>(ctx.get(), pick(c.x, x), y.data(), c.m, c.n, c.eps,
                                                   pick(c.scale, w), nullptr, false, false);
    EXPECT_EQ(status, c.status) << c.what;
    const auto failures = logs.failures();
    ASSERT_EQ(failures.size(), 1u) << c.what;
    EXPECT_EQ(failures[0].kind, c.log) << c.what;
    if (!c.fields.empty()) {
        EXPECT_EQ(failures[0].fields, c.fields) << c.what;
    }
    if (owner->stream) tsu_wait(owner->stream);
    EXPECT_TRUE(y.untouched() && mean.untouched() && var.untouched()) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Frame, LayerNormBadCall,
    ::testing::Values(
        BadCall{"layer_norm eps of zero", false, DeviceType::TSU3, 2, 32, 0.0f, 0, 0, 0, 0, 1, "compare_fail",
                {"0.000000", ">", "0"}},
        BadCall{"nn_layer_norm negative eps", true, DeviceType::TSU3, 2, 32, -0.5f, 0, 0, 0, 0, 1, "compare_fail",
                {"-0.500000", ">=", "0"}},
        BadCall{"mean without var", true, DeviceType::TSU3, 2, 32, 1e-5f, 0, 0, 0, 1, 1, "compare_fail",
                {"0", "==", "1"}},
        BadCall{"var without mean on the host", true, DeviceType::CPU, 2, 32, 1e-5f, 0, 0, 1, 0, 1, "compare_fail",
                {"0", "==", "1"}},
        BadCall{"layer_norm without rows", false, DeviceType::TSU3, 0, 32, 1e-5f, 0, 0, 0, 0, 1, "invalid_shape", {}},
        BadCall{"nn_layer_norm without columns", true, DeviceType::CPU, 2, 0, 1e-5f, 0, 0, 0, 0, 1, "invalid_shape",
                {}},
        BadCall{"layer_norm host address as x", false, DeviceType::TSU3, 2, 32, 1e-5f, kNoMemory, 0, 0, 0, 1,
                "invalid_memory", {}},
        BadCall{"layer_norm scale of the wrong memory", false, DeviceType::TSU3, 2, 32, 1e-5f, 0, kPastDevice, 0, 0,
                1, "invalid_memory", {}},
        BadCall{"nn_layer_norm mean of the wrong memory", true, DeviceType::TSU3, 2, 32, 1e-5f, 0, 0, kNoMemory, 0, 1,
                "invalid_memory", {}},
        BadCall{"nn_layer_norm device type without a path", true, DeviceType::TSU5, 2, 32, 1e-5f, 0, 0, 0, 0, 4,
                "unimplement", {}}));

TEST(LayerNormFailure, NullContextAndFailedLaunch) {
    {
        LogCapture logs;
        float x = 1.0f;
        float y = 0.0f;
        EXPECT_EQ((infer_ops::layer_norm<float, float>(nullptr, &x, &y, 1, 1, 1e-5f, nullptr, nullptr, false, false)),
                  1);
        EXPECT_EQ((infer_ops::nn_layer_norm<float, float>(nullptr, &x, &y, 1, 1, 1e-5f, nullptr, nullptr, nullptr,
                                                          nullptr, false)),
                  1);
        EXPECT_TRUE(logs.records().empty());
        EXPECT_EQ(y, 0.0f);
    }
    auto dev = tsuops_test::device_context();
    GuardedBuffer<float16> x(dev.get(), 64), y(dev.get(), 64);
    for (bool nn : {false, true}) {
        LogCapture logs;
        tsuemu::inject_failure(tsuemu::Site::Config, 1, 9);
        const int status =
            nn ? infer_ops::nn_layer_norm<float16, float>(dev.get(), x.data(), y.data(), 2, 32, 1e-5f, nullptr,
                                                          nullptr, nullptr, nullptr, false)
               : infer_ops::layer_norm<float16, float>(dev.get(), x.data(), y.data(), 2, 32, 1e-5f, nullptr, nullptr,
                                                       false, false);
        tsuemu::clear_failures();
        EXPECT_EQ(status, 2);
        EXPECT_EQ(logs.count("kernel_fail"), 1u);
        EXPECT_TRUE(y.untouched());
    }
}

}  // namespace
