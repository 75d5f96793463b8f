// A smoke test of the test harness: a guard that never fires or a comparison
// that never fails would let every operator test pass.
#include <gtest/gtest-spi.h>

#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;

TEST(Support, GuardBandsAndComparisonsCatchFaults) {
    auto ctx = device_context();
    GuardedBuffer<float> buf(ctx.get(), std::vector<float>{1, 2, 3});
    EXPECT_TRUE(exactly_equal({1.0f, 2.0f, 3.0f}, buf.download()));
    EXPECT_FALSE(exactly_equal(std::vector<float>{0.0f}, std::vector<float>{-0.0f}));
    const float16 one(1.0f);
    EXPECT_TRUE(nearly_equal<float16>({one}, {float16::from_bits(one.x + 4)}));
    EXPECT_FALSE(nearly_equal<float16>({one}, {float16::from_bits(one.x + 5)}));
    buf.data()[3] = 4.0f;
    EXPECT_FALSE(buf.guards_intact());
    EXPECT_NONFATAL_FAILURE(buf.download(), "past the end");
}

}  // namespace
