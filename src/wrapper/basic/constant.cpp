#include <tsuops/basic.h>

#include "frame/frame.h"
#include "kernels/basic/constant.h"

namespace infer_ops {

namespace {

template <typename T>
int cpu_wrapper(T* x, long len, T value) {
    for (long i = 0; i < len; ++i) x[i] = value;
    return SUCCESS;
}

template <typename T>
int tsu3_wrapper(Context* ctx, T* x, long len, T value) {
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_constant<T>, reinterpret_cast<char*>(x), len, value);
}

}  // namespace

template <typename T>
int constant(Context* ctx, T* x, long len, T value) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "constant", x, len, value);
    if (int st = frame::output(guard, ctx, "x", x, len)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(x, len, value); }, [&] { return tsu3_wrapper(ctx, x, len, value); });
}

#define TSUOPS_CONSTANT(T) template int constant<T>(Context*, T*, long, T);
TSUOPS_CONSTANT(float)
TSUOPS_CONSTANT(float16)
TSUOPS_CONSTANT(bfloat16)
TSUOPS_CONSTANT(double)
TSUOPS_CONSTANT(long)
TSUOPS_CONSTANT(int)
TSUOPS_CONSTANT(short)
TSUOPS_CONSTANT(signed char)
TSUOPS_CONSTANT(unsigned char)
TSUOPS_CONSTANT(bool)
#undef TSUOPS_CONSTANT

}  // namespace infer_ops
