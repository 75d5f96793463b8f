#include <tsuops/cache.h>

#include "frame/frame.h"
#include "kernels/cache/cache.h"
#include "kernels/cache/cache_layout.h"
#include "kernels/cache/store_conversion.h"

namespace infer_ops {

namespace {

namespace cl = cache;

// Token by token, head by head, element by element, each element through
// the store conversion to the place its token's slot names.
template <typename T, typename TC>
int cpu_wrapper(const T* key, const T* value, TC* key_cache, TC* value_cache, const int* slot_mapping,
                const float* key_scale, const float* value_scale, long num_tokens, cl::HeadShape hs, long block_size) {
    const cl::PagedCache cache{hs, block_size};
    const bool values = value != nullptr && value_cache != nullptr;
    for (long t = 0; t < num_tokens; ++t) {
        const cl::PagedPosition p = cl::slot_position(slot_mapping[t], block_size);
        for (long h = 0; h < hs.heads; ++h) {
            const long dst = cache.row(p, h), src = cl::token_row(hs, t, h);
            for (long d = 0; d < hs.dim; ++d) {
                const long sc = h * hs.dim + d;
                key_cache[dst + d] = cl::store_element<T, TC>(key[src + d], key_scale ? key_scale + sc : nullptr);
                if (values) {
                    value_cache[dst + d] =
                        cl::store_element<T, TC>(value[src + d], value_scale ? value_scale + sc : nullptr);
                }
            }
        }
    }
    return SUCCESS;
}

template <typename T, typename TC>
int tsu2or3_wrapper(Context* ctx, const T* key, const T* value, TC* key_cache, TC* value_cache,
                    const int* slot_mapping, const float* key_scale, const float* value_scale, long num_tokens,
                    long num_heads, long head_dim, long num_blocks, long block_size) {
    if (ctx->dev_type == 2) return frame::unimplemented(ctx);
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__store_paged_kv_cache<T, TC>, key, value, key_cache,
                                      value_cache, slot_mapping, key_scale, value_scale, num_tokens, num_heads,
                                      head_dim, num_blocks, block_size);
}

}  // namespace

template <typename T, typename TC>
int store_paged_kv_cache(Context* ctx, const T* key, const T* value, TC* key_cache, TC* value_cache,
                         const int* slot_mapping, const float* key_scale, const float* value_scale, long num_tokens,
                         long num_heads, long head_dim, long num_blocks, long block_size) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TC>(guard, ctx, "store_paged_kv_cache", key, value, key_cache, value_cache, slot_mapping,
                       key_scale, value_scale, num_tokens, num_heads, head_dim, num_blocks, block_size);
    if (int st = frame::check(ctx, head_dim % 64, frame::Rel::EQ, 0)) return st;
    const long row = head_dim * num_heads;
    if (int st = frame::input(guard, ctx, "key", key, row * num_tokens)) return st;
    if (int st = frame::output(guard, ctx, "key_cache", key_cache, row * num_blocks * block_size)) return st;
    if (int st = frame::input(guard, ctx, "slot_mapping", slot_mapping, num_tokens)) return st;
    if (value != nullptr && value_cache != nullptr) {
        if (int st = frame::input(guard, ctx, "value", value, row * num_tokens)) return st;
        if (int st = frame::output(guard, ctx, "value_cache", value_cache, row * num_blocks * block_size)) return st;
    }
    if (key_scale != nullptr && value_scale != nullptr) {
        if (int st = frame::input(guard, ctx, "key_scale", key_scale, row)) return st;
        if (int st = frame::input(guard, ctx, "value_scale", value_scale, row)) return st;
    }
    return frame::dispatch(
        ctx,
        [&] {
            return cpu_wrapper(key, value, key_cache, value_cache, slot_mapping, key_scale, value_scale, num_tokens,
                               {num_heads, head_dim}, block_size);
        },
        [&] {
            return tsu2or3_wrapper(ctx, key, value, key_cache, value_cache, slot_mapping, key_scale, value_scale,
                                   num_tokens, num_heads, head_dim, num_blocks, block_size);
        },
        frame::Device::tsu2or3);
}

#define TSUOPS_STORE_PAGED_KV_CACHE(T, TC)                                                                     \
    template int store_paged_kv_cache<T, TC>(Context*, const T*, const T*, TC*, TC*, const int*, const float*, \
                                             const float*, long, long, long, long, long);
TSUOPS_STORE_PAGED_KV_CACHE(float16, float16)
TSUOPS_STORE_PAGED_KV_CACHE(bfloat16, bfloat16)
TSUOPS_STORE_PAGED_KV_CACHE(float16, signed char)
TSUOPS_STORE_PAGED_KV_CACHE(bfloat16, signed char)
#undef TSUOPS_STORE_PAGED_KV_CACHE

}  // namespace infer_ops
