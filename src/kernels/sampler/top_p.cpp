// The mass and the draw are float sums in row order, as on the reference
// path; nothing may be contracted or reordered.
#pragma GCC optimize("fp-contract=off")

#include "kernels/sampler/top_p.h"

#include <algorithm>
#include <cstdint>

#include "frame/convert.h"
#include "kernels/basic/sort_rows.h"
#include "kernels/grid.h"

namespace tsuops::kernels::top_p {

using namespace rowsort;
using col_t = std::uint32_t;

template <class T>
float widen(T v) {
    return infer_ops::convert::widen(v);
}

// The cut: entries are kept while the float sum before each is at most p.
// Once the sum exceeds p every later entry is cut, so the sum stays.
struct Nucleus {
    float p;
    float mass = 0.0f;
    long kept = 0;

    bool closed() const { return mass > p; }
    // Takes the next entry; false once the cut has been reached.
    bool take(float v) {
        if (closed()) return false;
        mass += v;
        ++kept;
        return true;
    }
};

// The draw over the kept entries: the first whose running sum of v / mass
// reaches u. Entries past the cut need not be walked: each adds 0 / mass,
// which leaves the sum as it was (mass is never -0) or makes it NaN (mass 0),
// and neither can reach u where the sum before did not. -1 if none.
template <class ValueOf>
long draw(const Nucleus& nu, float u, ValueOf value_of) {
    float cum = 0.0f;
    for (long j = 0; j < nu.kept; ++j) {
        const float q = value_of(j) / nu.mass;
        cum += q;
        if (cum >= u) return j;
    }
    return -1;
}

// How the sort of a row is cut into digits: the leading ones (sign, exponent
// and for float the top mantissa bits) spread the row over buckets in one
// pass; each bucket is then sorted by the remaining digits only when the cut
// has not yet been reached, so rows whose nucleus is small sort little.
template <class U>
struct Digits {
    static constexpr int kBits = static_cast<int>(sizeof(U)) * 8;
    static constexpr int kLeadShift = sizeof(U) == 4 ? 20 : 8;
    static constexpr long kBuckets = 1L << (kBits - kLeadShift);
    static constexpr int kLowBits = sizeof(U) == 4 ? 10 : 8;
    static constexpr int kLowDigits = kLeadShift / kLowBits;
    static constexpr long kLowValues = 1L << kLowBits;
    static_assert(kLowDigits * kLowBits == kLeadShift);

    static unsigned lead(U u) { return static_cast<unsigned>(u >> kLeadShift); }
    static unsigned low(U u, int d) { return static_cast<unsigned>(u >> (d * kLowBits)) & (kLowValues - 1); }
};

inline constexpr long kInsertionBucket = 32;

// Stable sort of one bucket's columns (in column order on entry) by the
// digits below the leading one; tmp holds as many columns.
template <class U, class KeyOf>
void sort_bucket(col_t* seg, aliased_t<col_t>* tmp, long s, KeyOf key_of) {
    using D = Digits<U>;
    if (s <= kInsertionBucket) {
        U keys[kInsertionBucket];
        for (long i = 0; i < s; ++i) {
            const col_t c = seg[i];
            const U u = key_of(c);
            long j = i;
            for (; j > 0 && keys[j - 1] > u; --j) {
                keys[j] = keys[j - 1];
                seg[j] = seg[j - 1];
            }
            keys[j] = u;
            seg[j] = c;
        }
        return;
    }
    col_t offset[D::kLowDigits][D::kLowValues] = {};
    for (long i = 0; i < s; ++i) {
        const U u = key_of(seg[i]);
        for (int d = 0; d < D::kLowDigits; ++d) ++offset[d][D::low(u, d)];
    }
    const U first = key_of(seg[0]);
    aliased_t<col_t>* src = seg;
    aliased_t<col_t>* dst = tmp;
    for (int d = 0; d < D::kLowDigits; ++d) {
        if (static_cast<long>(offset[d][D::low(first, d)]) == s) continue;
        col_t sum = 0;
        for (long v = 0; v < D::kLowValues; ++v) {
            const col_t c = offset[d][v];
            offset[d][v] = sum;
            sum += c;
        }
        for (long i = 0; i < s; ++i) {
            const col_t c = src[i];
            dst[offset[d][D::low(key_of(c), d)]++] = c;
        }
        std::swap(src, dst);
    }
    if (src != seg) std::copy(src, src + s, seg);
}

// One row: the leading digit spreads the columns over buckets in column
// order, then buckets are sorted and taken in descending order of value until
// the cut; the draw walks the kept prefix.
template <class T, class TID>
void sample_row(const T* xr, long n, float p, float u, TID* id, T* value, col_t* cols, aliased_t<col_t>* tmp) {
    using U = ukey_t<T>;
    using D = Digits<U>;
    const auto key_of = [xr](col_t c) { return sort_bits(xr[c], true); };
    col_t begin[D::kBuckets + 1] = {};
    for (long j = 0; j < n; ++j) ++begin[D::lead(key_of(static_cast<col_t>(j))) + 1];
    for (long b = 0; b < D::kBuckets; ++b) begin[b + 1] += begin[b];
    {
        col_t next[D::kBuckets];
        std::copy(begin, begin + D::kBuckets, next);
        for (long j = 0; j < n; ++j) cols[next[D::lead(key_of(static_cast<col_t>(j)))]++] = static_cast<col_t>(j);
    }
    Nucleus nu{p};
    for (long b = 0; b < D::kBuckets && !nu.closed(); ++b) {
        const long s = static_cast<long>(begin[b + 1] - begin[b]);
        if (s == 0) continue;
        col_t* seg = cols + begin[b];
        if (s > 1) sort_bucket<U>(seg, tmp + begin[b], s, key_of);
        long t = 0;
        while (t < s && nu.take(widen(xr[seg[t]]))) ++t;
    }
    const long j = draw(nu, u, [xr, cols](long k) { return widen(xr[cols[k]]); });
    if (j < 0) return;
    const float v = widen(xr[cols[j]]);
    *id = static_cast<TID>(cols[j]);
    if (value != nullptr) *value = T(v);
}

}  // namespace tsuops::kernels::top_p

