#include <algorithm>

#include <tsuops/cpu_ops.h>
#include <tsuops/moe.h>

#include "frame/frame.h"
#include "kernels/moe/moe_index.h"
#include "kernels/moe/token_index.h"

namespace infer_ops {

namespace {

// Per block: clear the row, count the choices of its tokens. Expert numbers
// outside [0, n) would land outside the row and are not counted.
template <typename T>
int cpu_wrapper(const T* topk_ids, T* block_statistic, long m, long n, long k, long block_num) {
    for (int b = 0; b < block_num; ++b) {
        int start = 0, end = 0;
        cpu_ops::partition<int>(b, static_cast<int>(block_num), static_cast<int>(m), 1, &start, &end);
        T* row = block_statistic + b * n;
        std::fill(row, row + n, T{0});
        for (long t = start; t < end; ++t) {
            for (long j = 0; j < k; ++j) {
                const T e = topk_ids[t * k + j];
                if (moe_index::is_expert(e, n)) row[e] += 1;
            }
        }
    }
    return SUCCESS;
}

// One cluster per block.
template <typename T>
int tsu3_wrapper(Context* ctx, const T* topk_ids, T* block_statistic, long m, long n, long k, long block_num) {
    return frame::launch(ctx, static_cast<int>(block_num), 64)(&tsu3::__device_stub__gen_block_statistic<T>,
                                                              topk_ids, block_statistic, n, m, k, block_num);
}

}  // namespace

template <typename T>
int gen_block_statistic(Context* ctx, const T* topk_ids, T* block_statistic, long m, long n, long k,
                        long block_num) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "gen_block_statistic", topk_ids, block_statistic, m, n, k, block_num);
    if (int st = frame::output(guard, ctx, "block_statistic", block_statistic, block_num * n)) return st;
    if (int st = frame::input(guard, ctx, "topk_ids", topk_ids, m * k)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(topk_ids, block_statistic, m, n, k, block_num); },
        [&] { return tsu3_wrapper(ctx, topk_ids, block_statistic, m, n, k, block_num); });
}

template int gen_block_statistic<int>(Context*, const int*, int*, long, long, long, long);

}  // namespace infer_ops
