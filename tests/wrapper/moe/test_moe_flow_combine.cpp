// The combining operators: moe_ffn_post_fusion in its five type pairs and
// moe_sum, device against host bit for bit and both against the documented
// rounding points, computed here per token, with the factor that follows
// the slot.
//
// The expected values name every rounding step; none may be contracted.
#pragma GCC optimize("fp-contract=off")

#include <bit>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "kernels/moe/token_flow.h"
#include "moe_test.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace moe_test;
using wrapper_test::AllPairs;
using wrapper_test::PairNames;

template <class T>
float f32(T v) {
    return static_cast<float>(v);
}

float bf16_rn_bits(float v) { return std::bit_cast<float>((std::bit_cast<std::uint32_t>(v) + 0x8000u) & 0xffff0000u); }

// Every output of moe_ffn_post_fusion from its k contributions (the row of
// the pair's slot, the score times the factor of that slot), rounded where
// the operator documents it: float in double steps; (float16, float) in
// float; (float16, float16) in float16 after the copy of the row, the weight,
// every product and every sum; bfloat16 after every expert, by
// (bits + 0x8000) >> 16, the first expert a plain product.
template <class T, class TS>
std::vector<T> combined(const std::vector<T>& xs, const std::vector<int>& moe_index, const std::vector<TS>& score,
                        const std::vector<float>* dequant, long m, long d, long k) {
    std::vector<T> y(static_cast<std::size_t>(m * d));
    for (long t = 0; t < m; ++t) {
        for (long c = 0; c < d; ++c) {
            float acc = 0.0f;
            for (long j = 0; j < k; ++j) {
                const int s = moe_index[t * k + j];
                const float w = f32(score[t * k + j]) * (dequant ? (*dequant)[s] : 1.0f), x = f32(xs[s * d + c]);
                const double exact = static_cast<double>(x) * static_cast<double>(w) + static_cast<double>(acc);
                if constexpr (std::is_same_v<T, float>) {
                    acc = static_cast<float>(exact);
                } else if constexpr (std::is_same_v<T, bfloat16>) {
                    acc = bf16_rn_bits(j == 0 ? x * w : static_cast<float>(exact));
                } else if constexpr (std::is_same_v<TS, float>) {
                    const float p = x * w;
                    acc = acc + p;
                } else {
                    const float p = f32(float16(f32(float16(x)) * f32(float16(w))));
                    acc = f32(float16(acc + p));
                }
            }
            if constexpr (std::is_same_v<T, bfloat16>) {
                y[t * d + c] = bfloat16::from_bits(static_cast<std::uint16_t>(std::bit_cast<std::uint32_t>(acc) >> 16));
            } else {
                y[t * d + c] = T(acc);
            }
        }
    }
    return y;
}

// A random slot for every pair: a permutation of the m * k slots.
std::vector<int> slots(long pairs, std::uint64_t seed) {
    std::vector<int> v(static_cast<std::size_t>(pairs));
    std::iota(v.begin(), v.end(), 0);
    const auto r = random_tensor<int>(pairs, seed, RandomSpec::range(0, 1e9));
    for (long i = pairs - 1; i > 0; --i) std::swap(v[i], v[r[i] % (i + 1)]);
    return v;
}

// Subnormals of T itself (from bits: the float16 narrowing would flush
// them), large enough that a weight above 1 makes them normal; float: a
// tiny normal value.
template <class T>
T subnormal(long c) {
    const auto bits = static_cast<std::uint16_t>((c % 2 ? 0x8000 : 0) | 0x0200 | (c * 37 % 0x1ff));
    if constexpr (std::is_same_v<T, float>) return std::ldexp(static_cast<float>(c % 64) - 32, -120);
    else return T::from_bits(std::is_same_v<T, bfloat16> ? static_cast<std::uint16_t>(bits >> 3 | (bits & 0x8000)) : bits);
}

