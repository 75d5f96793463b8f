// rms_layer_norm and layer_norm at the shapes of LLM layers (tokens, hidden):
// the device path (launch and wait) and the reference path on the host.
// Bytes are those a norm must move: x read, y written, the weight read once.
// Read them against copy/device_kernel (device path) and copy/host_memcpy
// (reference path) of the size of x: the baseline reports x read plus x
// written, which is what a norm moves apart from its weight.
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
// Decode steps (1 to 64 tokens), where a call's fixed cost dominates, then
// prefill batches, which stream.
constexpr Shape kRmsShapes[] = {{1, 4096}, {16, 4096}, {64, 4096}, {512, 4096}, {4096, 4096}, {2048, 8192}};
constexpr Shape kLayerShape = {4096, 4096};

// The sizes of x of every benchmark: 16-bit rows of the RMS shapes, float
// rows of the layer-norm shape.
const bool kBaseline =
    (register_copy_baseline({8 * kKiB, 128 * kKiB, 512 * kKiB, 4 * kMiB, 32 * kMiB, 64 * kMiB}), true);

template <class T, class TW>
long bytes_moved(const Shape& s) {
    return 2 * s.tokens * s.hidden * static_cast<long>(sizeof(T)) + s.hidden * static_cast<long>(sizeof(TW));
}

// Inputs in [-1, 1): what the values are does not change the work.
template <class T>
std::vector<T> inputs(long n) {
    std::vector<T> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) v[static_cast<std::size_t>(i)] = T(static_cast<float>((i * 37) % 200 - 100) / 100.0f);
    return v;
}

template <class T>
void upload(const DeviceBuffer& dst, const std::vector<T>& src) {
    std::memcpy(dst.data(), src.data(), src.size() * sizeof(T));
}

template <class T, class TW>
void rms_device(benchmark::State& state, Shape s) {
    auto ctx = device_context();
    const long n = s.tokens * s.hidden;
    DeviceBuffer x(n * static_cast<long>(sizeof(T))), y(n * static_cast<long>(sizeof(T)));
    DeviceBuffer w(s.hidden * static_cast<long>(sizeof(TW)));
    upload(x, inputs<T>(n));
    upload(w, inputs<TW>(s.hidden));
    for (auto _ : state) {
        if (infer_ops::rms_layer_norm<T, TW>(ctx.get(), x.as<T>(), y.as<T>(), s.tokens, s.hidden, 1e-6f, w.as<TW>(),
                                             nullptr, nullptr, false) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("rms_layer_norm failed");
            break;
        }
    }
    state.SetBytesProcessed(bytes_moved<T, TW>(s) * static_cast<std::int64_t>(state.iterations()));
}

template <class T, class TW>
void rms_reference(benchmark::State& state, Shape s) {
    Context ctx(DeviceType::CPU);
    const long n = s.tokens * s.hidden;
    const std::vector<T> x = inputs<T>(n);
    const std::vector<TW> w = inputs<TW>(s.hidden);
    std::vector<T> y(static_cast<std::size_t>(n));
    for (auto _ : state) {
        if (infer_ops::rms_layer_norm<T, TW>(&ctx, x.data(), y.data(), s.tokens, s.hidden, 1e-6f, w.data(), nullptr,
                                             nullptr, false) != 0) {
            state.SkipWithError("rms_layer_norm failed");
            break;
        }
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(bytes_moved<T, TW>(s) * static_cast<std::int64_t>(state.iterations()));
}

template <class T, class TW>
void layer_device(benchmark::State& state, Shape s) {
    auto ctx = device_context();
    const long n = s.tokens * s.hidden;
    DeviceBuffer x(n * static_cast<long>(sizeof(T))), y(n * static_cast<long>(sizeof(T)));
    DeviceBuffer w(s.hidden * static_cast<long>(sizeof(TW))), b(s.hidden * static_cast<long>(sizeof(TW)));
    upload(x, inputs<T>(n));
    upload(w, inputs<TW>(s.hidden));
    upload(b, inputs<TW>(s.hidden));
    for (auto _ : state) {
        if (infer_ops::layer_norm<T, TW>(ctx.get(), x.as<T>(), y.as<T>(), s.tokens, s.hidden, 1e-5f, w.as<TW>(),
                                         b.as<TW>(), false, false) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("layer_norm failed");
            break;
        }
    }
    state.SetBytesProcessed((bytes_moved<T, TW>(s) + s.hidden * static_cast<long>(sizeof(TW))) *
                            static_cast<std::int64_t>(state.iterations()));
}

template <class T, class TW>
void layer_reference(benchmark::State& state, Shape s) {
    Context ctx(DeviceType::CPU);
    const long n = s.tokens * s.hidden;
    const std::vector<T> x = inputs<T>(n);
    const std::vector<TW> w = inputs<TW>(s.hidden);
    const std::vector<TW> b = inputs<TW>(s.hidden);
    std::vector<T> y(static_cast<std::size_t>(n));
    for (auto _ : state) {
        if (infer_ops::layer_norm<T, TW>(&ctx, x.data(), y.data(), s.tokens, s.hidden, 1e-5f, w.data(), b.data(),
                                         false, false) != 0) {
            state.SkipWithError("layer_norm failed");
            break;
        }
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed((bytes_moved<T, TW>(s) + s.hidden * static_cast<long>(sizeof(TW))) *
                            static_cast<std::int64_t>(state.iterations()));
}

std::string shape_label(const Shape& s) { return std::to_string(s.tokens) + "x" + std::to_string(s.hidden); }

const bool kRegistered = [] {
    for (const Shape& s : kRmsShapes) {
        const std::string l = shape_label(s);
        per_call(benchmark::RegisterBenchmark(("rms_layer_norm<float16,float16>/device/" + l).c_str(),
                                               rms_device<float16, float16>, s));
        per_call(benchmark::RegisterBenchmark(("rms_layer_norm<float16,float16>/reference/" + l).c_str(),
                                               rms_reference<float16, float16>, s));
        per_call(benchmark::RegisterBenchmark(("rms_layer_norm<bfloat16,float>/device/" + l).c_str(),
                                               rms_device<bfloat16, float>, s));
        per_call(benchmark::RegisterBenchmark(("rms_layer_norm<bfloat16,float>/reference/" + l).c_str(),
                                               rms_reference<bfloat16, float>, s));
    }
    const std::string l = shape_label(kLayerShape);
    per_call(benchmark::RegisterBenchmark(("layer_norm<float,float>/device/" + l).c_str(), layer_device<float, float>,
                                           kLayerShape));
    per_call(benchmark::RegisterBenchmark(("layer_norm<float,float>/reference/" + l).c_str(),
                                           layer_reference<float, float>, kLayerShape));
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
