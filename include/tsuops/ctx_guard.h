// Scoped scratch of one operator call. On a device it marks both scratch
// pools of the context and rolls them back when it ends, so whatever an
// operator takes is given back without bookkeeping; on the host it hands out
// malloc blocks that die with it. A caller may replace the general device
// scratch by an allocator of its own (Context::overload_alloc).
#pragma once

#include <concepts>
#include <functional>
#include <vector>

#include <tsuapi/tsuapi.h>
#include <tsuops/float16.h>

namespace orvane::tsu::api {

// Element types that alloc_cpu serves.
template <class T>
concept ctx_guard_host_type =
    std::same_as<T, float> || std::same_as<T, float16> || std::same_as<T, bfloat16> || std::same_as<T, int> ||
    std::same_as<T, long> || std::same_as<T, bool> || std::same_as<T, unsigned int>;

class ctx_guard {
public:
    Context* ctx;
    std::vector<void*> host_buffers;
    std::function<void*(unsigned long)> overload_alloc;
    std::function<void()> overload_free;

    // Takes over the context's allocator (if any) and calls its enter hook,
    // then marks the general pool, then the fast pool. A null context is
    // accepted: such a guard hands out nothing.
    explicit ctx_guard(Context* ctx);
    // Calls the release hook (if any), rolls back the general pool, then the
    // fast pool, then frees the host blocks. Also runs while an exception
    // passes, so everything taken in the scope is given back.
    ~ctx_guard();
    ctx_guard(const ctx_guard&) = delete;
    ctx_guard& operator=(const ctx_guard&) = delete;

    void set_overload_alloc(std::function<void*(unsigned long)> alloc, std::function<void()> free);

    // General scratch: host malloc on a host context, else the caller's
    // allocator if there is one, else the general pool. Null when none serves
    // (n = 0 still asks, for 0 bytes).
    template <class T>
    T* alloc(unsigned long n) {
        return static_cast<T*>(alloc_bytes(n, sizeof(T), false));
    }
    // Scratch from the fast pool first; when it cannot serve, as alloc.
    template <class T>
    T* alloc_l3_first(unsigned long n) {
        return static_cast<T*>(alloc_bytes(n, sizeof(T), true));
    }
    // A malloc block owned by the guard; null (and nothing kept) on failure.
    template <ctx_guard_host_type T>
    T* alloc_cpu(unsigned long n) {
        return static_cast<T*>(alloc_cpu_bytes(n, sizeof(T)));
    }

private:
    void* alloc_bytes(unsigned long n, unsigned long elem_size, bool l3_first);
    void* alloc_cpu_bytes(unsigned long n, unsigned long elem_size);
};

}  // namespace orvane::tsu::api
