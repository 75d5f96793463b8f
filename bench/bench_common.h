// What every benchmark program shares: the copy baseline its results are read
// against, a device context and device memory.
//
// register_copy_baseline(sizes) registers, for each size, a host memcpy and a
// copy kernel on the emulated device, each reporting bytes read plus bytes
// written per second. An operator that streams memory can at best reach the
// device copy of the same bytes; read its bytes per second as a fraction of
// that. Call it once per program, e.g. from a namespace-scope initialiser:
//   const bool kBaseline = (tsuops_bench::register_copy_baseline({8 << 20}), true);
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuapi/tsuapi.h>
#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

namespace tsuops_bench {

using orvane::tsu::api::Context;
using orvane::tsu::api::ContextOptions;
using orvane::tsu::api::DeviceType;

inline constexpr long kKiB = 1l << 10;
inline constexpr long kMiB = 1l << 20;
inline constexpr long kGiB = 1l << 30;

// Short benchmark runs by default; --benchmark_min_time overrides per run.
inline constexpr double kMinTime = 0.1;

inline std::unique_ptr<Context> device_context(const ContextOptions& opts = {}) {
    return std::make_unique<Context>(DeviceType::TSU3, opts);
}

// A block of type-3 device memory, touched once so that page faults stay out
// of the timings. Aborts the program when the arena cannot serve it: a
// benchmark without its memory measures nothing.
class DeviceBuffer {
public:
    explicit DeviceBuffer(long bytes) : bytes_(bytes) {
        if (tsu_malloc(&p_, static_cast<unsigned long>(bytes), 3) != TSU_SUCCESS || p_ == nullptr) {
            std::fprintf(stderr, "bench: no device memory for %ld bytes\n", bytes);
            std::abort();
        }
        std::memset(p_, 0x3c, static_cast<std::size_t>(bytes));
    }
    ~DeviceBuffer() { tsu_free(p_); }
    DeviceBuffer(const DeviceBuffer&) = delete;
    DeviceBuffer& operator=(const DeviceBuffer&) = delete;

    void* data() const { return p_; }
    template <class T>
    T* as() const {
        return static_cast<T*>(p_);
    }
    long bytes() const { return bytes_; }

private:
    void* p_ = nullptr;
    long bytes_ = 0;
};

// "2MiB", "1GiB", "4096B".
inline std::string bytes_label(long bytes) {
    if (bytes % kGiB == 0) return std::to_string(bytes / kGiB) + "GiB";
    if (bytes % kMiB == 0) return std::to_string(bytes / kMiB) + "MiB";
    if (bytes % kKiB == 0) return std::to_string(bytes / kKiB) + "KiB";
    return std::to_string(bytes) + "B";
}

namespace detail {

inline constexpr long kLine = 64;

// Loop distribution would turn the loop into a call of the C library's
// memcpy; the baseline is what a vectorised kernel loop achieves.
__attribute__((optimize("no-tree-loop-distribute-patterns"))) inline void copy_lines(
    std::uint64_t* __restrict dst, const std::uint64_t* __restrict src, long lines) {
    for (long l = 0; l < lines; ++l) {
        for (int j = 0; j < 8; ++j) dst[l * 8 + j] = src[l * 8 + j];
    }
}

// tsu3::stream_copy(char* dst, const char* src, long bytes): each core copies
// one contiguous run of whole 64-byte lines; the last core also takes the
// tail shorter than a line.
inline void stream_copy_entry(const unsigned char* args) {
    char* dst;
    const char* src;
    long bytes;
    std::memcpy(&dst, args, 8);
    std::memcpy(&src, args + 8, 8);
    std::memcpy(&bytes, args + 16, 8);
    const long lines = bytes / kLine;
    const long cores = tsuemu::global_core_count();
    const long me = tsuemu::global_core_id();
    const long first = lines * me / cores;
    const long last = lines * (me + 1) / cores;
    copy_lines(reinterpret_cast<std::uint64_t*>(dst + first * kLine),
               reinterpret_cast<const std::uint64_t*>(src + first * kLine), last - first);
    if (me == cores - 1) {
        for (long i = lines * kLine; i < bytes; ++i) dst[i] = src[i];
    }
}

inline const char kStreamCopyName[] = "_ZN4tsu311stream_copyEPcPKcl";
inline void empty_entry(const unsigned char*) {}
inline const char kEmptyName[] = "_ZN4tsu35emptyEPv";

inline tsuemu::KernelDescriptor descriptor(tsuemu::KernelEntry entry, const char* name) {
    return tsuemu::KernelDescriptor{0, reinterpret_cast<std::uint64_t>(entry), 0, 0, 0,
                                    reinterpret_cast<std::uint64_t>(name), 0, 0};
}

}  // namespace detail

// Queues the copy kernel on the context's stream on (ncluster, 64) cores;
// the runtime's code.
inline int launch_device_copy(Context* ctx, void* dst, const void* src, long bytes) {
    static const tsuemu::KernelDescriptor desc = detail::descriptor(&detail::stream_copy_entry, detail::kStreamCopyName);
    int rc = tsu_launch_config(ctx->ncluster, 64, ctx->stream);
    if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&dst, 8, 0);
    if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&src, 8, 8);
    if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&bytes, 8, 16);
    if (rc == TSU_SUCCESS) rc = tsu_launch_async(&desc);
    return rc;
}

