// The fixed cost of a call at decode shapes, where one or a few tokens pass
// through each operator and the launch, not the bandwidth, sets the speed:
// the empty launch with its wait, a decode step of ten dependent small
// launches and one wait (both also beside a competing busy thread and in the
// synchronous mode), two operators at 1 and 16 rows on the device, and the
// host frame around a tiny operator. Per-call times are the figures to read;
// the bytes of the operators read against the copy baseline of their size.
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;

constexpr long kHidden = 4096;
constexpr long kDecodeRows[] = {1, 16};

// x and y of the operators at 16 rows of 16-bit elements.
const bool kBaseline = (register_copy_baseline({2 * kHidden * 2, 16 * kHidden * 2}), true);

// A thread that spins until it goes: another process's work on a core.
class BusyThread {
public:
    BusyThread()
        : t_([this] {
              unsigned long n = 0;
              while (!stop_.load(std::memory_order_relaxed)) benchmark::DoNotOptimize(++n);
          }) {}
    ~BusyThread() {
        stop_.store(true);
        t_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread t_;
};

// tsu3::add_one(long* x, long n): x[i] += 1 over each core's share, so that
// every launch depends on the one before it.
void add_one_entry(const unsigned char* args) {
    long* x;
    long n;
    std::memcpy(&x, args, 8);
    std::memcpy(&n, args + 8, 8);
    const long cores = tsuemu::global_core_count(), me = tsuemu::global_core_id();
    for (long i = n * me / cores; i < n * (me + 1) / cores; ++i) x[i] += 1;
}
const char kAddOneName[] = "_ZN4tsu37add_oneEPll";

int launch_add_one(Context* ctx, long* x, long n) {
    static const tsuemu::KernelDescriptor desc = detail::descriptor(&add_one_entry, kAddOneName);
    int rc = tsu_launch_config(ctx->ncluster, 64, ctx->stream);
    if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&x, 8, 0);
    if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&n, 8, 8);
    if (rc == TSU_SUCCESS) rc = tsu_launch_async(&desc);
    return rc;
}

enum class Load { quiet, busy, sync };

const char* load_label(Load l) { return l == Load::quiet ? "quiet" : l == Load::busy ? "busy" : "sync"; }

// What surrounds a timed loop: the competing thread or the synchronous mode.
class Setting {
public:
    explicit Setting(Load l) : load_(l) {
        if (l == Load::busy) busy_ = std::make_unique<BusyThread>();
        if (l == Load::sync) tsuemu::set_sync_override(1);
    }
    ~Setting() {
        if (load_ == Load::sync) tsuemu::set_sync_override(-1);
    }

private:
    Load load_;
    std::unique_ptr<BusyThread> busy_;
};

// Config, one argument, queue, a grid of 8 x 64 cores that does nothing, wait.
void BM_empty_launch_wait(benchmark::State& state, Load load) {
    auto ctx = device_context();
    Setting setting(load);
    for (auto _ : state) {
        if (launch_empty(ctx.get(), nullptr) != TSU_SUCCESS || tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("launch failed");
            break;
        }
    }
}

// Ten launches of 8 x 64 cores, each over what the one before wrote (4096
// values, 8 per core), then one wait.
void BM_decode_step(benchmark::State& state, Load load) {
    constexpr long n = 4096;
    auto ctx = device_context();
    DeviceBuffer x(n * 8);
    std::memset(x.data(), 0, n * 8);
    Setting setting(load);
    for (auto _ : state) {
        for (int k = 0; k < 10; ++k) {
            if (launch_add_one(ctx.get(), x.as<long>(), n) != TSU_SUCCESS) state.SkipWithError("launch failed");
        }
        if (tsu_wait(ctx->stream) != TSU_SUCCESS) state.SkipWithError("wait failed");
    }
    const long want = 10 * static_cast<long>(state.iterations());
    for (long i = 0; i < n; ++i) {
        if (x.as<long>()[i] != want) {
            state.SkipWithError("a launch was lost or ran out of order");
            break;
        }
    }
}

std::vector<float16> halves(long n) {
    std::vector<float16> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) v[static_cast<std::size_t>(i)] = float16(static_cast<float>((i * 37) % 200 - 100) / 64.0f);
    return v;
}

// Per call, with its wait: what one layer's norm costs a decode step.
void BM_rms_layer_norm(benchmark::State& state, long rows) {
    auto ctx = device_context();
    const long n = rows * kHidden;
    DeviceBuffer x(n * 2), y(n * 2), w(kHidden * 2);
    std::memcpy(x.data(), halves(n).data(), static_cast<std::size_t>(n) * 2);
    std::memcpy(w.data(), halves(kHidden).data(), kHidden * 2);
    for (auto _ : state) {
        if (infer_ops::rms_layer_norm<float16, float16>(ctx.get(), x.as<float16>(), y.as<float16>(), rows, kHidden,
                                                        1e-6f, w.as<float16>(), nullptr, nullptr, false) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("rms_layer_norm failed");
            break;
        }
    }
    state.SetBytesProcessed((2 * n * 2 + kHidden * 2) * static_cast<std::int64_t>(state.iterations()));
}

void BM_quant2d(benchmark::State& state, long rows) {
    auto ctx = device_context();
    const long n = rows * kHidden;
    DeviceBuffer x(n * 2), y(n), scale(rows * 4);
    std::memcpy(x.data(), halves(n).data(), static_cast<std::size_t>(n) * 2);
    for (auto _ : state) {
        if (infer_ops::quant2d<float16>(ctx.get(), x.as<float16>(), y.as<signed char>(), scale.as<float>(), rows,
                                        kHidden, -1, false) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("quant2d failed");
            break;
        }
    }
    state.SetBytesProcessed((n * 3 + rows * 4) * static_cast<std::int64_t>(state.iterations()));
}

// The whole frame of a host call around four stores.
void BM_host_constant(benchmark::State& state) {
    Context ctx(DeviceType::CPU);
    float x[4];
    for (auto _ : state) {
        if (infer_ops::constant<float>(&ctx, x, 4, 1.5f) != 0) {
            state.SkipWithError("constant failed");
            break;
        }
        benchmark::DoNotOptimize(x);
        benchmark::ClobberMemory();
    }
}

const bool kRegistered = [] {
    for (Load l : {Load::quiet, Load::busy, Load::sync}) {
        const std::string label = load_label(l);
        per_call(benchmark::RegisterBenchmark(("launch/empty_wait/" + label).c_str(), BM_empty_launch_wait, l));
        per_call(benchmark::RegisterBenchmark(("launch/decode_step/" + label).c_str(), BM_decode_step, l));
    }
    for (long rows : kDecodeRows) {
        const std::string shape = std::to_string(rows) + "x" + std::to_string(kHidden);
        per_call(benchmark::RegisterBenchmark(("rms_layer_norm<float16,float16>/device/" + shape).c_str(),
                                               BM_rms_layer_norm, rows));
        per_call(benchmark::RegisterBenchmark(("quant2d<float16>/device/" + shape).c_str(), BM_quant2d, rows));
    }
    benchmark::RegisterBenchmark("constant<float>/host/4", BM_host_constant)
        ->Unit(benchmark::kNanosecond)
        ->MinTime(kMinTime);
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
