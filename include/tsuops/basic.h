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