namespace tsu3 {

namespace tp = tsuops::kernels::top_p;

template <typename T, typename TID>
void top_p_sampling(const T* x, const T* top_ps, const float* rand_coeff, const bool* stop_flags, TID* top_p_ids,
                    T* top_p_values, float* sorted_tmp, unsigned int* ids_tmp, long m, long n) {
    const auto [b, e] = tsuops::kernels::core_share(m);
    auto* tmp = reinterpret_cast<tsuops::kernels::rowsort::aliased_t<tp::col_t>*>(sorted_tmp);
    for (long r = b; r < e; ++r) {
        if (stop_flags != nullptr && stop_flags[r]) continue;
        tp::sample_row(x + r * n, n, tp::widen(top_ps[r]), rand_coeff[r], top_p_ids + r,
                       top_p_values != nullptr ? top_p_values + r : nullptr, ids_tmp + r * n, tmp + r * n);
    }
}

template <typename T, typename TID>
void top_p_sampling_fallback(const T* sorted_x, const TID* sorted_ids, const T* top_ps, const float* rand_coeff,
                             const bool* stop_flags, TID* top_p_ids, T* top_p_values, long m, long n) {
    const auto [b, e] = tsuops::kernels::core_share(m);
    for (long r = b; r < e; ++r) {
        if (stop_flags != nullptr && stop_flags[r]) continue;
        const T* vr = sorted_x + r * n;
        tp::Nucleus nu{tp::widen(top_ps[r])};
        for (long j = 0; j < n && nu.take(tp::widen(vr[j])); ++j) {
        }
        const long j = tp::draw(nu, rand_coeff[r], [vr](long k) { return tp::widen(vr[k]); });
        if (j < 0) continue;
        top_p_ids[r] = sorted_ids[r * n + j];
        if (top_p_values != nullptr) top_p_values[r] = T(tp::widen(vr[j]));
    }
}

}  // namespace tsu3

#define TSU_TOP_P_INSTANCES(family)              \
    TSU_KERNEL_DEFINE(family)                    \
    TSU_KERNEL_INSTANCE(family, float, int)      \
    TSU_KERNEL_INSTANCE(family, float, long)     \
    TSU_KERNEL_INSTANCE(family, float16, int)    \
    TSU_KERNEL_INSTANCE(family, float16, long)
TSU_TOP_P_INSTANCES(top_p_sampling)
TSU_TOP_P_INSTANCES(top_p_sampling_fallback)
#undef TSU_TOP_P_INSTANCES
