// Which kernel rms_layer_norm launches on the device: an ordered table of
// candidates, the first that matches wins. The choice reads the row length,
// whether a bias or a row statistic is wanted and the types, never the row
// count.
#pragma once

#include <type_traits>

#include <tsuops/float16.h>

namespace infer_ops::rms_norm {

// Rows longer than this take the general kernel.
inline constexpr long kMaxNsRow = 65536;

// With TSUOPS_RMSNORM_GMX on, rows that are a multiple of kGmxRowUnit and no
// longer than kMaxGmxRow go to the GMX engine (to the widest ns kernel where
// the types have no GMX kernel).
inline constexpr long kGmxRowUnit = 1024;
inline constexpr long kMaxGmxRow = 8192;

// The ns kernels by row capacity: instance K takes rows of up to
// kNsRowUnit * K elements. Ascending, so the first that fits is the smallest.
inline constexpr long kNsRowUnit = 1024;
inline constexpr int kNsCapacities[] = {1, 4, 8, 16, 64};
static_assert(kNsRowUnit * 64 == kMaxNsRow, "the widest ns kernel takes every row short of the general kernel");

enum class Kernel { general, gmx, ns1, ns4, ns8, ns16, ns64 };

// The K of an ns kernel, 0 for the others.
constexpr int ns_capacity(Kernel k) {
    switch (k) {
    case Kernel::ns1: return 1;
    case Kernel::ns4: return 4;
    case Kernel::ns8: return 8;
    case Kernel::ns16: return 16;
    case Kernel::ns64: return 64;
    default: return 0;
    }
}

template <typename T, typename TW>
inline constexpr bool has_gmx_kernel =
    (std::is_same_v<T, float16> && std::is_same_v<TW, float16>) ||
    (std::is_same_v<T, bfloat16> && std::is_same_v<TW, bfloat16>);

template <typename T, typename TW>
inline constexpr bool float_pair = std::is_same_v<T, float> && std::is_same_v<TW, float>;

// What the choice reads. The switch is asked through a function, so that
// only a call that gets as far as its candidate reads the environment.
struct Query {
    long n;
    bool bias;
    bool rms_out;
    bool float_pair;  // (float, float) has only the general kernel
    bool has_gmx;     // equal half types
    bool (*gmx_switch)();
};

struct Candidate {
    Kernel kernel;
    bool (*matches)(const Query&);
};

constexpr bool gmx_row(long n) { return n % kGmxRowUnit == 0 && n <= kMaxGmxRow; }

template <int K>
constexpr bool ns_fits(const Query& q) {
    return q.n <= kNsRowUnit * K;
}

inline constexpr Candidate kCandidates[] = {
    {Kernel::general, [](const Query& q) { return q.float_pair || q.n > kMaxNsRow || q.bias || q.rms_out; }},
    {Kernel::gmx, [](const Query& q) { return q.gmx_switch() && gmx_row(q.n) && q.has_gmx; }},
    {Kernel::ns64, [](const Query& q) { return q.gmx_switch() && gmx_row(q.n) && !q.has_gmx; }},
    {Kernel::ns1, ns_fits<kNsCapacities[0]>},
    {Kernel::ns4, ns_fits<kNsCapacities[1]>},
    {Kernel::ns8, ns_fits<kNsCapacities[2]>},
    {Kernel::ns16, ns_fits<kNsCapacities[3]>},
    {Kernel::ns64, ns_fits<kNsCapacities[4]>},
};

constexpr Kernel select(const Query& q) {
    for (const Candidate& c : kCandidates) {
        if (c.matches(q)) return c.kernel;
    }
    return Kernel::general;
}

}  // namespace infer_ops::rms_norm
