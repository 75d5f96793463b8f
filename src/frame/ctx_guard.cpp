#include <tsuops/ctx_guard.h>

#include <cstdlib>
#include <limits>
#include <utility>

namespace orvane::tsu::api {

ctx_guard::ctx_guard(Context* c) : ctx(c) {
    if (ctx == nullptr) return;
    if (ctx->overload_alloc) {
        set_overload_alloc(ctx->overload_alloc, ctx->overload_free);
        if (ctx->overload_enter) ctx->overload_enter();
    }
    ctx->gm_mgr.save();
    // The destructor does not run for a constructor that throws, so a mark
    // already pushed has to be popped here to keep the pools' marks paired.
    try {
        ctx->l3_mgr.save();
    } catch (...) {
        ctx->gm_mgr.restore(ctx->stream);
        throw;
    }
}

ctx_guard::~ctx_guard() {
    if (ctx != nullptr) {
        // No argument: the caller's allocator knows what it handed out.
        if (overload_free) overload_free();
        ctx->gm_mgr.restore(ctx->stream);
        ctx->l3_mgr.restore(ctx->stream);
    }
    for (void* p : host_buffers) std::free(p);
}

void ctx_guard::set_overload_alloc(std::function<void*(unsigned long)> alloc, std::function<void()> free) {
    overload_alloc = std::move(alloc);
    overload_free = std::move(free);
}

void* ctx_guard::alloc_bytes(unsigned long n, unsigned long elem_size, bool l3_first) {
    if (ctx == nullptr) return nullptr;
    if (ctx->dev_type == 0) return alloc_cpu_bytes(n, elem_size);
    // A count whose byte size wraps would hand out a block smaller than asked.
    if (n > std::numeric_limits<unsigned long>::max() / elem_size) return nullptr;
    const unsigned long bytes = n * elem_size;
    if (l3_first) {
        // The fast pool comes before the caller's allocator.
        if (void* p = ctx->l3_mgr.alloc(ctx->impl, bytes, ctx->stream)) return p;
    }
    if (overload_alloc) return overload_alloc(bytes);
    return ctx->gm_mgr.alloc(ctx->impl, bytes, ctx->stream);
}

void* ctx_guard::alloc_cpu_bytes(unsigned long n, unsigned long elem_size) {
    if (n > std::numeric_limits<unsigned long>::max() / elem_size) return nullptr;
    // Room for the record first: once malloc has succeeded nothing may throw,
    // or the block would be lost.
    host_buffers.reserve(host_buffers.size() + 1);
    void* p = std::malloc(n * elem_size);
    if (p == nullptr) return nullptr;
    host_buffers.push_back(p);
    return p;
}

}  // namespace orvane::tsu::api
