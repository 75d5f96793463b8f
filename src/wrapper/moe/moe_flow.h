// What the operators of the token flow share: the choice of gathering
// kernel as an ordered table with its named limits, the device steps before
// a gathering launch, and their dispatch.
#pragma once

#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/token_flow.h"

namespace infer_ops::moe_flow {

using tsuops::kernels::moe::kMaxFlowChoices;
using tsuops::kernels::moe::kMaxFlowExperts;
using tsuops::kernels::moe::kMaxPairsWithoutStatistic;
using tsuops::kernels::moe::kPreFusionBlocks;
using tsuops::kernels::moe::kPreFusionExpertLimit;

// With a statistic, fewer pairs than this take the split kernel, the rest
// the large one.
inline constexpr long kLargeSplitPairs = 1792;

enum class GatherKernel { single, split_m, split_m_large };

struct GatherCandidate {
    bool (*fits)(long pairs, long block_num);
    GatherKernel kernel;
};

inline constexpr GatherCandidate kGatherTable[] = {
    {[](long, long block_num) { return block_num < 1; }, GatherKernel::single},
    {[](long pairs, long) { return pairs < kLargeSplitPairs; }, GatherKernel::split_m},
    {[](long, long) { return true; }, GatherKernel::split_m_large},
};

constexpr GatherKernel gather_kernel(long pairs, long block_num) {
    for (const GatherCandidate& c : kGatherTable) {
        if (c.fits(pairs, block_num)) return c.kernel;
    }
    return GatherKernel::split_m_large;
}

// The device steps of the two gathering operators up to their launch, with
// their limits: k, then e, then the device generation, then the pairs a
// launch without a statistic takes. A split launch without a statistic from
// the caller gets one made in scratch, which stays reserved until the
// launch is queued. launch(kernel, statistic) queues the chosen kernel.
// Every check reports the operator's own call site.
template <typename Launch>
int gather_device(Context* ctx, const int* index, const int* block_statistic, long m, long e, long k, long block_num,
                  Launch launch, frame::where at = frame::where::current()) {
    if (int st = frame::check(ctx, k, frame::Rel::LE, kMaxFlowChoices, at)) return st;
    if (int st = frame::check(ctx, e, frame::Rel::LE, kMaxFlowExperts, at)) return st;
    if (ctx->dev_type == static_cast<std::uint32_t>(orvane::tsu::api::DeviceType::TSU2)) {
        return frame::unimplemented(ctx, at);
    }
    const long pairs = m * k;
    const GatherKernel kernel = gather_kernel(pairs, block_num);
    if (kernel == GatherKernel::single) {
        if (int st = frame::check(ctx, pairs, frame::Rel::LE, kMaxPairsWithoutStatistic, at)) return st;
        return launch(kernel, block_statistic);
    }
    if (block_statistic != nullptr) return launch(kernel, block_statistic);
    orvane::tsu::api::ctx_guard scratch(ctx);
    int* made = scratch.alloc<int>(static_cast<unsigned long>(block_num * e));
    if (int st = frame::check_scratch(ctx, made, at)) return st;
    if (int st = gen_block_statistic<int>(ctx, index, made, m, e, k, block_num)) return frame::kernel_fail(ctx, st, at);
    return launch(kernel, made);
}

// Device types 2 and 3 take the device path, 0 the reference path; the
// others do nothing.
template <typename Host, typename Dev>
int dispatch(Context* ctx, Host&& host, Dev&& device) {
    switch (ctx->dev_type) {
    case 0: return host();
    case 2:
    case 3: return device();
    default: return SUCCESS;
    }
}

// A device run of a gathering operator and the debug check of the moe_index
// it made; any failure of either is told as a kernel failure.
template <typename Run>
int checked_device_run(Context* ctx, Run run, const int* moe_index, long m, long k, const char* op,
                       frame::where at = frame::where::current()) {
    int st = run();
    if (st == SUCCESS) st = check_moe_index(ctx, moe_index, m, k, op, "moe_index");
    return st == SUCCESS ? SUCCESS : frame::kernel_fail(ctx, st, at);
}

}  // namespace infer_ops::moe_flow
