#include "kernels/basic/memcpy.h"

#include <cstring>

#include "kernels/grid.h"

namespace tsu3 {

template <typename... None>
void infer_memcpy_1d(const char* x, char* y, long bytes) {
    const auto [b, e] = tsuops::kernels::core_share(bytes, 64);
    if (e > b) std::memcpy(y + b, x + b, static_cast<std::size_t>(e - b));
}

}  // namespace tsu3

TSU_KERNEL_DEFINE(infer_memcpy_1d)
TSU_KERNEL_INSTANCE(infer_memcpy_1d)
