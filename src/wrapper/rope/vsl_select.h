// Limits of the variable-length rotary embeddings and the choice of kernel
// on the device: an ordered table of candidates, the first that matches
// wins. The adjacent-pairs form chooses by head length and element type (the
// layout picks between the "BLHD" and "BHLD" member of the chosen pair); the
// split-halves form has one kernel per element type.
#pragma once

#include "kernels/rope/vsl_rotary_embedding.h"

namespace infer_ops::rope::vsl {

// Sequences a call may carry.
inline constexpr long kAdjacentMaxBatch = 15360;
inline constexpr long kSplitMaxBatch = 1024;
// The longest split-halves span.
inline constexpr long kSplitMaxRotaryDim = 256;

// Heads longer than this take the func kernels.
inline constexpr long kOptMaxHeadDim = tsuops::kernels::vsl::kOptMaxHeadDim;

enum class Kernel { func, opt_fp16, opt };

struct Query {
    long head_dim;
    bool float16_tensor;
};

struct Candidate {
    Kernel kernel;
    bool (*matches)(const Query&);
};

inline constexpr Candidate kCandidates[] = {
    {Kernel::func, [](const Query& q) { return q.head_dim > kOptMaxHeadDim; }},
    {Kernel::opt_fp16, [](const Query& q) { return q.float16_tensor; }},
};

constexpr Kernel select(const Query& q) {
    for (const Candidate& c : kCandidates) {
        if (c.matches(q)) return c.kernel;
    }
    return Kernel::opt;
}

}  // namespace infer_ops::rope::vsl
