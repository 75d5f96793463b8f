// One row of a normalisation kernel, for every element and weight type. A
// row is widened to float in chunks of C elements on the core's stack (a row
// of up to C elements is read from memory once), summed, then scaled and
// narrowed chunk by chunk. float rows are read and written where they are,
// with no staging.
#pragma once

#include <algorithm>
#include <type_traits>

#include <tsuops/float16.h>

#include "kernels/layer_norm/norm_loops.h"
#include "kernels/layer_norm/norm_numerics.h"

namespace tsuops::kernels::norm {

// Rows are staged in chunks of at most this many elements (32 KiB of floats
// per staged array): the usual hidden sizes fit one chunk, and a core's stack
// stays small whatever the row.
inline constexpr long kRowChunk = 8192;

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
template <typename T, long C>
using chunk_buf = float[is_float<T> ? 1 : C];

// The row statistics that a kernel may write out.
struct row_stats {
    float mean;
    float var;  // variance (layer norm) or mean square (RMS norm), without eps
    float rstd;
};

// The per-column weight and bias as floats. Every row of a core uses the
// same ones, so where a row fits one chunk they are widened once per core;
// longer rows widen them chunk by chunk.
template <typename TW, long C>
class row_weights {
public:
    row_weights(const TW* scale, const TW* bias, long n) : scale_(scale), bias_(bias), whole_(n <= C) {
        if (whole_) {
            if (scale_ != nullptr) ws_ = stage(scale_, wb_, n);
            if (bias_ != nullptr) bs_ = stage(bias_, bb_, n);
        }
    }
    row_weights(const row_weights&) = delete;
    row_weights& operator=(const row_weights&) = delete;

    // The weights of columns [o, o + len), or null where there are none.
    const float* scale(long o, long len) { return at(scale_, ws_, wb_, o, len); }
    const float* bias(long o, long len) { return at(bias_, bs_, bb_, o, len); }

private:
    const float* at(const TW* src, const float* whole, float* buf, long o, long len) {
        if (src == nullptr) return nullptr;
        return whole_ ? whole + o : stage(src + o, buf, len);
    }

    const TW* scale_;
    const TW* bias_;
    bool whole_;
    const float* ws_ = nullptr;
    const float* bs_ = nullptr;
    chunk_buf<TW, C> wb_;
    chunk_buf<TW, C> bb_;
};

// y = (x * r) * w + b for one row of n elements.
template <typename T, typename TW, long C>
row_stats rms_row(const T* x, T* y, long n, float eps, row_weights<TW, C>& weights) {
    chunk_buf<T, C> xb;
    const bool one_chunk = n <= C;
    float q = 0.0f;
    for (long o = 0; o < n; o += C) {
        const long len = std::min(C, n - o);
        q += sum_squares(stage(x + o, xb, len), len);
    }
    const float ms = q / static_cast<float>(n);
    const float r = infer_ops::norm::rstd_of(eps + ms);
    for (long o = 0; o < n; o += C) {
        const long len = std::min(C, n - o);
        const float* xs = (one_chunk && !is_float<T>) ? xb : stage(x + o, xb, len);
        if constexpr (is_float<T>) {
            rms_apply(xs, r, weights.scale(o, len), weights.bias(o, len), y + o, len);
        } else {
            rms_apply(xs, r, weights.scale(o, len), weights.bias(o, len), xb, len);
            infer_ops::narrow(xb, y + o, len);
        }
    }
    return {0.0f, ms, r};
}

// y = ((x - mean) * r) * w + b for one row of n elements.
template <typename T, typename TW, long C>
row_stats layer_row(const T* x, T* y, long n, float eps, row_weights<TW, C>& weights, bool plus_one) {
    chunk_buf<T, C> xb;
    const bool one_chunk = n <= C;
    float s = 0.0f;
    float q = 0.0f;
    for (long o = 0; o < n; o += C) {
        const long len = std::min(C, n - o);
        float cs = 0.0f;
        float cq = 0.0f;
        sum_and_squares(stage(x + o, xb, len), len, &cs, &cq);
        s += cs;
        q += cq;
    }
    const float fn = static_cast<float>(n);
    const float mean = s / fn;
    const float var = q / fn - mean * mean;
    const float r = infer_ops::norm::rstd_of(var + eps);
    for (long o = 0; o < n; o += C) {
        const long len = std::min(C, n - o);
        const float* xs = (one_chunk && !is_float<T>) ? xb : stage(x + o, xb, len);
        if constexpr (is_float<T>) {
            layer_apply(xs, mean, r, weights.scale(o, len), plus_one, weights.bias(o, len), y + o, len);
        } else {
            layer_apply(xs, mean, r, weights.scale(o, len), plus_one, weights.bias(o, len), xb, len);
            infer_ops::narrow(xb, y + o, len);
        }
    }
    return {mean, var, r};
}

}  // namespace tsuops::kernels::norm
