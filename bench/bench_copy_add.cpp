// copy and add at the shapes of LLM activations (tokens, hidden), on the
// device path (launch and wait) and the reference path. Bytes are those moved:
// copy reads and writes each element once, add reads two and writes one.
// Read the device path against copy/device_kernel and the reference path
// against copy/host_memcpy of the same tensor size; the single-token rows show
// add's folding of one long row.
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;

struct Shape {
    long tokens;
    long hidden;
};
constexpr Shape kShapes[] = {{1, 4096}, {1, 8192}, {512, 4096}, {4096, 4096}, {2048, 8192}};

// Tensor sizes of the shapes in bfloat16 and float.
const bool kBaseline =
    (register_copy_baseline({8 * kKiB, 16 * kKiB, 32 * kKiB, 4 * kMiB, 8 * kMiB, 32 * kMiB, 64 * kMiB}), true);

template <class T>
std::vector<T> inputs(long n, int salt) {
    std::vector<T> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) {
        v[static_cast<std::size_t>(i)] = T(static_cast<float>((i * 37 + salt) % 200 - 100) / 64.0f);
    }
    return v;
}

template <class T>
long tensor_bytes(const Shape& s) {
    return s.tokens * s.hidden * static_cast<long>(sizeof(T));
}

template <class T>
void copy_device(benchmark::State& state, Shape s) {
    auto ctx = device_context();
    const long n = s.tokens * s.hidden;
    DeviceBuffer x(tensor_bytes<T>(s)), y(tensor_bytes<T>(s));
    for (auto _ : state) {
        if (infer_ops::copy<T>(ctx.get(), x.as<T>(), y.as<T>(), n) != 0 || tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("copy failed");
            break;
        }
    }
    state.SetBytesProcessed(2 * tensor_bytes<T>(s) * static_cast<std::int64_t>(state.iterations()));
}

template <class T>
void copy_reference(benchmark::State& state, Shape s) {
    Context ctx(DeviceType::CPU);
    const long n = s.tokens * s.hidden;
    const std::vector<T> x = inputs<T>(n, 0);
    std::vector<T> y(static_cast<std::size_t>(n));
    for (auto _ : state) {
        if (infer_ops::copy<T>(&ctx, x.data(), y.data(), n) != 0) {
            state.SkipWithError("copy failed");
            break;
        }
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(2 * tensor_bytes<T>(s) * static_cast<std::int64_t>(state.iterations()));
}

template <class T>
void add_device(benchmark::State& state, Shape s) {
    auto ctx = device_context();
    const long n = s.tokens * s.hidden;
    DeviceBuffer x(tensor_bytes<T>(s)), y(tensor_bytes<T>(s)), z(tensor_bytes<T>(s));
    const std::vector<T> xs = inputs<T>(n, 0), ys = inputs<T>(n, 1);
    std::memcpy(x.data(), xs.data(), xs.size() * sizeof(T));
    std::memcpy(y.data(), ys.data(), ys.size() * sizeof(T));
    for (auto _ : state) {
        if (infer_ops::add<T>(ctx.get(), x.as<T>(), y.as<T>(), z.as<T>(), s.tokens, s.hidden, false) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("add failed");
            break;
        }
    }
    state.SetBytesProcessed(3 * tensor_bytes<T>(s) * static_cast<std::int64_t>(state.iterations()));
}

template <class T>
void add_reference(benchmark::State& state, Shape s) {
    Context ctx(DeviceType::CPU);
    const long n = s.tokens * s.hidden;
    const std::vector<T> x = inputs<T>(n, 0), y = inputs<T>(n, 1);
    std::vector<T> z(static_cast<std::size_t>(n));
    for (auto _ : state) {
        if (infer_ops::add<T>(&ctx, x.data(), y.data(), z.data(), s.tokens, s.hidden, false) != 0) {
            state.SkipWithError("add failed");
            break;
        }
        benchmark::DoNotOptimize(z.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(3 * tensor_bytes<T>(s) * static_cast<std::int64_t>(state.iterations()));
}

const bool kRegistered = [] {
    for (const Shape& s : kShapes) {
        const std::string l = "/" + std::to_string(s.tokens) + "x" + std::to_string(s.hidden);
        per_call(benchmark::RegisterBenchmark(("copy<bfloat16>/device" + l).c_str(), copy_device<bfloat16>, s));
        per_call(benchmark::RegisterBenchmark(("copy<bfloat16>/reference" + l).c_str(), copy_reference<bfloat16>, s));
        per_call(benchmark::RegisterBenchmark(("add<bfloat16>/device" + l).c_str(), add_device<bfloat16>, s));
        per_call(benchmark::RegisterBenchmark(("add<bfloat16>/reference" + l).c_str(), add_reference<bfloat16>, s));
        per_call(benchmark::RegisterBenchmark(("add<float>/device" + l).c_str(), add_device<float>, s));
        per_call(benchmark::RegisterBenchmark(("add<float>/reference" + l).c_str(), add_reference<float>, s));
    }
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
