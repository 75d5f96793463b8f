// Streams, the launch sequence, transfers and the grid executor.
#include <cxxabi.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_set>
#include <vector>

#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

#include "../common/worker_pool.h"

namespace {

using tsuemu::KernelDescriptor;
using tsuemu::KernelEntry;

// ---- grid position of the running core ---------------------------------
struct CorePosition {
    int cluster = 0;
    int clusters = 1;
    int core = 0;
    int cores = 1;
};
thread_local CorePosition t_pos;

struct Launch {
    KernelEntry entry = nullptr;
    int nclusters = 1;
    int ncores = 1;
    std::vector<unsigned char> args;
};

tsuplat::WorkerPool& grid_pool() {
    static auto* pool = new tsuplat::WorkerPool(tsuplat::WorkerPool::default_size());
    return *pool;
}

struct GridJob {
    const Launch* launch;
    int participants;
};

void run_grid_share(void* state, int p) {
    const auto& job = *static_cast<const GridJob*>(state);
    const Launch& l = *job.launch;
    const long total = static_cast<long>(l.nclusters) * l.ncores;
    const long begin = total * p / job.participants;
    const long end = total * (p + 1) / job.participants;
    const unsigned char* args = l.args.data();
    for (long c = begin; c < end; ++c) {
        t_pos = CorePosition{static_cast<int>(c / l.ncores), l.nclusters,
                             static_cast<int>(c % l.ncores), l.ncores};
        l.entry(args);
    }
    t_pos = CorePosition{};
}

void run_grid(const Launch& l) {
    GridJob job{&l, grid_pool().size()};
    grid_pool().run(&run_grid_share, &job);
}

// ---- streams ---------------------------------------------------------------
struct Stream {
    std::mutex mu;
    std::condition_variable work;
    std::condition_variable idle;
    std::deque<Launch> queue;
    bool busy = false;
    bool stop = false;
    std::thread worker;

    Stream() : worker([this] { loop(); }) {}
    ~Stream() {
        {
            std::lock_guard<std::mutex> lk(mu);
            stop = true;
        }
        work.notify_all();
        worker.join();
    }

    void loop() {
        std::unique_lock<std::mutex> lk(mu);
        for (;;) {
            work.wait(lk, [this] { return stop || !queue.empty(); });
            if (queue.empty()) return;  // stop requested and drained
            Launch l = std::move(queue.front());
            queue.pop_front();
            busy = true;
            lk.unlock();
            run_grid(l);
            lk.lock();
            busy = false;
            if (queue.empty()) idle.notify_all();
        }
    }

    void push(Launch&& l) {
        {
            std::lock_guard<std::mutex> lk(mu);
            queue.push_back(std::move(l));
        }
        work.notify_one();
    }

    void drain() {
        std::unique_lock<std::mutex> lk(mu);
        idle.wait(lk, [this] { return queue.empty() && !busy; });
    }
};

std::mutex g_streams_mu;
std::unordered_set<Stream*>& streams() {
    static auto* s = new std::unordered_set<Stream*>();
    return *s;
}

Stream* default_stream() {
    static Stream* s = [] {
        auto* st = new Stream();
        std::lock_guard<std::mutex> lk(g_streams_mu);
        streams().insert(st);
        return st;
    }();
    return s;
}

Stream* resolve(void* handle) {
    if (handle == nullptr) return default_stream();
    std::lock_guard<std::mutex> lk(g_streams_mu);
    auto* s = static_cast<Stream*>(handle);
    return streams().count(s) ? s : nullptr;
}

// ---- pending launch of this thread -----------------------------------------
struct Pending {
    bool open = false;
    int nclusters = 0;
    int ncores = 0;
    Stream* stream = nullptr;
    void* handle = nullptr;
    std::size_t used = 0;
    std::array<unsigned char, tsuemu::kArgBlockCapacity> args{};
};
thread_local Pending t_pending;

// ---- observer and fault injection --------------------------------------------
std::mutex g_observer_mu;
std::shared_ptr<const std::function<void(const tsuemu::LaunchRecord&)>> g_observer;

constexpr int kSites = 7;
struct Injection {
    bool active = false;
    int remaining = 0;
    int code = 0;
};
std::mutex g_inject_mu;
std::array<Injection, kSites> g_inject;
std::atomic<int> g_inject_active{0};

std::atomic<int> g_sync_override{-1};

std::string kernel_name(const KernelDescriptor* d) {
    const char* mangled = reinterpret_cast<const char*>(d->name);
    if (mangled == nullptr) return std::string();
    int status = 0;
    char* dem = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string out = (status == 0 && dem) ? dem : mangled;
    std::free(dem);
    // Function template names demangle with their return type first.
    if (out.rfind("void ", 0) == 0) out.erase(0, 5);
    return out;
}

}  // namespace

