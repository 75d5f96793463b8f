#include <vector>

#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/moe_index.h"
#include "kernels/moe/token_flow.h"
#include "wrapper/moe/moe_flow.h"

namespace infer_ops {

namespace {

// Counts, their running sums, then for each expert its flat positions in
// ascending order. The block statistic is not needed here. Expert numbers
// outside [0, n) would count outside the table and get no slot.
int cpu_wrapper(const int* index, int* moe_index, int* expert_offset_m, long m, long n, long k) {
    std::vector<int> counts(static_cast<std::size_t>(n), 0);
    for (long i = 0; i < m * k; ++i) {
        if (moe_index::is_expert(index[i], n)) ++counts[static_cast<std::size_t>(index[i])];
    }
    expert_offset_m[0] = 0;
    for (long i = 0; i < n; ++i) expert_offset_m[i + 1] = expert_offset_m[i] + counts[static_cast<std::size_t>(i)];
    for (long c = 0; c < n; ++c) {
        long pos = expert_offset_m[c];
        for (long i = 0; i < m * k; ++i) {
            if (index[i] == c) moe_index[pos++] = static_cast<int>(i);
        }
    }
    return SUCCESS;
}

int tsu2or3_wrapper(Context* ctx, const int* index, const int* block_statistic, int* moe_index,
                    int* expert_offset_m, long m, long n, long k) {
    if (ctx->dev_type == static_cast<std::uint32_t>(orvane::tsu::api::DeviceType::TSU2)) {
        return frame::unimplemented(ctx);
    }
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_moe_ffn_pre_fusion_split_m<int>, index,
                                      block_statistic, moe_index, expert_offset_m, m, n, k,
                                      moe_flow::kPreFusionBlocks);
}

}  // namespace

template <typename TI>
int moe_ffn_pre_fusion(Context* ctx, const TI* index, const TI* block_statistic, TI* moe_index, TI* expert_offset_m,
                       long m, long n, long k, long block_num) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TI>(guard, ctx, "moe_ffn_pre_fusion", index, moe_index, expert_offset_m, block_statistic, m, n, k,
                    block_num);
    if (int st = frame::input(guard, ctx, "index", index, m * k)) return st;
    if (int st = frame::output(guard, ctx, "moe_index", moe_index, m * k)) return st;
    if (int st = frame::output(guard, ctx, "expert_offset_m", expert_offset_m, n + 1)) return st;
    if (int st = frame::check(ctx, block_num, frame::Rel::EQ, moe_flow::kPreFusionBlocks)) return st;
    if (int st = frame::input(guard, ctx, "block_statistic", block_statistic, n * moe_flow::kPreFusionBlocks)) {
        return st;
    }
    if (int st = frame::check(ctx, n, frame::Rel::LT, moe_flow::kPreFusionExpertLimit)) return st;
    if (int st = frame::check(ctx, n, frame::Rel::GE, k)) return st;
    if (int st = frame::check(ctx, k, frame::Rel::GT, 0)) return st;
    if (int st = frame::check(ctx, m, frame::Rel::GT, 0)) return st;
    return moe_flow::dispatch(
        ctx, [&] { return cpu_wrapper(index, moe_index, expert_offset_m, m, n, k); },
        [&] {
            return moe_flow::checked_device_run(
                ctx,
                [&] { return tsu2or3_wrapper(ctx, index, block_statistic, moe_index, expert_offset_m, m, n, k); },
                moe_index, m, k, "moe_ffn_pre_fusion");
        });
}

template int moe_ffn_pre_fusion<int>(Context*, const int*, const int*, int*, int*, long, long, long, long);

}  // namespace infer_ops
