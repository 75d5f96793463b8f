// What the prefill and decode front ends share: their reference path is the
// split of qkv, the variable-length adjacent-pairs rotary embedding and the
// stores of the cache, composed from those operators and the cache
// addressing; and the debug check of the block table that both run.
//
// Includers compile with floating contraction off: the per-channel
// conversions are a product and a sum.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include <tsuops/basic.h>
#include <tsuops/cpu_ops.h>
#include <tsuops/ctx_guard.h>
#include <tsuops/rope.h>

#include "frame/convert.h"
#include "frame/frame.h"
#include "kernels/cache/cache_layout.h"
#include "kernels/cache/store_conversion.h"

namespace infer_ops::front_end {

namespace cl = cache;

// The new tokens of a call as the stores walk them: sequence b holds tokens
// [lod[b], lod[b + 1]) of the inputs and puts them at logical positions
// start_tokens[b] onwards of block-table row real_batch[b].
struct Sequences {
    const int* lod;
    const int* start_tokens;
    const int* real_batch;
    long batch;
};

// Where the stores put rows: heads of head_dim elements, a paged cache of
// block_size positions a block, named by a block table of
// max_blocks_per_seq entries a row.
struct Paged {
    const int* block_table;
    cl::HeadShape hs;
    long block_size;
    long max_blocks_per_seq;
};

// Every (sequence, head, new position): f(source row of the "BLHD" input,
// cache position, head, sequence, index of the token in its sequence).
template <typename F>
int each_row(const Sequences& s, const Paged& p, F&& f) {
    for (long b = 0; b < s.batch; ++b) {
        const cl::Sequence seq{s.lod[b], s.lod[b + 1] - s.lod[b]};
        const long start = s.start_tokens[b], r = s.real_batch[b];
        for (long h = 0; h < p.hs.heads; ++h) {
            for (long j = 0; j < seq.tokens; ++j) {
                const cl::PagedPosition at =
                    cl::table_position(p.block_table, r, p.max_blocks_per_seq, start + j, p.block_size);
                if (int st = f(cl::input_row<cl::InputLayout::BLHD>(p.hs, seq, j, h), at, h, seq, j)) return st;
            }
        }
    }
    return SUCCESS;
}

// The split of qkv [total, q_heads + 2 * kv_heads, head_dim] into query, key
// and value heads, then the query and key rotated by
// vsl_rotary_embedding_gptj into q_emb and k_emb; the value goes to v_out
// as it is.
template <typename TX, typename TR>
int cpu_qkv_split_rope_fusion(Context* ctx, const TX* qkv, const TR* rotary_pos_emb, TX* q_emb, TX* k_emb, TX* v_out,
                              const VectorParam<int>& lod, long rope_batch, long rope_max_seqlen, long q_heads,
                              long head_dim, const std::string& layout, const VectorParam<int>& positions,
                              const std::string& rope_style, long kv_heads,
                              frame::where at = frame::where::current()) {
    orvane::tsu::api::ctx_guard scratch(ctx);
    const long total = lod.cpu[lod.len - 1];
    TX* tmp_q = scratch.alloc<TX>(static_cast<unsigned long>(total * q_heads * head_dim));
    if (int st = frame::check_scratch(ctx, tmp_q, at)) return st;
    TX* tmp_k = scratch.alloc<TX>(static_cast<unsigned long>(total * kv_heads * head_dim));
    if (int st = frame::check_scratch(ctx, tmp_k, at)) return st;
    const int split = cpu_ops::split<TX>(ctx, qkv, {tmp_q, tmp_k, v_out}, {total, q_heads + 2 * kv_heads, head_dim},
                                         {q_heads, kv_heads, kv_heads}, 1);
    if (int st = frame::check_nested(ctx, split, at)) return st;
    const int rotated =
        vsl_rotary_embedding_gptj<TX, TR, int>(ctx, tmp_q, tmp_k, rotary_pos_emb, q_emb, k_emb, lod, rope_batch,
                                               rope_max_seqlen, q_heads, head_dim, layout, positions, rope_style,
                                               kv_heads, false);
    return frame::check_nested(ctx, rotated, at);
}

// The store of the cache operators for one tensor: a row of TX as it is into
// a cache of TX, or by the symmetric 8-bit rule against scale[h] (the value
// that maps to 127; with scale null the row's own absolute maximum).
template <typename TX, typename TC>
int cpu_reshape_cached_kv(Context* ctx, const TX* x, TC* cache, const Sequences& s, const Paged& p,
                          const float* scale, frame::where at = frame::where::current()) {
    const cl::PagedCache c{p.hs, p.block_size};
    return each_row(s, p, [&](long src, cl::PagedPosition pos, long h, cl::Sequence, long) {
        TC* dst = cache + c.row(pos, h);
        if constexpr (std::is_same_v<TX, TC>) {
            return frame::check_nested(ctx, copy<TX>(ctx, x + src, dst, p.hs.dim), at);
        } else {
            const float* sh = scale != nullptr ? scale + h : nullptr;
            return frame::check_nested(ctx, cpu_ops::quantization<TX, TC>(ctx, x + src, dst, p.hs.dim, sh), at);
        }
    });
}

// A multiplier and an optional zero point per channel ([heads, head_dim]),
// as floats.
template <typename TM, typename TZ>
struct Channels {
    const TM* m;
    const TZ* z;

