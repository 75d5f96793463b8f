// The search of a row is driven by counts alone, so a pass needs no sum:
// the kernel takes the row's sum once, after the search, over the values
// above the final low. That is the sum the reference kept from the pass
// that set low (the values above the same double bound, in the same
// order), and 1.0f when no pass lifted low.
#pragma GCC optimize("fp-contract=off")

#include "kernels/sampler/top_k_renorm_probs.h"

#include <algorithm>
#include <cmath>

#include "kernels/grid.h"
#include "kernels/sampler/renorm_rows.h"
#include "kernels/sampler/renorm_search.h"

namespace tsuops::kernels::sampler {

namespace {

template <typename T>
void top_k_row(const T* x, T* y, T* scratch, long n, long kk) {
    row_chunks<T> row(x, n);
    double pivot = -10000.0, norm = 1.0;
    if (kk < n) {
        float mx = -INFINITY;
        row.each([&](const float* v, long len, long) { mx = max_of(v, len, mx); });
        double high = mx, low = 0.0;
        bool lifted = false;
        working_set<T> set{x, n, scratch};
        for (int pass = 0; pass < kMaxSearchPasses; ++pass) {
            const double p0 = (low + low + high) / 3.0, p1 = (high + high + low) / 3.0;
            const bounds b{below(low), below(high), below(p0), below(p1)};
            tally acc{static_cast<float>(high), static_cast<float>(low), 0, 0, 0.0f, 0.0f};
            row_chunks<T>(set.values, set.len).each([&](const float* v, long len, long) {
                tally_counts(v, len, b, acc);
            });
            if (kk <= acc.c1) {
                low = p1;
                lifted = true;
                set.shrink(low, high, acc.c1);
            } else if (kk <= acc.c0) {
                high = std::min(static_cast<double>(acc.max_le_high), p1);
                low = p0;
                lifted = true;
                set.shrink(low, high, acc.c0);
            } else {
                high = std::min(static_cast<double>(acc.max_le_high), p0);
            }
            if (acc.min_gt_low == acc.max_le_high) break;
        }
        float sum_low = 1.0f;
        if (lifted) {
            const float lowf = below(low);
            sum_low = 0.0f;
            row_chunks<T>(set.values, set.len).each([&](const float* v, long len, long) {
                sum_low = sum_above(v, len, lowf, sum_low);
            });
        }
        pivot = low;
        norm = 1.0 / std::max(static_cast<double>(sum_low), 1e-8);
    }
    const float pivotf = below(pivot);
    float out[kChunk];
    row.each([&](const float* v, long len, long c) {
        for (long j = 0; j < len; ++j) {
            out[j] = v[j] > pivotf ? static_cast<float>(static_cast<double>(v[j]) * norm) : 0.0f;
        }
        store(out, y + c, len);
    });
}

}  // namespace

}  // namespace tsuops::kernels::sampler

namespace tsu3 {

template <typename T, typename TK>
void infer_top_k_renorm_probs(const T* probs, T* renormed_probs, long m, long n, long k, const TK* top_k_arr) {
    if (m < 1 || n < 1) return;
    namespace sk = tsuops::kernels::sampler;
    T* const scratch = sk::scratch_of(probs, renormed_probs, m, n);
    const auto [first, last] = tsuops::kernels::core_share(m);
    for (long i = first; i < last; ++i) {
        const long kk = top_k_arr != nullptr ? static_cast<long>(top_k_arr[i]) : k;
        sk::top_k_row(probs + i * n, renormed_probs + i * n, scratch ? scratch + i * n : nullptr, n, kk);
    }
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_top_k_renorm_probs)
TSU_KERNEL_INSTANCE(infer_top_k_renorm_probs, float, int)
TSU_KERNEL_INSTANCE(infer_top_k_renorm_probs, float16, int)
TSU_KERNEL_INSTANCE(infer_top_k_renorm_probs, bfloat16, int)
