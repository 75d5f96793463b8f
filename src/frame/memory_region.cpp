#include "memory_region.h"

#include <stdexcept>

#include "frame.h"

namespace orvane::tsu::api {

const std::map<std::string, Dtype> data_type_map = {
    {"FLOAT32", Dtype::FLOAT32}, {"FLOAT16", Dtype::FLOAT16},
    {"INT32", Dtype::INT32},     {"INT16", Dtype::INT16},
    {"INT8", Dtype::INT8},       {"INT64", Dtype::INT64},
    {"BOOL", Dtype::BOOL},       {"UINT8", Dtype::UINT8},
    {"BFLOAT16", Dtype::BFLOAT16}, {"UINT32", Dtype::UINT32},
    {"DOUBLE", Dtype::DOUBLE},   {"INT_WITH_LL", Dtype::INT_WITH_LL},
    {"INT4", Dtype::INT4},       {"INT4_WO_INT8", Dtype::INT4_WO_INT8},
    {"INT4_WO_INT15", Dtype::INT4_WO_INT15}, {"UINT4", Dtype::UINT4},
    {"XBFLOAT16", Dtype::XBFLOAT16},
};

MemoryKind classify_address(std::uint32_t dev_type, const void* address) {
    const auto a = reinterpret_cast<std::uint64_t>(address);
    if (a == 0) return MemoryKind::NULL_PTR;
    const std::uint32_t hi = static_cast<std::uint32_t>(a >> 32);
    const std::uint32_t lo = static_cast<std::uint32_t>(a);
    switch (dev_type) {
    case 0:
        return MemoryKind::CPU;
    case 1:
        if ((hi == 0 || hi == 4) && (lo & 0xff000000u) == 0xc0000000u) return MemoryKind::L3;
        if (hi == 2 || hi == 3 || hi == 6 || hi == 7) return MemoryKind::GM;
        return MemoryKind::INVALID;
    case 2:
        if (hi == 0 && (lo & 0xfc000000u) == 0xc0000000u) return MemoryKind::L3;
        if ((a >> 35) == 1) return MemoryKind::GM;
        return MemoryKind::INVALID;
    case 3:
        if (hi == 0 && lo >= 0x90000000u && lo < 0x96000000u) return MemoryKind::L3;
        if (hi & (1u << 6)) return MemoryKind::GM;
        return MemoryKind::INVALID;
    case 4:
    case 5:
        if (hi == 0 && lo >= 0x90000000u && lo < 0x96000000u) return MemoryKind::L3;
        if ((hi & 0xffu) >= 64 && (hi & 0xffu) < 224) return MemoryKind::GM;
        return MemoryKind::INVALID;
    default:
        return MemoryKind::INVALID;
    }
}

int debug_checksum_level(const Context* ctx) {
    if (!infer_ops::frame::debug_active(ctx)) return 0;
    return static_cast<int>((ctx->debug_level() >> 4) & 15u);
}

template <typename T>
void memory_region::init_detail(bool want_detail, int opcount, const char* file, int line, const char* name,
                                bool checksum_accelerate, const int* extra) {
    if (!want_detail) return;
    if (name == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
    auto* d = new memory_region_detail();
    d->dtype = dtype_of<T>;
    d->name = name;
    d->opcount = opcount;
    d->position = short_file_path(file, line);
    d->dump_position = npy_short_file_path(file, line);
    d->checksum_accelerate = checksum_accelerate;
    d->extra = extra;
    delete detail;
    detail = d;
}

namespace {

// The steps of the validity test after the shape's own: the extreme
// elements `low` and `high` (element offsets from `ptr`) must lie in one
// device memory.
template <typename T>
bool extent_valid(const Context* ctx, const void* ptr, __int128 low, __int128 high) {
    if (ctx->dev_type == 0) return true;
    constexpr long es = region_elem_size<T>;
    if ((high - low + 1) * es > static_cast<__int128>(INT64_MAX)) return false;
    const __int128 base = static_cast<__int128>(reinterpret_cast<std::uint64_t>(ptr));
    const __int128 begin = base + low * es;
    const __int128 end = base + high * es;
    if (begin < 0 || end > static_cast<__int128>(UINT64_MAX)) return false;
    const auto b = reinterpret_cast<const void*>(static_cast<std::uint64_t>(begin));
    const auto e = reinterpret_cast<const void*>(static_cast<std::uint64_t>(end));
    const MemoryKind kb = classify_address(ctx->dev_type, b);
    if (kb != classify_address(ctx->dev_type, e)) return false;
    if (kb == MemoryKind::INVALID || kb == MemoryKind::NULL_PTR) return false;
    const auto hb = static_cast<std::uint32_t>(static_cast<std::uint64_t>(begin) >> 32);
    const auto he = static_cast<std::uint32_t>(static_cast<std::uint64_t>(end) >> 32);
    if (ctx->dev_type == 1 || ctx->dev_type == 2) return hb == he;
    return hb <= he;
}

}  // namespace

template <typename T>
bool memory_region::is_valid(Context* ctx) {
    if (ptr == nullptr) return false;
    if (shape.size() != strides.size()) return false;
    for (long d : shape) {
        if (d < 1) return false;
    }
    __int128 low = 0, high = 0;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const __int128 span = static_cast<__int128>(shape[i] - 1) * strides[i];
        if (strides[i] < 0) low += span;
        else high += span;
    }
    return extent_valid<T>(ctx, ptr, low, high);
}

template <typename T>
bool dense_region_valid(const Context* ctx, const void* ptr, long len) {
    return ptr != nullptr && len >= 1 && extent_valid<T>(ctx, ptr, 0, static_cast<__int128>(len) - 1);
}

#define TSUOPS_REGION_INSTANCE(T)                                                                        \
    template void memory_region::init_detail<T>(bool, int, const char*, int, const char*, bool, const int*); \
    template bool memory_region::is_valid<T>(Context*);                                                   \
    template bool dense_region_valid<T>(const Context*, const void*, long);
TSUOPS_REGION_INSTANCE(float)
TSUOPS_REGION_INSTANCE(float16)
TSUOPS_REGION_INSTANCE(bfloat16)
TSUOPS_REGION_INSTANCE(double)
TSUOPS_REGION_INSTANCE(bool)
TSUOPS_REGION_INSTANCE(signed char)
TSUOPS_REGION_INSTANCE(unsigned char)
TSUOPS_REGION_INSTANCE(short)
TSUOPS_REGION_INSTANCE(int)
TSUOPS_REGION_INSTANCE(long)
TSUOPS_REGION_INSTANCE(long long)
TSUOPS_REGION_INSTANCE(int4_t)
#undef TSUOPS_REGION_INSTANCE

}  // namespace orvane::tsu::api
