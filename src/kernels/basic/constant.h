#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_infer_constant(X) \
    X(infer_constant, TSU_ENGINE_CLUSTER, (typename T), (T), (char*, x), (long, len), (T, value))
TSU_KERNEL_DECLARE(infer_constant)
