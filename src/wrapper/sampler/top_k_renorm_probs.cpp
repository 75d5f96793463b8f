#pragma GCC optimize("fp-contract=off")

#include <algorithm>
#include <cmath>

#include <tsuops/sampler.h>

#include "frame/frame.h"
#include "kernels/sampler/renorm_search.h"
#include "kernels/sampler/top_k_renorm_probs.h"

namespace infer_ops {

namespace {

using frame::Rel;
using tsuops::kernels::sampler::kMaxSearchPasses;

// Per row: with kk below n, a ternary search between 0 and the row's
// maximum driven by the counts above p0 and p1, until the interval
// (low, high] holds one distinct value; then every value above low, scaled
// in double by one over the sum kept with low. Bounds and comparisons are
// double, values and sums float.
template <typename T, typename TK>
int cpu_wrapper(const T* probs, T* renormed_probs, long m, long n, long k, const TK* top_k_arr) {
    for (long i = 0; i < m; ++i) {
        const T* x = probs + i * n;
        T* y = renormed_probs + i * n;
        const long kk = top_k_arr != nullptr ? static_cast<long>(top_k_arr[i]) : k;
        double pivot = -10000.0, norm = 1.0;
        if (kk < n) {
            float mx = -INFINITY;
            for (long j = 0; j < n; ++j) {
                const float v = static_cast<float>(x[j]);
                mx = v > mx ? v : mx;
            }
            double high = mx, low = 0.0;
            float sum_low = 1.0f;
            for (int pass = 0; pass < kMaxSearchPasses; ++pass) {
                const double p0 = (low + low + high) / 3.0;
                const double p1 = (high + high + low) / 3.0;
                float min_gt_low = static_cast<float>(high), max_le_high = static_cast<float>(low);
                float sum0 = 0.0f, sum1 = 0.0f;
                long c0 = 0, c1 = 0;
                for (long j = 0; j < n; ++j) {
                    const float v = static_cast<float>(x[j]);
                    if (v > low) min_gt_low = v < min_gt_low ? v : min_gt_low;
                    if (v <= high) max_le_high = v > max_le_high ? v : max_le_high;
                    if (v > p0) {
                        sum0 += v;
                        c0 += 1;
                    }
                    if (v > p1) {
                        sum1 += v;
                        c1 += 1;
                    }
                }
                if (kk <= c1) {
                    low = p1;
                    sum_low = sum1;
                } else if (kk <= c0) {
                    high = std::min(static_cast<double>(max_le_high), p1);
                    low = p0;
                    sum_low = sum0;
                } else {
                    high = std::min(static_cast<double>(max_le_high), p0);
                }
                if (min_gt_low == max_le_high) break;
            }
            pivot = low;
            norm = 1.0 / std::max(static_cast<double>(sum_low), 1e-8);
        }
        for (long j = 0; j < n; ++j) {
            const double v = static_cast<float>(x[j]);
            y[j] = v > pivot ? T(static_cast<float>(v * norm)) : T(0.0f);
        }
    }
    return SUCCESS;
}

template <typename T, typename TK>
int tsu3_wrapper(Context* ctx, const T* probs, T* renormed_probs, long m, long n, long k, const TK* top_k_arr) {
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_top_k_renorm_probs<T, TK>, probs, renormed_probs, m,
                                      n, k, top_k_arr);
}

}  // namespace

template <typename T, typename TK>
int top_k_renorm_probs(Context* ctx, const T* probs, T* renormed_probs, long m, long n, long k,
                       const TK* top_k_arr) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TK>(guard, ctx, "top_k_renorm_probs", probs, renormed_probs, m, n, k, top_k_arr);
    if (int st = frame::check(ctx, m, Rel::GT, 0)) return st;
    if (int st = frame::check(ctx, n, Rel::GT, 0)) return st;
    if (int st = frame::check(ctx, k, Rel::GT, 0)) return st;
    if (int st = frame::input(guard, ctx, "probs", probs, m * n)) return st;
    if (int st = frame::output(guard, ctx, "renormed_probs", renormed_probs, m * n)) return st;
    if (int st = frame::optional_input(guard, ctx, "top_k_arr", top_k_arr, m)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(probs, renormed_probs, m, n, k, top_k_arr); },
        [&] { return tsu3_wrapper(ctx, probs, renormed_probs, m, n, k, top_k_arr); });
}

template int top_k_renorm_probs<float, int>(Context*, const float*, float*, long, long, long, const int*);
template int top_k_renorm_probs<float16, int>(Context*, const float16*, float16*, long, long, long, const int*);
template int top_k_renorm_probs<bfloat16, int>(Context*, const bfloat16*, bfloat16*, long, long, long, const int*);

}  // namespace infer_ops
