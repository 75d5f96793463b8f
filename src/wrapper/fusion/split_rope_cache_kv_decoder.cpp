// The per-channel conversions are a product and a sum: two roundings, never
// a fused multiply-add.
#pragma GCC optimize("fp-contract=off")

#include <cstdint>
#include <numeric>
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

namespace infer_ops {

namespace {

namespace fe = front_end;
namespace cl = cache;

template <typename TC>
inline constexpr bool int4_cache = std::is_same_v<TC, int4_t>;

// The instantiations with a reference path: float16 with a float table.
template <typename TX, typename TR, typename TC, typename TS>
inline constexpr bool has_reference = std::is_same_v<TX, float16> && std::is_same_v<TR, float>;

// What the reference path needs besides the tensors.
struct Call {
    long batch;
    long rope_batch;
    long rope_max_seqlen;
    long q_heads;
    long kv_heads;
    long head_dim;
    long block_size;
    long max_blocks_per_seq;
    bool per_channel;
};

// One new token per sequence: lod [0, 1, ..., batch], and the token's table
// row and cache position both kv_seq_lens[b] - 1.
template <typename TX, typename TR, typename TC, typename TS>
int cpu_wrapper(Context* ctx, const TX* qkv, const TR* rotary_pos_emb, const int* block_table, TX* q_emb, TX* k_emb,
                TX* v_out, TC* k_cache, TC* v_cache, const VectorParam<int>& kv_seq_lens,
                const VectorParam<int>& real_batch, const Call& c, const std::string& layout,
                const std::string& rope_style, const TS* k_scale_inv, const TS* v_scale_inv, const TS* k_zp,
                const TS* v_zp) {
    const long d = c.head_dim, kvh = c.kv_heads;
    std::vector<int> lod(static_cast<std::size_t>(c.batch + 1)), positions(static_cast<std::size_t>(c.batch));
    std::iota(lod.begin(), lod.end(), 0);
    for (long b = 0; b < c.batch; ++b) positions[b] = kv_seq_lens.cpu[b] - 1;
    // The multipliers of a signed char cache: the inverse scale's inverse
    // per head, the multiplier itself per channel.
    std::vector<float> ks, vs;
    if constexpr (std::is_same_v<TC, signed char>) {
        const long n = (c.per_channel ? d : 1) * kvh;
        for (long i = 0; i < n; ++i) {
            const float k = convert::widen(k_scale_inv[i]), v = convert::widen(v_scale_inv[i]);
            ks.push_back(c.per_channel ? k : 1.0f / k);
            vs.push_back(c.per_channel ? v : 1.0f / v);
        }
    }
    std::vector<TX> k_scratch, v_scratch;
    if (k_emb == nullptr) {
        k_scratch.assign(static_cast<std::size_t>(d * kvh * c.batch), TX(0.0f));
        v_scratch.assign(k_scratch.size(), TX(0.0f));
        k_emb = k_scratch.data();
        v_out = v_scratch.data();
    }
    const VectorParam<int> lod_param{lod.data(), c.batch + 1}, positions_param{positions.data(), c.batch};
    if (int st = fe::cpu_qkv_split_rope_fusion(ctx, qkv, rotary_pos_emb, q_emb, k_emb, v_out, lod_param,
                                               c.rope_batch, c.rope_max_seqlen, c.q_heads, d, layout,
                                               positions_param, rope_style, kvh)) {
        return st;
    }
    const fe::Sequences s{lod.data(), positions.data(), real_batch.cpu, c.batch};
    const fe::Paged p{block_table, {kvh, d}, c.block_size, c.max_blocks_per_seq};
    if constexpr (int4_cache<TC>) {
        if (k_cache != nullptr) fe::cpu_reshape_cached_kv_zp(k_emb, k_cache, s, p, fe::Channels<TS, TS>{k_scale_inv, k_zp});
        if (v_cache == nullptr) return SUCCESS;
        // Values pair along the sequence: an even position starts its byte
        // afresh (clearing the high half for the next token), an odd one
        // fills the high half.
        const cl::PagedInt4Cache cache{{kvh, d}, c.block_size};
        const fe::Channels<TS, TS> ch{v_scale_inv, v_zp};
        auto* bytes = reinterpret_cast<std::uint8_t*>(v_cache);
        return fe::each_row(s, p, [&](long src, cl::PagedPosition at, long h, cl::Sequence seq, long) {
            const long pos = positions[seq.start];  // sequence b is token b
            for (long e = 0; e < d; ++e) {
                const int a = cl::store_channel_int4(convert::widen(v_out[src + e]), ch.scale(h, d, e), ch.zero(h, d, e));
                std::uint8_t& byte = bytes[cache.value_row(at, h) + e];
                byte = pos % 2 != 0 ? static_cast<std::uint8_t>(byte | cl::pack_int4(0, a)) : cl::pack_int4(a, 0);
            }
            return SUCCESS;
        });
    } else if constexpr (std::is_same_v<TC, signed char>) {
        if (c.per_channel) {
            if (k_cache != nullptr) fe::cpu_reshape_cached_kv_pc(k_emb, k_cache, s, p, fe::Channels<float, TS>{ks.data(), k_zp});
            if (v_cache != nullptr) fe::cpu_reshape_cached_kv_pc(v_out, v_cache, s, p, fe::Channels<float, TS>{vs.data(), v_zp});
            return SUCCESS;
        }
    }
    const float* kq = ks.empty() ? nullptr : ks.data();
    const float* vq = vs.empty() ? nullptr : vs.data();
    if (k_cache != nullptr) {
        if (int st = fe::cpu_reshape_cached_kv(ctx, k_emb, k_cache, s, p, kq)) return st;
    }
    if (v_cache != nullptr) return fe::cpu_reshape_cached_kv(ctx, v_out, v_cache, s, p, vq);
    return SUCCESS;
}

template <typename TX, typename TR, typename TC, typename TS, bool K>
int launch(Context* ctx, const TX* qkv, const TR* rotary_pos_emb, const int* block_table, const int* real_batch,
           TX* q_emb, TX* k_emb, TX* v_out, TC* k_cache, TC* v_cache, const TS* k_scale_inv, const TS* v_scale_inv,
           const TS* k_zp, const TS* v_zp, const int* kv_seq_lens, const Call& c, long max_batch, bool half,
           long group) {
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__qkv_split_rope_cache_kv_decoder<TX, TR, TC, TS, K>, qkv,
                                      rotary_pos_emb, block_table, real_batch, q_emb, k_emb, v_out, k_cache, v_cache,
                                      k_scale_inv, v_scale_inv, k_zp, v_zp, kv_seq_lens, c.batch, c.rope_max_seqlen,
                                      c.q_heads, c.head_dim, c.kv_heads, c.rope_batch, max_batch, c.block_size,
                                      c.max_blocks_per_seq, half, group, c.per_channel);
}

// One launch; the kv heads of a work item are the largest group that divides
// them and keeps group * head_dim within the kernel's span.
template <typename TX, typename TR, typename TC, typename TS>
int tsu3_wrapper(ContextStackGuard& guard, Context* ctx, const TX* qkv, const TR* rotary_pos_emb,
                 const int* block_table, TX* q_emb, TX* k_emb, TX* v_out, TC* k_cache, TC* v_cache,
                 const VectorParam<int>& kv_seq_lens, const VectorParam<int>& real_batch, const Call& c,
                 long max_batch, bool half, const TS* k_scale_inv, const TS* v_scale_inv, const TS* k_zp,
                 const TS* v_zp) {
    using frame::Rel;
    if (int st = frame::check(ctx, c.head_dim, Rel::LE, fe::kDecoderMaxHeadDim)) return st;
    if (int st = frame::check(ctx, c.head_dim % fe::kHeadDimUnit, Rel::EQ, 0L)) return st;
    if (int st = frame::check(ctx, c.kv_heads, Rel::LE, fe::kDecoderMaxKvHeads)) return st;
    orvane::tsu::api::ctx_guard scratch(ctx);
    VectorParam<int> kv_seq_lens_tsu, real_batch_tsu;
    if (int st = frame::device_copy(guard, ctx, scratch, kv_seq_lens, "kv_seq_lens_tsu", kv_seq_lens_tsu)) return st;
    if (int st = frame::device_copy(guard, ctx, scratch, real_batch, "real_batch_tsu", real_batch_tsu)) return st;
    const long group = fe::head_group(c.kv_heads, c.head_dim);
    if (k_emb != nullptr) {
        return launch<TX, TR, TC, TS, true>(ctx, qkv, rotary_pos_emb, block_table, real_batch_tsu.tsu, q_emb, k_emb,
                                            v_out, k_cache, v_cache, k_scale_inv, v_scale_inv, k_zp, v_zp,
                                            kv_seq_lens_tsu.tsu, c, max_batch, half, group);
    }
    return launch<TX, TR, TC, TS, false>(ctx, qkv, rotary_pos_emb, block_table, real_batch_tsu.tsu, q_emb, nullptr,
                                         nullptr, k_cache, v_cache, k_scale_inv, v_scale_inv, k_zp, v_zp,
                                         kv_seq_lens_tsu.tsu, c, max_batch, half, group);
}

}  // namespace

