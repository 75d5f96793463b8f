// swiglu<bfloat16> on rows of (tokens, 2 x intermediate), halves on the last
// axis, the first half gated: device path (launch and wait) and reference
// path. Bytes are the input read and the half-size output written, 1.5 times
// the input; read them against copy/device_kernel and copy/host_memcpy of the
// input's size, which move twice the input. The decode shapes (1 to 64
// tokens) report the time per call, where the fixed cost dominates.
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
    long intermediate;
};
constexpr Shape kShapes[] = {{1, 14336}, {16, 14336}, {64, 14336}, {512, 14336}, {4096, 11008}};
constexpr Shape kReferenceShape = {512, 14336};

// The bfloat16 inputs of the shapes.
const bool kBaseline = (register_copy_baseline({56 * kKiB, 896 * kKiB, 3584 * kKiB, 28 * kMiB, 172 * kMiB}), true);

long input_elements(const Shape& s) { return s.tokens * 2 * s.intermediate; }

long bytes_moved(const Shape& s) {
    return (input_elements(s) + input_elements(s) / 2) * static_cast<long>(sizeof(bfloat16));
}

// Gates in [-8, 8), where the sigmoid is neither 0 nor 1.
std::vector<bfloat16> inputs(long n) {
    std::vector<bfloat16> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) {
        v[static_cast<std::size_t>(i)] = bfloat16(static_cast<float>((i * 37) % 256 - 128) / 16.0f);
    }
    return v;
}

void device(benchmark::State& state, Shape s) {
    auto ctx = device_context();
    const long n = input_elements(s);
    DeviceBuffer x(n * 2), z(n);
    const auto xs = inputs(n);
    std::memcpy(x.data(), xs.data(), xs.size() * sizeof(bfloat16));
    const std::vector<long> shape = {s.tokens, 2 * s.intermediate};
    for (auto _ : state) {
        if (infer_ops::swiglu<bfloat16>(ctx.get(), x.as<bfloat16>(), nullptr, z.as<bfloat16>(), shape, 1, true) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("swiglu failed");
            break;
        }
    }
    state.SetBytesProcessed(bytes_moved(s) * static_cast<std::int64_t>(state.iterations()));
}

void reference(benchmark::State& state, Shape s) {
    Context ctx(DeviceType::CPU);
    const long n = input_elements(s);
    const auto x = inputs(n);
    std::vector<bfloat16> z(static_cast<std::size_t>(n / 2));
    const std::vector<long> shape = {s.tokens, 2 * s.intermediate};
    for (auto _ : state) {
        if (infer_ops::swiglu<bfloat16>(&ctx, x.data(), nullptr, z.data(), shape, 1, true) != 0) {
            state.SkipWithError("swiglu failed");
            break;
        }
        benchmark::DoNotOptimize(z.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(bytes_moved(s) * static_cast<std::int64_t>(state.iterations()));
}

const bool kRegistered = [] {
    for (const Shape& s : kShapes) {
        const std::string l = "/" + std::to_string(s.tokens) + "x2x" + std::to_string(s.intermediate);
        benchmark::RegisterBenchmark(("swiglu<bfloat16>/device" + l).c_str(), device, s)
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond)
            ->MinTime(kMinTime);
    }
    const std::string l = "/" + std::to_string(kReferenceShape.tokens) + "x2x" +
                          std::to_string(kReferenceShape.intermediate);
    benchmark::RegisterBenchmark(("swiglu<bfloat16>/reference" + l).c_str(), reference, kReferenceShape)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond)
        ->MinTime(kMinTime);
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
