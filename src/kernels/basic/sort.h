// Kernels of sort: every row of m rows of n sorted, with the source column of
// each element beside it; rows are split over every core of the launch.
//
//   infer_sort_large_m<T, I>     rows of up to 768 elements.
//   infer_sort_large_n<T, I>     rows of up to 8192 elements.
//   infer_radix_sort_gm<K, V, ascending, 0>::eval
//                                rows of any length, sorted by an LSD radix
//                                sort whose passes ping-pong between
//                                (y, index) and the caller's (key_tmp,
//                                index_tmp), each of m * n elements. The
//                                direction is the template's; ascending_flag
//                                repeats it.
//   infer_radix_sort_multicl_gm_sm<K, V, ascending, 0>::eval
//                                the same with int sizes; `counts`, where the
//                                device's clusters exchange digit counts, is
//                                neither read nor written here, since every
//                                row is sorted by one core. No device path
//                                launches it.
//
// Equal keys keep their column order in both directions. x must not overlap
// y, index or the scratch. A table kernel given a row longer than its
// capacity writes nothing.
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_sort_large_m(X)                                                                      \
    X(infer_sort_large_m, TSU_ENGINE_CLUSTER, (typename T, typename I), (T, I), (const T*, x), (T*, y),        \
      (I*, index), (long, m), (long, n), (bool, descending))
TSU_KERNEL_DECLARE(infer_sort_large_m)

#define TSU_FAMILY_infer_sort_large_n(X)                                                                      \
    X(infer_sort_large_n, TSU_ENGINE_CLUSTER, (typename T, typename I), (T, I), (const T*, x), (T*, y),        \
      (I*, index), (long, m), (long, n), (bool, descending))
TSU_KERNEL_DECLARE(infer_sort_large_n)

#define TSU_FAMILY_infer_radix_sort_gm(X)                                                                     \
    X(infer_radix_sort_gm, TSU_ENGINE_CLUSTER, (typename K, typename V, int ascending, int reserved),          \
      (K, V, ascending, reserved), (const K*, x), (K*, y), (V*, index), (K*, key_tmp), (V*, index_tmp),        \
      (long long, m), (long long, n), (int, ascending_flag))
TSU_KERNEL_DECLARE_STRUCT(infer_radix_sort_gm)

#define TSU_FAMILY_infer_radix_sort_multicl_gm_sm(X)                                                          \
    X(infer_radix_sort_multicl_gm_sm, TSU_ENGINE_CLUSTER, (typename K, typename V, int ascending, int reserved), \
      (K, V, ascending, reserved), (const K*, x), (K*, y), (V*, index), (K*, key_tmp), (V*, index_tmp),        \
      (int, m), (int, n), (int, ascending_flag), (int*, counts))
TSU_KERNEL_DECLARE_STRUCT(infer_radix_sort_multicl_gm_sm)
