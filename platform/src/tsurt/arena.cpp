#include "arena.h"

#include <sys/mman.h>

#include <iterator>
#include <new>

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
        try {
            free_.emplace(0, size_);
        } catch (const std::bad_alloc&) {
            munmap(got, size_);  // untried still: a later call tries again
            return false;
        }
        state_ = 1;
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

// The bookkeeping allocates; where that fails both maps stay as they were
// and the call fails as an exhausted arena does.
void* Arena::allocate(std::uint64_t bytes) noexcept {
    if (bytes == 0 || bytes > size_) return nullptr;
    const std::uint64_t need = round_up(bytes, kAlign);
    std::lock_guard<std::mutex> lk(mu_);
    if (!reserve_locked()) return nullptr;
    for (auto it = free_.begin(); it != free_.end(); ++it) {
        if (it->second < need) continue;
        const std::uint64_t off = it->first;
        const std::uint64_t rest = it->second - need;
        try {
            used_.emplace(off, need);
            try {
                if (rest > 0) free_.emplace_hint(std::next(it), off + need, rest);
            } catch (...) {
                used_.erase(off);
                throw;
            }
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        free_.erase(it);
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
    const std::uint64_t len = u->second;
    auto next = free_.lower_bound(off);
    const bool join_next = next != free_.end() && off + len == next->first;
    auto prev = next == free_.begin() ? free_.end() : std::prev(next);
    const bool join_prev = prev != free_.end() && prev->first + prev->second == off;
    if (join_prev) {
        prev->second += len + (join_next ? next->second : 0);
        if (join_next) free_.erase(next);
    } else {
        // Only a new free entry allocates; the block stays in use if it fails.
        try {
            free_.emplace_hint(next, off, len + (join_next ? next->second : 0));
        } catch (const std::bad_alloc&) {
            return false;
        }
        if (join_next) free_.erase(next);
    }
    used_.erase(u);
    if (len >= kTrimBytes) madvise(ptr, len, MADV_DONTNEED);
    return true;
}

namespace {

struct Arenas {
    Arena gm3{tsuemu::kGm3Base, tsuemu::kGm3Size};
    Arena gm2{tsuemu::kGm2Base, tsuemu::kGm2Size};
    Arena l3_3{tsuemu::kL3Tsu3Base, tsuemu::kL3Tsu3Size};
    Arena l3_2{tsuemu::kL3Tsu2Base, tsuemu::kL3Tsu2Size};
};

// Built in static storage and never destroyed: device memory outlives static
// destruction, and the first use, inside noexcept calls, allocates nothing.
Arenas& arenas() noexcept {
    alignas(Arenas) static unsigned char storage[sizeof(Arenas)];
    static Arenas* a = ::new (static_cast<void*>(storage)) Arenas();
    return *a;
}

}  // namespace

Arena* gm_arena(int dev_type) noexcept {
    if (dev_type == 3) return &arenas().gm3;
    if (dev_type == 2) return &arenas().gm2;
    return nullptr;
}

Arena* l3_arena(int dev_type) noexcept {
    if (dev_type == 3 || dev_type == 4 || dev_type == 5) return &arenas().l3_3;
    if (dev_type == 2) return &arenas().l3_2;
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
