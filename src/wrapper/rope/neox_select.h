// Which kernel the split-halves rotary embedding launches on the device: an
// ordered table of candidates, the first that matches wins. The choice reads
// the token count against the cores of the launch and the head counts; the
// kernel's last template argument reads rotary_dim alone.
#pragma once

namespace infer_ops::rope {

// Cores per cluster of a cluster launch.
inline constexpr long kCoresPerCluster = 64;

// Fewer tokens than cores take a small-case kernel, which splits the heads
// of a token across cores. Its gqa form takes one key head, at most
// kSmallCaseGqaMaxTokens tokens and query rows (head_size * num_heads) of at
// most kSmallCaseGqaMaxRow elements, except with the query head counts below.
inline constexpr long kSmallCaseGqaMaxTokens = 341;
inline constexpr long kSmallCaseGqaMaxRow = 1023;
inline constexpr long kSmallCaseGqaKvHeads = 1;
inline constexpr long kSmallCaseGqaExcludedHeads[] = {1, 7};

// One launch rotates at most this many tokens; longer batches are launched
// in chunks of it, in order.
inline constexpr long kChunkTokens = 32768;

// rotary_dim must be a multiple of kRotaryUnit. A multiple of kWideRotaryUnit
// takes the kernels' wide form (the last template argument true).
inline constexpr long kRotaryUnit = 16;
inline constexpr long kWideRotaryUnit = 32;

enum class Kernel { plain, gqa, small_case, small_case_gqa };

struct Query {
    long num_tokens;
    long num_heads;
    long num_kv_heads;
    long head_size;
    long ncluster;
};

struct Candidate {
    Kernel kernel;
    bool (*matches)(const Query&);
};

constexpr bool small_case(const Query& q) { return q.ncluster * kCoresPerCluster > q.num_tokens; }

constexpr bool small_case_gqa(const Query& q) {
    for (long h : kSmallCaseGqaExcludedHeads) {
        if (q.num_heads == h) return false;
    }
    return small_case(q) && q.num_kv_heads == kSmallCaseGqaKvHeads && q.num_tokens <= kSmallCaseGqaMaxTokens &&
           q.head_size * q.num_heads <= kSmallCaseGqaMaxRow;
}

inline constexpr Candidate kCandidates[] = {
    {Kernel::small_case_gqa, small_case_gqa},
    {Kernel::small_case, small_case},
    {Kernel::gqa, [](const Query& q) { return q.num_kv_heads != q.num_heads; }},
};

constexpr Kernel select(const Query& q) {
    for (const Candidate& c : kCandidates) {
        if (c.matches(q)) return c.kernel;
    }
    return Kernel::plain;
}

constexpr bool wide_rotary(long rotary_dim) { return rotary_dim % kWideRotaryUnit == 0; }

}  // namespace infer_ops::rope
