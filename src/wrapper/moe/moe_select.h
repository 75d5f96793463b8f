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

// moe_group_topk_fusion: no groups at all (group_num and group_topk both
// 0) is the plain top-k of the input; anything else the grouped kernel.
enum class GroupTopkKernel { plain, grouped };

struct GroupTopkCandidate {
    bool (*fits)(long group_num, long group_topk);
    GroupTopkKernel kernel;
};

inline constexpr GroupTopkCandidate kGroupTopkTable[] = {
    {[](long group_num, long group_topk) { return group_num == 0 && group_topk == 0; }, GroupTopkKernel::plain},
    {[](long, long) { return true; }, GroupTopkKernel::grouped},
};

constexpr GroupTopkKernel group_topk_kernel(long group_num, long group_topk) {
    for (const GroupTopkCandidate& c : kGroupTopkTable) {
        if (c.fits(group_num, group_topk)) return c.kernel;
    }
    return GroupTopkKernel::grouped;
}

// The group routers' kernels hold one row of experts on chip: a row of at
// most this many experts. moe_group_topk_fusion, which has no limit of its
// own, refuses longer rows on the device.
inline constexpr long kGroupKernelExperts = kMaxRouterExperts;

}  // namespace infer_ops::moe_select