namespace tsuemu {

int cluster_id() noexcept { return t_pos.cluster; }
int cluster_count() noexcept { return t_pos.clusters; }
int core_id() noexcept { return t_pos.core; }
int core_count() noexcept { return t_pos.cores; }

void set_launch_observer(std::function<void(const LaunchRecord&)> observer) {
    std::shared_ptr<const std::function<void(const LaunchRecord&)>> next;
    if (observer) next = std::make_shared<const std::function<void(const LaunchRecord&)>>(std::move(observer));
    std::lock_guard<std::mutex> lk(g_observer_mu);
    g_observer = std::move(next);
}

void inject_failure(Site site, int nth, int code) {
    std::lock_guard<std::mutex> lk(g_inject_mu);
    auto& inj = g_inject[static_cast<int>(site)];
    if (!inj.active && nth >= 1) g_inject_active.fetch_add(1);
    if (inj.active && nth < 1) g_inject_active.fetch_sub(1);
    inj = Injection{nth >= 1, nth, code};
}

void clear_failures() {
    std::lock_guard<std::mutex> lk(g_inject_mu);
    g_inject.fill(Injection{});
    g_inject_active.store(0);
}

bool consume_failure(Site site, int* code) noexcept {
    if (g_inject_active.load(std::memory_order_relaxed) == 0) return false;
    std::lock_guard<std::mutex> lk(g_inject_mu);
    auto& inj = g_inject[static_cast<int>(site)];
    if (!inj.active || --inj.remaining > 0) return false;
    inj.active = false;
    g_inject_active.fetch_sub(1);
    if (code) *code = inj.code;
    return true;
}

void set_sync_override(int mode) { g_sync_override.store(mode); }

bool sync_mode() noexcept {
    const int o = g_sync_override.load(std::memory_order_relaxed);
    if (o >= 0) return o != 0;
    static const bool env = [] {
        const char* v = std::getenv("TSUEMU_SYNC");
        return v != nullptr && std::strcmp(v, "1") == 0;
    }();
    return env;
}

}  // namespace tsuemu

extern "C" {

int tsu_stream_create(void** stream) {
    if (stream == nullptr) return TSU_ERROR_INVALID_VALUE;
    auto* s = new Stream();
    std::lock_guard<std::mutex> lk(g_streams_mu);
    streams().insert(s);
    *stream = s;
    return TSU_SUCCESS;
}

int tsu_stream_destroy(void* stream) {
    Stream* s = nullptr;
    {
        std::lock_guard<std::mutex> lk(g_streams_mu);
        auto* cand = static_cast<Stream*>(stream);
        if (cand == nullptr || !streams().count(cand)) return TSU_ERROR_INVALID_VALUE;
        streams().erase(cand);
        s = cand;
    }
    delete s;  // drains its queue before the worker exits
    return TSU_SUCCESS;
}

int tsu_launch_config(int nclusters, int ncores, void* stream) {
    int code = 0;
    if (tsuemu::consume_failure(tsuemu::Site::Config, &code)) return code;
    if (nclusters < 1 || ncores < 1) return TSU_ERROR_INVALID_VALUE;
    Stream* s = resolve(stream);
    if (s == nullptr) return TSU_ERROR_INVALID_VALUE;
    Pending& p = t_pending;
    p.open = true;
    p.nclusters = nclusters;
    p.ncores = ncores;
    p.stream = s;
    p.handle = stream;
    // Padding between slots must not carry an earlier launch's bytes.
    std::memset(p.args.data(), 0, p.used);
    p.used = 0;
    return TSU_SUCCESS;
}

int tsu_launch_argument_set(const void* value, size_t bytes, size_t offset) {
    int code = 0;
    if (tsuemu::consume_failure(tsuemu::Site::ArgumentSet, &code)) return code;
    Pending& p = t_pending;
    if (!p.open) return TSU_ERROR_NOT_CONFIGURED;
    if (offset > p.args.size() || bytes > p.args.size() - offset) return TSU_ERROR_INVALID_VALUE;
    if (bytes > 0 && value == nullptr) return TSU_ERROR_INVALID_VALUE;
    std::memcpy(p.args.data() + offset, value, bytes);
    if (offset + bytes > p.used) p.used = offset + bytes;
    return TSU_SUCCESS;
}

int tsu_launch_async(const void* descriptor) {
    int code = 0;
    if (tsuemu::consume_failure(tsuemu::Site::Async, &code)) return code;
    Pending& p = t_pending;
    if (!p.open) return TSU_ERROR_NOT_CONFIGURED;
    const auto* d = static_cast<const KernelDescriptor*>(descriptor);
    if (d == nullptr || d->image == 0) return TSU_ERROR_INVALID_VALUE;
    p.open = false;

    Launch l;
    l.entry = reinterpret_cast<KernelEntry>(d->image);
    l.nclusters = p.nclusters;
    l.ncores = p.ncores;
    l.args.assign(p.args.begin(), p.args.begin() + static_cast<long>(p.used));

    std::shared_ptr<const std::function<void(const tsuemu::LaunchRecord&)>> obs;
    {
        std::lock_guard<std::mutex> lk(g_observer_mu);
        obs = g_observer;
    }
    if (obs) {
        tsuemu::LaunchRecord rec;
        rec.kernel = kernel_name(d);
        rec.nclusters = l.nclusters;
        rec.ncores = l.ncores;
        rec.stream = p.handle;
        rec.args = l.args;
        (*obs)(rec);
    }
    if (tsuemu::sync_mode()) {
        p.stream->drain();
        run_grid(l);
    } else {
        p.stream->push(std::move(l));
    }
    return TSU_SUCCESS;
}

int tsu_wait(void* stream) {
    Stream* s = resolve(stream);
    if (s == nullptr) return TSU_ERROR_INVALID_VALUE;
    s->drain();
    return TSU_SUCCESS;
}

int tsu_memcpy(void* dst, const void* src, size_t bytes, int kind) {
    int code = 0;
    if (tsuemu::consume_failure(tsuemu::Site::Memcpy, &code)) return code;
    if (kind < TSU_MEMCPY_D2H || kind > TSU_MEMCPY_D2D) return TSU_ERROR_INVALID_VALUE;
    if (bytes > 0 && (dst == nullptr || src == nullptr)) return TSU_ERROR_INVALID_VALUE;
    {
        // Held while draining so that no stream is destroyed under us; the
        // workers never take this lock.
        std::lock_guard<std::mutex> lk(g_streams_mu);
        for (Stream* s : streams()) s->drain();
    }
    if (bytes > 0) std::memmove(dst, src, bytes);
    return TSU_SUCCESS;
}

}  // extern "C"
