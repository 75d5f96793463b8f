// A group of up to kGroup rows of a normalisation kernel, for every element
// and weight type. The rows' sums run side by side, one row per vector lane,
// each in element order; then each row is scaled with contiguous vector loops.
// 16-bit rows are widened to float in chunks on the core's stack (twice: for
// the sums and for the scale pass, while the group is still in cache); float
// rows are read and written where they are.
#pragma once

#include <algorithm>
#include <type_traits>

#include <tsuops/float16.h>

#include "kernels/grid.h"
#include "kernels/layer_norm/norm_loops.h"
#include "kernels/layer_norm/norm_numerics.h"

namespace tsuops::kernels::norm {

using infer_ops::norm::row_stats;

// Elements of a row widened at a time: kGroup rows of them stay in the
// first-level cache between the widening and the sums.
inline constexpr long kRowChunk = 512;

template <typename T>
inline constexpr bool is_float = std::is_same_v<T, float>;

// The n elements at src as floats: src itself for float, else widened into buf.
template <typename T>
const float* stage(const T* src, float* buf, long n) {
    if constexpr (is_float<T>) {
        return src;
    } else {
        infer_ops::widen(src, buf, n);
        return buf;
    }
}

// Space for one chunk, or a placeholder where the type needs no staging.
template <typename T>
using chunk_buf = float[is_float<T> ? 1 : kRowChunk];

// The sums of `rows` rows of n elements at a distance of n from x, into
// s[0..rows) and q[0..rows); s may be null (RMS norm). The lanes past `rows`
// repeat the first row and are dropped.
template <typename T>
void group_row_sums(const T* x, long rows, long n, float* s, float* q) {
    float ls[kGroup] = {};
    float lq[kGroup] = {};
    const float* lanes[kGroup];
    const auto sums = [&](long len) {
        if (s != nullptr) {
            group_sums(lanes, len, ls, lq);
        } else {
            group_squares(lanes, len, lq);
        }
    };
    if constexpr (is_float<T>) {
        for (int r = 0; r < kGroup; ++r) lanes[r] = x + (r < rows ? r : 0) * n;
        sums(n);
    } else {
        float stage_buf[kGroup][kRowChunk];
        for (long o = 0; o < n; o += kRowChunk) {
            const long len = std::min(kRowChunk, n - o);
            for (int r = 0; r < kGroup; ++r) lanes[r] = r < rows ? stage(x + r * n + o, stage_buf[r], len) : lanes[0];
            sums(len);
        }
    }
    for (long r = 0; r < rows; ++r) {
        if (s != nullptr) s[r] = ls[r];
        q[r] = lq[r];
    }
}

// The scale pass of a group: for each chunk of columns the weights are
// widened once, then each row's chunk is scaled by apply(row, xs, w, b, out,
// len) and narrowed.
template <typename T, typename TW, class Apply>
void group_scale(const T* x, T* y, long rows, long n, const TW* scale, const TW* bias, Apply apply) {
    chunk_buf<T> xb;
    chunk_buf<TW> wb;
    chunk_buf<TW> bb;
    // float rows need no staging, so they are taken whole.
    const long chunk = is_float<T> && is_float<TW> ? n : kRowChunk;
    for (long o = 0; o < n; o += chunk) {
        const long len = std::min(chunk, n - o);
        const float* w = scale != nullptr ? stage(scale + o, wb, len) : nullptr;
        const float* b = bias != nullptr ? stage(bias + o, bb, len) : nullptr;
        for (long r = 0; r < rows; ++r) {
            const float* xs = stage(x + r * n + o, xb, len);
            if constexpr (is_float<T>) {
                apply(r, xs, w, b, y + r * n + o, len);
            } else {
                apply(r, xs, w, b, xb, len);
                infer_ops::narrow(xb, y + r * n + o, len);
            }
        }
    }
}

// y = (x * r) * w + b for `rows` rows; their statistics into st.
template <typename T, typename TW>
void rms_group(const T* x, T* y, long rows, long n, float eps, const TW* scale, const TW* bias, row_stats* st) {
    float q[kGroup];
    group_row_sums(x, rows, n, static_cast<float*>(nullptr), q);
    for (long r = 0; r < rows; ++r) st[r] = infer_ops::norm::rms_stats(q[r], n, eps);
    group_scale(x, y, rows, n, scale, bias, [st](long r, const float* xs, const float* w, const float* b, float* out,
                                                 long len) { rms_apply(xs, st[r].rstd, w, b, out, len); });
}

// y = ((x - mean) * r) * w + b for `rows` rows; their statistics into st.
template <typename T, typename TW>
void layer_group(const T* x, T* y, long rows, long n, float eps, const TW* scale, const TW* bias, bool plus_one,
                 row_stats* st) {
    float s[kGroup];
    float q[kGroup];
    group_row_sums(x, rows, n, s, q);
    for (long r = 0; r < rows; ++r) st[r] = infer_ops::norm::layer_stats(s[r], q[r], n, eps);
    group_scale(x, y, rows, n, scale, bias,
                [st, plus_one](long r, const float* xs, const float* w, const float* b, float* out, long len) {
                    layer_apply(xs, st[r].mean, st[r].rstd, w, plus_one, b, out, len);
                });
}

// This core's rows in groups: each core takes whole groups, so no two cores
// share one. group(i, rows, stats) handles rows [i, i + rows); out(i, stats)
// then sees the statistics of row i.
template <class Group, class Out>
void over_groups(long m, Group group, Out out) {
    const auto [b, e] = core_share(m, kGroup);
    row_stats st[kGroup];
    for (long i = b; i < e; i += kGroup) {
        const long rows = std::min<long>(kGroup, e - i);
        group(i, rows, st);
        for (long r = 0; r < rows; ++r) out(i + r, st[r]);
    }
}

}  // namespace tsuops::kernels::norm
