// The rotation must be the reference's three roundings per output, also in
// the clone built for CPUs with fused multiply-add.
#pragma GCC optimize("fp-contract=off")

#include "kernels/rope/rotary_embedding_neox.h"

#include <algorithm>
#include <type_traits>

#include <tsuops/float16.h>

#include "kernels/grid.h"
#include "kernels/rope/rotary.h"

namespace tsuops::kernels::neox {

namespace {

namespace rot = infer_ops::rope;

// 16-bit elements widened to float at a time: at least one whole rotary span
// of a single pass.
constexpr long kStage = 2 * kPairs;

template <typename T>
inline constexpr bool is_float = std::is_same_v<T, float>;

// x[k], y[k] = rotate(x[k], y[k], c[k], s[k]) for k in [0, n), in blocks of W
// pairs with a fixed trip count, then the ragged tail. The pairs are
// independent, so the vector lanes change nothing of the arithmetic.
template <long W>
[[gnu::always_inline]] inline void rotate_blocks(float* __restrict x, float* __restrict y, const float* __restrict c,
                                                 const float* __restrict s, long n) {
    long k = 0;
    for (; k + W <= n; k += W) {
        for (long j = 0; j < W; ++j) {
            const rot::pair r = rot::rotate(x[k + j], y[k + j], c[k + j], s[k + j]);
            x[k + j] = r.x;
            y[k + j] = r.y;
        }
    }
    for (; k < n; ++k) {
        const rot::pair r = rot::rotate(x[k], y[k], c[k], s[k]);
        x[k] = r.x;
        y[k] = r.y;
    }
}

// Pairs [0, n) of `rows` spans that start `stride` floats apart, each with
// its y half `half` floats after its x half: every head of a token in one
// call.
template <long W>
[[gnu::always_inline]] inline void rotate_rows(float* x, long rows, long stride, long half, long n, const float* c,
                                               const float* s) {
    for (long r = 0; r < rows; ++r) rotate_blocks<W>(x + r * stride, x + r * stride + half, c, s, n);
}

#define TSUOPS_ROPE_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))

TSUOPS_ROPE_CLONES void rotate_wide(float* x, long rows, long stride, long half, long n, const float* c,
                                    const float* s) {
    rotate_rows<16>(x, rows, stride, half, n, c, s);
}

TSUOPS_ROPE_CLONES void rotate_narrow(float* x, long rows, long stride, long half, long n, const float* c,
                                      const float* s) {
    rotate_rows<8>(x, rows, stride, half, n, c, s);
}

template <bool Wide>
inline void rotate(float* x, long rows, long stride, long half, long n, const float* c, const float* s) {
    if constexpr (Wide) {
        rotate_wide(x, rows, stride, half, n, c, s);
    } else {
        rotate_narrow(x, rows, stride, half, n, c, s);
    }
}

// Pairs [k0, k0 + n) of one table row as floats: a float table is read in
// place, a 16-bit one widened onto the core's stack.
template <typename TCS>
class cos_sin_pass {
public:
    void load(rot::cos_sin<TCS> row, long k0, long n) {
        if constexpr (is_float<TCS>) {
            cos = row.cos + k0;
            sin = row.sin + k0;
        } else {
            infer_ops::widen(row.cos + k0, cb_, n);
            infer_ops::widen(row.sin + k0, sb_, n);
            cos = cb_;
            sin = sb_;
        }
    }
    const float* cos = nullptr;
    const float* sin = nullptr;

private:
    float cb_[is_float<TCS> ? 1 : kPairs];
    float sb_[is_float<TCS> ? 1 : kPairs];
};

// One core's view of a launch, its sizes widened to long.
template <typename TX, typename TCS, typename TID>
struct launch_args {
    const TID* positions;
    TX* query;
    TX* key;
    const TCS* table;
    long rotary_dim;
    long num_heads;
    long num_kv_heads;
    long head_size;
    long num_tokens;
};

// Moves pairs [k0, k0 + n) of g heads, head_size apart from p (which points
// at pair k0 of the first), between a 16-bit tensor and the stage, where a
// head's pairs sit as n x values, then n y values: widened in (In), or
// narrowed back out. As few pieces as the layout allows: one for all g heads
// where the spans fill the heads, one per head where a pass takes the whole
// span, two per head otherwise.
template <bool In, typename TX>
void transfer(TX* p, float* stage, long g, long head_size, long embed, long n) {
    const auto move = [](TX* t, float* f, long len) {
        if constexpr (In) {
            infer_ops::widen(t, f, len);
        } else {
            infer_ops::narrow(f, t, len);
        }
    };
    if (n == embed && 2 * embed == head_size) {
        move(p, stage, g * 2 * n);
        return;
    }
    for (long j = 0; j < g; ++j) {
        TX* t = p + j * head_size;
        float* f = stage + 2 * j * n;
        if (n == embed) {
            move(t, f, 2 * n);
        } else {
            move(t, f, n);
            move(t + embed, f + n, n);
        }
    }
}

// Pairs [k0, k0 + n) of heads [h0, h1) of one token's tensor, whose heads lie
// head_size apart; only the rotary span of each head is read or written. A
// 16-bit tensor goes through the stage a group of heads at a time.
template <typename TX, bool Wide>
void rotate_heads(TX* token, long h0, long h1, long head_size, long rotary_dim, long k0, long n, const float* c,
                  const float* s, float* stage) {
    const long embed = rotary_dim / 2;
    if constexpr (is_float<TX>) {
        rotate<Wide>(token + h0 * head_size + k0, h1 - h0, head_size, embed, n, c, s);
    } else {
        const long group = kStage / (2 * n);
        for (long h = h0; h < h1; h += group) {
            const long g = std::min(group, h1 - h);
            TX* p = token + h * head_size + k0;
            transfer<true>(p, stage, g, head_size, embed, n);
            rotate<Wide>(stage, g, 2 * n, n, n, c, s);
            transfer<false>(p, stage, g, head_size, embed, n);
        }
    }
}

// The work of one core: the table rows and the stage on its stack.
template <typename TX, typename TCS, typename TID, bool Wide>
class core_work {
public:
    explicit core_work(const launch_args<TX, TCS, TID>& a) : a_(a) {}

