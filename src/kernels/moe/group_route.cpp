// Every stage selects with the 64-bit keys of the routers' order instead of
// sorting: a score key in the high half and, in the low half, the inverted
// place that the stable sort would have kept (the expert, the group, or the
// candidate's place in the list of chosen groups). Keys are distinct, so
// the k greatest keys in descending order are the stable sort's first k.
//
// The arithmetic of a token is the reference's, in its order: the sigmoid
// and the exponential to the bit (exp_float.h), the sums in float in the
// same order, the same narrowing.
#pragma GCC optimize("fp-contract=off")

#include "kernels/moe/group_route.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <type_traits>

#include "frame/convert.h"
#include "kernels/grid.h"
#include "kernels/moe/exp_float.h"
#include "kernels/moe/moe_index.h"
#include "kernels/moe/softmax_topk.h"
#include "kernels/moe/topk_rule.h"

namespace tsuops::kernels::moe {

namespace {

namespace rule = infer_ops::topk_rule;
using infer_ops::moe_index::span;

// One token's rows, on the core's stack.
struct row_state {
    float v[kMaxExperts];             // the widened input, or its sigmoid
    float b[kMaxExperts];             // the sigmoid plus bias, or the group's exponentials
    float weight[kMaxExperts];        // the softmax value of each group's winner
    std::uint32_t key[kMaxExperts];   // score key of each expert
    std::uint32_t ckey[kMaxExperts];  // score key of each candidate
    std::uint64_t all[kMaxExperts];   // every key of a stage that selects many
    std::uint64_t best[kInsertionTopk];  // the selected keys of a stage that selects few
    long chosen[kMaxExperts];         // the group at each rank; the winner of each group
    long experts[kMaxExperts];        // the experts chosen
};

template <typename TX>
void widen_row(const TX* x, float* out, long n) {
    if constexpr (std::is_same_v<TX, float>) {
        std::copy(x, x + n, out);
    } else {
        infer_ops::widen(x, out, n);
    }
}

void score_keys(const float* __restrict v, std::uint32_t* __restrict key, long n) {
    for (long i = 0; i < n; ++i) key[i] = rule::score_key(v[i]);
}

// The `want` greatest of the keys key(0) .. key(count - 1), greatest first.
// Few: insertion into a sorted list as the keys stream past, most of them
// turned away by its last entry. Many: a partial sort of all of them.
template <class Key>
const std::uint64_t* top_keys(Key key, long count, long want, row_state& w) {
    if (want > kInsertionTopk) {
        for (long i = 0; i < count; ++i) w.all[i] = key(i);
        std::partial_sort(w.all, w.all + want, w.all + count, std::greater<>());
        return w.all;
    }
    std::uint64_t* best = w.best;
    long filled = 0;
    for (long i = 0; i < count; ++i) {
        const std::uint64_t entry = key(i);
        if (filled == want && entry <= best[want - 1]) continue;
        long j = filled < want ? filled++ : want - 1;
        for (; j > 0 && best[j - 1] < entry; --j) best[j] = best[j - 1];
        best[j] = entry;
    }
    return best;
}

std::uint32_t place_of(std::uint64_t key) { return static_cast<std::uint32_t>(rule::expert_of(key)); }

// Ranks the groups by group_key(g), keeps the first group_topk in
// w.chosen, and lays out the score keys of their experts as one candidate
// list: the run of the group of rank r from r * gs. Returns the candidates'
// count.
template <class GroupKey>
long candidates(row_state& w, long group_num, long group_topk, long gs, GroupKey group_key) {
    const std::uint64_t* ranked = top_keys(group_key, group_num, group_topk, w);
    for (long r = 0; r < group_topk; ++r) {
        w.chosen[r] = place_of(ranked[r]);
        std::copy(w.key + w.chosen[r] * gs, w.key + (w.chosen[r] + 1) * gs, w.ckey + r * gs);
    }
    return group_topk * gs;
}

// The experts of the k best candidates, into w.experts.
void pick(row_state& w, long count, long k, long gs) {
    const std::uint64_t* top =
        top_keys([&](long i) { return rule::rank_key(w.ckey[i], static_cast<std::uint32_t>(i)); }, count, k, w);
    for (long j = 0; j < k; ++j) {
        const long place = place_of(top[j]);
        w.experts[j] = w.chosen[place / gs] * gs + place % gs;
    }
}

// Row b of the histogram, from the choices of the block's tokens, which this
// core has just written.
template <typename TID>
void count_block(int* row, long row_len, const TID* topk_index, span tokens, long width) {
    std::fill(row, row + row_len, 0);
    for (long p = tokens.begin * width; p < tokens.end * width; ++p) ++row[topk_index[p]];
}

// Without a histogram the tokens are split over every core. With one, a row
// of it can only be written by a core that has routed all of its block's
// tokens (cores do not wait on each other), so whole blocks are split.
template <typename TID, class RouteToken>
void route_tokens(long m, long block_num, int* block_statistic, long stat_row, const TID* topk_index, long width,
                  RouteToken route_token) {
    if (block_num < 1) {
        const auto [b, e] = core_share(m);
        for (long t = b; t < e; ++t) route_token(t);
        return;
    }
    const auto [first, last] = core_share(block_num);
    for (long blk = first; blk < last; ++blk) {
        const span tokens = infer_ops::moe_index::token_block(blk, block_num, m);
        for (long t = tokens.begin; t < tokens.end; ++t) route_token(t);
        count_block(block_statistic + blk * stat_row, stat_row, topk_index, tokens, width);
    }
}

template <typename TY>
TY narrow(float v) {
    return infer_ops::convert::from_float<TY, true>(v);
}

// The limits that the wrappers check; a kernel never reads past a row.
bool plain_fits(long m, long n, long k) { return m >= 1 && n >= 1 && n <= kMaxExperts && k >= 1 && k <= n; }

bool grouped_fits(long m, long n, long k, long group_num, long group_topk, long min_group) {
    return plain_fits(m, n, k) && group_num >= 1 && n / group_num >= min_group && group_topk >= 1 &&
           group_topk <= group_num && k <= group_topk * (n / group_num);
}

}  // namespace

}  // namespace tsuops::kernels::moe

