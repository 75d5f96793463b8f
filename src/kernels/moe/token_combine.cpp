// The combines. A token's k contributions are few, so the kernels keep the
// reference's order and rounding points exactly (the running sum in double
// steps for float, in float for (float16, float), in float16 after every
// step for (float16, float16), in bfloat16 after every expert for bfloat16)
// and get their speed from the columns instead: every step runs over a chunk
// of a row with vector loops and bulk conversions. Tokens, or pieces of a
// token's row when there are fewer tokens than cores, are split over the
// cores; each writes only its own part of y.
#pragma GCC optimize("fp-contract=off")

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <tsuops/float16.h>

#include "kernels/grid.h"
#include "kernels/moe/token_flow.h"

namespace tsuops::kernels::moe {

namespace {

// Columns of one chunk: the running sum and one widened row stay in the
// first-level cache.
constexpr long kChunk = 512;

#define TSUOPS_COMBINE_CLONES __attribute__((target_clones("avx2", "default")))

// acc = float(double(row) * double(w) + double(acc)), the double step of the
// float and bfloat16 forms.
TSUOPS_COMBINE_CLONES void mul_add_double(const float* __restrict row, float w, float* __restrict acc, long n) {
    for (long i = 0; i < n; ++i) {
        acc[i] = static_cast<float>(static_cast<double>(row[i]) * static_cast<double>(w) + static_cast<double>(acc[i]));
    }
}

// acc = acc + row * w: two float steps, the product rounded first.
TSUOPS_COMBINE_CLONES void mul_then_add(const float* __restrict row, float w, float* __restrict acc, long n) {
    for (long i = 0; i < n; ++i) {
        const float product = row[i] * w;
        acc[i] = acc[i] + product;
    }
}

TSUOPS_COMBINE_CLONES void scale(float* __restrict v, float w, long n) {
    for (long i = 0; i < n; ++i) v[i] = v[i] * w;
}

// b = a + b.
TSUOPS_COMBINE_CLONES void add_into(const float* __restrict a, float* __restrict b, long n) {
    for (long i = 0; i < n; ++i) b[i] = a[i] + b[i];
}

inline float bf16_widen(bfloat16 v) { return std::bit_cast<float>(static_cast<std::uint32_t>(v.x) << 16); }

// v rounded to bfloat16 by (bits + 0x8000) >> 16, whatever the mode and with
// no case for NaN, and widened again.
inline float bf16_round(float v) {
    return std::bit_cast<float>((std::bit_cast<std::uint32_t>(v) + 0x8000u) & 0xffff0000u);
}

// The bfloat16 form's steps, each one pass over the row: the first expert a
// rounded product, every other one a double step onto the rounded sum.
TSUOPS_COMBINE_CLONES void bf16_first(const bfloat16* __restrict x, float w, float* __restrict acc, long n) {
    for (long i = 0; i < n; ++i) acc[i] = bf16_round(bf16_widen(x[i]) * w);
}

TSUOPS_COMBINE_CLONES void bf16_next(const bfloat16* __restrict x, float w, float* __restrict acc, long n) {
    for (long i = 0; i < n; ++i) {
        const double product = static_cast<double>(bf16_widen(x[i])) * static_cast<double>(w);
        acc[i] = bf16_round(static_cast<float>(product + static_cast<double>(acc[i])));
    }
}

// acc holds bfloat16 values: their upper halves are the result.
TSUOPS_COMBINE_CLONES void bf16_store(const float* __restrict acc, bfloat16* __restrict y, long n) {
    for (long i = 0; i < n; ++i) y[i].x = static_cast<std::uint16_t>(std::bit_cast<std::uint32_t>(acc[i]) >> 16);
}

template <typename T>
void widen_row(const T* x, float* out, long n) {
    if constexpr (std::is_same_v<T, float>) {
        std::memcpy(out, x, static_cast<std::size_t>(n) * sizeof(float));
    } else {
        infer_ops::widen(x, out, n);
    }
}

// v narrowed to the half type and widened again: the value that an
// operation narrowing into T would leave.
template <typename T>
void round_trip(float* v, T* tmp, long n) {
    infer_ops::narrow(v, tmp, n);
    infer_ops::widen(tmp, v, n);
}

// The k pairs of one token: where their rows are and what they weigh. The
// weight is formed as the reference forms it: the score widened, times the
// factor of the pair's slot (1 without factors), in float; narrowed to
// float16 for the (float16, float16) form. A slot outside [0, pairs)
// contributes nothing.
template <typename T, typename TI, typename TF, typename TS>
struct token_pairs {
    const T* x;
    const TI* slot;  // the token's k entries of moe_index
    const TS* score;
    const TF* dequant;  // may be null
    long pairs, d;

