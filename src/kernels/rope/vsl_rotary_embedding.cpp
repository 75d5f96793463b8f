// The rotation must be the reference's roundings, never a fused multiply-add.
#pragma GCC optimize("fp-contract=off")

#include "kernels/rope/vsl_rotary_embedding.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include <tsuops/float16.h>

#include "kernels/cache/cache_layout.h"
#include "kernels/grid.h"
#include "kernels/rope/rotary.h"
#include "kernels/rope/vsl_span.h"

namespace tsuops::kernels::vsl {

namespace {

namespace rot = infer_ops::rope;
namespace cl = infer_ops::cache;

static_assert(kOptMaxHeadDim <= kSpan, "an opt kernel rotates its heads in one pass");

// One core's view of a launch, its sizes widened to long.
template <typename T, typename TR>
struct launch_args {
    const T* q;
    const T* k;
    const TR* table;
    T* q_emb;
    T* k_emb;
    const int* lod;
    long batch;
    long rope_max_seqlen;
    long num_heads;
    long head_dim;
    long rotary_dim;  // the split-halves span; the whole head for adjacent pairs
    long rope_batch;
    const int* positions;
    bool half_head_dim;
    long num_kv_heads;
    bool has_k;
};

// What differs between the families: the pairing, the input layout and
// where a head's rotated span starts. The opt and func forms share a body:
// a head of up to kSpan elements takes one pass, a longer one several.
struct form {
    Pairing pairing;
    cl::InputLayout layout;
    bool tail;
};

// A sequence's first table row and where its tokens lie.
struct sequence {
    cl::Sequence seq;
    long first_row;
};

template <typename T, typename TR>
sequence sequence_of(const launch_args<T, TR>& a, long t, long& b) {
    if (b < 0 || t >= a.lod[b + 1]) b = std::upper_bound(a.lod, a.lod + a.batch + 1, t) - a.lod - 1;
    const long position = a.positions != nullptr ? a.positions[b] : 0;
    return {{a.lod[b], a.lod[b + 1] - a.lod[b]}, rot::first_row(a.rope_batch, a.rope_max_seqlen, b, position)};
}

template <typename T>
void copy_elements(const T* src, T* dst, long n) {
    if (n > 0) std::memcpy(static_cast<void*>(dst), static_cast<const void*>(src), static_cast<std::size_t>(n) * sizeof(T));
}

// An element as float and back, for tensors of every type.
template <typename T>
void to_floats(const T* in, float* out, long n) {
    if constexpr (std::is_same_v<T, float>) {
        copy_elements(in, out, n);
    } else {
        infer_ops::widen(in, out, n);
    }
}

template <typename T>
void from_floats(const float* in, T* out, long n) {
    if constexpr (std::is_same_v<T, float>) {
        copy_elements(in, out, n);
    } else {
        infer_ops::narrow(in, out, n);
    }
}

// The work of one core: the table entries and the stages on its stack.
template <form F, typename T, typename TR>
class core_work {
public:
    explicit core_work(const launch_args<T, TR>& a) : a_(a) {
        // Adjacent pairs cover the head but for an odd last element.
        span_ = F.pairing == Pairing::adjacent ? a.head_dim - a.head_dim % 2 : a.rotary_dim;
        offset_ = F.tail ? a.head_dim - span_ : 0;
    }

    // Heads [h0, h1) of token t, counting the query's heads first, then the
    // key's. The token's table entries are read once per pass for all heads.
    void token(long t, long h0, long h1) {
        const sequence s = sequence_of(a_, t, b_);
        const long j = t - s.seq.start;
        if (span_ != a_.head_dim) {
            for (long h = h0; h < h1; ++h) {
                const head_rows r = rows(s, j, h);
                copy_elements(r.in, r.out, offset_);
                copy_elements(r.in + offset_ + span_, r.out + offset_ + span_, a_.head_dim - offset_ - span_);
            }
        }
        for (long e0 = 0; e0 < span_; e0 += kSpan) {
            const long n = std::min(kSpan, span_ - e0);
            load(s.first_row, j, e0, n);
            for (long h = h0; h < h1; ++h) {
                const head_rows r = rows(s, j, h);
                to_floats(r.in + offset_ + e0, x_, n);
                rotate_span<F.pairing, T, TR>(x_, y_, c_, s_, n, stage_);
                from_floats(y_, r.out + offset_ + e0, n);
            }
        }
    }

private:
    struct head_rows {
        const T* in;
        T* out;
    };

    head_rows rows(const sequence& s, long j, long h) const {
        const bool query = h < a_.num_heads;
        const long heads = query ? a_.num_heads : a_.num_kv_heads;
        const long row = cl::input_row(F.layout, {heads, a_.head_dim}, s.seq, j, query ? h : h - a_.num_heads);
        return {(query ? a_.q : a_.k) + row, (query ? a_.q_emb : a_.k_emb) + row};
    }

