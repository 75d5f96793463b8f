// The search of a row is driven by its sums, so every pass adds the values
// above p0 and above p1 in column order, as the reference does; the rest of
// a pass is order-free.
#pragma GCC optimize("fp-contract=off")

#include "kernels/sampler/top_p_renorm_probs.h"

#include <algorithm>

#include "kernels/grid.h"
#include "kernels/sampler/renorm_rows.h"
#include "kernels/sampler/renorm_search.h"

namespace tsuops::kernels::sampler {

namespace {

template <typename T>
void top_p_row(const T* x, T* y, T* scratch, long n, float pp) {
    row_chunks<T> row(x, n);
    float mx = 0.0f;
    row.each([&](const float* v, long len, long) { mx = max_of(v, len, mx); });
    double high = mx, low = 0.0;
    float sum_low = 1.0f;
    working_set<T> set{x, n, scratch};
    for (int pass = 0; pass < kMaxSearchPasses; ++pass) {
        const double p0 = (low + low + high) / 3.0, p1 = (high + high + low) / 3.0;
        const bounds b{below(low), below(high), below(p0), below(p1)};
        tally acc{static_cast<float>(high), static_cast<float>(low), 0, 0, 0.0f, 0.0f};
        row_chunks<T>(set.values, set.len).each([&](const float* v, long len, long) {
            tally_counts(v, len, b, acc);
            tally_sums(v, len, b, acc);
        });
        if (acc.sum1 >= pp) {
            low = p1;
            sum_low = acc.sum1;
            set.shrink(low, high, acc.c1);
        } else if (acc.sum0 >= pp) {
            high = std::min(static_cast<double>(acc.max_le_high), p1);
            low = p0;
            sum_low = acc.sum0;
            set.shrink(low, high, acc.c0);
        } else {
            high = std::min(static_cast<double>(acc.max_le_high), p0);
        }
        if (acc.min_gt_low == acc.max_le_high) break;
    }
    const float norm = 1.0f / std::max(1e-8f, sum_low);
    const float lowf = below(low);
    float out[kChunk];
    row.each([&](const float* v, long len, long c) {
        for (long j = 0; j < len; ++j) out[j] = v[j] > lowf ? v[j] * norm : 0.0f;
        store(out, y + c, len);
    });
}

}  // namespace

}  // namespace tsuops::kernels::sampler

namespace tsu3 {

template <typename T>
void infer_top_p_renorm_probs(const T* x, T* y, const float* top_p_arr, float top_p, long m, long n) {
    if (m < 1 || n < 1) return;
    namespace sk = tsuops::kernels::sampler;
    T* const scratch = sk::scratch_of(x, y, m, n);
    const auto [first, last] = tsuops::kernels::core_share(m);
    for (long i = first; i < last; ++i) {
        const float pp = top_p_arr != nullptr ? top_p_arr[i] : top_p;
        sk::top_p_row(x + i * n, y + i * n, scratch ? scratch + i * n : nullptr, n, pp);
    }
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_top_p_renorm_probs)
TSU_KERNEL_INSTANCE(infer_top_p_renorm_probs, float)
TSU_KERNEL_INSTANCE(infer_top_p_renorm_probs, float16)
TSU_KERNEL_INSTANCE(infer_top_p_renorm_probs, bfloat16)
