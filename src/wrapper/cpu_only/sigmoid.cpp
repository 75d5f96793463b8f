#include <cmath>
#include <source_location>
#include <vector>

#include <tsuops/basic.h>
#include <tsuops/cpu_ops.h>

#include "frame/frame.h"

namespace infer_ops::cpu_ops {

namespace {

// A failed inner cast is a failure of this routine's own computation, not a
// bad argument of its caller: logged as a kernel failure, status 2.
int cast_failed(Context* ctx, int code, std::source_location at = std::source_location::current()) {
    orvane::tsu::api::_log_kernel_fail(ctx, at.file_name(), static_cast<int>(at.line()), code);
    return STATUS_KERNEL_FAILED;
}

}  // namespace

template <typename T>
int sigmoid(Context* ctx, const T* x, T* y, long len) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    if (ctx->dev_type != 0) return frame::unimplemented(ctx);
    std::vector<float> v(len > 0 ? static_cast<std::size_t>(len) : 0);
    if (int st = cast<T, float>(ctx, x, v.data(), len)) return cast_failed(ctx, st);
    for (float& e : v) e = static_cast<float>(1.0 / (std::exp(-static_cast<double>(e)) + 1.0));
    if (int st = cast<float, T>(ctx, v.data(), y, len)) return cast_failed(ctx, st);
    return SUCCESS;
}

template int sigmoid<float>(Context*, const float*, float*, long);
template int sigmoid<float16>(Context*, const float16*, float16*, long);
template int sigmoid<bfloat16>(Context*, const bfloat16*, bfloat16*, long);
template int sigmoid<signed char>(Context*, const signed char*, signed char*, long);

}  // namespace infer_ops::cpu_ops
