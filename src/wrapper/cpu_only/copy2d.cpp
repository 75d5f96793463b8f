#include <cstring>

#include <tsuops/cpu_ops.h>

#include "frame/frame.h"

namespace infer_ops::cpu_ops {

template <typename T>
int copy2d(Context* ctx, const T* x, T* y, long rows, long x_stride, long y_stride, long cols) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    if (ctx->dev_type != 0) return frame::unimplemented(ctx);
    if (cols < 1) return SUCCESS;
    // memmove: callers copy a row onto itself or between overlapping views.
    for (long r = 0; r < rows; ++r) std::memmove(y + r * y_stride, x + r * x_stride, sizeof(T) * cols);
    return SUCCESS;
}

#define TSUOPS_CPU_COPY2D(T) template int copy2d<T>(Context*, const T*, T*, long, long, long, long);
TSUOPS_CPU_COPY2D(float)
TSUOPS_CPU_COPY2D(float16)
TSUOPS_CPU_COPY2D(bfloat16)
TSUOPS_CPU_COPY2D(double)
TSUOPS_CPU_COPY2D(long)
TSUOPS_CPU_COPY2D(int)
TSUOPS_CPU_COPY2D(short)
TSUOPS_CPU_COPY2D(signed char)
TSUOPS_CPU_COPY2D(unsigned char)
TSUOPS_CPU_COPY2D(bool)
#undef TSUOPS_CPU_COPY2D

}  // namespace infer_ops::cpu_ops
