// Kernel selection of quant2d: the switches first, then an ordered table of
// row regimes, first match wins. The per-token and per-expert operators use
// the same table and constants.
#pragma once

#include <cstddef>

namespace infer_ops::quant2d_select {

// Rows at most this many elements, and at most this many rows, take midm.
inline constexpr long kMidmRows = 1536;
// The row capacities N of the bigm (and midm) kernels, smallest first.
inline constexpr long kRowCap1536 = 1536;
inline constexpr long kRowCap6144 = 6144;
inline constexpr long kRowCap12288 = 12288;
inline constexpr long kRowCap24576 = 24576;
// The GMX kernel stages whole rows when they are at most this long and a
// multiple of kGmxAlign.
inline constexpr long kGmxStagedRow = 8192;
inline constexpr long kGmxAlign = 32;
// Rows per cluster in one launch; longer tensors go out in several.
inline constexpr long kRowsPerCluster = 16384;

enum class Kernel { general, smallm, midm, bigm, gmx_staged, gmx_general };

struct Choice {
    Kernel kernel;
    long row_cap;  // N of midm and bigm, 0 otherwise
    bool gmx;      // launch on the GMX engine

    friend constexpr bool operator==(const Choice&, const Choice&) = default;
};

struct Shape {
    long m;
    long n;
    long nclusters;
};

struct Candidate {
    bool (*fits)(const Shape&);
    Choice choice;
};

// The row regimes, in order.
inline constexpr Candidate kTable[] = {
    {[](const Shape& s) { return s.m < s.nclusters; }, {Kernel::smallm, 0, false}},
    {[](const Shape& s) { return s.n <= kRowCap1536 && s.m <= kMidmRows; }, {Kernel::midm, kRowCap1536, false}},
    {[](const Shape& s) { return s.n <= kRowCap1536; }, {Kernel::bigm, kRowCap1536, false}},
    {[](const Shape& s) { return s.n <= kRowCap6144; }, {Kernel::bigm, kRowCap6144, false}},
    {[](const Shape& s) { return s.n <= kRowCap12288; }, {Kernel::bigm, kRowCap12288, false}},
    {[](const Shape& s) { return s.n <= kRowCap24576; }, {Kernel::bigm, kRowCap24576, false}},
    {[](const Shape&) { return true; }, {Kernel::general, 0, false}},
};

// The whole selection: the GMX request (argument or TSUOPS_QUANT_GMX), then
// ZFR_STABLE, then the table.
constexpr Choice select(long m, long n, long nclusters, bool gmx, bool zfr_stable) {
    if (gmx) {
        const bool staged = n <= kGmxStagedRow && n % kGmxAlign == 0;
        return {staged ? Kernel::gmx_staged : Kernel::gmx_general, 0, true};
    }
    if (zfr_stable) return {Kernel::general, 0, false};
    const Shape s{m, n, nclusters};
    for (const Candidate& c : kTable) {
        if (c.fits(s)) return c.choice;
    }
    return {Kernel::general, 0, false};
}

}  // namespace infer_ops::quant2d_select
