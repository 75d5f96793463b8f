// The arithmetic of the rotary embeddings, shared by the host reference
// paths and the kernels of every rotary operator: the rotation of one pair
// (with one float rounding per output, or with the products rounded to a
// 16-bit tensor's type first), the access to a row of a split-halves cos/sin
// table, and the rows and entries of the tables with one entry per element.
//
// Every file that includes this header must be compiled with floating
// contraction off (#pragma GCC optimize("fp-contract=off") before any
// include): the two products and their difference are three roundings, and a
// fused multiply-add would make them two.
#pragma once

#include <limits>
#include <type_traits>

#include <tsuops/float16.h>

#include "frame/convert.h"

namespace infer_ops::rope {

// One rotated pair: element k of a head and element k + embed_dim.
struct pair {
    float x;
    float y;
};

// Every NaN result as the one quiet NaN of positive sign. Where both operands
// of a product or sum are NaN, the hardware passes on one of them, and which
// one follows the operand order that the compiler happened to pick for that
// loop; a single NaN keeps the host and the kernels in agreement.
[[gnu::always_inline]] inline float one_nan(float v) {
    return v != v ? std::numeric_limits<float>::quiet_NaN() : v;
}

// The two outputs of a pair from their products: the first is its own
// element by its cosine less the partner by its sine, the second its own
// element by its cosine plus the partner by its sine.
[[gnu::always_inline]] inline float first_of_pair(float own, float cross) { return one_nan(own - cross); }
[[gnu::always_inline]] inline float second_of_pair(float own, float cross) { return one_nan(own + cross); }

// (x * c0 - y * s0, y * c1 + x * s1): each product rounded to float, then
// the difference and the sum. Tables with one entry per element give each
// output of a pair its own cosine and sine; the split-halves table of one
// entry per pair passes the same pair twice.
[[gnu::always_inline]] inline pair rotate(float x, float y, float c0, float s0, float c1, float s1) {
    const float xc = x * c0;
    const float ys = y * s0;
    const float yc = y * c1;
    const float xs = x * s1;
    return {first_of_pair(xc, ys), second_of_pair(yc, xs)};
}

// (x * cos - y * sin, y * cos + x * sin).
[[gnu::always_inline]] inline pair rotate(float x, float y, float c, float s) { return rotate(x, y, c, s, c, s); }

// The cosines and sines of one table row; each has embed_dim entries.
template <typename TCS>
struct cos_sin {
    const TCS* cos;
    const TCS* sin;
};

// Row `position` of a table whose rows hold rotary_dim / 2 cosines, then as
// many sines. The position is widened with its sign.
template <typename TCS, typename TID>
[[gnu::always_inline]] inline cos_sin<TCS> table_row(const TCS* table, TID position, long rotary_dim) {
    static_assert(std::is_same_v<TID, int> || std::is_same_v<TID, long>);
    const TCS* row = table + static_cast<long>(position) * rotary_dim;
    return {row, row + rotary_dim / 2};
}

// An element as float, exactly.
template <typename T>
[[gnu::always_inline]] inline float to_float(T v) {
    return convert::widen(v);
}

// A result narrowed to the tensor's type once, at the store: float16(f),
// bfloat16(f) with the default rounding of its mode, float unchanged.
template <typename T>
[[gnu::always_inline]] inline T store(float v) {
    return convert::from_float<T, false>(v);
}

// ---- tables of one entry per element --------------------------------------------------------
// A 16-bit tensor rotated against a table of its own type rounds every
// product to that type and then the difference or sum once more: three
// roundings per output. Any other pairing computes in float and rounds once,
// at the store.
template <typename T, typename TR>
inline constexpr bool rounds_products =
    std::is_same_v<T, TR> && (std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>);

// A product as the tensor's type holds it, read back as float.
template <typename T>
[[gnu::always_inline]] inline float rounded(float v) {
    return to_float(store<T>(one_nan(v)));
}

// One pair by the rule of (T, TR): the outputs are floats that the store
// narrows to T once more (exactly, where the products were rounded).
template <typename T, typename TR>
[[gnu::always_inline]] inline pair rotate_pair(float x, float y, float c0, float s0, float c1, float s1) {
    if constexpr (rounds_products<T, TR>) {
        return {first_of_pair(rounded<T>(x * c0), rounded<T>(y * s0)),
                second_of_pair(rounded<T>(y * c1), rounded<T>(x * s1))};
    } else {
        return rotate(x, y, c0, s0, c1, s1);
    }
}

// The words of the table styles of the element-wise tables.
inline constexpr const char* kNormal = "NORMAL";
inline constexpr const char* kHalfHeadDim = "HALF_HEAD_DIM";

// The first table row of a sequence: with one table per sequence
// (rope_batch other than 1) the sequence's own block of rope_max_seqlen
// rows, then its first position (0 without positions). Token j of the
// sequence reads row first_row + j.
inline long first_row(long rope_batch, long rope_max_seqlen, long b, long position) {
    return (rope_batch != 1 ? rope_max_seqlen * b : 0) + position;
}

// Where the adjacent-pairs form finds the cosine and sine of each output of
// pair i of token j: a "NORMAL" row holds one entry per element of the head
// (head_dim entries), a "HALF_HEAD_DIM" row one per pair, shared by both
// outputs. `first` is the sequence's first row.
struct table_index {
    long p0;
    long p1;
};

[[gnu::always_inline]] inline table_index adjacent_index(bool half_head_dim, long head_dim, long first, long j,
                                                          long i) {
    if (half_head_dim) {
        const long p = first * head_dim / 2 + j * (head_dim / 2) + i;
        return {p, p};
    }
    const long p = first * head_dim + j * head_dim + 2 * i;
    return {p, p + 1};
}

// The split-halves table of one entry per element: rows of rotary_dim
// entries; output i of a pair takes entry i, its partner i + rotary_dim / 2.
[[gnu::always_inline]] inline table_index split_index(long rotary_dim, long first, long j, long i) {
    const long p = (first + j) * rotary_dim + i;
    return {p, p + rotary_dim / 2};
}

// Entries of one table plane: rows of head_dim entries, or half that.
inline long adjacent_plane(bool half_head_dim, long rows, long head_dim) {
    return half_head_dim ? rows * head_dim / 2 : rows * head_dim;
}

}  // namespace infer_ops::rope
