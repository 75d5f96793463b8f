#include "kernels/rms_norm/rms_norm.h"

#include "kernels/grid.h"
#include "kernels/layer_norm/norm_rows.h"

namespace tsuops::kernels::norm {

// Every kernel of the family: the row-length instances differ only in what
// the device stages on chip, not in the arithmetic.
template <typename T, typename TW>
void rms_rows(float eps, long m, long n, const T* x, T* y, const TW* scale, const TW* bias, float* rms_out,
              bool is_rstd) {
    const auto group = [&](long i, long rows, row_weights<TW>& w, row_stats* st) {
        rms_group(x + i * n, y + i * n, rows, n, eps, w, st);
    };
    over_groups(m, n, scale, bias, false, group, [&](long i, const row_stats& st) {
        if (rms_out != nullptr) rms_out[i] = is_rstd ? st.rstd : st.var;
    });
}

}  // namespace tsuops::kernels::norm

namespace tsu3 {

namespace nk = tsuops::kernels::norm;

template <typename T, typename TW>
void infer_rms_layer_norm(float eps, long m, long n, const T* x, T* y, const TW* scale, const TW* bias,
                          float* rms_out, bool is_rstd) {
    nk::rms_rows(eps, m, n, x, y, scale, bias, rms_out, is_rstd);
}

template <typename T, typename TW, int K>
void infer_rms_layer_norm_ns(float eps, long m, long n, const T* x, T* y, const TW* scale, bool unused) {
    nk::rms_rows(eps, m, n, x, y, scale, static_cast<const TW*>(nullptr), nullptr, false);
}

template <typename T, typename TW>
void infer_rms_layer_norm_gmx(float eps, long m, long n, const T* x, T* y, const TW* scale, bool unused) {
    nk::rms_rows(eps, m, n, x, y, scale, static_cast<const TW*>(nullptr), nullptr, false);
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_rms_layer_norm)
TSU_KERNEL_INSTANCE(infer_rms_layer_norm, float16, float16)
TSU_KERNEL_INSTANCE(infer_rms_layer_norm, float16, float)
TSU_KERNEL_INSTANCE(infer_rms_layer_norm, bfloat16, bfloat16)
TSU_KERNEL_INSTANCE(infer_rms_layer_norm, bfloat16, float)
TSU_KERNEL_INSTANCE(infer_rms_layer_norm, float, float)

#define TSU_RMS_NS_INSTANCES(T, TW)                            \
    TSU_KERNEL_INSTANCE(infer_rms_layer_norm_ns, T, TW, 1)     \
    TSU_KERNEL_INSTANCE(infer_rms_layer_norm_ns, T, TW, 4)     \
    TSU_KERNEL_INSTANCE(infer_rms_layer_norm_ns, T, TW, 8)     \
    TSU_KERNEL_INSTANCE(infer_rms_layer_norm_ns, T, TW, 16)    \
    TSU_KERNEL_INSTANCE(infer_rms_layer_norm_ns, T, TW, 64)
TSU_KERNEL_DEFINE(infer_rms_layer_norm_ns)
TSU_RMS_NS_INSTANCES(float16, float16)
TSU_RMS_NS_INSTANCES(float16, float)
TSU_RMS_NS_INSTANCES(bfloat16, bfloat16)
TSU_RMS_NS_INSTANCES(bfloat16, float)
TSU_RMS_NS_INSTANCES(float, float)
#undef TSU_RMS_NS_INSTANCES

TSU_KERNEL_DEFINE(infer_rms_layer_norm_gmx)
TSU_KERNEL_INSTANCE(infer_rms_layer_norm_gmx, float16, float16)
TSU_KERNEL_INSTANCE(infer_rms_layer_norm_gmx, bfloat16, bfloat16)
