#include "kernels/cache/cache.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include <tsuops/float16.h>

#include "frame/quant_rules.h"
#include "kernels/cache/cache_layout.h"
#include "kernels/cache/store_conversion.h"
#include "kernels/grid.h"

namespace {

namespace cl = infer_ops::cache;
namespace quant = infer_ops::quant;

// Elements of a head row widened at a time: a few KiB of floats, which stay
// in the first-level cache between the widening and the conversion.
constexpr long kChunk = 512;

// The conversion loops over float rows, compiled twice: for AVX2 where the
// CPU has it (eight lanes instead of four) and for the baseline.
#define TSUOPS_CACHE_CLONES __attribute__((target_clones("avx2", "default")))

TSUOPS_CACHE_CLONES void scaled_span(const float* __restrict x, const float* __restrict scale,
                                     signed char* __restrict q, long n) {
    cl::store_scaled_span(x, scale, q, n);
}

TSUOPS_CACHE_CLONES void scaled_span(const float* __restrict x, const float* __restrict scale, float* __restrict q,
                                     long n) {
    cl::store_scaled_span(x, scale, q, n);
}

TSUOPS_CACHE_CLONES void truncated_span(const float* __restrict x, signed char* __restrict q, long n) {
    cl::store_truncated_span(x, q, n);
}

TSUOPS_CACHE_CLONES float span_absmax(const float* __restrict x, long n, float s) { return quant::absmax(x, n, s); }

TSUOPS_CACHE_CLONES void span_quantise(const float* __restrict x, signed char* __restrict y, long n, float s) {
    quant::quantize_span(x, y, n, s);
}

template <typename T>
inline void copy_row(const T* src, T* dst, long n) {
    std::memcpy(static_cast<void*>(dst), static_cast<const void*>(src), static_cast<std::size_t>(n) * sizeof(T));
}

// n elements of a 16-bit row as floats, by the library's vectorised array
// conversion (a widening inside the conversion loops would keep them scalar).
template <typename T>
inline const float* widened(const T* x, long n, float* buf) {
    infer_ops::widen(x, buf, n);
    return buf;
}

// One head row with the store conversion, against the row's multipliers
// or unscaled.
template <typename T, typename TC>
void store_row(const T* src, TC* dst, const float* scale, long n) {
    static_assert(std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>);
    if constexpr (std::is_same_v<T, TC>) {
        if (scale == nullptr) return copy_row(src, dst, n);
    }
    alignas(64) float x[kChunk];
    alignas(64) float q[kChunk];
    for (long j = 0; j < n; j += kChunk) {
        const long len = std::min(kChunk, n - j);
        const float* xf = widened(src + j, len, x);
        if constexpr (std::is_same_v<TC, signed char>) {
            if (scale != nullptr) {
                scaled_span(xf, scale + j, dst + j, len);
            } else {
                truncated_span(xf, dst + j, len);
            }
        } else {
            // Whole numbers of [-128, 127]: every narrowing mode keeps them exact.
            scaled_span(xf, scale + j, q, len);
            infer_ops::narrow(q, dst + j, len);
        }
    }
}

// One head row into a cache of TX as it is, or into a signed char cache by
// the symmetric 8-bit rule against *scale or, with scale null, against the
// row's own absolute maximum.
template <typename TX, typename TC>
void quantised_row(const TX* src, TC* dst, const float* scale, long n) {
    if constexpr (std::is_same_v<TX, TC>) {
        copy_row(src, dst, n);
    } else {
        static_assert(std::is_same_v<TC, signed char>);
        alignas(64) float x[kChunk];
        if (scale == nullptr && n <= kChunk) {
            // The usual head: widened once, read by both passes.
            const float* xf = widened(src, n, x);
            span_quantise(xf, dst, n, span_absmax(xf, n, quant::kScaleFloor));
            return;
        }
        float s = scale != nullptr ? *scale : quant::kScaleFloor;
        for (long j = 0; scale == nullptr && j < n; j += kChunk) {
            const long len = std::min(kChunk, n - j);
            s = span_absmax(widened(src + j, len, x), len, s);
        }
        for (long j = 0; j < n; j += kChunk) {
            const long len = std::min(kChunk, n - j);
            span_quantise(widened(src + j, len, x), dst + j, len, s);
        }
    }
}

// rows(t, h_begin, h_end) for this core's share of the (token, head) pairs,
// token-major, so that a core walks one stretch of a flat token tensor and
// finds each token's place once.
template <typename Rows>
inline void token_heads(long tokens, long heads, Rows&& rows) {
    if (tokens < 1 || heads < 1) return;
    const auto [b, e] = tsuops::kernels::core_share(tokens * heads);
    for (long u = b; u < e;) {
        const long t = u / heads, h = u % heads, h_end = std::min(heads, h + e - u);
        rows(t, h, h_end);
        u += h_end - h;
    }
}

}  // namespace

