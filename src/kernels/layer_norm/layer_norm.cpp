#include "kernels/layer_norm/layer_norm.h"

#include "kernels/grid.h"
#include "kernels/layer_norm/norm_rows.h"

namespace tsu3 {

namespace nk = tsuops::kernels::norm;

template <typename T, typename TW, bool P>
void infer_layer_norm(float eps, long m, long n, const T* x, T* y, const TW* scale, const TW* bias,
                      bool kernel_flag) {
    const auto group = [&](long i, long rows, nk::row_weights<TW>& w, nk::row_stats* st) {
        nk::layer_group(x + i * n, y + i * n, rows, n, eps, w, st);
    };
    nk::over_groups(m, n, scale, bias, P, group, [](long, const nk::row_stats&) {});
}

template <typename T, typename TW>
void infer_ops_layer_norm_infer(float eps, long m, long n, const T* x, T* y, const TW* scale, const TW* bias,
                                float* mean, float* var, bool is_rstd) {
    const auto group = [&](long i, long rows, nk::row_weights<TW>& w, nk::row_stats* st) {
        nk::layer_group(x + i * n, y + i * n, rows, n, eps, w, st);
    };
    nk::over_groups(m, n, scale, bias, false, group, [&](long i, const nk::row_stats& st) {
        if (mean != nullptr) mean[i] = st.mean;
        if (var != nullptr) var[i] = is_rstd ? st.rstd : st.var;
    });
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_layer_norm)
TSU_KERNEL_INSTANCE(infer_layer_norm, float16, float16, false)
TSU_KERNEL_INSTANCE(infer_layer_norm, float16, float16, true)
TSU_KERNEL_INSTANCE(infer_layer_norm, float16, float, false)
TSU_KERNEL_INSTANCE(infer_layer_norm, float16, float, true)
TSU_KERNEL_INSTANCE(infer_layer_norm, bfloat16, bfloat16, false)
TSU_KERNEL_INSTANCE(infer_layer_norm, bfloat16, bfloat16, true)
TSU_KERNEL_INSTANCE(infer_layer_norm, bfloat16, float, false)
TSU_KERNEL_INSTANCE(infer_layer_norm, bfloat16, float, true)
TSU_KERNEL_INSTANCE(infer_layer_norm, float, float, false)
TSU_KERNEL_INSTANCE(infer_layer_norm, float, float, true)

TSU_KERNEL_DEFINE(infer_ops_layer_norm_infer)
TSU_KERNEL_INSTANCE(infer_ops_layer_norm_infer, float16, float16)
TSU_KERNEL_INSTANCE(infer_ops_layer_norm_infer, float16, float)
TSU_KERNEL_INSTANCE(infer_ops_layer_norm_infer, float, float)
