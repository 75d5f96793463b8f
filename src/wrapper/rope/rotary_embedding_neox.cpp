// The reference path spells out every rounding step: two products and their
// difference (or sum) are three float roundings, never a fused multiply-add.
#pragma GCC optimize("fp-contract=off")

#include <algorithm>

#include <tsuops/ctx_guard.h>
#include <tsuops/rope.h>

#include "frame/frame.h"
#include "kernels/rope/rotary.h"
#include "kernels/rope/rotary_embedding_neox.h"
#include "wrapper/rope/neox_select.h"

namespace infer_ops {

namespace {

// One tensor of `heads` heads per token, token by token, pair by pair. Each
// pair is read whole before either element is written, so the pass is safe
// in place.
template <typename TX, typename TCS, typename TID>
void rotate_reference(const TID* positions, TX* x, const TCS* table, long rotary_dim, long heads, long head_size,
                      long num_tokens) {
    const long embed_dim = rotary_dim / 2;
    for (long t = 0; t < num_tokens; ++t) {
        const rope::cos_sin<TCS> row = rope::table_row(table, positions[t], rotary_dim);
        for (long i = 0; i < embed_dim * heads; ++i) {
            const long head = i / embed_dim;
            const long k = i % embed_dim;
            const long base = (t * heads + head) * head_size;
            const rope::pair r = rope::rotate(rope::to_float(x[base + k]), rope::to_float(x[base + k + embed_dim]),
                                              rope::to_float(row.cos[k]), rope::to_float(row.sin[k]));
            x[base + k] = rope::store<TX>(r.x);
            x[base + k + embed_dim] = rope::store<TX>(r.y);
        }
    }
}

// The whole query before the key.
template <typename TX, typename TCS, typename TID>
int cpu_wrapper(const TID* positions, TX* query, TX* key, const TCS* cos_sin_cache, long rotary_dim, long num_heads,
                long num_kv_heads, long head_size, long num_tokens) {
    rotate_reference(positions, query, cos_sin_cache, rotary_dim, num_heads, head_size, num_tokens);
    rotate_reference(positions, key, cos_sin_cache, rotary_dim, num_kv_heads, head_size, num_tokens);
    return SUCCESS;
}

template <typename TX, typename TCS, typename TID>
using neox_stub = int (*)(const TID*, TX*, TX*, const TCS*, int, int, int, int, int);

template <typename TX, typename TCS, typename TID, bool Wide>
neox_stub<TX, TCS, TID> stub_of(rope::Kernel k) {
    using namespace tsu3;
    switch (k) {
    case rope::Kernel::small_case_gqa: return &__device_stub__rotary_embedding_neox_small_case_gqa<TX, TCS, TID, Wide>;
    case rope::Kernel::small_case: return &__device_stub__rotary_embedding_neox_small_case<TX, TCS, TID, Wide>;
    case rope::Kernel::gqa: return &__device_stub__rotary_embedding_neox_gqa<TX, TCS, TID, Wide>;
    case rope::Kernel::plain: break;
    }
    return &__device_stub__rotary_embedding_neox<TX, TCS, TID, Wide>;
}

// One kernel for the whole batch, launched on chunks of tokens in order, each
// launch configured afresh; the sizes go to the kernel as int.
template <typename TX, typename TCS, typename TID>
int tsu2or3_wrapper(Context* ctx, const TID* positions, TX* query, TX* key, const TCS* cos_sin_cache,
                    long rotary_dim, long num_heads, long num_kv_heads, long head_size, long num_tokens) {
    orvane::tsu::api::ctx_guard scratch(ctx);
    const rope::Kernel k = rope::select({num_tokens, num_heads, num_kv_heads, head_size, ctx->ncluster});
    const neox_stub<TX, TCS, TID> stub =
        rope::wide_rotary(rotary_dim) ? stub_of<TX, TCS, TID, true>(k) : stub_of<TX, TCS, TID, false>(k);
    for (long s = 0; s < num_tokens; s += rope::kChunkTokens) {
        const long n = std::min(num_tokens - s, rope::kChunkTokens);
        if (int st = frame::cluster_launch(ctx)(stub, positions + s, query + s * head_size * num_heads,
                                                key + s * head_size * num_kv_heads, cos_sin_cache, rotary_dim,
                                                num_heads, num_kv_heads, head_size, n)) {
            return st;
        }
    }
    return SUCCESS;
}

}  // namespace

template <typename TX, typename TCS, typename TID>
int rotary_embedding_neox(Context* ctx, const TID* positions, TX* query, TX* key, const TCS* cos_sin_cache,
                          long rotary_dim, long num_heads, long num_kv_heads, long head_size, long num_tokens) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TX, TCS, TID>(guard, ctx, "rotary_embedding_neox", positions, query, key, cos_sin_cache, rotary_dim,
                              num_heads, num_kv_heads, head_size, num_tokens);
    if (int st = frame::check(ctx, head_size, frame::Rel::GE, rotary_dim)) return st;
    if (int st = frame::check(ctx, num_tokens, frame::Rel::GT, 0)) return st;
    if (int st = frame::check(ctx, rotary_dim, frame::Rel::GT, 0)) return st;
    if (int st = frame::check(ctx, rotary_dim % rope::kRotaryUnit, frame::Rel::EQ, 0)) return st;
    if (int st = frame::input(guard, ctx, "positions", positions, num_tokens)) return st;
    if (int st = frame::output(guard, ctx, "query", query, num_tokens * head_size * num_heads)) return st;
    if (int st = frame::output(guard, ctx, "key", key, num_tokens * head_size * num_kv_heads)) return st;
    return frame::dispatch(
        ctx,
        [&] {
            return cpu_wrapper(positions, query, key, cos_sin_cache, rotary_dim, num_heads, num_kv_heads, head_size,
                               num_tokens);
        },
        [&] {
            return tsu2or3_wrapper(ctx, positions, query, key, cos_sin_cache, rotary_dim, num_heads, num_kv_heads,
                                   head_size, num_tokens);
        });
}

#define TSUOPS_ROTARY_EMBEDDING_NEOX(TX, TCS, TID)                                                         \
    template int rotary_embedding_neox<TX, TCS, TID>(Context*, const TID*, TX*, TX*, const TCS*, long, long, \
                                                     long, long, long);
TSUOPS_ROTARY_EMBEDDING_NEOX(float16, float16, int)
TSUOPS_ROTARY_EMBEDDING_NEOX(float16, float16, long)
TSUOPS_ROTARY_EMBEDDING_NEOX(float16, float, long)
TSUOPS_ROTARY_EMBEDDING_NEOX(bfloat16, bfloat16, int)
TSUOPS_ROTARY_EMBEDDING_NEOX(bfloat16, bfloat16, long)
TSUOPS_ROTARY_EMBEDDING_NEOX(bfloat16, float, int)
TSUOPS_ROTARY_EMBEDDING_NEOX(bfloat16, float, long)
TSUOPS_ROTARY_EMBEDDING_NEOX(float, float, int)
TSUOPS_ROTARY_EMBEDDING_NEOX(float, float, long)
#undef TSUOPS_ROTARY_EMBEDDING_NEOX

}  // namespace infer_ops
