// The rotation and the per-channel conversions (a product, then a sum) must
// be the reference's roundings, never a fused multiply-add.
#pragma GCC optimize("fp-contract=off")

#include "kernels/fusion/split_rope_cache_kv.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <tsuops/float16.h>

#include "frame/convert.h"
#include "frame/quant_rules.h"
#include "kernels/cache/cache_layout.h"
#include "kernels/cache/store_conversion.h"
#include "kernels/grid.h"
#include "kernels/rope/rotary.h"
#include "kernels/rope/vsl_span.h"

namespace tsuops::kernels::front_end {

namespace {

namespace rot = infer_ops::rope;
namespace cl = infer_ops::cache;
namespace quant = infer_ops::quant;
using vsl::kSpan;

// How rows enter the caches.
enum class Store {
    plain,         // a cache of TX: the rows bit for bit
    per_head,      // signed char, rule Q8 per head
    per_channel,   // signed char, multiplier and zero point per channel
    int4_decode,   // 4-bit; a value goes into its byte by the parity of its position
    int4_prefill,  // 4-bit; values of two positions of a sequence fill a byte, in float16 steps
};

template <typename TX, typename TR, typename TC, typename TS>
struct launch_args {
    const TX* qkv;
    const TR* table;
    const int* block_table;
    TX* q_emb;
    TX* k_emb;  // null: the key reaches the cache only
    TX* v_out;
    TC* k_cache;  // null: not written
    TC* v_cache;
    const TS* k_scale;  // inverse scale per head, or multiplier per channel
    const TS* v_scale;
    const TS* k_zero;
    const TS* v_zero;
    long q_heads;
    long kv_heads;
    long head_dim;
    long rope_batch;
    long rope_max_seqlen;
    long block_size;
    long max_blocks_per_seq;
    bool half_head_dim;
    Store store;
};

// One token of a call: its row of qkv, its sequence b, its index j in the
// sequence of `tokens` new tokens, its sequence's first table row, its
// position in the cache and the sequence's block-table row.
struct token_place {
    long t;
    long b;
    long j;
    long tokens;
    long first_row;
    long pos;
    long table_row;
};

template <typename T>
inline float as_float(T v) {
    return infer_ops::convert::widen(v);
}

template <typename T>
void copy_elements(const T* src, T* dst, long n) {
    std::memcpy(static_cast<void*>(dst), static_cast<const void*>(src), static_cast<std::size_t>(n) * sizeof(T));
}

// The work of one core: the token's table entries and the stages on its
// stack.
template <typename TX, typename TR, typename TC, typename TS>
class core_work {
public:
    explicit core_work(const launch_args<TX, TR, TC, TS>& a)
        : a_(a), cache_{{a.kv_heads, a.head_dim}, a.block_size}, int4_{{a.kv_heads, a.head_dim}, a.block_size} {}

    // Group g of ngroups of the token's kv heads, key and value, with the
    // same share of its query heads. The table entries are loaded once per
    // token.
    void item(const token_place& p, long g, long ngroups) {
        const long d = a_.head_dim, qh = a_.q_heads, kvh = a_.kv_heads;
        if (p.t != loaded_) {
            const long plane = rot::adjacent_plane(a_.half_head_dim, a_.rope_batch * a_.rope_max_seqlen, d);
            vsl::load_adjacent_row(a_.table, a_.table + plane, a_.half_head_dim, d, p.first_row, p.j, 0, d, c_, s_);
            loaded_ = p.t;
        }
        const TX* row = a_.qkv + p.t * (qh + 2 * kvh) * d;
        for (long h = g * qh / ngroups; h < (g + 1) * qh / ngroups; ++h) {
            rotate(row + h * d, a_.q_emb + (p.t * qh + h) * d);
        }
        const cl::PagedPosition at =
            cl::table_position(a_.block_table, p.table_row, a_.max_blocks_per_seq, p.pos, a_.block_size);
        for (long h = g * kvh / ngroups; h < (g + 1) * kvh / ngroups; ++h) {
            rotate(row + (qh + h) * d, k_);
            if (a_.k_emb != nullptr) copy_elements(k_, a_.k_emb + (p.t * kvh + h) * d, d);
            if (a_.k_cache != nullptr) store_key(k_, at, h);
            const TX* v = row + (qh + kvh + h) * d;
            if (a_.v_out != nullptr) copy_elements(v, a_.v_out + (p.t * kvh + h) * d, d);
            if (a_.v_cache != nullptr) store_value(v, at, h, p);
        }
    }

private:
    // One head rotated into a row of TX.
    void rotate(const TX* in, TX* out) {
        const long d = a_.head_dim;
        infer_ops::widen(in, x_, d);
        vsl::rotate_span<vsl::Pairing::adjacent, TX, TR>(x_, y_, c_, s_, d, stage_);
        infer_ops::narrow(y_, out, d);
    }

