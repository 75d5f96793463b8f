#include <cstring>

#include <tsuops/cache.h>

#include "frame/frame.h"
#include "kernels/cache/cache.h"
#include "kernels/cache/cache_layout.h"

namespace infer_ops {

namespace {

namespace cl = cache;

// Token by token, head by head: each head row of k (and of v) copied bit for
// bit to its place in the paged cache. Sizes are narrowed to int, as the
// kernel takes them.
template <typename T, typename TID>
int cpu_wrapper(const T* k, const T* v, T* k_cache, T* v_cache, const TID* slot_mapping, int num_tokens,
                int num_heads, int k_dim, int v_dim, int block_size) {
    const cl::HeadShape ks{num_heads, k_dim}, vs{num_heads, v_dim};
    const cl::PagedCache kc{ks, block_size}, vc{vs, block_size};
    for (int t = 0; t < num_tokens; ++t) {
        const cl::PagedPosition p = cl::slot_position(slot_mapping[t], block_size);
        for (int h = 0; h < num_heads; ++h) {
            std::memcpy(static_cast<void*>(k_cache + kc.row(p, h)), k + cl::token_row(ks, t, h),
                        static_cast<std::size_t>(k_dim) * sizeof(T));
            if (v != nullptr && v_cache != nullptr) {
                std::memcpy(static_cast<void*>(v_cache + vc.row(p, h)), v + cl::token_row(vs, t, h),
                            static_cast<std::size_t>(v_dim) * sizeof(T));
            }
        }
    }
    return SUCCESS;
}

template <typename T, typename TID>
int tsu3_wrapper(Context* ctx, const T* k, const T* v, T* k_cache, T* v_cache, TID* slot_mapping, int num_tokens,
                 int num_heads, int k_dim, int v_dim, int block_size) {
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_reshape_and_cache<T, TID>, k, v, k_cache, v_cache,
                                      slot_mapping, num_tokens, num_heads, k_dim, v_dim, block_size);
}

}  // namespace

template <typename T, typename TID>
int reshape_and_cache(Context* ctx, const T* k, const T* v, T* k_cache, T* v_cache, TID* slot_mapping,
                      long num_tokens, long num_blocks, long num_heads, long k_dim, long v_dim, long block_size) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TID>(guard, ctx, "reshape_and_cache", k, v, k_cache, v_cache, slot_mapping, num_tokens, num_blocks,
                        num_heads, k_dim, v_dim, block_size);
    // The value regions are unconditional, yet a store of keys alone (v_dim 0
    // with v and v_cache null, as for latent-attention keys of 576 elements)
    // is a documented use, and a region of 0 elements or a null pointer
    // always fails. Both are honoured by letting exactly that call skip the
    // "v" and "v_cache" regions; the stores then write keys only.
    const bool keys_only = v_dim == 0 && v == nullptr && v_cache == nullptr;
    const long cache_rows = num_blocks * num_heads * block_size;
    if (int st = frame::input(guard, ctx, "k", k, num_heads * num_tokens * k_dim)) return st;
    if (!keys_only) {
        if (int st = frame::input(guard, ctx, "v", v, num_heads * num_tokens * v_dim)) return st;
    }
    // Recorded as written: the operator takes slot_mapping through a
    // non-const pointer and does not promise to leave it alone.
    if (int st = frame::output(guard, ctx, "slot_mapping", slot_mapping, num_tokens)) return st;
    if (int st = frame::output(guard, ctx, "k_cache", k_cache, cache_rows * k_dim)) return st;
    if (!keys_only) {
        if (int st = frame::output(guard, ctx, "v_cache", v_cache, cache_rows * v_dim)) return st;
    }
    const int nt = static_cast<int>(num_tokens), nh = static_cast<int>(num_heads), kd = static_cast<int>(k_dim),
              vd = static_cast<int>(v_dim), bs = static_cast<int>(block_size);
    switch (ctx->dev_type) {
    case 0: return cpu_wrapper(k, v, k_cache, v_cache, slot_mapping, nt, nh, kd, vd, bs);
    case 3: return tsu3_wrapper(ctx, k, v, k_cache, v_cache, slot_mapping, nt, nh, kd, vd, bs);
    case 2: return frame::unimplemented(ctx);
    default: return SUCCESS;  // device types without a path of their own: nothing is done
    }
}

#define TSUOPS_RESHAPE_AND_CACHE(T, TID)                                                                         \
    template int reshape_and_cache<T, TID>(Context*, const T*, const T*, T*, T*, TID*, long, long, long, long, \
                                           long, long);
TSUOPS_RESHAPE_AND_CACHE(float16, int)
TSUOPS_RESHAPE_AND_CACHE(float16, long)
TSUOPS_RESHAPE_AND_CACHE(float, int)
TSUOPS_RESHAPE_AND_CACHE(float, long)
TSUOPS_RESHAPE_AND_CACHE(bfloat16, int)
TSUOPS_RESHAPE_AND_CACHE(bfloat16, long)
#undef TSUOPS_RESHAPE_AND_CACHE

}  // namespace infer_ops
