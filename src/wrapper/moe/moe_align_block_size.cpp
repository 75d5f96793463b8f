#include <algorithm>
#include <vector>

#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/moe_index.h"
#include "kernels/moe/token_index.h"

namespace infer_ops {

namespace {

// One list of flat positions per expert, in ascending order; then each
// non-empty list at the next multiple of block_size, with its blocks named.
template <typename T>
int cpu_wrapper(const T* topk_idx, T* sorted_token_ids, T* expert_ids, T* total_tokens_post_pad, long n,
                long block_size, long numel) {
    std::vector<std::vector<T>> lists(static_cast<std::size_t>(n));
    for (long i = 0; i < numel; ++i) {
        if (moe_index::is_expert(topk_idx[i], n)) lists[topk_idx[i]].push_back(static_cast<T>(i));
    }
    long offset = 0;
    for (long e = 0; e < n; ++e) {
        const long c = static_cast<long>(lists[e].size());
        if (c == 0) continue;
        std::copy(lists[e].begin(), lists[e].end(), sorted_token_ids + offset);
        for (long s = 0; s < c; s += block_size) expert_ids[(offset + s) / block_size] = static_cast<T>(e);
        offset += (c + block_size - 1) / block_size * block_size;
    }
    *total_tokens_post_pad = static_cast<T>(offset);
    return SUCCESS;
}

template <typename T>
int tsu3_wrapper(Context* ctx, const T* topk_idx, T* sorted_token_ids, T* expert_ids, T* total_tokens_post_pad,
                 long n, long block_size, long numel) {
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_moe_align_block_size<T>, topk_idx,
                                      sorted_token_ids, expert_ids, total_tokens_post_pad, n, block_size, numel);
}

}  // namespace

// block_size is tested before the capacity is computed: the capacity divides
// by it.
template <typename T>
int moe_align_block_size(Context* ctx, const T* topk_idx, T* sorted_token_ids, T* expert_ids,
                         T* total_tokens_post_pad, long n, long block_size, long numel) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "moe_align_block_size", topk_idx, sorted_token_ids, expert_ids, total_tokens_post_pad,
                   n, block_size, numel);
    if (int st = frame::check(ctx, block_size, frame::Rel::GT, 0)) return st;
    const long max_padded = moe_index::padded_capacity(n, block_size, numel);
    const long max_blocks = moe_index::padded_blocks(n, block_size, numel);
    if (int st = frame::input(guard, ctx, "topk_idx", topk_idx, numel)) return st;
    if (int st = frame::output(guard, ctx, "sorted_token_ids", sorted_token_ids, max_padded)) return st;
    if (int st = frame::output(guard, ctx, "expert_ids", expert_ids, max_blocks)) return st;
    if (int st = frame::output(guard, ctx, "total_tokens_post_pad", total_tokens_post_pad, 1)) return st;
    switch (static_cast<orvane::tsu::api::DeviceType>(ctx->dev_type)) {
    case orvane::tsu::api::DeviceType::CPU:
        return cpu_wrapper(topk_idx, sorted_token_ids, expert_ids, total_tokens_post_pad, n, block_size, numel);
    case orvane::tsu::api::DeviceType::TSU3:
        if (int st = tsu3_wrapper(ctx, topk_idx, sorted_token_ids, expert_ids, total_tokens_post_pad, n, block_size,
                                  numel)) {
            return frame::kernel_fail(ctx, st);
        }
        return SUCCESS;
    default: return SUCCESS;
    }
}

template int moe_align_block_size<int>(Context*, const int*, int*, int*, int*, long, long, long);

}  // namespace infer_ops