    // A row of TX through the per-head or per-channel 8-bit rule.
    void store_int8(const TX* src, signed char* dst, const TS* scale, const TS* zero, long h) {
        const long d = a_.head_dim;
        infer_ops::widen(src, x_, d);
        if (a_.store == Store::per_head) {
            const float s = scale != nullptr ? 1.0f / as_float(scale[h]) : quant::absmax(x_, d);
            quant::quantize_span(x_, dst, d, s);
            return;
        }
        const TS* m = scale + h * d;
        const TS* z = zero != nullptr ? zero + h * d : nullptr;
        for (long e = 0; e < d; ++e) dst[e] = cl::store_channel_int8(x_[e], as_float(m[e]), z ? as_float(z[e]) : 0.0f);
    }

    void store_key(const TX* k, cl::PagedPosition at, long h) {
        if constexpr (std::is_same_v<TC, TX>) {
            copy_elements(k, a_.k_cache + cache_.row(at, h), a_.head_dim);
        } else if constexpr (std::is_same_v<TC, signed char>) {
            store_int8(k, a_.k_cache + cache_.row(at, h), a_.k_scale, a_.k_zero, h);
        } else {
            const long d = a_.head_dim;
            infer_ops::widen(k, x_, d);
            auto* bytes = reinterpret_cast<std::uint8_t*>(a_.k_cache) + int4_.key_row(at, h);
            const TS* m = a_.k_scale + h * d;
            const TS* z = a_.k_zero != nullptr ? a_.k_zero + h * d : nullptr;
            for (long i = 0; i < d / 2; ++i) {
                const long e = 2 * i;
                bytes[i] = cl::pack_int4(cl::store_channel_int4(x_[e], as_float(m[e]), z ? as_float(z[e]) : 0.0f),
                                         cl::store_channel_int4(x_[e + 1], as_float(m[e + 1]),
                                                                z ? as_float(z[e + 1]) : 0.0f));
            }
        }
    }

    void store_value(const TX* v, cl::PagedPosition at, long h, const token_place& p) {
        if constexpr (std::is_same_v<TC, TX>) {
            copy_elements(v, a_.v_cache + cache_.row(at, h), a_.head_dim);
        } else if constexpr (std::is_same_v<TC, signed char>) {
            store_int8(v, a_.v_cache + cache_.row(at, h), a_.v_scale, a_.v_zero, h);
        } else {
            const long d = a_.head_dim;
            auto* bytes = reinterpret_cast<std::uint8_t*>(a_.v_cache) + int4_.value_row(at, h);
            const TS* m = a_.v_scale + h * d;
            const TS* z = a_.v_zero != nullptr ? a_.v_zero + h * d : nullptr;
            infer_ops::widen(v, x_, d);
            if (a_.store == Store::int4_decode) {
                const bool high = p.pos % 2 != 0;
                for (long e = 0; e < d; ++e) {
                    const int q = cl::store_channel_int4(x_[e], as_float(m[e]), z ? as_float(z[e]) : 0.0f);
                    bytes[e] = high ? static_cast<std::uint8_t>(bytes[e] | cl::pack_int4(0, q)) : cl::pack_int4(q, 0);
                }
                return;
            }
            // Positions pair up from the sequence's first new one; the first
            // of a pair writes the byte, with the next token's value above.
            if (p.j % 2 != 0) return;
            const bool next = p.j + 1 < p.tokens;
            if (next) infer_ops::widen(v + (a_.q_heads + 2 * a_.kv_heads) * d, y_, d);
            for (long e = 0; e < d; ++e) {
                const float mf = as_float(m[e]), zf = z ? as_float(z[e]) : 0.0f;
                const int lo = cl::store_channel_int4_half(x_[e], mf, zf);
                bytes[e] = cl::pack_int4(lo, next ? cl::store_channel_int4_half(y_[e], mf, zf) : 0);
            }
        }
    }

