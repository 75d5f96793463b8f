// The per-block histogram of the group routers' reference paths.
#pragma once

#include <algorithm>

#include <tsuops/cpu_ops.h>

namespace infer_ops::route_statistic {

// For each block b of block_num over the m tokens (the spans of
// cpu_ops::partition): row b, of row_len entries, cleared, then every entry
// of the routing table rows of the block's tokens (width entries each)
// counted. Nothing for block_num below 1.
template <typename TID>
void fill(const TID* topk_index, int* block_statistic, long m, long width, long row_len, long block_num) {
    for (long b = 0; b < block_num; ++b) {
        long start = 0, end = 0;
        cpu_ops::partition<long>(static_cast<int>(b), static_cast<int>(block_num), m, 1, &start, &end);
        int* counts = block_statistic + b * row_len;
        std::fill(counts, counts + row_len, 0);
        for (long p = start * width; p < end * width; ++p) counts[topk_index[p]] += 1;
    }
}

}  // namespace infer_ops::route_statistic
