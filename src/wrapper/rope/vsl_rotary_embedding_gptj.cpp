// The reference path spells out every rounding step: products, then their
// difference or sum, never a fused multiply-add.
#pragma GCC optimize("fp-contract=off")

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
    bool half_head_dim;
    cl::InputLayout layout;
};

// Every head of every token of one sequence of x into y: adjacent pairs
// (2i, 2i + 1), the entries of each output by the table style. An odd last
// element of a head has no partner and is copied.
template <typename T, typename TR>
void rotate_sequence(const T* x, T* y, const TR* cos, const TR* sin, const Rotation& r, cl::Sequence seq, long heads,
                     long first) {
    const long d = r.head_dim;
    for (long j = 0; j < seq.tokens; ++j) {
        for (long h = 0; h < heads; ++h) {
            const long at = cl::input_row(r.layout, {heads, d}, seq, j, h);
            for (long i = 0; i < d / 2; ++i) {
                const long e = at + 2 * i;
                const rope::table_index p = rope::adjacent_index(r.half_head_dim, d, first, j, i);
                const rope::pair out = rope::rotate_pair<T, TR>(rope::to_float(x[e]), rope::to_float(x[e + 1]),
                                                                rope::to_float(cos[p.p0]), rope::to_float(sin[p.p0]),
                                                                rope::to_float(cos[p.p1]), rope::to_float(sin[p.p1]));
                y[e] = rope::store<T>(out.x);
                y[e + 1] = rope::store<T>(out.y);
            }
            if (d % 2 != 0) y[at + d - 1] = x[at + d - 1];
        }
    }
}

// Sequence by sequence, the query before the key.
template <typename T, typename TR, typename TID>
int cpu_wrapper(const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb, T* k_emb, const VectorParam<TID>& lod,
                const VectorParam<TID>& positions, const Rotation& r, long num_heads, long num_kv_heads) {
    if (lod.len < 2) return SUCCESS;
    const TR* cos = rotary_pos_emb;
    const TR* sin = cos + rope::adjacent_plane(r.half_head_dim, r.rope_max_seqlen * r.rope_batch, r.head_dim);
    for (long b = 0; b + 1 < lod.len; ++b) {
        const cl::Sequence seq{lod.cpu[b], lod.cpu[b + 1] - lod.cpu[b]};
        if (seq.tokens == 0) continue;
        const long first = rope::first_row(r.rope_batch, r.rope_max_seqlen, b, positions.len ? positions.cpu[b] : 0);
        rotate_sequence(q, q_emb, cos, sin, r, seq, num_heads, first);
        rotate_sequence(k, k_emb, cos, sin, r, seq, num_kv_heads, first);
    }
    return SUCCESS;
}

template <typename T, typename TR>
using adjacent_stub = int (*)(const T*, const T*, const TR*, T*, T*, const int*, int, int, int, int, int, const int*,
                              bool, int, bool);

template <typename T, typename TR>
adjacent_stub<T, TR> stub_of(rope::vsl::Kernel kernel, cl::InputLayout layout) {
    using namespace tsu3;
    const bool blhd = layout == cl::InputLayout::BLHD;
    if (kernel == rope::vsl::Kernel::func) {
        return blhd ? &__device_stub__infer_vsl_rotary_embedding_func_blhd<T, TR>
                    : &__device_stub__infer_vsl_rotary_embedding_func_bhld<T, TR>;
    }
    return blhd ? &__device_stub__infer_vsl_rotary_embedding_opt_blhd<T, TR>
                : &__device_stub__infer_vsl_rotary_embedding_opt_bhld<T, TR>;
}

// One launch over all sequences. The float16 forms of the opt kernels take
// no device_flag.
template <typename T, typename TR>
int tsu3_wrapper(ContextStackGuard& guard, Context* ctx, const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb,
                 T* k_emb, const VectorParam<int>& lod, const VectorParam<int>& positions, const Rotation& r,
                 long num_heads, long num_kv_heads, bool device_flag) {
    orvane::tsu::api::ctx_guard scratch(ctx);
    VectorParam<int> lod_tsu, positions_tsu;
    if (int st = rope::vsl::device_copies(guard, ctx, scratch, lod, positions, lod_tsu, positions_tsu)) return st;
    const long batch = lod.len - 1;
    const rope::vsl::Kernel kernel = rope::vsl::select({r.head_dim, std::is_same_v<T, float16>});
    if constexpr (std::is_same_v<T, float16>) {
        if (kernel == rope::vsl::Kernel::opt_fp16) {
            const auto stub = r.layout == cl::InputLayout::BLHD
                                  ? &tsu3::__device_stub__infer_vsl_rotary_embedding_opt_blhd_fp16<TR>
                                  : &tsu3::__device_stub__infer_vsl_rotary_embedding_opt_bhld_fp16<TR>;
            return frame::cluster_launch(ctx)(stub, q, k, rotary_pos_emb, q_emb, k_emb, lod_tsu.tsu, batch,
                                              r.rope_max_seqlen, num_heads, r.head_dim, r.rope_batch,
                                              positions_tsu.tsu, r.half_head_dim, num_kv_heads);
        }
    }
    return frame::cluster_launch(ctx)(stub_of<T, TR>(kernel, r.layout), q, k, rotary_pos_emb, q_emb, k_emb,
                                      lod_tsu.tsu, batch, r.rope_max_seqlen, num_heads, r.head_dim, r.rope_batch,
                                      positions_tsu.tsu, r.half_head_dim, num_kv_heads, device_flag);
}

}  // namespace

