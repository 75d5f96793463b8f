// Status codes and the small value types shared by every operator.
#pragma once

#include <cstdint>

#include <tsuops/float16.h>

// Two 4-bit values per byte; the even index lives in the low nibble.
struct int4_t {
    std::uint8_t x;
};

// Two unsigned 4-bit values per byte, in the same order as int4_t.
struct uint4_t {
    std::uint8_t x;
};

namespace infer_ops {

inline constexpr int SUCCESS = 0;
inline constexpr int STATUS_INVALID_ARGUMENT = 1;
inline constexpr int STATUS_KERNEL_FAILED = 2;
inline constexpr int STATUS_NO_WORKSPACE = 3;
inline constexpr int STATUS_UNIMPLEMENTED = 4;

}  // namespace infer_ops