    // Heads [h0, h1) of token t, counting the query's heads first, then the
    // key's; the token's table row is read once for all of them.
    void token(long t, long h0, long h1) {
        const auto row = rot::table_row(a_.table, a_.positions[t], a_.rotary_dim);
        const long embed = a_.rotary_dim / 2;
        const long nq = a_.num_heads;
        for (long k0 = 0; k0 < embed; k0 += kPairs) {
            const long n = std::min(kPairs, embed - k0);
            cs_.load(row, k0, n);
            if (h0 < nq) {
                rotate_heads<TX, Wide>(a_.query + t * nq * a_.head_size, h0, std::min(h1, nq), a_.head_size,
                                       a_.rotary_dim, k0, n, cs_.cos, cs_.sin, stage_);
            }
            if (h1 > nq) {
                rotate_heads<TX, Wide>(a_.key + t * a_.num_kv_heads * a_.head_size, std::max(h0, nq) - nq, h1 - nq,
                                       a_.head_size, a_.rotary_dim, k0, n, cs_.cos, cs_.sin, stage_);
            }
        }
    }

private:
    const launch_args<TX, TCS, TID>& a_;
    cos_sin_pass<TCS> cs_;
    float stage_[is_float<TX> ? 1 : kStage];
};

// Whole tokens per core.
template <typename TX, typename TCS, typename TID, bool Wide>
void by_token(const launch_args<TX, TCS, TID>& a) {
    const auto [b, e] = core_share(a.num_tokens);
    if (b == e) return;
    core_work<TX, TCS, TID, Wide> w(a);
    for (long t = b; t < e; ++t) w.token(t, 0, a.num_heads + a.num_kv_heads);
}

// (token, head) items per core, query heads before key heads within a token,
// for batches with fewer tokens than cores.
template <typename TX, typename TCS, typename TID, bool Wide>
void by_head(const launch_args<TX, TCS, TID>& a) {
    const long heads = a.num_heads + a.num_kv_heads;
    const auto [b, e] = core_share(a.num_tokens * heads);
    if (b == e) return;
    core_work<TX, TCS, TID, Wide> w(a);
    for (long i = b; i < e;) {
        const long t = i / heads;
        const long h0 = i % heads;
        const long h1 = std::min(heads, h0 + (e - i));
        w.token(t, h0, h1);
        i += h1 - h0;
    }
}

}  // namespace

}  // namespace tsuops::kernels::neox

