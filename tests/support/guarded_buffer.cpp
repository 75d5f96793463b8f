#include "support/guarded_buffer.h"

#include <new>

#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

#include "support/contexts.h"

namespace tsuops_test::detail {

namespace {

constexpr std::size_t kHostAlign = 256;

}  // namespace

GuardedBlock::GuardedBlock(orvane::tsu::api::Context* ctx, std::size_t payload_bytes)
    : bytes_(payload_bytes) {
    allocate(ctx);
    if (block_ == nullptr) return;
    const std::size_t total = bytes_ + 2 * kGuardBytes;
    for (std::size_t i = 0; i < total; ++i) block_[i] = sentinel_byte(i);
}

// A function of its own because GTEST_SKIP returns from the caller.
void GuardedBlock::allocate(orvane::tsu::api::Context* ctx) {
    if (ctx == nullptr) {
        ADD_FAILURE() << "guarded buffer without a context";
        return;
    }
    const std::size_t total = bytes_ + 2 * kGuardBytes;
    const auto type = static_cast<DeviceType>(ctx->dev_type);
    if (type == DeviceType::CPU) {
        block_ = static_cast<unsigned char*>(::operator new(total, std::align_val_t{kHostAlign}));
    } else {
        const int arena = arena_of(type);
        if (arena < 0) {
            GTEST_SKIP() << "device type " << ctx->dev_type << " has no emulated memory";
        }
        if (!tsuemu::gm_available(arena)) {
            if (arena == 2) GTEST_SKIP() << "the type-2 arena is absent in this process";
            ADD_FAILURE() << "the type-3 arena is absent";
            return;
        }
        void* p = nullptr;
        const int rc = tsu_malloc(&p, total, arena);
        if (rc != TSU_SUCCESS || p == nullptr) {
            ADD_FAILURE() << "tsu_malloc of " << total << " bytes failed with " << rc;
            return;
        }
        block_ = static_cast<unsigned char*>(p);
        device_ = true;
        stream_ = ctx->stream;
    }
}

GuardedBlock::~GuardedBlock() { release(); }

GuardedBlock::GuardedBlock(GuardedBlock&& o) noexcept
    : block_(std::exchange(o.block_, nullptr)),
      bytes_(std::exchange(o.bytes_, 0)),
      device_(o.device_),
      stream_(o.stream_),
      reported_(o.reported_) {}

GuardedBlock& GuardedBlock::operator=(GuardedBlock&& o) noexcept {
    if (this != &o) {
        release();
        block_ = std::exchange(o.block_, nullptr);
        bytes_ = std::exchange(o.bytes_, 0);
        device_ = o.device_;
        stream_ = o.stream_;
        reported_ = o.reported_;
    }
    return *this;
}

void GuardedBlock::release() noexcept {
    if (block_ == nullptr) return;
    if (device_) {
        // A kernel still queued may write the block: it must end first.
        sync();
        tsu_free(block_);
    } else {
        ::operator delete(block_, std::align_val_t{kHostAlign});
    }
    block_ = nullptr;
}

void GuardedBlock::sync() const {
    // A stream that is gone already has nothing queued; tsu_wait rejects it.
    if (device_) tsu_wait(stream_);
}

void GuardedBlock::fill_sentinel() {
    if (block_ == nullptr) return;
    sync();
    for (std::size_t i = 0; i < bytes_; ++i) block_[kGuardBytes + i] = sentinel_byte(kGuardBytes + i);
}

long GuardedBlock::first_damage_before() const {
    for (std::size_t i = 0; i < kGuardBytes; ++i) {
        if (block_[i] != sentinel_byte(i)) return static_cast<long>(i);
    }
    return -1;
}

long GuardedBlock::first_damage_after() const {
    const std::size_t start = kGuardBytes + bytes_;
    for (std::size_t i = 0; i < kGuardBytes; ++i) {
        if (block_[start + i] != sentinel_byte(start + i)) return static_cast<long>(i);
    }
    return -1;
}

bool GuardedBlock::guards_intact() const {
    if (block_ == nullptr) return true;
    sync();
    return first_damage_before() < 0 && first_damage_after() < 0;
}

bool GuardedBlock::untouched() const {
    if (block_ == nullptr) return true;
    sync();
    for (std::size_t i = 0; i < bytes_; ++i) {
        if (block_[kGuardBytes + i] != sentinel_byte(kGuardBytes + i)) return false;
    }
    return true;
}

void GuardedBlock::report_guards(const char* what) const {
    if (block_ == nullptr || reported_) return;
    sync();
    const long before = first_damage_before();
    const long after = first_damage_after();
    if (before >= 0) {
        ADD_FAILURE() << "guard band before the buffer changed " << what << ": first changed byte at "
                      << (static_cast<long>(kGuardBytes) - before) << " bytes before the start";
    }
    if (after >= 0) {
        ADD_FAILURE() << "guard band after the buffer changed " << what << ": first changed byte at "
                      << after << " bytes past the end of " << bytes_ << " payload bytes";
    }
    if (before >= 0 || after >= 0) reported_ = true;
}

}  // namespace tsuops_test::detail
