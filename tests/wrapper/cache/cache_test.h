// What the cache tests share: a batch of sequences laid into a paged cache
// through a shuffled block table, and caches that start as random bytes so
// that a comparison of the whole cache also proves that nothing outside the
// addressed rows was written.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "support/tsuops_test.h"

namespace cache_test {

using namespace orvane::tsu::api;
using namespace tsuops_test;

// Sequences b of lens[b] tokens starting at logical position starts[b], in
// block-table row rows[b]; physical blocks and rows are shuffled, and some of
// each are left unused.
struct Batch {
    long heads, dim, block_size, max_batch, max_blocks_per_seq, num_blocks;
    std::vector<int> lod, starts, rows, table;

    long batch() const { return static_cast<long>(starts.size()); }
    long tokens() const { return lod.back(); }

    // The flat slot of each token, looked up in the block table.
    std::vector<int> slots() const {
        std::vector<int> out;
        for (long b = 0; b < batch(); ++b) {
            for (int pos = starts[b]; pos < starts[b] + lod[b + 1] - lod[b]; ++pos) {
                const int block = table[rows[b] * max_blocks_per_seq + pos / block_size];
                out.push_back(block * static_cast<int>(block_size) + pos % static_cast<int>(block_size));
            }
        }
        return out;
    }
};

inline Batch make_batch(std::uint64_t seed, long heads, long dim, long block_size, const std::vector<int>& lens,
                        const std::vector<int>& starts) {
    std::mt19937 rng(static_cast<unsigned>(seed));
    Batch s{heads, dim, block_size, static_cast<long>(lens.size()) + 2, 1, 0, {0}, starts, {}, {}};
    for (std::size_t b = 0; b < lens.size(); ++b) {
        s.lod.push_back(s.lod.back() + lens[b]);
        s.max_blocks_per_seq = std::max(s.max_blocks_per_seq, (starts[b] + lens[b] + block_size - 1) / block_size);
    }
    s.num_blocks = s.max_batch * s.max_blocks_per_seq + 3;
    std::vector<int> blocks(static_cast<std::size_t>(s.num_blocks)), rows(static_cast<std::size_t>(s.max_batch));
    std::iota(blocks.begin(), blocks.end(), 0);
    std::iota(rows.begin(), rows.end(), 0);
    std::shuffle(blocks.begin(), blocks.end(), rng);
    std::shuffle(rows.begin(), rows.end(), rng);
    s.table.assign(blocks.begin(), blocks.begin() + s.max_batch * s.max_blocks_per_seq);
    s.rows.assign(rows.begin(), rows.begin() + static_cast<long>(lens.size()));
    return s;
}

// The block sizes of the sweeps, with sequences that start off a block
// boundary, cross blocks, and hold a single token.
inline std::vector<Batch> batches(long heads, long dim) {
    std::vector<Batch> out;
    for (long bs : {1L, 16L, 64L}) out.push_back(make_batch(bs, heads, dim, bs, {5, 23, 1}, {3, 70, 0}));
    return out;
}

// n elements of random bytes: NaN payloads and all.
template <class T>
std::vector<T> random_bytes(long n, std::uint64_t seed) {
    std::vector<T> out(static_cast<std::size_t>(n));
    std::mt19937_64 rng(seed);
    auto* p = reinterpret_cast<unsigned char*>(out.data());
    for (std::size_t i = 0; i < out.size() * sizeof(T); ++i) p[i] = static_cast<unsigned char>(rng());
    return out;
}

// Inputs of a few units, with every kind of special value, and head rows
// that are constant or carry a large common offset.
template <class T>
std::vector<T> inputs(long rows, long dim, std::uint64_t seed) {
    auto x = random_tensor<T>(rows * dim, seed, RandomSpec::with_specials(0.03, kFloatSpecials).in(-3, 3));
    for (long d = 0; d < dim && rows > 2; ++d) {
        x[d] = T(0.75f);
        x[dim + d] = T(1000.0f + static_cast<float>(d % 7));
    }
    return x;
}

template <class T>
std::vector<unsigned char> raw(const std::vector<T>& v) {
    std::vector<unsigned char> out(v.size() * sizeof(T));
    if (!v.empty()) std::memcpy(out.data(), v.data(), out.size());
    return out;
}

}  // namespace cache_test
