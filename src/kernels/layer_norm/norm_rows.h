// A group of up to kGroup rows of a normalisation kernel, for every element
// and weight type. The rows' sums run side by side, one row per vector lane,
// each in element order; then each row is scaled with contiguous vector loops
// (read a second time while the group is still in cache) and narrowed in
// bulk.
#pragma once

#include <algorithm>
#include <type_traits>
#include <utility>

#include <tsuops/float16.h>

#include "kernels/grid.h"
#include "kernels/layer_norm/norm_loops.h"
#include "kernels/layer_norm/norm_numerics.h"

namespace tsuops::kernels::norm {

using infer_ops::norm::row_stats;

// Elements scaled and narrowed at a time: a chunk of floats that stays in the
// first-level cache between the two.
inline constexpr long kRowChunk = 512;

template <typename T>
inline constexpr bool is_float = std::is_same_v<T, float>;

// The sums of `rows` rows of n elements at a distance of n from x, into
// s[0..rows) and q[0..rows); s may be null (RMS norm). The lanes past `rows`
// repeat the first row and are dropped.
template <typename T>
void group_row_sums(const T* x, long rows, long n, float* s, float* q) {
    float ls[kGroup] = {};
    float lq[kGroup] = {};
    const T* lanes[kGroup];
    for (int r = 0; r < kGroup; ++r) lanes[r] = x + (r < rows ? r : 0) * n;
    group_sums(lanes, n, s != nullptr ? ls : nullptr, lq);
    for (long r = 0; r < rows; ++r) {
        if (s != nullptr) s[r] = ls[r];
        q[r] = lq[r];
    }
}

// The per-column weight and bias of a kernel call as floats, the weight plus
// one where asked (added in float, as the reference does). Rows of up to
// kWholeRow elements have them widened once per core, so that the scale pass
// runs row after row, one stream in and one out; longer rows widen them chunk
// by chunk, and scale the rows of a group chunk by chunk.
inline constexpr long kWholeRow = 8192;

template <typename TW>
class row_weights {
public:
    row_weights(const TW* scale, const TW* bias, long n, bool plus_one)
        : scale_(scale), bias_(bias), plus_one_(plus_one), whole_(n <= kWholeRow) {
        if (whole_) {
            ws_ = widened(scale_, 0, n, plus_one_, wb_);
            bs_ = widened(bias_, 0, n, false, bb_);
        }
    }
    row_weights(const row_weights&) = delete;
    row_weights& operator=(const row_weights&) = delete;

    // Columns scaled at a time.
    long chunk(long n) const { return whole_ ? n : kRowChunk; }

    // The weights and biases of columns [o, o + len), null where there are none.
    std::pair<const float*, const float*> at(long o, long len) {
        if (whole_) return {ws_ ? ws_ + o : nullptr, bs_ ? bs_ + o : nullptr};
        return {widened(scale_, o, len, plus_one_, wb_), widened(bias_, o, len, false, bb_)};
    }

private:
    static const float* widened(const TW* src, long o, long len, bool plus_one, float* buf) {
        if (src == nullptr) return nullptr;
        if constexpr (is_float<TW>) {
            if (!plus_one) return src + o;
            for (long j = 0; j < len; ++j) buf[j] = src[o + j] + 1.0f;
        } else {
            infer_ops::widen(src + o, buf, len);
            if (plus_one) {
                for (long j = 0; j < len; ++j) buf[j] = buf[j] + 1.0f;
            }
        }
        return buf;
    }

    const TW* scale_;
    const TW* bias_;
    bool plus_one_;
    bool whole_;
    const float* ws_ = nullptr;
    const float* bs_ = nullptr;
    float wb_[kWholeRow];
    float bb_[kWholeRow];
};

// The scale pass of a group: each row's chunk is scaled by scale_fn(row, x,
// w, b, out, len) into y (float rows) or into a chunk that is narrowed into y.
template <typename T, typename TW, class Scale>
void group_scale(const T* x, T* y, long rows, long n, row_weights<TW>& weights, Scale scale_fn) {
    float xb[kRowChunk];
    const long chunk = weights.chunk(n);
    for (long o = 0; o < n; o += chunk) {
        const long len = std::min(chunk, n - o);
        const auto [w, b] = weights.at(o, len);
        for (long r = 0; r < rows; ++r) {
            if constexpr (is_float<T>) {
                scale_fn(r, x + r * n + o, w, b, y + r * n + o, len);
            } else {
                for (long k = 0; k < len; k += kRowChunk) {
                    const long part = std::min(kRowChunk, len - k);
                    scale_fn(r, x + r * n + o + k, w + (w ? k : 0), b + (b ? k : 0), xb, part);
                    infer_ops::narrow(xb, y + r * n + o + k, part);
                }
            }
        }
    }
}

// y = (x * r) * w + b for `rows` rows; their statistics into st.
template <typename T, typename TW>
void rms_group(const T* x, T* y, long rows, long n, float eps, row_weights<TW>& weights, row_stats* st) {
    float q[kGroup];
    group_row_sums(x, rows, n, static_cast<float*>(nullptr), q);
    for (long r = 0; r < rows; ++r) st[r] = infer_ops::norm::rms_stats(q[r], n, eps);
    group_scale(x, y, rows, n, weights,
                [st](long r, const T* xs, const float* w, const float* b, float* out, long len) {
                    rms_scale(xs, st[r].rstd, w, b, out, len);
                });
}

// y = ((x - mean) * r) * w + b for `rows` rows; their statistics into st.
template <typename T, typename TW>
void layer_group(const T* x, T* y, long rows, long n, float eps, row_weights<TW>& weights, row_stats* st) {
    float s[kGroup];
    float q[kGroup];
    group_row_sums(x, rows, n, s, q);
    for (long r = 0; r < rows; ++r) st[r] = infer_ops::norm::layer_stats(s[r], q[r], n, eps);
    group_scale(x, y, rows, n, weights,
                [st](long r, const T* xs, const float* w, const float* b, float* out, long len) {
                    layer_scale(xs, st[r].mean, st[r].rstd, w, b, out, len);
                });
}

// This core's rows in groups: each core takes whole groups, so no two cores
// share one. group(i, rows, weights, stats) handles rows [i, i + rows);
// out(i, stats) then sees the statistics of row i.
template <typename TW, class Group, class Out>
void over_groups(long m, long n, const TW* scale, const TW* bias, bool plus_one, Group group, Out out) {
    const auto [b, e] = core_share(m, kGroup);
    if (b == e) return;
    row_weights<TW> weights(scale, bias, n, plus_one);
    row_stats st[kGroup];
    for (long i = b; i < e; i += kGroup) {
        const long rows = std::min<long>(kGroup, e - i);
        group(i, rows, weights, st);
        for (long r = 0; r < rows; ++r) out(i + r, st[r]);
    }
}

}  // namespace tsuops::kernels::norm
