#include <algorithm>
#include <vector>

#include <tsuops/basic.h>
#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/token_flow.h"
#include "wrapper/moe/moe_flow.h"

namespace infer_ops {

namespace {

// Expert by expert, the pairs of that expert in flat order take the next
// slots; each row is copied by the operator copy on the same context. The
// last offset comes from the sizes, not from the counts.
template <typename T>
int cpu_wrapper(Context* ctx, const T* x, const int* index, T* y, int* moe_index, int* expert_m,
                int* sorted_tokens_num_lod, long m, long d, long e, long k) {
    std::vector<int> counts;
    if (expert_m == nullptr) {
        counts.assign(static_cast<std::size_t>(std::max(e, 0L)), 0);
        expert_m = counts.data();
    }
    if (e < 1) {
        sorted_tokens_num_lod[e] = static_cast<int>(static_cast<unsigned>(m) * static_cast<unsigned>(k));
        return SUCCESS;
    }
    long offset = 0;
    for (long expert = 0; expert < e; ++expert) {
        long count = 0;
        for (long t = 0; t < m; ++t) {
            for (long j = 0; j < k; ++j) {
                if (index[t * k + j] != expert) continue;
                const long slot = offset + count;
                moe_index[t * k + j] = static_cast<int>(slot);
                if (x != nullptr && y != nullptr) {
                    if (int st = frame::check_nested(ctx, copy<T>(ctx, x + t * d, y + slot * d, d))) return st;
                }
                ++count;
            }
        }
        expert_m[expert] = static_cast<int>(count);
        offset += count;
    }
    sorted_tokens_num_lod[0] = 0;
    for (long i = 1; i < e; ++i) sorted_tokens_num_lod[i] = sorted_tokens_num_lod[i - 1] + expert_m[i - 1];
    sorted_tokens_num_lod[e] = static_cast<int>(static_cast<unsigned>(k) * static_cast<unsigned>(m));
    return SUCCESS;
}

template <typename T>
int tsu2or3_wrapper(Context* ctx, const T* x, const int* index, const int* block_statistic, T* y, int* moe_index,
                    int* expert_m, int* sorted_tokens_num_lod, long m, long d, long e, long k, long block_num) {
    using moe_flow::GatherKernel;
    return moe_flow::gather_device(
        ctx, index, block_statistic, m, e, k, block_num, [&](GatherKernel kernel, const int* statistic) {
            const auto launch = frame::cluster_launch(ctx);
            switch (kernel) {
            case GatherKernel::single:
                return launch(&tsu3::__device_stub__infer_moe_ffn_pre_sorted<T, int>, x, index, y, moe_index,
                              expert_m, sorted_tokens_num_lod, m, d, e, k);
            case GatherKernel::split_m:
                return launch(&tsu3::__device_stub__infer_moe_ffn_pre_sorted_split_m<T, int>, x, index, statistic, y,
                              moe_index, expert_m, sorted_tokens_num_lod, m, d, e, k, block_num);
            case GatherKernel::split_m_large:
                break;
            }
            return launch(&tsu3::__device_stub__infer_moe_ffn_pre_sorted_split_m_large<T, int>, x, index, statistic,
                          y, moe_index, expert_m, sorted_tokens_num_lod, m, d, e, k, block_num);
        });
}

}  // namespace

template <typename T, typename TI>
int moe_ffn_pre_sorted(Context* ctx, const T* x, const TI* index, const TI* block_statistic, T* y, TI* moe_index,
                       TI* expert_m, TI* sorted_tokens_num_lod, long m, long d, long e, long k, long block_num) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TI>(guard, ctx, "moe_ffn_pre_sorted", x, index, y, moe_index, expert_m, sorted_tokens_num_lod,
                       block_statistic, m, d, e, k, block_num);
    if (int st = frame::optional_input(guard, ctx, "x", x, m * d)) return st;
    if (int st = frame::input(guard, ctx, "index", index, m * k)) return st;
    if (int st = frame::optional_output(guard, ctx, "y", y, m * k * d)) return st;
    if (int st = frame::output(guard, ctx, "moe_index", moe_index, m * k)) return st;
    if (int st = frame::optional_output(guard, ctx, "expert_m", expert_m, e)) return st;
    if (int st = frame::output(guard, ctx, "sorted_tokens_num_lod", sorted_tokens_num_lod, e + 1)) return st;
    if (block_num >= 1) {
        if (int st = frame::optional_input(guard, ctx, "block_statistic", block_statistic, block_num * e)) return st;
    }
    return moe_flow::dispatch(
        ctx, [&] { return cpu_wrapper(ctx, x, index, y, moe_index, expert_m, sorted_tokens_num_lod, m, d, e, k); },
        [&] {
            return moe_flow::checked_device_run(
                ctx,
                [&] {
                    return tsu2or3_wrapper(ctx, x, index, block_statistic, y, moe_index, expert_m,
                                           sorted_tokens_num_lod, m, d, e, k, block_num);
                },
                moe_index, m, k, "moe_ffn_pre_sorted");
        });
}

#define TSUOPS_MOE_FFN_PRE_SORTED(T)                                                                             \
    template int moe_ffn_pre_sorted<T, int>(Context*, const T*, const int*, const int*, T*, int*, int*, int*, long, \
                                            long, long, long, long);
TSUOPS_MOE_FFN_PRE_SORTED(float)
TSUOPS_MOE_FFN_PRE_SORTED(float16)
TSUOPS_MOE_FFN_PRE_SORTED(bfloat16)
#undef TSUOPS_MOE_FFN_PRE_SORTED

}  // namespace infer_ops
