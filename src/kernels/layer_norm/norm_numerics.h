// The numeric steps that every normalisation computes the same way, on the
// host and in the kernels.
#pragma once

#include <cmath>

namespace infer_ops::norm {

// The reciprocal square root of a row's (variance + eps): taken in double
// and narrowed once, so that it is exactly the same number on every path.
inline float rstd_of(float t) {
    const double d = static_cast<double>(t);
    return static_cast<float>(1.0 / std::sqrt(d));
}

}  // namespace infer_ops::norm
