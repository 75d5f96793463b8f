// The reference path names every rounding step, and where the running sum
// is rounded differs by type; nothing may be contracted into a fused
// multiply-add, whatever the target.
#pragma GCC optimize("fp-contract=off")

#include <cstring>
#include <type_traits>
#include <vector>

#include <tsuops/basic.h>
#include <tsuops/cpu_ops.h>
#include <tsuops/moe.h>

#include "frame/convert.h"
#include "frame/frame.h"
#include "kernels/moe/token_flow.h"
#include "wrapper/moe/moe_flow.h"

namespace infer_ops {

namespace {

// The weight of one pair: the score widened, times the factor (1 without
// one), in float, stored as TW.
template <typename TS, typename TW>
int vec_mul(Context* ctx, const TS* score, const float* factor, TW* w) {
    float s = 0.0f, p = 0.0f;
    const float f = factor != nullptr ? *factor : 1.0f;
    if (int st = frame::check_nested(ctx, cast<TS, float>(ctx, score, &s, 1))) return st;
    if (int st = frame::check_nested(ctx, cpu_ops::mul<float>(ctx, &s, &f, &p, 1))) return st;
    return frame::check_nested(ctx, cast<float, TW>(ctx, &p, w, 1));
}

// The slot of pair p and the factor that follows it.
struct pair_of_token {
    long slot;
    const float* factor;
};

inline pair_of_token pair_at(const int* moe_index, const float* dequant_score, long p) {
    const long slot = moe_index[p];
    return {slot, dequant_score != nullptr ? dequant_score + slot : nullptr};
}

// float: each step a product and a sum in double, rounded to float.
template <typename TS>
int cpu_wrapper_float(Context* ctx, const float* x, const int* moe_index, const TS* normed_score,
                      const float* dequant_score, float* y, long m, long d, long k) {
    std::vector<float> acc(static_cast<std::size_t>(d));
    for (long t = 0; t < m; ++t) {
        std::fill(acc.begin(), acc.end(), 0.0f);
        for (long j = 0; j < k; ++j) {
            const pair_of_token pr = pair_at(moe_index, dequant_score, t * k + j);
            float w = 0.0f;
            if (int st = vec_mul(ctx, normed_score + t * k + j, pr.factor, &w)) return st;
            const float* row = x + pr.slot * d;
            for (long c = 0; c < d; ++c) {
                const double product = static_cast<double>(row[c]) * static_cast<double>(w);
                acc[c] = static_cast<float>(product + static_cast<double>(acc[c]));
            }
        }
        if (int st = frame::check_nested(ctx, cast<float, float>(ctx, acc.data(), y + t * d, d))) return st;
    }
    return SUCCESS;
}

// (float16, float): the running sum stays in float; each step widens the
// row, scales it and adds it, and the sum is narrowed into y.
int cpu_wrapper_half_float(Context* ctx, const float16* x, const int* moe_index, const float* normed_score,
                           const float* dequant_score, float16* y, long m, long d, long k) {
    std::vector<float> acc(static_cast<std::size_t>(d)), row(acc.size()), tmp(acc.size());
    for (long t = 0; t < m; ++t) {
        std::fill(acc.begin(), acc.end(), 0.0f);
        for (long j = 0; j < k; ++j) {
            const pair_of_token pr = pair_at(moe_index, dequant_score, t * k + j);
            float w = 0.0f;
            if (int st = vec_mul(ctx, normed_score + t * k + j, pr.factor, &w)) return st;
            if (int st = frame::check_nested(ctx, cast<float16, float>(ctx, x + pr.slot * d, row.data(), d))) return st;
            if (int st = frame::check_nested(
                    ctx, cpu_ops::broadcast_mul<float>(ctx, row.data(), &w, tmp.data(), {1, d}, {1}))) {
                return st;
            }
            if (int st = frame::check_nested(ctx, cpu_ops::add<float>(ctx, acc.data(), tmp.data(), acc.data(), d))) {
                return st;
            }
            if (int st = frame::check_nested(ctx, cast<float, float16>(ctx, acc.data(), y + t * d, d))) return st;
        }
    }
    return SUCCESS;
}

// (float16, float16): the weight, each product and each partial sum are
// float16 values.
int cpu_wrapper_half_half(Context* ctx, const float16* x, const int* moe_index, const float16* normed_score,
                          const float* dequant_score, float16* y, long m, long d, long k) {
    std::vector<float16> acc(static_cast<std::size_t>(d)), row(acc.size()), tmp(acc.size());
    for (long t = 0; t < m; ++t) {
        std::fill(acc.begin(), acc.end(), float16::from_bits(0));
        for (long j = 0; j < k; ++j) {
            const pair_of_token pr = pair_at(moe_index, dequant_score, t * k + j);
            float16 w = float16::from_bits(0);
            if (int st = vec_mul(ctx, normed_score + t * k + j, pr.factor, &w)) return st;
            if (int st = frame::check_nested(ctx, cast<float16, float16>(ctx, x + pr.slot * d, row.data(), d))) {
                return st;
            }
            if (int st = frame::check_nested(
                    ctx, cpu_ops::broadcast_mul<float16>(ctx, row.data(), &w, tmp.data(), {1, d}, {1}))) {
                return st;
            }
            if (int st = frame::check_nested(ctx, cpu_ops::add<float16>(ctx, acc.data(), tmp.data(), acc.data(), d))) {
                return st;
            }
            if (int st = frame::check_nested(ctx, cast<float16, float16>(ctx, acc.data(), y + t * d, d))) return st;
        }
    }
    return SUCCESS;
}

// bfloat16: the running sum is rounded to bfloat16 after every expert, by
// (bits + 0x8000) >> 16 whatever the mode; the first expert is a plain
// product, the others a product and a sum in double.
template <typename TS>
int cpu_wrapper_bf16(Context* ctx, const bfloat16* x, const int* moe_index, const TS* normed_score,
                     const float* dequant_score, bfloat16* y, long m, long d, long k) {
    std::vector<bfloat16> acc_b(static_cast<std::size_t>(d));
    std::vector<float> acc(acc_b.size()), row(acc_b.size());
    for (long t = 0; t < m; ++t) {
        std::fill(acc_b.begin(), acc_b.end(), bfloat16::from_bits(0));
        for (long j = 0; j < k; ++j) {
            const pair_of_token pr = pair_at(moe_index, dequant_score, t * k + j);
            if (j > 0) {
                if (int st = frame::check_nested(ctx, cast<bfloat16, float>(ctx, acc_b.data(), acc.data(), d))) {
                    return st;
                }
            }
            float w = 0.0f;
            if (int st = vec_mul(ctx, normed_score + t * k + j, pr.factor, &w)) return st;
            if (int st = frame::check_nested(ctx, cast<bfloat16, float>(ctx, x + pr.slot * d, row.data(), d))) {
                return st;
            }
            if (j == 0) {
                if (int st = frame::check_nested(
                        ctx, cpu_ops::broadcast_mul<float>(ctx, row.data(), &w, acc.data(), {1, d}, {1}))) {
                    return st;
                }
            } else {
                for (long c = 0; c < d; ++c) {
                    const double product = static_cast<double>(row[c]) * static_cast<double>(w);
                    acc[c] = static_cast<float>(product + static_cast<double>(acc[c]));
                }
            }
            for (long c = 0; c < d; ++c) acc_b[c] = convert::bf16_inline(acc[c]);
        }
        if (int st = frame::check_nested(ctx, copy<bfloat16>(ctx, acc_b.data(), y + t * d, d))) return st;
    }
    return SUCCESS;
}

template <typename T, typename TS>
int cpu_wrapper(Context* ctx, const T* x, const int* moe_index, const TS* normed_score, const float* dequant_score,
                T* y, long m, long d, long k) {
    if constexpr (std::is_same_v<T, float>) {
        return cpu_wrapper_float(ctx, x, moe_index, normed_score, dequant_score, y, m, d, k);
    } else if constexpr (std::is_same_v<T, bfloat16>) {
        return cpu_wrapper_bf16(ctx, x, moe_index, normed_score, dequant_score, y, m, d, k);
    } else if constexpr (std::is_same_v<TS, float>) {
        return cpu_wrapper_half_float(ctx, x, moe_index, normed_score, dequant_score, y, m, d, k);
    } else {
        return cpu_wrapper_half_half(ctx, x, moe_index, normed_score, dequant_score, y, m, d, k);
    }
}

template <typename T, typename TS>
int tsu2or3_wrapper(Context* ctx, const T* x, const int* moe_index, const TS* normed_score,
                    const float* dequant_score, T* y, long m, long d, long k) {
    if (ctx->dev_type == static_cast<std::uint32_t>(orvane::tsu::api::DeviceType::TSU2)) {
        return frame::unimplemented(ctx);
    }
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_moe_ffn_post_fusion<T, int, float, TS>, x,
                                      moe_index, normed_score, dequant_score, y, m, d, k);
}

}  // namespace

