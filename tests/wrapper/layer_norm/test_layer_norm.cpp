// layer_norm and nn_layer_norm: device against host bit for bit, across the
// kernels' staging chunk and row group, with and without each optional tensor
// and flag, and on rows with a large common offset, whose rounded variance
// goes negative; the host against an independent computation (which rounds
// every step on its own); bad calls.
#pragma GCC optimize("fp-contract=off")

#include <cmath>
#include <string>
#include <vector>

#include "kernels/layer_norm/norm_rows.h"
#include "support/tsuops_test.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace orvane::tsu::api;
using namespace tsuops_test;
using wrapper_test::Tensors;
using wrapper_test::offset_rows;
namespace nk = tsuops::kernels::norm;

template <class T>
constexpr bool has_nn = !std::is_same_v<T, bfloat16>;  // nn_layer_norm has no bfloat16 form

struct Variant { bool scale, bias, plus_one, flag, stats; };  // flag: kernel_flag, or is_rstd of nn_layer_norm
// A null scale with scale_plus_one is a weight of 1; flags without effect in between.
constexpr Variant kVariants[] = {
    {false, false, false, false, false}, {true, false, false, true, true},
    {true, true, true, false, true},      {false, true, true, true, false}};

template <class T, class TW>
int run(Context* ctx, Tensors<T, TW>& t, long m, long n, const Variant& v, bool nn) {
    const TW* w = v.scale ? t.scale.data() : nullptr;
    const TW* b = v.bias ? t.bias.data() : nullptr;
    if constexpr (has_nn<T>) {
        float* s1 = v.stats ? t.s1.data() : nullptr;
        float* s2 = v.stats ? t.s2.data() : nullptr;
        if (nn) return infer_ops::nn_layer_norm<T, TW>(ctx, t.x.data(), t.y.data(), m, n, 1e-5f, w, b, s1, s2, v.flag);
    }
    return infer_ops::layer_norm<T, TW>(ctx, t.x.data(), t.y.data(), m, n, 1e-5f, w, b, v.flag, v.plus_one);
}

// Host and device on the same tensors (x, when given, in place of the random
// rows), for each variant listed on layer_norm and, where the types have it,
// nn_layer_norm; every output compared bit for bit. `then` sees the host's.
template <class T, class TW, class Then = void (*)(Tensors<T, TW>&, const Variant&, bool)>
void expect_device_matches_host(long m, long n, std::uint64_t seed, std::initializer_list<int> variants,
                                const std::vector<T>& x = {}, Then then = [](Tensors<T, TW>&, const Variant&, bool) {}) {
    auto host = host_context();
    auto dev = device_context({.ncluster = 4});
    for (int i : variants) {
        const Variant& v = kVariants[i];
        for (bool nn : {false, true}) {
            if (nn && !has_nn<T>) continue;
            SCOPED_TRACE("n " + std::to_string(n) + " variant " + std::to_string(i) + " nn " + std::to_string(nn));
            Tensors<T, TW> want(host.get(), m, n, seed, x.empty() ? -1.5 : 0.5), got(dev.get(), m, n, seed, x.empty() ? -1.5 : 0.5);
            if (!x.empty()) want.x.upload(x), got.x.upload(x);
            ASSERT_EQ(run(host.get(), want, m, n, v, nn), 0);
            ASSERT_EQ(run(dev.get(), got, m, n, v, nn), 0);
            EXPECT_TRUE(identical(want.y.download(), got.y.download()));
            if (nn && v.stats) {
                EXPECT_TRUE(identical(want.s1.download(), got.s1.download()));
                EXPECT_TRUE(identical(want.s2.download(), got.s2.download()));
            } else {
                EXPECT_TRUE(got.s1.untouched() && got.s2.untouched());
            }
            then(want, v, nn);
        }
    }
}

template <class P>
class LayerNorm : public ::testing::Test {};
TYPED_TEST_SUITE(LayerNorm, wrapper_test::AllPairs, wrapper_test::PairNames);

