// Element loops that GCC vectorises at -O2: its cheap cost model there only
// takes a loop whose trip count is a known multiple of the vector width and
// that needs no alias check. So the loop runs over fixed blocks and then the
// tail, on restrict pointers that are parameters of the loop itself (a lambda
// that captures them loses the restrict).
#pragma once

namespace tsuops::kernels {

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

}  // namespace tsuops::kernels
