#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_add_gmx(X)                                                                      \
    X(infer_add_gmx, TSU_ENGINE_GMX, (typename T), (T), (const T*, x), (const T*, y), (T*, z), (long, rows), \
      (long, cols))
TSU_KERNEL_DECLARE(infer_add_gmx)
