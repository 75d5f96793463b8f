// A fixed team of host threads that runs one job at a time: the caller is
// participant 0 and the pool's threads are participants 1..size-1.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace tsuplat {

class WorkerPool {
public:
    using Job = void (*)(void* state, int participant);

    explicit WorkerPool(int participants) : size_(std::max(1, participants)) {
        threads_.reserve(static_cast<std::size_t>(size_ - 1));
        for (int p = 1; p < size_; ++p) threads_.emplace_back([this, p] { loop(p); });
    }
    ~WorkerPool() {
        {
            std::lock_guard<std::mutex> lk(mu_);
            stop_ = true;
        }
        wake_.notify_all();
        for (auto& t : threads_) t.join();
    }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    int size() const { return size_; }

    // Runs job(state, p) for every participant p and returns when all are done.
    // Jobs of concurrent callers are serialised.
    void run(Job job, void* state) {
        std::lock_guard<std::mutex> serial(run_mu_);
        if (size_ == 1) {
            job(state, 0);
            return;
        }
        {
            std::lock_guard<std::mutex> lk(mu_);
            job_ = job;
            state_ = state;
            pending_.store(size_ - 1, std::memory_order_relaxed);
            ++generation_;
        }
        wake_.notify_all();
        job(state, 0);
        std::unique_lock<std::mutex> lk(mu_);
        done_.wait(lk, [this] { return pending_.load(std::memory_order_acquire) == 0; });
    }

    static int default_size() {
        unsigned n = std::thread::hardware_concurrency();
        return n == 0 ? 1 : static_cast<int>(n);
    }

private:
    void loop(int p) {
        std::uint64_t seen = 0;
        for (;;) {
            Job job;
            void* state;
            {
                std::unique_lock<std::mutex> lk(mu_);
                wake_.wait(lk, [&] { return stop_ || generation_ != seen; });
                if (stop_) return;
                seen = generation_;
                job = job_;
                state = state_;
            }
            job(state, p);
            if (pending_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                std::lock_guard<std::mutex> lk(mu_);
                done_.notify_one();
            }
        }
    }

    const int size_;
    std::vector<std::thread> threads_;
    std::mutex run_mu_;
    std::mutex mu_;
    std::condition_variable wake_;
    std::condition_variable done_;
    Job job_ = nullptr;
    void* state_ = nullptr;
    std::uint64_t generation_ = 0;
    std::atomic<int> pending_{0};
    bool stop_ = false;
};

}  // namespace tsuplat
