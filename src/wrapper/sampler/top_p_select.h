// Which kernel top_p_sampling launches on the device: an ordered table of
// candidates, the first that matches wins. Only the row length decides.
#pragma once

namespace infer_ops::top_p_select {

// Rows of at least kFallbackRow elements are sorted by the sort operator and
// then sampled by the fallback kernel; shorter rows by the kernel that sorts
// them itself.
inline constexpr long kFallbackRow = 655360;

enum class Kernel { fallback, sampling };

struct Candidate {
    Kernel kernel;
    bool (*matches)(long n);
};

inline constexpr Candidate kCandidates[] = {
    {Kernel::fallback, [](long n) { return n >= kFallbackRow; }},
    {Kernel::sampling, [](long) { return true; }},
};

constexpr Kernel select(long n) {
    for (const Candidate& c : kCandidates) {
        if (c.matches(n)) return c.kernel;
    }
    return Kernel::sampling;
}

}  // namespace infer_ops::top_p_select
