// cast on the device: which kernels each pair launches (one kernel, two hops
// through float, a byte copy, or none), and every failure of the frame and
// the device path: status, log record, nothing written.
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/infer_ops.h>

#include "support/tsuops_test.h"

namespace {

using namespace orvane::tsu::api;
using tsuops_test::GuardedBuffer;
using tsuops_test::LaunchCapture;
using tsuops_test::LogCapture;
using tsuemu::LaunchRecord;
using tsuemu::Site;

template <class... T>
struct types {};
using AllTypes = types<float, float16, bfloat16, bool, signed char, short, int, long, unsigned char, double>;

template <class... T, class F>
void for_each_type(types<T...>, F&& f) {
    (f.template operator()<T>(), ...);
}

template <class F>
void for_each_pair(F&& f) {
    for_each_type(AllTypes{}, [&]<class TX>() {
        for_each_type(AllTypes{}, [&]<class TY>() { f.template operator()<TX, TY>(); });
    });
}

// Type names as the demangler writes them in kernel names.
template <class T>
std::string spelled() {
    if constexpr (std::is_same_v<T, signed char>) return "signed char";
    else if constexpr (std::is_same_v<T, unsigned char>) return "unsigned char";
    else if constexpr (std::is_same_v<T, short>) return "short";
    else if constexpr (std::is_same_v<T, long>) return "long";
    else return tsuops_test::type_name<T>();
}

template <class TX, class TY>
std::string cast_kernel() {
    return "tsu3::infer_cluster_cast_mk3<" + spelled<TX>() + ", " + spelled<TY>() + ">(";
}

template <class TX, class TY>
std::string pair_name() {
    return spelled<TX>() + " -> " + spelled<TY>();
}

bool starts_with(const std::string& s, const std::string& prefix) { return s.rfind(prefix, 0) == 0; }

const std::set<std::string> kRefused = {"bfloat16 -> short", "bfloat16 -> int", "short -> bfloat16",
                                        "int -> bfloat16"};
const std::set<std::string> kTwoHops = {"float16 -> bool", "float16 -> short", "float16 -> long",
                                        "bool -> float16", "short -> float16", "long -> float16"};

template <class T>
std::uint64_t addr(const T* p) {
    return reinterpret_cast<std::uint64_t>(p);
}

void expect_cluster_grid(const Context& ctx, const LaunchRecord& r) {
    EXPECT_EQ(r.nclusters, ctx.ncluster) << r.kernel;
    EXPECT_EQ(r.ncores, 64) << r.kernel;
    EXPECT_EQ(r.stream, ctx.stream) << r.kernel;
}

TEST(CastSelect, EveryPairTakesItsRoute) {
    auto dev = tsuops_test::device_context();
    constexpr long len = 300;
    int direct = 0;
    for_each_pair([&]<class TX, class TY>() {
        const std::string pair = pair_name<TX, TY>();
        SCOPED_TRACE(pair);
        GuardedBuffer<TX> x(dev.get(), tsuops_test::random_tensor<TX>(len, 5));
        GuardedBuffer<TY> y(dev.get(), len);
        LogCapture logs;
        LaunchCapture launches;
        const int st = infer_ops::cast<TX, TY>(dev.get(), x.data(), y.data(), len);
        const auto rec = launches.records();
        if (std::is_same_v<TX, TY>) {
            EXPECT_EQ(st, 0);
            ASSERT_EQ(rec.size(), 1u);
            EXPECT_EQ(tsuops_test::kernel_family(rec[0].kernel), "infer_memcpy_1d");
            expect_cluster_grid(*dev, rec[0]);
            EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 16), len * static_cast<long>(sizeof(TX)));
        } else if (kRefused.count(pair)) {
            EXPECT_EQ(st, infer_ops::STATUS_UNIMPLEMENTED);
            EXPECT_TRUE(rec.empty());
            EXPECT_EQ(logs.count("unimplement"), 1u);
            EXPECT_TRUE(y.untouched());
        } else if (kTwoHops.count(pair)) {
            EXPECT_EQ(st, 0);
            ASSERT_EQ(rec.size(), 2u);
            EXPECT_TRUE(starts_with(rec[0].kernel, cast_kernel<TX, float>())) << rec[0].kernel;
            EXPECT_TRUE(starts_with(rec[1].kernel, cast_kernel<float, TY>())) << rec[1].kernel;
            const auto scratch = LaunchCapture::arg<std::uint64_t>(rec[0], 8);
            EXPECT_EQ(LaunchCapture::arg<std::uint64_t>(rec[0], 0), addr(x.data()));
            EXPECT_EQ(LaunchCapture::arg<std::uint64_t>(rec[1], 0), scratch);
            EXPECT_EQ(LaunchCapture::arg<std::uint64_t>(rec[1], 8), addr(y.data()));
            EXPECT_NE(scratch, addr(x.data()));
            EXPECT_NE(scratch, addr(y.data()));
            for (const auto& r : rec) {
                expect_cluster_grid(*dev, r);
                EXPECT_EQ(LaunchCapture::arg<long>(r, 16), len);
            }
        } else {
            ++direct;
            EXPECT_EQ(st, 0);
            ASSERT_EQ(rec.size(), 1u);
            EXPECT_TRUE(starts_with(rec[0].kernel, cast_kernel<TX, TY>())) << rec[0].kernel;
            expect_cluster_grid(*dev, rec[0]);
            EXPECT_EQ(LaunchCapture::arg<std::uint64_t>(rec[0], 0), addr(x.data()));
            EXPECT_EQ(LaunchCapture::arg<std::uint64_t>(rec[0], 8), addr(y.data()));
            EXPECT_EQ(LaunchCapture::arg<long>(rec[0], 16), len);
        }
        EXPECT_EQ(logs.failures().size(), kRefused.count(pair));
    });
    EXPECT_EQ(direct, 80);
}

