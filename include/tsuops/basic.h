// Tensor basics.
#pragma once

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops {

using orvane::tsu::api::Context;

// x[i] = value for i in [0, len).
template <typename T>
int constant(Context* ctx, T* x, long len, T value);

}  // namespace infer_ops
