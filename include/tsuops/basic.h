// Tensor basics.
#pragma once

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops {

using orvane::tsu::api::Context;

// x[i] = value for i in [0, len).
template <typename T>
int constant(Context* ctx, T* x, long len, T value);

// y[i] = x[i] for i in [0, len). Nothing happens when x equals y, on any
// device type.
template <typename T>
int copy(Context* ctx, const T* x, T* y, long len);

// z = x + y elementwise over m * n elements, summed in float. A bfloat16 sum
// rounds ties away from zero whatever the bfloat16 mode. The last argument
// is not read.
template <typename T>
int add(Context* ctx, const T* x, const T* y, T* z, long m, long n, bool);

// y[i] = x[i] converted from TX to TY, through a 32-bit intermediate (a float
// or an int). A host context whose sim_dev_type is 3 behaves like the device:
// 8-bit integer results saturate instead of wrapping, and bfloat16 results
// round ties away from zero. Every ordered pair of float, float16, bfloat16,
// bool, signed char, short, int, long, unsigned char and double.
template <typename TX, typename TY>
int cast(Context* ctx, const TX* x, TY* y, long len);

// Sorts each of m rows of n and gives, beside each sorted element, the column
// of x it came from: index[r * n + k] is the column in row r of y[r * n + k].
// Integers compare by value. Floating keys compare by value with -0 equal to
// +0; a NaN with the sign bit clear ranks above +inf, one with the sign bit
// set below -inf, and NaNs of one sign are equal. Equal keys keep their
// column order, ascending or descending. m * n must be at least 1 (the sizes
// are not checked one by one); x must not overlap y or index. On the device,
// float16 and bfloat16 rows longer than 8192 are sorted as floats and narrowed
// back, so those y lose what the narrowing loses (subnormal float16 values in
// the default mode, bfloat16 NaN payloads); index is exact on every path.
// T is float, float16, bfloat16, int or long; I is int or long.
template <typename T, typename I>
int sort(Context* ctx, const T* x, T* y, I* index, long m, long n, bool descending);

}  // namespace infer_ops

#include <vector>

namespace infer_ops {

// y = x with its dimensions permuted: y is row-major with dimension i of
// length shape[perm[i]]. perm is a permutation of 0 .. rank - 1; x and y must
// differ, even for the identity. The elements move as bits, so every type of
// one size shares the device's kernels. float, float16, bfloat16, int,
// signed char, short, long, unsigned char and bool.
template <typename T>
int transpose(Context* ctx, const T* x, T* y, const std::vector<long>& shape, const std::vector<long>& perm);

}  // namespace infer_ops