TEST(CastSelect, InPlaceSameTypeDoesNothing) {
    auto dev = tsuops_test::device_context();
    GuardedBuffer<float> x(dev.get(), std::vector<float>{1.0f, 2.0f});
    LaunchCapture launches;
    EXPECT_EQ((infer_ops::cast<float, float>(dev.get(), x.data(), x.data(), 2)), 0);
    EXPECT_EQ(launches.size(), 0u);
}

// Two hops take general scratch: a fast pool with room does not help.
TEST(CastFailure, TwoHopsWithoutGeneralScratch) {
    auto dev = tsuops_test::device_context({.l3_pool_bytes = 1ul << 20, .gm_pool_bytes = 0});
    GuardedBuffer<float16> x(dev.get(), tsuops_test::random_tensor<float16>(64, 1));
    GuardedBuffer<long> y(dev.get(), 64);
    LogCapture logs;
    LaunchCapture launches;
    EXPECT_EQ((infer_ops::cast<float16, long>(dev.get(), x.data(), y.data(), 64)), infer_ops::STATUS_NO_WORKSPACE);
    const auto fails = logs.of_kind("compare_fail");
    ASSERT_EQ(fails.size(), 1u);
    EXPECT_EQ(fails[0].fields, (std::vector<std::string>{"ptr(0)", "!=", "nullptr"}));
    EXPECT_EQ(launches.size(), 0u);
    EXPECT_TRUE(y.untouched());
}

struct LaunchFault {
    const char* what;
    Site site;
    int nth;
    std::size_t launched;  // launches that got through before the fault
};

class CastLaunchFault : public ::testing::TestWithParam<LaunchFault> {
protected:
    void TearDown() override { tsuemu::clear_failures(); }
};

TEST_P(CastLaunchFault, GivesStatusTwo) {
    const auto c = GetParam();
    auto dev = tsuops_test::device_context();
    GuardedBuffer<short> x(dev.get(), tsuops_test::random_tensor<short>(64, 2));
    GuardedBuffer<float16> y(dev.get(), 64);
    LogCapture logs;
    LaunchCapture launches;
    tsuemu::inject_failure(c.site, c.nth, 7);
    EXPECT_EQ((infer_ops::cast<short, float16>(dev.get(), x.data(), y.data(), 64)), infer_ops::STATUS_KERNEL_FAILED);
    tsuemu::clear_failures();
    const auto fails = logs.of_kind("kernel_fail");
    ASSERT_EQ(fails.size(), 1u);
    EXPECT_EQ(fails[0].fields, std::vector<std::string>{"7"});
    EXPECT_EQ(launches.size(), c.launched);
    EXPECT_TRUE(y.untouched());
}