template <typename TX, typename TR, typename TC, typename TS, typename TID>
int split_rope_cache_kv_decoder(Context* ctx, const TX* qkv, const TR* rotary_pos_emb, const TID* block_table,
                                TX* q_emb, TX* k_emb, TX* v_out, TC* k_cache, TC* v_cache,
                                const VectorParam<TID>& kv_seq_lens, const VectorParam<TID>& real_batch, long batch,
                                long rope_batch, long rope_max_seqlen, long q_heads, long kv_heads, long head_dim,
                                long max_batch, long block_size, long max_blocks_per_seq, std::string layout,
                                std::string cache_layout, std::string rope_style, const TS* k_cache_scale_inv,
                                const TS* v_cache_scale_inv, const TS* k_cache_zp, const TS* v_cache_zp,
                                bool per_channel) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TX, TR, TC, TS, TID>(guard, ctx, "split_rope_cache_kv_decoder", qkv, rotary_pos_emb, block_table,
                                     q_emb, k_emb, v_out, k_cache, v_cache, kv_seq_lens, real_batch, batch,
                                     rope_batch, rope_max_seqlen, q_heads, kv_heads, head_dim, max_batch, block_size,
                                     max_blocks_per_seq, layout, cache_layout, rope_style, k_cache_scale_inv,
                                     v_cache_scale_inv, k_cache_zp, v_cache_zp, per_channel);
    using frame::Rel;
    if (kv_heads == -1) kv_heads = q_heads;
    if (int st = frame::check(ctx, batch, Rel::LE, fe::kDecoderMaxBatch)) return st;
    if (int st = frame::check(ctx, batch, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, rope_batch, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, rope_max_seqlen, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, q_heads, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, head_dim, Rel::GT, 0L)) return st;
    if (int st = frame::check(ctx, kv_heads, Rel::GT, 0L)) return st;
    // Both paths read one entry of each per sequence.
    if (int st = fe::check_per_sequence(ctx, kv_seq_lens, batch)) return st;
    if (int st = fe::check_per_sequence(ctx, real_batch, batch)) return st;
    // The new token is part of its sequence's length.
    for (long b = 0; b < batch; ++b) {
        if (int st = frame::check(ctx, kv_seq_lens.cpu[b], Rel::GE, 1)) return st;
    }
    const long d = head_dim;
    const long cache_len = kv_heads * d * block_size * max_blocks_per_seq * max_batch / (int4_cache<TC> ? 2 : 1);
    if (int st = frame::input(guard, ctx, "qkv", qkv, (q_heads + 2 * kv_heads) * d * batch)) return st;
    if (int st = frame::output(guard, ctx, "q_emb", q_emb, d * batch * q_heads)) return st;
    if (int st = frame::optional_output(guard, ctx, "k_emb", k_emb, kv_heads * d * batch)) return st;
    if (int st = frame::optional_output(guard, ctx, "v_out", v_out, kv_heads * d * batch)) return st;
    if (int st = frame::optional_output(guard, ctx, "k_cache", k_cache, cache_len)) return st;
    if (int st = frame::optional_output(guard, ctx, "v_cache", v_cache, cache_len)) return st;
    if (int st = frame::input(guard, ctx, "block_table", block_table, max_blocks_per_seq * max_batch)) return st;
    if (int st = frame::check(ctx, k_emb == nullptr, Rel::EQ, v_out == nullptr)) return st;
    const int* lens = kv_seq_lens.cpu;
    if (int st = fe::check_block_table(ctx, block_table, max_blocks_per_seq * max_batch, real_batch.cpu, batch,
                                       max_blocks_per_seq, [&](long b) {
                                           const long block = (lens[b] - 1) / block_size;
                                           return std::pair{block, block};
                                       })) {
        return st;
    }
    if (int st = frame::check_word(ctx, rope_style, {rope::kHalfHeadDim, rope::kNormal})) return st;
    const bool half = rope_style == rope::kHalfHeadDim;
    const long table = 2 * rope::adjacent_plane(half, rope_batch * rope_max_seqlen, d);
    if (int st = frame::input(guard, ctx, "rotary_pos_emb", rotary_pos_emb, table)) return st;
    if constexpr (!std::is_same_v<TC, TX>) {
        if (int st = frame::check_ptr(ctx, k_cache_scale_inv)) return st;
        if (int st = frame::check_ptr(ctx, v_cache_scale_inv)) return st;
        const long scales = int4_cache<TC> || per_channel ? kv_heads * d : kv_heads;
        if (int st = frame::input(guard, ctx, "k_cache_scale_inv", k_cache_scale_inv, scales)) return st;
        if (int st = frame::input(guard, ctx, "v_cache_scale_inv", v_cache_scale_inv, scales)) return st;
        if (int st = frame::optional_input(guard, ctx, "k_cache_zp", k_cache_zp, kv_heads * d)) return st;
        if (int st = frame::optional_input(guard, ctx, "v_cache_zp", v_cache_zp, kv_heads * d)) return st;
    }
    if (int st = frame::check_word(ctx, layout, {cl::kBLHD.data()})) return st;
    if (int st = frame::check_word(ctx, cache_layout, {cl::kPagedHLD.data()})) return st;
    if constexpr (int4_cache<TC>) {
        // Keys pair along the head.
        if (int st = frame::check(ctx, d % 2, Rel::EQ, 0L)) return st;
    }
    const Call c{batch, rope_batch, rope_max_seqlen, q_heads, kv_heads, d, block_size, max_blocks_per_seq, per_channel};
    return frame::dispatch(
        ctx,
        [&] {
            if constexpr (has_reference<TX, TR, TC, TS>) {
                return cpu_wrapper(ctx, qkv, rotary_pos_emb, block_table, q_emb, k_emb, v_out, k_cache, v_cache,
                                   kv_seq_lens, real_batch, c, layout, rope_style, k_cache_scale_inv,
                                   v_cache_scale_inv, k_cache_zp, v_cache_zp);
            } else {
                return frame::unimplemented(ctx);
            }
        },
        [&] {
            return tsu3_wrapper(guard, ctx, qkv, rotary_pos_emb, block_table, q_emb, k_emb, v_out, k_cache, v_cache,
                                kv_seq_lens, real_batch, c, max_batch, half, k_cache_scale_inv, v_cache_scale_inv,
                                k_cache_zp, v_cache_zp);
        });
}

#define TSUOPS_SPLIT_ROPE_CACHE_KV_DECODER(TX, TR, TC, TS)                                                          \
    template int split_rope_cache_kv_decoder<TX, TR, TC, TS, int>(                                                  \
        Context*, const TX*, const TR*, const int*, TX*, TX*, TX*, TC*, TC*, const VectorParam<int>&,               \
        const VectorParam<int>&, long, long, long, long, long, long, long, long, long, std::string, std::string,    \
        std::string, const TS*, const TS*, const TS*, const TS*, bool);
TSU_DECODER_TYPE_LISTS(TSUOPS_SPLIT_ROPE_CACHE_KV_DECODER)
#undef TSUOPS_SPLIT_ROPE_CACHE_KV_DECODER

}  // namespace infer_ops
