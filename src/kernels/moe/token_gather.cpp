// The gathers. Slots are a stable counting sort of the flat positions by
// expert, so the slot of a pair is its expert's first slot plus the pairs of
// that expert at earlier flat positions. Each core gets those counts for
// the first pair of its own share without waiting for any other core: from
// the block statistic (the whole blocks before that pair, then a scan of the
// rest of its block), or, without a statistic, from one scan of the table
// before its share. It then walks its share in flat order, taking slots from
// its own cursors, so every row of y has exactly one writer and no atomics
// are needed. Rows are copied or quantised whole. Those counts cost every
// core the same whatever its share, so a core takes at least
// kRowsPerCount row elements per step of its counts: a small gather runs on
// fewer cores rather than paying for the counts on all of them.
#include <algorithm>
#include <cstring>
#include <type_traits>

#include <tsuops/float16.h>

#include "frame/quant_rules.h"
#include "kernels/grid.h"
#include "kernels/moe/moe_index.h"
#include "kernels/moe/token_flow.h"

namespace tsuops::kernels::moe {

namespace {

namespace mi = infer_ops::moe_index;
namespace quant = infer_ops::quant;

// Elements of a 16-bit row widened at a time before quantising: they stay in
// the first-level cache between the two passes.
constexpr long kChunk = 1024;

__attribute__((target_clones("avx2", "default"))) void span_quantise(const float* __restrict x,
                                                                      signed char* __restrict y, long n, float s) {
    quant::quantize_span(x, y, n, s);
}

// n elements of a token row quantised by rule Q8 against the scale float s.
template <typename T>
void quantise_row(const T* x, signed char* y, long n, float s) {
    if constexpr (std::is_same_v<T, float>) {
        span_quantise(x, y, n, s);
    } else {
        alignas(64) float buf[kChunk];
        for (long c = 0; c < n; c += kChunk) {
            const long len = std::min(kChunk, n - c);
            infer_ops::widen(x + c, buf, len);
            span_quantise(buf, y + c, len, s);
        }
    }
}

// The counts of one core. N: the most experts.
template <long N>
struct placement {
    long total[N];  // pairs per expert over the whole table
    long next[N];   // the slot of this core's next pair of each expert
};

template <long N, typename TI>
void count_from_table(placement<N>& pl, const TI* index, long pairs, long e, long p0) {
    for (long p = 0; p < pairs; ++p) {
        const TI ex = index[p];
        if (!mi::is_expert(ex, e)) continue;
        ++pl.total[ex];
        if (p < p0) ++pl.next[ex];
    }
}

// The blocks before the one that holds p0 count for the core's cursors and
// for the totals, the others for the totals only; then the rest of p0's own
// block before p0.
template <long N, typename TI>
void count_from_statistic(placement<N>& pl, const TI* index, const TI* stat, long m, long k, long e, long block_num,
                          long p0) {
    const long b0 = p0 / k < m ? mi::block_of_token(p0 / k, block_num, m) : block_num;
    for (long b = 0; b < b0; ++b) {
        for (long ex = 0; ex < e; ++ex) pl.next[ex] += stat[b * e + ex];
    }
    std::copy(pl.next, pl.next + e, pl.total);
    for (long b = b0; b < block_num; ++b) {
        for (long ex = 0; ex < e; ++ex) pl.total[ex] += stat[b * e + ex];
    }
    if (b0 == block_num) return;
    for (long p = mi::token_block(b0, block_num, m).begin * k; p < p0; ++p) {
        if (mi::is_expert(index[p], e)) ++pl.next[index[p]];
    }
}

// This core's share of `units` units of `unit_elems` row elements each: an
// even split, but at least kRowsPerCount elements per step of the counts.
range flow_share(long units, long unit_elems, long count_steps) {
    const long cores = tsuemu::global_core_count();
    const long least = (kRowsPerCount * count_steps + unit_elems - 1) / std::max(unit_elems, 1L);
    const long per_core = std::max({(units + cores - 1) / cores, least, 1L});
    const long begin = std::min(units, tsuemu::global_core_id() * per_core);
    return {begin, std::min(units, begin + per_core)};
}

// What every gather shares: the sizes, the arrays of counts and offsets, and
// whether the offsets end with the sum of the counts or with m * k.
template <typename TI>
struct gather_args {
    const TI* index;
    const TI* stat;  // null: count from the table
    TI* expert_m;    // may be null
    TI* lod;
    long m, d, e, k, block_num;
    bool last_is_sum;
};

// Counts, offsets (written by the first core) and this core's walk: for each
// of its pairs place(p, expert, slot) with the slot, -1 for an expert out of
// range. whole_tokens: shares of whole tokens, so that each token row is
// read by one core; else of pairs.
template <long N, typename TI, typename Place>
void gather(const gather_args<TI>& a, bool whole_tokens, Place place) {
    if (a.e < 0 || a.e > N || a.k < 1 || a.m < 1) return;
    const long pairs = a.m * a.k;
    const bool by_statistic = a.stat != nullptr && a.block_num >= 1;
    const long steps = by_statistic ? (a.block_num + 1) * a.e : pairs;
    range share = whole_tokens ? flow_share(a.m, a.k * a.d, steps) : flow_share(pairs, a.d, steps);
    if (whole_tokens) share = {share.begin * a.k, share.end * a.k};
    const bool writes_counts = tsuemu::global_core_id() == 0;
    if (share.begin == share.end && !writes_counts) return;

    placement<N> pl;
    std::fill(pl.total, pl.total + a.e, 0L);
    std::fill(pl.next, pl.next + a.e, 0L);
    const long p0 = share.begin;
    if (by_statistic) {
        count_from_statistic(pl, a.index, a.stat, a.m, a.k, a.e, a.block_num, p0);
    } else {
        count_from_table(pl, a.index, pairs, a.e, p0);
    }
    long first_slot = 0;
    for (long ex = 0; ex < a.e; ++ex) {
        pl.next[ex] += first_slot;
        first_slot += pl.total[ex];
    }
    if (writes_counts) {
        long sum = 0;
        a.lod[0] = 0;
        for (long ex = 0; ex < a.e; ++ex) {
            if (a.expert_m != nullptr) a.expert_m[ex] = static_cast<TI>(pl.total[ex]);
            sum += pl.total[ex];
            a.lod[ex + 1] = static_cast<TI>(sum);
        }
        // A 32-bit product, as the reference has it.
        if (!a.last_is_sum) a.lod[a.e] = static_cast<TI>(static_cast<unsigned>(a.k) * static_cast<unsigned>(a.m));
    }

    for (long p = share.begin; p < share.end; ++p) {
        const TI ex = a.index[p];
        place(p, static_cast<long>(ex), mi::is_expert(ex, a.e) ? pl.next[ex]++ : -1L);
    }
}

// The scatter-form entry of a pair; an inconsistent statistic may name
// slots past the rows, which get no row.
template <typename TI>
bool scatter_entry(TI* moe_index, long p, long slot, long pairs, bool stray_is_marked) {
    if (slot >= 0 || stray_is_marked) moe_index[p] = static_cast<TI>(slot);
    return slot >= 0 && slot < pairs;
}

template <typename T, typename TI>
void copy_gather(const gather_args<TI>& a, bool whole_tokens, const T* x, T* y, TI* moe_index) {
    const long pairs = a.m * a.k;
    gather<kMaxFlowExperts>(a, whole_tokens, [&](long p, long, long slot) {
        if (!scatter_entry(moe_index, p, slot, pairs, false) || x == nullptr || y == nullptr) return;
        std::memcpy(static_cast<void*>(y + slot * a.d), static_cast<const void*>(x + p / a.k * a.d),
                    static_cast<std::size_t>(a.d) * sizeof(T));
    });
}

template <typename T, typename TI>
void quant_gather(const gather_args<TI>& a, bool whole_tokens, const T* x, const float* pe_max, signed char* y,
                  TI* moe_index) {
    const long pairs = a.m * a.k;
    gather<kMaxFlowExperts>(a, whole_tokens, [&](long p, long ex, long slot) {
        if (scatter_entry(moe_index, p, slot, pairs, true)) {
            quantise_row(x + p / a.k * a.d, y + slot * a.d, a.d, pe_max[ex]);
        }
    });
}

}  // namespace

}  // namespace tsuops::kernels::moe