    float scale(long h, long d, long e) const { return convert::widen(m[h * d + e]); }
    float zero(long h, long d, long e) const { return z != nullptr ? convert::widen(z[h * d + e]) : 0.0f; }
};

// The per-channel signed char cache: rne(clamp(x * m + z, -127, 127)).
template <typename TX, typename TM, typename TZ>
int cpu_reshape_cached_kv_pc(const TX* x, signed char* cache, const Sequences& s, const Paged& p,
                             const Channels<TM, TZ>& ch) {
    const cl::PagedCache c{p.hs, p.block_size};
    const long d = p.hs.dim;
    return each_row(s, p, [&](long src, cl::PagedPosition pos, long h, cl::Sequence, long) {
        for (long e = 0; e < d; ++e) {
            cache[c.row(pos, h) + e] =
                cl::store_channel_int8(convert::widen(x[src + e]), ch.scale(h, d, e), ch.zero(h, d, e));
        }
        return SUCCESS;
    });
}

// The 4-bit key cache: elements paired along the head,
// rne(clamp(x * m + z, -8, 7)) each.
template <typename TX, typename TS>
int cpu_reshape_cached_kv_zp(const TX* x, int4_t* cache, const Sequences& s, const Paged& p,
                             const Channels<TS, TS>& ch) {
    const cl::PagedInt4Cache c{p.hs, p.block_size};
    const long d = p.hs.dim;
    auto* bytes = reinterpret_cast<std::uint8_t*>(cache);
    return each_row(s, p, [&](long src, cl::PagedPosition pos, long h, cl::Sequence, long) {
        for (long i = 0; i < d; i += 2) {
            const int a0 = cl::store_channel_int4(convert::widen(x[src + i]), ch.scale(h, d, i), ch.zero(h, d, i));
            const int a1 =
                cl::store_channel_int4(convert::widen(x[src + i + 1]), ch.scale(h, d, i + 1), ch.zero(h, d, i + 1));
            bytes[c.key_row(pos, h) + i / 2] = cl::pack_int4(a0, a1);
        }
        return SUCCESS;
    });
}

// With a checksum level on a device, every block that the new tokens of
// sequence b reach (logical blocks first(b) to last(b) of its row) must be a
// real one: the table is read back after the stream has drained.
template <typename Blocks>
int check_block_table(Context* ctx, const int* block_table, long entries, const int* real_batch, long batch,
                      long max_blocks_per_seq, Blocks&& blocks, frame::where at = frame::where::current()) {
    if (ctx->dev_type != 3 || orvane::tsu::api::debug_checksum_level(ctx) == 0) return SUCCESS;
    if (int st = frame::check_nested(ctx, tsu_wait(ctx->stream), at)) return st;
    std::vector<int> table(static_cast<std::size_t>(entries));
    const long bytes = entries * static_cast<long>(sizeof(int));
    if (int st = frame::check_nested(ctx, orvane::tsu::api::do_device2host(ctx, block_table, table.data(), bytes), at)) {
        return st;
    }
    for (long b = 0; b < batch; ++b) {
        const auto [first, last] = blocks(b);
        for (long i = first; i <= last; ++i) {
            if (int st = frame::check(ctx, table[real_batch[b] * max_blocks_per_seq + i], frame::Rel::GE, 0, at)) {
                return st;
            }
        }
    }
    return SUCCESS;
}

// A per-sequence parameter: batch entries and a host copy.
template <typename TID>
int check_per_sequence(Context* ctx, const VectorParam<TID>& v, long batch, frame::where at = frame::where::current()) {
    if (int st = frame::check(ctx, v.len, frame::Rel::EQ, batch, at)) return st;
    return frame::check_ptr(ctx, v.cpu, STATUS_INVALID_ARGUMENT, at);
}

}  // namespace infer_ops::front_end