    const launch_args<TX, TR, TC, TS>& a_;
    cl::PagedCache cache_;
    cl::PagedInt4Cache int4_;
    long loaded_ = -1;
    float c_[kSpan];
    float s_[kSpan];
    float x_[kSpan];
    float y_[kSpan];
    TX k_[kSpan];
    vsl::stage_of<TX> stage_;
};

// Items of (token, group of kv heads), token-major, split across the cores.
template <typename TX, typename TR, typename TC, typename TS, typename Place>
void run(const launch_args<TX, TR, TC, TS>& a, long tokens, long group, Place&& place) {
    if (a.head_dim < 1 || a.head_dim > kSpan || tokens < 1 || group < 1 || a.kv_heads < group) return;
    const long ngroups = a.kv_heads / group;
    const auto [b, e] = core_share(tokens * ngroups);
    if (b == e) return;
    core_work<TX, TR, TC, TS> w(a);
    for (long i = b; i < e; ++i) w.item(place(i / ngroups), i % ngroups, ngroups);
}

template <typename TC, typename TX>
constexpr Store store_of(bool per_channel, Store int4) {
    if constexpr (std::is_same_v<TC, TX>) return Store::plain;
    else if constexpr (std::is_same_v<TC, signed char>) return per_channel ? Store::per_channel : Store::per_head;
    else return int4;
}

// The tokens of a lod of sequences, each placed by its sequence's start.
template <typename TX, typename TR, typename TC, typename TS>
void run_encoder(const launch_args<TX, TR, TC, TS>& a, const int* lod, const int* real_batch, const int* start_tokens,
                 long batch, bool short_seq) {
    if (batch < 1) return;
    const long first = lod[0];
    long b = -1;
    const auto place = [&](long i) {
        const long t = first + i;
        if (b < 0 || t >= lod[b + 1]) b = std::upper_bound(lod, lod + batch + 1, t) - lod - 1;
        const long start = start_tokens[b], j = t - lod[b];
        return token_place{t,
                           b,
                           j,
                           lod[b + 1] - lod[b],
                           rot::first_row(a.rope_batch, a.rope_max_seqlen, b, start),
                           start + j,
                           real_batch[b]};
    };
    run(a, lod[batch] - first, short_seq ? head_group(a.kv_heads, a.head_dim) : a.kv_heads, place);
}

template <bool ShortSeq, typename TX, typename TR, typename TC, typename TS>
void encoder(const TX* qkv, const TR* table, const int* block_table, TX* q_emb, TX* k_emb, TX* v_out, TC* k_cache,
             TC* v_cache, const TS* k_scale, const TS* k_zero, const TS* v_scale, const TS* v_zero,
             const int* kv_seq_lod, const int* real_batch, const int* start_tokens, long batch, long rope_max_seqlen,
             long q_heads, long kv_heads, long head_dim, long rope_batch, long block_size, long max_blocks_per_seq,
             bool half_head_dim, bool per_channel) {
    const launch_args<TX, TR, TC, TS> a{qkv,       table,      block_table,  q_emb,       k_emb,
                                        v_out,     k_cache,    v_cache,      k_scale,     v_scale,
                                        k_zero,    v_zero,     q_heads,      kv_heads,    head_dim,
                                        rope_batch, rope_max_seqlen, block_size, max_blocks_per_seq, half_head_dim,
                                        store_of<TC, TX>(per_channel, Store::int4_prefill)};
    run_encoder(a, kv_seq_lod, real_batch, start_tokens, batch, ShortSeq);
}

}  // namespace

}  // namespace tsuops::kernels::front_end

