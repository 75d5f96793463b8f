#include "kernels/basic/transpose.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <emmintrin.h>

#include "kernels/grid.h"

namespace tsuops::kernels::transpose {

namespace {

// Every kernel here is one exchange [left, a, b] -> [left, b, a] of units of
// some bytes (an element, or an element times the trailing block). The
// exchange goes tile by tile: a tile of ti source rows by tj source columns
// reads one cache line of each of its source rows and writes a run of 512
// bytes into each of its destination rows, 32 KiB at most, so that both
// footprints stay in the first-level cache. Units of a line or more are
// copied one by one, a tile being one source column written as a run of
// about 4 KiB into its destination row.
struct Tiling {
    long ti;  // source rows (destination columns) per tile
    long tj;  // source columns (destination rows) per tile
};

constexpr long kLineBytes = 64;
constexpr long kRunBytes = 512;
constexpr long kLongRunBytes = 4096;

constexpr Tiling by_lines(long unit_bytes) {
    if (unit_bytes >= kLineBytes) return {std::max(1L, kLongRunBytes / unit_bytes), 1};
    return {kRunBytes / unit_bytes, kLineBytes / unit_bytes};
}

// Short rows: whole source rows, as many as make about 8 KiB of floats, so
// that the destination rows written per tile are long.
constexpr long kShortRowTileUnits = 2048;

constexpr Tiling short_rows(long b) { return {std::max(1L, kShortRowTileUnits / b), b}; }

// Square blocks of n by n units go through the 16-byte registers (SSE2,
// which every x86-64 has): n rows loaded, log2 n rounds that interleave row
// m with row m + n / 2, n rows stored.
template <class U>
constexpr long kRegisterUnits = 16 / static_cast<long>(sizeof(U));

template <class U>
[[gnu::always_inline]] inline __m128i interleave_low(__m128i x, __m128i y) {
    if constexpr (sizeof(U) == 1) return _mm_unpacklo_epi8(x, y);
    else if constexpr (sizeof(U) == 2) return _mm_unpacklo_epi16(x, y);
    else if constexpr (sizeof(U) == 4) return _mm_unpacklo_epi32(x, y);
    else return _mm_unpacklo_epi64(x, y);
}

template <class U>
[[gnu::always_inline]] inline __m128i interleave_high(__m128i x, __m128i y) {
    if constexpr (sizeof(U) == 1) return _mm_unpackhi_epi8(x, y);
    else if constexpr (sizeof(U) == 2) return _mm_unpackhi_epi16(x, y);
    else if constexpr (sizeof(U) == 4) return _mm_unpackhi_epi32(x, y);
    else return _mm_unpackhi_epi64(x, y);
}

template <class U>
[[gnu::always_inline]] inline void move_block(const U* s, U* d, long a, long b) {
    constexpr long n = kRegisterUnits<U>;
    __m128i r[n];
    for (long k = 0; k < n; ++k) r[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + k * b));
    for (long round = 1; round < n; round *= 2) {
        __m128i t[n];
        for (long m = 0; m < n / 2; ++m) {
            t[2 * m] = interleave_low<U>(r[m], r[m + n / 2]);
            t[2 * m + 1] = interleave_high<U>(r[m], r[m + n / 2]);
        }
        for (long k = 0; k < n; ++k) r[k] = t[k];
    }
    for (long k = 0; k < n; ++k) _mm_storeu_si128(reinterpret_cast<__m128i*>(d + k * a), r[k]);
}

// One tile of units of a fixed size: d[j * a + i] = s[i * b + j]; whole
// register blocks where the tile has them, the edges one unit at a time.
// Each band of destination rows is finished before the next, so that only a
// few destination lines are open at once: destination rows are often a
// power of two apart and would all fall into one cache set.
template <class U>
[[gnu::always_inline]] inline void move_tile(const U* __restrict s, U* __restrict d, long a, long b, long i0, long i1,
                                             long j0, long j1) {
    long j = j0;
    if constexpr (std::is_integral_v<U>) {
        constexpr long n = kRegisterUnits<U>;
        for (; j + n <= j1; j += n) {
            long i = i0;
            for (; i + n <= i1; i += n) move_block(s + i * b + j, d + j * a + i, a, b);
            for (long k = j; k < j + n; ++k) {
                for (long m = i; m < i1; ++m) d[k * a + m] = s[m * b + k];
            }
        }
    }
    for (; j < j1; ++j) {
        for (long m = i0; m < i1; ++m) d[j * a + m] = s[m * b + j];
    }
}

// The same for units of any size.
inline void move_tile_runs(const char* s, char* d, long a, long b, long unit, long i0, long i1, long j0, long j1) {
    for (long j = j0; j < j1; ++j) {
        for (long i = i0; i < i1; ++i) {
            std::memcpy(d + (j * a + i) * unit, s + (i * b + j) * unit, static_cast<std::size_t>(unit));
        }
    }
}

// Calls move(l, i0, i1, j0, j1) for this core's share of the tiles, in the
// order of the source: tiles of one band of rows left to right, bands top to
// bottom, matrices one after the other.
template <class Move>
[[gnu::always_inline]] inline void for_my_tiles(long left, long a, long b, Tiling t, Move move) {
    const long na = (a + t.ti - 1) / t.ti;
    const long nb = (b + t.tj - 1) / t.tj;
    const auto [first, last] = core_share(left * na * nb);
    if (first == last) return;
    long l = first / (na * nb);
    long bi = first % (na * nb) / nb;
    long bj = first % nb;
    for (long k = first; k < last; ++k) {
        const long i0 = bi * t.ti, j0 = bj * t.tj;
        move(l, i0, std::min(a, i0 + t.ti), j0, std::min(b, j0 + t.tj));
        if (++bj == nb) {
            bj = 0;
            if (++bi == na) {
                bi = 0;
                ++l;
            }
        }
    }
}

template <class U>
void exchange_units(const void* src, void* dst, long left, long a, long b, Tiling t) {
    const U* s = static_cast<const U*>(src);
    U* d = static_cast<U*>(dst);
    for_my_tiles(left, a, b, t, [&](long l, long i0, long i1, long j0, long j1) {
        move_tile(s + l * a * b, d + l * a * b, a, b, i0, i1, j0, j1);
    });
}

template <std::size_t N>
struct block {
    unsigned char v[N];
};

// dst[l][j][i] = src[l][i][j] over units of `unit` bytes. The common unit
// sizes move as whole words, so that a tile is plain loads and stores.
void exchange(const void* src, void* dst, long left, long a, long b, long unit, Tiling t) {
    switch (unit) {
    case 1: return exchange_units<std::uint8_t>(src, dst, left, a, b, t);
    case 2: return exchange_units<std::uint16_t>(src, dst, left, a, b, t);
    case 4: return exchange_units<std::uint32_t>(src, dst, left, a, b, t);
    case 8: return exchange_units<std::uint64_t>(src, dst, left, a, b, t);
    case 16: return exchange_units<block<16>>(src, dst, left, a, b, t);
    default: break;
    }
    const char* s = static_cast<const char*>(src);
    char* d = static_cast<char*>(dst);
    const long matrix = a * b * unit;
    for_my_tiles(left, a, b, t, [&](long l, long i0, long i1, long j0, long j1) {
        move_tile_runs(s + l * matrix, d + l * matrix, a, b, unit, i0, i1, j0, j1);
    });
}

// Pixels of three channels to three planes: each core takes whole lines of
// pixels of one image at a time and writes one contiguous run per plane.
void three_planes(const char* __restrict src, char* __restrict dst, long left, long a) {
    constexpr long kChannels = 3;
    const auto [first, last] = core_share(left * a, line_elems<char>);
    for (long p = first; p < last;) {
        const long l = p / a, i = p % a;
        const long n = std::min(last - p, a - i);
        const char* s = src + p * kChannels;
        char* d0 = dst + l * kChannels * a + i;
        char* d1 = d0 + a;
        char* d2 = d1 + a;
        for (long k = 0; k < n; ++k) {
            d0[k] = s[kChannels * k];
            d1[k] = s[kChannels * k + 1];
            d2[k] = s[kChannels * k + 2];
        }
        p += n;
    }
}

}  // namespace

}  // namespace tsuops::kernels::transpose

