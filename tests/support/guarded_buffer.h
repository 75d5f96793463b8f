// A tensor placed between two bands of sentinel bytes, in the memory of a
// context's device, so that a write past either end or a write that should
// not have happened fails the test.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <tsuapi/tsuapi.h>
#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

#include "support/contexts.h"

namespace tsuops_test {

namespace detail {

// Position-dependent, so that data shifted by a few bytes or a band copied
// elsewhere does not look intact.
inline unsigned char sentinel_byte(std::size_t i) {
    return static_cast<unsigned char>(0xa5u ^ ((i * 0x9du) & 0xffu) ^ ((i >> 8) & 0xffu));
}

// Gives a block back once the stream that may still write it is idle.
struct BlockRelease {
    void* stream = nullptr;
    bool device = false;
    void operator()(unsigned char* p) const {
        if (!device) return ::operator delete(p, std::align_val_t{256});
        tsu_wait(stream);
        tsu_free(p);
    }
};

// A function of its own because GTEST_SKIP returns from the caller.
inline void allocate_block(Context* ctx, std::size_t total, void** p) {
    if (ctx->dev_type == 0) {
        *p = ::operator new(total, std::align_val_t{256});
        return;
    }
    const int arena = arena_of(static_cast<DeviceType>(ctx->dev_type));
    if (arena < 0) GTEST_SKIP() << "device type " << ctx->dev_type << " has no emulated memory";
    if (arena == 2 && !tsuemu::gm_available(2)) GTEST_SKIP() << "the type-2 arena is absent in this process";
    const int rc = tsu_malloc(p, total, arena);
    if (rc != TSU_SUCCESS) ADD_FAILURE() << "tsu_malloc of " << total << " bytes failed with " << rc;
}

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
    // A multiple of 256, so that the payload keeps the block's alignment.
    static constexpr std::size_t kGuard = 512;

public:
    GuardedBuffer(Context* ctx, long n) : n_(n > 0 ? n : 0), bytes_(n_ * sizeof(T)) {
        void* p = nullptr;
        detail::allocate_block(ctx, bytes_ + 2 * kGuard, &p);
        if (p == nullptr) return;
        block_ = {static_cast<unsigned char*>(p), detail::BlockRelease{ctx->stream, ctx->dev_type != 0}};
        for (std::size_t i = 0; i < bytes_ + 2 * kGuard; ++i) block_[i] = detail::sentinel_byte(i);
    }
    GuardedBuffer(Context* ctx, const std::vector<T>& values) : GuardedBuffer(ctx, static_cast<long>(values.size())) {
        upload(values);
    }
    // Checks the bands once more, so that damage that no download saw fails too.
    ~GuardedBuffer() { report_guards("at destruction"); }
    GuardedBuffer(GuardedBuffer&&) noexcept = default;
    GuardedBuffer& operator=(GuardedBuffer&&) noexcept = default;

    bool ok() const { return block_ != nullptr; }
    T* data() const { return block_ ? reinterpret_cast<T*>(block_.get() + kGuard) : nullptr; }
    long size() const { return n_; }

    void upload(const std::vector<T>& values) {
        if (!ok()) return;
        if (static_cast<long>(values.size()) != n_) {
            ADD_FAILURE() << "upload of " << values.size() << " elements into a buffer of " << n_;
            return;
        }
        sync();
        for (long i = 0; i < n_; ++i) data()[i] = values[static_cast<std::size_t>(i)];
    }

    // Fills the payload with sentinel bytes, for tests of "nothing written".
    void fill_sentinel() {
        sync();
        for (std::size_t i = kGuard; ok() && i < kGuard + bytes_; ++i) block_[i] = detail::sentinel_byte(i);
    }

    // Waits for the stream, copies the payload out and fails the test if a
    // guard band changed. A bool byte other than 0 reads as true.
    std::vector<T> download() const {
        std::vector<T> out(static_cast<std::size_t>(n_));
        if (!ok()) return out;
        sync();
        const unsigned char* p = block_.get() + kGuard;
        for (std::size_t i = 0; i < out.size(); ++i) {
            if constexpr (std::is_same_v<T, bool>) out[i] = p[i] != 0;
            else std::memcpy(&out[i], p + i * sizeof(T), sizeof(T));
        }
        report_guards("at download");
        return out;
    }

    // The payload as bytes, without any check.
    std::vector<unsigned char> raw_bytes() const {
        if (!ok()) return {};
        sync();
        return std::vector<unsigned char>(block_.get() + kGuard, block_.get() + kGuard + bytes_);
    }

    bool guards_intact() const { return first_damage(0, kGuard) < 0 && first_damage(kGuard + bytes_, kGuard) < 0; }
    // True while the payload still holds only sentinel bytes.
    bool untouched() const { return first_damage(kGuard, bytes_) < 0; }

private:
    void sync() const {
        if (ok() && block_.get_deleter().device) tsu_wait(block_.get_deleter().stream);
    }

    // Offset of the first changed byte of [start, start + len), or -1.
    long first_damage(std::size_t start, std::size_t len) const {
        sync();
        for (std::size_t i = 0; ok() && i < len; ++i) {
            if (block_[start + i] != detail::sentinel_byte(start + i)) return static_cast<long>(i);
        }
        return -1;
    }

    // Records a gtest failure for each damaged band, once per buffer.
    void report_guards(const char* when) const {
        if (reported_) return;
        const long before = first_damage(0, kGuard), after = first_damage(kGuard + bytes_, kGuard);
        if (before >= 0) ADD_FAILURE() << "guard band before the buffer changed " << when << ": first changed byte at "
                                       << static_cast<long>(kGuard) - before << " bytes before the start";
        if (after >= 0) ADD_FAILURE() << "guard band after the buffer changed " << when << ": first changed byte at "
                                      << after << " bytes past the end of " << bytes_ << " payload bytes";
        reported_ = before >= 0 || after >= 0;
    }

    long n_;
    std::size_t bytes_;
    std::unique_ptr<unsigned char[], detail::BlockRelease> block_;
    mutable bool reported_ = false;
};

}  // namespace tsuops_test
