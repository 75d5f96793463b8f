// How transpose gets to its result on the device. There is no N-dimensional
// kernel: the permutation is normalised (unit dimensions dropped, input
// dimensions that stay neighbours in the output merged into one) and broken
// into block exchanges. Each exchange sees the tensor as [left, a, b, rest],
// swaps the middle two blocks and is one kernel launch; the chain ping-pongs
// between the output and one scratch buffer so that its last step lands in
// the output.
//
// A plan is a plain value computed from the shape and the permutation alone,
// so a test can read its steps, their kernels and their buffers without
// running anything.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

namespace infer_ops::transpose_plan {

// What the kernels move: 4-, 2- or 1-byte words. A transpose moves bits, so
// the element type matters only by its size; 8-byte elements travel as pairs
// of 4-byte words that stay together.
enum class Word { w32, w16, w8 };

template <class T>
inline constexpr Word word_of = sizeof(T) == 1 ? Word::w8 : sizeof(T) == 2 ? Word::w16 : Word::w32;

constexpr long word_bytes(Word w) { return w == Word::w8 ? 1 : w == Word::w16 ? 2 : 4; }

enum class Kernel {
    cluster_0213,   // infer_transpose_0213_cluster: [left, a, b, rest] -> [left, b, a, rest]
    gmx_021,        // infer_transpose_021_gmx_bsp: [left, a, b] -> [left, b, a], GMX engine
    small_dim_021,  // infer_transpose_021_small_dim_cluster: the same for short rows, 4-byte words only
    nhwc_c3,        // infer_transpose_nhwc_c3: the same for rows of three bytes (height, width, channels)
};

// float rows of at most this many elements take the small-dimension kernel.
inline constexpr long kSmallDimMax = 15;
// Byte rows of exactly this many elements take the three-channel kernel.
inline constexpr long kNhwcChannels = 3;
// A block of more bytes than this (a or b times the word size) goes to the
// cluster kernel even when the step has no trailing block.
inline constexpr long kMaxBlockBytes = 0x7ffffffe;

enum class Buffer { x, y, scratch };

struct Step {
    long left, a, b, rest;
    Kernel kernel;
    Buffer src, dst;
    bool operator==(const Step&) const = default;
};

struct Plan {
    Word word;
    std::vector<long> shape;  // normalised, in words
    std::vector<long> perm;   // normalised
    long words;               // element count in words: the copy of an empty plan, the scratch of a long one
    std::vector<Step> steps;  // empty: the permutation is the identity, a plain copy

