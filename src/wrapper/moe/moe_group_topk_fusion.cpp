#include <algorithm>
#include <vector>

#include <tsuops/basic.h>
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

// What the grouped selection needs to stay inside its lists: a group to
// split into, no more groups taken than there are, and enough candidates
// for k. The operator's contract leaves these to the caller; they are
// checked so that a call outside it fails instead of reading past a list.
int check_group_choice(Context* ctx, long n, long group_num, long group_topk, long k,
                       frame::where at = frame::where::current()) {
    if (int st = frame::check(ctx, group_topk, Rel::LE, group_num, at)) return st;
    return frame::check(ctx, k, Rel::LE, group_topk * (n / group_num), at);
}

// A copy of the chosen inputs in TX, converted to TY once the order is fixed.
template <typename TX, typename TY, typename TID>
int finish(Context* ctx, const std::vector<TX>& picked, TY* score, const TID* topk_index, int* block_statistic,
           long m, long n, long k, long block_num) {
    cast<TX, TY>(ctx, picked.data(), score, m * k);
    route_statistic::fill(topk_index, block_statistic, m, k, n, block_num);
    return SUCCESS;
}

// Per token: each group sorted, its first entry its leader; the leaders
// sorted; the sorted runs of the first group_topk groups, in the leaders'
// order, sorted once more; the first k taken. Every sort is the routers'
// stable sort, on the input's own values.
template <typename TX, typename TY, typename TID>
int cpu_wrapper(Context* ctx, const TX* x, TY* score, TID* topk_index, int* block_statistic, long m, long n,
                long group_num, long group_topk, long k, long block_num) {
    if (int st = frame::check(ctx, group_num, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, n % group_num, Rel::EQ, 0)) return st;
    if (int st = check_group_choice(ctx, n, group_num, group_topk, k)) return st;
    const long gs = n / group_num;
    std::vector<TX> picked(static_cast<std::size_t>(m * k));
    std::vector<scored> row(static_cast<std::size_t>(n)), leaders(static_cast<std::size_t>(group_num)), cand;
    for (long t = 0; t < m; ++t) {
        const TX* xt = x + t * n;
        for (long e = 0; e < n; ++e) row[e] = {static_cast<float>(xt[e]), static_cast<int>(e)};
        for (long g = 0; g < group_num; ++g) {
            std::stable_sort(row.begin() + g * gs, row.begin() + (g + 1) * gs, topk_rule::score_greater);
            leaders[g] = row[g * gs];
        }
        std::stable_sort(leaders.begin(), leaders.end(), topk_rule::score_greater);
        cand.clear();
        for (long r = 0; r < group_topk; ++r) {
            const long start = leaders[r].expert - leaders[r].expert % gs;
            cand.insert(cand.end(), row.begin() + start, row.begin() + start + gs);
        }
        std::stable_sort(cand.begin(), cand.end(), topk_rule::score_greater);
        for (long j = 0; j < k; ++j) {
            topk_index[t * k + j] = static_cast<TID>(cand[j].expert);
            picked[t * k + j] = xt[cand[j].expert];
        }
    }
    return finish(ctx, picked, score, topk_index, block_statistic, m, n, k, block_num);
}

// No groups: one stable sort of the whole row.
template <typename TX, typename TY, typename TID>
int cpu_wrapper_nogroup(Context* ctx, const TX* x, TY* score, TID* topk_index, int* block_statistic, long m, long n,
                        long k, long block_num) {
    if (int st = frame::check(ctx, k, Rel::LE, n)) return st;
    if (int st = frame::check(ctx, m, Rel::GE, 0)) return st;
    std::vector<TX> picked(static_cast<std::size_t>(m * k));
    std::vector<scored> row(static_cast<std::size_t>(n));
    for (long t = 0; t < m; ++t) {
        const TX* xt = x + t * n;
        for (long e = 0; e < n; ++e) row[e] = {static_cast<float>(xt[e]), static_cast<int>(e)};
        std::stable_sort(row.begin(), row.end(), topk_rule::score_greater);
        for (long j = 0; j < k; ++j) {
            topk_index[t * k + j] = static_cast<TID>(row[j].expert);
            picked[t * k + j] = xt[row[j].expert];
        }
    }
    return finish(ctx, picked, score, topk_index, block_statistic, m, n, k, block_num);
}

