// Gated activations.
#pragma once

#include <vector>

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops {

using orvane::tsu::api::Context;

// z = silu(gate) * other. With y null, x of shape `shape` holds both operands
// as the two halves of dimension `axis` (which must have even length) and z
// has that dimension halved; with y given, the operands are x and y of shape
// `shape`, z has that shape too, and `axis` is only checked. gate_first puts
// the first operand (the first half, or x) through SiLU, else the second.
// The sigmoid is 1 / (exp(-a) + 1) in double, narrowed to float; the product
// is (s * a) * b in float, narrowed to T once. float, float16 and bfloat16.
template <typename T>
int swiglu(Context* ctx, const T* x, const T* y, T* z, const std::vector<long>& shape, long axis, bool gate_first);

}  // namespace infer_ops