namespace tsu3 {

template <typename T, typename TID>
void infer_reshape_and_cache(const T* k, const T* v, T* k_cache, T* v_cache, const TID* slot_mapping, int num_tokens,
                             int num_heads, int k_dim, int v_dim, int block_size) {
    const cl::HeadShape ks{num_heads, k_dim}, vs{num_heads, v_dim};
    const cl::PagedCache kc{ks, block_size}, vc{vs, block_size};
    const bool values = v != nullptr && v_cache != nullptr;
    token_heads(num_tokens, num_heads, [&](long t, long h0, long h1) {
        const cl::PagedPosition p = cl::slot_position(slot_mapping[t], block_size);
        for (long h = h0; h < h1; ++h) {
            copy_row(k + cl::token_row(ks, t, h), k_cache + kc.row(p, h), k_dim);
            if (values) copy_row(v + cl::token_row(vs, t, h), v_cache + vc.row(p, h), v_dim);
        }
    });
}

template <typename TX, typename TC, typename TID, int LAYOUT, int MODE>
void reshape_cached_kv_v2_gmx(const TX* k, const TX* v, TC* k_cache, TC* v_cache, const TID* block_table,
                              const int* kv_seq_lod, const int* start_tokens, const int* real_batch, long batch,
                              long num_heads, long head_dim, long max_batch, long block_size, long max_blocks_per_seq,
                              const float* k_scale, const float* v_scale) {
    constexpr auto layout = static_cast<cl::InputLayout>(LAYOUT);
    if (batch < 1) return;
    const cl::HeadShape hs{num_heads, head_dim};
    const cl::PagedCache cache{hs, block_size};
    const long first = kv_seq_lod[0];
    const int* const lod_end = kv_seq_lod + batch + 1;
    long b = -1;
    token_heads(kv_seq_lod[batch] - first, num_heads, [&](long i, long h0, long h1) {
        const long t = first + i;
        if (b < 0 || t >= kv_seq_lod[b + 1]) b = std::upper_bound(kv_seq_lod, lod_end, t) - kv_seq_lod - 1;
        const cl::Sequence seq{kv_seq_lod[b], kv_seq_lod[b + 1] - kv_seq_lod[b]};
        const long j = t - seq.start;
        const cl::PagedPosition p =
            cl::table_position(block_table, real_batch[b], max_blocks_per_seq, start_tokens[b] + j, block_size);
        for (long h = h0; h < h1; ++h) {
            const long src = cl::input_row<layout>(hs, seq, j, h), dst = cache.row(p, h);
            quantised_row(k + src, k_cache + dst, k_scale != nullptr ? k_scale + h : nullptr, head_dim);
            quantised_row(v + src, v_cache + dst, v_scale != nullptr ? v_scale + h : nullptr, head_dim);
        }
    });
}

template <typename T, typename TC>
void store_kv_cache(const T* key, const T* value, TC* k_cache, TC* v_cache, const int* slot_id, const int* offset,
                    const int* x_lod, const float* key_scale, const float* value_scale, long batch, long max_slots,
                    long max_seq_len, long num_heads, long head_dim) {
    const cl::HeadShape hs{num_heads, head_dim};
    const cl::SlotMajorCache cache{hs, max_seq_len};
    const bool values = value != nullptr && v_cache != nullptr;
    // The sequence of a token comes from the walk over all tokens before it,
    // which is cheap next to a token's rows and exact for any x_lod.
    long b = 0, walked = -1;
    token_heads(x_lod[batch], num_heads, [&](long t, long h0, long h1) {
        for (; walked < t; ++walked) b = cl::lod_walk(x_lod, b, walked + 1);
        const long slot = slot_id[b], pos = offset[b] + t - x_lod[b];
        for (long h = h0; h < h1; ++h) {
            const long dst = cache.row(slot, h, pos), src = cl::token_row(hs, t, h), sc = h * head_dim;
            store_row(key + src, k_cache + dst, key_scale != nullptr ? key_scale + sc : nullptr, head_dim);
            if (values) {
                store_row(value + src, v_cache + dst, value_scale != nullptr ? value_scale + sc : nullptr, head_dim);
            }
        }
    });
}

template <typename T, typename TC>
void store_paged_kv_cache(const T* key, const T* value, TC* key_cache, TC* value_cache, const int* slot_mapping,
                          const float* key_scale, const float* value_scale, long num_tokens, long num_heads,
                          long head_dim, long num_blocks, long block_size) {
    const cl::HeadShape hs{num_heads, head_dim};
    const cl::PagedCache cache{hs, block_size};
    const bool values = value != nullptr && value_cache != nullptr;
    token_heads(num_tokens, num_heads, [&](long t, long h0, long h1) {
        const cl::PagedPosition p = cl::slot_position(slot_mapping[t], block_size);
        for (long h = h0; h < h1; ++h) {
            const long dst = cache.row(p, h), src = cl::token_row(hs, t, h), sc = h * head_dim;
            store_row(key + src, key_cache + dst, key_scale != nullptr ? key_scale + sc : nullptr, head_dim);
            if (values) {
                store_row(value + src, value_cache + dst, value_scale != nullptr ? value_scale + sc : nullptr, head_dim);
            }
        }
    });
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_reshape_and_cache)
#define TSU_RESHAPE_AND_CACHE_INSTANCES(T)                \
    TSU_KERNEL_INSTANCE(infer_reshape_and_cache, T, int)  \
    TSU_KERNEL_INSTANCE(infer_reshape_and_cache, T, long)
TSU_RESHAPE_AND_CACHE_INSTANCES(float16)
TSU_RESHAPE_AND_CACHE_INSTANCES(float)
TSU_RESHAPE_AND_CACHE_INSTANCES(bfloat16)
#undef TSU_RESHAPE_AND_CACHE_INSTANCES

TSU_KERNEL_DEFINE(reshape_cached_kv_v2_gmx)
#define TSU_RESHAPE_CACHED_KV_INSTANCES(TC)                                 \
    TSU_KERNEL_INSTANCE(reshape_cached_kv_v2_gmx, float16, TC, int, 0, 0)   \
    TSU_KERNEL_INSTANCE(reshape_cached_kv_v2_gmx, float16, TC, int, 1, 0)
TSU_RESHAPE_CACHED_KV_INSTANCES(float16)
TSU_RESHAPE_CACHED_KV_INSTANCES(signed char)
#undef TSU_RESHAPE_CACHED_KV_INSTANCES

// The two stores share their type pairs.
#define TSU_STORE_INSTANCES(family)                        \
    TSU_KERNEL_DEFINE(family)                              \
    TSU_KERNEL_INSTANCE(family, float16, float16)          \
    TSU_KERNEL_INSTANCE(family, bfloat16, bfloat16)        \
    TSU_KERNEL_INSTANCE(family, float16, signed char)      \
    TSU_KERNEL_INSTANCE(family, bfloat16, signed char)
TSU_STORE_INSTANCES(store_kv_cache)
TSU_STORE_INSTANCES(store_paged_kv_cache)
#undef TSU_STORE_INSTANCES
