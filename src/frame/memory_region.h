// Address classification, element-type tags and the region rules.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace orvane::tsu::api {

enum class MemoryKind : int { INVALID = 0, GM = 1, L3 = 2, NULL_PTR = 3, CPU = 4 };

// The kind of memory an address lies in for a device type.
MemoryKind classify_address(std::uint32_t dev_type, const void* address);

// Enumerator name to value, built at load.
extern const std::map<std::string, Dtype> data_type_map;

template <typename T> inline constexpr Dtype dtype_of = Dtype::FLOAT32;
template <> inline constexpr Dtype dtype_of<float16> = Dtype::FLOAT16;
template <> inline constexpr Dtype dtype_of<int> = Dtype::INT32;
template <> inline constexpr Dtype dtype_of<short> = Dtype::INT16;
template <> inline constexpr Dtype dtype_of<signed char> = Dtype::INT8;
template <> inline constexpr Dtype dtype_of<long> = Dtype::INT64;
template <> inline constexpr Dtype dtype_of<bool> = Dtype::BOOL;
template <> inline constexpr Dtype dtype_of<unsigned char> = Dtype::UINT8;
template <> inline constexpr Dtype dtype_of<bfloat16> = Dtype::BFLOAT16;
template <> inline constexpr Dtype dtype_of<double> = Dtype::DOUBLE;
template <> inline constexpr Dtype dtype_of<int4_t> = Dtype::INT4;

// Bytes per element in region arithmetic; a packed 4-bit type counts as one.
template <typename T> inline constexpr long region_elem_size = sizeof(T);

// What memory_region::is_valid<T> gives for a region of `len` elements of
// stride 1 at `ptr`, without building the region.
template <typename T>
bool dense_region_valid(const Context* ctx, const void* ptr, long len);

// 0 unless the debug gate is on; then bits 4 to 7 of the debug word.
int debug_checksum_level(const Context* ctx);

}  // namespace orvane::tsu::api
