#include <algorithm>
#include <vector>

#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/moe_index.h"
#include "kernels/moe/token_index.h"

namespace infer_ops {

namespace {

// The counting sort in its documented steps: counts one entry up, running
// sums, then every flat position in ascending order to its expert's next
// slot. An expert number out of range stops it with 1 and no log.
template <typename T>
int cpu_wrapper(const T* topk_idx, T* sorted_tokens_num_lod, T* sorted_tokens_idx, long m, long k, long n) {
    std::fill(sorted_tokens_num_lod, sorted_tokens_num_lod + n + 1, T{0});
    for (long p = 0; p < m * k; ++p) {
        const T e = topk_idx[p];
        if (!moe_index::is_expert(e, n)) return STATUS_INVALID_ARGUMENT;
        sorted_tokens_num_lod[e + 1] += 1;
    }
    for (long e = 1; e <= n; ++e) sorted_tokens_num_lod[e] += sorted_tokens_num_lod[e - 1];
    std::vector<long> next(sorted_tokens_num_lod, sorted_tokens_num_lod + n);
    for (long p = 0; p < m * k; ++p) sorted_tokens_idx[next[topk_idx[p]]++] = static_cast<T>(p);
    return SUCCESS;
}

int tsu3_wrapper(Context* ctx, const int* topk_idx, int* sorted_tokens_num_lod, int* sorted_tokens_idx, long m,
                 long k, long n) {
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_moe_sorted_topk_idx, m, k, n, topk_idx,
                                      sorted_tokens_num_lod, sorted_tokens_idx);
}

}  // namespace

template <typename T>
int moe_sorted_topk_idx(Context* ctx, const T* topk_idx, T* sorted_tokens_num_lod, T* sorted_tokens_idx, long m,
                        long k, long n) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "moe_sorted_topk_idx", topk_idx, sorted_tokens_num_lod, sorted_tokens_idx, m, k, n);
    if (int st = frame::check(ctx, n, frame::Rel::GE, k)) return st;
    if (int st = frame::check(ctx, m, frame::Rel::GT, 0)) return st;
    if (int st = frame::check(ctx, k, frame::Rel::GT, 0)) return st;
    if (int st = frame::check(ctx, n, frame::Rel::LT, tsuops::kernels::moe::kSortedTopkExpertLimit)) return st;
    if (int st = frame::input(guard, ctx, "topk_idx", topk_idx, m * k)) return st;
    if (int st = frame::output(guard, ctx, "sorted_tokens_idx", sorted_tokens_idx, m * k)) return st;
    if (int st = frame::output(guard, ctx, "sorted_tokens_num_lod", sorted_tokens_num_lod, n + 1)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(topk_idx, sorted_tokens_num_lod, sorted_tokens_idx, m, k, n); },
        [&] { return tsu3_wrapper(ctx, topk_idx, sorted_tokens_num_lod, sorted_tokens_idx, m, k, n); });
}

template int moe_sorted_topk_idx<int>(Context*, const int*, int*, int*, long, long, long);

}  // namespace infer_ops