// Rows one below, at and one above the kernels' chunk and the longest row
// whose weights they widen whole; a group of rows and one more (a full group
// and a ragged one), or one row.
TYPED_TEST(LayerNorm, DeviceMatchesHostBitForBit) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    const long c = nk::kRowChunk, w = nk::kWholeRow;
    std::uint64_t seed = 300;
    for (long n : {1L, 2L, c - 1, c, c + 1, 2 * c + 1, w - 1, w, w + 1, 65537L}) {
        const long m = n == 2 ? 1 : n < 65537 ? nk::kGroup + 1 : 2;
        expect_device_matches_host<T, TW>(m, n, ++seed, {0, 1, 2, 3});
    }
}

// The documented steps for one row, written out independently: sums in
// element order, E[x^2] - mean^2, 1 / sqrt in double narrowed to float,
// ((x - mean) * r) * w + b. An empty scale is a weight of 1.
template <class T, class TW>
std::vector<T> independent_row(const std::vector<T>& x, float eps, const std::vector<TW>& scale,
                               const std::vector<TW>& bias, bool plus_one, std::vector<float>& stats) {
    float s = 0.0f, q = 0.0f;
    for (T e : x) {
        const float v = static_cast<float>(e);
        s += v;
        q += v * v;
    }
    const float n = static_cast<float>(x.size()), mean = s / n, mean2 = mean * mean, var = q / n - mean2;
    const float r = static_cast<float>(1.0 / std::sqrt(static_cast<double>(var + eps)));
    std::vector<T> y;
    for (std::size_t j = 0; j < x.size(); ++j) {
        const float w = scale.empty() ? 1.0f : plus_one ? static_cast<float>(scale[j]) + 1.0f : float(scale[j]);
        const float a = (static_cast<float>(x[j]) - mean) * r, b = a * w;
        y.push_back(T(b + static_cast<float>(bias[j])));
    }
    stats = {mean, var, r};
    return y;
}

// Rows of 1000.0, of 100 + N(0, 1) and of 300 + N(0, 1): E[x^2] - mean^2
// loses everything to rounding, and where it goes below -eps the definition
// gives a NaN row. A kernel that sums in any other order gives other bits,
// finite rows where the host has NaN rows, or the reverse.
TYPED_TEST(LayerNorm, LargeCommonOffsetsGiveTheDefinitionsNaNRows) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    long nan_rows = 0;
    for (long n : {4096L, 8192L}) {
        const std::vector<T> x = offset_rows<T>(n);
        expect_device_matches_host<T, TW>(3, n, 5, {1, 2}, x, [&](Tensors<T, TW>& want, const Variant& v, bool nn) {
            const auto y = want.y.download();
            const auto scale = want.scale.download(), bias = want.bias.download();
            std::vector<float> stats;
            for (long i = 0; i < 3; ++i) {
                const std::vector<T> row(x.begin() + i * n, x.begin() + (i + 1) * n);
                independent_row(row, 1e-5f, v.scale ? scale : std::vector<TW>{},
                                v.bias ? bias : std::vector<TW>(n, TW(0.0f)), v.plus_one && !nn, stats);
                const bool negative = stats[1] + 1e-5f < 0.0f;
                nan_rows += negative;
                for (long j = 0; j < n; j += n / 4) {
                    EXPECT_EQ(std::isnan(static_cast<float>(y[i * n + j])), negative) << "row " << i << ", " << j;
                }
            }
        });
    }
    EXPECT_GT(nan_rows, 0) << "no row went negative: the case tests nothing";
}

