// The offsets and slots of the sorted view are prefix sums over the whole
// routing table, and cores do not wait on each other: so the counting sorts
// run on one core, which is cheaper than every core counting the whole table
// again. The histogram rows (one per block) and the conversion between the
// gather and scatter forms (one write per entry) split over the cores.
#include "kernels/moe/token_index.h"

#include <algorithm>
#include <type_traits>

#include "kernels/grid.h"
#include "kernels/moe/moe_index.h"

namespace tsuops::kernels::moe {

namespace {

using infer_ops::moe_index::is_expert;

// Experts counted per pass of the block-padded sort, on the core's stack.
constexpr long kExpertChunk = 4096;

bool first_core() { return tsuemu::global_core_id() == 0; }

// Counts of the experts [e0, e0 + c) in table, into cnt.
template <typename T>
void count_experts(const T* table, long len, long e0, long c, long* cnt) {
    std::fill(cnt, cnt + c, 0L);
    for (long p = 0; p < len; ++p) {
        const long e = static_cast<long>(table[p]) - e0;
        if (e >= 0 && e < c) ++cnt[e];
    }
}

// Every flat position whose expert is in [e0, e0 + c), in ascending order, to
// out[cursor[expert - e0]++]: the stable pass of the counting sort.
template <typename T>
void place_experts(const T* table, long len, long e0, long c, long* cursor, T* out) {
    for (long p = 0; p < len; ++p) {
        const long e = static_cast<long>(table[p]) - e0;
        if (e >= 0 && e < c) out[cursor[e]++] = static_cast<T>(p);
    }
}

// lod[i + 1] = lod[i] + expert_m[i] in TOUT, wrapping rather than
// overflowing.
template <typename TIN, typename TOUT>
void prefix(const TIN* expert_m, TOUT* lod, long n) {
    using U = std::make_unsigned_t<TOUT>;
    U acc = 0;
    lod[0] = 0;
    for (long i = 0; i < n; ++i) {
        acc = static_cast<U>(acc + static_cast<U>(static_cast<TOUT>(expert_m[i])));
        lod[i + 1] = static_cast<TOUT>(acc);
    }
}

}  // namespace

}  // namespace tsuops::kernels::moe

namespace tsu3 {

namespace mk = tsuops::kernels::moe;

template <typename T>
void gen_block_statistic(const T* topk_ids, T* block_statistic, long n, long m, long k, long block_num) {
    const auto [first, last] = tsuops::kernels::core_share(block_num);
    for (long b = first; b < last; ++b) {
        const auto tokens = infer_ops::moe_index::token_block(b, block_num, m);
        T* row = block_statistic + b * n;
        std::fill(row, row + n, T{0});
        for (long p = tokens.begin * k; p < tokens.end * k; ++p) {
            if (mk::is_expert(topk_ids[p], n)) ++row[topk_ids[p]];
        }
    }
}

void infer_moe_sorted_topk_idx(long m, long k, long n, const int* topk_idx, int* sorted_tokens_num_lod,
                               int* sorted_tokens_idx) {
    if (!mk::first_core() || n < 1 || n >= mk::kSortedTopkExpertLimit) return;
    long cursor[mk::kSortedTopkExpertLimit];
    const long pairs = m * k;
    mk::count_experts(topk_idx, pairs, 0, n, cursor);
    long offset = 0;
    sorted_tokens_num_lod[0] = 0;
    for (long e = 0; e < n; ++e) {
        const long c = cursor[e];
        cursor[e] = offset;
        offset += c;
        sorted_tokens_num_lod[e + 1] = static_cast<int>(offset);
    }
    mk::place_experts(topk_idx, pairs, 0, n, cursor, sorted_tokens_idx);
}

template <typename T, typename TI>
void moe_resort_idx(const T* moe_index, T* sorted_token_idx, TI count) {
    const auto [first, last] = tsuops::kernels::core_share(static_cast<long>(count));
    for (long i = first; i < last; ++i) {
        const T v = moe_index[i];
        if (v >= 0 && static_cast<long>(v) < static_cast<long>(count)) sorted_token_idx[v] = static_cast<T>(i);
    }
}

// Experts in chunks of kExpertChunk: one counting pass and one placing pass
// over the table per chunk, the running offset carried across chunks.
template <typename T>
void infer_moe_align_block_size(const T* topk_idx, T* sorted_token_ids, T* expert_ids, T* total_tokens_post_pad,
                                long n, long block_size, long numel) {
    if (!mk::first_core() || block_size < 1) return;
    long cursor[mk::kExpertChunk];
    long offset = 0;
    for (long e0 = 0; e0 < n; e0 += mk::kExpertChunk) {
        const long c = std::min(mk::kExpertChunk, n - e0);
        mk::count_experts(topk_idx, numel, e0, c, cursor);
        for (long e = 0; e < c; ++e) {
            const long pairs = cursor[e];
            cursor[e] = offset;
            for (long s = 0; s < pairs; s += block_size) expert_ids[(offset + s) / block_size] = static_cast<T>(e0 + e);
            offset += (pairs + block_size - 1) / block_size * block_size;
        }
        mk::place_experts(topk_idx, numel, e0, c, cursor, sorted_token_ids);
    }
    *total_tokens_post_pad = static_cast<T>(offset);
}

template <typename TIN, typename TOUT>
void infer_moe_expert_m_to_lod(const TIN* expert_m, TOUT* sorted_tokens_num_lod, long n) {
    if (mk::first_core()) mk::prefix(expert_m, sorted_tokens_num_lod, n);
}

template <typename TIN, typename TOUT>
void infer_moe_expert_m_to_lod_gmx(const TIN* expert_m, TOUT* sorted_tokens_num_lod, long n) {
    if (mk::first_core()) mk::prefix(expert_m, sorted_tokens_num_lod, n);
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(gen_block_statistic)
TSU_KERNEL_INSTANCE(gen_block_statistic, int)

TSU_KERNEL_PLAIN(infer_moe_sorted_topk_idx)

TSU_KERNEL_DEFINE(moe_resort_idx)
TSU_KERNEL_INSTANCE(moe_resort_idx, int, int)
TSU_KERNEL_INSTANCE(moe_resort_idx, int, long)

TSU_KERNEL_DEFINE(infer_moe_align_block_size)
TSU_KERNEL_INSTANCE(infer_moe_align_block_size, int)

#define TSU_MOE_LOD_INSTANCES(family)             \
    TSU_KERNEL_DEFINE(family)                     \
    TSU_KERNEL_INSTANCE(family, int, int)         \
    TSU_KERNEL_INSTANCE(family, int, long)        \
    TSU_KERNEL_INSTANCE(family, long, int)        \
    TSU_KERNEL_INSTANCE(family, long, long)
TSU_MOE_LOD_INSTANCES(infer_moe_expert_m_to_lod)
TSU_MOE_LOD_INSTANCES(infer_moe_expert_m_to_lod_gmx)
#undef TSU_MOE_LOD_INSTANCES
