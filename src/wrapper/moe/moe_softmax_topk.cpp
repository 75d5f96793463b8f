#pragma GCC optimize("fp-contract=off")

#include <algorithm>
#include <vector>

#include <tsuops/basic.h>
#include <tsuops/cpu_ops.h>
#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/softmax_topk.h"
#include "kernels/moe/topk_rule.h"
#include "wrapper/moe/moe_select.h"

namespace infer_ops {

namespace {

// The probabilities in a float copy of x, one stable sort per token, the
// chosen scores narrowed to TY only after the order is fixed, then the
// histogram from the chosen experts. The two casts' results are not examined.
template <typename TX, typename TY, typename TID>
int cpu_wrapper(Context* ctx, const TX* x, TY* topk_score, TID* topk_index, int* block_statistic, long m, long n,
                long k, int block_num) {
    std::vector<float> probs(static_cast<std::size_t>(m * n), 0.0f);
    std::vector<float> picked(static_cast<std::size_t>(m * k), 0.0f);
    cast<TX, float>(ctx, x, probs.data(), m * n);
    if (int st = cpu_ops::softmax2d<float>(ctx, probs.data(), probs.data(), m, n)) return frame::kernel_fail(ctx, st);
    std::vector<topk_rule::scored> row(static_cast<std::size_t>(n));
    for (long t = 0; t < m; ++t) {
        for (long e = 0; e < n; ++e) row[e] = {probs[t * n + e], static_cast<int>(e)};
        std::stable_sort(row.begin(), row.end(), topk_rule::score_greater);
        for (long j = 0; j < k; ++j) {
            picked[t * k + j] = row[j].score;
            topk_index[t * k + j] = static_cast<TID>(row[j].expert);
        }
    }
    cast<float, TY>(ctx, picked.data(), topk_score, m * k);
    for (int b = 0; b < block_num; ++b) {
        long start = 0, end = 0;
        cpu_ops::partition<long>(b, block_num, m, 1, &start, &end);
        int* counts = block_statistic + b * n;
        std::fill(counts, counts + n, 0);
        for (long t = start; t < end; ++t) {
            for (long j = 0; j < k; ++j) counts[topk_index[t * k + j]] += 1;
        }
    }
    return SUCCESS;
}

// One launch; the runtime's code comes back unchanged and unlogged, as from
// every router.
template <typename TX, typename TY, typename TID>
int tsu3_wrapper(Context* ctx, const TX* x, TY* topk_score, TID* topk_index, int* block_statistic, long m, long n,
                 long k, long block_num) {
    const bool small_shape = moe_select::small_shape(m, k);
    return frame::cluster_launch(ctx).raw(&tsu3::__device_stub__infer_moe_softmax_topk<TX, TY, TID>, x, topk_index,
                                          topk_score, block_statistic, k, m, n, block_num, small_shape);
}

}  // namespace

template <typename TX, typename TY, typename TID>
int moe_softmax_topk(Context* ctx, const TX* x, TY* topk_score, TID* topk_index, int* block_statistic, long m,
                     long n, long k, long block_num) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TX, TY, TID>(guard, ctx, "moe_softmax_topk", x, topk_score, topk_index, block_statistic, m, n, k,
                             block_num);
    if (int st = frame::input(guard, ctx, "x", x, m * n)) return st;
    if (int st = frame::output(guard, ctx, "topk_score", topk_score, m * k)) return st;
    if (int st = frame::output(guard, ctx, "topk_index", topk_index, m * k)) return st;
    if (block_num > 0) {
        if (int st = frame::output(guard, ctx, "block_statistic", block_statistic, block_num * n)) return st;
    }
    if (int st = frame::check(ctx, n, frame::Rel::LE, moe_select::kMaxRouterExperts)) return st;
    if (int st = frame::check(ctx, k, frame::Rel::LE, n)) return st;
    return frame::dispatch(
        ctx,
        [&] {
            return cpu_wrapper(ctx, x, topk_score, topk_index, block_statistic, m, n, k, static_cast<int>(block_num));
        },
        [&] { return tsu3_wrapper(ctx, x, topk_score, topk_index, block_statistic, m, n, k, block_num); });
}

#define TSUOPS_MOE_SOFTMAX_TOPK(TX, TY, TID)                                                                    \
    template int moe_softmax_topk<TX, TY, TID>(Context*, const TX*, TY*, TID*, int*, long, long, long, long);
#define TSUOPS_MOE_SOFTMAX_TOPK_TID(TX, TY) \
    TSUOPS_MOE_SOFTMAX_TOPK(TX, TY, int)    \
    TSUOPS_MOE_SOFTMAX_TOPK(TX, TY, long)
#define TSUOPS_MOE_SOFTMAX_TOPK_TY(TX)           \
    TSUOPS_MOE_SOFTMAX_TOPK_TID(TX, float)       \
    TSUOPS_MOE_SOFTMAX_TOPK_TID(TX, float16)     \
    TSUOPS_MOE_SOFTMAX_TOPK_TID(TX, bfloat16)
TSUOPS_MOE_SOFTMAX_TOPK_TY(float)
TSUOPS_MOE_SOFTMAX_TOPK_TY(float16)
TSUOPS_MOE_SOFTMAX_TOPK_TY(bfloat16)
#undef TSUOPS_MOE_SOFTMAX_TOPK_TY
#undef TSUOPS_MOE_SOFTMAX_TOPK_TID
#undef TSUOPS_MOE_SOFTMAX_TOPK

}  // namespace infer_ops
