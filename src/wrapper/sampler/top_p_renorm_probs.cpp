#pragma GCC optimize("fp-contract=off")

#include <algorithm>

#include <tsuops/sampler.h>

#include "frame/frame.h"
#include "kernels/sampler/renorm_search.h"
#include "kernels/sampler/top_p_renorm_probs.h"

namespace infer_ops {

namespace {

using tsuops::kernels::sampler::kMaxSearchPasses;

// Per row: a ternary search between 0 and the row's maximum (from 0.0f)
// driven by the float sums above p0 and p1, until the interval (low, high]
// holds one distinct value; then every value above low times one over the
// sum kept with low, in float.
template <typename T>
int cpu_wrapper(const T* x, T* y, const float* top_p_arr, float top_p, long m, long n) {
    for (long i = 0; i < m; ++i) {
        const T* xr = x + i * n;
        T* yr = y + i * n;
        const float pp = top_p_arr != nullptr ? top_p_arr[i] : top_p;
        float mx = 0.0f;
        for (long j = 0; j < n; ++j) {
            const float v = static_cast<float>(xr[j]);
            mx = v > mx ? v : mx;
        }
        double high = mx, low = 0.0;
        float sum_low = 1.0f;
        for (int pass = 0; pass < kMaxSearchPasses; ++pass) {
            const double p0 = (low + low + high) / 3.0;
            const double p1 = (high + high + low) / 3.0;
            float min_gt_low = static_cast<float>(high), max_le_high = static_cast<float>(low);
            float sum0 = 0.0f, sum1 = 0.0f;
            for (long j = 0; j < n; ++j) {
                const float v = static_cast<float>(xr[j]);
                if (v > low) min_gt_low = v < min_gt_low ? v : min_gt_low;
                if (v <= high) max_le_high = v > max_le_high ? v : max_le_high;
                if (v > p0) sum0 += v;
                if (v > p1) sum1 += v;
            }
            if (sum1 >= pp) {
                low = p1;
                sum_low = sum1;
            } else if (sum0 >= pp) {
                high = std::min(static_cast<double>(max_le_high), p1);
                low = p0;
                sum_low = sum0;
            } else {
                high = std::min(static_cast<double>(max_le_high), p0);
            }
            if (min_gt_low == max_le_high) break;
        }
        const float norm = 1.0f / std::max(1e-8f, sum_low);
        for (long j = 0; j < n; ++j) {
            const float v = static_cast<float>(xr[j]);
            yr[j] = static_cast<double>(v) > low ? T(v * norm) : T(0.0f);
        }
    }
    return SUCCESS;
}

template <typename T>
int tsu3_wrapper(Context* ctx, const T* x, T* y, const float* top_p_arr, float top_p, long m, long n) {
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_top_p_renorm_probs<T>, x, y, top_p_arr, top_p, m,
                                      n);
}

}  // namespace

template <typename T>
int top_p_renorm_probs(Context* ctx, const T* x, T* y, const float* top_p_arr, float top_p, long m, long n) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "top_p_renorm_probs", x, y, top_p_arr, top_p, m, n);
    if (int st = frame::check_shape(ctx, {m, n})) return st;
    if (int st = frame::input(guard, ctx, "x", x, m * n)) return st;
    if (int st = frame::output(guard, ctx, "y", y, m * n)) return st;
    if (int st = frame::optional_input(guard, ctx, "top_p_arr", top_p_arr, m)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(x, y, top_p_arr, top_p, m, n); },
        [&] { return tsu3_wrapper(ctx, x, y, top_p_arr, top_p, m, n); });
}

template int top_p_renorm_probs<float>(Context*, const float*, float*, const float*, float, long, long);
template int top_p_renorm_probs<float16>(Context*, const float16*, float16*, const float*, float, long, long);
template int top_p_renorm_probs<bfloat16>(Context*, const bfloat16*, bfloat16*, const float*, float, long, long);

}  // namespace infer_ops