INSTANTIATE_TEST_SUITE_P(TwoHops, CastLaunchFault,
                         ::testing::Values(LaunchFault{"first configuration", Site::Config, 1, 0},
                                           LaunchFault{"first launch", Site::Async, 1, 0},
                                           LaunchFault{"second configuration", Site::Config, 2, 1},
                                           LaunchFault{"an argument of the second launch", Site::ArgumentSet, 5, 1}));

// A failed copy of a same-type cast comes back unchanged, with the nested check.
TEST(CastFailure, SameTypeCopyFailureIsPassedOn) {
    auto dev = tsuops_test::device_context();
    GuardedBuffer<int> x(dev.get(), tsuops_test::random_tensor<int>(8, 3));
    GuardedBuffer<int> y(dev.get(), 8);
    LogCapture logs;
    tsuemu::inject_failure(Site::Async, 1, 9);
    EXPECT_EQ((infer_ops::cast<int, int>(dev.get(), x.data(), y.data(), 8)), infer_ops::STATUS_KERNEL_FAILED);
    tsuemu::clear_failures();
    EXPECT_EQ(logs.count("kernel_fail"), 1u);
    const auto nested = logs.of_kind("compare_fail");
    ASSERT_EQ(nested.size(), 1u);
    EXPECT_EQ(nested[0].fields, (std::vector<std::string>{"2", "==", "SUCCESS"}));
    EXPECT_TRUE(y.untouched());
}

TEST(CastFailure, EmptyTensorFailsEveryPair) {
    auto host = tsuops_test::host_context();
    auto dev = tsuops_test::device_context();
    for_each_pair([&]<class TX, class TY>() {
        for (Context* ctx : {host.get(), dev.get()}) {
            GuardedBuffer<TX> x(ctx, 4);
            GuardedBuffer<TY> y(ctx, 4);
            LogCapture logs;
            EXPECT_EQ((infer_ops::cast<TX, TY>(ctx, x.data(), y.data(), 0)), 1) << pair_name<TX, TY>();
            EXPECT_EQ(logs.count("invalid_memory"), 1u) << pair_name<TX, TY>();
            EXPECT_TRUE(y.untouched()) << pair_name<TX, TY>();
        }
    });
}

struct BadCall {
    const char* what;
    DeviceType dev;
    std::uint64_t x;  // 0: a real buffer
    std::uint64_t y;
    long len;
    int status;
    const char* log;
};

class CastBadCall : public ::testing::TestWithParam<BadCall> {};

TEST_P(CastBadCall, StatusLogAndNothingWritten) {
    const auto c = GetParam();
    auto ctx = tsuops_test::make_context(c.dev);
    // Type-3 memory also classifies as global memory for types 4 and 5.
    auto owner = c.dev == DeviceType::CPU ? tsuops_test::host_context() : tsuops_test::device_context();
    GuardedBuffer<float> x(owner.get(), std::vector<float>(16, 1.5f));
    GuardedBuffer<signed char> y(owner.get(), 16);
    const float* px = c.x ? reinterpret_cast<const float*>(c.x) : x.data();
    signed char* py = c.y ? reinterpret_cast<signed char*>(c.y) : y.data();
    LogCapture logs;
    EXPECT_EQ((infer_ops::cast<float, signed char>(ctx.get(), px, py, c.len)), c.status) << c.what;
    EXPECT_EQ(logs.failures().size(), 1u) << c.what;
    EXPECT_EQ(logs.count(c.log), 1u) << c.what;
    EXPECT_TRUE(y.untouched()) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Frame, CastBadCall,
    ::testing::Values(BadCall{"negative length", DeviceType::TSU3, 0, 0, -1, 1, "invalid_memory"},
                      BadCall{"a source that is no memory", DeviceType::TSU3, 0x1000, 0, 16, 1, "invalid_memory"},
                      BadCall{"a destination past device memory", DeviceType::TSU3, 0, 0x8000000000, 16, 1,
                              "invalid_memory"},
                      BadCall{"device type 4", DeviceType::TSU4, 0, 0, 16, 4, "unimplement"}));

TEST(CastFailure, NullContextIsSilent) {
    LogCapture logs;
    float x = 1.0f;
    int y = 0;
    EXPECT_EQ((infer_ops::cast<float, int>(nullptr, &x, &y, 1)), 1);
    EXPECT_TRUE(logs.records().empty());
    EXPECT_EQ(y, 0);
}

}  // namespace
