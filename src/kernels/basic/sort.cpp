#include "kernels/basic/sort.h"

#include <cstdint>

#include "kernels/basic/sort_rows.h"
#include "kernels/basic/sort_select.h"
#include "kernels/grid.h"

namespace tsuops::kernels::sort {

using namespace rowsort;
namespace sel = infer_ops::sort_select;

// The table kernels: the core's rows one by one, with one buffer pair of the
// kernel's row capacity in core-local memory and (y, index) as the other.
template <long Cap, class T, class I>
void table_rows(const T* x, T* y, I* index, long m, long n, bool descending) {
    using U = ukey_t<T>;
    static_assert(Cap <= 65536, "columns are kept in 16 bits");
    const auto [b, e] = core_share(m);
    if (b == e || n < 1 || n > Cap) return;
    U keys[Cap];
    std::uint16_t cols[Cap];
    for (long r = b; r < e; ++r) {
        const T* xr = x + r * n;
        T* yr = y + r * n;
        I* ir = index + r * n;
        const auto key_of = [xr, descending](long i) { return sort_bits(xr[i], descending); };
        const auto emit = [xr, yr, ir](long pos, long col) {
            ir[pos] = static_cast<I>(col);
            yr[pos] = xr[col];
        };
        if (n <= kInsertionRow) {
            insertion_sort_row(n, key_of, keys, cols, emit);
        } else {
            radix_sort_row<U, std::uint32_t>(n, key_of, keys, cols, reinterpret_cast<aliased_t<U>*>(yr), ir, emit);
        }
    }
}

// The radix kernels: the core's rows, ping-pong between the row's slices of
// the scratch and of (y, index).
template <class K, class V>
void radix_rows(const K* x, K* y, V* index, K* key_tmp, V* index_tmp, long m, long n, bool descending) {
    using U = ukey_t<K>;
    const auto [b, e] = core_share(m);
    if (n < 1) return;
    for (long r = b; r < e; ++r) {
        const K* xr = x + r * n;
        K* yr = y + r * n;
        V* ir = index + r * n;
        const auto key_of = [xr, descending](long i) { return sort_bits(xr[i], descending); };
        const auto emit = [xr, yr, ir](long pos, long col) {
            ir[pos] = static_cast<V>(col);
            yr[pos] = xr[col];
        };
        radix_sort_row<U, long>(n, key_of, reinterpret_cast<aliased_t<U>*>(key_tmp + r * n), index_tmp + r * n,
                                reinterpret_cast<aliased_t<U>*>(yr), ir, emit);
    }
}

}  // namespace tsuops::kernels::sort

namespace tsu3 {

namespace ks = tsuops::kernels::sort;

template <typename T, typename I>
void infer_sort_large_m(const T* x, T* y, I* index, long m, long n, bool descending) {
    ks::table_rows<ks::sel::kMaxLargeMRow>(x, y, index, m, n, descending);
}

template <typename T, typename I>
void infer_sort_large_n(const T* x, T* y, I* index, long m, long n, bool descending) {
    ks::table_rows<ks::sel::kMaxLargeNRow>(x, y, index, m, n, descending);
}

template <typename K, typename V, int ascending, int reserved>
void infer_radix_sort_gm<K, V, ascending, reserved>::eval(const K* x, K* y, V* index, K* key_tmp, V* index_tmp,
                                                          long long m, long long n, int ascending_flag) {
    ks::radix_rows(x, y, index, key_tmp, index_tmp, m, n, ascending == 0);
}

template <typename K, typename V, int ascending, int reserved>
void infer_radix_sort_multicl_gm_sm<K, V, ascending, reserved>::eval(const K* x, K* y, V* index, K* key_tmp,
                                                                     V* index_tmp, int m, int n, int ascending_flag,
                                                                     int* counts) {
    ks::radix_rows(x, y, index, key_tmp, index_tmp, m, n, ascending == 0);
}

}  // namespace tsu3

#define TSU_SORT_TABLE_INSTANCES(family, T)  \
    TSU_KERNEL_INSTANCE(family, T, int)      \
    TSU_KERNEL_INSTANCE(family, T, long)
#define TSU_SORT_TABLE_FAMILY(family)                 \
    TSU_KERNEL_DEFINE(family)                         \
    TSU_SORT_TABLE_INSTANCES(family, float)           \
    TSU_SORT_TABLE_INSTANCES(family, float16)         \
    TSU_SORT_TABLE_INSTANCES(family, bfloat16)        \
    TSU_SORT_TABLE_INSTANCES(family, int)             \
    TSU_SORT_TABLE_INSTANCES(family, long)
TSU_SORT_TABLE_FAMILY(infer_sort_large_m)
TSU_SORT_TABLE_FAMILY(infer_sort_large_n)
#undef TSU_SORT_TABLE_FAMILY
#undef TSU_SORT_TABLE_INSTANCES

// Keys of float, int, long and unsigned int; columns of int and long long and
// their unsigned forms; both directions.
#define TSU_RADIX_DIRECTIONS(family, K, V)            \
    TSU_KERNEL_INSTANCE_STRUCT(family, K, V, 0, 0)    \
    TSU_KERNEL_INSTANCE_STRUCT(family, K, V, 1, 0)
#define TSU_RADIX_COLUMNS(family, K)                              \
    TSU_RADIX_DIRECTIONS(family, K, int)                          \
    TSU_RADIX_DIRECTIONS(family, K, long long)                    \
    TSU_RADIX_DIRECTIONS(family, K, unsigned int)                 \
    TSU_RADIX_DIRECTIONS(family, K, unsigned long long)
#define TSU_RADIX_FAMILY(family)                  \
    TSU_KERNEL_DEFINE_STRUCT(family)              \
    TSU_RADIX_COLUMNS(family, float)              \
    TSU_RADIX_COLUMNS(family, int)                \
    TSU_RADIX_COLUMNS(family, long)               \
    TSU_RADIX_COLUMNS(family, unsigned int)
TSU_RADIX_FAMILY(infer_radix_sort_gm)
TSU_RADIX_FAMILY(infer_radix_sort_multicl_gm_sm)
#undef TSU_RADIX_FAMILY
#undef TSU_RADIX_COLUMNS
#undef TSU_RADIX_DIRECTIONS
