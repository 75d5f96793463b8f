#include <tsuops/cache.h>

#include "frame/frame.h"
#include "kernels/cache/cache.h"
#include "kernels/cache/cache_layout.h"
#include "kernels/cache/store_conversion.h"

namespace infer_ops {

namespace {

namespace cl = cache;

// Token by token, with the sequence found by the walk over x_lod; head by
// head, element by element, each element through the store conversion.
template <typename T, typename TC>
int cpu_wrapper(const T* key, const T* value, TC* k_cache, TC* v_cache, const int* slot_id, const int* offset,
                const int* x_lod, const float* key_scale, const float* value_scale, long batch, long max_seq_len,
                cl::HeadShape hs) {
    const long total = x_lod[batch];
    if (total < 1) return SUCCESS;
    const cl::SlotMajorCache cache{hs, max_seq_len};
    const bool values = value != nullptr && v_cache != nullptr;
    long b = 0;
    for (long t = 0; t < total; ++t) {
        b = cl::lod_walk(x_lod, b, t);
        for (long h = 0; h < hs.heads; ++h) {
            const long dst = cache.row(slot_id[b], h, offset[b] + t - x_lod[b]), src = cl::token_row(hs, t, h);
            for (long d = 0; d < hs.dim; ++d) {
                const long sc = h * hs.dim + d;
                k_cache[dst + d] = cl::store_element<T, TC>(key[src + d], key_scale ? key_scale + sc : nullptr);
                if (values) {
                    v_cache[dst + d] = cl::store_element<T, TC>(value[src + d], value_scale ? value_scale + sc : nullptr);
                }
            }
        }
    }
    return SUCCESS;
}

template <typename T, typename TC>
int tsu2or3_wrapper(Context* ctx, const T* key, const T* value, TC* k_cache, TC* v_cache, const int* slot_id,
                    const int* offset, const int* x_lod, const float* key_scale, const float* value_scale, long batch,
                    long max_slots, long max_seq_len, long num_heads, long head_dim) {
    if (ctx->dev_type == 2) return frame::unimplemented(ctx);
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__store_kv_cache<T, TC>, key, value, k_cache, v_cache,
                                      slot_id, offset, x_lod, key_scale, value_scale, batch, max_slots, max_seq_len,
                                      num_heads, head_dim);
}

}  // namespace

template <typename T, typename TC>
int store_kv_cache(Context* ctx, const T* key, const T* value, TC* k_cache, TC* v_cache, const int* slot_id,
                   const int* offset, const int* x_lod, const float* key_scale, const float* value_scale, long batch,
                   long num_tokens, long max_slots, long max_seq_len, long num_heads, long head_dim) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TC>(guard, ctx, "store_kv_cache", key, value, k_cache, v_cache, slot_id, offset, x_lod, key_scale,
                       value_scale, batch, num_tokens, max_slots, max_seq_len, num_heads, head_dim);
    if (int st = frame::check(ctx, head_dim % 64, frame::Rel::EQ, 0)) return st;
    const long row = head_dim * num_heads;
    if (int st = frame::input(guard, ctx, "key", key, num_tokens * row)) return st;
    if (int st = frame::output(guard, ctx, "k_cache", k_cache, row * max_slots * max_seq_len)) return st;
    if (int st = frame::input(guard, ctx, "x_lod", x_lod, batch + 1)) return st;
    if (int st = frame::input(guard, ctx, "slot_id", slot_id, batch)) return st;
    if (int st = frame::input(guard, ctx, "offset", offset, batch)) return st;
    if (value != nullptr && v_cache != nullptr) {
        if (int st = frame::input(guard, ctx, "value", value, num_tokens * row)) return st;
        if (int st = frame::output(guard, ctx, "v_cache", v_cache, row * max_slots * max_seq_len)) return st;
    }
    if (key_scale != nullptr && value_scale != nullptr) {
        if (int st = frame::input(guard, ctx, "key_scale", key_scale, row)) return st;
        if (int st = frame::input(guard, ctx, "value_scale", value_scale, row)) return st;
    }
    return frame::dispatch(
        ctx,
        [&] {
            return cpu_wrapper(key, value, k_cache, v_cache, slot_id, offset, x_lod, key_scale, value_scale, batch,
                               max_seq_len, {num_heads, head_dim});
        },
        [&] {
            return tsu2or3_wrapper(ctx, key, value, k_cache, v_cache, slot_id, offset, x_lod, key_scale, value_scale,
                                   batch, max_slots, max_seq_len, num_heads, head_dim);
        },
        frame::Device::tsu2or3);
}

#define TSUOPS_STORE_KV_CACHE(T, TC)                                                                             \
    template int store_kv_cache<T, TC>(Context*, const T*, const T*, TC*, TC*, const int*, const int*, const int*, \
                                       const float*, const float*, long, long, long, long, long, long);
TSUOPS_STORE_KV_CACHE(float16, float16)
TSUOPS_STORE_KV_CACHE(bfloat16, bfloat16)
TSUOPS_STORE_KV_CACHE(float16, signed char)
TSUOPS_STORE_KV_CACHE(bfloat16, signed char)
#undef TSUOPS_STORE_KV_CACHE

}  // namespace infer_ops
