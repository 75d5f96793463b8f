// Kernel of swiglu: `rows` rows of `in_row` input elements give rows of
// `out_row` results. Without y the operands are the two halves of a row,
// x[r * in_row + i] and x[r * in_row + out_row + i]; with y (in_row equal to
// out_row) they are x and y at the same place. gate_first puts the first
// operand through SiLU, else the second.
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_swiglu(X)                                                                      \
    X(infer_swiglu, TSU_ENGINE_CLUSTER, (typename T), (T), (const T*, x), (const T*, y), (T*, z),       \
      (long, in_row), (long, rows), (long, out_row), (bool, gate_first))
TSU_KERNEL_DECLARE(infer_swiglu)
