#include <cmath>
#include <vector>

#include <tsuops/cpu_ops.h>

#include "frame/frame.h"

namespace infer_ops::cpu_ops {

template <typename T>
int softmax2d(Context* ctx, const T* x, T* y, long m, long n) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    if (ctx->dev_type != 0) return frame::unimplemented(ctx);
    if (m < 1 || n < 1) return SUCCESS;
    std::vector<float> e(static_cast<std::size_t>(n));
    for (long r = 0; r < m; ++r) {
        const T* xr = x + r * n;
        T* yr = y + r * n;
        // The maximum starts at -10000 rather than at the first element: a
        // row entirely below it keeps -10000. Only a larger maximum holds its
        // place, so a NaN element takes the maximum over and gives it up to
        // the next element.
        float mx = -10000.0f;
        for (long i = 0; i < n; ++i) {
            const float v = static_cast<float>(xr[i]);
            mx = mx > v ? mx : v;
        }
        float sum = 0.0f;
        for (long i = 0; i < n; ++i) {
            const float d = static_cast<float>(xr[i]) - mx;
            e[i] = static_cast<float>(std::exp(static_cast<double>(d)));
            sum += e[i];
        }
        for (long i = 0; i < n; ++i) yr[i] = T(e[i] / sum);
    }
    return SUCCESS;
}

template int softmax2d<float>(Context*, const float*, float*, long, long);
template int softmax2d<float16>(Context*, const float16*, float16*, long, long);
template int softmax2d<bfloat16>(Context*, const bfloat16*, bfloat16*, long, long);

}  // namespace infer_ops::cpu_ops