// Queues a kernel that does nothing on (ncluster, 64) cores, with one
// pointer argument: the fixed cost of a launch.
inline int launch_empty(Context* ctx, void* arg) {
    static const tsuemu::KernelDescriptor desc = detail::descriptor(&detail::empty_entry, detail::kEmptyName);
    int rc = tsu_launch_config(ctx->ncluster, 64, ctx->stream);
    if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&arg, 8, 0);
    if (rc == TSU_SUCCESS) rc = tsu_launch_async(&desc);
    return rc;
}

// Times per call in microseconds over real time: the setting of every
// decode-shape benchmark.
inline benchmark::internal::Benchmark* per_call(benchmark::internal::Benchmark* b) {
    return b->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(kMinTime);
}

// An empty launch and its wait, the floor under every per-call figure.
inline void empty_launch_wait(benchmark::State& state) {
    auto ctx = device_context();
    for (auto _ : state) {
        if (launch_empty(ctx.get(), nullptr) != TSU_SUCCESS || tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("launch failed");
            break;
        }
    }
}

// Registers the empty launch under `name` beside an operator's per-call figures.
inline void register_empty_launch(const char* name) { per_call(benchmark::RegisterBenchmark(name, empty_launch_wait)); }

// Copies of at least this many bytes run a fixed, small number of iterations.
inline constexpr long kBigCopy = 256 * kMiB;

inline void host_memcpy_copy(benchmark::State& state, long bytes) {
    std::vector<char> src(static_cast<std::size_t>(bytes), 1);
    std::vector<char> dst(static_cast<std::size_t>(bytes), 0);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), static_cast<std::size_t>(bytes));
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(2 * bytes * static_cast<std::int64_t>(state.iterations()));
}

inline void device_kernel_copy(benchmark::State& state, long bytes) {
    auto ctx = device_context();
    DeviceBuffer src(bytes);
    DeviceBuffer dst(bytes);
    for (auto _ : state) {
        if (launch_device_copy(ctx.get(), dst.data(), src.data(), bytes) != TSU_SUCCESS ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("launch failed");
            break;
        }
    }
    if (std::memcmp(src.data(), dst.data(), static_cast<std::size_t>(bytes)) != 0) {
        state.SkipWithError("the device copy is wrong");
    }
    state.SetBytesProcessed(2 * bytes * static_cast<std::int64_t>(state.iterations()));
}

// Registers copy/host_memcpy/<size> and copy/device_kernel/<size> for each size.
inline void register_copy_baseline(std::initializer_list<long> byte_sizes) {
    for (long bytes : byte_sizes) {
        const std::string label = bytes_label(bytes);
        auto* host = benchmark::RegisterBenchmark(("copy/host_memcpy/" + label).c_str(), host_memcpy_copy, bytes);
        auto* dev = benchmark::RegisterBenchmark(("copy/device_kernel/" + label).c_str(), device_kernel_copy, bytes);
        for (auto* b : {host, dev}) {
            b->UseRealTime()->Unit(bytes >= kBigCopy ? benchmark::kMillisecond : benchmark::kMicrosecond);
            if (bytes >= kBigCopy) {
                b->Iterations(3);
            } else {
                b->MinTime(kMinTime);
            }
        }
    }
}

}  // namespace tsuops_bench
