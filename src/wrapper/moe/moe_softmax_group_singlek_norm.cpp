#pragma GCC optimize("fp-contract=off")

#include <vector>

#include <tsuops/basic.h>
#include <tsuops/cpu_ops.h>
#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/group_route.h"
#include "wrapper/moe/moe_select.h"
#include "wrapper/moe/route_statistic.h"

namespace infer_ops {

namespace {

using frame::Rel;

// Per token: a softmax inside each group; of each group the first greatest
// raw value, with its softmax value; those renormalised over the groups in
// ascending order from 0, without epsilon. The shared experts, numbered
// from n, follow with weight 1.0, which the histogram counts too.
template <typename TX, typename TY, typename TID>
int cpu_wrapper(Context* ctx, const TX* x, TY* norm_score, TID* topk_index, int* block_statistic, long m, long n,
                long group_num, long shared_num, long block_num) {
    if (int st = frame::check(ctx, n % group_num, Rel::EQ, 0)) return st;
    const long gs = n / group_num, width = group_num + shared_num;
    std::vector<float> raw(static_cast<std::size_t>(n)), prob(static_cast<std::size_t>(n));
    std::vector<float> picked(static_cast<std::size_t>(m * group_num));
    for (long t = 0; t < m; ++t) {
        cast<TX, float>(ctx, x + t * n, raw.data(), n);
        if (int st = cpu_ops::softmax2d<float>(ctx, raw.data(), prob.data(), group_num, gs)) {
            return frame::kernel_fail(ctx, st);
        }
        float* w = picked.data() + t * group_num;
        for (long g = 0; g < group_num; ++g) {
            long first = g * gs;
            for (long e = g * gs + 1; e < (g + 1) * gs; ++e) {
                if (raw[e] > raw[first]) first = e;
            }
            topk_index[t * width + g] = static_cast<TID>(first);
            w[g] = prob[first];
        }
        float sum = 0.0f;
        for (long g = 0; g < group_num; ++g) sum += w[g];
        for (long g = 0; g < group_num; ++g) w[g] = w[g] / sum;
        for (long i = 0; i < shared_num; ++i) topk_index[t * width + group_num + i] = static_cast<TID>(n + i);
    }
    if (shared_num < 1) {
        cast<float, TY>(ctx, picked.data(), norm_score, m * group_num);
    } else {
        const std::vector<float> ones(static_cast<std::size_t>(m * shared_num), 1.0f);
        std::vector<float> joined(static_cast<std::size_t>(m * width));
        const int st = cpu_ops::concat<float>(ctx, {picked.data(), ones.data()}, joined.data(),
                                              {{m, group_num}, {m, shared_num}}, 1);
        if (int nested = frame::check_nested(ctx, st)) return nested;
        cast<float, TY>(ctx, joined.data(), norm_score, m * width);
    }
    route_statistic::fill(topk_index, block_statistic, m, width, n + shared_num, block_num);
    return SUCCESS;
}

// One launch; unlike the other routers a failure is logged and reported as
// a kernel failure.
template <typename TX, typename TY, typename TID>
int tsu3_wrapper(Context* ctx, const TX* x, TY* norm_score, TID* topk_index, int* block_statistic, long m, long n,
                 long group_num, long shared_num, long block_num) {
    const bool small_shape = moe_select::small_shape(m, group_num);
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_moe_softmax_group_singlek_norm<TX, TY, TID>, x,
                                      topk_index, norm_score, block_statistic, group_num, shared_num, m, n, block_num,
                                      small_shape);
}

}  // namespace

template <typename TX, typename TY, typename TID>
int moe_softmax_group_singlek_norm(Context* ctx, const TX* x, TY* norm_score, TID* topk_index, int* block_statistic,
                                   long m, long n, long group_num, long shared_num, long block_num) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TX, TY, TID>(guard, ctx, "moe_softmax_group_singlek_norm", x, norm_score, topk_index, m, n, group_num,
                             shared_num, block_num, block_statistic);
    const long width = group_num + shared_num;
    if (int st = frame::input(guard, ctx, "x", x, n * m)) return st;
    if (int st = frame::output(guard, ctx, "norm_score", norm_score, width * m)) return st;
    if (int st = frame::output(guard, ctx, "topk_index", topk_index, width * m)) return st;
    if (block_num > 0) {
        if (int st = frame::output(guard, ctx, "block_statistic", block_statistic, (n + shared_num) * block_num)) {
            return st;
        }
    }
    if (int st = frame::check(ctx, n, Rel::LE, moe_select::kMaxRouterExperts)) return st;
    if (int st = frame::check(ctx, group_num, Rel::LE, n)) return st;
    if (int st = frame::check(ctx, group_num, Rel::GT, 0)) return st;
    if (int st = frame::check(ctx, shared_num, Rel::GE, 0)) return st;
    return frame::dispatch(
        ctx,
        [&] {
            return cpu_wrapper(ctx, x, norm_score, topk_index, block_statistic, m, n, group_num, shared_num,
                               block_num);
        },
        [&] {
            return tsu3_wrapper(ctx, x, norm_score, topk_index, block_statistic, m, n, group_num, shared_num,
                                block_num);
        });
}

#define TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM(TX, TY, TID)                                                \
    template int moe_softmax_group_singlek_norm<TX, TY, TID>(Context*, const TX*, TY*, TID*, int*, long, long, \
                                                             long, long, long);
#define TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TID(TX, TY) \
    TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM(TX, TY, int)    \
    TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM(TX, TY, long)
#define TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TY(TX)       \
    TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TID(TX, float)   \
    TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TID(TX, float16) \
    TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TID(TX, bfloat16)
TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TY(float)
TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TY(float16)
TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TY(bfloat16)
#undef TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TY
#undef TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM_TID
#undef TSUOPS_MOE_SOFTMAX_GROUP_SINGLEK_NORM

}  // namespace infer_ops
