#include <tsuops/ctx_guard.h>
#include <tsuops/norm.h>

#include "frame/frame.h"
#include "kernels/layer_norm/layer_norm.h"
#include "wrapper/layer_norm/layer_norm_ref.h"

namespace infer_ops {

namespace {

// Rows in order on the calling thread. kernel_flag has no part in it.
template <typename T, typename TW>
int cpu_wrapper(const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias, bool scale_plus_one) {
    for (long i = 0; i < m; ++i) {
        norm::layer_norm_reference_row(x + i * n, y + i * n, n, eps, scale, bias, scale_plus_one);
    }
    return SUCCESS;
}

template <typename T, typename TW>
int tsu3_wrapper(Context* ctx, const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias,
                 bool kernel_flag, bool scale_plus_one) {
    orvane::tsu::api::ctx_guard scratch(ctx);
    if (scale_plus_one) {
        return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_layer_norm<T, TW, true>, eps, m, n, x, y, scale,
                                          bias, kernel_flag);
    }
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_layer_norm<T, TW, false>, eps, m, n, x, y, scale,
                                      bias, kernel_flag);
}

}  // namespace

template <typename T, typename TW>
int layer_norm(Context* ctx, const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias,
               bool kernel_flag, bool scale_plus_one) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TW>(guard, ctx, "layer_norm", x, y, m, n, eps, scale, bias, kernel_flag, scale_plus_one);
    long count = 0;
    if (int st = frame::check_shape(ctx, {m, n}, &count)) return st;
    if (int st = frame::input(guard, ctx, "x", x, count)) return st;
    if (int st = frame::output(guard, ctx, "y", y, count)) return st;
    if (int st = frame::check(ctx, eps, frame::Rel::GT, 0)) return st;
    if (int st = frame::optional_input(guard, ctx, "scale", scale, n)) return st;
    if (int st = frame::optional_input(guard, ctx, "bias", bias, n)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(x, y, m, n, eps, scale, bias, scale_plus_one); },
        [&] { return tsu3_wrapper(ctx, x, y, m, n, eps, scale, bias, kernel_flag, scale_plus_one); });
}

#define TSUOPS_LAYER_NORM(T, TW) \
    template int layer_norm<T, TW>(Context*, const T*, T*, long, long, float, const TW*, const TW*, bool, bool);
TSUOPS_LAYER_NORM(float16, float16)
TSUOPS_LAYER_NORM(float16, float)
TSUOPS_LAYER_NORM(bfloat16, bfloat16)
TSUOPS_LAYER_NORM(bfloat16, float)
TSUOPS_LAYER_NORM(float, float)
#undef TSUOPS_LAYER_NORM

}  // namespace infer_ops
