// swiglu: both paths on every axis of rank-1 to rank-4 inputs and across the
// transposing threshold, bit for bit against an independent computation,
// with the route checked through the launches; the vector exp against the
// math library on a large sample (also with the library made to take its
// build without FMA); bad calls; a failing launch at each step of the
// transposing route.
#pragma GCC optimize("fp-contract=off")

#include <bit>
#include <cstdio>
#include <map>
#include <numeric>

#include <gnu/libc-version.h>

#include "kernels/act/silu_math.h"
#include "support/tsuops_test.h"
#include "wrapper/act/swiglu_select.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace orvane::tsu::api;
using namespace tsuops_test;
namespace act = tsuops::kernels::act;
using infer_ops::swiglu_route::kTransposeFactor;
using Dims = std::vector<long>;

constexpr int kClusters = 3;

float silu(float a, float b) {
    const double e = std::exp(static_cast<double>(-a));
    const float s = static_cast<float>(1.0 / (e + 1.0));
    return s * a * b;
}

// The tensor seen as [before, dim, after]: without y, output (p, q, r) takes
// its operands from (p, q, r) and (p, q + dim / 2, r).
template <class T>
std::vector<T> independent(const std::vector<T>& x, const std::vector<T>* y, const Dims& shape, long axis,
                           bool gate_first) {
    const auto prod = [&](long b, long e) {
        return std::accumulate(shape.begin() + b, shape.begin() + e, 1L, std::multiplies<>());
    };
    const long before = prod(0, axis), dim = shape[axis], after = prod(axis + 1, static_cast<long>(shape.size()));
    const long half = y ? dim : dim / 2;
    std::vector<T> z;
    for (long p = 0; p < before; ++p) {
        for (long q = 0; q < half; ++q) {
            for (long r = 0; r < after; ++r) {
                const float u = static_cast<float>(x[(p * dim + q) * after + r]);
                const long other = y ? (p * dim + q) * after + r : (p * dim + q + half) * after + r;
                const float v = static_cast<float>(y ? (*y)[other] : x[other]);
                z.push_back(T(gate_first ? silu(u, v) : silu(v, u)));
            }
        }
    }
    return z;
}

struct Run { Dims shape; long axis; bool halves, gate_first; };

// One call on each path against the independent result, bit for bit; the
// launches of the device call.
template <class T>
std::vector<LaunchRecord> check(const Run& c, std::uint64_t seed) {
    SCOPED_TRACE(::testing::PrintToString(c.shape) + " axis " + std::to_string(c.axis) +
                 (c.halves ? " halves" : " two tensors") + (c.gate_first ? " gate first" : " gate second"));
    auto host = host_context();
    auto dev = device_context({.ncluster = kClusters});
    const long n = std::accumulate(c.shape.begin(), c.shape.end(), 1L, std::multiplies<>());
    const long out = c.halves ? n / 2 : n;
    const double range = seed % 2 ? 40.0 : 1000.0;
    const RandomSpec draw{.lo = -range, .hi = range, .special_fraction = 0.1, .beyond = 600};
    const auto xs = random_tensor<T>(n, seed, draw), ys = random_tensor<T>(n, seed + 1, draw);
    const auto want = independent(xs, c.halves ? nullptr : &ys, c.shape, c.axis, c.gate_first);
    std::vector<LaunchRecord> launches;
    for (Context* ctx : {host.get(), dev.get()}) {
        GuardedBuffer<T> x(ctx, xs), y(ctx, ys), z(ctx, out);
        LaunchCapture capture;
        EXPECT_EQ(infer_ops::swiglu<T>(ctx, x.data(), c.halves ? nullptr : y.data(), z.data(), c.shape, c.axis,
                                       c.gate_first),
                  0);
        EXPECT_TRUE(identical(want, z.download())) << "device type " << ctx->dev_type;
        launches = capture.records();
    }
    return launches;
}

template <class T>
class Swiglu : public ::testing::Test {};
TYPED_TEST_SUITE(Swiglu, HalfAndFloatTypes, ElementTypeNames);