    // Row j offset to column c, or null; its weight in *w.
    const T* row(long j, long c, float* w) const {
        const long s = static_cast<long>(slot[j]);
        if (s < 0 || s >= pairs) return nullptr;
        const float f = dequant != nullptr ? static_cast<float>(dequant[s]) : 1.0f;
        const float p = static_cast<float>(score[j]) * f;
        *w = std::is_same_v<T, float16> && std::is_same_v<TS, float16> ? static_cast<float>(float16(p)) : p;
        return x + s * d + c;
    }
};

// Columns [c, c + n) of one token. The bfloat16 form's first expert is a
// plain product, rounded; the others add in double steps to the rounded sum.
template <typename T, typename TI, typename TF, typename TS>
void combine_chunk(const token_pairs<T, TI, TF, TS>& tp, long k, long c, T* y, long n) {
    alignas(64) float acc[kChunk];
    alignas(64) float row[kChunk];
    std::fill(acc, acc + n, 0.0f);
    float w = 0.0f;
    if constexpr (std::is_same_v<T, float>) {
        for (long j = 0; j < k; ++j) {
            if (const float* r = tp.row(j, c, &w)) mul_add_double(r, w, acc, n);
        }
        std::memcpy(y, acc, static_cast<std::size_t>(n) * sizeof(float));
    } else if constexpr (std::is_same_v<T, bfloat16>) {
        for (long j = 0; j < k; ++j) {
            const bfloat16* r = tp.row(j, c, &w);
            if (r == nullptr) continue;
            if (j == 0) {
                bf16_first(r, w, acc, n);
            } else {
                bf16_next(r, w, acc, n);
            }
        }
        bf16_store(acc, y, n);
    } else if constexpr (std::is_same_v<TS, float>) {
        for (long j = 0; j < k; ++j) {
            const float16* r = tp.row(j, c, &w);
            if (r == nullptr) continue;
            widen_row(r, row, n);
            mul_then_add(row, w, acc, n);
        }
        infer_ops::narrow(acc, y, n);
    } else {
        // Every step lands in float16: the copy of the row, the product and
        // the sum. acc holds float16 values, so its last narrowing (and the
        // reference's copy of the sum to itself after it) changes nothing.
        alignas(64) float16 h[kChunk];
        for (long j = 0; j < k; ++j) {
            const float16* r = tp.row(j, c, &w);
            if (r == nullptr) continue;
            widen_row(r, row, n);
            round_trip(row, h, n);
            scale(row, w, n);
            round_trip(row, h, n);
            add_into(acc, row, n);
            infer_ops::narrow(row, h, n);
            infer_ops::widen(h, acc, n);
        }
        infer_ops::narrow(acc, y, n);
    }
}

// y = x_0, then y = y + x_j rounded to T after every addition; one row is a
// copy of its bits.
template <typename T>
void sum_chunk(const T* x, long stride, long k, T* y, long n) {
    if (k == 1) {
        std::memcpy(static_cast<void*>(y), static_cast<const void*>(x), static_cast<std::size_t>(n) * sizeof(T));
        return;
    }
    alignas(64) float acc[kChunk];
    alignas(64) float row[kChunk];
    widen_row(x, acc, n);
    for (long j = 1; j < k; ++j) {
        widen_row(x + j * stride, row, n);
        add_into(acc, row, n);
        if constexpr (std::is_same_v<T, float>) {
            std::memcpy(acc, row, static_cast<std::size_t>(n) * sizeof(float));
        } else {
            infer_ops::narrow(row, y, n);
            if (j + 1 < k) infer_ops::widen(y, acc, n);
        }
    }
    if constexpr (std::is_same_v<T, float>) std::memcpy(y, acc, static_cast<std::size_t>(n) * sizeof(float));
}

// Calls part(token, c0, c1) for this core's share of the m rows of d
// columns, in chunks of at most kChunk columns.
template <typename Part>
void for_each_chunk(long m, long d, Part part) {
    const row_pieces cut = cut_rows(m, d);
    const auto [first, last] = core_share(m * cut.count);
    for (long it = first; it < last; ++it) {
        const long t = it / cut.count, piece = it % cut.count;
        const long end = cut.begin(piece + 1, d);
        for (long c = cut.begin(piece, d); c < end; c += kChunk) part(t, c, std::min(end, c + kChunk));
    }
}

}  // namespace

}  // namespace tsuops::kernels::moe

namespace tsu3 {

namespace mk = tsuops::kernels::moe;

template <typename T, typename TI, typename TF, typename TS>
void infer_moe_ffn_post_fusion(const T* x, const TI* moe_index, const TS* normed_score, const TF* dequant_score, T* y,
                               long m, long d, long k) {
    mk::for_each_chunk(m, d, [&](long t, long c0, long c1) {
        const mk::token_pairs<T, TI, TF, TS> tp{x, moe_index + t * k, normed_score + t * k, dequant_score, m * k, d};
        mk::combine_chunk(tp, k, c0, y + t * d + c0, c1 - c0);
    });
}

template <typename T>
void infer_moe_sum(const T* x, T* y, long m, long d, long k) {
    if (k < 1) return;
    mk::for_each_chunk(m, d, [&](long t, long c0, long c1) {
        mk::sum_chunk(x + t * k * d + c0, d, k, y + t * d + c0, c1 - c0);
    });
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_moe_ffn_post_fusion)
TSU_KERNEL_INSTANCE(infer_moe_ffn_post_fusion, float16, int, float, float16)
TSU_KERNEL_INSTANCE(infer_moe_ffn_post_fusion, float16, int, float, float)
TSU_KERNEL_INSTANCE(infer_moe_ffn_post_fusion, bfloat16, int, float, bfloat16)
TSU_KERNEL_INSTANCE(infer_moe_ffn_post_fusion, bfloat16, int, float, float)
TSU_KERNEL_INSTANCE(infer_moe_ffn_post_fusion, float, int, float, float)

TSU_KERNEL_DEFINE(infer_moe_sum)
TSU_KERNEL_INSTANCE(infer_moe_sum, float)
TSU_KERNEL_INSTANCE(infer_moe_sum, float16)
TSU_KERNEL_INSTANCE(infer_moe_sum, bfloat16)
