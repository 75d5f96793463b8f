// Kernels of quant2d: rows of T to signed char with one scale float per row
// (the row's absolute maximum), rule Q8. All take the same arguments: the
// rows of x at a distance of `ld` elements, y dense with row stride `n`, one
// float per row in `scale`, `m` rows.
//
//   infer_quant2d<T>                  any shape; rows split over every core
//   infer_quant2d_smallm<T>           fewer rows than clusters: a cluster per
//                                     row, launched twice: with a null y it
//                                     stores each row's scale float, then with
//                                     y its cores convert the row in shares
//   infer_quant2d_midm<T, N, K>       rows up to N elements, up to 1536 rows
//   infer_quant2d_bigm<T, N, K>       rows up to N elements, any row count
//   infer_quant2d_gmx<T, A, F>        the GMX engine. A: rows of at most 8192
//                                     elements and a multiple of 32, so the
//                                     whole row is staged with no ragged tail.
//                                     F: the absolute maximum starts at the
//                                     floor 1e-30 (quant2d's scale float) rather
//                                     than at 0; quant2d always passes true.
//
// N is the longest row an instance takes. K is the number of tiles in which
// the device stages such a row on chip, N / K elements of about 3 KiB of
// input each; the host bodies stage a row in one piece, and K is only
// checked against N.
#pragma once

#include "kernels/catalogue.h"

namespace tsuops::kernels {

// K of the row capacities 1536, 6144, 12288 and 24576, by element size; 0
// for any other capacity.
template <typename T>
constexpr int quant2d_tiles(long row_cap) {
    const bool half = sizeof(T) == 2;
    switch (row_cap) {
    case 1536: return half ? 1 : 4;
    case 6144: return half ? 4 : 8;
    case 12288: return half ? 8 : 16;
    case 24576: return half ? 16 : 32;
    default: return 0;
    }
}

}  // namespace tsuops::kernels

#define TSU_QUANT2D_ARGS (const T*, x), (signed char*, y), (float*, scale), (long, m), (long, n), (long, ld)

#define TSU_FAMILY_infer_quant2d(X) X(infer_quant2d, TSU_ENGINE_CLUSTER, (typename T), (T), TSU_QUANT2D_ARGS)
#define TSU_FAMILY_infer_quant2d_smallm(X) \
    X(infer_quant2d_smallm, TSU_ENGINE_CLUSTER, (typename T), (T), TSU_QUANT2D_ARGS)
#define TSU_FAMILY_infer_quant2d_midm(X) \
    X(infer_quant2d_midm, TSU_ENGINE_CLUSTER, (typename T, int N, int K), (T, N, K), TSU_QUANT2D_ARGS)
#define TSU_FAMILY_infer_quant2d_bigm(X) \
    X(infer_quant2d_bigm, TSU_ENGINE_CLUSTER, (typename T, int N, int K), (T, N, K), TSU_QUANT2D_ARGS)
#define TSU_FAMILY_infer_quant2d_gmx(X) \
    X(infer_quant2d_gmx, TSU_ENGINE_GMX, (typename T, bool A, bool F), (T, A, F), TSU_QUANT2D_ARGS)

TSU_KERNEL_DECLARE(infer_quant2d)
TSU_KERNEL_DECLARE(infer_quant2d_smallm)
TSU_KERNEL_DECLARE(infer_quant2d_midm)
TSU_KERNEL_DECLARE(infer_quant2d_bigm)
TSU_KERNEL_DECLARE(infer_quant2d_gmx)
