// The catalogue and the launch path: argument-block layout, the host entry's
// unpacking, failures at each runtime step, and the section's contents.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>

#include <tsuops/infer_ops.h>

#include "kernels/catalogue.h"
#include "support/tsuops_test.h"

// Counts argument sets, the library's included, by interposing the runtime's.
static std::atomic<int> g_argument_sets{0};
extern "C" int tsu_launch_argument_set(const void* value, size_t bytes, size_t offset) {
    using fn = int (*)(const void*, size_t, size_t);
    static const fn real = reinterpret_cast<fn>(dlsym(RTLD_NEXT, "tsu_launch_argument_set"));
    g_argument_sets.fetch_add(1);
    return real(value, bytes, offset);
}

// Probe kernels whose argument lists exercise the slot rule. Core 0 writes
// back what it unpacked.
#define TSU_FAMILY_probe_bools(X) X(probe_bools, TSU_ENGINE_CLUSTER, (typename T), (T), (T*, out), (bool, a), (bool, b))
#define TSU_FAMILY_probe_int_ptr(X) X(probe_int_ptr, TSU_ENGINE_CLUSTER, (typename T), (T), (int, n), (T*, out))
#define TSU_FAMILY_probe_bool_int(X) \
    X(probe_bool_int, TSU_ENGINE_CLUSTER, (typename T), (T), (bool, flag), (int, n), (T*, out))
#define TSU_FAMILY_probe_mixed(X)                                                                            \
    X(probe_mixed, TSU_ENGINE_CLUSTER, (typename T), (T), (T*, out), (short, s), (double, d), (signed char, c), \
      (float16, h), (long, n))
TSU_KERNEL_DECLARE(probe_bools)
TSU_KERNEL_DECLARE(probe_int_ptr)
TSU_KERNEL_DECLARE(probe_bool_int)
TSU_KERNEL_DECLARE(probe_mixed)
// A second signature of one kernel name.
#define TSU_FAMILY_probe_int_ptr_pair(X) \
    X(probe_int_ptr, TSU_ENGINE_CLUSTER, (typename T, typename U), (T, U), (int, n), (T*, out), (U*, more))
TSU_KERNEL_DECLARE_MORE(probe_int_ptr_pair)

namespace tsu3 {
template <typename T>
void probe_bools(T* out, bool a, bool b) { if (tsuemu::global_core_id() == 0) out[0] = a * 10 + b; }
template <typename T>
void probe_int_ptr(int n, T* out) { if (tsuemu::global_core_id() == 0) out[0] = n; }
template <typename T, typename U>
void probe_int_ptr(int n, T* out, U* more) { if (tsuemu::global_core_id() == 0) out[0] = n + static_cast<T>(more[0]); }
template <typename T>
void probe_bool_int(bool flag, int n, T* out) { if (tsuemu::global_core_id() == 0) out[0] = flag ? n : -n; }
template <typename T>
void probe_mixed(T* out, short s, double d, signed char c, float16 h, long n) {
    if (tsuemu::global_core_id() != 0) return;
    out[0] = s;
    out[1] = d;
    out[2] = c;
    out[3] = static_cast<float>(h);
    out[4] = static_cast<double>(n);
}
}  // namespace tsu3

TSU_KERNEL_DEFINE(probe_bools)
TSU_KERNEL_DEFINE(probe_int_ptr)
TSU_KERNEL_DEFINE(probe_bool_int)
TSU_KERNEL_DEFINE(probe_mixed)
TSU_KERNEL_DEFINE(probe_int_ptr_pair)
TSU_KERNEL_INSTANCE(probe_bools, long)
TSU_KERNEL_INSTANCE(probe_int_ptr, long)
TSU_KERNEL_INSTANCE(probe_bool_int, long)
TSU_KERNEL_INSTANCE(probe_mixed, double)
TSU_KERNEL_INSTANCE(probe_int_ptr, long, int)