TYPED_TEST(Swiglu, EveryAxisOfRanksOneToFour) {
    using T = TypeParam;
    detail::Rng rng(7);
    std::uint64_t seed = 10;
    for (long rank = 1; rank <= 4; ++rank) {
        for (long axis = 0; axis < rank; ++axis) {
            for (bool halves : {true, false}) {
                Dims shape;
                for (long d = 0; d < rank; ++d) {
                    shape.push_back(1 + static_cast<long>(rng.below(rank == 1 ? 40 : 6)));
                }
                shape[axis] = halves ? 2 * shape[axis] : shape[axis] | 1;
                for (bool gate_first : {true, false}) {
                    const auto launches = check<T>({shape, axis, halves, gate_first}, seed += 2);
                    ASSERT_EQ(launches.size(), 1u);
                    const LaunchRecord& r = launches[0];
                    const std::string t = type_name<T>();
                    const long after = std::accumulate(shape.begin() + axis + 1, shape.end(), 1L, std::multiplies<>());
                    const long before = std::accumulate(shape.begin(), shape.begin() + axis, 1L, std::multiplies<>());
                    EXPECT_EQ(r.kernel, "tsu3::infer_swiglu<" + t + ">(" + t + " const*, " + t + " const*, " + t +
                                            "*, long, long, long, bool)");
                    EXPECT_EQ((Dims{LaunchCapture::arg<long>(r, 24), LaunchCapture::arg<long>(r, 32),
                                    LaunchCapture::arg<long>(r, 40), LaunchCapture::arg<bool>(r, 48), r.nclusters,
                                    r.ncores}),
                              (Dims{shape[axis] * after, before, (halves ? shape[axis] / 2 : shape[axis]) * after,
                                    gate_first, kClusters, 64}));
                }
            }
        }
    }
}

// before / after one below, at and one above dim * kTransposeFactor, with the
// axis last and in the middle: at and above, halves go through two
// transposes and one launch on a single row; two tensors never do.
TYPED_TEST(Swiglu, RouteAcrossTheTransposeThreshold) {
    using T = TypeParam;
    const long q = 2 * kTransposeFactor;  // dim 2
    struct Row { Dims shape; long axis; bool halves, transposing; };
    const Row rows[] = {
        {{q - 1, 2}, 1, true, false},          {{q, 2}, 1, true, true},          {{q + 1, 2}, 1, true, true},
        {{2 * q - 1, 2, 2}, 1, true, false},   {{2 * q, 2, 2}, 1, true, true},   {{2 * q + 2, 2, 2}, 1, true, true},
        {{q / 3 + 1, 3, 2}, 2, true, true},    {{q, 2}, 1, false, false},
    };
    std::uint64_t seed = 500;
    for (const Row& row : rows) {
        for (bool gate_first : {true, false}) {
            const auto launches = check<T>({row.shape, row.axis, row.halves, gate_first}, seed += 2);
            std::map<std::string, int> families;
            for (const auto& r : launches) ++families[kernel_family(r.kernel)];
            EXPECT_EQ(families["infer_swiglu"], 1);
            EXPECT_EQ(launches.size() > 1, row.transposing) << ::testing::PrintToString(row.shape);
            for (const auto& r : launches) {
                if (kernel_family(r.kernel) == "infer_swiglu") {
                    EXPECT_EQ(LaunchCapture::arg<long>(r, 32) == 1, row.transposing);
                }
            }
        }
    }
}

// exp over every double that a float widens to, here on a spread sample that
// walks every exponent, and the neighbours of each branch boundary of the
// library's exp (2^-54, 512, overflow, the subnormal range, underflow).
std::vector<double> exp_sample() {
    std::vector<double> x;
    for (std::uint64_t k = 0; k < (1ull << 32); k += 997) {
        x.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(k)));
    }
    for (double edge : {0x1p-54, 512.0, 708.39, 709.78, 745.13, 1024.0}) {
        float f = static_cast<float>(edge);
        for (int k = 0; k < 16; ++k, f = std::nextafter(f, 0.0f)) {
            x.push_back(f);
            x.push_back(-f);
        }
    }
    return x;
}