template <typename T, typename TR, typename TID>
int vsl_rotary_embedding_gptj(Context* ctx, const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb, T* k_emb,
                              const VectorParam<TID>& lod, long rope_batch, long rope_max_seqlen, long num_heads,
                              long head_dim, const std::string& layout, const VectorParam<TID>& positions,
                              const std::string& rope_style, long num_kv_heads, bool device_flag) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T, TR, TID>(guard, ctx, "vsl_rotary_embedding_gptj", q, k, rotary_pos_emb, q_emb, k_emb, lod,
                            rope_batch, rope_max_seqlen, num_heads, head_dim, layout, positions, rope_style,
                            num_kv_heads, device_flag);
    using frame::Rel;
    if (num_kv_heads == -1) num_kv_heads = num_heads;
    // The lod's host copy sizes every region.
    if (lod.len > 0) {
        if (int st = frame::check_ptr(ctx, lod.cpu)) return st;
    }
    const long batch = lod.len - 1;
    const long total = lod.len > 0 ? static_cast<long>(lod.cpu[batch]) : 0;
    if (int st = frame::input(guard, ctx, "q", q, head_dim * num_heads * total)) return st;
    if (int st = frame::input(guard, ctx, "k", k, head_dim * total * num_kv_heads)) return st;
    if (int st = frame::output(guard, ctx, "q_emb", q_emb, head_dim * num_heads * total)) return st;
    if (int st = frame::output(guard, ctx, "k_emb", k_emb, head_dim * total * num_kv_heads)) return st;
    if (int st = frame::check(ctx, batch, Rel::LE, rope::vsl::kAdjacentMaxBatch)) return st;
    if (int st = frame::check_word(ctx, rope_style, {rope::kHalfHeadDim, rope::kNormal})) return st;
    const bool half = rope_style == rope::kHalfHeadDim;
    const long table = 2 * rope::adjacent_plane(half, rope_batch * rope_max_seqlen, head_dim);
    if (int st = frame::input(guard, ctx, "rotary_pos_emb", rotary_pos_emb, table)) return st;
    if (int st = rope::vsl::check_sequences(ctx, lod, rope_max_seqlen)) return st;
    if (int st = frame::check_word(ctx, layout, {cl::kBLHD.data(), cl::kBHLD.data()})) return st;
    if (int st = rope::vsl::check_positions(ctx, positions, batch)) return st;
    if (device_flag) {
        if (int st = frame::check_word(ctx, rope_style, {rope::kNormal})) return st;
    }
    const Rotation r{rope_batch, rope_max_seqlen, head_dim, half, *cl::input_layout(layout)};
    return frame::dispatch(
        ctx,
        [&] { return cpu_wrapper(q, k, rotary_pos_emb, q_emb, k_emb, lod, positions, r, num_heads, num_kv_heads); },
        [&] {
            return tsu3_wrapper(guard, ctx, q, k, rotary_pos_emb, q_emb, k_emb, lod, positions, r, num_heads,
                                num_kv_heads, device_flag);
        });
}

#define TSUOPS_VSL_ROTARY_EMBEDDING_GPTJ(T, TR)                                                                    \
    template int vsl_rotary_embedding_gptj<T, TR, int>(Context*, const T*, const T*, const TR*, T*, T*,          \
                                                       const VectorParam<int>&, long, long, long, long,           \
                                                       const std::string&, const VectorParam<int>&,               \
                                                       const std::string&, long, bool);
TSUOPS_VSL_ROTARY_EMBEDDING_GPTJ(float, float)
TSUOPS_VSL_ROTARY_EMBEDDING_GPTJ(float16, float)
TSUOPS_VSL_ROTARY_EMBEDDING_GPTJ(float16, float16)
TSUOPS_VSL_ROTARY_EMBEDDING_GPTJ(bfloat16, float)
TSUOPS_VSL_ROTARY_EMBEDDING_GPTJ(bfloat16, bfloat16)
#undef TSUOPS_VSL_ROTARY_EMBEDDING_GPTJ

}  // namespace infer_ops
