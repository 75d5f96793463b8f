// The per-channel conversions are a product and a sum: two roundings, never
// a fused multiply-add.
#pragma GCC optimize("fp-contract=off")

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <tsuops/fusion.h>

#include "frame/frame.h"
#include "kernels/cache/cache_layout.h"
#include "kernels/fusion/split_rope_cache_kv.h"
#include "kernels/rope/rotary.h"
#include "wrapper/fusion/front_end_select.h"
#include "wrapper/fusion/split_rope_cache_kv_encoder_and_decoder.h"
#include "wrapper/rope/vsl_common.h"

namespace infer_ops {

namespace {

namespace fe = front_end;
namespace cl = cache;

template <typename TC>
inline constexpr bool int4_cache = std::is_same_v<TC, int4_t>;

// The instantiations with a reference path: float16 with a float table.
template <typename TX, typename TR>
inline constexpr bool has_reference = std::is_same_v<TX, float16> && std::is_same_v<TR, float>;

// What both paths need besides the tensors.
struct Call {
    long batch;
    long rope_batch;
    long rope_max_seqlen;
    long q_heads;
    long kv_heads;
    long head_dim;
    long max_batch;
    long block_size;
    long max_blocks_per_seq;
};

// The scale tensors of the integer caches.
template <typename TS>
struct Scales {
    const float* k_inv;  // per head, inverse; used only as a pair
    const float* v_inv;
    const TS* k_pc;  // per channel, multiplier and zero point
    const TS* v_pc;
    const TS* k_zero;
    const TS* v_zero;