TYPED_TEST(LayerNorm, HostMatchesIndependentComputationExactly) {
    using T = typename TypeParam::X;
    using TW = typename TypeParam::W;
    auto host = host_context();
    const long n = 333;
    const auto x = random_tensor<T>(n, 17, RandomSpec::range(-2, 3));
    const auto scale = random_tensor<TW>(n, 18, RandomSpec::range(-2, 2)), bias = random_tensor<TW>(n, 19);
    std::vector<float> stats;
    for (int k = 0; k < 4; ++k) {
        const bool plus_one = k & 1, with_scale = k & 2;
        const auto want = independent_row(x, 1e-5f, with_scale ? scale : std::vector<TW>{}, bias, plus_one, stats);
        std::vector<T> got(n);
        ASSERT_EQ((infer_ops::layer_norm<T, TW>(host.get(), x.data(), got.data(), 1, n, 1e-5f,
                                                with_scale ? scale.data() : nullptr, bias.data(), true, plus_one)),
                  0);
        EXPECT_TRUE(identical(want, got)) << "plus_one " << plus_one << " scale " << with_scale;
    }
    if constexpr (has_nn<T>) {
        const auto want = independent_row(x, 0.0f, scale, bias, false, stats);  // eps of 0 is allowed here
        for (bool is_rstd : {false, true}) {
            std::vector<T> got(n);
            float mean = 0, var = 0;
            ASSERT_EQ((infer_ops::nn_layer_norm<T, TW>(host.get(), x.data(), got.data(), 1, n, 0.0f, scale.data(),
                                                       bias.data(), &mean, &var, is_rstd)),
                      0);
            EXPECT_TRUE(identical(want, got));
            EXPECT_TRUE(identical(std::vector<float>{stats[0], stats[is_rstd ? 2 : 1]}, {mean, var})) << is_rstd;
        }
    }
}

// The last rows hold two faults at once: the first check in the documented
// order is the one reported.
TEST(LayerNormFailure, StatusLogAndNothingWritten) {
    using wrapper_test::fp;
    auto layer = [](auto c, auto p, long m, long n, double eps) {
        return infer_ops::layer_norm<float, float>(c, fp(p[0]), fp(p[1]), m, n, eps, fp(p[2]), fp(p[3]), false, false);
    };
    auto nn = [](auto c, auto p, long m, long n, double eps) {
        return infer_ops::nn_layer_norm<float, float>(c, fp(p[0]), fp(p[1]), m, n, eps, fp(p[2]), fp(p[3]), fp(p[4]),
                                                      fp(p[5]), true);
    };
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;
    wrapper_test::expect_failures(
        {layer, nn}, {1, 4, 5},
        {{"eps of zero", 0, dev, 2, 32, 0.0, 0, 0, {}, 1, "compare_fail", {"0.000000", ">", "0"}},
         {"negative eps", 1, dev, 2, 32, -0.5, 0, 0, {}, 1, "compare_fail", {"-0.500000", ">=", "0"}},
         {"mean without var", 1, dev, 2, 32, 1e-5, 5, 1, {}, 1, "compare_fail", {"0", "==", "1"}},
         {"var without mean, host", 1, cpu, 2, 32, 1e-5, 4, 1, {}, 1, "compare_fail", {"0", "==", "1"}},
         {"no rows", 0, dev, 0, 32, 1e-5, 0, 0, {}, 1, "invalid_shape", {}},
         {"no columns, host", 1, cpu, 2, 0, 1e-5, 0, 0, {}, 1, "invalid_shape", {}},
         {"x no memory", 0, dev, 2, 32, 1e-5, 0, 0x1000, {}, 1, "invalid_memory", {}},
         {"bias past device memory", 0, dev, 2, 32, 1e-5, 3, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"mean no memory", 1, dev, 2, 32, 1e-5, 4, 0x1000, {}, 1, "invalid_memory", {}},
         {"device type without a path", 1, DeviceType::TSU5, 2, 32, 1e-5, 0, 0, {}, 4, "unimplement", {}},
         {"the launch fails", 1, dev, 2, 32, 1e-5, 0, 0, tsuemu::Site::Config, 2, "kernel_fail", {"7"}},
         {"y no memory and eps of zero: y first", 0, dev, 2, 32, 0.0, 1, 0x1000, {}, 1, "invalid_memory", {}},
         {"mean without var and negative eps: eps first", 1, cpu, 2, 32, -0.5, 5, 1, {}, 1, "compare_fail",
          {"-0.500000", ">=", "0"}}});
}

}  // namespace
