#include <tsuops/cpu_ops.h>

#include "frame/frame.h"
#include "frame/quant_rules.h"

namespace infer_ops::cpu_ops {

template <typename T>
int findmax(Context* ctx, const T* x, float* out, long len) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    if (ctx->dev_type != 0) return frame::unimplemented(ctx);
    *out = quant::absmax(x, len, 0.0f);
    return SUCCESS;
}

template int findmax<float>(Context*, const float*, float*, long);
template int findmax<float16>(Context*, const float16*, float*, long);
template int findmax<bfloat16>(Context*, const bfloat16*, float*, long);

}  // namespace infer_ops::cpu_ops
