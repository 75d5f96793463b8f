// The exponential of the softmax kernels: float(exp(double(d))) with exp the
// C library's, to the bit, for whole arrays at vector speed; and the logistic
// function of the sigmoid routers on the same footing.
#pragma once

namespace tsuops::kernels::moe {

// v[i] = float(std::exp(double(v[i]))) for i in [0, n).
void exp_to_float(float* v, long n);

// v[i] = float(1.0 / (std::exp(-double(v[i])) + 1.0)) for i in [0, n): the
// host's logistic function, to the bit, at vector speed.
void sigmoid_to_float(float* v, long n);

}  // namespace tsuops::kernels::moe
