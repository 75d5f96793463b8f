// Streams, the launch sequence, transfers and the grid executor.
#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
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

// One queued launch: a fixed slot of a stream's ring, filled in place, so
// that queuing allocates nothing.
struct Slot {
    KernelEntry entry = nullptr;
    int nclusters = 1;
    int ncores = 1;
    alignas(64) std::array<unsigned char, tsuemu::kArgBlockCapacity> args;
};

tsuplat::WorkerPool& grid_pool() {
    static auto* pool = new tsuplat::WorkerPool(tsuplat::WorkerPool::default_size());
    return *pool;
}

struct GridJob {
    const Slot* slot;
    long total;
    int parts;
};

// A contiguous run of the grid's cores, cluster-major, on one host thread.
void run_grid_share(void* state, int part) noexcept {
    const auto& job = *static_cast<const GridJob*>(state);
    const Slot& l = *job.slot;
    const long begin = job.total * part / job.parts;
    const long end = job.total * (part + 1) / job.parts;
    const unsigned char* args = l.args.data();
    int cluster = static_cast<int>(begin / l.ncores);
    int core = static_cast<int>(begin % l.ncores);
    for (long c = begin; c < end; ++c) {
        tsuemu::detail::running_core = tsuemu::CorePosition{cluster, l.nclusters, core, l.ncores};
        l.entry(args);
        if (++core == l.ncores) {
            core = 0;
            ++cluster;
        }
    }
    tsuemu::detail::running_core = tsuemu::CorePosition{};
}

void run_grid(const Slot& l) {
    const long total = static_cast<long>(l.nclusters) * l.ncores;
    GridJob job{&l, total, static_cast<int>(std::min<long>(grid_pool().size(), total))};
    grid_pool().run(&run_grid_share, &job, job.parts);
}

// ---- pending launch of this thread -----------------------------------------
class Stream;

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

// ---- streams ---------------------------------------------------------------
// An in-order queue of launches. Launches are numbered from 0 in queue order;
// launch n may start only when launches before it have completed, so
// `claimed` runs at most one ahead of `completed`. Its worker runs what is
// queued, and so does any thread that waits on the stream and finds the next
// launch untaken: a caller that waits right after queuing needs no handoff.
class Stream {
public:
    static constexpr std::uint64_t kRingSlots = 64;

