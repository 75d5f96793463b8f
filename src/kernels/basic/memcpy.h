#pragma once

#include "kernels/catalogue.h"

// A plain function on the device; here a template over an empty pack, since
// the catalogue generates stubs and descriptors from template instances.
#define TSU_FAMILY_infer_memcpy_1d(X) \
    X(infer_memcpy_1d, TSU_ENGINE_CLUSTER, (typename... None), (None...), (const char*, x), (char*, y), (long, bytes))
TSU_KERNEL_DECLARE(infer_memcpy_1d)
