#include <cstring>

#include <tsuops/basic.h>

#include "frame/frame.h"
#include "kernels/basic/memcpy.h"

namespace infer_ops {

namespace {

template <typename T>
int cpu_wrapper(const T* x, T* y, long len) {
    std::memcpy(static_cast<void*>(y), static_cast<const void*>(x), static_cast<std::size_t>(len) * sizeof(T));
    return SUCCESS;
}

template <typename T>
int tsu3_wrapper(Context* ctx, const T* x, T* y, long len) {
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_memcpy_1d, reinterpret_cast<const char*>(x),
                                      reinterpret_cast<char*>(y), len * static_cast<long>(sizeof(T)));
}

}  // namespace

template <typename T>
int copy(Context* ctx, const T* x, T* y, long len) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "copy", x, y, len);
    if (int st = frame::input(guard, ctx, "x", x, len)) return st;
    if (int st = frame::output(guard, ctx, "y", y, len)) return st;
    // An in-place copy is done before the device type is even looked at.
    if (static_cast<const void*>(x) == static_cast<const void*>(y)) return SUCCESS;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(x, y, len); }, [&] { return tsu3_wrapper(ctx, x, y, len); });
}

#define TSUOPS_COPY(T) template int copy<T>(Context*, const T*, T*, long);
TSUOPS_COPY(float)
TSUOPS_COPY(float16)
TSUOPS_COPY(bfloat16)
TSUOPS_COPY(double)
TSUOPS_COPY(long)
TSUOPS_COPY(int)
TSUOPS_COPY(short)
TSUOPS_COPY(signed char)
TSUOPS_COPY(unsigned char)
TSUOPS_COPY(bool)
#undef TSUOPS_COPY

}  // namespace infer_ops
