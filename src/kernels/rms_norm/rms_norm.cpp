#include "kernels/rms_norm/rms_norm.h"

#include <algorithm>

#include "kernels/grid.h"
#include "kernels/layer_norm/norm_rows.h"

namespace tsuops::kernels::norm {

template <typename T, typename TW, long C>
void rms_rows(float eps, long m, long n, const T* x, T* y, const TW* scale, const TW* bias, float* rms_out,
              bool is_rstd) {
    const auto [b, e] = core_share(m);
    if (b == e) return;
    row_weights<TW, C> weights(scale, bias, n);
    for (long i = b; i < e; ++i) {
        const row_stats st = rms_row(x + i * n, y + i * n, n, eps, weights);
        if (rms_out != nullptr) rms_out[i] = is_rstd ? st.rstd : st.var;
    }
}

}  // namespace tsuops::kernels::norm

namespace tsu3 {

namespace nk = tsuops::kernels::norm;

template <typename T, typename TW>
void infer_rms_layer_norm(float eps, long m, long n, const T* x, T* y, const TW* scale, const TW* bias,
                          float* rms_out, bool is_rstd) {
    nk::rms_rows<T, TW, nk::kRowChunk>(eps, m, n, x, y, scale, bias, rms_out, is_rstd);
}

template <typename T, typename TW, int K>
void infer_rms_layer_norm_ns(float eps, long m, long n, const T* x, T* y, const TW* scale, bool unused) {
    constexpr long chunk = std::min(1024L * K, nk::kRowChunk);
    nk::rms_rows<T, TW, chunk>(eps, m, n, x, y, scale, static_cast<const TW*>(nullptr), nullptr, false);
}

template <typename T, typename TW>
void infer_rms_layer_norm_gmx(float eps, long m, long n, const T* x, T* y, const TW* scale, bool unused) {
    nk::rms_rows<T, TW, nk::kRowChunk>(eps, m, n, x, y, scale, static_cast<const TW*>(nullptr), nullptr, false);
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
