// A tensor placed between two bands of sentinel bytes, in the memory of a
// context's device, so that a write past either end or a write that should
// not have happened fails the test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tsuapi/tsuapi.h>

namespace tsuops_test {

// Bytes of each guard band; a multiple of 256 so that the payload keeps the
// alignment of the block.
inline constexpr std::size_t kGuardBytes = 512;

// The sentinel byte at offset i of a block. Position-dependent, so that data
// shifted by a few bytes or a band copied elsewhere does not look intact.
inline unsigned char sentinel_byte(std::size_t i) {
    return static_cast<unsigned char>(0xa5u ^ ((i * 0x9du) & 0xffu) ^ ((i >> 8) & 0xffu));
}

namespace detail {

// The raw block and the operations that do not depend on the element type.
class GuardedBlock {
public:
    GuardedBlock(orvane::tsu::api::Context* ctx, std::size_t payload_bytes);
    ~GuardedBlock();
    GuardedBlock(GuardedBlock&& o) noexcept;
    GuardedBlock& operator=(GuardedBlock&& o) noexcept;
    GuardedBlock(const GuardedBlock&) = delete;
    GuardedBlock& operator=(const GuardedBlock&) = delete;

    bool ok() const { return block_ != nullptr; }
    unsigned char* payload() const { return block_ ? block_ + kGuardBytes : nullptr; }
    std::size_t payload_bytes() const { return block_ ? bytes_ : 0; }
    bool on_device() const { return device_; }

    // Waits for the work queued on the context's stream.
    void sync() const;
    void fill_sentinel();
    // Index of the first changed byte of a band, or -1; offsets count from
    // the start of the band.
    long first_damage_before() const;
    long first_damage_after() const;
    bool guards_intact() const;
    bool untouched() const;
    // Records a gtest failure for each damaged band, once per damage.
    void report_guards(const char* what) const;

private:
    void allocate(orvane::tsu::api::Context* ctx);
    void release() noexcept;

    unsigned char* block_ = nullptr;
    std::size_t bytes_ = 0;
    bool device_ = false;
    void* stream_ = nullptr;
    mutable bool reported_ = false;
};

}  // namespace detail

// n elements of T between two guard bands. On a device context the whole
// block comes from tsu_malloc of the context's arena (a type-2 context whose
// arena is absent skips the test); on a host context from host memory.
// After a skip, or when no memory could be had, the buffer is empty and every
// operation is a no-op. The context must be the one whose stream writes the
// buffer; the buffer waits for that stream before it reads, writes or frees.
template <class T>
class GuardedBuffer {
    static_assert(std::is_trivially_copyable_v<T>, "a guarded buffer holds plain element types");

public:
    GuardedBuffer(orvane::tsu::api::Context* ctx, long n)
        : block_(ctx, n > 0 ? static_cast<std::size_t>(n) * sizeof(T) : 0), n_(n > 0 ? n : 0) {
        fill_sentinel();
    }
    GuardedBuffer(orvane::tsu::api::Context* ctx, const std::vector<T>& values)
        : GuardedBuffer(ctx, static_cast<long>(values.size())) {
        upload(values);
    }

    // Checks the bands once more, so that damage that no download saw fails too.
    ~GuardedBuffer() {
        if (block_.ok()) block_.report_guards("at destruction");
    }
    GuardedBuffer(GuardedBuffer&&) noexcept = default;
    GuardedBuffer& operator=(GuardedBuffer&&) noexcept = default;

    bool ok() const { return block_.ok(); }
    T* data() { return reinterpret_cast<T*>(block_.payload()); }
    const T* data() const { return reinterpret_cast<const T*>(block_.payload()); }
    long size() const { return n_; }
    std::size_t bytes() const { return block_.payload_bytes(); }

    void upload(const std::vector<T>& values) {
        if (!block_.ok()) return;
        if (static_cast<long>(values.size()) != n_) {
            ADD_FAILURE() << "upload of " << values.size() << " elements into a buffer of " << n_;
            return;
        }
        block_.sync();
        if constexpr (std::is_same_v<T, bool>) {
            for (long i = 0; i < n_; ++i) block_.payload()[i] = values[static_cast<std::size_t>(i)] ? 1 : 0;
        } else if (n_ > 0) {
            std::memcpy(block_.payload(), values.data(), block_.payload_bytes());
        }
    }

    // Fills the payload with sentinel bytes, for tests of "nothing written".
    void fill_sentinel() { block_.fill_sentinel(); }

    // Waits for the stream, copies the payload out and fails the test if a
    // guard band changed. A bool byte other than 0 reads as true.
    std::vector<T> download() const {
        std::vector<T> out(static_cast<std::size_t>(n_));
        if (!block_.ok()) return out;
        block_.sync();
        if constexpr (std::is_same_v<T, bool>) {
            for (long i = 0; i < n_; ++i) out[static_cast<std::size_t>(i)] = block_.payload()[i] != 0;
        } else if (n_ > 0) {
            std::memcpy(out.data(), block_.payload(), block_.payload_bytes());
        }
        block_.report_guards("at download");
        return out;
    }

    // The payload as bytes, without any check.
    std::vector<unsigned char> raw_bytes() const {
        if (!block_.ok()) return {};
        block_.sync();
        return std::vector<unsigned char>(block_.payload(), block_.payload() + block_.payload_bytes());
    }

    bool guards_intact() const { return !block_.ok() || block_.guards_intact(); }
    // True while the payload still holds only sentinel bytes.
    bool untouched() const { return !block_.ok() || block_.untouched(); }

private:
    detail::GuardedBlock block_;
    long n_ = 0;
};

}  // namespace tsuops_test
