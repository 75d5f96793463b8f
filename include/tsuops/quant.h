// Quantisation operators.
//
// A scale float is the largest magnitude of the span it covers, not a step
// size: a stored 8-bit q stands for q * scale / 127.
#pragma once

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops {

using orvane::tsu::api::Context;

// Each of the m rows of x (n elements, row starts ld elements apart; a
// negative ld means n) to signed char by rule Q8 against the row's absolute
// maximum, which goes to scale[row]. y is dense with row stride n. use_gmx,
// or TSUOPS_QUANT_GMX=1, runs the GMX kernel; ZFR_STABLE=1 the general one.
// Instantiated for float16, float and bfloat16.
template <typename T>
int quant2d(Context* ctx, const T* x, signed char* y, float* scale, long m, long n, long ld, bool use_gmx);

}  // namespace infer_ops