// Expert rows: random; a large common offset with small differences; a
// constant row; subnormals; and in the slot of
// each token's first choice one NaN, in its second one infinity (never two
// NaN in one sum, whose sign would be the hardware's choice), except in the
// tokens that cancel().
template <class T>
std::vector<T> slot_rows(const std::vector<int>& moe_index, long m, long d, long k, std::uint64_t seed) {
    auto v = random_tensor<T>(m * k * d, seed, RandomSpec::range(-2, 2));
    for (long s = 0; s < m * k; ++s) {
        for (long c = 0; c < d; ++c) {
            if (s % 5 == 1) v[s * d + c] = T(1024.0f + static_cast<float>(c % 9) / 16);
            if (s % 5 == 2) v[s * d + c] = T(-0.3125f);
            if (s % 5 == 3) v[s * d + c] = subnormal<T>(c);
        }
    }
    for (long t = 0; t < m && d > 1; ++t) {
        if (t % 4 == 3) continue;
        v[moe_index[t * k] * d + t % d] = T(t % 2 ? NAN : -NAN);
        if (k > 1) v[moe_index[t * k + 1] * d + (t + 1) % d] = T(t % 3 ? INFINITY : -INFINITY);
    }
    return v;
}

// Every fourth token's first two choices nearly cancel: the second row is
// the first negated, its weight a hair larger. What is left is small beside
// the products, so it shows where they were rounded.
template <class T, class TS>
void cancel(std::vector<T>& x, std::vector<TS>& score, std::vector<float>& dequant, const std::vector<int>& moe_index,
            long m, long d, long k) {
    for (long t = 3; t < m && k > 1; t += 4) {
        const long a = moe_index[t * k], b = moe_index[t * k + 1];
        for (long c = 0; c < d; ++c) x[b * d + c] = T(-f32(x[a * d + c]));
        score[t * k + 1] = TS(f32(score[t * k]) * (1.0f + 0x1p-12f * static_cast<float>(t % 7)));
        dequant[b] = dequant[a];
    }
}

// A NaN whose payload a copy keeps and an arithmetic step does not.
template <class T>
T nan_with_payload() {
    if constexpr (std::is_same_v<T, float>) return std::bit_cast<float>(0x7f800123u);
    else return T::from_bits(0x7c05 | (std::is_same_v<T, bfloat16> ? 0x0380 : 0));
}

struct CombineShape {
    long m, d, k;
    bool dequant;
};

template <class P>
class MoePostFusion : public ::testing::Test {};
TYPED_TEST_SUITE(MoePostFusion, AllPairs, PairNames);

// k of 1, 2, 8 and past the gathers' 64; rows of one element, past a chunk,
// and cut into pieces across the cores for few tokens; with and without
// factors.
TYPED_TEST(MoePostFusion, DeviceAndHostFollowTheRoundingOfTheirTypes) {
    using T = typename TypeParam::X;
    using TS = typename TypeParam::W;
    const long piece = tsuops::kernels::moe::kMinRowPiece;
    const CombineShape shapes[] = {{1, 1, 1, false},      {3, 17, 2, true},        {1, 3 * piece + 5, 8, true},
                                   {2, 2 * piece, 4, false}, {37, 530, 8, true},    {300, 24, 2, false},
                                   {2, 40, 65, true},      {5, 64, 1, true}};
    auto host = reference_context();
    auto dev = emulated_device();
    std::uint64_t seed = 900;
    for (const CombineShape& sh : shapes) {
        SCOPED_TRACE("m " + std::to_string(sh.m) + " d " + std::to_string(sh.d) + " k " + std::to_string(sh.k) +
                     (sh.dequant ? " with factors" : ""));
        const long pairs = sh.m * sh.k;
        const auto moe_index = slots(pairs, ++seed);
        auto x = slot_rows<T>(moe_index, sh.m, sh.d, sh.k, seed);
        auto score = random_tensor<TS>(pairs, seed + 1, RandomSpec::range(0, 1));
        auto dequant = random_tensor<float>(pairs, seed + 2, RandomSpec::range(0.25, 4));
        cancel(x, score, dequant, moe_index, sh.m, sh.d, sh.k);
        const auto want = combined<T, TS>(x, moe_index, score, sh.dequant ? &dequant : nullptr, sh.m, sh.d, sh.k);
        for (const auto& ctx : {host.get(), dev.get()}) {
            GuardedBuffer<T> gx(ctx, x), gy(ctx, sh.m * sh.d);
            GuardedBuffer<int> gi(ctx, moe_index);
            GuardedBuffer<TS> gs(ctx, score);
            GuardedBuffer<float> gd(ctx, dequant);
            TSUOPS_RETURN_IF_SKIPPED();
            LaunchCapture launches;
            ASSERT_EQ((infer_ops::moe_ffn_post_fusion<T, int, float, TS>(ctx, gx.data(), gi.data(), gs.data(),
                                                                         sh.dequant ? gd.data() : nullptr, gy.data(),
                                                                         sh.m, sh.d, sh.k)),
                      0);
            EXPECT_TRUE(same_bits(GuardedBuffer<T>(ctx, want), gy)) << "device type " << ctx->dev_type;
            if (ctx->dev_type == 0) continue;
            ASSERT_EQ(launches.size(), 1u);
            const auto r = launches.records()[0];
            EXPECT_EQ(r.kernel.rfind("tsu3::infer_moe_ffn_post_fusion<" + spelled<T>() + ", int, float, " +
                                         spelled<TS>() + ">(",
                                     0),
                      0u)
                << r.kernel;
            EXPECT_TRUE(r.nclusters == kClusters && r.ncores == 64);
            EXPECT_EQ(LaunchCapture::arg<const float*>(r, 24), sh.dequant ? gd.data() : nullptr);
            EXPECT_EQ((std::vector<long>{LaunchCapture::arg<long>(r, 40), LaunchCapture::arg<long>(r, 48),
                                         LaunchCapture::arg<long>(r, 56)}),
                      (std::vector<long>{sh.m, sh.d, sh.k}));
        }
    }
}

