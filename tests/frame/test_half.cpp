// The 16-bit scalars and their array forms in both float16 modes and both
// bfloat16 roundings, and how the modes are read from the environment. The
// modes are fixed per process, so each check of them runs in a child process.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/float16.h>

#include "support/child_process.h"

namespace {

constexpr const char* kFp16Mode = "TSUAPI_BF16_FP16_MODE";
constexpr const char* kFp16ModeFallback = "TSUAPI_FP16_MODE";
constexpr const char* kBf16Mode = "TSUAPI_BF16_ROUND_MODE";
// What the parent expects of a child's modes: "<tsu3><rn>" as two digits.
constexpr const char* kExpect = "TSUOPS_TEST_EXPECT_MODES";
const float kNaN = std::numeric_limits<float>::quiet_NaN();

std::uint32_t bits(float f) { return std::bit_cast<std::uint32_t>(f); }
std::uint16_t fp16_bits(float f) { return float16(f).x; }
std::uint16_t bf16_bits(std::uint32_t w, bool rn = false) { return bfloat16(std::bit_cast<float>(w), rn).x; }

// The compiler's binary16 conversion (ties to even, subnormals kept), but one quiet NaN.
std::uint16_t oracle(float f, bool keep_subnormals) {
    if (std::isnan(f)) return std::signbit(f) ? 0xfe00 : 0x7e00;
    const auto r = std::bit_cast<std::uint16_t>(static_cast<_Float16>(f));
    return keep_subnormals || (r & 0x7c00) != 0 ? r : r & 0x8000;
}

// Each binary16 midpoint and one float ulp either side; every upper half of
// a float with lower halves around the bfloat16 tie and one random one.
std::vector<float> probe_floats() {
    std::vector<float> out;
    for (std::uint32_t h = 0; h < 0xfc00; h = h == 0x7bff ? 0x8000 : h + 1) {
        const float lo = float16::from_bits(static_cast<std::uint16_t>(h));
        const float hi = (h & 0x7fff) == 0x7bff ? std::copysign(65536.0f, lo) : float(float16::from_bits(h + 1));
        const float mid = (lo + hi) / 2;  // exact: halves have 11 significant bits
        out.insert(out.end(), {mid, std::nextafter(mid, lo), std::nextafter(mid, hi)});
    }
    std::mt19937 rng(7);
    for (std::uint32_t hi = 0; hi < 0x10000; ++hi) {
        for (std::uint32_t lo : {0u, 1u, 0x7fffu, 0x8000u, 0x8001u, static_cast<std::uint32_t>(rng() & 0xffff)})
            out.push_back(std::bit_cast<float>((hi << 16) | lo));
    }
    return out;
}

// The array form conv over src in pieces of every length up to 40, so that
// vector bodies and tails meet every alignment; no piece may write past its end.
template <class D, class S, class Conv>
std::vector<D> in_pieces(const std::vector<S>& src, Conv conv) {
    std::vector<D> dst(src.size());
    const auto* bytes = reinterpret_cast<const unsigned char*>(dst.data());
    std::memset(static_cast<void*>(dst.data()), 0x5a, dst.size() * sizeof(D));
    const long n = static_cast<long>(src.size());
    for (long at = 0, len = 0; at < n; at += len, len = (len + 1) % 41) {
        len = std::min(len, n - at);
        conv(src.data() + at, dst.data() + at, len);
        const long end = std::min(n, at + len + 8);
        const auto untouched = std::count(bytes + (at + len) * sizeof(D), bytes + end * sizeof(D), 0x5a);
        EXPECT_EQ(static_cast<std::size_t>(untouched), (end - at - len) * sizeof(D)) << "past " << len << " at " << at;
    }
    return dst;
}

// Every rule of both kinds in the current process's modes, scalar and bulk.
void check_modes(bool tsu3, bool rn) {
    // flushed: the pattern outside mode "tsu3".
    const struct { float in; std::uint16_t tsu3, flushed; } fp16_table[] = {
        {65504.0f, 0x7bff, 0x7bff}, {65519.0f, 0x7bff, 0x7bff}, {65520.0f, 0x7c00, 0x7c00},
        {6.103515625e-05f, 0x0400, 0x0400}, {6e-05f, 0x03ef, 0x0000}, {-6e-05f, 0x83ef, 0x8000},
        {5.960464477539063e-08f, 0x0001, 0x0000}, {2.9802322387695312e-08f, 0x0000, 0x0000},
        {kNaN, 0x7e00, 0x7e00}, {-kNaN, 0xfe00, 0xfe00}, {std::bit_cast<float>(0x7f800001u), 0x7e00, 0x7e00},
    };
    for (const auto& c : fp16_table) EXPECT_EQ(fp16_bits(c.in), tsu3 ? c.tsu3 : c.flushed) << c.in;
    const struct { std::uint32_t in; std::uint16_t even, away; } bf16_table[] = {
        {0x3f808000, 0x3f80, 0x3f81}, {0x3f818000, 0x3f82, 0x3f82}, {0xbf808000, 0xbf80, 0xbf81},
        {0x7f7fffff, 0x7f80, 0x7f80}, {0xffc00001, 0x7fc0, 0x7fc0}, {0x7f800001, 0x7fc0, 0x7fc0},
        {0x00008000, 0x0000, 0x0001},
    };
    for (const auto& c : bf16_table) {
        EXPECT_EQ(bf16_bits(c.in), rn ? c.away : c.even) << std::hex << c.in;
        EXPECT_EQ(bf16_bits(c.in, true), c.away) << std::hex << c.in;
    }
    // Every pattern: widening is exact, the round trip keeps it, a NaN comes
    // back quiet under its own sign and outside "tsu3" a subnormal as a signed zero.
    std::vector<float16> h(0x10000);
    std::vector<bfloat16> b(0x10000);
    for (std::uint32_t i = 0; i < 0x10000; ++i) h[i].x = b[i].x = static_cast<std::uint16_t>(i);
    const auto widen = [](auto s, auto d, long n) { infer_ops::widen(s, d, n); };
    const auto wh = in_pieces<float>(h, widen), wb = in_pieces<float>(b, widen);
    for (std::uint32_t i = 0; i < 0x10000; ++i) {
        const std::uint32_t mag = i & 0x7fff;
        const float w = h[i];
        const auto exact = static_cast<float>(std::bit_cast<_Float16>(static_cast<std::uint16_t>(i)));
        ASSERT_TRUE(mag > 0x7c00 ? std::isnan(w) && std::signbit(w) == (i >= 0x8000) : bits(w) == bits(exact)) << i;
        std::uint32_t want = mag > 0x7c00 ? (i & 0x8000) | 0x7e00 : i;
        if (!tsu3 && mag != 0 && mag < 0x400) want = i & 0x8000;
        ASSERT_EQ(fp16_bits(w), want) << std::hex << "pattern 0x" << i;
        ASSERT_EQ(bits(wh[i]), bits(w)) << i;
        ASSERT_EQ(bits(wb[i]), i << 16) << i;
    }
    const std::vector<float> src = probe_floats();
    const auto nh = in_pieces<float16>(src, [](auto s, auto d, long n) { infer_ops::narrow(s, d, n); });
    const auto ne = in_pieces<bfloat16>(src, [](auto s, auto d, long n) { infer_ops::narrow(s, d, n); });
    const auto na = in_pieces<bfloat16>(src, [](auto s, auto d, long n) { infer_ops::narrow(s, d, n, true); });
    for (std::size_t i = 0; i < src.size(); ++i) {
        ASSERT_EQ(fp16_bits(src[i]), oracle(src[i], tsu3)) << std::hex << "float 0x" << bits(src[i]);
        ASSERT_EQ(nh[i].x, fp16_bits(src[i])) << std::hex << "float 0x" << bits(src[i]);
        ASSERT_EQ(ne[i].x, bf16_bits(bits(src[i]))) << std::hex << "float 0x" << bits(src[i]);
        ASSERT_EQ(na[i].x, bf16_bits(bits(src[i]), true)) << std::hex << "float 0x" << bits(src[i]);
    }
}

TEST(HalfChild, DISABLED_Modes) {
    const char* want = std::getenv(kExpect);
    ASSERT_TRUE(want != nullptr && std::string(want).size() == 2);
    check_modes(want[0] == '1', want[1] == '1');
}

TEST(HalfMode, EnvironmentSelectsModes) {
    using Env = std::vector<std::pair<std::string, std::string>>;
    const struct { Env set; std::vector<std::string> unset; const char* expect; } cases[] = {
        {{}, {kFp16Mode, kFp16ModeFallback, kBf16Mode}, "00"},
        {{{kFp16Mode, "TSU3"}, {kBf16Mode, "RN"}}, {kFp16ModeFallback}, "11"},
        {{{kFp16ModeFallback, "Tsu3"}, {kBf16Mode, "RNE"}}, {kFp16Mode}, "10"},
        // An empty first variable still hides the fallback; only exact values count.
        {{{kFp16Mode, ""}, {kFp16ModeFallback, "tsu3"}, {kBf16Mode, ""}}, {}, "00"},
        {{{kFp16Mode, "tsu3 "}, {kBf16Mode, "rn "}}, {kFp16ModeFallback}, "00"},
    };
    for (auto c : cases) {
        c.set.emplace_back(kExpect, c.expect);
        EXPECT_TRUE(tsuops_test::run_child("HalfChild.DISABLED_Modes", c.set, c.unset));
    }
}

// Each kind reads its variables on its own first narrowing, even a forced one, and never again.
TEST(HalfChild, DISABLED_ModesReadOnce) {
    EXPECT_EQ(bf16_bits(0x3f808000, true), 0x3f81);
    setenv(kBf16Mode, "rn", 1);
    setenv(kFp16Mode, "tsu3", 1);
    EXPECT_EQ(bf16_bits(0x3f808000), 0x3f80);
    EXPECT_EQ(fp16_bits(6e-05f), 0x03ef);
    setenv(kFp16Mode, "tsu2", 1);
    EXPECT_EQ(fp16_bits(6e-05f), 0x03ef);
}

TEST(HalfMode, VariableSetAfterFirstConversionHasNoEffect) {
    EXPECT_TRUE(
        tsuops_test::run_child("HalfChild.DISABLED_ModesReadOnce", {}, {kFp16Mode, kFp16ModeFallback, kBf16Mode}));
}

}  // namespace
