#include <algorithm>
#include <vector>

#include <tsuops/moe.h>

#include "frame/frame.h"
#include "frame/quant_rules.h"
#include "kernels/moe/token_flow.h"
#include "wrapper/moe/moe_flow.h"

namespace infer_ops {

namespace {

// Every entry of moe_index starts at -1; expert by expert, the pairs of that
// expert in flat order take the next slots and their rows are quantised
// element by element against the expert's scale float. The offsets are the
// running sums of the counts.
template <typename T>
int cpu_wrapper(const T* x, const int* index, const float* pe_max, signed char* y, int* moe_index, int* expert_m,
                int* sorted_tokens_num_lod, float* token_max_out, long m, long d, long e, long k) {
    std::vector<int> counts;
    if (expert_m == nullptr) {
        counts.assign(static_cast<std::size_t>(std::max(e, 0L)), 0);
        expert_m = counts.data();
    }
    std::fill(moe_index, moe_index + m * k, -1);
    long offset = 0;
    for (long expert = 0; expert < e; ++expert) {
        const float s = pe_max[expert];
        long count = 0;
        for (long t = 0; t < m; ++t) {
            for (long j = 0; j < k; ++j) {
                if (index[t * k + j] != expert) continue;
                const long slot = offset + count;
                moe_index[t * k + j] = static_cast<int>(slot);
                for (long c = 0; c < d; ++c) {
                    y[slot * d + c] =
                        orvane::tsu::api::__fp32_to_intx<signed char, 127>(static_cast<float>(x[t * d + c]), s);
                }
                if (token_max_out != nullptr) token_max_out[slot] = s;
                ++count;
            }
        }
        expert_m[expert] = static_cast<int>(count);
        offset += count;
    }
    sorted_tokens_num_lod[0] = 0;
    for (long i = 0; i < e; ++i) sorted_tokens_num_lod[i + 1] = sorted_tokens_num_lod[i] + expert_m[i];
    return SUCCESS;
}

// The gathering kernel, then the scale float of every slot.
template <typename T>
int tsu2or3_wrapper(Context* ctx, const T* x, const int* index, const float* pe_max, const int* block_statistic,
                    signed char* y, int* moe_index, int* expert_m, int* sorted_tokens_num_lod, float* token_max_out,
                    long m, long d, long e, long k, long block_num) {
    using moe_flow::GatherKernel;
    return moe_flow::gather_device(
        ctx, index, block_statistic, m, e, k, block_num, [&](GatherKernel kernel, const int* statistic) {
            const auto launch = frame::cluster_launch(ctx);
            int st = SUCCESS;
            switch (kernel) {
            case GatherKernel::single:
                st = launch(&tsu3::__device_stub__moe_ffn_pre_sorted_quant_pe<T, int>, x, index, pe_max, y, moe_index,
                            expert_m, sorted_tokens_num_lod, token_max_out, m, d, e, k);
                break;
            case GatherKernel::split_m:
                st = launch(&tsu3::__device_stub__moe_ffn_pre_sorted_quant_pe_split_m<T, int>, x, index, pe_max,
                            statistic, y, moe_index, expert_m, sorted_tokens_num_lod, token_max_out, m, d, e, k,
                            block_num);
                break;
            case GatherKernel::split_m_large:
                st = launch(&tsu3::__device_stub__moe_ffn_pre_sorted_quant_pe_split_m_large<T, int>, x, index, pe_max,
                            statistic, y, moe_index, expert_m, sorted_tokens_num_lod, token_max_out, m, d, e, k,
                            block_num);
                break;
            }
            if (st != SUCCESS) return st;
            return launch(&tsu3::__device_stub__expand_expert_max_to_token_max<int>, pe_max, expert_m,
                          sorted_tokens_num_lod, token_max_out, m, e, k);
        });
}

}  // namespace

template <typename T, typename TI>
int moe_ffn_pre_sorted_quant_pe(Context* ctx, const T* x, const TI* index, const float* pe_max,
                                const TI* block_statistic, signed char* y, TI* moe_index, TI* expert_m,
                                TI* sorted_tokens_num_lod, float* token_max_out, long m, long d, long e, long k,
                                long block_num, long y_rows) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TI>(guard, ctx, "moe_ffn_pre_sorted_quant_pe", x, index, pe_max, y, moe_index, expert_m,
                       sorted_tokens_num_lod, token_max_out, block_statistic, m, d, e, k, block_num, y_rows);
    const long rows = y_rows < 1 ? m * k : y_rows;
    if (block_num >= 1) {
        if (int st = frame::optional_input(guard, ctx, "block_statistic", block_statistic, block_num * e)) return st;
    }
    if (int st = frame::input(guard, ctx, "x", x, m * d)) return st;
    if (int st = frame::input(guard, ctx, "index", index, m * k)) return st;
    if (int st = frame::input(guard, ctx, "pe_max", pe_max, e)) return st;
    if (int st = frame::output(guard, ctx, "y", y, rows * d)) return st;
    if (int st = frame::output(guard, ctx, "moe_index", moe_index, m * k)) return st;
    if (int st = frame::optional_output(guard, ctx, "expert_m", expert_m, e)) return st;
    if (int st = frame::output(guard, ctx, "sorted_tokens_num_lod", sorted_tokens_num_lod, e + 1)) return st;
    if (int st = frame::optional_output(guard, ctx, "token_max_out", token_max_out, rows)) return st;
    return moe_flow::dispatch(
        ctx,
        [&] {
            return cpu_wrapper(x, index, pe_max, y, moe_index, expert_m, sorted_tokens_num_lod, token_max_out, m, d, e,
                               k);
        },
        [&] {
            return moe_flow::checked_device_run(
                ctx,
                [&] {
                    return tsu2or3_wrapper(ctx, x, index, pe_max, block_statistic, y, moe_index, expert_m,
                                           sorted_tokens_num_lod, token_max_out, m, d, e, k, block_num);
                },
                moe_index, m, k, "moe_ffn_pre_sorted_quant_pe");
        });
}

#define TSUOPS_MOE_FFN_PRE_SORTED_QUANT_PE(T)                                                                    \
    template int moe_ffn_pre_sorted_quant_pe<T, int>(Context*, const T*, const int*, const float*, const int*,    \
                                                     signed char*, int*, int*, int*, float*, long, long, long, long, \
                                                     long, long);
TSUOPS_MOE_FFN_PRE_SORTED_QUANT_PE(float)
TSUOPS_MOE_FFN_PRE_SORTED_QUANT_PE(float16)
TSUOPS_MOE_FFN_PRE_SORTED_QUANT_PE(bfloat16)
#undef TSUOPS_MOE_FFN_PRE_SORTED_QUANT_PE

}  // namespace infer_ops
