#include <cstdlib>
#include <exception>
#include <mutex>

#include <tsuapi/tsuapi.h>

#include "../common/worker_pool.h"

namespace orvane::tsu::api::cpu {

namespace {

thread_local int t_thread_num = 0;
thread_local bool t_in_parallel = false;

tsuplat::WorkerPool& pool() {
    // TSUAPI_NUM_THREADS caps the team; leaked so that it outlives static destruction.
    static auto* p = [] {
        int n = tsuplat::WorkerPool::default_size();
        if (const char* v = std::getenv("TSUAPI_NUM_THREADS")) {
            const long want = std::strtol(v, nullptr, 10);
            if (want >= 1 && want < 1024) n = static_cast<int>(want);
        }
        return new tsuplat::WorkerPool(n);
    }();
    return *p;
}

struct ParallelJob {
    long begin;
    long end;
    long chunks;
    const std::function<void(long, long)>* f;
    std::mutex err_mu;
    std::exception_ptr error;
};

void run_chunk(void* state, int p) noexcept {
    auto& job = *static_cast<ParallelJob*>(state);
    if (p >= job.chunks) return;
    const long n = job.end - job.begin;
    const long b = job.begin + n * p / job.chunks;
    const long e = job.begin + n * (p + 1) / job.chunks;
    const int saved = t_thread_num;
    t_thread_num = p;
    t_in_parallel = true;
    try {
        (*job.f)(b, e);
    } catch (...) {
        std::lock_guard<std::mutex> lk(job.err_mu);
        if (!job.error) job.error = std::current_exception();
    }
    t_in_parallel = false;
    t_thread_num = saved;
}

}  // namespace

int get_thread_num() { return t_thread_num; }
int get_num_threads() { return pool().size(); }
bool in_parallel_region() { return t_in_parallel; }

namespace internal {

void set_thread_num(int id) { t_thread_num = id; }

void invoke_parallel(long begin, long end, long grain, const std::function<void(long, long)>& f) {
    if (end <= begin) return;
    const long n = end - begin;
    const long threads = get_num_threads();
    // Whole chunks of at least `grain`: the count rounds down.
    const long g = grain > 0 ? grain : 1;
    long chunks = n / g;
    if (chunks < 1) chunks = 1;
    if (chunks > threads) chunks = threads;
    if (t_in_parallel || chunks <= 1) {
        f(begin, end);
        return;
    }
    ParallelJob job{begin, end, chunks, &f, {}, nullptr};
    pool().run(&run_chunk, &job, static_cast<int>(chunks));
    if (job.error) std::rethrow_exception(job.error);
}

}  // namespace internal

}  // namespace orvane::tsu::api::cpu