namespace tsu3 {

namespace neox = tsuops::kernels::neox;

template <typename TX, typename TCS, typename TID, bool Wide>
void rotary_embedding_neox(const TID* positions, TX* query, TX* key, const TCS* cos_sin_cache, int rotary_dim,
                           int num_heads, int num_kv_heads, int head_size, int num_tokens) {
    neox::by_token<TX, TCS, TID, Wide>(
        {positions, query, key, cos_sin_cache, rotary_dim, num_heads, num_kv_heads, head_size, num_tokens});
}

template <typename TX, typename TCS, typename TID, bool Wide>
void rotary_embedding_neox_gqa(const TID* positions, TX* query, TX* key, const TCS* cos_sin_cache, int rotary_dim,
                               int num_heads, int num_kv_heads, int head_size, int num_tokens) {
    neox::by_token<TX, TCS, TID, Wide>(
        {positions, query, key, cos_sin_cache, rotary_dim, num_heads, num_kv_heads, head_size, num_tokens});
}

template <typename TX, typename TCS, typename TID, bool Wide>
void rotary_embedding_neox_small_case(const TID* positions, TX* query, TX* key, const TCS* cos_sin_cache,
                                      int rotary_dim, int num_heads, int num_kv_heads, int head_size,
                                      int num_tokens) {
    neox::by_head<TX, TCS, TID, Wide>(
        {positions, query, key, cos_sin_cache, rotary_dim, num_heads, num_kv_heads, head_size, num_tokens});
}

template <typename TX, typename TCS, typename TID, bool Wide>
void rotary_embedding_neox_small_case_gqa(const TID* positions, TX* query, TX* key, const TCS* cos_sin_cache,
                                          int rotary_dim, int num_heads, int num_kv_heads, int head_size,
                                          int num_tokens) {
    neox::by_head<TX, TCS, TID, Wide>(
        {positions, query, key, cos_sin_cache, rotary_dim, num_heads, num_kv_heads, head_size, num_tokens});
}

}  // namespace tsu3

// Every family over the same ten type triples (the operator's nine and
// float16 with a float table and int positions), each with both forms.
#define TSU_ROPE_NEOX_BOTH(family, TX, TCS, TID)         \
    TSU_KERNEL_INSTANCE(family, TX, TCS, TID, true)      \
    TSU_KERNEL_INSTANCE(family, TX, TCS, TID, false)
#define TSU_ROPE_NEOX_INSTANCES(family)                   \
    TSU_KERNEL_DEFINE(family)                             \
    TSU_ROPE_NEOX_BOTH(family, float16, float16, int)     \
    TSU_ROPE_NEOX_BOTH(family, float16, float16, long)    \
    TSU_ROPE_NEOX_BOTH(family, float16, float, int)       \
    TSU_ROPE_NEOX_BOTH(family, float16, float, long)      \
    TSU_ROPE_NEOX_BOTH(family, bfloat16, bfloat16, int)   \
    TSU_ROPE_NEOX_BOTH(family, bfloat16, bfloat16, long)  \
    TSU_ROPE_NEOX_BOTH(family, bfloat16, float, int)      \
    TSU_ROPE_NEOX_BOTH(family, bfloat16, float, long)     \
    TSU_ROPE_NEOX_BOTH(family, float, float, int)         \
    TSU_ROPE_NEOX_BOTH(family, float, float, long)
TSU_ROPE_NEOX_INSTANCES(rotary_embedding_neox)
TSU_ROPE_NEOX_INSTANCES(rotary_embedding_neox_gqa)
TSU_ROPE_NEOX_INSTANCES(rotary_embedding_neox_small_case)
TSU_ROPE_NEOX_INSTANCES(rotary_embedding_neox_small_case_gqa)
#undef TSU_ROPE_NEOX_INSTANCES
#undef TSU_ROPE_NEOX_BOTH
