// The variable-length rotary embeddings written out from their definition,
// independently of the library's helpers: the tests of the operators and of
// the front ends that compose them compare against this.
//
// Includers compile with floating contraction off.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include <tsuops/float16.h>

namespace vsl_model {

inline float canon(float v) { return std::isnan(v) ? std::numeric_limits<float>::quiet_NaN() : v; }

template <class T>
constexpr bool is_half = std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>;

// One pair: y0 = c0 x0 - s0 x1, y1 = x0 s1 + x1 c1. A 16-bit tensor against a
// table of its own type rounds each product to it first.
template <class T, class TR>
std::pair<T, T> rotate(float x0, float x1, float c0, float s0, float c1, float s1) {
    if constexpr (is_half<T> && std::is_same_v<T, TR>) {
        const auto r = [](float v) { return static_cast<float>(T(canon(v))); };
        return {T(canon(r(c0 * x0) - r(s0 * x1))), T(canon(r(x0 * s1) + r(x1 * c1)))};
    } else {
        return {T(canon(c0 * x0 - s0 * x1)), T(canon(x0 * s1 + x1 * c1))};
    }
}

// Sequences as the operators take them, with the table's shape.
struct Sequences {
    std::vector<int> lod;
    std::vector<int> positions;  // empty or one per sequence
    long rope_batch;
    long rope_max_seqlen;

    long batch() const { return static_cast<long>(lod.size()) - 1; }
    long first_row(long b) const {
        return (rope_batch != 1 ? rope_max_seqlen * b : 0) + (positions.empty() ? 0 : positions[b]);
    }
};

// First element of head h of token j of sequence b, heads of d elements.
inline long row_of(const Sequences& s, long b, long j, long h, long heads, long d, bool bhld) {
    const long start = s.lod[b], tokens = s.lod[b + 1] - s.lod[b];
    return bhld ? start * heads * d + h * tokens * d + j * d : (start + j) * heads * d + h * d;
}

// Adjacent pairs of every head; "HALF_HEAD_DIM" rows hold one entry per
// pair. Elements that no pair covers keep their value.
template <class T, class TR>
std::vector<T> gptj(const std::vector<T>& x, const std::vector<TR>& table, const Sequences& s, long heads, long d,
                    bool bhld, bool half) {
    std::vector<T> y = x;
    const long rows = s.rope_batch * s.rope_max_seqlen;
    const TR* cos = table.data();
    const TR* sin = cos + (half ? rows * d / 2 : rows * d);
    for (long b = 0; b < s.batch(); ++b) {
        const long first = s.first_row(b);
        for (long j = 0; j < s.lod[b + 1] - s.lod[b]; ++j) {
            for (long h = 0; h < heads; ++h) {
                const long at = row_of(s, b, j, h, heads, d, bhld);
                for (long i = 0; i < d / 2; ++i) {
                    const long p0 = half ? first * d / 2 + j * (d / 2) + i : (first + j) * d + 2 * i;
                    const long p1 = half ? p0 : p0 + 1;
                    const auto [a, c] = rotate<T, TR>(float(x[at + 2 * i]), float(x[at + 2 * i + 1]), float(cos[p0]),
                                                      float(sin[p0]), float(cos[p1]), float(sin[p1]));
                    y[at + 2 * i] = a;
                    y[at + 2 * i + 1] = c;
                }
            }
        }
    }
    return y;
}

// Split halves of the first (tail: last) rotary_dim elements of every head,
// "BLHD"; the rest of a head keeps its value.
template <class T, class TR>
std::vector<T> neox(const std::vector<T>& x, const std::vector<TR>& table, const Sequences& s, long heads, long d,
                    long rd, bool tail) {
    std::vector<T> y = x;
    const TR* cos = table.data();
    const TR* sin = cos + s.rope_batch * s.rope_max_seqlen * rd;
    for (long b = 0; b < s.batch(); ++b) {
        for (long j = 0; j < s.lod[b + 1] - s.lod[b]; ++j) {
            const long row = (s.first_row(b) + j) * rd;
            for (long h = 0; h < heads; ++h) {
                const long at = row_of(s, b, j, h, heads, d, false) + (tail ? d - rd : 0);
                for (long i = 0; i < rd / 2; ++i) {
                    const long i1 = i + rd / 2;
                    const auto [a, c] = rotate<T, TR>(float(x[at + i]), float(x[at + i1]), float(cos[row + i]),
                                                      float(sin[row + i]), float(cos[row + i1]), float(sin[row + i1]));
                    y[at + i] = a;
                    y[at + i1] = c;
                }
            }
        }
    }
    return y;
}

}  // namespace vsl_model
