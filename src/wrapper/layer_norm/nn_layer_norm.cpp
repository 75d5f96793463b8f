#include <tsuops/ctx_guard.h>
#include <tsuops/norm.h>

#include "frame/frame.h"
#include "kernels/layer_norm/layer_norm.h"
#include "wrapper/layer_norm/layer_norm_ref.h"

namespace infer_ops {

namespace {

// Rows in order on the calling thread, with the statistics of each row.
template <typename T, typename TW>
int cpu_wrapper(const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias, float* mean, float* var,
                bool is_rstd) {
    for (long i = 0; i < m; ++i) {
        const norm::row_stats st = norm::layer_norm_reference_row(x + i * n, y + i * n, n, eps, scale, bias, false);
        if (mean != nullptr) mean[i] = st.mean;
        if (var != nullptr) var[i] = is_rstd ? st.rstd : st.var;
    }
    return SUCCESS;
}

template <typename T, typename TW>
int tsu3_wrapper(Context* ctx, const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias,
                 float* mean, float* var, bool is_rstd) {
    orvane::tsu::api::ctx_guard scratch(ctx);
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_ops_layer_norm_infer<T, TW>, eps, m, n, x, y, scale,
                                      bias, mean, var, is_rstd);
}

}  // namespace

template <typename T, typename TW>
int nn_layer_norm(Context* ctx, const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias,
                  float* mean, float* var, bool is_rstd) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TW>(guard, ctx, "nn_layer_norm", x, y, m, n, eps, scale, bias, mean, var, is_rstd);
    long count = 0;
    if (int st = frame::check_shape(ctx, {m, n}, &count)) return st;
    if (int st = frame::input(guard, ctx, "x", x, count)) return st;
    if (int st = frame::output(guard, ctx, "y", y, count)) return st;
    if (int st = frame::check(ctx, eps, frame::Rel::GE, 0)) return st;
    // The statistics come as a pair or not at all.
    if ((mean == nullptr) != (var == nullptr)) return frame::check(ctx, 0, frame::Rel::EQ, 1);
    if (int st = frame::optional_input(guard, ctx, "scale", scale, n)) return st;
    if (int st = frame::optional_input(guard, ctx, "bias", bias, n)) return st;
    if (mean != nullptr) {
        if (int st = frame::output(guard, ctx, "mean", mean, m)) return st;
        if (int st = frame::output(guard, ctx, "var", var, m)) return st;
    }
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(x, y, m, n, eps, scale, bias, mean, var, is_rstd); },
        [&] { return tsu3_wrapper(ctx, x, y, m, n, eps, scale, bias, mean, var, is_rstd); });
}

#define TSUOPS_NN_LAYER_NORM(T, TW)                                                                               \
    template int nn_layer_norm<T, TW>(Context*, const T*, T*, long, long, float, const TW*, const TW*, float*, float*, \
                                      bool);
TSUOPS_NN_LAYER_NORM(float16, float16)
TSUOPS_NN_LAYER_NORM(float16, float)
TSUOPS_NN_LAYER_NORM(float, float)
#undef TSUOPS_NN_LAYER_NORM

}  // namespace infer_ops
