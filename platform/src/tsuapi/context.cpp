#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>

#include <tsuapi/tsuapi.h>
#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

#include "internal.h"

namespace orvane::tsu::api {

namespace {

constexpr unsigned long kPoolAlign = 64;

// Device types 4 and 5 borrow the memories of type 3, whose addresses they
// classify the same way; type 1 has no emulated memory.
int arena_type(std::uint32_t dev_type) {
    if (dev_type == 2) return 2;
    if (dev_type >= 3 && dev_type <= 5) return 3;
    return -1;
}

}  // namespace

// ---- BufferMgr ------------------------------------------------------------------
void BufferMgr::reset(void* base, unsigned long capacity) {
    base_ = static_cast<char*>(base);
    capacity_ = base ? capacity : 0;
    top_ = 0;
    marks_.clear();
}

void BufferMgr::save() { marks_.push_back(top_); }

void* BufferMgr::alloc(ContextImpl* /*impl*/, unsigned long bytes, void* /*stream*/) {
    if (tsuemu::consume_failure(tsuemu::Site::PoolAlloc, nullptr)) return nullptr;
    if (base_ == nullptr) return nullptr;
    const unsigned long start = (top_ + kPoolAlign - 1) / kPoolAlign * kPoolAlign;
    if (start > capacity_ || bytes > capacity_ - start) return nullptr;
    top_ = start + bytes;
    return base_ + start;
}

// Work queued on the stream that still reads the released scratch runs before
// any later work of the same stream, so the space can be reused at once.
void BufferMgr::restore(void* /*stream*/) {
    if (marks_.empty()) return;
    top_ = marks_.back();
    marks_.pop_back();
}

// ---- Context ----------------------------------------------------------------------
namespace {

// Gives back what a context holds; the destructor's work, and the unwinding
// of a constructor that failed halfway.
void release(Context& c) noexcept {
    if (c.stream != nullptr) {
        tsu_wait(c.stream);
        tsu_stream_destroy(c.stream);
        c.stream = nullptr;
    }
    if (c.impl == nullptr) return;
    if (c.impl->gm_block) tsu_free(c.impl->gm_block);
    if (c.impl->l3_block) tsuemu::l3_free(c.impl->l3_block);
    delete c.impl;
    c.impl = nullptr;
}

}  // namespace

Context::Context(DeviceType type, const ContextOptions& opts)
    : impl(new ContextImpl()),
      dev_type(static_cast<std::uint32_t>(type)),
      sim_dev_type(opts.sim_dev_type),
      debug_flags(opts.debug_flags),
      ngmx(opts.ngmx),
      ncluster(opts.ncluster),
      max_ptr_size(opts.max_ptr_size) {
    if (dev_type == 0) return;
    // A constructor that throws runs no destructor: unwind by hand.
    try {
        // The runtime fails a stream only for want of memory or a thread.
        if (tsu_stream_create(&stream) != TSU_SUCCESS) {
            stream = nullptr;
            throw std::bad_alloc();
        }
        const int arena = arena_type(dev_type);
        if (arena < 0) return;
        if (opts.gm_pool_bytes > 0) {
            void* p = nullptr;
            if (tsu_malloc(&p, opts.gm_pool_bytes, arena) == TSU_SUCCESS) {
                impl->gm_block = p;
                gm_mgr.reset(p, opts.gm_pool_bytes);
            }
        }
        if (opts.l3_pool_bytes > 0) {
            void* p = tsuemu::l3_alloc(static_cast<int>(dev_type), opts.l3_pool_bytes);
            if (p != nullptr) {
                impl->l3_block = p;
                l3_mgr.reset(p, opts.l3_pool_bytes);
                l3_size = opts.l3_pool_bytes;
            }
        }
    } catch (...) {
        release(*this);
        throw;
    }
}

Context::~Context() { release(*this); }

// ---- ContextStackGuard ----------------------------------------------------------
ContextStackGuard::ContextStackGuard(Context* ctx, std::string tag) : ctx_(ctx), tag_(std::move(tag)) {
    if (ctx_ && ctx_->impl) ctx_->impl->opcount.fetch_add(1, std::memory_order_relaxed);
}

ContextStackGuard::~ContextStackGuard() = default;

void ContextStackGuard::profile(const std::string& name) {
    if (ctx_ && ctx_->impl) ctx_->impl->last_profiled = name;
}

void ContextStackGuard::trace() { detail::emit_trace(info); }

// ---- small queries -------------------------------------------------------------------
int _get_ctx_opcount(Context* ctx) {
    return (ctx && ctx->impl) ? ctx->impl->opcount.load(std::memory_order_relaxed) : 0;
}

bool _get_checksum_accelerate_flag(Context* ctx) {
    return ctx && (ctx->debug_flags & kDebugChecksumAccelerate) != 0;
}

// ---- transfers -----------------------------------------------------------------------
namespace {

int transfer(Context* ctx, const void* src, void* dst, long bytes, tsuemu::Site site) {
    int code = 0;
    if (tsuemu::consume_failure(site, &code)) return code;
    if (ctx == nullptr || bytes < 0) return TSU_ERROR_INVALID_VALUE;
    if (bytes == 0) return TSU_SUCCESS;
    if (src == nullptr || dst == nullptr) return TSU_ERROR_INVALID_VALUE;
    if (ctx->dev_type != 0 && ctx->stream != nullptr) {
        const int rc = tsu_wait(ctx->stream);
        if (rc != TSU_SUCCESS) return rc;
    }
    std::memmove(dst, src, static_cast<std::size_t>(bytes));
    return TSU_SUCCESS;
}

}  // namespace

int do_host2device(Context* ctx, const void* src, void* dst, long bytes) {
    return transfer(ctx, src, dst, bytes, tsuemu::Site::HostToDevice);
}

int do_device2host(Context* ctx, const void* src, void* dst, long bytes) {
    return transfer(ctx, src, dst, bytes, tsuemu::Site::DeviceToHost);
}

}  // namespace orvane::tsu::api

namespace orvane::tsu::api_infrastructure {

bool should_check_precision(orvane::tsu::api::Context* ctx, const std::string& name) {
    return ctx != nullptr && !name.empty() && (ctx->debug_flags & orvane::tsu::api::kDebugPrecisionCheck) != 0;
}

}  // namespace orvane::tsu::api_infrastructure
