#pragma GCC optimize("fp-contract=off")

#include <algorithm>
#include <vector>

#include <tsuops/basic.h>
#include <tsuops/cpu_ops.h>
#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/group_route.h"
#include "kernels/moe/topk_rule.h"
#include "wrapper/moe/moe_select.h"
#include "wrapper/moe/route_statistic.h"

namespace infer_ops {

namespace {

using frame::Rel;
using topk_rule::scored;

// The selection on s + bias, the weights from s alone. Per token: each
// group sorted, its score the sum of its two best keys; the groups sorted;
// the sorted runs of the first group_topk groups sorted once more; the
// first k taken. The sum of their sigmoids starts at 1e-7, and every weight
// is its sigmoid times scale over that sum.
template <typename TX, typename TY, typename TID>
int cpu_wrapper(Context* ctx, const TX* x, const float* bias, float scale, TY* norm_score, TID* topk_index,
                int* block_statistic, long m, long n, long group_num, long group_topk, long k, long block_num) {
    const long gs = n / group_num;
    std::vector<float> s(static_cast<std::size_t>(m * n)), b(static_cast<std::size_t>(m * n));
    std::vector<float> weights(static_cast<std::size_t>(m * k));
    cast<TX, float>(ctx, x, s.data(), m * n);
    if (int st = cpu_ops::sigmoid<float>(ctx, s.data(), s.data(), m * n)) return frame::kernel_fail(ctx, st);
    cpu_ops::broadcast_add<float>(ctx, s.data(), bias, b.data(), {m, n}, {n});
    std::vector<scored> row(static_cast<std::size_t>(n)), groups(static_cast<std::size_t>(group_num)), cand;
    for (long t = 0; t < m; ++t) {
        const float* st = s.data() + t * n;
        for (long e = 0; e < n; ++e) row[e] = {b[t * n + e], static_cast<int>(e)};
        for (long g = 0; g < group_num; ++g) {
            std::stable_sort(row.begin() + g * gs, row.begin() + (g + 1) * gs, topk_rule::score_greater);
            groups[g] = {row[g * gs].score + row[g * gs + 1].score, static_cast<int>(g * gs)};
        }
        std::stable_sort(groups.begin(), groups.end(), topk_rule::score_greater);
        cand.clear();
        for (long r = 0; r < group_topk; ++r) {
            cand.insert(cand.end(), row.begin() + groups[r].expert, row.begin() + groups[r].expert + gs);
        }
        std::stable_sort(cand.begin(), cand.end(), topk_rule::score_greater);
        float sum = 1e-7f;
        for (long j = 0; j < k; ++j) {
            topk_index[t * k + j] = static_cast<TID>(cand[j].expert);
            sum += st[cand[j].expert];
        }
        const float f = scale / sum;
        for (long j = 0; j < k; ++j) weights[t * k + j] = st[cand[j].expert] * f;
    }
    cast<float, TY>(ctx, weights.data(), norm_score, m * k);
    route_statistic::fill(topk_index, block_statistic, m, k, n, block_num);
    return SUCCESS;
}

// One launch; the runtime's code comes back unchanged and unlogged.
template <typename TX, typename TY, typename TID>
int tsu3_wrapper(Context* ctx, const TX* x, const float* bias, float scale, TY* norm_score, TID* topk_index,
                 int* block_statistic, long m, long n, long group_num, long group_topk, long k, long block_num) {
    const bool small_shape = moe_select::small_shape(m, k);
    return frame::cluster_launch(ctx).raw(&tsu3::__device_stub__moe_sigmoid_group_topk_norm<TX, TY, TID>, x,
                                          topk_index, norm_score, block_statistic, bias, scale, k, m, n, group_num,
                                          group_topk, block_num, small_shape);
}

}  // namespace

template <typename TX, typename TY, typename TID>
int moe_sigmoid_topk_norm_fusion(Context* ctx, const TX* x, float* bias, float scale, TY* norm_score,
                                 TID* topk_index, int* block_statistic, long m, long n, long group_num,
                                 long group_topk, long k, long block_num) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TX, TY, TID>(guard, ctx, "moe_sigmoid_group_topk_norm_fusion", x, bias, norm_score, topk_index, scale,
                             m, n, group_num, group_topk, k, block_num, block_statistic);
    if (int st = frame::input(guard, ctx, "x", x, n * m)) return st;
    if (int st = frame::input(guard, ctx, "bias", bias, n)) return st;
    if (int st = frame::output(guard, ctx, "norm_score", norm_score, k * m)) return st;
    if (int st = frame::output(guard, ctx, "topk_index", topk_index, k * m)) return st;
    if (block_num > 0) {
        if (int st = frame::output(guard, ctx, "block_statistic", block_statistic, block_num * n)) return st;
    }
    if (int st = frame::check(ctx, n, Rel::LE, moe_select::kMaxRouterExperts)) return st;
    if (int st = frame::check(ctx, group_topk, Rel::LE, group_num)) return st;
    if (int st = frame::check(ctx, k, Rel::LE, n)) return st;
    // The contract's remaining limits, without which a group score or the
    // candidates would be read past their lists.
    if (int st = frame::check(ctx, group_num, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, n / group_num, Rel::GE, 2L)) return st;
    if (int st = frame::check(ctx, k, Rel::LE, group_topk * (n / group_num))) return st;
    return frame::dispatch(
        ctx,
        [&] {
            return cpu_wrapper(ctx, x, bias, scale, norm_score, topk_index, block_statistic, m, n, group_num,
                               group_topk, k, block_num);
        },
        [&] {
            return tsu3_wrapper(ctx, x, bias, scale, norm_score, topk_index, block_statistic, m, n, group_num,
                                group_topk, k, block_num);
        });
}

#define TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION(TX, TY, TID)                                                       \
    template int moe_sigmoid_topk_norm_fusion<TX, TY, TID>(Context*, const TX*, float*, float, TY*, TID*, int*, \
                                                           long, long, long, long, long, long);
#define TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TID(TX, TY) \
    TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION(TX, TY, int)    \
    TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION(TX, TY, long)
#define TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TY(TX)       \
    TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TID(TX, float)   \
    TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TID(TX, float16) \
    TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TID(TX, bfloat16)
TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TY(float)
TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TY(float16)
TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TY(bfloat16)
#undef TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TY
#undef TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION_TID
#undef TSUOPS_MOE_SIGMOID_TOPK_NORM_FUSION

}  // namespace infer_ops
