// Host reference primitives: the small routines the reference paths stand on.
//
// They run no operator frame (no guard, no dump, no region). The context is
// read only for its device type and for logging. Everything computes in
// float (double where noted) and narrows once at the end, so results agree
// across element types. Unless noted a routine returns 0 on success.
//
// Host-only routines refuse a context whose device type is not 0 with
// `_log_unimplement` and status 4; `quantization` refuses it with status 1
// and no log. Routines not marked host-only never look at the device type.
// Every routine that reads the context (all but the elementwise ones and
// partition) returns 1 at once, without a log, for a null context.
#pragma once

#include <vector>

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops::cpu_ops {

using orvane::tsu::api::Context;

// z = x + y elementwise over len elements (broadcast_op<T, 0> of two {len}
// shapes). z may be x or y.
template <typename T>
int add(Context* ctx, const T* x, const T* y, T* z, long len);

// z = x * y elementwise (broadcast_op<T, 1> of two {len} shapes).
template <typename T>
int mul(Context* ctx, const T* x, const T* y, T* z, long len);

template <typename T>
int broadcast_add(Context* ctx, const T* x, const T* y, T* z, const std::vector<long>& xshape,
                  const std::vector<long>& yshape);

template <typename T>
int broadcast_mul(Context* ctx, const T* x, const T* y, T* z, const std::vector<long>& xshape,
                  const std::vector<long>& yshape);

// CAL_TYPE 0 adds, 1 multiplies. The shorter shape is padded with leading
// 1s; the output shape takes the larger dimension at each position and an
// input of dimension 1 repeats along it. Each element is widened to float,
// combined in single precision and narrowed with the plain constructor.
// Dimensions are not checked for agreement: the caller passes shapes that
// broadcast.
template <typename T, int CAL_TYPE>
int broadcast_op(Context* ctx, const T* x, const T* y, T* z, const std::vector<long>& xshape,
                 const std::vector<long>& yshape);

// Joins xs along `axis` into y.
//   status 1 (compare check): no input, xs and shapes of different counts,
//     axis negative (never wrapped) or not below the rank of shapes[0];
//   a single input: the operator copy<T> of the whole tensor, on any device;
//   status 4 (_log_unimplement): an input that differs from shapes[0] in
//     rank or in a dimension other than axis, or is negative along axis; or
//     a device context.
// Nothing is written on any failure.
template <typename T>
int concat(Context* ctx, const std::vector<const T*>& xs, T* y, const std::vector<std::vector<long>>& shapes,
           long axis);

// Host-only. Row r copies cols elements from x + r * x_stride to
// y + r * y_stride; rows below 1 does nothing.
template <typename T>
int copy2d(Context* ctx, const T* x, T* y, long rows, long x_stride, long y_stride, long cols);

// Host-only. *out = the largest absolute value of x, starting from 0 (so 0
// for len below 1); a NaN element never wins.
template <typename T>
int findmax(Context* ctx, const T* x, float* out, long len);

// Host-only. Gathers along axis (negative: the rank is added; still outside
// the rank: compare check, status 1). The output shape is xshape with
// index_len at axis; an empty output returns 0 with nothing written. An
// index below 0 has xshape[axis] added; one still outside [0, xshape[axis])
// gives a zero element.
template <typename T, typename I>
int gather(Context* ctx, const T* x, const I* index, T* y, const std::vector<long>& xshape, long index_len,
           long axis);

// The share [*begin, *end) of worker tid among nthreads over [0, len) in
// whole units of `unit`: ceil(len / unit) blocks, dealt out evenly with the
// first (blocks % nthreads) workers taking one block more, the last block
// possibly short. Workers past the blocks, a unit below 1, a len below 1 or
// nthreads below 1 get an empty range (at min(0, len) for the last three).
template <typename T>
void partition(int tid, int nthreads, T len, int unit, T* begin, T* end);

// Symmetric fixed-point quantisation of len elements against the scale
// float *maxptr, or, with maxptr null, the absolute maximum of x from the
// floor 1e-30. Q = signed char or short: 127 or 32767 steps (rule Q8 and its
// 16-bit form). Q = int (T = float only): 2^30 steps saturating at
// +-(2^30 - 1), written as two planes of 16-bit words: word i holds the low
// 15 bits of element i, word len + i the element shifted right by 15.
// A device context gives status 1 without a log.
template <typename T, typename Q>
int quantization(Context* ctx, const T* x, Q* y, long len, const float* maxptr);

// Host-only. bias_after: y = x * alpha + beta; otherwise y = (x + beta) * alpha;
// two separate operations. S equal to an integer T computes in T with
// wrap-around; S = float computes in single precision and truncates towards
// zero into T (half types narrow with the plain constructor).
template <typename T, typename S>
int scale(Context* ctx, const T* x, T* y, long len, bool bias_after, S alpha, S beta);

// Host-only. y = 1 / (exp(-x) + 1) in double, through the operator cast to
// and from float; a failed cast is logged as a kernel failure, status 2.
template <typename T>
int sigmoid(Context* ctx, const T* x, T* y, long len);

// Host-only. y = x / (exp(-x) + 1) in double from the widened x, stored as
// float, then narrowed. The two pointers are not read.
template <typename T>
int silu(Context* ctx, const T* x, T* y, long len, const float*, float*);

// Host-only. Softmax of each of m rows of n elements. The row maximum starts
// at -10000 (a NaN maximum gives way to the next element); exponentials in
// double of the single-precision difference; the sum in float, in order.
template <typename T>
int softmax2d(Context* ctx, const T* x, T* y, long m, long n);

// Splits x along axis into ys, output i taking sizes[i] along axis. A null
// ys[i] is skipped while the walk passes over its elements. Checked (compare
// check, status 1, nothing written): ys and sizes of equal counts, axis in
// [0, rank) (never wrapped), every size at least 0, and the sizes summing to
// xshape[axis]. Runs on any context.
template <typename T>
int split(Context* ctx, const T* x, const std::vector<T*>& ys, const std::vector<long>& xshape,
          const std::vector<long>& sizes, long axis);

}  // namespace infer_ops::cpu_ops
