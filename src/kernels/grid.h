// Work split of a kernel body across the cores of its launch.
#pragma once

#include <algorithm>

#include <tsurt/emulator.h>

namespace tsuops::kernels {

struct range {
    long begin;
    long end;
};

// This core's share of [0, n) over the whole grid, cut at multiples of
// `unit` so that no two cores write one cache line.
inline range core_share(long n, long unit = 1) {
    const long cores = tsuemu::global_core_count();
    const long me = tsuemu::global_core_id();
    const long blocks = (n + unit - 1) / unit;
    const long b = blocks * me / cores;
    const long e = blocks * (me + 1) / cores;
    return {std::min(n, b * unit), std::min(n, e * unit)};
}

// Elements of T in one 64-byte line.
template <typename T>
inline constexpr long line_elems = sizeof(T) >= 64 ? 1 : 64 / static_cast<long>(sizeof(T));

}  // namespace tsuops::kernels
