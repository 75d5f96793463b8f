// The reference path spells out every rounding step: each intermediate is a
// float of its own and nothing may be contracted into a fused multiply-add,
// whatever the target, because the reference defines the result bit for bit.
#pragma GCC optimize("fp-contract=off")

#include <tsuops/norm.h>

#include "frame/env_switch.h"
#include "frame/frame.h"
#include "kernels/layer_norm/norm_numerics.h"
#include "kernels/rms_norm/rms_norm.h"
#include "wrapper/rms_norm/rms_norm_select.h"

namespace infer_ops {

namespace {

namespace cpu = orvane::tsu::api::cpu;

// One row: the mean square summed in element order, the reciprocal root
// mean square through double, then (x * r) * w + b narrowed once.
template <typename T, typename TW>
void reference_row(const T* x, T* y, long n, float eps, const TW* scale, const TW* bias, float* rms_out,
                   bool is_rstd) {
    float q = 0.0f;
    for (long j = 0; j < n; ++j) {
        const float v = static_cast<float>(x[j]);
        const float sq = v * v;
        q = q + sq;
    }
    const norm::row_stats st = norm::rms_stats(q, n, eps);
    for (long j = 0; j < n; ++j) {
        const float w = scale != nullptr ? static_cast<float>(scale[j]) : 1.0f;
        const float b = bias != nullptr ? static_cast<float>(bias[j]) : 0.0f;
        const float xr = static_cast<float>(x[j]) * st.rstd;
        const float xw = xr * w;
        const float out = xw + b;
        y[j] = T(out);
    }
    if (rms_out != nullptr) *rms_out = is_rstd ? st.rstd : st.var;
}

// Rows go to the platform's thread pool unless there is one row, one thread,
// or the caller already runs inside the pool.
template <typename T, typename TW>
int cpu_wrapper(const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias, float* rms_out,
                bool is_rstd) {
    const auto rows = [&](long begin, long end) {
        for (long i = begin; i < end; ++i) {
            reference_row(x + i * n, y + i * n, n, eps, scale, bias, rms_out != nullptr ? rms_out + i : nullptr,
                          is_rstd);
        }
    };
    if (m > 1 && !cpu::in_parallel_region() && cpu::get_num_threads() > 1) {
        cpu::internal::invoke_parallel(0, m, 0, rows);
        return SUCCESS;
    }
    struct restore_thread_num {
        int saved;
        ~restore_thread_num() { cpu::internal::set_thread_num(saved); }
    } restore{cpu::get_thread_num()};
    cpu::internal::set_thread_num(0);
    rows(0, m);
    return SUCCESS;
}

constinit const frame::env_switch gmx_switch{"TSUOPS_RMSNORM_GMX", frame::env_switch::rule::exactly_one};

bool gmx_switch_on() { return gmx_switch.on(); }

template <typename T, typename TW>
using short_row_stub = int (*)(float, long, long, const T*, T*, const TW*, bool);

template <typename T, typename TW>
short_row_stub<T, TW> ns_stub(rms_norm::Kernel k) {
    switch (rms_norm::ns_capacity(k)) {
    case 1: return &tsu3::__device_stub__infer_rms_layer_norm_ns<T, TW, 1>;
    case 4: return &tsu3::__device_stub__infer_rms_layer_norm_ns<T, TW, 4>;
    case 8: return &tsu3::__device_stub__infer_rms_layer_norm_ns<T, TW, 8>;
    case 16: return &tsu3::__device_stub__infer_rms_layer_norm_ns<T, TW, 16>;
    default: return &tsu3::__device_stub__infer_rms_layer_norm_ns<T, TW, 64>;
    }
}

template <typename T, typename TW>
int tsu3_wrapper(Context* ctx, const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias,
                 float* rms_out, bool is_rstd) {
    using namespace rms_norm;
    const Query query{n, bias != nullptr, rms_out != nullptr, float_pair<T, TW>, has_gmx_kernel<T, TW>,
                      &gmx_switch_on};
    const Kernel k = select(query);
    if (k == Kernel::general) {
        return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_rms_layer_norm<T, TW>, eps, m, n, x, y, scale,
                                          bias, rms_out, is_rstd);
    }
    if constexpr (has_gmx_kernel<T, TW>) {
        if (k == Kernel::gmx) {
            return frame::gmx_launch(ctx)(&tsu3::__device_stub__infer_rms_layer_norm_gmx<T, TW>, eps, m, n, x, y,
                                          scale, false);
        }
    }
    return frame::cluster_launch(ctx)(ns_stub<T, TW>(k), eps, m, n, x, y, scale, false);
}

}  // namespace

template <typename T, typename TW>
int rms_layer_norm(Context* ctx, const T* x, T* y, long m, long n, float eps, const TW* scale, const TW* bias,
                   float* rms_out, bool is_rstd) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TW>(guard, ctx, "rms_layer_norm", x, y, m, n, eps, scale, bias, rms_out, is_rstd);
    long count = 0;
    if (int st = frame::check_shape(ctx, {m, n}, &count)) return st;
    if (int st = frame::input(guard, ctx, "x", x, count)) return st;
    if (int st = frame::output(guard, ctx, "y", y, count)) return st;
    if (int st = frame::check(ctx, eps, frame::Rel::GT, 0)) return st;
    if (int st = frame::optional_input(guard, ctx, "scale", scale, n)) return st;
    if (int st = frame::optional_input(guard, ctx, "bias", bias, n)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(x, y, m, n, eps, scale, bias, rms_out, is_rstd); },
        [&] { return tsu3_wrapper(ctx, x, y, m, n, eps, scale, bias, rms_out, is_rstd); });
}

#define TSUOPS_RMS_LAYER_NORM(T, TW) \
    template int rms_layer_norm<T, TW>(Context*, const T*, T*, long, long, float, const TW*, const TW*, float*, bool);
TSUOPS_RMS_LAYER_NORM(float16, float16)
TSUOPS_RMS_LAYER_NORM(float16, float)
TSUOPS_RMS_LAYER_NORM(bfloat16, bfloat16)
TSUOPS_RMS_LAYER_NORM(bfloat16, float)
TSUOPS_RMS_LAYER_NORM(float, float)
#undef TSUOPS_RMS_LAYER_NORM

}  // namespace infer_ops
