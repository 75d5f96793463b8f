// Hand-written kernels, argument packing and the address map, for the
// tests of the platform itself (which must not lean on the library).
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

namespace platform_test {

// ---- address map --------------------------------------------------------------------
enum class Kind { INVALID, GM, L3, NULL_PTR, CPU };

// The classification table of the address map, written out independently of
// the library's own.
inline Kind classify(std::uint32_t dev_type, std::uint64_t a) {
    if (a == 0) return Kind::NULL_PTR;
    const std::uint32_t hi = static_cast<std::uint32_t>(a >> 32);
    const std::uint32_t lo = static_cast<std::uint32_t>(a);
    switch (dev_type) {
    case 0:
        return Kind::CPU;
    case 1:
        if ((hi == 0 || hi == 4) && (lo & 0xff000000u) == 0xc0000000u) return Kind::L3;
        if (hi == 2 || hi == 3 || hi == 6 || hi == 7) return Kind::GM;
        return Kind::INVALID;
    case 2:
        if (hi == 0 && (lo & 0xfc000000u) == 0xc0000000u) return Kind::L3;
        if ((a >> 35) == 1) return Kind::GM;
        return Kind::INVALID;
    case 3:
        if (hi == 0 && lo >= 0x90000000u && lo < 0x96000000u) return Kind::L3;
        if (hi & (1u << 6)) return Kind::GM;
        return Kind::INVALID;
    case 4:
    case 5:
        if (hi == 0 && lo >= 0x90000000u && lo < 0x96000000u) return Kind::L3;
        if ((hi & 0xffu) >= 64 && (hi & 0xffu) < 224) return Kind::GM;
        return Kind::INVALID;
    default:
        return Kind::INVALID;
    }
}

inline Kind classify(std::uint32_t dev_type, const void* p) {
    return classify(dev_type, reinterpret_cast<std::uintptr_t>(p));
}

inline const char* kind_name(Kind k) {
    switch (k) {
    case Kind::GM: return "GM";
    case Kind::L3: return "L3";
    case Kind::NULL_PTR: return "NULL";
    case Kind::CPU: return "CPU";
    default: return "INVALID";
    }
}

// ---- kernels ----------------------------------------------------------------------------
inline tsuemu::KernelDescriptor descriptor(tsuemu::KernelEntry entry, const char* mangled) {
    return tsuemu::KernelDescriptor{0, reinterpret_cast<std::uint64_t>(entry), 0, 0, 0,
                                    reinterpret_cast<std::uint64_t>(mangled), 0, 0};
}

// Slot alignment of the argument block: 8 for 8-byte arguments, 4 for the rest.
template <class T>
constexpr std::size_t slot_align() {
    return sizeof(T) == 8 ? 8 : 4;
}

// Reads a packed argument block in signature order, inside a kernel entry.
class ArgReader {
public:
    explicit ArgReader(const unsigned char* args) : args_(args) {}
    template <class T>
    T next() {
        off_ = (off_ + slot_align<T>() - 1) / slot_align<T>() * slot_align<T>();
        T v;
        std::memcpy(&v, args_ + off_, sizeof(T));
        off_ += sizeof(T);
        return v;
    }

private:
    const unsigned char* args_;
    std::size_t off_ = 0;
};

// The share [begin, end) of n items that the calling core owns: contiguous,
// in global core order.
inline void core_share(long n, long* begin, long* end) {
    const long cores = tsuemu::global_core_count();
    const long me = tsuemu::global_core_id();
    *begin = n * me / cores;
    *end = n * (me + 1) / cores;
}

namespace detail {
inline int set_packed(std::size_t&) { return TSU_SUCCESS; }
template <class A, class... Rest>
int set_packed(std::size_t& off, const A& a, const Rest&... rest) {
    static_assert(std::is_trivially_copyable_v<A>);
    off = (off + slot_align<A>() - 1) / slot_align<A>() * slot_align<A>();
    const int rc = tsu_launch_argument_set(&a, sizeof(A), off);
    if (rc != TSU_SUCCESS) return rc;
    off += sizeof(A);
    return set_packed(off, rest...);
}
}  // namespace detail

// One whole launch: config, arguments by the slot rule, async.
template <class... A>
int launch(const tsuemu::KernelDescriptor& d, int nclusters, int ncores, void* stream, const A&... args) {
    int rc = tsu_launch_config(nclusters, ncores, stream);
    if (rc != TSU_SUCCESS) return rc;
    std::size_t off = 0;
    rc = detail::set_packed(off, args...);
    if (rc != TSU_SUCCESS) return rc;
    return tsu_launch_async(&d);
}

inline void noop_entry(const unsigned char*) {}
inline const char kNoopName[] = "_ZN4tsu34noopEv";

}  // namespace platform_test