    // The entries of outputs [e0, e0 + n) of the span.
    void load(long first, long j, long e0, long n) {
        if constexpr (F.pairing == Pairing::adjacent) {
            const long plane = rot::adjacent_plane(a_.half_head_dim, a_.rope_batch * a_.rope_max_seqlen, a_.head_dim);
            load_adjacent_row(a_.table, a_.table + plane, a_.half_head_dim, a_.head_dim, first, j, e0, n, c_, s_);
        } else {
            const long plane = a_.rope_batch * a_.rope_max_seqlen * a_.rotary_dim;
            const long at = rot::split_index(a_.rotary_dim, first, j, 0).p0;
            load_entries(a_.table + at, c_, n);
            load_entries(a_.table + plane + at, s_, n);
        }
    }

    const launch_args<T, TR>& a_;
    long span_;
    long offset_;
    long b_ = -1;
    float c_[kSpan];
    float s_[kSpan];
    float x_[kSpan];
    float y_[kSpan];
    stage_of<T> stage_;
};

// (token, head) items, token-major, split across the cores: a core finds a
// token's sequence and table row once for the heads it holds of it.
template <form F, typename T, typename TR>
void run(const launch_args<T, TR>& a) {
    const long first = a.lod[0];
    const long heads = a.num_heads + (a.has_k ? a.num_kv_heads : 0);
    const long tokens = a.lod[a.batch] - first;
    // A split-halves span is rotated in one pass; the operator keeps
    // rotary_dim within it.
    if (tokens < 1 || heads < 1 || (F.pairing == Pairing::split && a.rotary_dim > kSpan)) return;
    const auto [b, e] = core_share(tokens * heads);
    if (b == e) return;
    core_work<F, T, TR> w(a);
    for (long i = b; i < e;) {
        const long t = i / heads, h0 = i % heads, h1 = std::min(heads, h0 + (e - i));
        w.token(first + t, h0, h1);
        i += h1 - h0;
    }
}

template <cl::InputLayout L, typename T, typename TR>
void adjacent(const T* q, const T* k, const TR* table, T* q_emb, T* k_emb, const int* lod, int batch,
              int rope_max_seqlen, int num_heads, int head_dim, int rope_batch, const int* positions,
              bool half_head_dim, int num_kv_heads) {
    constexpr form f{Pairing::adjacent, L, false};
    run<f, T, TR>({q, k, table, q_emb, k_emb, lod, batch, rope_max_seqlen, num_heads, head_dim, head_dim, rope_batch,
                   positions, half_head_dim, num_kv_heads, true});
}

template <bool Tail, bool HasK, typename T, typename TR>
void split(const T* q, const T* k, const TR* table, T* q_emb, T* k_emb, const int* lod, int batch, int rope_max_seqlen,
           int num_heads, int head_dim, int rotary_dim, int rope_batch, const int* positions, int num_kv_heads) {
    constexpr form f{Pairing::split, cl::InputLayout::BLHD, Tail};
    run<f, T, TR>({q, k, table, q_emb, k_emb, lod, batch, rope_max_seqlen, num_heads, head_dim, rotary_dim, rope_batch,
                   positions, false, num_kv_heads, HasK});
}

}  // namespace

}  // namespace tsuops::kernels::vsl