// One launch, of the plain or the grouped kernel; the runtime's code comes
// back unchanged and unlogged, as from every router. The kernels hold a row
// of experts on chip, which bounds n here.
template <typename TX, typename TY, typename TID>
int tsu3_wrapper(Context* ctx, const TX* x, TY* score, TID* topk_index, int* block_statistic, long m, long n,
                 long group_num, long group_topk, long k, long block_num) {
    if (int st = frame::check(ctx, n, Rel::LE, moe_select::kGroupKernelExperts)) return st;
    if (moe_select::group_topk_kernel(group_num, group_topk) == moe_select::GroupTopkKernel::plain) {
        if (int st = frame::check(ctx, k, Rel::LE, n)) return st;
        return frame::cluster_launch(ctx).raw(&tsu3::__device_stub__moe_topk<TX, TY, TID>, x, topk_index, score,
                                              block_statistic, k, m, n, block_num);
    }
    if (int st = frame::check(ctx, group_num, Rel::GT, 0L)) return st;
    if (int st = check_group_choice(ctx, n, group_num, group_topk, k)) return st;
    const bool small_shape = moe_select::small_shape(m, k);
    return frame::cluster_launch(ctx).raw(&tsu3::__device_stub__moe_group_topk<TX, TY, TID>, x, topk_index, score,
                                          block_statistic, k, m, n, group_num, group_topk, block_num, small_shape);
}

}  // namespace

template <typename TX, typename TY, typename TID>
int moe_group_topk_fusion(Context* ctx, const TX* x, TY* score, TID* topk_index, int* block_statistic, long m, long n,
                          long group_num, long group_topk, long k, long block_num) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TX, TY, TID>(guard, ctx, "moe_group_topk_fusion", x, score, topk_index, m, n, group_num, group_topk,
                             k, block_num, block_statistic);
    if (int st = frame::input(guard, ctx, "x", x, n * m)) return st;
    if (int st = frame::output(guard, ctx, "score", score, k * m)) return st;
    if (int st = frame::output(guard, ctx, "topk_index", topk_index, k * m)) return st;
    if (block_num > 0) {
        if (int st = frame::output(guard, ctx, "block_statistic", block_statistic, block_num * n)) return st;
    }
    return frame::dispatch(
        ctx,
        [&] {
            if (group_num == 0 && group_topk == 0) {
                return cpu_wrapper_nogroup(ctx, x, score, topk_index, block_statistic, m, n, k, block_num);
            }
            return cpu_wrapper(ctx, x, score, topk_index, block_statistic, m, n, group_num, group_topk, k, block_num);
        },
        [&] {
            return tsu3_wrapper(ctx, x, score, topk_index, block_statistic, m, n, group_num, group_topk, k,
                                block_num);
        });
}

#define TSUOPS_MOE_GROUP_TOPK_FUSION(TX, TY, TID)                                                             \
    template int moe_group_topk_fusion<TX, TY, TID>(Context*, const TX*, TY*, TID*, int*, long, long, long, long, \
                                                    long, long);
#define TSUOPS_MOE_GROUP_TOPK_FUSION_TID(TX, TY) \
    TSUOPS_MOE_GROUP_TOPK_FUSION(TX, TY, int)    \
    TSUOPS_MOE_GROUP_TOPK_FUSION(TX, TY, long)
#define TSUOPS_MOE_GROUP_TOPK_FUSION_TY(TX)       \
    TSUOPS_MOE_GROUP_TOPK_FUSION_TID(TX, float)   \
    TSUOPS_MOE_GROUP_TOPK_FUSION_TID(TX, float16) \
    TSUOPS_MOE_GROUP_TOPK_FUSION_TID(TX, bfloat16)
TSUOPS_MOE_GROUP_TOPK_FUSION_TY(float)
TSUOPS_MOE_GROUP_TOPK_FUSION_TY(float16)
TSUOPS_MOE_GROUP_TOPK_FUSION_TY(bfloat16)
#undef TSUOPS_MOE_GROUP_TOPK_FUSION_TY
#undef TSUOPS_MOE_GROUP_TOPK_FUSION_TID
#undef TSUOPS_MOE_GROUP_TOPK_FUSION

}  // namespace infer_ops