template <class T>
class MoeSum : public ::testing::Test {};
TYPED_TEST_SUITE(MoeSum, HalfAndFloatTypes, ElementTypeNames);

// Rounded to T after every addition; k of 1 copies the bits, NaN payloads
// included.
TYPED_TEST(MoeSum, DeviceAndHostRoundAfterEveryAddition) {
    using T = TypeParam;
    const long piece = tsuops::kernels::moe::kMinRowPiece;
    const CombineShape shapes[] = {
        {1, 7, 1, false}, {4, 33, 1, false}, {3, 2 * piece, 8, false}, {50, 520, 3, false}, {2, 5, 70, false}};
    std::uint64_t seed = 70;
    for (const CombineShape& sh : shapes) {
        SCOPED_TRACE("m " + std::to_string(sh.m) + " d " + std::to_string(sh.d) + " k " + std::to_string(sh.k));
        std::vector<int> in_order(sh.m * sh.k);
        std::iota(in_order.begin(), in_order.end(), 0);
        auto x = slot_rows<T>(in_order, sh.m, sh.d, sh.k, ++seed);
        x[0] = nan_with_payload<T>();
        std::vector<T> want(sh.m * sh.d);
        for (long t = 0; t < sh.m; ++t) {
            for (long c = 0; c < sh.d; ++c) {
                T acc = x[t * sh.k * sh.d + c];
                for (long j = 1; j < sh.k; ++j) acc = T(f32(acc) + f32(x[(t * sh.k + j) * sh.d + c]));
                want[t * sh.d + c] = acc;
            }
        }
        for (const auto& ctx : {reference_context(), emulated_device()}) {
            GuardedBuffer<T> gx(ctx.get(), x), gy(ctx.get(), sh.m * sh.d);
            TSUOPS_RETURN_IF_SKIPPED();
            LaunchCapture launches;
            ASSERT_EQ(infer_ops::moe_sum<T>(ctx.get(), gx.data(), gy.data(), sh.m, sh.d, sh.k), 0);
            EXPECT_TRUE(same_bits(GuardedBuffer<T>(ctx.get(), want), gy)) << ctx->dev_type;
            EXPECT_EQ(launches.kernels(), ctx->dev_type == 0 ? std::vector<std::string>{}
                                                             : std::vector<std::string>{"tsu3::infer_moe_sum<" +
                                                                                        spelled<T>() +
                                                                                        ">(" + spelled<T>() +
                                                                                        " const*, " + spelled<T>() +
                                                                                        "*, long, long, long)"});
        }
    }
}

}  // namespace
