// quant2d at LLM shapes (tokens x hidden), device path and reference path.
// A call reads the rows and writes one byte per element and one float per
// row; bytes per second count all three. The copy baseline of each shape
// copies half that traffic, so it moves the same bytes: read quant2d's
// device figure as a fraction of copy/device_kernel at the same shape.
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

struct Shape {
    long tokens;
    long hidden;
};

// Decode steps (1 to 64 tokens; one token is fewer rows than clusters, so
// smallm), where a call's fixed cost dominates, then prefill batches, which
// stream.
constexpr Shape kShapes[] = {{1, 4096}, {16, 4096}, {64, 4096}, {512, 4096}, {4096, 4096}, {4096, 14336}};

// Read plus written bytes of one call on 16-bit rows.
constexpr long traffic(const Shape& s) { return s.tokens * s.hidden * (2 + 1) + s.tokens * 4; }

const bool kBaseline = [] {
    for (const Shape& s : kShapes) tsuops_bench::register_copy_baseline({traffic(s) / 2});
    return true;
}();

template <typename T>
std::vector<T> rows(long count) {
    std::vector<float> f(static_cast<std::size_t>(count));
    std::mt19937 rng(1);
    std::normal_distribution<float> dist(0.0f, 2.0f);
    for (float& v : f) v = dist(rng);
    std::vector<T> out(f.size());
    infer_ops::narrow(f.data(), out.data(), count);
    return out;
}

template <typename T>
void BM_quant2d_device(benchmark::State& state, Shape s) {
    auto ctx = tsuops_bench::device_context();
    const long count = s.tokens * s.hidden;
    tsuops_bench::DeviceBuffer x(count * static_cast<long>(sizeof(T)));
    tsuops_bench::DeviceBuffer y(count);
    tsuops_bench::DeviceBuffer scale(s.tokens * 4);
    const std::vector<T> host = rows<T>(count);
    std::memcpy(x.data(), host.data(), host.size() * sizeof(T));
    for (auto _ : state) {
        if (infer_ops::quant2d<T>(ctx.get(), x.as<T>(), y.as<signed char>(), scale.as<float>(), s.tokens, s.hidden, -1,
                                  false) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("quant2d failed");
            break;
        }
    }
    state.SetBytesProcessed(traffic(s) * static_cast<std::int64_t>(state.iterations()));
}

template <typename T>
void BM_quant2d_reference(benchmark::State& state, Shape s) {
    orvane::tsu::api::Context ctx(orvane::tsu::api::DeviceType::CPU);
    const long count = s.tokens * s.hidden;
    const std::vector<T> x = rows<T>(count);
    std::vector<signed char> y(static_cast<std::size_t>(count));
    std::vector<float> scale(static_cast<std::size_t>(s.tokens));
    for (auto _ : state) {
        if (infer_ops::quant2d<T>(&ctx, x.data(), y.data(), scale.data(), s.tokens, s.hidden, -1, false) != 0) {
            state.SkipWithError("quant2d failed");
            break;
        }
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(traffic(s) * static_cast<std::int64_t>(state.iterations()));
}

template <typename T>
void register_type(const char* type) {
    for (const Shape& s : kShapes) {
        const std::string shape = std::to_string(s.tokens) + "x" + std::to_string(s.hidden);
        const std::string base = std::string("quant2d<") + type + ">/";
        benchmark::RegisterBenchmark((base + "device/" + shape).c_str(), BM_quant2d_device<T>, s)
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond)
            ->MinTime(tsuops_bench::kMinTime);
        benchmark::RegisterBenchmark((base + "reference/" + shape).c_str(), BM_quant2d_reference<T>, s)
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond)
            ->MinTime(tsuops_bench::kMinTime);
    }
}

const bool kRegistered = (register_type<float16>("float16"), register_type<bfloat16>("bfloat16"), true);

}  // namespace

BENCHMARK_MAIN();
