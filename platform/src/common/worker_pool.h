// A fixed team of host threads that runs one job at a time. A job has up to
// size() parts; the caller and the pool's threads take parts in order until
// none is left, so a part goes to whichever thread is there first and a late
// or descheduled thread delays nothing. The caller wakes the pool once per
// job at most, and not at all while its threads are still spinning.
#pragma once

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "spin_wait.h"

namespace tsuplat {

class WorkerPool {
public:
    // Runs part `part` of the job; must not throw.
    using Job = void (*)(void* state, int part) noexcept;

    explicit WorkerPool(int participants) : size_(std::clamp(participants, 1, 0xffff)) {
        threads_.reserve(static_cast<std::size_t>(size_ - 1));
        for (int p = 1; p < size_; ++p) threads_.emplace_back([this] { loop(); });
    }
    ~WorkerPool() {
        stop_.store(true, std::memory_order_seq_cst);
        start_.notify_all();
        for (auto& t : threads_) t.join();
    }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    int size() const { return size_; }

    // Runs job(state, p) once for every p in [0, parts) and returns when all
    // have run. While another caller's job holds the team, this caller runs
    // all its parts itself: jobs of concurrent callers never share the team.
    void run(Job job, void* state, int parts) {
        parts = std::min(parts, size_);
        std::unique_lock<std::mutex> owner(run_mu_, std::try_to_lock);
        if (parts <= 1 || !owner.owns_lock()) {
            for (int p = 0; p < parts; ++p) job(state, p);
            return;
        }
        job_ = job;
        state_ = state;
        done_.store(0, std::memory_order_relaxed);
        const std::uint64_t gen = (claim_.load(std::memory_order_relaxed) >> 32) + 1;
        claim_.store(gen << 32 | static_cast<std::uint64_t>(parts) << 16, std::memory_order_release);
        start_.notify_all();
        take_parts(gen);
        finish_.wait([&] { return done_.load(std::memory_order_acquire) == parts; });
    }

    // Takes parts of the running job, if any are left: a thread that waits
    // for the job's end spends its time on it instead.
    void help() noexcept { take_parts(claim_.load(std::memory_order_acquire) >> 32); }

    // Whether the running job has parts that nobody has taken.
    bool has_parts() const noexcept {
        const std::uint64_t c = claim_.load(std::memory_order_acquire);
        return (c & 0xffffu) < ((c >> 16) & 0xffffu);
    }

    // The CPUs this process may run on (a cpuset or taskset may allow fewer
    // than the machine has): more threads than that only wait for a core.
    static int default_size() {
        cpu_set_t set;
        if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0) return CPU_COUNT(&set);
        unsigned n = std::thread::hardware_concurrency();
        return n == 0 ? 1 : static_cast<int>(n);
    }

private:
    // Claims and runs parts of job `gen` until none is left. The claim word
    // holds the job's number and part count beside the next part, so a
    // thread that arrives after its job has ended claims nothing, and job_
    // and state_ are read only under a claim, while their owner still waits
    // for the part.
    void take_parts(std::uint64_t gen) noexcept {
        std::uint64_t c = claim_.load(std::memory_order_acquire);
        while ((c >> 32) == gen && (c & 0xffffu) < ((c >> 16) & 0xffffu)) {
            if (!claim_.compare_exchange_weak(c, c + 1, std::memory_order_acq_rel, std::memory_order_acquire)) continue;
            const int part = static_cast<int>(c & 0xffffu);
            const int parts = static_cast<int>((c >> 16) & 0xffffu);
            job_(state_, part);
            if (done_.fetch_add(1, std::memory_order_acq_rel) + 1 == parts) finish_.notify_all();
            c = claim_.load(std::memory_order_acquire);
        }
    }

    void loop() noexcept {
        std::uint64_t seen = 0;
        for (;;) {
            start_.wait([&] {
                return stop_.load(std::memory_order_relaxed) ||
                       (claim_.load(std::memory_order_acquire) >> 32) != seen;
            });
            if (stop_.load(std::memory_order_acquire)) return;
            seen = claim_.load(std::memory_order_acquire) >> 32;
            take_parts(seen);
        }
    }

    const int size_;
    std::vector<std::thread> threads_;
    std::mutex run_mu_;  // the team serves one job at a time
    Job job_ = nullptr;
    void* state_ = nullptr;
    // job number << 32 | part count << 16 | next part
    alignas(64) std::atomic<std::uint64_t> claim_{0};
    alignas(64) std::atomic<int> done_{0};
    std::atomic<bool> stop_{false};
    Event start_;
    Event finish_;
};

}  // namespace tsuplat