namespace tsu3 {

namespace vsl = tsuops::kernels::vsl;
using infer_ops::cache::InputLayout;

#define TSU_VSL_ADJACENT_BODY(name, L)                                                                  \
    template <typename T, typename TR>                                                                            \
    void name(const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb, T* k_emb, const int* lod, int batch,     \
              int rope_max_seqlen, int num_heads, int head_dim, int rope_batch, const int* positions,             \
              bool half_head_dim, int num_kv_heads, bool) {                                                       \
        vsl::adjacent<L>(q, k, rotary_pos_emb, q_emb, k_emb, lod, batch, rope_max_seqlen, num_heads,     \
                                   head_dim, rope_batch, positions, half_head_dim, num_kv_heads);                 \
    }
#define TSU_VSL_ADJACENT_FP16_BODY(name, L)                                                                       \
    template <typename TR>                                                                                        \
    void name(const float16* q, const float16* k, const TR* rotary_pos_emb, float16* q_emb, float16* k_emb,       \
              const int* lod, int batch, int rope_max_seqlen, int num_heads, int head_dim, int rope_batch,        \
              const int* positions, bool half_head_dim, int num_kv_heads) {                                       \
        vsl::adjacent<L>(q, k, rotary_pos_emb, q_emb, k_emb, lod, batch, rope_max_seqlen, num_heads,         \
                               head_dim, rope_batch, positions, half_head_dim, num_kv_heads);                     \
    }
TSU_VSL_ADJACENT_BODY(infer_vsl_rotary_embedding_func_bhld, InputLayout::BHLD)
TSU_VSL_ADJACENT_BODY(infer_vsl_rotary_embedding_func_blhd, InputLayout::BLHD)
TSU_VSL_ADJACENT_BODY(infer_vsl_rotary_embedding_opt_bhld, InputLayout::BHLD)
TSU_VSL_ADJACENT_BODY(infer_vsl_rotary_embedding_opt_blhd, InputLayout::BLHD)
TSU_VSL_ADJACENT_FP16_BODY(infer_vsl_rotary_embedding_opt_bhld_fp16, InputLayout::BHLD)
TSU_VSL_ADJACENT_FP16_BODY(infer_vsl_rotary_embedding_opt_blhd_fp16, InputLayout::BLHD)
#undef TSU_VSL_ADJACENT_BODY
#undef TSU_VSL_ADJACENT_FP16_BODY

template <typename T, typename TR, bool TAIL, bool HAS_K>
void infer_vsl_rotary_embedding_neox_blhd(const T* q, const T* k, const TR* rotary_pos_emb, T* q_emb, T* k_emb,
                                          const int* lod, int batch, int rope_max_seqlen, int num_heads, int head_dim,
                                          int rotary_dim, int rope_batch, const int* positions, int num_kv_heads,
                                          bool) {
    vsl::split<TAIL, HAS_K>(q, k, rotary_pos_emb, q_emb, k_emb, lod, batch, rope_max_seqlen, num_heads, head_dim,
                            rotary_dim, rope_batch, positions, num_kv_heads);
}

template <typename TR, bool TAIL, bool HAS_K>
void infer_vsl_rotary_embedding_neox_blhd_fp16(const float16* q, const float16* k, const TR* rotary_pos_emb,
                                               float16* q_emb, float16* k_emb, const int* lod, int batch,
                                               int rope_max_seqlen, int num_heads, int head_dim, int rotary_dim,
                                               int rope_batch, const int* positions, int num_kv_heads) {
    vsl::split<TAIL, HAS_K>(q, k, rotary_pos_emb, q_emb, k_emb, lod, batch, rope_max_seqlen, num_heads, head_dim,
                            rotary_dim, rope_batch, positions, num_kv_heads);
}

}  // namespace tsu3

// The adjacent-pairs families over the operator's five (T, TR) pairs; the
// float16 forms over both tables.
#define TSU_VSL_ADJACENT_INSTANCES(family)               \
    TSU_KERNEL_DEFINE(family)                            \
    TSU_KERNEL_INSTANCE(family, float, float)            \
    TSU_KERNEL_INSTANCE(family, float16, float)          \
    TSU_KERNEL_INSTANCE(family, float16, float16)        \
    TSU_KERNEL_INSTANCE(family, bfloat16, float)         \
    TSU_KERNEL_INSTANCE(family, bfloat16, bfloat16)
#define TSU_VSL_FP16_INSTANCES(family)                   \
    TSU_KERNEL_DEFINE(family)                            \
    TSU_KERNEL_INSTANCE(family, float)                   \
    TSU_KERNEL_INSTANCE(family, float16)
TSU_VSL_ADJACENT_INSTANCES(infer_vsl_rotary_embedding_func_bhld)
TSU_VSL_ADJACENT_INSTANCES(infer_vsl_rotary_embedding_func_blhd)
TSU_VSL_ADJACENT_INSTANCES(infer_vsl_rotary_embedding_opt_bhld)
TSU_VSL_ADJACENT_INSTANCES(infer_vsl_rotary_embedding_opt_blhd)
TSU_VSL_FP16_INSTANCES(infer_vsl_rotary_embedding_opt_bhld_fp16)
TSU_VSL_FP16_INSTANCES(infer_vsl_rotary_embedding_opt_blhd_fp16)
#undef TSU_VSL_ADJACENT_INSTANCES
#undef TSU_VSL_FP16_INSTANCES

// The split-halves families: every (TAIL, HAS_K), over the tensor types
// other than float16, which has a family of its own.
#define TSU_VSL_NEOX_FLAGS(family, ...)                      \
    TSU_KERNEL_INSTANCE(family, __VA_ARGS__, false, false)   \
    TSU_KERNEL_INSTANCE(family, __VA_ARGS__, false, true)    \
    TSU_KERNEL_INSTANCE(family, __VA_ARGS__, true, false)    \
    TSU_KERNEL_INSTANCE(family, __VA_ARGS__, true, true)
TSU_KERNEL_DEFINE(infer_vsl_rotary_embedding_neox_blhd)
TSU_VSL_NEOX_FLAGS(infer_vsl_rotary_embedding_neox_blhd, float, float)
TSU_VSL_NEOX_FLAGS(infer_vsl_rotary_embedding_neox_blhd, bfloat16, float)
TSU_VSL_NEOX_FLAGS(infer_vsl_rotary_embedding_neox_blhd, bfloat16, bfloat16)
TSU_KERNEL_DEFINE(infer_vsl_rotary_embedding_neox_blhd_fp16)
TSU_VSL_NEOX_FLAGS(infer_vsl_rotary_embedding_neox_blhd_fp16, float)
TSU_VSL_NEOX_FLAGS(infer_vsl_rotary_embedding_neox_blhd_fp16, float16)
#undef TSU_VSL_NEOX_FLAGS
