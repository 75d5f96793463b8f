// The inner loops of the normalisation kernels, on rows already widened to
// float. They give the reference's bits: a row's sums run in element order,
// one add after another, and a scaled element is rounded after each step,
// with no fused multiply-add. The speed comes from working on kGroup rows at
// once, each in its own vector lane, never from reordering within a row.
#pragma once

namespace tsuops::kernels::norm {

// Rows summed side by side: one per lane of an eight-lane float vector.
inline constexpr int kGroup = 8;

// Lane r continues the sums of rows[r] over [0, n), in element order:
// s[r] += x and q[r] += x * x (the square rounded before the add).
void group_sums(const float* const* rows, long n, float* s, float* q);

// As group_sums, the sums of squares alone.
void group_squares(const float* const* rows, long n, float* q);

// y[j] = (x[j] * r) * w[j] + b[j]. A null w is a weight of 1, a null b a
// bias of 0 (still added, so that a product of -0 gives +0). y may be x.
void rms_apply(const float* x, float r, const float* w, const float* b, float* y, long n);

// y[j] = ((x[j] - mean) * r) * w[j] + b[j], the weight being w[j] + 1 when
// plus_one is set and w is given. y may be x.
void layer_apply(const float* x, float mean, float r, const float* w, bool plus_one, const float* b, float* y,
                 long n);

}  // namespace tsuops::kernels::norm
