// Waiting without a handoff where possible: a waiter spins for a bounded
// time (the work it waits for usually takes microseconds) and only then
// sleeps on a futex, so that a loaded machine gets its cores back. A notify
// makes a system call only when someone is asleep.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>

namespace tsuplat {

inline void cpu_relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

inline void futex_wait(std::atomic<std::uint32_t>* word, std::uint32_t expected) noexcept {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}

inline void futex_wake(std::atomic<std::uint32_t>* word, int count) noexcept {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

// How long a waiter spins before it sleeps. Long enough to cover a short
// launch and the gap between the launches of a decode step; short against a
// scheduler's time slice, so that a spinner on a machine with more threads
// than cores costs the others little.
inline constexpr std::chrono::nanoseconds kSpinBudget = std::chrono::microseconds(50);

// Spins until pred() holds or the budget is spent; true if it holds.
template <class Pred>
bool spin_until(Pred&& pred, std::chrono::nanoseconds budget = kSpinBudget) noexcept {
    if (pred()) return true;
    const auto until = std::chrono::steady_clock::now() + budget;
    for (;;) {
        // The clock costs as much as a few dozen checks.
        for (int i = 0; i < 32; ++i) {
            cpu_relax();
            if (pred()) return true;
        }
        if (std::chrono::steady_clock::now() >= until) return pred();
    }
}

// Any number of threads wait for a condition that notifiers make true.
class Event {
public:
    // Call after making a waiter's condition true.
    void notify_all() noexcept {
        seq_.fetch_add(1, std::memory_order_seq_cst);
        if (sleepers_.load(std::memory_order_seq_cst) > 0) futex_wake(&seq_, INT_MAX);
    }

    template <class Pred>
    void wait(Pred&& pred, std::chrono::nanoseconds budget = kSpinBudget) noexcept {
        if (spin_until(pred, budget)) return;
        for (;;) {
            const std::uint32_t seen = seq_.load(std::memory_order_seq_cst);
            sleepers_.fetch_add(1, std::memory_order_seq_cst);
            // A notify after `seen` was read changes the word, and the futex
            // then returns at once: no wake-up is lost.
            if (!pred()) futex_wait(&seq_, seen);
            sleepers_.fetch_sub(1, std::memory_order_seq_cst);
            if (pred()) return;
        }
    }

private:
    std::atomic<std::uint32_t> seq_{0};
    std::atomic<int> sleepers_{0};
};

// One thread parks, any thread unparks it. An unpark before the park is kept
// as a token, and at most one system call is made per park.
class Parker {
public:
    void unpark() noexcept {
        if (state_.exchange(kNotified, std::memory_order_acq_rel) == kParked) futex_wake(&state_, 1);
    }

    // Returns when pred() holds or a token is there (taking it); the caller
    // then checks its condition again. Taking a token reads the unparker's
    // write, so what it published before the unpark is visible.
    template <class Pred>
    void park(Pred&& pred, std::chrono::nanoseconds budget = kSpinBudget) noexcept {
        if (spin_until([&] { return pred() || state_.load(std::memory_order_relaxed) == kNotified; }, budget)) {
            state_.exchange(kEmpty, std::memory_order_acq_rel);
            return;
        }
        std::uint32_t s = kEmpty;
        if (!state_.compare_exchange_strong(s, kParked, std::memory_order_acq_rel)) {
            state_.exchange(kEmpty, std::memory_order_acq_rel);
            return;
        }
        for (;;) {
            futex_wait(&state_, kParked);
            s = kNotified;
            if (state_.compare_exchange_strong(s, kEmpty, std::memory_order_acq_rel)) return;
        }
    }

private:
    static constexpr std::uint32_t kEmpty = 0;
    static constexpr std::uint32_t kParked = 1;
    static constexpr std::uint32_t kNotified = 2;
    std::atomic<std::uint32_t> state_{kEmpty};
};

}  // namespace tsuplat