namespace tsu3 {

namespace mk = tsuops::kernels::moe;
namespace rule = infer_ops::topk_rule;

// The k greatest inputs of a token.
template <typename TX, typename TY, typename TID>
void moe_topk(const TX* x, TID* topk_index, TY* score, int* block_statistic, long k, long m, long n, long block_num) {
    if (!mk::plain_fits(m, n, k)) return;
    mk::row_state w;
    mk::route_tokens(m, block_num, block_statistic, n, topk_index, k, [&](long t) {
        const TX* xt = x + t * n;
        mk::widen_row(xt, w.v, n);
        mk::score_keys(w.v, w.key, n);
        const std::uint64_t* top = mk::top_keys(
            [&](long e) { return rule::rank_key(w.key[e], static_cast<std::uint32_t>(e)); }, n, k, w);
        for (long j = 0; j < k; ++j) {
            const long e = mk::place_of(top[j]);
            topk_index[t * k + j] = static_cast<TID>(e);
            score[t * k + j] = infer_ops::convert::element<TX, TY, true>(xt[e]);
        }
    });
}

// Groups ranked by their best input, then the k best inputs of the first
// group_topk groups.
template <typename TX, typename TY, typename TID>
void moe_group_topk(const TX* x, TID* topk_index, TY* score, int* block_statistic, int k, int m, int n, int group_num,
                    int group_topk, int block_num, bool small_shape) {
    if (!mk::grouped_fits(m, n, k, group_num, group_topk, 1)) return;
    const long gs = n / group_num;
    mk::row_state w;
    mk::route_tokens(static_cast<long>(m), block_num, block_statistic, n, topk_index, k, [&](long t) {
        const TX* xt = x + t * n;
        mk::widen_row(xt, w.v, group_num * gs);
        mk::score_keys(w.v, w.key, group_num * gs);
        const long count = mk::candidates(w, group_num, group_topk, gs, [&](long g) {
            const std::uint32_t* kg = w.key + g * gs;
            std::uint32_t best = 0;
            for (long j = 0; j < gs; ++j) best = std::max(best, kg[j]);
            return rule::rank_key(best, static_cast<std::uint32_t>(g));
        });
        mk::pick(w, count, k, gs);
        for (long j = 0; j < k; ++j) {
            topk_index[t * k + j] = static_cast<TID>(w.experts[j]);
            score[t * k + j] = infer_ops::convert::element<TX, TY, true>(xt[w.experts[j]]);
        }
    });
}

// Selection on sigmoid plus bias: groups ranked by the sum of their two
// best keys' values; the weights from the unbiased sigmoid, scaled by
// scale over their sum from 1e-7.
template <typename TX, typename TY, typename TID>
void moe_sigmoid_group_topk_norm(const TX* x, TID* topk_index, TY* norm_score, int* block_statistic, const float* bias,
                                 float scale, long k, long m, long n, long group_num, long group_topk, long block_num,
                                 bool small_shape) {
    if (!mk::grouped_fits(m, n, k, group_num, group_topk, 2)) return;
    const long gs = n / group_num;
    mk::row_state w;
    mk::route_tokens(m, block_num, block_statistic, n, topk_index, k, [&](long t) {
        mk::widen_row(x + t * n, w.v, n);
        mk::sigmoid_to_float(w.v, n);
        for (long e = 0; e < n; ++e) w.b[e] = w.v[e] + bias[e];
        mk::score_keys(w.b, w.key, group_num * gs);
        const long count = mk::candidates(w, group_num, group_topk, gs, [&](long g) {
            const long base = g * gs;
            std::uint64_t k1 = rule::rank_key(w.key[base], 0), k2 = rule::rank_key(w.key[base + 1], 1);
            if (k2 > k1) std::swap(k1, k2);
            for (long j = 2; j < gs; ++j) {
                const std::uint64_t kj = rule::rank_key(w.key[base + j], static_cast<std::uint32_t>(j));
                if (kj > k1) {
                    k2 = k1;
                    k1 = kj;
                } else if (kj > k2) {
                    k2 = kj;
                }
            }
            const float group_score = w.b[base + mk::place_of(k1)] + w.b[base + mk::place_of(k2)];
            return rule::rank_key(rule::score_key(group_score), static_cast<std::uint32_t>(g));
        });
        mk::pick(w, count, k, gs);
        float sum = 1e-7f;
        for (long j = 0; j < k; ++j) sum += w.v[w.experts[j]];
        const float f = scale / sum;
        for (long j = 0; j < k; ++j) {
            topk_index[t * k + j] = static_cast<TID>(w.experts[j]);
            norm_score[t * k + j] = mk::narrow<TY>(w.v[w.experts[j]] * f);
        }
    });
}

// The first maximum of each group's raw input with its softmax inside the
// group, renormalised over the groups; the shared experts follow with 1.0.
template <typename TX, typename TY, typename TID>
void infer_moe_softmax_group_singlek_norm(const TX* x, TID* topk_index, TY* norm_score, int* block_statistic,
                                          long group_num, long shared_num, long m, long n, long block_num,
                                          bool small_shape) {
    if (m < 1 || n < 1 || n > mk::kMaxExperts || group_num < 1 || group_num > n || shared_num < 0) return;
    const long gs = n / group_num, len = group_num * gs, width = group_num + shared_num;
    mk::row_state w;
    mk::route_tokens(m, block_num, block_statistic, n + shared_num, topk_index, width, [&](long t) {
        mk::widen_row(x + t * n, w.v, len);
        for (long g = 0; g < group_num; ++g) {
            const float* v = w.v + g * gs;
            float mx = -10000.0f;
            long first = 0;
            for (long j = 0; j < gs; ++j) {
                mx = mx > v[j] ? mx : v[j];
                if (v[j] > v[first]) first = j;
            }
            for (long j = 0; j < gs; ++j) w.b[g * gs + j] = v[j] - mx;
            w.chosen[g] = first;
        }
        mk::exp_to_float(w.b, len);
        float total = 0.0f;
        for (long g = 0; g < group_num; ++g) {
            const float* e = w.b + g * gs;
            float sum = 0.0f;
            for (long j = 0; j < gs; ++j) sum += e[j];
            w.weight[g] = e[w.chosen[g]] / sum;
            total += w.weight[g];
        }
        TID* index = topk_index + t * width;
        TY* score = norm_score + t * width;
        for (long g = 0; g < group_num; ++g) {
            index[g] = static_cast<TID>(g * gs + w.chosen[g]);
            score[g] = mk::narrow<TY>(w.weight[g] / total);
        }
        for (long i = 0; i < shared_num; ++i) {
            index[group_num + i] = static_cast<TID>(n + i);
            score[group_num + i] = mk::narrow<TY>(1.0f);
        }
    });
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(moe_topk)
TSU_KERNEL_DEFINE(moe_group_topk)
TSU_KERNEL_DEFINE(moe_sigmoid_group_topk_norm)
TSU_KERNEL_DEFINE(infer_moe_softmax_group_singlek_norm)

// Each family: TX and TY over float, float16 and bfloat16, TID over int and long.
#define TSU_GROUP_ROUTE_TID(family, TX, TY)   \
    TSU_KERNEL_INSTANCE(family, TX, TY, int)  \
    TSU_KERNEL_INSTANCE(family, TX, TY, long)
#define TSU_GROUP_ROUTE_TY(family, TX)             \
    TSU_GROUP_ROUTE_TID(family, TX, float)         \
    TSU_GROUP_ROUTE_TID(family, TX, float16)       \
    TSU_GROUP_ROUTE_TID(family, TX, bfloat16)
#define TSU_GROUP_ROUTE(family)              \
    TSU_GROUP_ROUTE_TY(family, float)        \
    TSU_GROUP_ROUTE_TY(family, float16)      \
    TSU_GROUP_ROUTE_TY(family, bfloat16)
TSU_GROUP_ROUTE(moe_topk)
TSU_GROUP_ROUTE(moe_group_topk)
TSU_GROUP_ROUTE(moe_sigmoid_group_topk_norm)
TSU_GROUP_ROUTE(infer_moe_softmax_group_singlek_norm)
#undef TSU_GROUP_ROUTE
#undef TSU_GROUP_ROUTE_TY
#undef TSU_GROUP_ROUTE_TID
