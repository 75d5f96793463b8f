#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/token_index.h"
#include "wrapper/moe/moe_select.h"

namespace infer_ops {

namespace {

template <typename T>
int cpu_wrapper(const T* moe_index, T* sorted_token_idx, long count) {
    for (long i = 0; i < count; ++i) {
        const T v = moe_index[i];
        if (v < 0 || v >= count) return STATUS_INVALID_ARGUMENT;
        sorted_token_idx[v] = static_cast<T>(i);
    }
    return SUCCESS;
}

// The debug check of the input, the kernel, the debug check of the output;
// every failure is told as a kernel failure.
template <typename T>
int tsu2or3_wrapper(Context* ctx, const T* moe_index, T* sorted_token_idx, long count) {
    if (int r = check_moe_index(ctx, moe_index, 1, count, "moe_resort_idx", "moe_index")) {
        return frame::kernel_fail(ctx, r);
    }
    if (ctx->dev_type == static_cast<std::uint32_t>(orvane::tsu::api::DeviceType::TSU2)) {
        return frame::kernel_fail(ctx, frame::unimplemented(ctx));
    }
    const auto launch = frame::cluster_launch(ctx);
    const int code = moe_select::resort_kernel(count) == moe_select::ResortKernel::int_count
                         ? launch.raw(&tsu3::__device_stub__moe_resort_idx<T, int>, moe_index, sorted_token_idx, count)
                         : launch.raw(&tsu3::__device_stub__moe_resort_idx<T, long>, moe_index, sorted_token_idx,
                                      count);
    if (code != 0) {
        frame::check(ctx, code, frame::Rel::EQ, 0);
        return frame::kernel_fail(ctx, code);
    }
    if (int r = check_moe_index(ctx, sorted_token_idx, 1, count, "moe_resort_idx", "sorted_token_idx")) {
        return frame::kernel_fail(ctx, r);
    }
    return SUCCESS;
}

}  // namespace

template <typename T>
int moe_resort_idx(Context* ctx, const T* moe_index, T* sorted_token_idx, long count, long count2) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "moe_resort_idx", moe_index, sorted_token_idx, count, count2);
    if (int st = frame::input(guard, ctx, "moe_index", moe_index, count)) return st;
    if (int st = frame::output(guard, ctx, "sorted_token_idx", sorted_token_idx, count)) return st;
    switch (static_cast<orvane::tsu::api::DeviceType>(ctx->dev_type)) {
    case orvane::tsu::api::DeviceType::CPU: return cpu_wrapper(moe_index, sorted_token_idx, count);
    case orvane::tsu::api::DeviceType::TSU2:
    case orvane::tsu::api::DeviceType::TSU3: return tsu2or3_wrapper(ctx, moe_index, sorted_token_idx, count);
    default: return SUCCESS;
    }
}

template int moe_resort_idx<int>(Context*, const int*, int*, long, long);

}  // namespace infer_ops
