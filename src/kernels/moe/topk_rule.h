// The order of every router of the library. Experts are listed in ascending
// number and sorted by a stable sort whose comparison is "first score greater
// than second score", on the float score alone: so a higher score comes
// first, and equal scores keep ascending expert number. The order is decided
// on the float score, before any rounding to the output type.
//
// Reference paths sort with score_greater. Kernels, which select the first
// k without sorting a row, compare rank_key instead: one 64-bit key per
// (score, expert) whose descending order is the stable sort's order. The
// key puts +0 and -0 together, as the comparison does; NaN scores, which the
// comparison never puts before anything, all get the lowest key, so that a
// row of NaN keeps ascending expert number, as the stable sort leaves it.
// (A row with NaN beside numbers is outside the rule; a softmax row never is:
// one NaN makes the whole row NaN.)
#pragma once

#include <bit>
#include <cstdint>

namespace infer_ops::topk_rule {

struct scored {
    float score;
    int expert;
};

// The comparison of the reference paths' stable sort.
inline bool score_greater(const scored& a, const scored& b) { return a.score > b.score; }

// Monotonic in the score: a greater score gives a greater key; +0 and -0 the
// same key; NaN 0, below every number. Free of branches, so that a loop of
// it vectorises.
inline std::uint32_t score_key(float score) {
    const std::uint32_t u = std::bit_cast<std::uint32_t>(score);
    const std::uint32_t ordered = u ^ ((u >> 31) != 0 ? 0xffffffffu : 0x80000000u);
    return score != score ? 0u : (score == 0.0f ? 0x80000000u : ordered);
}

// Greater key, earlier place: the score's key in the high half, the expert
// number inverted in the low half so that of two equal scores the lower
// expert ranks first. Expert numbers are below 2^32.
inline std::uint64_t rank_key(std::uint32_t score_key, std::uint32_t expert) {
    return (static_cast<std::uint64_t>(score_key) << 32) | static_cast<std::uint32_t>(~expert);
}

inline std::uint64_t rank_key(float score, std::uint32_t expert) { return rank_key(score_key(score), expert); }

// The expert of a key.
inline int expert_of(std::uint64_t key) { return static_cast<int>(~static_cast<std::uint32_t>(key)); }

}  // namespace infer_ops::topk_rule