// The glibc exp since 2.28 is the algorithm that the vector form follows;
// where the CPU can run the vector form, it must have been taken, or a wrong
// vector exp would hide behind the library's.
bool vector_form_expected() {
    int major = 0, minor = 0;
    std::sscanf(gnu_get_libc_version(), "%d.%d", &major, &minor);
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && (major > 2 || minor >= 28);
}

void expect_library_exp() {
    if (vector_form_expected()) {
        EXPECT_NE(act::exp_form(), act::ExpForm::library);
    }
    const std::vector<double> x = exp_sample();
    std::vector<double> y(x.size());
    act::exp_array(x.data(), y.data(), static_cast<long>(x.size()));
    std::size_t bad = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        if (std::bit_cast<std::uint64_t>(y[i]) != std::bit_cast<std::uint64_t>(std::exp(x[i])) && bad++ < 5) {
            ADD_FAILURE() << std::hexfloat << "exp(" << x[i] << "): " << y[i] << ", the library " << std::exp(x[i]);
        }
    }
    EXPECT_EQ(bad, 0u) << "of " << x.size() << " inputs, form " << act::exp_form_name(act::exp_form());
    // The same sample as gates.
    std::vector<float> gate(x.begin(), x.end()), other(x.size()), out(x.size());
    for (std::size_t i = 0; i < x.size(); ++i) other[i] = static_cast<float>(i % 7) - 3.25f;
    act::silu_products(gate.data(), other.data(), out.data(), static_cast<long>(gate.size()));
    bad = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        const float want = act::silu_product(gate[i], other[i]);
        bad += std::bit_cast<std::uint32_t>(out[i]) != std::bit_cast<std::uint32_t>(want);
    }
    EXPECT_EQ(bad, 0u);
}

TEST(SwigluExp, SampleMatchesTheLibraryBitForBit) {
    RecordProperty("exp_form", act::exp_form_name(act::exp_form()));
    expect_library_exp();
}

TEST(SwigluExpChild, DISABLED_Sample) {
    RecordProperty("exp_form", act::exp_form_name(act::exp_form()));
    expect_library_exp();
}

// The library picks its build by the CPU and its own settings; told to
// ignore FMA and AVX2, it rounds each product on its own, and so must the
// vector form.
TEST(SwigluExp, SampleMatchesALibraryWithoutFma) {
    EXPECT_TRUE(run_child("SwigluExpChild.DISABLED_Sample", {{"GLIBC_TUNABLES", "glibc.cpu.hwcaps=-AVX2,-FMA"}}));
}

TEST(SwigluCatalogue, ThreeInstances) {
    std::map<std::string, int> families;
    for (const auto& k : infer_ops::kernel_catalogue()) ++families[k.family];
    EXPECT_EQ(families["infer_swiglu"], 3);
}