namespace tsu3 {

namespace tk = tsuops::kernels::transpose;

template <typename T>
void infer_transpose_0213_cluster(const T* src, T* dst, long left, long a, long b, long rest) {
    const long unit = rest * static_cast<long>(sizeof(T));
    tk::exchange(src, dst, left, a, b, unit, tk::by_lines(unit));
}

template <typename T>
void infer_transpose_021_gmx_bsp(const T* src, T* dst, long left, long a, long b) {
    tk::exchange(src, dst, left, a, b, sizeof(T), tk::by_lines(sizeof(T)));
}

template <typename T>
void infer_transpose_021_small_dim_cluster(const T* src, T* dst, long left, long a, long b) {
    tk::exchange(src, dst, left, a, b, sizeof(T), tk::short_rows(b));
}

// Any other row length is still a correct exchange, through the tiles.
void infer_transpose_nhwc_c3(const char* src, char* dst, long left, long a, long b) {
    if (b == 3) {
        tk::three_planes(src, dst, left, a);
    } else {
        tk::exchange(src, dst, left, a, b, 1, tk::by_lines(1));
    }
}

}  // namespace tsu3

// One instance per word size: 4-byte words carry float, int and (in pairs)
// long; 2-byte words float16, bfloat16 and short; bytes the 8-bit types.
#define TSU_TRANSPOSE_WORDS(family) \
    TSU_KERNEL_INSTANCE(family, float) \
    TSU_KERNEL_INSTANCE(family, float16) \
    TSU_KERNEL_INSTANCE(family, signed char)

TSU_KERNEL_DEFINE(infer_transpose_0213_cluster)
TSU_TRANSPOSE_WORDS(infer_transpose_0213_cluster)
TSU_KERNEL_DEFINE(infer_transpose_021_gmx_bsp)
TSU_TRANSPOSE_WORDS(infer_transpose_021_gmx_bsp)
#undef TSU_TRANSPOSE_WORDS

TSU_KERNEL_DEFINE(infer_transpose_021_small_dim_cluster)
TSU_KERNEL_INSTANCE(infer_transpose_021_small_dim_cluster, float)

TSU_KERNEL_PLAIN(infer_transpose_nhwc_c3)
