// Kernels of transpose: block exchanges of a dense tensor. Each moves bits
// only, so one instance per word size serves every element type of that size.
//
//   infer_transpose_0213_cluster<T>           [left, a, b, rest] -> [left, b, a, rest]
//   infer_transpose_021_gmx_bsp<T>            [left, a, b] -> [left, b, a], on the GMX engine
//   infer_transpose_021_small_dim_cluster<T>  the same for short rows (b small)
//   infer_transpose_nhwc_c3                   the same on bytes with b = 3 (pixels of three
//                                             channels to three planes)
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_transpose_0213_cluster(X)                                                              \
    X(infer_transpose_0213_cluster, TSU_ENGINE_CLUSTER, (typename T), (T), (const T*, src), (T*, dst), (long, left), \
      (long, a), (long, b), (long, rest))
TSU_KERNEL_DECLARE(infer_transpose_0213_cluster)

#define TSU_FAMILY_infer_transpose_021_gmx_bsp(X)                                                                 \
    X(infer_transpose_021_gmx_bsp, TSU_ENGINE_GMX, (typename T), (T), (const T*, src), (T*, dst), (long, left),    \
      (long, a), (long, b))
TSU_KERNEL_DECLARE(infer_transpose_021_gmx_bsp)

#define TSU_FAMILY_infer_transpose_021_small_dim_cluster(X)                                                       \
    X(infer_transpose_021_small_dim_cluster, TSU_ENGINE_CLUSTER, (typename T), (T), (const T*, src), (T*, dst),   \
      (long, left), (long, a), (long, b))
TSU_KERNEL_DECLARE(infer_transpose_021_small_dim_cluster)

#define TSU_FAMILY_infer_transpose_nhwc_c3(X)                                                                     \
    X(infer_transpose_nhwc_c3, TSU_ENGINE_CLUSTER, (), (), (const char*, src), (char*, dst), (long, left),         \
      (long, a), (long, b))
TSU_KERNEL_DECLARE_PLAIN(infer_transpose_nhwc_c3)
