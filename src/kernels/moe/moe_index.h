// The index arrays between token order and expert order, shared by the
// routers, the index operators and the gathering and combining operators.
//
// A routed pair is (token t, choice j), 0 <= t < m, 0 <= j < k. Its flat
// position is p = t * k + j.
//
//   routing table   m * k, int (routers may give long): at flat position p
//                   the expert chosen, in [0, n). Names: topk_index,
//                   topk_idx, topk_ids, index.
//   block statistic block_num * n, int: entry [b][e] counts the pairs of the
//                   tokens of block b (token_block below) routed to e.
//   counts          n, int or long: entry e counts the pairs routed to e.
//                   Names: expert_m.
//   offsets         n + 1, int or long: entry 0 is 0, entry e + 1 = entry e +
//                   counts[e]; the last is the number of pairs; expert e owns
//                   the slots [offsets[e], offsets[e + 1]). Names:
//                   sorted_tokens_num_lod, sorted_token_num_lod,
//                   expert_offset_m.
//   scatter form    m * k, int: at flat position p the slot of that pair, the
//                   row of the sorted matrix that holds it (-1 in the
//                   expert-parallel forms for a pair of another rank).
//   gather form     m * k, int: at slot s the flat position of the pair that
//                   sits there; its token is the value / k.
//   padded gather   the gather form with each expert's run starting at a
//                   multiple of block_size; padding slots are not written.
//                   Room: padded_capacity below. Names: sorted_token_ids.
//   block experts   per block of block_size slots of the padded gather, the
//                   expert that owns it; blocks without pairs are not
//                   written. Names: expert_ids.
//   padded total    1, int: the slots in use after padding.
//
// Slot order, the same in every operator: experts ascending, and within one
// expert the flat positions ascending (token ascending, then choice
// ascending): the order of a stable counting sort of the flat positions by
// expert. So the scatter and gather forms of one routing table are exact
// inverses, and moe_resort_idx turns either into the other.
//
// Example, m = 3, k = 2, n = 4, routing table 2 0 1 2 0 2:
//   counts 2 1 3 0; offsets 0 2 3 6 6; gather 1 4 2 0 3 5; scatter 3 0 2 4 1 5.
//   With block_size 2: padded gather 1 4 2 _ 0 3 5 _ _ _, block experts
//   0 1 2 2 _, padded total 8.
#pragma once

#include <algorithm>

namespace infer_ops::moe_index {

struct span {
    long begin;
    long end;
};

// The tokens of block b of block_num over m tokens: contiguous near-equal
// spans in token order, the first m % block_num one token longer; blocks past
// the tokens are empty. The spans of cpu_ops::partition<long>(b, block_num,
// m, 1).
inline span token_block(long b, long block_num, long m) {
    const long base = m / block_num;
    const long rest = m % block_num;
    const long begin = b * base + std::min(b, rest);
    return {begin, begin + base + (b < rest ? 1 : 0)};
}

// The block of block_num over m tokens that holds token t (t < m): the
// inverse of token_block.
inline long block_of_token(long t, long block_num, long m) {
    const long base = m / block_num;
    const long rest = m % block_num;
    const long long_tokens = rest * (base + 1);
    return t < long_tokens ? t / (base + 1) : rest + (t - long_tokens) / base;
}

// An expert number that names an expert of n.
template <typename T>
inline bool is_expert(T e, long n) {
    return e >= 0 && static_cast<long>(e) < n;
}

// Room of the padded gather form: every expert may waste up to block_size - 1
// slots, and there is always at least one block.
inline long padded_capacity(long n, long block_size, long numel) {
    return std::max((block_size - 1) * n + numel, block_size);
}

inline long padded_blocks(long n, long block_size, long numel) {
    return (padded_capacity(n, block_size, numel) + block_size - 1) / block_size;
}

}  // namespace infer_ops::moe_index
