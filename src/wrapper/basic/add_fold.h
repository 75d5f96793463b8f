// The shape that the add kernel sees. A single row of at least
// kFoldMinCols elements is folded into rows of the first width in
// kFoldWidths that divides it, so that the engine's cores can share it;
// when none divides, the row stays as it is. Only the product of the two
// sizes is checked, so both may be negative: the host then adds m * n
// elements, and the kernel gets the magnitudes, which have that product.
#pragma once

#include <array>

namespace infer_ops::add_fold {

inline constexpr long kFoldMinCols = 1025;
inline constexpr std::array<long, 6> kFoldWidths = {1024, 512, 256, 128, 64, 32};

struct Shape {
    long rows;
    long cols;
};

constexpr Shape kernel_shape(long m, long n) {
    // Two negative sizes with a product in range: neither is LONG_MIN.
    if (m < 0) {
        m = -m;
        n = -n;
    }
    if (m == 1 && n >= kFoldMinCols) {
        for (long w : kFoldWidths) {
            if (n % w == 0) return {n / w, w};
        }
    }
    return {m, n};
}

}  // namespace infer_ops::add_fold
