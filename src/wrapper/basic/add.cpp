#include <tsuops/basic.h>

#include "frame/convert.h"
#include "frame/frame.h"
#include "kernels/basic/add.h"
#include "wrapper/basic/add_fold.h"

namespace infer_ops {

namespace {

template <typename T>
int cpu_wrapper(const T* x, const T* y, T* z, long len) {
    for (long i = 0; i < len; ++i) {
        const float sum = static_cast<float>(x[i]) + static_cast<float>(y[i]);
        if constexpr (std::is_same_v<T, bfloat16>) {
            z[i] = convert::bf16_inline(sum);
        } else {
            z[i] = sum;
        }
    }
    return SUCCESS;
}

template <typename T>
int tsu3_wrapper(Context* ctx, const T* x, const T* y, T* z, long m, long n) {
    const add_fold::Shape s = add_fold::kernel_shape(m, n);
    return frame::gmx_launch(ctx)(&tsu3::__device_stub__infer_add_gmx<T>, x, y, z, s.rows, s.cols);
}

}  // namespace

template <typename T>
int add(Context* ctx, const T* x, const T* y, T* z, long m, long n, bool) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "add", x, y, z, m, n);
    // A product past the range of long is no tensor; -1 fails the region step.
    long len = 0;
    if (__builtin_mul_overflow(m, n, &len)) len = -1;
    if (int st = frame::input(guard, ctx, "x", x, len)) return st;
    if (int st = frame::input(guard, ctx, "y", y, len)) return st;
    if (int st = frame::output(guard, ctx, "z", z, len)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(x, y, z, len); }, [&] { return tsu3_wrapper(ctx, x, y, z, m, n); });
}

#define TSUOPS_ADD(T) template int add<T>(Context*, const T*, const T*, T*, long, long, bool);
TSUOPS_ADD(float)
TSUOPS_ADD(bfloat16)
#undef TSUOPS_ADD

}  // namespace infer_ops
