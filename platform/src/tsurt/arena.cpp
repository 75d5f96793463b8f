#include "arena.h"

#include <sys/mman.h>

#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

#ifndef MAP_FIXED_NOREPLACE
#define MAP_FIXED_NOREPLACE 0x100000
#endif

namespace tsuplat {
namespace {

constexpr std::uint64_t kAlign = 256;
// Blocks at least this large give their pages back to the system on release.
constexpr std::uint64_t kTrimBytes = 1ull << 20;

std::uint64_t round_up(std::uint64_t v, std::uint64_t a) { return (v + a - 1) / a * a; }

}  // namespace

bool Arena::reserve_locked() noexcept {
    if (state_ != 0) return state_ > 0;
    void* want = reinterpret_cast<void*>(base_);
    void* got = mmap(want, size_, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (got == want) {
        state_ = 1;
        free_.emplace(0, size_);
    } else {
        // Older kernels take the address as a hint only.
        if (got != MAP_FAILED) munmap(got, size_);
        state_ = -1;
    }
    return state_ > 0;
}

bool Arena::available() noexcept {
    std::lock_guard<std::mutex> lk(mu_);
    return reserve_locked();
}

void* Arena::allocate(std::uint64_t bytes) noexcept {
    if (bytes == 0 || bytes > size_) return nullptr;
    const std::uint64_t need = round_up(bytes, kAlign);
    std::lock_guard<std::mutex> lk(mu_);
    if (!reserve_locked()) return nullptr;
    for (auto it = free_.begin(); it != free_.end(); ++it) {
        if (it->second < need) continue;
        const std::uint64_t off = it->first;
        const std::uint64_t rest = it->second - need;
        free_.erase(it);
        if (rest > 0) free_.emplace(off + need, rest);
        used_.emplace(off, need);
        return reinterpret_cast<void*>(base_ + off);
    }
    return nullptr;
}

bool Arena::release(void* ptr) noexcept {
    if (!contains(ptr)) return false;
    const std::uint64_t off = reinterpret_cast<std::uintptr_t>(ptr) - base_;
    std::lock_guard<std::mutex> lk(mu_);
    auto u = used_.find(off);
    if (u == used_.end()) return false;
    std::uint64_t start = off;
    std::uint64_t len = u->second;
    used_.erase(u);
    if (len >= kTrimBytes) madvise(ptr, len, MADV_DONTNEED);
    auto next = free_.lower_bound(start);
    if (next != free_.end() && start + len == next->first) {
        len += next->second;
        next = free_.erase(next);
    }
    if (next != free_.begin()) {
        auto prev = std::prev(next);
        if (prev->first + prev->second == start) {
            start = prev->first;
            len += prev->second;
            free_.erase(prev);
        }
    }
    free_.emplace(start, len);
    return true;
}

// Leaked on purpose: device memory outlives static destruction.
Arena* gm_arena(int dev_type) noexcept {
    static Arena* gm3 = new Arena(tsuemu::kGm3Base, tsuemu::kGm3Size);
    static Arena* gm2 = new Arena(tsuemu::kGm2Base, tsuemu::kGm2Size);
    if (dev_type == 3) return gm3;
    if (dev_type == 2) return gm2;
    return nullptr;
}

Arena* l3_arena(int dev_type) noexcept {
    static Arena* l3_3 = new Arena(tsuemu::kL3Tsu3Base, tsuemu::kL3Tsu3Size);
    static Arena* l3_2 = new Arena(tsuemu::kL3Tsu2Base, tsuemu::kL3Tsu2Size);
    if (dev_type == 3 || dev_type == 4 || dev_type == 5) return l3_3;
    if (dev_type == 2) return l3_2;
    return nullptr;
}

}  // namespace tsuplat

extern "C" int tsu_malloc(void** ptr, unsigned long bytes, int dev_type) {
    if (ptr == nullptr) return TSU_ERROR_INVALID_VALUE;
    *ptr = nullptr;
    tsuplat::Arena* a = tsuplat::gm_arena(dev_type);
    if (a == nullptr || bytes == 0) return TSU_ERROR_INVALID_VALUE;
    *ptr = a->allocate(bytes);
    return *ptr ? TSU_SUCCESS : TSU_ERROR_OUT_OF_MEMORY;
}

extern "C" int tsu_free(void* ptr) {
    if (ptr == nullptr) return TSU_SUCCESS;
    for (int dev : {3, 2}) {
        tsuplat::Arena* a = tsuplat::gm_arena(dev);
        if (a->contains(ptr)) return a->release(ptr) ? TSU_SUCCESS : TSU_ERROR_INVALID_POINTER;
    }
    return TSU_ERROR_INVALID_POINTER;
}

namespace tsuemu {

void* l3_alloc(int dev_type, unsigned long bytes) noexcept {
    tsuplat::Arena* a = tsuplat::l3_arena(dev_type);
    return a ? a->allocate(bytes) : nullptr;
}

int l3_free(void* ptr) noexcept {
    if (ptr == nullptr) return TSU_SUCCESS;
    for (int dev : {3, 2}) {
        tsuplat::Arena* a = tsuplat::l3_arena(dev);
        if (a->contains(ptr)) return a->release(ptr) ? TSU_SUCCESS : TSU_ERROR_INVALID_POINTER;
    }
    return TSU_ERROR_INVALID_POINTER;
}

bool gm_available(int dev_type) noexcept {
    tsuplat::Arena* a = tsuplat::gm_arena(dev_type);
    return a && a->available();
}

bool l3_available(int dev_type) noexcept {
    tsuplat::Arena* a = tsuplat::l3_arena(dev_type);
    return a && a->available();
}

}  // namespace tsuemu