namespace tsu3 {

namespace mk = tsuops::kernels::moe;

template <typename T, typename TI>
void infer_moe_ffn_pre_sorted(const T* x, const TI* index, T* y, TI* moe_index, TI* expert_m,
                              TI* sorted_tokens_num_lod, long m, long d, long e, long k) {
    if (m * k > mk::kMaxPairsWithoutStatistic) return;
    mk::copy_gather<T, TI>({index, nullptr, expert_m, sorted_tokens_num_lod, m, d, e, k, 0, false}, false, x, y,
                           moe_index);
}

template <typename T, typename TI>
void infer_moe_ffn_pre_sorted_split_m(const T* x, const TI* index, const TI* block_statistic, T* y, TI* moe_index,
                                      TI* expert_m, TI* sorted_tokens_num_lod, long m, long d, long e, long k,
                                      long block_num) {
    mk::copy_gather<T, TI>({index, block_statistic, expert_m, sorted_tokens_num_lod, m, d, e, k, block_num, false},
                           false, x, y, moe_index);
}

template <typename T, typename TI>
void infer_moe_ffn_pre_sorted_split_m_large(const T* x, const TI* index, const TI* block_statistic, T* y,
                                            TI* moe_index, TI* expert_m, TI* sorted_tokens_num_lod, long m, long d,
                                            long e, long k, long block_num) {
    mk::copy_gather<T, TI>({index, block_statistic, expert_m, sorted_tokens_num_lod, m, d, e, k, block_num, false},
                           true, x, y, moe_index);
}

// token_max_out is left to expand_expert_max_to_token_max, which the device
// path launches next.
template <typename T, typename TI>
void moe_ffn_pre_sorted_quant_pe(const T* x, const TI* index, const float* pe_max, signed char* y, TI* moe_index,
                                 TI* expert_m, TI* sorted_tokens_num_lod, float*, long m, long d, long e, long k) {
    if (m * k > mk::kMaxPairsWithoutStatistic) return;
    mk::quant_gather<T, TI>({index, nullptr, expert_m, sorted_tokens_num_lod, m, d, e, k, 0, true}, false, x, pe_max,
                            y, moe_index);
}

template <typename T, typename TI>
void moe_ffn_pre_sorted_quant_pe_split_m(const T* x, const TI* index, const float* pe_max,
                                         const TI* block_statistic, signed char* y, TI* moe_index, TI* expert_m,
                                         TI* sorted_tokens_num_lod, float*, long m, long d, long e, long k,
                                         long block_num) {
    mk::quant_gather<T, TI>({index, block_statistic, expert_m, sorted_tokens_num_lod, m, d, e, k, block_num, true},
                            false, x, pe_max, y, moe_index);
}

template <typename T, typename TI>
void moe_ffn_pre_sorted_quant_pe_split_m_large(const T* x, const TI* index, const float* pe_max,
                                               const TI* block_statistic, signed char* y, TI* moe_index,
                                               TI* expert_m, TI* sorted_tokens_num_lod, float*, long m, long d,
                                               long e, long k, long block_num) {
    mk::quant_gather<T, TI>({index, block_statistic, expert_m, sorted_tokens_num_lod, m, d, e, k, block_num, true},
                            true, x, pe_max, y, moe_index);
}

// Expert ex owns the slots [lod[ex], lod[ex + 1]); each core finds the owner
// of its first slot by bisection and walks on.
template <typename TI>
void expand_expert_max_to_token_max(const float* pe_max, const TI*, const TI* sorted_tokens_num_lod,
                                    float* token_max_out, long m, long e, long k) {
    if (token_max_out == nullptr || e < 1) return;
    const TI* lod = sorted_tokens_num_lod;
    const long slots = std::clamp(static_cast<long>(lod[e]), 0L, m * k);
    const auto [first, last] = tsuops::kernels::core_share(slots, tsuops::kernels::line_elems<float>);
    long ex = std::upper_bound(lod, lod + e + 1, static_cast<TI>(first)) - lod - 1;
    for (long s = first; s < last; ++s) {
        while (ex + 1 < e && s >= static_cast<long>(lod[ex + 1])) ++ex;
        token_max_out[s] = pe_max[std::clamp(ex, 0L, e - 1)];
    }
}

// The gather form from the statistic: each core writes the flat positions of
// its own whole tokens into their slots.
template <typename TI>
void infer_moe_ffn_pre_fusion_split_m(const TI* index, const TI* block_statistic, TI* moe_index,
                                      TI* expert_offset_m, long m, long n, long k, long block_num) {
    const long pairs = m * k;
    mk::gather<mk::kPreFusionExpertLimit, TI>({index, block_statistic, nullptr, expert_offset_m, m, 0, n, k, block_num,
                                               true},
                                              true, [&](long p, long, long slot) {
                                                  if (slot >= 0 && slot < pairs) moe_index[slot] = static_cast<TI>(p);
                                              });
}

}  // namespace tsu3

