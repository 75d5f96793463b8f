// A row of the renormalising samplers seen in float, one chunk at a time:
// float rows are read in place, half rows widened into a buffer of the
// kernel's own. And the part of a row that its search still looks at.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>

#include <tsuops/float16.h>

#include "frame/convert.h"

#include "kernels/sampler/renorm_search.h"

namespace tsuops::kernels::sampler {

template <typename T>
class row_chunks {
public:
    row_chunks(const T* row, long n) : row_(row), n_(n) {}

    // f(values, len, first column) for each chunk in column order.
    template <class F>
    void each(F f) {
        for (long c = 0; c < n_; c += kChunk) {
            const long len = std::min(kChunk, n_ - c);
            if constexpr (std::is_same_v<T, float>) {
                f(row_ + c, len, c);
            } else {
                infer_ops::widen(row_ + c, buf_, len);
                f(static_cast<const float*>(buf_), len, c);
            }
        }
    }

private:
    const T* row_;
    long n_;
    float buf_[std::is_same_v<T, float> ? 1 : kChunk];
};

// The values of a row that its search still looks at, in column order: the
// row itself, until low has risen so far that at most half of them lie
// above it; then only those, copied into the row's output, which the
// search may use until the results are written (scratch is null where the
// output overlaps the input).
//
// Every bound of a later pass (low, high, p0, p1, and the start float(low)
// of the greatest value at most high) stays at or above below(min(low,
// high)) of the pass that dropped a value at or below it, so such a value
// never passes a comparison again and never displaces a start. That holds
// while the bounds are finite and low <= high, the only time a set shrinks.
template <typename T>
struct working_set {
    const T* values;
    long len;
    T* scratch;

    // After a pass that set low, with `above` values of the set above it.
    void shrink(double low, double high, long above) {
        if (scratch == nullptr || !std::isfinite(low) || !std::isfinite(high) || low > high || above > len / 2) return;
        const float bound = below(low);
        long kept = 0;
        for (long i = 0; i < len; ++i) {
            if (infer_ops::convert::to_float(values[i]) > bound) scratch[kept++] = values[i];
        }
        values = scratch;
        len = kept;
    }
};

// Whether the output of m rows of n may serve as the search's scratch: not
// when it overlaps the input anywhere, since other cores read their rows.
template <typename T>
T* scratch_of(const T* x, T* y, long m, long n) {
    const auto a = reinterpret_cast<std::uintptr_t>(x), b = reinterpret_cast<std::uintptr_t>(y);
    const auto bytes = static_cast<std::uintptr_t>(m * n) * sizeof(T);
    return a + bytes <= b || b + bytes <= a ? y : nullptr;
}

// y[0, len) = T(v) of the float results, by the type's plain conversion.
template <typename T>
void store(const float* v, T* y, long len) {
    if constexpr (std::is_same_v<T, float>) {
        std::copy(v, v + len, y);
    } else {
        infer_ops::narrow(v, y, len);
    }
}

}  // namespace tsuops::kernels::sampler
