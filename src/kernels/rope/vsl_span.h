// Rotation of whole head spans in float, for the kernels of the rotary
// operators whose tables hold one cosine and one sine per element: the
// variable-length rotary embeddings and the fused attention front ends.
//
// A span is n consecutive elements of one head, paired either as adjacent
// elements (2i, 2i + 1) or as split halves (i, i + n / 2). c[e] and s[e] are
// the cosine and sine that output e uses. Every output is computed exactly as
// rotary.h computes it for one pair (first_of_pair / second_of_pair over the
// same products); the loops only put independent pairs side by side in
// vector lanes.
//
// Every file that includes this header must be compiled with floating
// contraction off, like rotary.h.
#pragma once

#include <algorithm>
#include <type_traits>

#include <tsuops/float16.h>

#include "kernels/rope/rotary.h"

namespace tsuops::kernels::vsl {

enum class Pairing { adjacent, split };

// Elements of a span that one pass takes: the table entries, the widened
// elements and the products of a pass all sit on the core's stack.
inline constexpr long kSpan = 512;

// The two products of every output: own[e] = x[e] * c[e] and cross[e] =
// x[partner of e] * s[e], each made the positive quiet NaN where NaN.
void products_adjacent(const float* x, const float* c, const float* s, float* own, float* cross, long n);
void products_split(const float* x, const float* c, const float* s, float* own, float* cross, long n);

// y from the products: own - cross for the first output of a pair, own +
// cross for the second.
void combine_adjacent(const float* own, const float* cross, float* y, long n);
void combine_split(const float* own, const float* cross, float* y, long n);

// Scratch of one pass: the products and, for the rounding rule, their
// 16-bit images.
template <typename T>
struct product_stage {
    float own[kSpan];
    float cross[kSpan];
    T bits[kSpan];
};

// v as T holds it, read back: the rounding of each product of a 16-bit
// tensor rotated against a table of its own type.
template <typename T>
void round_through(float* v, T* bits, long n) {
    infer_ops::narrow(v, bits, n);
    infer_ops::widen(bits, v, n);
}

// The stage a tensor of T needs (a float tensor never rounds its products
// and leaves the 16-bit images unused).
template <typename T>
using stage_of = product_stage<std::conditional_t<std::is_same_v<T, float>, float16, T>>;

// One span of at most kSpan elements by the rule of (T, TR): the products,
// rounded to T first where the rule says so, then their differences and
// sums. The two steps stay apart (separate functions) because GCC's
// vectoriser otherwise joins a product with the alternating subtract and
// add of the adjacent pairs into a fused multiply-add-subtract, whatever the
// contraction setting.
template <Pairing P, typename T, typename TR>
void rotate_span(const float* x, float* y, const float* c, const float* s, long n, stage_of<T>& st) {
    if constexpr (P == Pairing::adjacent) {
        products_adjacent(x, c, s, st.own, st.cross, n);
    } else {
        products_split(x, c, s, st.own, st.cross, n);
    }
    if constexpr (infer_ops::rope::rounds_products<T, TR>) {
        round_through(st.own, st.bits, n);
        round_through(st.cross, st.bits, n);
    }
    if constexpr (P == Pairing::adjacent) {
        combine_adjacent(st.own, st.cross, y, n);
    } else {
        combine_split(st.own, st.cross, y, n);
    }
}

// n table entries from p as floats.
template <typename TR>
void load_entries(const TR* p, float* out, long n) {
    if constexpr (std::is_same_v<TR, float>) {
        std::copy(p, p + n, out);
    } else {
        infer_ops::widen(p, out, n);
    }
}

// The cosines and sines that outputs [e0, e0 + n) of an adjacent-pairs head
// use in table row `row` (first row of the sequence plus the token): one
// entry each from a "NORMAL" row, one entry per pair, given to both of its
// outputs, from a "HALF_HEAD_DIM" row. e0 and n are even.
template <typename TR>
void load_adjacent_row(const TR* cos, const TR* sin, bool half_head_dim, long head_dim, long first, long j, long e0,
                       long n, float* c, float* s) {
    const long at = infer_ops::rope::adjacent_index(half_head_dim, head_dim, first, j, e0 / 2).p0;
    if (!half_head_dim) {
        load_entries(cos + at, c, n);
        load_entries(sin + at, s, n);
        return;
    }
    load_entries(cos + at, c, n / 2);
    load_entries(sin + at, s, n / 2);
    for (long e = n - 1; e >= 0; --e) {
        c[e] = c[e / 2];
        s[e] = s[e / 2];
    }
}

}  // namespace tsuops::kernels::vsl
