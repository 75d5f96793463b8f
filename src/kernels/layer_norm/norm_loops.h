// The inner loops of the normalisation kernels, for rows of float, float16
// or bfloat16. They give the reference's bits: a row's sums run in element
// order, one add after another, and a scaled element is rounded after each
// step, with no fused multiply-add. The speed comes from working on kGroup
// rows at once, each in its own vector lane, never from reordering within a
// row; 16-bit elements are widened in registers (exactly, as every widening
// is).
#pragma once

namespace tsuops::kernels::norm {

// Rows summed side by side: one per lane of two eight-lane float vectors,
// whose two chains of adds run interleaved.
inline constexpr int kGroup = 16;

// Lane r continues the sums of rows[r] over [0, n), in element order:
// s[r] += x and q[r] += x * x (the square rounded before the add). s may be
// null: the sums of squares alone.
template <typename T>
void group_sums(const T* const* rows, long n, float* s, float* q);

// out[j] = (x[j] * r) * w[j] + b[j]. A null w is a weight of 1, a null b a
// bias of 0 (still added, so that a product of -0 gives +0).
template <typename T>
void rms_scale(const T* x, float r, const float* w, const float* b, float* out, long n);

// out[j] = ((x[j] - mean) * r) * w[j] + b[j], with the same null rules.
template <typename T>
void layer_scale(const T* x, float mean, float r, const float* w, const float* b, float* out, long n);

}  // namespace tsuops::kernels::norm
