// The arithmetic of the split-halves rotary embedding, shared by the host
// reference paths and the kernels of every rotary operator that rotates with
// one float rounding per output: the rotation of one pair and the access to
// a row of a cos/sin table.
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

// (x * cos - y * sin, y * cos + x * sin): each product rounded to float,
// then the difference and the sum, in that order.
[[gnu::always_inline]] inline pair rotate(float x, float y, float c, float s) {
    const float xc = x * c;
    const float ys = y * s;
    const float yc = y * c;
    const float xs = x * s;
    return {one_nan(xc - ys), one_nan(yc + xs)};
}

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

}  // namespace infer_ops::rope
