// Which kernel sort launches on the device: an ordered table of candidates,
// the first that matches wins. Only the row length decides, never the row
// count.
#pragma once

namespace infer_ops::sort_select {

// Rows of up to kMaxLargeMRow elements go to infer_sort_large_m, rows of up
// to kMaxLargeNRow to infer_sort_large_n; each keeps a row of its capacity
// in core-local memory. Longer rows take the radix sort in global memory.
inline constexpr long kMaxLargeMRow = 768;
inline constexpr long kMaxLargeNRow = 8192;

enum class Kernel { radix, large_n, large_m };

struct Candidate {
    Kernel kernel;
    bool (*matches)(long n);
};

inline constexpr Candidate kCandidates[] = {
    {Kernel::radix, [](long n) { return n > kMaxLargeNRow; }},
    {Kernel::large_n, [](long n) { return n > kMaxLargeMRow; }},
    {Kernel::large_m, [](long) { return true; }},
};

constexpr Kernel select(long n) {
    for (const Candidate& c : kCandidates) {
        if (c.matches(n)) return c.kernel;
    }
    return Kernel::large_m;
}

}  // namespace infer_ops::sort_select
