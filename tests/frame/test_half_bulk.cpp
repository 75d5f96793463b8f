// The array conversions against the scalar ones, bit for bit, in every mode.
#include <bit>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/float16.h>

#include "support/child_process.h"

namespace {

using tsuops_test::run_child;

// Every upper half of a float with lower halves at and around the bfloat16
// and binary16 rounding points, one random lower half each, and random
// patterns: every exponent, sign and special value, and both roundings' ties.
std::vector<float> probe_floats() {
    std::vector<float> out;
    std::mt19937 rng(7);
    for (std::uint32_t hi = 0; hi < 0x10000; ++hi) {
        for (std::uint32_t lo : {0u, 1u, 0x8000u, 0x7fffu, 0x1000u, 0x0fffu}) {
            out.push_back(std::bit_cast<float>((hi << 16) | lo));
        }
        out.push_back(std::bit_cast<float>((hi << 16) | (static_cast<std::uint32_t>(rng()) & 0xffffu)));
    }
    for (int i = 0; i < 100000; ++i) out.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(rng())));
    return out;
}

void expect_narrow_fp16_matches(const std::vector<float>& src) {
    std::vector<float16> bulk(src.size());
    infer_ops::narrow(src.data(), bulk.data(), static_cast<long>(src.size()));
    for (std::size_t i = 0; i < src.size(); ++i) {
        ASSERT_EQ(bulk[i].x, float16(src[i]).x) << std::hex << "float 0x" << std::bit_cast<std::uint32_t>(src[i]);
    }
}

void expect_narrow_bf16_matches(const std::vector<float>& src, bool force_rn) {
    std::vector<bfloat16> bulk(src.size());
    infer_ops::narrow(src.data(), bulk.data(), static_cast<long>(src.size()), force_rn);
    for (std::size_t i = 0; i < src.size(); ++i) {
        ASSERT_EQ(bulk[i].x, bfloat16(src[i], force_rn).x)
            << std::hex << "float 0x" << std::bit_cast<std::uint32_t>(src[i]) << " force_rn " << force_rn;
    }
}

// Checks all four array forms in the mode of the current process.
void check_bulk_matches_scalar() {
    const std::vector<float> src = probe_floats();
    expect_narrow_fp16_matches(src);
    expect_narrow_bf16_matches(src, false);
    expect_narrow_bf16_matches(src, true);

    std::vector<float16> h(0x10000);
    std::vector<bfloat16> b(0x10000);
    for (std::uint32_t i = 0; i < 0x10000; ++i) {
        h[i] = float16::from_bits(static_cast<std::uint16_t>(i));
        b[i] = bfloat16::from_bits(static_cast<std::uint16_t>(i));
    }
    std::vector<float> wh(h.size()), wb(b.size());
    infer_ops::widen(h.data(), wh.data(), static_cast<long>(h.size()));
    infer_ops::widen(b.data(), wb.data(), static_cast<long>(b.size()));
    for (std::uint32_t i = 0; i < 0x10000; ++i) {
        ASSERT_EQ(std::bit_cast<std::uint32_t>(wh[i]), std::bit_cast<std::uint32_t>(float(h[i]))) << std::hex << i;
        ASSERT_EQ(std::bit_cast<std::uint32_t>(wb[i]), std::bit_cast<std::uint32_t>(float(b[i]))) << std::hex << i;
    }
}

TEST(HalfBulkChild, DISABLED_MatchesScalar) { check_bulk_matches_scalar(); }

TEST(HalfBulk, MatchesScalarInThisProcess) { check_bulk_matches_scalar(); }

TEST(HalfBulk, MatchesScalarInEveryMode) {
    EXPECT_TRUE(run_child("HalfBulkChild.DISABLED_MatchesScalar",
                          {{"TSUAPI_BF16_FP16_MODE", "tsu3"}, {"TSUAPI_BF16_ROUND_MODE", "rn"}}, {}));
    EXPECT_TRUE(run_child("HalfBulkChild.DISABLED_MatchesScalar", {},
                          {"TSUAPI_BF16_FP16_MODE", "TSUAPI_FP16_MODE", "TSUAPI_BF16_ROUND_MODE"}));
}

// Vector bodies and scalar tails: every length up to a few vectors, at every
// start offset within one, writes exactly [0, n) and nothing past it.
TEST(HalfBulk, LengthsAndOffsetsWriteOnlyTheirRange) {
    constexpr long kMax = 70;
    constexpr std::uint16_t kSentinel = 0x5a5a;
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> dist(-70000.0f, 70000.0f);
    std::vector<float> src(kMax + 16);
    for (float& f : src) f = dist(rng);
    for (long off = 0; off < 16; ++off) {
        for (long n = 0; n <= kMax; ++n) {
            std::vector<float16> h(kMax + 17, float16::from_bits(kSentinel));
            std::vector<bfloat16> b(kMax + 17, bfloat16::from_bits(kSentinel));
            std::vector<float> w(kMax + 17, -1.0f);
            infer_ops::narrow(src.data() + off, h.data() + off, n);
            infer_ops::narrow(src.data() + off, b.data() + off, n);
            infer_ops::widen(h.data() + off, w.data() + off, n);
            for (long i = 0; i < kMax + 17; ++i) {
                const bool inside = i >= off && i < off + n;
                ASSERT_EQ(h[i].x, inside ? float16(src[i]).x : kSentinel) << "off " << off << " n " << n << " i " << i;
                ASSERT_EQ(b[i].x, inside ? bfloat16(src[i]).x : kSentinel) << "off " << off << " n " << n << " i " << i;
                ASSERT_EQ(w[i], inside ? float(h[i]) : -1.0f) << "off " << off << " n " << n << " i " << i;
            }
        }
    }
    // A negative count is an empty range.
    float16 h = float16::from_bits(kSentinel);
    infer_ops::narrow(src.data(), &h, -5);
    EXPECT_EQ(h.x, kSentinel);
}

}  // namespace
