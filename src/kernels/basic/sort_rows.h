// Sorting one row inside a kernel body: keys turned into unsigned bits whose
// integer order is the sort order, a stable LSD radix sort over those bits
// and an insertion sort for rows too short to pay for digit counts.
//
// The order is the one of `sort`: integers by value; floating keys with -0
// equal to +0, every NaN with the sign bit clear above +inf and equal to the
// others of its kind, every NaN with the sign bit set below -inf. Equal keys
// keep their column order in either direction, which both sorts here give
// by being stable.
#pragma once

#include <bit>
#include <cstdint>
#include <type_traits>

#include <tsuops/float16.h>

namespace tsuops::kernels::rowsort {

template <class T>
struct key_bits;
template <> struct key_bits<float> { using type = std::uint32_t; };
template <> struct key_bits<float16> { using type = std::uint16_t; };
template <> struct key_bits<bfloat16> { using type = std::uint16_t; };
template <> struct key_bits<int> { using type = std::uint32_t; };
template <> struct key_bits<unsigned int> { using type = std::uint32_t; };
template <> struct key_bits<long> { using type = std::uint64_t; };
template <> struct key_bits<long long> { using type = std::uint64_t; };

// The unsigned type of a key's sort bits: as wide as the key.
template <class T>
using ukey_t = typename key_bits<T>::type;

// Bits of an IEEE pattern of U's width with exponent field `inf_bits` (the
// pattern of +inf): -0 is made +0 and each sign's NaNs one value past that
// sign's infinity, then the sign bit is flipped for positives and every bit
// for negatives.
template <class U>
constexpr U ieee_order_bits(U u, U inf_bits) {
    constexpr U sign = U(U(1) << (sizeof(U) * 8 - 1));
    const U mag = U(u & U(~sign));
    if (mag > inf_bits) return (u & sign) ? U(0) : U(~U(0));
    if (mag == 0) return sign;
    return (u & sign) ? U(~u) : U(u | sign);
}

// Ascending sort bits of a key.
template <class T>
constexpr ukey_t<T> ascending_bits(T v) {
    using U = ukey_t<T>;
    if constexpr (std::is_same_v<T, float>) {
        return ieee_order_bits<U>(std::bit_cast<U>(v), U(0x7f800000u));
    } else if constexpr (std::is_same_v<T, float16>) {
        return ieee_order_bits<U>(v.x, U(0x7c00u));
    } else if constexpr (std::is_same_v<T, bfloat16>) {
        return ieee_order_bits<U>(v.x, U(0x7f80u));
    } else if constexpr (std::is_signed_v<T>) {
        return U(static_cast<U>(v) ^ (U(1) << (sizeof(U) * 8 - 1)));
    } else {
        return static_cast<U>(v);
    }
}

// Descending order is the complement: equal keys stay equal, so a stable
// sort still keeps them in column order.
template <class T>
constexpr ukey_t<T> sort_bits(T v, bool descending) {
    const ukey_t<T> a = ascending_bits(v);
    return descending ? ukey_t<T>(~a) : a;
}

// Rows of up to this many elements are sorted by insertion: below it the
// digit counts cost more than the row itself.
inline constexpr long kInsertionRow = 32;

inline constexpr int kDigitBits = 8;
inline constexpr int kDigitValues = 1 << kDigitBits;

template <class U>
inline constexpr int kDigits = static_cast<int>(sizeof(U)) * 8 / kDigitBits;

template <class U>
constexpr unsigned digit(U u, int d) {
    return static_cast<unsigned>(u >> (d * kDigitBits)) & (kDigitValues - 1);
}

// Keys and columns stored in memory whose declared type is another (a key
// buffer of float used for its sort bits): accessed through these types, the
// compiler may not assume that the two never alias.
template <class U>
struct aliased {
    typedef U __attribute__((may_alias)) type;
};
template <class U>
using aliased_t = typename aliased<U>::type;

namespace detail {

// One counting pass: moves keys and columns from one buffer pair to another
// by digit d, keeping the order of equal digits.
template <class U, class Count, class CS, class CD>
void move_pass(long n, int d, Count* offset, const aliased_t<U>* ks, const CS* cs, aliased_t<U>* kd, CD* cd) {
    for (long i = 0; i < n; ++i) {
        const U u = ks[i];
        const Count pos = offset[digit(u, d)]++;
        kd[pos] = u;
        cd[pos] = static_cast<CD>(cs[i]);
    }
}

}  // namespace detail

// Stable LSD radix sort of one row of n >= 1 keys.
//
// key_of(i) gives the sort bits of column i; emit(position, column) receives
// each column at its sorted position, in the last pass. One pass counts every
// digit; digits on which all keys agree are skipped. The other passes stream
// the row through the buffer pairs (ka, ca) and (kb, cb), each of n entries;
// the last of them always lands in (ka, ca), so (kb, cb) may be the memory
// that emit writes. Count must hold n.
template <class U, class Count, class CA, class CB, class KeyOf, class Emit>
void radix_sort_row(long n, KeyOf key_of, aliased_t<U>* ka, CA* ca, aliased_t<U>* kb, CB* cb, Emit emit) {
    constexpr int D = kDigits<U>;
    Count offset[D][kDigitValues] = {};
    for (long i = 0; i < n; ++i) {
        const U u = key_of(i);
        for (int d = 0; d < D; ++d) ++offset[d][digit(u, d)];
    }
    int active[D];
    int passes = 0;
    const U first = key_of(0);
    for (int d = 0; d < D; ++d) {
        if (static_cast<long>(offset[d][digit(first, d)]) == n) continue;
        active[passes++] = d;
        Count sum = 0;
        for (int v = 0; v < kDigitValues; ++v) {
            const Count c = offset[d][v];
            offset[d][v] = sum;
            sum += c;
        }
    }
    if (passes == 0) {
        for (long i = 0; i < n; ++i) emit(i, i);
        return;
    }
    // The first pass reads the row itself.
    {
        Count* off = offset[active[0]];
        const int d = active[0];
        if (passes == 1) {
            for (long i = 0; i < n; ++i) emit(static_cast<long>(off[digit(key_of(i), d)]++), i);
            return;
        }
        const bool to_a = (passes - 2) % 2 == 0;
        for (long i = 0; i < n; ++i) {
            const U u = key_of(i);
            const Count pos = off[digit(u, d)]++;
            if (to_a) {
                ka[pos] = u;
                ca[pos] = static_cast<CA>(i);
            } else {
                kb[pos] = u;
                cb[pos] = static_cast<CB>(i);
            }
        }
    }
    for (int p = 1; p + 1 < passes; ++p) {
        const int d = active[p];
        if ((passes - 2 - p) % 2 == 0) {
            detail::move_pass<U>(n, d, offset[d], kb, cb, ka, ca);
        } else {
            detail::move_pass<U>(n, d, offset[d], ka, ca, kb, cb);
        }
    }
    Count* off = offset[active[passes - 1]];
    const int d = active[passes - 1];
    for (long i = 0; i < n; ++i) emit(static_cast<long>(off[digit(U(ka[i]), d)]++), static_cast<long>(ca[i]));
}

// Stable insertion sort of a short row into the caller's buffers of n
// entries, then emit(position, column) in order.
template <class U, class C, class KeyOf, class Emit>
void insertion_sort_row(long n, KeyOf key_of, U* keys, C* cols, Emit emit) {
    for (long i = 0; i < n; ++i) {
        const U u = key_of(i);
        long j = i;
        for (; j > 0 && keys[j - 1] > u; --j) {
            keys[j] = keys[j - 1];
            cols[j] = cols[j - 1];
        }
        keys[j] = u;
        cols[j] = static_cast<C>(i);
    }
    for (long i = 0; i < n; ++i) emit(i, static_cast<long>(cols[i]));
}

}  // namespace tsuops::kernels::rowsort
