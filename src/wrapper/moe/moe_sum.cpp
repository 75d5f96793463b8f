#include <tsuops/basic.h>
#include <tsuops/cpu_ops.h>
#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/token_flow.h"
#include "wrapper/moe/moe_flow.h"

namespace infer_ops {

namespace {

// The first row copied, the others added one by one; cpu_ops::add rounds
// the sum to T after every addition.
template <typename T>
int cpu_wrapper(Context* ctx, const T* x, T* y, long m, long d, long k) {
    for (long t = 0; t < m; ++t) {
        T* out = y + t * d;
        if (int st = frame::check_nested(ctx, copy<T>(ctx, x + t * k * d, out, d))) return st;
        for (long j = 1; j < k; ++j) {
            if (int st = frame::check_nested(ctx, cpu_ops::add<T>(ctx, out, x + (t * k + j) * d, out, d))) return st;
        }
    }
    return SUCCESS;
}

// A failed launch is logged where it happens; the second generation has no
// kernel, which is told as a kernel failure.
template <typename T>
int tsu2or3_wrapper(Context* ctx, const T* x, T* y, long m, long d, long k) {
    if (ctx->dev_type == static_cast<std::uint32_t>(orvane::tsu::api::DeviceType::TSU2)) {
        return frame::kernel_fail(ctx, frame::unimplemented(ctx));
    }
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_moe_sum<T>, x, y, m, d, k);
}

}  // namespace

template <typename T>
int moe_sum(Context* ctx, const T* x, T* y, long m, long d, long k) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "moe_sum", x, y, m, d, k);
    if (int st = frame::input(guard, ctx, "x", x, d * m * k)) return st;
    if (int st = frame::output(guard, ctx, "y", y, d * m)) return st;
    return moe_flow::dispatch(
        ctx, [&] { return cpu_wrapper(ctx, x, y, m, d, k); }, [&] { return tsu2or3_wrapper(ctx, x, y, m, d, k); });
}

template int moe_sum<float>(Context*, const float*, float*, long, long, long);
template int moe_sum<float16>(Context*, const float16*, float16*, long, long, long);
template int moe_sum<bfloat16>(Context*, const bfloat16*, bfloat16*, long, long, long);

}  // namespace infer_ops
