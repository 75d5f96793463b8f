#include "kernels/basic/add.h"

#include <algorithm>

#include "frame/convert.h"
#include "kernels/grid.h"

namespace tsu3 {

namespace {

// Sums of one run of elements; float16 narrows a block at a time through the
// array form of the narrowing, which tests the mode once per block.
template <typename T>
void add_run(const T* __restrict x, const T* __restrict y, T* __restrict z, long n) {
    using infer_ops::convert::widen;
    using tsuops::kernels::map2;
    if constexpr (std::is_same_v<T, float>) {
        map2(x, y, z, n, [](float a, float b) { return a + b; });
    } else if constexpr (std::is_same_v<T, bfloat16>) {
        map2(x, y, z, n, [](T a, T b) { return infer_ops::convert::bf16_inline(widen(a) + widen(b)); });
    } else {
        constexpr long kBlock = 1024;
        float sum[kBlock];
        for (long b = 0; b < n; b += kBlock) {
            const long c = std::min(kBlock, n - b);
            map2(x + b, y + b, sum, c, [](T u, T v) { return widen(u) + widen(v); });
            infer_ops::narrow(sum, z + b, c);
        }
    }
}

}  // namespace

// Whole rows per core, as the engine tiles them: folding a single long row
// into several is what lets more than one core take part.
template <typename T>
void infer_add_gmx(const T* x, const T* y, T* z, long rows, long cols) {
    const auto [rb, re] = tsuops::kernels::core_share(rows);
    if (re > rb) add_run(x + rb * cols, y + rb * cols, z + rb * cols, (re - rb) * cols);
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_add_gmx)
TSU_KERNEL_INSTANCE(infer_add_gmx, float)
TSU_KERNEL_INSTANCE(infer_add_gmx, float16)
TSU_KERNEL_INSTANCE(infer_add_gmx, bfloat16)