TEST(SwigluFailure, StatusLogAndNothingWritten) {
    using wrapper_test::fp;
    const auto call = [](bool with_y) -> wrapper_test::Call {
        return [=](Context* c, void* const* p, long m, long n, double axis) {
            return infer_ops::swiglu<float>(c, fp(p[0]), with_y ? fp(p[2]) : nullptr, fp(p[1]), {m, n},
                                            static_cast<long>(axis), true);
        };
    };
    const auto dev = DeviceType::TSU3, cpu = DeviceType::CPU;
    wrapper_test::expect_failures(
        {call(false), call(true)}, {1},
        {{"a null context", 0, wrapper_test::kNoContext, 4, 8, 1, 0, 0, {}, 1, nullptr, {}},
         {"a negative axis", 0, dev, 4, 8, -1, 0, 0, {}, 1, "compare_fail", {"-1", ">=", "0"}},
         {"an axis past the rank", 0, cpu, 4, 8, 2, 0, 0, {}, 1, "compare_fail", {"2", "<", "2"}},
         {"an axis past the rank, two tensors", 1, dev, 4, 8, 5, 0, 0, {}, 1, "compare_fail", {"5", "<", "2"}},
         {"an odd axis", 0, dev, 4, 7, 1, 0, 0, {}, 1, "compare_fail", {"1", "==", "0"}},
         {"an odd negative axis, host", 0, cpu, 4, -3, 1, 0, 0, {}, 1, "compare_fail", {"-1", "==", "0"}},
         {"a zero dimension", 1, dev, 0, 8, 1, 0, 0, {}, 1, "invalid_shape", {}},
         {"null x", 0, dev, 4, 8, 1, 0, 1, {}, 1, "invalid_memory", {}},
         {"z no memory", 0, dev, 4, 8, 1, 1, 0x1000, {}, 1, "invalid_memory", {}},
         {"y past device memory", 1, dev, 4, 8, 1, 2, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"device type 1", 0, DeviceType::TSU1, 4, 8, 1, -1, 0x200001000, {}, 4, "unimplement", {}},
         {"the launch fails", 1, dev, 4, 8, 0, 0, 0, tsuemu::Site::Async, 2, "kernel_fail", {"7"}},
         // Two faults: the axis before its parity, the parity before the
         // shape, the shape before the regions.
         {"an axis past the rank of odd length", 0, dev, 4, 7, 2, 0, 0, {}, 1, "compare_fail", {"2", "<", "2"}},
         {"odd and a zero dimension", 0, dev, 0, 7, 1, 0, 0, {}, 1, "compare_fail", {"1", "==", "0"}},
         {"a zero dimension and null x", 0, dev, 0, 8, 1, 0, 1, {}, 1, "invalid_shape", {}}});
}

// The transposing route launches two exchanges, the kernel and one exchange
// back; each fails in turn. Status 2, nothing in z, both pools back where
// they were; without any scratch, status 3 before anything runs.
TEST(SwigluFailure, EachLaunchOfTheTransposingRouteFails) {
    const Dims shape = {kTransposeFactor * 2 / 3 + 1, 3, 2};
    const long n = 6 * shape[0];
    auto dev = device_context({.ncluster = kClusters});
    GuardedBuffer<float> x(dev.get(), random_tensor<float>(n, 3)), z(dev.get(), n / 2);
    LaunchCapture all;
    ASSERT_EQ(infer_ops::swiglu<float>(dev.get(), x.data(), nullptr, z.data(), shape, 2, true), 0);
    const std::size_t launches = all.size();
    ASSERT_EQ(launches, 4u);
    for (int nth = 1; nth <= static_cast<int>(launches); ++nth) {
        SCOPED_TRACE("launch " + std::to_string(nth));
        z.fill_sentinel();
        const auto pools = [&] { return Dims{long(dev->gm_mgr.top()), long(dev->l3_mgr.top()),
                                             long(dev->gm_mgr.depth() + dev->l3_mgr.depth())}; };
        const Dims before = pools();
        LogCapture logs;
        tsuemu::inject_failure(tsuemu::Site::Async, nth, 9);
        EXPECT_EQ(infer_ops::swiglu<float>(dev.get(), x.data(), nullptr, z.data(), shape, 2, true), 2);
        tsuemu::clear_failures();
        ASSERT_FALSE(logs.failures().empty());
        EXPECT_EQ(logs.failures()[0].kind, "kernel_fail");
        EXPECT_TRUE(z.untouched());
        EXPECT_EQ(pools(), before) << "general top, fast top, marks";
    }
    auto bare = device_context({.ncluster = kClusters, .l3_pool_bytes = 0, .gm_pool_bytes = 0});
    GuardedBuffer<float> bx(bare.get(), random_tensor<float>(n, 3)), bz(bare.get(), n / 2);
    bz.fill_sentinel();
    LogCapture logs;
    LaunchCapture none;
    EXPECT_EQ(infer_ops::swiglu<float>(bare.get(), bx.data(), nullptr, bz.data(), shape, 2, true), 3);
    ASSERT_EQ(logs.failures().size(), 1u);
    EXPECT_EQ(logs.failures()[0].fields, (std::vector<std::string>{"ptr(0)", "!=", "nullptr"}));
    EXPECT_EQ(none.size(), 0u);
    EXPECT_TRUE(bz.untouched());
}

}  // namespace