    bool per_head() const { return k_inv != nullptr && v_inv != nullptr; }
    bool per_channel() const { return k_pc != nullptr && v_pc != nullptr; }
};

// Sequences of kv_seq_lod, each put at its start token onwards.
template <typename TX, typename TR, typename TC, typename TS>
int cpu_wrapper(Context* ctx, const TX* qkv, const TR* rotary_pos_emb, const int* block_table, TX* q_emb, TX* k_emb,
                TX* v_out, TC* k_cache, TC* v_cache, const VectorParam<int>& kv_seq_lod, const VectorParam<int>& real_batch,
                const std::vector<int>& starts, const Call& c, const std::string& layout,
                const std::string& rope_style, const Scales<TS>& sc) {
    const long d = c.head_dim, kvh = c.kv_heads;
    const VectorParam<int> positions{starts.data(), c.batch};
    if (int st = fe::cpu_qkv_split_rope_fusion(ctx, qkv, rotary_pos_emb, q_emb, k_emb, v_out, kv_seq_lod,
                                               c.rope_batch, c.rope_max_seqlen, c.q_heads, d, layout, positions,
                                               rope_style, kvh)) {
        return st;
    }
    const fe::Sequences s{kv_seq_lod.cpu, starts.data(), real_batch.cpu, c.batch};
    const fe::Paged p{block_table, {kvh, d}, c.block_size, c.max_blocks_per_seq};
    if constexpr (int4_cache<TC>) {
        fe::cpu_reshape_cached_kv_zp(k_emb, k_cache, s, p, fe::Channels<TS, TS>{sc.k_pc, sc.k_zero});
        // Values pair along the sequence from its first new position: the
        // first of a pair writes its byte, with the next position's value in
        // the high half where the sequence has one.
        const cl::PagedInt4Cache cache{{kvh, d}, c.block_size};
        const fe::Channels<TS, TS> ch{sc.v_pc, sc.v_zero};
        auto* bytes = reinterpret_cast<std::uint8_t*>(v_cache);
        return fe::each_row(s, p, [&](long src, cl::PagedPosition at, long h, cl::Sequence seq, long j) {
            if (j % 2 != 0) return SUCCESS;
            const bool next = j + 1 < seq.tokens;
            for (long e = 0; e < d; ++e) {
                const float m = ch.scale(h, d, e), z = ch.zero(h, d, e);
                const int lo = cl::store_channel_int4_half(convert::widen(v_out[src + e]), m, z);
                const int hi = next ? cl::store_channel_int4_half(convert::widen(v_out[src + kvh * d + e]), m, z) : 0;
                bytes[cache.value_row(at, h) + e] = cl::pack_int4(lo, hi);
            }
            return SUCCESS;
        });
    } else {
        std::vector<float> ks, vs;
        if constexpr (std::is_same_v<TC, signed char>) {
            if (sc.per_channel()) {
                fe::cpu_reshape_cached_kv_pc(k_emb, k_cache, s, p, fe::Channels<TS, TS>{sc.k_pc, sc.k_zero});
                fe::cpu_reshape_cached_kv_pc(v_out, v_cache, s, p, fe::Channels<TS, TS>{sc.v_pc, sc.v_zero});
                return SUCCESS;
            }
            for (long h = 0; sc.per_head() && h < kvh; ++h) {
                ks.push_back(1.0f / sc.k_inv[h]);
                vs.push_back(1.0f / sc.v_inv[h]);
            }
        }
        const float* kq = ks.empty() ? nullptr : ks.data();
        const float* vq = vs.empty() ? nullptr : vs.data();
        if (int st = fe::cpu_reshape_cached_kv(ctx, k_emb, k_cache, s, p, kq)) return st;
        return fe::cpu_reshape_cached_kv(ctx, v_out, v_cache, s, p, vq);
    }
}

template <typename TX, typename TR, typename TC>
using encoder_stub = int (*)(const TX*, const TR*, const int*, TX*, TX*, TX*, TC*, TC*, const float*, const float*,
                             const int*, const int*, const int*, long, long, long, long, long, long, long, long, long,
                             bool);

// One launch; the kernel by the token count, the heads of a row and the
// cache form.
template <typename TX, typename TR, typename TC, typename TS>
int tsu3_wrapper(ContextStackGuard& guard, Context* ctx, const TX* qkv, const TR* rotary_pos_emb,
                 const int* block_table, TX* q_emb, TX* k_emb, TX* v_out, TC* k_cache, TC* v_cache,
                 const VectorParam<int>& kv_seq_lod, const VectorParam<int>& real_batch,
                 const std::vector<int>& starts, const Call& c, bool half, const Scales<TS>& sc) {
    orvane::tsu::api::ctx_guard scratch(ctx);
    VectorParam<int> lod_tsu, real_batch_tsu, start_tokens_tsu;
    if (int st = frame::device_copy(guard, ctx, scratch, kv_seq_lod, "kv_seq_lod_tsu", lod_tsu)) return st;
    if (int st = frame::device_copy(guard, ctx, scratch, real_batch, "real_batch_tsu", real_batch_tsu)) return st;
    const VectorParam<int> start_tokens{starts.data(), c.batch};
    if (int st = frame::device_copy(guard, ctx, scratch, start_tokens, "start_tokens_tsu", start_tokens_tsu)) {
        return st;
    }
    constexpr bool pc_form = std::is_same_v<TX, bfloat16> && std::is_same_v<TC, signed char>;
    const long total = kv_seq_lod.cpu[c.batch];
    const fe::Encoder kernel = fe::select_encoder(
        {total, c.q_heads, c.kv_heads, ctx->ncluster, pc_form && sc.per_channel()});
    const bool short_seq = kernel == fe::Encoder::short_seq;
    const auto launch = [&](auto stub, auto... scales) {
        return frame::cluster_launch(ctx)(stub, qkv, rotary_pos_emb, block_table, q_emb, k_emb, v_out, k_cache,
                                          v_cache, scales..., lod_tsu.tsu, real_batch_tsu.tsu, start_tokens_tsu.tsu,
                                          c.batch, c.rope_max_seqlen, c.q_heads, c.kv_heads, c.head_dim,
                                          c.rope_batch, c.max_batch, c.block_size, c.max_blocks_per_seq, half);
    };
    using namespace tsu3;
    if constexpr (int4_cache<TC>) {
        const bool zeros = sc.k_zero != nullptr && sc.v_zero != nullptr;
        const auto stub = zeros ? (short_seq ? &__device_stub__qkv_split_rope_reshape_kv_encoder_short_seq_int4<TX, TR, 1>
                                             : &__device_stub__qkv_split_rope_reshape_kv_encoder_int4<TX, TR, 1>)
                                : (short_seq ? &__device_stub__qkv_split_rope_reshape_kv_encoder_short_seq_int4<TX, TR, 0>
                                             : &__device_stub__qkv_split_rope_reshape_kv_encoder_int4<TX, TR, 0>);
        return launch(stub, sc.k_pc, sc.k_zero, sc.v_pc, sc.v_zero);
    } else {
        if constexpr (pc_form) {
            if (sc.per_channel()) {
                const auto stub = short_seq ? &__device_stub__qkv_split_rope_reshape_kv_encoder_short_seq_int8_pc<TX, TR>
                                            : &__device_stub__qkv_split_rope_reshape_kv_encoder_int8_pc<TX, TR>;
                return launch(stub, sc.k_pc, sc.k_zero, sc.v_pc, sc.v_zero);
            }
        }
        const encoder_stub<TX, TR, TC> stub = short_seq ? &__device_stub__qkv_split_rope_reshape_kv_encoder_short_seq<TX, TR, TC>
                                                        : &__device_stub__qkv_split_rope_reshape_kv_encoder<TX, TR, TC>;
        const bool pair = sc.per_head();
        return launch(stub, pair ? sc.k_inv : nullptr, pair ? sc.v_inv : nullptr);
    }
}

}  // namespace

template <typename TX, typename TR, typename TC, typename TID, typename TS>
int split_rope_cache_kv_encoder(Context* ctx, const TX* qkv, const TR* rotary_pos_emb, const TID* block_table,
                                TX* q_emb, TX* k_emb, TX* v_out, TC* k_cache, TC* v_cache,
                                const VectorParam<TID>& kv_seq_lod, const VectorParam<TID>& real_batch,
                                const VectorParam<TID>& start_tokens, long batch, long rope_batch, long rope_max_seqlen,
                                long q_heads, long kv_heads, long head_dim, long max_batch, long block_size,
                                long max_blocks_per_seq, std::string layout, std::string cache_layout,
                                std::string rope_style, const float* k_cache_scale_inv, const float* v_cache_scale_inv,
                                const TS* intx_k_pc_scale, const TS* intx_v_pc_scale, const TS* intx_k_pc_zero,
                                const TS* intx_v_pc_zero) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TX, TR, TC, TID, TS>(guard, ctx, "split_rope_cache_kv_encoder", qkv, rotary_pos_emb, block_table,
                                     q_emb, k_emb, v_out, k_cache, v_cache, kv_seq_lod, real_batch, start_tokens,
                                     batch, rope_batch, rope_max_seqlen, q_heads, kv_heads, head_dim, max_batch,
                                     block_size, max_blocks_per_seq, layout, cache_layout, rope_style,
                                     k_cache_scale_inv, v_cache_scale_inv, intx_k_pc_scale, intx_v_pc_scale,
                                     intx_k_pc_zero, intx_v_pc_zero);
    using frame::Rel;
    if (kv_heads == -1) kv_heads = q_heads;
    // The batch and the token count come from the lod.
    if (int st = frame::check(ctx, kv_seq_lod.len, Rel::GE, 2L)) return st;
    if (int st = frame::check_ptr(ctx, kv_seq_lod.cpu)) return st;
    batch = kv_seq_lod.len - 1;
    const long total = kv_seq_lod.cpu[batch], d = head_dim;
    if (int st = frame::check(ctx, batch, Rel::LE, fe::kEncoderMaxBatch)) return st;
    if (int st = frame::check(ctx, batch, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, rope_batch, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, rope_max_seqlen, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, q_heads, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, d, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, d, Rel::LE, fe::kEncoderMaxHeadDim)) return st;
    if (int st = frame::check(ctx, d % fe::kHeadDimUnit, Rel::EQ, 0L)) return st;
    if (int st = frame::check(ctx, total, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, kv_heads, Rel::GT, 0L)) return st;
    // Both paths read an entry of each per sequence; start tokens may be
    // left out and then are 0.
    if (int st = fe::check_per_sequence(ctx, real_batch, batch)) return st;
    std::vector<int> starts(static_cast<std::size_t>(batch), 0);
    if (start_tokens.len != 0) {
        if (int st = fe::check_per_sequence(ctx, start_tokens, batch)) return st;
        starts.assign(start_tokens.cpu, start_tokens.cpu + batch);
        for (long b = 0; b < batch; ++b) {
            if (int st = frame::check(ctx, starts[b], Rel::GE, 0)) return st;
        }
    }
    const long cache_len = kv_heads * d * block_size * max_batch * max_blocks_per_seq / (int4_cache<TC> ? 2 : 1);
    if (int st = frame::input(guard, ctx, "qkv", qkv, (q_heads + 2 * kv_heads) * d * total)) return st;
    if (int st = frame::output(guard, ctx, "q_emb", q_emb, d * total * q_heads)) return st;
    if (int st = frame::output(guard, ctx, "k_emb", k_emb, kv_heads * d * total)) return st;
    if (int st = frame::output(guard, ctx, "v_out", v_out, kv_heads * d * total)) return st;
    if (int st = frame::input(guard, ctx, "block_table", block_table, max_batch * max_blocks_per_seq)) return st;
    if (int st = frame::output(guard, ctx, "k_cache", k_cache, cache_len)) return st;
    if (int st = frame::output(guard, ctx, "v_cache", v_cache, cache_len)) return st;
    const int* lod = kv_seq_lod.cpu;
    if (int st = fe::check_block_table(ctx, block_table, max_batch * max_blocks_per_seq, real_batch.cpu, batch,
                                       max_blocks_per_seq, [&](long b) {
                                           const long first = starts[b] / block_size;
                                           const long last = (starts[b] + lod[b + 1] - lod[b] - 1) / block_size;
                                           return std::pair{first, lod[b + 1] > lod[b] ? last : first - 1};
                                       })) {
        return st;
    }
    if (int st = frame::check_word(ctx, rope_style, {rope::kHalfHeadDim, rope::kNormal})) return st;
    const bool half = rope_style == rope::kHalfHeadDim;
    const long table = 2 * rope::adjacent_plane(half, rope_batch * rope_max_seqlen, d);
    if (int st = frame::input(guard, ctx, "rotary_pos_emb", rotary_pos_emb, table)) return st;
    if constexpr (!std::is_same_v<TC, TX>) {
        if (k_cache_scale_inv != nullptr) {
            if (int st = frame::check_ptr(ctx, v_cache_scale_inv)) return st;
            if (int st = frame::input(guard, ctx, "k_cache_scale_inv", k_cache_scale_inv, kv_heads)) return st;
            if (int st = frame::input(guard, ctx, "v_cache_scale_inv", v_cache_scale_inv, kv_heads)) return st;
        } else {
            // Without inverse scales only the per-channel form is left.
            if (intx_k_pc_scale == nullptr) return frame::unimplemented(ctx);
            if (int st = frame::check_ptr(ctx, intx_v_pc_scale)) return st;
        }
        if constexpr (int4_cache<TC>) {
            if (int st = frame::check_ptr(ctx, intx_k_pc_scale)) return st;
            if (int st = frame::check_ptr(ctx, intx_v_pc_scale)) return st;
        }
        const long channels = kv_heads * d;
        if (int st = frame::optional_input(guard, ctx, "intx_k_pc_scale", intx_k_pc_scale, channels)) return st;
        if (int st = frame::optional_input(guard, ctx, "intx_v_pc_scale", intx_v_pc_scale, channels)) return st;
        if (int st = frame::optional_input(guard, ctx, "intx_k_pc_zero", intx_k_pc_zero, channels)) return st;
        if (int st = frame::optional_input(guard, ctx, "intx_v_pc_zero", intx_v_pc_zero, channels)) return st;
    }
    if (int st = frame::check(ctx, kv_heads * d * fe::kKeyElementBytes, Rel::LE, fe::kEncoderMaxKeyRowBytes)) return st;
    if (int st = rope::vsl::check_sequences(ctx, kv_seq_lod, rope_max_seqlen)) return st;
    if (int st = frame::check_word(ctx, layout, {cl::kBLHD.data()})) return st;
    if (int st = frame::check_word(ctx, cache_layout, {cl::kPagedHLD.data()})) return st;
    const Call c{batch, rope_batch, rope_max_seqlen, q_heads, kv_heads, d, max_batch, block_size, max_blocks_per_seq};
    const Scales<TS> sc{k_cache_scale_inv, v_cache_scale_inv, intx_k_pc_scale, intx_v_pc_scale, intx_k_pc_zero,
                        intx_v_pc_zero};
    return frame::dispatch(
        ctx,
        [&] {
            if constexpr (has_reference<TX, TR>) {
                return cpu_wrapper(ctx, qkv, rotary_pos_emb, block_table, q_emb, k_emb, v_out, k_cache, v_cache,
                                   kv_seq_lod, real_batch, starts, c, layout, rope_style, sc);
            } else {
                return frame::unimplemented(ctx);
            }
        },
        [&] {
            return tsu3_wrapper(guard, ctx, qkv, rotary_pos_emb, block_table, q_emb, k_emb, v_out, k_cache, v_cache,
                                kv_seq_lod, real_batch, starts, c, half, sc);
        });
}

#define TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(TX, TR, TC, TS)                                                          \
    template int split_rope_cache_kv_encoder<TX, TR, TC, int, TS>(                                                  \
        Context*, const TX*, const TR*, const int*, TX*, TX*, TX*, TC*, TC*, const VectorParam<int>&,               \
        const VectorParam<int>&, const VectorParam<int>&, long, long, long, long, long, long, long, long, long,     \
        std::string, std::string, std::string, const float*, const float*, const TS*, const TS*, const TS*,         \
        const TS*);
TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(float16, float, float16, bfloat16)
TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(float16, float16, float16, bfloat16)
TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(float16, float, signed char, bfloat16)
TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(float16, float16, signed char, bfloat16)
TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(bfloat16, float, bfloat16, bfloat16)
TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(bfloat16, bfloat16, bfloat16, bfloat16)
TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(bfloat16, float, signed char, bfloat16)
TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(bfloat16, bfloat16, signed char, bfloat16)
TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER(float16, float, int4_t, float16)
#undef TSUOPS_SPLIT_ROPE_CACHE_KV_ENCODER

}  // namespace infer_ops