    bool needs_scratch() const { return steps.size() >= 2; }
};

// ---- kernel choice: one ordered table per word size, first match wins -------------------------
struct Candidate {
    Kernel kernel;
    bool (*matches)(const Step&);
};

template <long Bytes>
constexpr bool wide_block(const Step& s) {
    return s.a * Bytes > kMaxBlockBytes || s.b * Bytes > kMaxBlockBytes;
}
constexpr bool has_rest(const Step& s) { return s.rest != 1; }
constexpr bool always(const Step&) { return true; }

inline constexpr Candidate kWord32[] = {
    {Kernel::cluster_0213, has_rest},
    {Kernel::small_dim_021, [](const Step& s) { return s.b <= kSmallDimMax; }},
    {Kernel::cluster_0213, wide_block<4>},
    {Kernel::gmx_021, always},
};
inline constexpr Candidate kWord16[] = {
    {Kernel::cluster_0213, has_rest},
    {Kernel::cluster_0213, wide_block<2>},
    {Kernel::gmx_021, always},
};
inline constexpr Candidate kWord8[] = {
    {Kernel::cluster_0213, has_rest},
    {Kernel::nhwc_c3, [](const Step& s) { return s.b == kNhwcChannels; }},
    {Kernel::cluster_0213, wide_block<1>},
    {Kernel::gmx_021, always},
};

constexpr std::span<const Candidate> candidates(Word w) {
    if (w == Word::w8) return kWord8;
    if (w == Word::w16) return kWord16;
    return kWord32;
}

constexpr Kernel choose(const Step& s, Word w) {
    for (const Candidate& c : candidates(w)) {
        if (c.matches(s)) return c.kernel;
    }
    return Kernel::cluster_0213;
}

// ---- normalisation -------------------------------------------------------------------------------
// Removes input dimension d from the shape and the permutation.
inline void erase_dim(std::vector<long>& s, std::vector<long>& p, long d) {
    s.erase(s.begin() + d);
    for (std::size_t k = 0; k < p.size(); ++k) {
        if (p[k] == d) {
            p.erase(p.begin() + static_cast<long>(k));
            break;
        }
    }
    for (long& q : p) q -= q > d ? 1 : 0;
}

// Unit dimensions cost nothing; a tensor of ones is one element.
inline void drop_units(std::vector<long>& s, std::vector<long>& p) {
    for (long d = 0; d < static_cast<long>(s.size());) {
        if (s[d] == 1) {
            erase_dim(s, p, d);
        } else {
            ++d;
        }
    }
    if (s.empty()) {
        s = {1};
        p = {0};
    }
}

// Input dimensions d and d + 1 that follow each other in the permutation are
// one dimension of their product.
inline void merge_neighbours(std::vector<long>& s, std::vector<long>& p) {
    for (std::size_t k = 0; k + 1 < p.size();) {
        if (p[k + 1] == p[k] + 1) {
            const long d = p[k];
            s[d] *= s[d + 1];
            erase_dim(s, p, d + 1);
        } else {
            ++k;
        }
    }
}

// ---- the chain of exchanges ------------------------------------------------------------------------
// Walks the output positions with `cur`, the order the dimensions have after
// the steps so far. Where the wanted dimension is not in place, the run B of
// dimensions that already follow each other as wanted is moved in front of
// the block A standing before it; what is in place folds into `left`, and
// what follows B into `rest`.
inline std::vector<Step> exchanges(const std::vector<long>& s, const std::vector<long>& p) {
    const long rank = static_cast<long>(s.size());
    long total = 1;
    for (long d : s) total *= d;
    std::vector<long> cur(static_cast<std::size_t>(rank));
    for (long d = 0; d < rank; ++d) cur[d] = d;
    std::vector<Step> steps;
    long left = 1;
    for (long i = 0; i < rank;) {
        if (p[i] == cur[i]) {
            left *= s[p[i]];
            ++i;
            continue;
        }
        long j = i + 1;
        while (cur[j] != p[i]) ++j;
        long run = 0, b = 1;
        while (j + run < rank && p[i + run] == cur[j + run]) b *= s[cur[j + run++]];
        long a = 1;
        for (long k = i; k < j; ++k) a *= s[cur[k]];
        std::rotate(cur.begin() + i, cur.begin() + j, cur.begin() + j + run);
        steps.push_back({left, a, b, total / left / a / b, Kernel::cluster_0213, Buffer::x, Buffer::y});
        i += run;
        left *= b;
    }
    return steps;
}

// The last step always writes y; going back from it the steps alternate
// between y and the scratch, and the first reads x.
constexpr std::pair<Buffer, Buffer> buffers(std::size_t k, std::size_t n) {
    const bool to_y = (n + k) % 2 == 1;
    const Buffer src = k == 0 ? Buffer::x : to_y ? Buffer::scratch : Buffer::y;
    return {src, to_y ? Buffer::y : Buffer::scratch};
}

// The plan for elements of one word; shape and perm have passed the checks
// of transpose.
inline Plan make_plan(std::vector<long> shape, std::vector<long> perm, Word word) {
    drop_units(shape, perm);
    merge_neighbours(shape, perm);
    Plan plan{word, shape, perm, 1, exchanges(shape, perm)};
    for (long d : plan.shape) plan.words *= d;
    for (std::size_t k = 0; k < plan.steps.size(); ++k) {
        Step& s = plan.steps[k];
        s.kernel = choose(s, word);
        std::tie(s.src, s.dst) = buffers(k, plan.steps.size());
    }
    return plan;
}

// The plan of transpose<T>: an 8-byte element is a pair of 4-byte words, a
// last dimension of 2 that the permutation leaves in place.
template <class T>
Plan plan_for(const std::vector<long>& shape, const std::vector<long>& perm) {
    if constexpr (sizeof(T) == 8) {
        std::vector<long> s = shape, p = perm;
        s.push_back(2);
        p.push_back(static_cast<long>(shape.size()));
        return make_plan(std::move(s), std::move(p), Word::w32);
    } else {
        return make_plan(shape, perm, word_of<T>);
    }
}

}  // namespace infer_ops::transpose_plan
