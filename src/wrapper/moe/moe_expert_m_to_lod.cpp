#include <type_traits>

#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/token_index.h"

namespace infer_ops {

namespace {

// Summed in TOUT; the sum wraps where TOUT overflows, as the device's does.
template <typename TIN, typename TOUT>
int cpu_wrapper(const TIN* expert_m, TOUT* sorted_tokens_num_lod, long n) {
    using U = std::make_unsigned_t<TOUT>;
    sorted_tokens_num_lod[0] = 0;
    for (long i = 0; i < n; ++i) {
        const U sum = static_cast<U>(sorted_tokens_num_lod[i]) + static_cast<U>(static_cast<TOUT>(expert_m[i]));
        sorted_tokens_num_lod[i + 1] = static_cast<TOUT>(sum);
    }
    return SUCCESS;
}

template <typename TIN, typename TOUT>
int tsu3_wrapper(Context* ctx, const TIN* expert_m, TOUT* sorted_tokens_num_lod, long n, bool use_gmx) {
    if (use_gmx) {
        return frame::gmx_launch(ctx)(&tsu3::__device_stub__infer_moe_expert_m_to_lod_gmx<TIN, TOUT>, expert_m,
                                      sorted_tokens_num_lod, n);
    }
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_moe_expert_m_to_lod<TIN, TOUT>, expert_m,
                                      sorted_tokens_num_lod, n);
}

}  // namespace

template <typename TIN, typename TOUT>
int moe_expert_m_to_lod(Context* ctx, const TIN* expert_m, TOUT* sorted_tokens_num_lod, long n, bool use_gmx) {
    using orvane::tsu::api::DeviceType;
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TIN, TOUT>(guard, ctx, "moe_expert_m_to_lod", expert_m, sorted_tokens_num_lod, n, use_gmx);
    if (int st = frame::check(ctx, n, frame::Rel::GT, 0)) return st;
    if (int st = frame::input(guard, ctx, "expert_m", expert_m, n)) return st;
    if (int st = frame::output(guard, ctx, "sorted_tokens_num_lod", sorted_tokens_num_lod, n + 1)) return st;
    switch (static_cast<DeviceType>(ctx->dev_type)) {
    case DeviceType::CPU: return cpu_wrapper(expert_m, sorted_tokens_num_lod, n);
    case DeviceType::TSU2: return frame::kernel_fail(ctx, frame::unimplemented(ctx));
    case DeviceType::TSU3:
        if (int st = tsu3_wrapper(ctx, expert_m, sorted_tokens_num_lod, n, use_gmx)) return frame::kernel_fail(ctx, st);
        return SUCCESS;
    default: return SUCCESS;
    }
}

#define TSUOPS_MOE_EXPERT_M_TO_LOD(TIN, TOUT) \
    template int moe_expert_m_to_lod<TIN, TOUT>(Context*, const TIN*, TOUT*, long, bool);
TSUOPS_MOE_EXPERT_M_TO_LOD(int, int)
TSUOPS_MOE_EXPERT_M_TO_LOD(int, long)
TSUOPS_MOE_EXPERT_M_TO_LOD(long, int)
TSUOPS_MOE_EXPERT_M_TO_LOD(long, long)
#undef TSUOPS_MOE_EXPERT_M_TO_LOD

}  // namespace infer_ops
