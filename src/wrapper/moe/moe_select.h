// Limits and kernel choices of the routers and index operators, as named
// constants that the tests sweep one below, at and one above.
#pragma once

namespace infer_ops::moe_select {

// Experts of a router row: n at most this.
inline constexpr long kMaxRouterExperts = 1024;

// small_shape, a flag of the router kernels: set when any rule holds.
inline constexpr long kSmallPairs = 1121;        // m * k below this
inline constexpr long kTopk2MaxTokens = 1792;    // k == 2 and m at most this
inline constexpr long kTopk5TokenLimit = 513;    // k == 5 and m below this

struct SmallShapeRule {
    bool (*holds)(long m, long k);
};

inline constexpr SmallShapeRule kSmallShapeRules[] = {
    {[](long m, long k) { return m * k < kSmallPairs; }},
    {[](long m, long k) { return m <= kTopk2MaxTokens && k == 2; }},
    {[](long m, long k) { return m < kTopk5TokenLimit && k == 5; }},
};

constexpr bool small_shape(long m, long k) {
    for (const SmallShapeRule& r : kSmallShapeRules) {
        if (r.holds(m, k)) return true;
    }
    return false;
}

// moe_resort_idx: the count travels as int up to this, else as long.
inline constexpr long kResortIntCount = 2147483647;

enum class ResortKernel { int_count, long_count };

struct ResortCandidate {
    bool (*fits)(long count);
    ResortKernel kernel;
};

inline constexpr ResortCandidate kResortTable[] = {
    {[](long count) { return count <= kResortIntCount; }, ResortKernel::int_count},
    {[](long) { return true; }, ResortKernel::long_count},
};

constexpr ResortKernel resort_kernel(long count) {
    for (const ResortCandidate& c : kResortTable) {
        if (c.fits(count)) return c.kernel;
    }
    return ResortKernel::long_count;
}

}  // namespace infer_ops::moe_select
