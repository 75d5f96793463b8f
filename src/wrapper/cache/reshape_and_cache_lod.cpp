#include <algorithm>
#include <string>
#include <type_traits>

#include <tsuops/basic.h>
#include <tsuops/cache.h>
#include <tsuops/cpu_ops.h>

#include "frame/frame.h"
#include "kernels/cache/cache.h"
#include "kernels/cache/cache_layout.h"

namespace infer_ops {

namespace {

namespace cl = cache;

// What the reference path needs besides the tensors.
struct Batch {
    const int* lod;
    const int* start_tokens;
    const int* real_batch;
    long batch;
    long max_batch;
    long max_blocks_per_seq;
};

// The rows above the first of a [M, max_batch] maxima tensor, folded into
// the first at column r and cleared.
void fold_batch_maxima(float* batch_max, long m, long max_batch, long r) {
    for (long i = 1; i < m; ++i) {
        batch_max[r] = std::max(batch_max[r], batch_max[i * max_batch + r]);
        batch_max[i * max_batch + r] = 0.0f;
    }
}

// The largest magnitude of a row (0 for none), folded into column r of the
// batch maxima.
template <typename TX>
int fold_row_max(Context* ctx, const TX* row, long n, float* batch_max, long r,
                 frame::where at = frame::where::current()) {
    float row_max = 0.0f;
    if (int st = frame::check_nested(ctx, cpu_ops::findmax<TX>(ctx, row, &row_max, n), at)) return st;
    batch_max[r] = std::max(row_max, batch_max[r]);
    return SUCCESS;
}

// One head row into the cache: as it is into a cache of TX, by the symmetric
// 8-bit rule into a signed char cache, against *scale or, with scale null,
// the row's own absolute maximum.
template <typename TX, typename TC>
int store_row(Context* ctx, const TX* src, TC* dst, long n, const float* scale,
              frame::where at = frame::where::current()) {
    if constexpr (std::is_same_v<TX, TC>) {
        return frame::check_nested(ctx, copy<TX>(ctx, src, dst, n), at);
    } else {
        return frame::check_nested(ctx, cpu_ops::quantization<TX, TC>(ctx, src, dst, n, scale), at);
    }
}

// Sequence by sequence, head by head, position by position. The maxima are
// kept only where k_maxptrs (v_maxptrs) is given.
template <typename TX, typename TC, typename TID>
int cpu_wrapper(Context* ctx, const TX* k, const TX* v, TC* k_cache, TC* v_cache, const TID* block_table,
                const Batch& bt, cl::InputLayout layout, cl::HeadShape hs, long block_size, const float* k_scale,
                const float* v_scale, float* k_batch_max, float* v_batch_max, float* k_max, float* v_max) {
    const long m = ctx->max_ptr_size;
    for (float* mx : {k_max, v_max}) {
        if (mx != nullptr && m >= 1) std::fill(mx, mx + m, 0.0f);
    }
    const cl::PagedCache cache{hs, block_size};
    for (long b = 0; b < bt.batch; ++b) {
        const cl::Sequence seq{bt.lod[b], bt.lod[b + 1] - bt.lod[b]};
        const long start = bt.start_tokens[b], r = bt.real_batch[b];
        if (k_max != nullptr && m >= 2) fold_batch_maxima(k_batch_max, m, bt.max_batch, r);
        if (v_max != nullptr && m >= 2) fold_batch_maxima(v_batch_max, m, bt.max_batch, r);
        for (long h = 0; h < hs.heads; ++h) {
            for (long pos = start; pos < start + seq.tokens; ++pos) {
                const cl::PagedPosition p = cl::table_position(block_table, r, bt.max_blocks_per_seq, pos, block_size);
                const long src = cl::input_row(layout, hs, seq, pos - start, h), dst = cache.row(p, h);
                if (k_max != nullptr) {
                    if (int st = fold_row_max(ctx, k + src, hs.dim, k_batch_max, r)) return st;
                }
                if (v_max != nullptr) {
                    if (int st = fold_row_max(ctx, v + src, hs.dim, v_batch_max, r)) return st;
                }
                if (int st = store_row(ctx, k + src, k_cache + dst, hs.dim, k_scale ? k_scale + h : nullptr)) return st;
                if (int st = store_row(ctx, v + src, v_cache + dst, hs.dim, v_scale ? v_scale + h : nullptr)) return st;
            }
        }
        if (k_max != nullptr) k_max[0] = std::max(k_batch_max[r], k_max[0]);
        if (v_max != nullptr) v_max[0] = std::max(v_batch_max[r], v_max[0]);
    }
    return SUCCESS;
}

template <typename TX, typename TC>
using lod_stub = int (*)(const TX*, const TX*, TC*, TC*, const int*, const int*, const int*, const int*, long, long,
                         long, long, long, long, const float*, const float*);

template <typename TX, typename TC>
lod_stub<TX, TC> stub_for(cl::InputLayout layout) {
    constexpr int bhld = static_cast<int>(cl::InputLayout::BHLD), blhd = static_cast<int>(cl::InputLayout::BLHD);
    switch (layout) {
    case cl::InputLayout::BHLD: return &tsu3::__device_stub__reshape_cached_kv_v2_gmx<TX, TC, int, bhld, 0>;
    case cl::InputLayout::BLHD: return &tsu3::__device_stub__reshape_cached_kv_v2_gmx<TX, TC, int, blhd, 0>;
    }
    return nullptr;
}

// The GMX engine keeps one head's block on chip; the maxima are not passed
// and stay unwritten.
template <typename TX, typename TC>
int tsu2or3_wrapper(ContextStackGuard& guard, Context* ctx, const TX* k, const TX* v, TC* k_cache, TC* v_cache,
                    const int* block_table, const VectorParam<int>& kv_seq_lod, const VectorParam<int>& start_tokens,
                    const VectorParam<int>& real_batch, long batch, long num_heads, long head_dim, long max_batch,
                    long block_size, long max_blocks_per_seq, cl::InputLayout layout, const float* k_scale,
                    const float* v_scale) {
    const long head_block_bytes = head_dim * block_size * static_cast<long>(sizeof(TC));
    if (int st = frame::check(ctx, head_block_bytes, frame::Rel::LE, tsuops::kernels::cache::kMaxHeadBlockBytes)) {
        return st;
    }
    orvane::tsu::api::ctx_guard scratch(ctx);
    VectorParam<int> kv_seq_lod_tsu, start_tokens_tsu, real_batch_tsu;
    if (int st = frame::device_copy(guard, ctx, scratch, kv_seq_lod, "kv_seq_lod_tsu", kv_seq_lod_tsu)) return st;
    if (int st = frame::device_copy(guard, ctx, scratch, start_tokens, "start_tokens_tsu", start_tokens_tsu)) return st;
    if (int st = frame::device_copy(guard, ctx, scratch, real_batch, "real_batch_tsu", real_batch_tsu)) return st;
    const lod_stub<TX, TC> stub = stub_for<TX, TC>(layout);
    if (stub == nullptr) return frame::unimplemented(ctx);
    return frame::gmx_launch(ctx)(stub, k, v, k_cache, v_cache, block_table, kv_seq_lod_tsu.tsu, start_tokens_tsu.tsu,
                                  real_batch_tsu.tsu, batch, num_heads, head_dim, max_batch, block_size,
                                  max_blocks_per_seq, k_scale, v_scale);
}

// A layout string: "BHLD" or "BLHD" for the input, "HLD" for the cache.
int check_input_layout(Context* ctx, const std::string& layout, frame::where at = frame::where::current()) {
    if (cl::input_layout(layout)) return SUCCESS;
    const std::string expected = std::string(cl::kBHLD) + " or " + std::string(cl::kBLHD);
    frame::api::_log_compare_fail(ctx, at.file_name(), static_cast<int>(at.line()), layout, "==", expected);
    return STATUS_INVALID_ARGUMENT;
}

template <typename TC>
inline constexpr bool four_bit_cache = std::is_same_v<TC, int4_t> || std::is_same_v<TC, uint4_t>;

}  // namespace

template <typename TX, typename TC, typename TID>
int reshape_and_cached_lod(Context* ctx, const TX* k, const TX* v, TC* k_cache, TC* v_cache, const TID* block_table,
                           const VectorParam<int>& kv_seq_lod, const VectorParam<int>& start_tokens,
                           const VectorParam<int>& real_batch, long batch, long num_heads, long head_dim,
                           long max_batch, long block_size, long max_blocks_per_seq, const std::string& layout,
                           const std::string& cache_layout, const float* k_scale, const float* v_scale,
                           float* k_batch_maxptrs, float* v_batch_maxptrs, float* k_maxptrs, float* v_maxptrs) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    // 4-bit caches have no store of their own: the instantiations exist only
    // to refuse, before any frame step.
    if constexpr (four_bit_cache<TC>) {
        return frame::unimplemented(ctx);
    } else {
        ContextStackGuard guard(ctx, "INFRA");
        frame::open<TX, TC, TID>(guard, ctx, "reshape_and_cached_lod", k, v, k_cache, v_cache, block_table,
                                 kv_seq_lod, start_tokens, real_batch, batch, num_heads, head_dim, max_batch,
                                 block_size, max_blocks_per_seq, layout, cache_layout, k_scale, v_scale,
                                 k_batch_maxptrs, v_batch_maxptrs, k_maxptrs, v_maxptrs);
        using frame::Rel;
        if (int st = frame::check(ctx, kv_seq_lod.len, Rel::EQ, batch + 1)) return st;
        if (int st = frame::check(ctx, start_tokens.len, Rel::EQ, batch)) return st;
        if (int st = frame::check(ctx, real_batch.len, Rel::EQ, batch)) return st;
        // The host copies are read on both paths (the total here, the rows
        // there, the uploads on a device); a negative batch would read before
        // the lod.
        if (int st = frame::check(ctx, batch, Rel::GE, 0)) return st;
        if (int st = frame::check_ptr(ctx, kv_seq_lod.cpu)) return st;
        if (int st = frame::check_ptr(ctx, start_tokens.cpu)) return st;
        if (int st = frame::check_ptr(ctx, real_batch.cpu)) return st;
        const long total = kv_seq_lod.cpu[batch];
        if (int st = frame::input(guard, ctx, "k", k, head_dim * num_heads * total)) return st;
        if (int st = frame::input(guard, ctx, "v", v, head_dim * num_heads * total)) return st;
        if (int st = frame::input(guard, ctx, "block_table", block_table, max_blocks_per_seq * max_batch)) return st;
        if (int st = frame::optional_input(guard, ctx, "k_scale", k_scale, num_heads)) return st;
        if (int st = frame::optional_input(guard, ctx, "v_scale", v_scale, num_heads)) return st;
        if (int st = check_input_layout(ctx, layout)) return st;
        if (int st = frame::check(ctx, cache_layout, Rel::EQ, std::string(cl::kPagedHLD))) return st;
        const long m = ctx->max_ptr_size;
        if (int st = frame::optional_output(guard, ctx, "k_maxptrs", k_maxptrs, m)) return st;
        if (int st = frame::optional_output(guard, ctx, "v_maxptrs", v_maxptrs, m)) return st;
        if (int st = frame::optional_output(guard, ctx, "k_batch_maxptrs", k_batch_maxptrs, m * max_batch)) return st;
        if (int st = frame::optional_output(guard, ctx, "v_batch_maxptrs", v_batch_maxptrs, m * max_batch)) return st;
        // Keeping a tensor maximum folds the batch maxima, which must exist.
        if (k_maxptrs != nullptr) {
            if (int st = frame::check_ptr(ctx, k_batch_maxptrs)) return st;
        }
        if (v_maxptrs != nullptr) {
            if (int st = frame::check_ptr(ctx, v_batch_maxptrs)) return st;
        }
        const cl::InputLayout in = *cl::input_layout(layout);
        return frame::dispatch(
            ctx,
            [&] {
                const Batch bt{kv_seq_lod.cpu, start_tokens.cpu, real_batch.cpu, batch, max_batch, max_blocks_per_seq};
                return cpu_wrapper(ctx, k, v, k_cache, v_cache, block_table, bt, in, {num_heads, head_dim},
                                   block_size, k_scale, v_scale, k_batch_maxptrs, v_batch_maxptrs, k_maxptrs,
                                   v_maxptrs);
            },
            [&] {
                return tsu2or3_wrapper(guard, ctx, k, v, k_cache, v_cache, block_table, kv_seq_lod, start_tokens,
                                       real_batch, batch, num_heads, head_dim, max_batch, block_size,
                                       max_blocks_per_seq, in, k_scale, v_scale);
            },
            frame::Device::tsu2or3);
    }
}

#define TSUOPS_RESHAPE_AND_CACHED_LOD(TX, TC)                                                                       \
    template int reshape_and_cached_lod<TX, TC, int>(                                                               \
        Context*, const TX*, const TX*, TC*, TC*, const int*, const VectorParam<int>&, const VectorParam<int>&,     \
        const VectorParam<int>&, long, long, long, long, long, long, const std::string&, const std::string&,        \
        const float*, const float*, float*, float*, float*, float*);
TSUOPS_RESHAPE_AND_CACHED_LOD(float16, float16)
TSUOPS_RESHAPE_AND_CACHED_LOD(float16, signed char)
TSUOPS_RESHAPE_AND_CACHED_LOD(float16, int4_t)
TSUOPS_RESHAPE_AND_CACHED_LOD(float16, uint4_t)
#undef TSUOPS_RESHAPE_AND_CACHED_LOD

}  // namespace infer_ops
