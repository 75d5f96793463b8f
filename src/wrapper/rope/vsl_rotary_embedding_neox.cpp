// The reference path spells out every rounding step: products, then their
// difference or sum, never a fused multiply-add.
#pragma GCC optimize("fp-contract=off")

#include <cstring>
#include <string>
#include <type_traits>

#include <tsuops/ctx_guard.h>
#include <tsuops/rope.h>

#include "frame/frame.h"
#include "kernels/cache/cache_layout.h"
#include "kernels/rope/rotary.h"
#include "kernels/rope/vsl_rotary_embedding.h"
#include "wrapper/rope/vsl_common.h"
#include "wrapper/rope/vsl_select.h"

namespace infer_ops {

namespace {

namespace cl = cache;

// What a rotation needs besides the tensors.
struct Rotation {
    long rope_batch;
    long rope_max_seqlen;
    long head_dim;
    long rotary_dim;
};

// Every head of every token of one sequence of x into y: the split halves of
// the first (TAIL: the last) rotary_dim elements rotated, the rest copied.
template <bool TAIL, typename T, typename TR>
void rotate_sequence(const T* x, T* y, const TR* cos, const TR* sin, const Rotation& r, cl::Sequence seq, long heads,
                     long first) {
    const long d = r.head_dim, rd = r.rotary_dim, s = TAIL ? d - rd : 0;
    for (long j = 0; j < seq.tokens; ++j) {
        for (long h = 0; h < heads; ++h) {
            const long row = cl::input_row<cl::InputLayout::BLHD>({heads, d}, seq, j, h);
            std::memcpy(static_cast<void*>(y + row), static_cast<const void*>(x + row), sizeof(T) * s);
            std::memcpy(static_cast<void*>(y + row + s + rd), static_cast<const void*>(x + row + s + rd),
                        sizeof(T) * (d - s - rd));
            for (long i = 0; i < rd / 2; ++i) {
                const long i0 = row + s + i, i1 = i0 + rd / 2;
                const rope::table_index p = rope::split_index(rd, first, j, i);
                const rope::pair out = rope::rotate_pair<T, TR>(rope::to_float(x[i0]), rope::to_float(x[i1]),
                                                                rope::to_float(cos[p.p0]), rope::to_float(sin[p.p0]),
                                                                rope::to_float(cos[p.p1]), rope::to_float(sin[p.p1]));
                y[i0] = rope::store<T>(out.x);
                y[i1] = rope::store<T>(out.y);
            }
        }
    }
}

template <bool TAIL, bool HAS_K, typename T, typename TR, typename TID>
int cpu_wrapper(const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb, T* k_emb, const VectorParam<TID>& lod,
                const VectorParam<TID>& positions, const Rotation& r, long num_heads, long num_kv_heads) {
    const TR* cos = rotary_pos_emb;
    const TR* sin = cos + r.rope_max_seqlen * r.rope_batch * r.rotary_dim;
    for (long b = 0; b + 1 < lod.len; ++b) {
        const cl::Sequence seq{static_cast<long>(lod.cpu[b]), static_cast<long>(lod.cpu[b + 1] - lod.cpu[b])};
        if (seq.tokens == 0) continue;
        const long position = positions.len ? static_cast<long>(positions.cpu[b]) : 0;
        const long first = rope::first_row(r.rope_batch, r.rope_max_seqlen, b, position);
        rotate_sequence<TAIL>(q, q_emb, cos, sin, r, seq, num_heads, first);
        if constexpr (HAS_K) rotate_sequence<TAIL>(k, k_emb, cos, sin, r, seq, num_kv_heads, first);
    }
    return SUCCESS;
}

// One launch over all sequences; float16 has a family of its own, without
// device_flag. Positions of type long have no device form.
template <bool TAIL, bool HAS_K, typename T, typename TR, typename TID>
int tsu3_wrapper(ContextStackGuard& guard, Context* ctx, const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb,
                 T* k_emb, const VectorParam<TID>& lod, const VectorParam<TID>& positions, const Rotation& r,
                 long num_heads, long num_kv_heads, bool device_flag) {
    if constexpr (!std::is_same_v<TID, int>) {
        return frame::unimplemented(ctx);
    } else {
        orvane::tsu::api::ctx_guard scratch(ctx);
        VectorParam<int> lod_tsu, positions_tsu;
        if (int st = rope::vsl::device_copies(guard, ctx, scratch, lod, positions, lod_tsu, positions_tsu)) return st;
        const long batch = lod.len - 1;
        if constexpr (std::is_same_v<T, float16>) {
            return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_vsl_rotary_embedding_neox_blhd_fp16<TR, TAIL, HAS_K>,
                                              q, k, rotary_pos_emb, q_emb, k_emb, lod_tsu.tsu, batch,
                                              r.rope_max_seqlen, num_heads, r.head_dim, r.rotary_dim, r.rope_batch,
                                              positions_tsu.tsu, num_kv_heads);
        } else {
            return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_vsl_rotary_embedding_neox_blhd<T, TR, TAIL, HAS_K>,
                                              q, k, rotary_pos_emb, q_emb, k_emb, lod_tsu.tsu, batch,
                                              r.rope_max_seqlen, num_heads, r.head_dim, r.rotary_dim, r.rope_batch,
                                              positions_tsu.tsu, num_kv_heads, device_flag);
        }
    }
}

}  // namespace

