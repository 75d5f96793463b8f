// Emulated device memories: fixed address ranges reserved lazily in this
// process, each with a first-fit allocator.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <unordered_map>

namespace tsuplat {

class Arena {
public:
    Arena(std::uint64_t base, std::uint64_t size) : base_(base), size_(size) {}
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    // Null when the range could not be reserved or no free block is large enough.
    void* allocate(std::uint64_t bytes) noexcept;
    // False for a pointer this arena did not hand out.
    bool release(void* ptr) noexcept;
    bool available() noexcept;
    bool contains(const void* ptr) const noexcept {
        auto a = reinterpret_cast<std::uintptr_t>(ptr);
        return a >= base_ && a < base_ + size_;
    }

private:
    bool reserve_locked() noexcept;

    const std::uint64_t base_;
    const std::uint64_t size_;
    std::mutex mu_;
    int state_ = 0;  // 0 untried, 1 mapped, -1 absent
    std::map<std::uint64_t, std::uint64_t> free_;        // offset -> size
    std::unordered_map<std::uint64_t, std::uint64_t> used_;  // offset -> size
};

// The four emulated memories; null for a device type that has none.
Arena* gm_arena(int dev_type) noexcept;
Arena* l3_arena(int dev_type) noexcept;

}  // namespace tsuplat
