// The softmax of a token is the reference's to the bit: the maximum from
// -10000 by the same comparison, the difference in float, the exponential in
// double stored as float (exp_float.h), the sum in float in expert order,
// one division.
//
// Speed comes from the tokens: on the tiled path every step runs over a tile
// of tokens stored expert-major, one token per vector lane, so each lane does
// its own token's arithmetic in its own order.
#pragma GCC optimize("fp-contract=off")

#include "kernels/moe/softmax_topk.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <type_traits>

#include "frame/convert.h"
#include "kernels/grid.h"
#include "kernels/moe/exp_float.h"
#include "kernels/moe/moe_index.h"
#include "kernels/moe/topk_rule.h"

namespace tsuops::kernels::moe {

namespace {

namespace rule = infer_ops::topk_rule;
using infer_ops::moe_index::span;

// The widened logits of L tokens, expert-major: expert j of lane r at
// j * L + r; the softmax runs over them in place, then each score gets its
// key of the routers' order in the same place of `key`.
template <int L>
struct tile {
    float v[kMaxExperts * L];
    std::uint32_t key[kMaxExperts * L];
    float row[kMaxExperts];            // one token widened, before it is spread over the lanes
    std::uint64_t best[kMaxExperts];   // one lane's order
};

template <typename TX>
void widen_row(const TX* x, float* out, long n) {
    if constexpr (std::is_same_v<TX, float>) {
        std::copy(x, x + n, out);
    } else {
        infer_ops::widen(x, out, n);
    }
}

template <typename TX, int L>
void load(tile<L>& t, const TX* x, long n) {
    if constexpr (L == 1) {
        widen_row(x, t.v, n);
    } else {
        for (int r = 0; r < L; ++r) {
            widen_row(x + r * n, t.row, n);
            for (long j = 0; j < n; ++j) t.v[j * L + r] = t.row[j];
        }
    }
}

template <int L>
void softmax(float* __restrict v, long n) {
    float mx[L], sum[L];
    for (int r = 0; r < L; ++r) {
        mx[r] = -10000.0f;
        sum[r] = 0.0f;
    }
    for (long j = 0; j < n; ++j) {
        for (int r = 0; r < L; ++r) mx[r] = mx[r] > v[j * L + r] ? mx[r] : v[j * L + r];
    }
    for (long j = 0; j < n; ++j) {
        for (int r = 0; r < L; ++r) v[j * L + r] = v[j * L + r] - mx[r];
    }
    exp_to_float(v, n * L);
    for (long j = 0; j < n; ++j) {
        for (int r = 0; r < L; ++r) sum[r] += v[j * L + r];
    }
    for (long j = 0; j < n; ++j) {
        for (int r = 0; r < L; ++r) v[j * L + r] = v[j * L + r] / sum[r];
    }
}

// The first k keys of lane r in descending order, into best[0, k). Few
// choices: insertion into a sorted list of k, where an expert enters only
// with a score key above the list's last (experts come in ascending order,
// so an equal score never displaces an earlier expert). Many: a partial
// sort of the whole row.
template <int L>
void select(tile<L>& t, int r, long n, long k) {
    std::uint64_t* best = t.best;
    const std::uint32_t* key = t.key + r;
    if (k > kInsertionTopk) {
        for (long j = 0; j < n; ++j) best[j] = rule::rank_key(key[j * L], static_cast<std::uint32_t>(j));
        std::partial_sort(best, best + k, best + n, std::greater<>());
        return;
    }
    long filled = 0;
    std::uint32_t last = 0;  // the score key of best[k - 1] once the list is full
    for (long j = 0; j < n; ++j) {
        const std::uint32_t sk = key[j * L];
        if (filled == k && sk <= last) continue;
        const std::uint64_t entry = rule::rank_key(sk, static_cast<std::uint32_t>(j));
        long i = filled < k ? filled++ : k - 1;
        for (; i > 0 && best[i - 1] < entry; --i) best[i] = best[i - 1];
        best[i] = entry;
        if (filled == k) last = static_cast<std::uint32_t>(best[k - 1] >> 32);
    }
}

template <typename TY>
TY narrow_score(float s) {
    return infer_ops::convert::from_float<TY, true>(s);
}

// The L tokens from `first`.
template <typename TX, typename TY, typename TID, int L>
void route_tile(tile<L>& t, const TX* x, TID* topk_index, TY* topk_score, long first, long n, long k) {
    load(t, x + first * n, n);
    softmax<L>(t.v, n);
    for (long i = 0; i < n * L; ++i) t.key[i] = rule::score_key(t.v[i]);
    for (int r = 0; r < L; ++r) {
        select(t, r, n, k);
        TID* index = topk_index + (first + r) * k;
        TY* score = topk_score + (first + r) * k;
        for (long j = 0; j < k; ++j) {
            const int e = rule::expert_of(t.best[j]);
            index[j] = static_cast<TID>(e);
            score[j] = narrow_score<TY>(t.v[e * L + r]);
        }
    }
}

// Whole tiles first (none with small_shape), the rest one token at a time.
template <typename TX, typename TY, typename TID>
void route(const TX* x, TID* topk_index, TY* topk_score, span tokens, long n, long k, bool small_shape) {
    long i = tokens.begin;
    if (!small_shape) {
        tile<kTileTokens> t;
        for (; i + kTileTokens <= tokens.end; i += kTileTokens) route_tile(t, x, topk_index, topk_score, i, n, k);
    }
    tile<1> t;
    for (; i < tokens.end; ++i) route_tile(t, x, topk_index, topk_score, i, n, k);
}

// Row b of the histogram, from the choices of the block's tokens, which this
// core has just written.
template <typename TID>
void count_block(int* row, const TID* topk_index, span tokens, long n, long k) {
    std::fill(row, row + n, 0);
    for (long p = tokens.begin * k; p < tokens.end * k; ++p) ++row[topk_index[p]];
}

}  // namespace

}  // namespace tsuops::kernels::moe

