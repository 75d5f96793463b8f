// The test helpers themselves: a guard that never fires or a comparison
// that never fails would let every operator test pass.
#include <cmath>
#include <cstring>
#include <limits>

#include <gtest/gtest-spi.h>

#include "platform_util.h"
#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;

// ---- guarded buffers ---------------------------------------------------------------------
template <class T>
class GuardedRoundTrip : public ::testing::Test {};
TYPED_TEST_SUITE(GuardedRoundTrip, AllElementTypes, ElementTypeNames);

TYPED_TEST(GuardedRoundTrip, UploadDownloadOnHostAndDevice) {
    using T = TypeParam;
    const auto values = random_tensor<T>(1001, 7, RandomSpec::with_specials(0.2));
    std::unique_ptr<Context> contexts[] = {host_context(), device_context()};
    for (auto& ctx : contexts) {
        GuardedBuffer<T> buf(ctx.get(), values);
        ASSERT_TRUE(buf.ok());
        EXPECT_EQ(buf.size(), 1001);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buf.data()) % 256, 0u);
        if (ctx->dev_type == 3) {
            EXPECT_EQ(platform_test::classify(3, buf.data()), platform_test::Kind::GM);
        }
        EXPECT_FALSE(buf.untouched());
        EXPECT_TRUE(exactly_equal(values, buf.download()));
        EXPECT_TRUE(buf.guards_intact());
        buf.fill_sentinel();
        EXPECT_TRUE(buf.untouched());
    }
}

class GuardedDamage : public ::testing::TestWithParam<bool> {
protected:
    std::unique_ptr<Context> ctx() { return GetParam() ? device_context() : host_context(); }
};

TEST_P(GuardedDamage, WritePastTheEndFailsAtDownload) {
    auto c = ctx();
    GuardedBuffer<float> buf(c.get(), 10);
    buf.data()[10] = 1.0f;
    EXPECT_FALSE(buf.guards_intact());
    EXPECT_NONFATAL_FAILURE(buf.download(), "bytes past the end of 40 payload bytes");
}

TEST_P(GuardedDamage, WriteBeforeTheStartFailsAtDestruction) {
    auto c = ctx();
    EXPECT_NONFATAL_FAILURE(
        {
            GuardedBuffer<short> buf(c.get(), 3);
            reinterpret_cast<unsigned char*>(buf.data())[-300] ^= 1;
        },
        "300 bytes before the start");
}

TEST_P(GuardedDamage, UntouchedSeesASingleByte) {
    auto c = ctx();
    GuardedBuffer<double> buf(c.get(), 64);
    EXPECT_TRUE(buf.untouched());
    reinterpret_cast<unsigned char*>(buf.data())[64 * 8 - 1] ^= 0x10;
    EXPECT_FALSE(buf.untouched());
    EXPECT_TRUE(buf.guards_intact());
}

TEST_P(GuardedDamage, MovedBufferOwnsTheBlockOnce) {
    auto c = ctx();
    GuardedBuffer<int> a(c.get(), std::vector<int>{1, 2, 3});
    GuardedBuffer<int> b(std::move(a));
    EXPECT_EQ(b.download(), (std::vector<int>{1, 2, 3}));
    GuardedBuffer<int> d(c.get(), 1);
    d = std::move(b);
    EXPECT_EQ(d.size(), 3);
    EXPECT_EQ(d.download(), (std::vector<int>{1, 2, 3}));
}

INSTANTIATE_TEST_SUITE_P(HostAndDevice, GuardedDamage, ::testing::Values(false, true),
                         [](const auto& p) { return p.param ? "device" : "host"; });

TEST(GuardedBufferSkip, TypeTwoWithoutItsArenaSkips) {
    if (tsuemu::gm_available(2)) GTEST_SKIP() << "the type-2 arena is present here";
    auto ctx = make_context(DeviceType::TSU2);
    GuardedBuffer<float> buf(ctx.get(), 4);
    EXPECT_FALSE(buf.ok());
    EXPECT_TRUE(IsSkipped());
}

TEST(GuardedBufferSkip, ZeroElementsStillHaveBands) {
    auto ctx = device_context();
    GuardedBuffer<float> buf(ctx.get(), 0);
    ASSERT_TRUE(buf.ok());
    EXPECT_NE(buf.data(), nullptr);
    EXPECT_TRUE(buf.download().empty());
    buf.data()[0] = 1.0f;
    EXPECT_NONFATAL_FAILURE(buf.download(), "past the end");
}

// ---- random tensors --------------------------------------------------------------------------
template <class T>
class RandomTensor : public ::testing::Test {};
TYPED_TEST_SUITE(RandomTensor, AllElementTypes, ElementTypeNames);

TYPED_TEST(RandomTensor, SameSeedSameTensorOtherSeedOtherTensor) {
    using T = TypeParam;
    const auto a = random_tensor<T>(500, 1);
    EXPECT_TRUE(exactly_equal(a, random_tensor<T>(500, 1)));
    EXPECT_FALSE(exactly_equal(a, random_tensor<T>(500, 2)));
    EXPECT_EQ(random_tensor<T>(0, 1).size(), 0u);
}

TYPED_TEST(RandomTensor, RangeIsRespected) {
    using T = TypeParam;
    if constexpr (!std::is_same_v<T, bool>) {
        const double lo = std::is_unsigned_v<T> ? 3 : -5;
        const auto v = random_tensor<T>(2000, 3, RandomSpec::range(lo, 9));
        double mn = 1e300, mx = -1e300;
        for (T x : v) {
            const double d = detail::as_double(x);
            mn = std::min(mn, d);
            mx = std::max(mx, d);
        }
        EXPECT_GE(mn, lo);
        EXPECT_LE(mx, 9);
        EXPECT_LT(mn, lo + 1) << "the range is not covered";
        EXPECT_GT(mx, 8);
    }
}

