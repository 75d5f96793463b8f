#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_memcpy_1d(X) \
    X(infer_memcpy_1d, TSU_ENGINE_CLUSTER, (), (), (const char*, x), (char*, y), (long, bytes))
TSU_KERNEL_DECLARE_PLAIN(infer_memcpy_1d)