namespace tsu3 {

namespace fe = tsuops::kernels::front_end;

template <typename TX, typename TR, typename TC, typename TS, bool K>
void qkv_split_rope_cache_kv_decoder(const TX* qkv, const TR* rotary_pos_emb, const int* block_table,
                                     const int* real_batch, TX* q_emb, TX* k_emb, TX* v_out, TC* k_cache, TC* v_cache,
                                     const TS* k_cache_scale_inv, const TS* v_cache_scale_inv, const TS* k_cache_zp,
                                     const TS* v_cache_zp, const int* kv_seq_lens, long batch, long rope_max_seqlen,
                                     long q_heads, long head_dim, long kv_heads, long rope_batch, long,
                                     long block_size, long max_blocks_per_seq, bool half_head_dim, long group,
                                     bool per_channel) {
    const fe::launch_args<TX, TR, TC, TS> a{qkv,
                                            rotary_pos_emb,
                                            block_table,
                                            q_emb,
                                            K ? k_emb : nullptr,
                                            K ? v_out : nullptr,
                                            k_cache,
                                            v_cache,
                                            k_cache_scale_inv,
                                            v_cache_scale_inv,
                                            k_cache_zp,
                                            v_cache_zp,
                                            q_heads,
                                            kv_heads,
                                            head_dim,
                                            rope_batch,
                                            rope_max_seqlen,
                                            block_size,
                                            max_blocks_per_seq,
                                            half_head_dim,
                                            fe::store_of<TC, TX>(per_channel, fe::Store::int4_decode)};
    // Sequence b's one new token is row b of qkv, at position
    // kv_seq_lens[b] - 1 of its table and of its cache.
    fe::run(a, batch, group, [&](long b) {
        const long pos = kv_seq_lens[b] - 1;
        return fe::token_place{b,   b, 0, 1, infer_ops::rope::first_row(rope_batch, rope_max_seqlen, b, pos),
                               pos, real_batch[b]};
    });
}

#define TSU_ENCODER_BODY(name, short_seq)                                                                          \
    template <typename TX, typename TR, typename TC>                                                               \
    void name(const TX* qkv, const TR* rotary_pos_emb, const int* block_table, TX* q_emb, TX* k_emb, TX* v_out,    \
              TC* k_cache, TC* v_cache, const float* k_cache_scale_inv, const float* v_cache_scale_inv,            \
              const int* kv_seq_lod, const int* real_batch, const int* start_tokens, long batch,                   \
              long rope_max_seqlen, long q_heads, long kv_heads, long head_dim, long rope_batch, long,             \
              long block_size, long max_blocks_per_seq, bool half_head_dim) {                                      \
        fe::encoder<short_seq>(qkv, rotary_pos_emb, block_table, q_emb, k_emb, v_out, k_cache, v_cache,            \
                               k_cache_scale_inv, static_cast<const float*>(nullptr), v_cache_scale_inv,          \
                               static_cast<const float*>(nullptr), kv_seq_lod, real_batch, start_tokens, batch,    \
                               rope_max_seqlen, q_heads, kv_heads, head_dim, rope_batch, block_size,               \
                               max_blocks_per_seq, half_head_dim, false);                                          \
    }
#define TSU_ENCODER_PC_BODY(name, short_seq, tparams, TC, TS)                                                       \
    template <TSU_PP_UNPAREN tparams>                                                                              \
    void name(const TX* qkv, const TR* rotary_pos_emb, const int* block_table, TX* q_emb, TX* k_emb, TX* v_out,    \
              TC* k_cache, TC* v_cache, const TS* intx_k_pc_scale, const TS* intx_k_pc_zero,                      \
              const TS* intx_v_pc_scale, const TS* intx_v_pc_zero, const int* kv_seq_lod, const int* real_batch,  \
              const int* start_tokens, long batch, long rope_max_seqlen, long q_heads, long kv_heads,              \
              long head_dim, long rope_batch, long, long block_size, long max_blocks_per_seq,                      \
              bool half_head_dim) {                                                                                \
        fe::encoder<short_seq>(qkv, rotary_pos_emb, block_table, q_emb, k_emb, v_out, k_cache, v_cache,            \
                               intx_k_pc_scale, intx_k_pc_zero, intx_v_pc_scale, intx_v_pc_zero, kv_seq_lod,       \
                               real_batch, start_tokens, batch, rope_max_seqlen, q_heads, kv_heads, head_dim,      \
                               rope_batch, block_size, max_blocks_per_seq, half_head_dim, true);                  \
    }
TSU_ENCODER_BODY(qkv_split_rope_reshape_kv_encoder, false)
TSU_ENCODER_BODY(qkv_split_rope_reshape_kv_encoder_short_seq, true)
TSU_ENCODER_PC_BODY(qkv_split_rope_reshape_kv_encoder_int8_pc, false, (typename TX, typename TR), signed char,
                    bfloat16)
TSU_ENCODER_PC_BODY(qkv_split_rope_reshape_kv_encoder_short_seq_int8_pc, true, (typename TX, typename TR),
                    signed char, bfloat16)
TSU_ENCODER_PC_BODY(qkv_split_rope_reshape_kv_encoder_int4, false, (typename TX, typename TR, int Z), int4_t,
                    float16)
TSU_ENCODER_PC_BODY(qkv_split_rope_reshape_kv_encoder_short_seq_int4, true, (typename TX, typename TR, int Z),
                    int4_t, float16)
#undef TSU_ENCODER_BODY
#undef TSU_ENCODER_PC_BODY

}  // namespace tsu3