TEST(RandomTensorSpecials, FloatSpecialsOfEachKindAppear) {
    const auto v = random_tensor<float16>(4000, 11, RandomSpec::with_specials(0.25, kFloatSpecials));
    int nan = 0, inf = 0, sub = 0, neg_zero = 0, pos_zero = 0, plain = 0;
    for (float16 x : v) {
        const double d = detail::as_double(x);
        if (std::isnan(d)) ++nan;
        else if (std::isinf(d)) ++inf;
        else if ((x.x & 0x7c00) == 0 && (x.x & 0x3ff) != 0) ++sub;
        else if (x.x == 0x8000) ++neg_zero;
        else if (x.x == 0) ++pos_zero;
        else ++plain;
    }
    EXPECT_GT(nan, 100);
    EXPECT_GT(inf, 100);
    EXPECT_GT(sub, 100) << "subnormals of float16 itself";
    EXPECT_GT(neg_zero, 40);
    EXPECT_GT(pos_zero, 40);
    EXPECT_NEAR(plain, 3000, 150);
}

TEST(RandomTensorSpecials, BeyondRangeForACast) {
    const auto v = random_tensor<float>(2000, 5, RandomSpec::for_cast(127, 0.5));
    int beyond = 0;
    for (float x : v) beyond += std::isfinite(x) && std::fabs(x) >= 127;
    EXPECT_GT(beyond, 100);
}

TEST(RandomTensorSpecials, IntegerExtremes) {
    const auto v = random_tensor<short>(1000, 5, RandomSpec::with_specials(0.5).in(-3, 3));
    int mins = 0, maxs = 0;
    for (short x : v) {
        mins += x == std::numeric_limits<short>::min();
        maxs += x == std::numeric_limits<short>::max();
    }
    EXPECT_GT(mins, 50);
    EXPECT_GT(maxs, 50);
}

// ---- comparison rules -------------------------------------------------------------------------
TEST(Compare, ExactSeparatesSignedZerosButMatchesNaNs) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_TRUE(exactly_equal(std::vector<float>{1, nan, 0}, std::vector<float>{1, -nan, 0}));
    const auto r = exactly_equal(std::vector<float>{1, 2, 0, 4}, std::vector<float>{1, 2, -0.0f, 5});
    EXPECT_FALSE(r);
    EXPECT_NE(std::string(r.message()).find("index 2"), std::string::npos) << r.message();
    EXPECT_NE(std::string(r.message()).find("2 of 4"), std::string::npos) << r.message();
    EXPECT_FALSE(exactly_equal(std::vector<int>{1, 2}, std::vector<int>{1, 2, 3}));
}

TEST(Compare, UlpToleranceIsInTheOutputTypesPrecision) {
    const float16 one(1.0f);
    const auto up = [](float16 h, int n) { return float16::from_bits(static_cast<std::uint16_t>(h.x + n)); };
    EXPECT_TRUE(nearly_equal(std::vector<float16>{one}, std::vector<float16>{up(one, 4)}));
    EXPECT_FALSE(nearly_equal(std::vector<float16>{one}, std::vector<float16>{up(one, 5)}));
    const bfloat16 b(3.0f);
    EXPECT_TRUE(nearly_equal(std::vector<bfloat16>{b}, std::vector<bfloat16>{bfloat16::from_bits(b.x + 3)}));
    EXPECT_FALSE(nearly_equal(std::vector<bfloat16>{b}, std::vector<bfloat16>{bfloat16::from_bits(b.x + 6)}));
    EXPECT_TRUE(nearly_equal(std::vector<float>{1.0f}, std::vector<float>{std::nextafter(1.0f, 2.0f)}));
    EXPECT_FALSE(nearly_equal(std::vector<float>{1.0f}, std::vector<float>{1.0f + 1e-6f}));
    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_FALSE(nearly_equal(std::vector<float>{inf}, std::vector<float>{-inf}));
    EXPECT_FALSE(nearly_equal(std::vector<float>{inf}, std::vector<float>{3e38f}));
    EXPECT_TRUE(nearly_equal(std::vector<double>{0.0}, std::vector<double>{-0.0}));
    EXPECT_FALSE(nearly_equal(std::vector<float>{0.0f}, std::vector<float>{std::nanf("")}));
    EXPECT_TRUE(nearly_equal(std::vector<float>{0.0f}, std::vector<float>{1e-5f}, ulp_tolerance<float>().with_abs(1e-4)));
}

TEST(Compare, ReductionToleranceGrowsWithLength) {
    const std::vector<float> ref{1000.0f};
    const std::vector<float> off{1000.0f * (1 + 2e-5f)};
    EXPECT_FALSE(nearly_equal(ref, off, reduction_tolerance<float>(16)));
    EXPECT_TRUE(nearly_equal(ref, off, reduction_tolerance<float>(8192)));
}

TEST(Compare, OneStepForQuantisedIntegers) {
    EXPECT_TRUE(within_one_step(std::vector<signed char>{-127, 0, 5}, std::vector<signed char>{-126, 1, 4}));
    const auto r = within_one_step(std::vector<signed char>{-127, 0, 5}, std::vector<signed char>{-127, 2, 4});
    EXPECT_FALSE(r);
    EXPECT_NE(std::string(r.message()).find("index 1"), std::string::npos) << r.message();
}

TEST(Capture, KernelFamilyStripsScopeTemplateAndParameters) {
    EXPECT_EQ(kernel_family("tsu3::infer_constant<float>(char*, long, float)"), "infer_constant");
    EXPECT_EQ(kernel_family("tsu3::fill(float*, long, float)"), "fill");
    EXPECT_EQ(kernel_family("plain"), "plain");
}

}  // namespace
