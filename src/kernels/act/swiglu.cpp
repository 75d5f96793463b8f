#include "kernels/act/swiglu.h"

#include <algorithm>
#include <type_traits>

#include <tsuops/float16.h>

#include "kernels/act/silu_math.h"
#include "kernels/grid.h"

namespace tsuops::kernels::act {

namespace {

// 16-bit operands are widened a chunk at a time into two float blocks on the
// core's stack (8 KiB), and the results narrowed back from the first.
constexpr long kChunk = 1024;

// The results of n consecutive positions of one row; float rows are read and
// written where they are.
template <typename T>
void products(const T* first, const T* second, T* out, long n, bool gate_first) {
    if constexpr (std::is_same_v<T, float>) {
        if (gate_first) {
            silu_products(first, second, out, n);
        } else {
            silu_products(second, first, out, n);
        }
    } else {
        float f[kChunk], s[kChunk];
        for (long k = 0; k < n; k += kChunk) {
            const long c = std::min(kChunk, n - k);
            infer_ops::widen(first + k, f, c);
            infer_ops::widen(second + k, s, c);
            if (gate_first) {
                silu_products(f, s, f, c);
            } else {
                silu_products(s, f, f, c);
            }
            infer_ops::narrow(f, out + k, c);
        }
    }
}

}  // namespace

}  // namespace tsuops::kernels::act

namespace tsu3 {

// Each core takes whole lines of the output, in runs that a row end cuts.
template <typename T>
void infer_swiglu(const T* x, const T* y, T* z, long in_row, long rows, long out_row, bool gate_first) {
    namespace tk = tsuops::kernels;
    const auto [b, e] = tk::core_share(rows * out_row, tk::line_elems<T>);
    for (long o = b; o < e;) {
        const long r = o / out_row, i = o % out_row;
        const long n = std::min(e - o, out_row - i);
        const T* first = x + r * in_row + i;
        const T* second = y != nullptr ? y + r * in_row + i : first + out_row;
        tk::act::products(first, second, z + o, n, gate_first);
        o += n;
    }
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_swiglu)
TSU_KERNEL_INSTANCE(infer_swiglu, float)
TSU_KERNEL_INSTANCE(infer_swiglu, float16)
TSU_KERNEL_INSTANCE(infer_swiglu, bfloat16)
