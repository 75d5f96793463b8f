// Narrowing and widening of the 16-bit types: the scalar conversions in a
// plain loop, as a reference path writes them, against the array forms.
// Read the results against the copy of the same bytes (BM_copy_*): the
// conversions stream memory, so the copy is what they can at best reach.
//
// The shared copy baseline of bench_common.h did not exist when this program
// was written; the copies here stand in for it and should give way to it.
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/float16.h>

namespace {

constexpr long kValues = 64l << 20;

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

// The same 6 bytes per value as a conversion moves, as one read and one
// write stream of float-sized and half-sized elements.
void BM_copy_6_bytes_per_value(benchmark::State& state) {
    std::vector<char> a(kValues * 4, 1), b(kValues * 4);
    for (auto _ : state) {
        std::memcpy(b.data(), a.data(), kValues * 3);
        benchmark::DoNotOptimize(b.data());
        benchmark::ClobberMemory();
    }
    report(state, 6);
}

BENCHMARK(BM_copy_6_bytes_per_value)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_narrow_scalar<float16>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_narrow_bulk<float16>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_narrow_scalar<bfloat16>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_narrow_bulk<bfloat16>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_widen_scalar<float16>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_widen_bulk<float16>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_widen_scalar<bfloat16>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_widen_bulk<bfloat16>)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