namespace {

using namespace orvane::tsu::api;
using tsuops_test::GuardedBuffer;
using tsuops_test::LaunchCapture;
using tsuops_test::LogCapture;

template <typename T>
void expect_arg(const tsuemu::LaunchRecord& r, std::size_t offset, T want) {
    EXPECT_EQ(LaunchCapture::arg<T>(r, offset), want) << "argument at offset " << offset;
}

class LaunchPath : public ::testing::Test {
protected:
    void SetUp() override { ctx_ = tsuops_test::device_context(); tsuemu::clear_failures(); }
    void TearDown() override { tsuemu::clear_failures(); }
    int config() { return tsu_launch_config(ctx_->ncluster, 64, ctx_->stream); }
    std::unique_ptr<Context> ctx_;
};

TEST_F(LaunchPath, ArgumentBlocksFollowTheSlotRule) {
    GuardedBuffer<long> out(ctx_.get(), 1);
    GuardedBuffer<double> mixed(ctx_.get(), 5);
    LaunchCapture launches;
    ASSERT_EQ(config(), 0);
    ASSERT_EQ(tsu3::__device_stub__probe_bools<long>(out.data(), true, false), 0);
    EXPECT_EQ(out.download(), std::vector<long>{10});
    ASSERT_EQ(config(), 0);
    ASSERT_EQ(tsu3::__device_stub__probe_int_ptr<long>(-5, out.data()), 0);
    EXPECT_EQ(out.download(), std::vector<long>{-5});
    ASSERT_EQ(config(), 0);
    ASSERT_EQ(tsu3::__device_stub__probe_bool_int<long>(false, 9, out.data()), 0);
    EXPECT_EQ(out.download(), std::vector<long>{-9});
    ASSERT_EQ(config(), 0);
    ASSERT_EQ(tsu3::__device_stub__probe_mixed<double>(mixed.data(), -3, 2.25, -8, float16(0.5f), 1L << 40), 0);
    EXPECT_EQ(mixed.download(), (std::vector<double>{-3, 2.25, -8, 0.5, static_cast<double>(1L << 40)}));

    const auto r = launches.records();
    ASSERT_EQ(r.size(), 4u);
    // Two bools land 4 apart; an int before a pointer leaves a gap of 4.
    EXPECT_EQ(r[0].args.size(), 13u);
    expect_arg(r[0], 0, out.data());
    expect_arg(r[0], 8, true);
    expect_arg(r[0], 12, false);
    EXPECT_EQ(r[1].args.size(), 16u);
    expect_arg(r[1], 0, -5);
    expect_arg(r[1], 8, out.data());
    EXPECT_EQ(r[2].args.size(), 16u);
    expect_arg(r[2], 0, false);
    expect_arg(r[2], 4, 9);
    expect_arg(r[2], 8, out.data());
    EXPECT_EQ(r[3].args.size(), 40u);
    expect_arg(r[3], 8, short{-3});
    expect_arg(r[3], 16, 2.25);
    expect_arg(r[3], 24, static_cast<signed char>(-8));
    expect_arg(r[3], 28, float16(0.5f));
    expect_arg(r[3], 32, 1L << 40);

    // A second signature of one kernel name launches its own instance.
    GuardedBuffer<int> more(ctx_.get(), std::vector<int>{5});
    ASSERT_EQ(config(), 0);
    ASSERT_EQ((tsu3::__device_stub__probe_int_ptr<long, int>(2, out.data(), more.data())), 0);
    EXPECT_EQ(out.download(), std::vector<long>{7});
    EXPECT_EQ(launches.records().back().args.size(), 24u);
}

TEST_F(LaunchPath, ConstantLaunchesOnTheContextsShape) {
    auto ctx = tsuops_test::device_context({.ncluster = 3});
    GuardedBuffer<int> x(ctx.get(), 100);
    LaunchCapture launches;
    ASSERT_EQ(infer_ops::constant<int>(ctx.get(), x.data(), 100, 7), 0);
    const auto recs = launches.records();
    ASSERT_EQ(recs.size(), 1u);
    const auto& r = recs[0];
    EXPECT_EQ(r.kernel, "tsu3::infer_constant<int>(char*, long, int)");
    EXPECT_TRUE(r.nclusters == 3 && r.ncores == 64 && r.stream == ctx->stream);
    EXPECT_EQ(r.args.size(), 20u);
    expect_arg(r, 0, reinterpret_cast<char*>(x.data()));
    expect_arg(r, 8, 100L);
    expect_arg(r, 16, 7);
    EXPECT_EQ(x.download(), std::vector<int>(100, 7));
}

// argument_sets: those the runtime saw; a failed one stops the stub.
struct FailureCase { tsuemu::Site site; int nth, code, argument_sets; };

class InjectedFailure : public LaunchPath, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(InjectedFailure, ConstantReportsKernelFailedAndLaunchesNothing) {
    const auto c = GetParam();
    GuardedBuffer<float> x(ctx_.get(), 64);
    LogCapture logs;
    LaunchCapture launches;
    tsuemu::inject_failure(c.site, c.nth, c.code);
    g_argument_sets = 0;
    EXPECT_EQ(infer_ops::constant<float>(ctx_.get(), x.data(), 64, 1.0f), 2);
    EXPECT_EQ(g_argument_sets.load(), c.argument_sets);
    EXPECT_TRUE(launches.records().empty());
    ASSERT_EQ(logs.count("kernel_fail"), 1u);
    const auto rec = logs.of_kind("kernel_fail").front();
    EXPECT_EQ(rec.fields, std::vector<std::string>{std::to_string(c.code)});
    EXPECT_NE(rec.file.find("constant.cpp"), std::string::npos);
    tsu_wait(ctx_->stream);
    EXPECT_TRUE(x.untouched());
    if (c.site == tsuemu::Site::Async) {
        EXPECT_EQ(tsuops::kernels::g_tsu_launch_error, c.code);
    }
}

INSTANTIATE_TEST_SUITE_P(Catalogue, InjectedFailure,
                         ::testing::Values(FailureCase{tsuemu::Site::Config, 1, 41, 0},
                                           FailureCase{tsuemu::Site::ArgumentSet, 2, 42, 2},
                                           FailureCase{tsuemu::Site::Async, 1, 43, 3}));

TEST(Catalogue, ListsEveryConstantInstanceOnce) {
    std::map<std::string, int> families, names;
    for (const auto& k : infer_ops::kernel_catalogue()) {
        ++families[k.family];
        ++names[k.name];
        EXPECT_FALSE(k.mangled.empty());
        EXPECT_TRUE(k.image_size > 0 && k.image_size % 4 == 0) << k.name;
    }
    EXPECT_EQ(families["infer_constant"], 10);
    for (const auto& [name, count] : names) EXPECT_EQ(count, 1) << name;
    for (const auto& d : tsuops::kernels::catalogue()) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&d) % 64, 0u);
        EXPECT_NE(d.image, 0u);
        EXPECT_EQ(d.reserved0 | d.reserved1 | d.reserved2, 0u);
        EXPECT_EQ(d.hash >> 32, 0u);
    }
}

TEST(Catalogue, StubsAreExportedUnderTheirMangledNames) {
    for (const char* name : {"_ZN4tsu329__device_stub__infer_constantIfEEiPclT_",
                             "_ZN4tsu329__device_stub__infer_constantI7float16EEiPclT_",
                             "_ZN4tsu329__device_stub__infer_constantIbEEiPclT_"}) {
        EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
    }
}

}  // namespace