template <typename T, typename TR, typename TID, bool TAIL, bool HAS_K>
int vsl_rotary_embedding_neox(Context* ctx, const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb, T* k_emb,
                              const VectorParam<TID>& lod, long rope_batch, long rope_max_seqlen, long num_heads,
                              long head_dim, long rotary_dim, std::string layout, const VectorParam<TID>& positions,
                              std::string rope_style, long num_kv_heads, bool device_flag) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TR, TID>(guard, ctx, "vsl_rotary_embedding_neox", q, k, rotary_pos_emb, q_emb, k_emb, lod,
                            rope_batch, rope_max_seqlen, num_heads, head_dim, rotary_dim, layout, positions,
                            rope_style, num_kv_heads, device_flag);
    using frame::Rel;
    if (num_kv_heads == -1) num_kv_heads = num_heads;
    if (lod.len > 0) {
        if (int st = frame::check_ptr(ctx, lod.cpu)) return st;
    }
    const long batch = lod.len - 1;
    const long total = lod.len > 0 ? static_cast<long>(lod.cpu[batch]) : 0;
    if (int st = frame::input(guard, ctx, "q", q, head_dim * num_heads * total)) return st;
    if (int st = frame::output(guard, ctx, "q_emb", q_emb, head_dim * num_heads * total)) return st;
    if constexpr (HAS_K) {
        if (int st = frame::input(guard, ctx, "k", k, head_dim * total * num_kv_heads)) return st;
        if (int st = frame::output(guard, ctx, "k_emb", k_emb, head_dim * total * num_kv_heads)) return st;
    }
    if (int st = frame::check(ctx, batch, Rel::LE, rope::vsl::kSplitMaxBatch)) return st;
    if (int st = frame::check(ctx, rotary_dim, Rel::LE, rope::vsl::kSplitMaxRotaryDim)) return st;
    if (int st = frame::check(ctx, rotary_dim, Rel::LE, head_dim)) return st;
    const long table = rope_batch * rope_max_seqlen * rotary_dim * 2;
    if (int st = frame::input(guard, ctx, "rotary_pos_emb", rotary_pos_emb, table)) return st;
    if (int st = rope::vsl::check_sequences(ctx, lod, rope_max_seqlen)) return st;
    if (int st = frame::check_word(ctx, layout, {cache::kBLHD.data()})) return st;
    if (int st = frame::check_word(ctx, rope_style, {rope::kNormal})) return st;
    if (int st = rope::vsl::check_positions(ctx, positions, batch)) return st;
    // Split halves need an even span: an odd one would leave its last
    // element unwritten.
    if (int st = frame::check(ctx, rotary_dim % 2, Rel::EQ, 0L)) return st;
    const Rotation r{rope_batch, rope_max_seqlen, head_dim, rotary_dim};
    return frame::dispatch(
        ctx,
        [&] {
            return cpu_wrapper<TAIL, HAS_K>(q, k, rotary_pos_emb, q_emb, k_emb, lod, positions, r, num_heads,
                                            num_kv_heads);
        },
        [&] {
            return tsu3_wrapper<TAIL, HAS_K>(guard, ctx, q, k, rotary_pos_emb, q_emb, k_emb, lod, positions, r,
                                             num_heads, num_kv_heads, device_flag);
        });
}

// The five type pairs, int and long positions, every (TAIL, HAS_K).
#define TSUOPS_VSL_NEOX(T, TR, TID, TAIL, HAS_K)                                                                    \
    template int vsl_rotary_embedding_neox<T, TR, TID, TAIL, HAS_K>(                                                \
        Context*, const T*, const T*, const TR*, T*, T*, const VectorParam<TID>&, long, long, long, long, long,     \
        std::string, const VectorParam<TID>&, std::string, long, bool);
#define TSUOPS_VSL_NEOX_FLAGS(T, TR, TID)            \
    TSUOPS_VSL_NEOX(T, TR, TID, false, false)        \
    TSUOPS_VSL_NEOX(T, TR, TID, false, true)         \
    TSUOPS_VSL_NEOX(T, TR, TID, true, false)         \
    TSUOPS_VSL_NEOX(T, TR, TID, true, true)
#define TSUOPS_VSL_NEOX_IDS(T, TR)                   \
    TSUOPS_VSL_NEOX_FLAGS(T, TR, int)                \
    TSUOPS_VSL_NEOX_FLAGS(T, TR, long)
TSUOPS_VSL_NEOX_IDS(float, float)
TSUOPS_VSL_NEOX_IDS(float16, float)
TSUOPS_VSL_NEOX_IDS(float16, float16)
TSUOPS_VSL_NEOX_IDS(bfloat16, float)
TSUOPS_VSL_NEOX_IDS(bfloat16, bfloat16)
#undef TSUOPS_VSL_NEOX_IDS
#undef TSUOPS_VSL_NEOX_FLAGS
#undef TSUOPS_VSL_NEOX

}  // namespace infer_ops