template <typename T, typename TI, typename TF, typename TS>
int moe_ffn_post_fusion(Context* ctx, const T* x, const TI* moe_index, const TS* normed_score,
                        const TF* dequant_score, T* y, long m, long d, long k) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TI, TF, TS>(guard, ctx, "moe_ffn_post_fusion", x, moe_index, normed_score, dequant_score, y, m,
                               d, k);
    if (int st = frame::input(guard, ctx, "x", x, d * m * k)) return st;
    if (int st = frame::input(guard, ctx, "moe_index", moe_index, m * k)) return st;
    if (int st = frame::input(guard, ctx, "normed_score", normed_score, m * k)) return st;
    if (int st = frame::optional_input(guard, ctx, "dequant_score", dequant_score, m * k)) return st;
    if (int st = frame::output(guard, ctx, "y", y, m * d)) return st;
    return moe_flow::dispatch(
        ctx, [&] { return cpu_wrapper(ctx, x, moe_index, normed_score, dequant_score, y, m, d, k); },
        [&] {
            int st = check_moe_index(ctx, moe_index, m, k, "moe_ffn_post_fusion", "moe_index");
            if (st == SUCCESS) st = tsu2or3_wrapper(ctx, x, moe_index, normed_score, dequant_score, y, m, d, k);
            return st == SUCCESS ? SUCCESS : frame::kernel_fail(ctx, st);
        });
}

#define TSUOPS_MOE_FFN_POST_FUSION(T, TS)                                                                          \
    template int moe_ffn_post_fusion<T, int, float, TS>(Context*, const T*, const int*, const TS*, const float*, T*, \
                                                        long, long, long);
TSUOPS_MOE_FFN_POST_FUSION(float16, float16)
TSUOPS_MOE_FFN_POST_FUSION(float16, float)
TSUOPS_MOE_FFN_POST_FUSION(bfloat16, bfloat16)
TSUOPS_MOE_FFN_POST_FUSION(bfloat16, float)
TSUOPS_MOE_FFN_POST_FUSION(float, float)
#undef TSUOPS_MOE_FFN_POST_FUSION

}  // namespace infer_ops
