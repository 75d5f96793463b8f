// The exponential of the softmax kernels: float(exp(double(d))) with exp the
// C library's, to the bit, for whole arrays at vector speed.
#pragma once

namespace tsuops::kernels::moe {

// v[i] = float(std::exp(double(v[i]))) for i in [0, n).
void exp_to_float(float* v, long n);

}  // namespace tsuops::kernels::moe
