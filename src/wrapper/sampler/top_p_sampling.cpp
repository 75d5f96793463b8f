// The mass and the draw are float sums in the documented order; nothing may
// be contracted or reordered.
#pragma GCC optimize("fp-contract=off")

#include <vector>

#include <tsuops/basic.h>
#include <tsuops/ctx_guard.h>
#include <tsuops/sampler.h>

#include "frame/frame.h"
#include "kernels/sampler/top_p.h"
#include "wrapper/sampler/top_p_select.h"

namespace infer_ops {

namespace {

namespace api = orvane::tsu::api;

// Each row sorted in descending order by the sort operator; then the cut,
// tested before each entry is added, and the draw, one float division per
// entry, written out over the whole row.
template <typename T, typename TID>
int cpu_wrapper(Context* ctx, const T* x, const T* top_ps, const float* rand_coeff, TID* top_p_ids, long m, long n,
                long size, T* top_p_values, const bool* stop_flags) {
    std::vector<float> x_float(static_cast<std::size_t>(size)), p_float(static_cast<std::size_t>(m));
    if (int st = frame::check_nested(ctx, cast<T, float>(ctx, x, x_float.data(), size))) return st;
    if (int st = frame::check_nested(ctx, cast<T, float>(ctx, top_ps, p_float.data(), m))) return st;
    std::vector<float> sorted(static_cast<std::size_t>(size));
    std::vector<TID> ids(static_cast<std::size_t>(size));
    if (int st = frame::check_nested(ctx, sort<float, TID>(ctx, x_float.data(), sorted.data(), ids.data(), m, n, true))) {
        return st;
    }
    for (long i = 0; i < m; ++i) {
        if (stop_flags != nullptr && stop_flags[i]) continue;
        float* row = sorted.data() + i * n;
        float mass = 0.0f;
        for (long j = 0; j < n; ++j) {
            if (mass > p_float[static_cast<std::size_t>(i)]) row[j] = 0.0f;
            mass += row[j];
        }
        const float u = rand_coeff[i];
        float cum = 0.0f;
        for (long j = 0; j < n; ++j) {
            const float v = row[j];
            cum += row[j] / mass;
            if (cum >= u) {
                top_p_ids[i] = ids[static_cast<std::size_t>(i * n + j)];
                if (top_p_values != nullptr) top_p_values[i] = T(v);
                break;
            }
        }
    }
    return SUCCESS;
}

template <typename T, typename TID>
int tsu3_wrapper(Context* ctx, const T* x, const T* top_ps, const float* rand_coeff, TID* top_p_ids, long m, long n,
                 long size, T* top_p_values, const bool* stop_flags) {
    api::ctx_guard scratch(ctx);
    const auto count = static_cast<unsigned long>(size);
    if (top_p_select::select(n) == top_p_select::Kernel::sampling) {
        float* sorted_tmp = scratch.alloc<float>(count);
        if (int st = frame::check_scratch(ctx, sorted_tmp)) return st;
        unsigned int* ids_tmp = scratch.alloc<unsigned int>(count);
        if (int st = frame::check_scratch(ctx, ids_tmp)) return st;
        return frame::cluster_launch(ctx)(&tsu3::__device_stub__top_p_sampling<T, TID>, x, top_ps, rand_coeff,
                                          stop_flags, top_p_ids, top_p_values, sorted_tmp, ids_tmp, m, n);
    }
    T* sorted_x = scratch.alloc<T>(count);
    if (int st = frame::check_scratch(ctx, sorted_x)) return st;
    TID* sorted_ids = scratch.alloc<TID>(count);
    if (int st = frame::check_scratch(ctx, sorted_ids)) return st;
    if (int st = frame::check_nested(ctx, sort<T, TID>(ctx, x, sorted_x, sorted_ids, m, n, true))) return st;
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__top_p_sampling_fallback<T, TID>, sorted_x, sorted_ids,
                                      top_ps, rand_coeff, stop_flags, top_p_ids, top_p_values, m, n);
}

}  // namespace

template <typename T, typename TID>
int top_p_sampling(Context* ctx, const T* x, const T* top_ps, const float* rand_coeff, TID* top_p_ids, long m, long n,
                   T* top_p_values, const bool* stop_flags) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TID>(guard, ctx, "top_p_sampling", x, top_ps, rand_coeff, top_p_ids, m, n, top_p_values,
                        stop_flags);
    long size = 0;
    if (int st = frame::check_shape(ctx, {m, n}, &size)) return st;
    if (int st = frame::input(guard, ctx, "x", x, size)) return st;
    if (int st = frame::input(guard, ctx, "top_ps", top_ps, m)) return st;
    if (int st = frame::input(guard, ctx, "rand_coeff", rand_coeff, m)) return st;
    if (int st = frame::output(guard, ctx, "top_p_ids", top_p_ids, m)) return st;
    if (int st = frame::optional_output(guard, ctx, "top_p_values", top_p_values, m)) return st;
    if (int st = frame::optional_input(guard, ctx, "stop_flags", stop_flags, m)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(ctx, x, top_ps, rand_coeff, top_p_ids, m, n, size, top_p_values, stop_flags); },
        [&] { return tsu3_wrapper(ctx, x, top_ps, rand_coeff, top_p_ids, m, n, size, top_p_values, stop_flags); });
}

#define TSUOPS_TOP_P_SAMPLING(T, TID)                                                                       \
    template int top_p_sampling<T, TID>(Context*, const T*, const T*, const float*, TID*, long, long, T*, \
                                        const bool*);
TSUOPS_TOP_P_SAMPLING(float, int)
TSUOPS_TOP_P_SAMPLING(float, long)
TSUOPS_TOP_P_SAMPLING(float16, int)
TSUOPS_TOP_P_SAMPLING(float16, long)
#undef TSUOPS_TOP_P_SAMPLING

}  // namespace infer_ops