    Stream() : ring_(new Slot[kRingSlots]), worker_([this] { loop(); }) {}
    ~Stream() {
        drain();
        stop_.store(true, std::memory_order_release);
        parker_.unpark();
        worker_.join();
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // Queues the pending launch; in the synchronous mode also runs the
    // queue up to it on this thread, inside the stream's accounting, so that
    // a wait from another thread waits for it too.
    void push(const Pending& p, KernelEntry entry, bool sync) {
        std::unique_lock<std::mutex> lk(mu_);
        for (;;) {
            const std::uint64_t q = queued_.load(std::memory_order_relaxed);
            if (q - completed_.load(std::memory_order_acquire) < kRingSlots) break;
            // The ring is full: move it along rather than wait for the worker.
            lk.unlock();
            if (!run_next(q, false)) {
                progress_.wait([&] { return has_room() || claimable(q); });
            }
            lk.lock();
        }
        const std::uint64_t n = queued_.load(std::memory_order_relaxed);
        Slot& s = ring_[n % kRingSlots];
        s.entry = entry;
        s.nclusters = p.nclusters;
        s.ncores = p.ncores;
        std::memcpy(s.args.data(), p.args.data(), p.used);
        queued_.store(n + 1, std::memory_order_release);
        lk.unlock();
        if (sync) {
            drain_to(n + 1);
        } else {
            parker_.unpark();
        }
    }

    // Returns when every launch queued before the call has completed.
    void drain() { drain_to(queued_.load(std::memory_order_acquire)); }

private:
    bool has_room() const noexcept {
        return queued_.load(std::memory_order_acquire) - completed_.load(std::memory_order_acquire) < kRingSlots;
    }

    // The next launch is below `limit`, queued, and nothing runs.
    bool claimable(std::uint64_t limit) const noexcept {
        const std::uint64_t c = claimed_.load(std::memory_order_acquire);
        return c == completed_.load(std::memory_order_acquire) && c < limit &&
               c < queued_.load(std::memory_order_acquire);
    }

    // Runs the next launch if it is below `limit` and nothing runs.
    bool run_next(std::uint64_t limit, bool by_worker) {
        std::uint64_t n;
        {
            std::lock_guard<std::mutex> lk(mu_);
            if (!claimable(limit)) return false;
            n = claimed_.load(std::memory_order_relaxed);
            claimed_.store(n + 1, std::memory_order_release);
        }
        run_grid(ring_[n % kRingSlots]);
        completed_.store(n + 1, std::memory_order_release);
        progress_.notify_all();
        // What a waiter leaves queued behind its target is the worker's.
        if (!by_worker && queued_.load(std::memory_order_acquire) > n + 1) parker_.unpark();
        return true;
    }

    // The waiting thread runs the next launch when nobody has taken it, and
    // otherwise lends a hand with the grid that runs.
    void drain_to(std::uint64_t target) {
        tsuplat::WorkerPool& pool = grid_pool();
        while (completed_.load(std::memory_order_acquire) < target) {
            if (run_next(target, false)) continue;
            pool.help();
            progress_.wait([&] {
                return completed_.load(std::memory_order_acquire) >= target || claimable(target) || pool.has_parts();
            });
        }
    }

    void loop() {
        constexpr std::uint64_t all = ~std::uint64_t{0};
        for (;;) {
            if (run_next(all, true)) continue;
            if (stop_.load(std::memory_order_acquire)) return;  // drained by the destructor
            parker_.park([&] { return stop_.load(std::memory_order_relaxed) || claimable(all); });
        }
    }

    std::mutex mu_;  // claims, and the filling of a slot
    alignas(64) std::atomic<std::uint64_t> queued_{0};
    alignas(64) std::atomic<std::uint64_t> claimed_{0};
    alignas(64) std::atomic<std::uint64_t> completed_{0};
    std::atomic<bool> stop_{false};
    tsuplat::Event progress_;  // a launch completed
    tsuplat::Parker parker_;   // the worker's
    std::unique_ptr<Slot[]> ring_;
    std::thread worker_;
};

std::mutex g_streams_mu;
std::unordered_set<Stream*>& streams() {
    static auto* s = new std::unordered_set<Stream*>();
    return *s;
}
// Counts destroyed streams, so that a thread's last lookup can be trusted
// without the registry's lock while none has gone.
std::atomic<std::uint64_t> g_stream_epoch{0};

Stream* default_stream() {
    static Stream* s = [] {
        auto* st = new Stream();
        std::lock_guard<std::mutex> lk(g_streams_mu);
        streams().insert(st);
        return st;
    }();
    return s;
}

struct LastLookup {
    void* handle = nullptr;
    Stream* stream = nullptr;
    std::uint64_t epoch = 0;
};
thread_local LastLookup t_lookup;

Stream* resolve(void* handle) {
    if (handle == nullptr) return default_stream();
    const std::uint64_t epoch = g_stream_epoch.load(std::memory_order_acquire);
    if (t_lookup.handle == handle && t_lookup.epoch == epoch) return t_lookup.stream;
    std::lock_guard<std::mutex> lk(g_streams_mu);
    auto* s = static_cast<Stream*>(handle);
    if (!streams().count(s)) return nullptr;
    t_lookup = LastLookup{handle, s, epoch};
    return s;
}

// ---- observer and fault injection --------------------------------------------
std::mutex g_observer_mu;
std::shared_ptr<const std::function<void(const tsuemu::LaunchRecord&)>> g_observer;
// Set while an observer is installed: launches look no further without it.
std::atomic<bool> g_observing{false};

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

namespace detail {
thread_local constinit CorePosition running_core __attribute__((tls_model("initial-exec"))){};
}  // namespace detail

void set_launch_observer(std::function<void(const LaunchRecord&)> observer) {
    std::shared_ptr<const std::function<void(const LaunchRecord&)>> next;
    if (observer) next = std::make_shared<const std::function<void(const LaunchRecord&)>>(std::move(observer));
    std::lock_guard<std::mutex> lk(g_observer_mu);
    g_observing.store(next != nullptr, std::memory_order_release);
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
    try {
        auto s = std::make_unique<Stream>();
        std::lock_guard<std::mutex> lk(g_streams_mu);
        streams().insert(s.get());
        *stream = s.release();
    } catch (const std::exception&) {
        // No memory or no thread for the worker.
        return TSU_ERROR_OUT_OF_MEMORY;
    }
    return TSU_SUCCESS;
}

int tsu_stream_destroy(void* stream) {
    Stream* s = nullptr;
    {
        std::lock_guard<std::mutex> lk(g_streams_mu);
        auto* cand = static_cast<Stream*>(stream);
        if (cand == nullptr || !streams().count(cand)) return TSU_ERROR_INVALID_VALUE;
        streams().erase(cand);
        g_stream_epoch.fetch_add(1, std::memory_order_acq_rel);
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

    if (g_observing.load(std::memory_order_acquire)) {
        std::shared_ptr<const std::function<void(const tsuemu::LaunchRecord&)>> obs;
        {
            std::lock_guard<std::mutex> lk(g_observer_mu);
            obs = g_observer;
        }
        if (obs) {
            tsuemu::LaunchRecord rec;
            rec.kernel = kernel_name(d);
            rec.nclusters = p.nclusters;
            rec.ncores = p.ncores;
            rec.stream = p.handle;
            rec.args.assign(p.args.begin(), p.args.begin() + static_cast<long>(p.used));
            (*obs)(rec);
        }
    }
    p.stream->push(p, reinterpret_cast<KernelEntry>(d->image), tsuemu::sync_mode());
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
