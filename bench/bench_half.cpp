// Narrowing and widening of the 16-bit types: the scalar conversions in a
// plain loop, as a reference path writes them, against the array forms.
// A conversion reads and writes 6 bytes per value; read its bytes per second
// against copy/host_memcpy of 3 bytes per value (the same bytes moved), which
// is what a streaming host loop can at best reach.
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/float16.h>

#include "bench_common.h"

namespace {

constexpr long kValues = 64l << 20;

const bool kBaseline = (tsuops_bench::register_copy_baseline({kValues * 3}), true);

const std::vector<float>& source_floats() {
    static const std::vector<float> v = [] {
        std::vector<float> out(kValues);
        std::mt19937 rng(1);
        std::normal_distribution<float> dist(0.0f, 4.0f);
        for (float& f : out) f = dist(rng);
        return out;
    }();
    return v;
}

template <class H>
const std::vector<H>& source_halves() {
    static const std::vector<H> v = [] {
        const std::vector<float>& f = source_floats();
        std::vector<H> out(f.size());
        infer_ops::narrow(f.data(), out.data(), kValues);
        return out;
    }();
    return v;
}

void report(benchmark::State& state, long bytes_per_value) {
    state.SetItemsProcessed(state.iterations() * kValues);
    state.SetBytesProcessed(state.iterations() * kValues * bytes_per_value);
}

template <class H>
void BM_narrow_scalar(benchmark::State& state) {
    const std::vector<float>& src = source_floats();
    std::vector<H> dst(kValues);
    for (auto _ : state) {
        for (long i = 0; i < kValues; ++i) dst[i] = H(src[i]);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    report(state, 6);
}

template <class H>
void BM_narrow_bulk(benchmark::State& state) {
    const std::vector<float>& src = source_floats();
    std::vector<H> dst(kValues);
    for (auto _ : state) {
        infer_ops::narrow(src.data(), dst.data(), kValues);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    report(state, 6);
}

template <class H>
void BM_widen_scalar(benchmark::State& state) {
    const std::vector<H>& src = source_halves<H>();
    std::vector<float> dst(kValues);
    for (auto _ : state) {
        for (long i = 0; i < kValues; ++i) dst[i] = src[i];
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    report(state, 6);
}

template <class H>
void BM_widen_bulk(benchmark::State& state) {
    const std::vector<H>& src = source_halves<H>();
    std::vector<float> dst(kValues);
    for (auto _ : state) {
        infer_ops::widen(src.data(), dst.data(), kValues);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    report(state, 6);
}

BENCHMARK(BM_narrow_scalar<float16>)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_narrow_bulk<float16>)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_narrow_scalar<bfloat16>)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_narrow_bulk<bfloat16>)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_widen_scalar<float16>)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_widen_bulk<float16>)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_widen_scalar<bfloat16>)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_widen_bulk<bfloat16>)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
