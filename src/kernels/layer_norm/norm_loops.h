// The inner loops of the normalisation kernels, on rows already widened to
// float. Each is compiled for AVX2 and for the baseline, chosen at load time.
// None of them fuses a multiply with an add: a scaled element is rounded after
// each step exactly as the reference computes it. Only the row sums differ
// from the reference in their order (16 interleaved partial sums), which is
// what lets them run vectorised.
#pragma once

namespace tsuops::kernels::norm {

// The sum of x[j] * x[j] over [0, n).
float sum_squares(const float* x, long n);

// The sum of x[j] and the sum of x[j] * x[j] over [0, n).
void sum_and_squares(const float* x, long n, float* s, float* q);

// y[j] = (x[j] * r) * w[j] + b[j]. A null w is a weight of 1, a null b a
// bias of 0 (still added, so that a product of -0 gives +0). y may be x.
void rms_apply(const float* x, float r, const float* w, const float* b, float* y, long n);

// y[j] = ((x[j] - mean) * r) * w[j] + b[j], the weight being w[j] + 1 when
// plus_one is set and w is given. y may be x.
void layer_apply(const float* x, float mean, float r, const float* w, bool plus_one, const float* b, float* y,
                 long n);

}  // namespace tsuops::kernels::norm