namespace tsu3 {

// Without a histogram the tokens are split over every core. With one, a row
// of it can only be written by a core that has routed all of its block's
// tokens (cores do not wait on each other), so whole blocks are split over
// the cores.
template <typename TX, typename TY, typename TID>
void infer_moe_softmax_topk(const TX* x, TID* topk_index, TY* topk_score, int* block_statistic, int k, int m, int n,
                            int block_num, bool small_shape) {
    namespace mk = tsuops::kernels::moe;
    if (m < 1 || n < 1 || n > mk::kMaxExperts || k < 1 || k > n) return;
    if (block_num < 1) {
        const auto [b, e] = tsuops::kernels::core_share(m);
        mk::route(x, topk_index, topk_score, {b, e}, n, k, small_shape);
        return;
    }
    const auto [first, last] = tsuops::kernels::core_share(block_num);
    for (long b = first; b < last; ++b) {
        const auto tokens = infer_ops::moe_index::token_block(b, block_num, m);
        mk::route(x, topk_index, topk_score, tokens, n, k, small_shape);
        mk::count_block(block_statistic + b * n, topk_index, tokens, n, k);
    }
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_moe_softmax_topk)
#define TSU_MOE_SOFTMAX_TOPK_TID(TX, TY)                          \
    TSU_KERNEL_INSTANCE(infer_moe_softmax_topk, TX, TY, int)      \
    TSU_KERNEL_INSTANCE(infer_moe_softmax_topk, TX, TY, long)
#define TSU_MOE_SOFTMAX_TOPK_TY(TX)                \
    TSU_MOE_SOFTMAX_TOPK_TID(TX, float)            \
    TSU_MOE_SOFTMAX_TOPK_TID(TX, float16)          \
    TSU_MOE_SOFTMAX_TOPK_TID(TX, bfloat16)
TSU_MOE_SOFTMAX_TOPK_TY(float)
TSU_MOE_SOFTMAX_TOPK_TY(float16)
TSU_MOE_SOFTMAX_TOPK_TY(bfloat16)
#undef TSU_MOE_SOFTMAX_TOPK_TY
#undef TSU_MOE_SOFTMAX_TOPK_TID