// The decoder over its eleven type lists, with and without k_emb and v_out.
#define TSU_DECODER_INSTANCES(TX, TR, TC, TS)                                         \
    TSU_KERNEL_INSTANCE(qkv_split_rope_cache_kv_decoder, TX, TR, TC, TS, true)        \
    TSU_KERNEL_INSTANCE(qkv_split_rope_cache_kv_decoder, TX, TR, TC, TS, false)
TSU_KERNEL_DEFINE(qkv_split_rope_cache_kv_decoder)
TSU_DECODER_TYPE_LISTS(TSU_DECODER_INSTANCES)
#undef TSU_DECODER_INSTANCES

// The encoder's plain and per-head forms over its eight (TX, TR, TC).
#define TSU_ENCODER_INSTANCES(family)                                 \
    TSU_KERNEL_DEFINE(family)                                         \
    TSU_KERNEL_INSTANCE(family, float16, float, float16)              \
    TSU_KERNEL_INSTANCE(family, float16, float16, float16)            \
    TSU_KERNEL_INSTANCE(family, float16, float, signed char)          \
    TSU_KERNEL_INSTANCE(family, float16, float16, signed char)        \
    TSU_KERNEL_INSTANCE(family, bfloat16, float, bfloat16)            \
    TSU_KERNEL_INSTANCE(family, bfloat16, bfloat16, bfloat16)         \
    TSU_KERNEL_INSTANCE(family, bfloat16, float, signed char)         \
    TSU_KERNEL_INSTANCE(family, bfloat16, bfloat16, signed char)
TSU_ENCODER_INSTANCES(qkv_split_rope_reshape_kv_encoder)
TSU_ENCODER_INSTANCES(qkv_split_rope_reshape_kv_encoder_short_seq)
#undef TSU_ENCODER_INSTANCES

// The per-channel 8-bit forms: both 16-bit tensor types for whole tokens per
// core, bfloat16 alone for the short form.
TSU_KERNEL_DEFINE(qkv_split_rope_reshape_kv_encoder_int8_pc)
TSU_KERNEL_INSTANCE(qkv_split_rope_reshape_kv_encoder_int8_pc, float16, float)
TSU_KERNEL_INSTANCE(qkv_split_rope_reshape_kv_encoder_int8_pc, float16, float16)
TSU_KERNEL_INSTANCE(qkv_split_rope_reshape_kv_encoder_int8_pc, bfloat16, float)
TSU_KERNEL_INSTANCE(qkv_split_rope_reshape_kv_encoder_int8_pc, bfloat16, bfloat16)
TSU_KERNEL_DEFINE(qkv_split_rope_reshape_kv_encoder_short_seq_int8_pc)
TSU_KERNEL_INSTANCE(qkv_split_rope_reshape_kv_encoder_short_seq_int8_pc, bfloat16, float)
TSU_KERNEL_INSTANCE(qkv_split_rope_reshape_kv_encoder_short_seq_int8_pc, bfloat16, bfloat16)

// The 4-bit forms over the float16 tensors, with and without zero points.
#define TSU_INT4_INSTANCES(family)                        \
    TSU_KERNEL_DEFINE(family)                             \
    TSU_KERNEL_INSTANCE(family, float16, float, 0)        \
    TSU_KERNEL_INSTANCE(family, float16, float, 1)        \
    TSU_KERNEL_INSTANCE(family, float16, float16, 0)      \
    TSU_KERNEL_INSTANCE(family, float16, float16, 1)
TSU_INT4_INSTANCES(qkv_split_rope_reshape_kv_encoder_int4)
TSU_INT4_INSTANCES(qkv_split_rope_reshape_kv_encoder_short_seq_int4)
#undef TSU_INT4_INSTANCES
