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

// This core's share of [0, n) among the cores of its own cluster, cut at
// multiples of `unit`: for kernels that give a cluster one piece of work.
inline range cluster_share(long n, long unit = 1) {
    const long cores = tsuemu::core_count();
    const long me = tsuemu::core_id();
    const long blocks = (n + unit - 1) / unit;
    const long b = blocks * me / cores;
    const long e = blocks * (me + 1) / cores;
    return {std::min(n, b * unit), std::min(n, e * unit)};
}

// Element loops that GCC vectorises even under its cheapest cost model: a
// trip count that is a known multiple of the vector width and no alias check.
// So the loop runs over fixed blocks and then the tail, on restrict pointers
// that are parameters of the loop itself (a lambda that captures them loses
// the restrict).
inline constexpr long kVectorBlock = 64;

// y[i] = f(x[i]) for i in [0, n).
template <class TX, class TY, class F>
[[gnu::always_inline]] inline void map(const TX* __restrict x, TY* __restrict y, long n, F f) {
    long i = 0;
    for (; i + kVectorBlock <= n; i += kVectorBlock) {
        for (long j = 0; j < kVectorBlock; ++j) y[i + j] = f(x[i + j]);
    }
    for (; i < n; ++i) y[i] = f(x[i]);
}

// z[i] = f(x[i], y[i]) for i in [0, n).
template <class TX, class TY, class TZ, class F>
[[gnu::always_inline]] inline void map2(const TX* __restrict x, const TY* __restrict y, TZ* __restrict z, long n,
                                        F f) {
    long i = 0;
    for (; i + kVectorBlock <= n; i += kVectorBlock) {
        for (long j = 0; j < kVectorBlock; ++j) z[i + j] = f(x[i + j], y[i + j]);
    }
    for (; i < n; ++i) z[i] = f(x[i], y[i]);
}

// Whether the host CPU has AVX2, for kernels that carry a hand-written AVX2
// loop beside a plain one; asked once.
inline bool host_has_avx2() {
    static const bool yes = __builtin_cpu_supports("avx2");
    return yes;
}

// Elements of T in one 64-byte line.
template <typename T>
inline constexpr long line_elems = sizeof(T) >= 64 ? 1 : 64 / static_cast<long>(sizeof(T));

}  // namespace tsuops::kernels
