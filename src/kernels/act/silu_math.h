// The SiLU product of the gated activations, silu(a) * b, in the one
// arithmetic that all their paths share: -a formed in float and widened, the
// sigmoid 1 / (exp(-a) + 1) in double with the math library's exp, narrowed
// to float once, then (s * a) * b as two float products.
//
// The reference paths call silu_product per element. The kernels call the
// array form, which gives the same bits: its exp reproduces the math
// library's for every double that a float widens to, and every other step is
// a single IEEE operation that the vector units round the same way.
#pragma once

#include <cmath>

namespace tsuops::kernels::act {

inline float silu_product(float a, float b) {
    const float neg = -a;
    const double e = std::exp(static_cast<double>(neg));
    const float s = static_cast<float>(1.0 / (e + 1.0));
    const float sa = s * a;
    return sa * b;
}

// out[i] = silu_product(gate[i], other[i]) for i in [0, n). out may be
// either input.
void silu_products(const float* gate, const float* other, float* out, long n);

// y[i] = std::exp(x[i]) for i in [0, n), bit for bit. y may be x.
void exp_array(const double* x, double* y, long n);

// How exp_array computes, fixed at its first use in the process:
//   fused     the library's algorithm on AVX2, with the fused multiply-adds
//             of the library's FMA build;
//   separate  the same with every product rounded on its own, as the
//             library's build without FMA rounds;
//   library   the library's exp element by element: no AVX2 and FMA, or a
//             library that agrees with neither form.
// The library itself picks its build by the CPU and its own settings, so the
// choice asks it: both forms run on a fixed set of inputs until enough of
// them tell the two apart, and a form is taken only if the library agrees
// with it on all of them.
enum class ExpForm { library, separate, fused };
ExpForm exp_form();
const char* exp_form_name(ExpForm form);

}  // namespace tsuops::kernels::act