#define TSU_FLOW_EACH_T(X, family) X(family, float, int) X(family, float16, int) X(family, bfloat16, int)
#define TSU_FLOW_INSTANCE(family, ...) TSU_KERNEL_INSTANCE(family, __VA_ARGS__)
#define TSU_FLOW_GATHER(family) TSU_KERNEL_DEFINE(family) TSU_FLOW_EACH_T(TSU_FLOW_INSTANCE, family)
TSU_FLOW_GATHER(infer_moe_ffn_pre_sorted)
TSU_FLOW_GATHER(infer_moe_ffn_pre_sorted_split_m)
TSU_FLOW_GATHER(infer_moe_ffn_pre_sorted_split_m_large)
TSU_FLOW_GATHER(moe_ffn_pre_sorted_quant_pe)
TSU_FLOW_GATHER(moe_ffn_pre_sorted_quant_pe_split_m)
TSU_FLOW_GATHER(moe_ffn_pre_sorted_quant_pe_split_m_large)
#undef TSU_FLOW_GATHER
#undef TSU_FLOW_INSTANCE
#undef TSU_FLOW_EACH_T

TSU_KERNEL_DEFINE(expand_expert_max_to_token_max)
TSU_KERNEL_INSTANCE(expand_expert_max_to_token_max, int)

TSU_KERNEL_DEFINE(infer_moe_ffn_pre_fusion_split_m)
TSU_KERNEL_INSTANCE(infer_moe_ffn_pre_fusion_split_m, int)
