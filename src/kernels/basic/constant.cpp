#include "kernels/basic/constant.h"

#include "kernels/grid.h"

namespace tsu3 {

template <typename T>
void infer_constant(char* x, long len, T value) {
    const auto [b, e] = tsuops::kernels::core_share(len, tsuops::kernels::line_elems<T>);
    T* __restrict p = reinterpret_cast<T*>(x);
    for (long i = b; i < e; ++i) p[i] = value;
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_constant)
TSU_KERNEL_INSTANCE(infer_constant, float)
TSU_KERNEL_INSTANCE(infer_constant, float16)
TSU_KERNEL_INSTANCE(infer_constant, bfloat16)
TSU_KERNEL_INSTANCE(infer_constant, double)
TSU_KERNEL_INSTANCE(infer_constant, long)
TSU_KERNEL_INSTANCE(infer_constant, int)
TSU_KERNEL_INSTANCE(infer_constant, short)
TSU_KERNEL_INSTANCE(infer_constant, signed char)
TSU_KERNEL_INSTANCE(infer_constant, unsigned char)
TSU_KERNEL_INSTANCE(infer_constant, bool)
