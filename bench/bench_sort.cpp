// sort and top_p_sampling at vocabulary-sized rows (32000, 128256, 152064) of
// 1, 16 and 64 rows: the device path (launch and wait), the reference path,
// and std::stable_sort of the same rows on the host. Each reports keys per
// second (items) and bytes moved: x read, y and index written for sort; x
// read for top_p_sampling. Read the bytes against copy/device_kernel of the
// size of x, which reports x read plus x written.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;

struct Shape {
    long rows;
    long vocab;
};
constexpr long kVocabs[] = {32000, 128256, 152064};
constexpr long kRows[] = {1, 16, 64};

const bool kBaseline = [] {
    for (long v : kVocabs) register_copy_baseline({v * 4, 16 * v * 4, 64 * v * 4});
    return true;
}();

// The radix route needs scratch for a copy of keys and columns, 78 MB at
// 64 x 152064: more than the default general pool.
ContextOptions roomy() { return ContextOptions{.gm_pool_bytes = 512ul << 20}; }

std::string label(const Shape& s) { return std::to_string(s.rows) + "x" + std::to_string(s.vocab); }

// Softmax rows of pseudo-random logits: what a sampler sees, with the mass
// spread over a few hundred tokens and a long tail.
std::vector<float> probabilities(const Shape& s) {
    std::vector<float> p(static_cast<std::size_t>(s.rows * s.vocab));
    std::uint64_t state = 0x9e3779b97f4a7c15ull;
    for (long r = 0; r < s.rows; ++r) {
        double sum = 0;
        float* row = p.data() + r * s.vocab;
        for (long j = 0; j < s.vocab; ++j) {
            state = state * 6364136223846793005ull + 1442695040888963407ull;
            const double logit = static_cast<double>(state >> 11) * 0x1p-53 * 12.0;
            row[j] = static_cast<float>(std::exp(logit));
            sum += row[j];
        }
        for (long j = 0; j < s.vocab; ++j) row[j] = static_cast<float>(row[j] / sum);
    }
    return p;
}

template <class F>
void keep_running(benchmark::State& state, const Shape& s, long bytes_per_key, F call) {
    for (auto _ : state) {
        if (!call()) {
            state.SkipWithError("the call failed");
            break;
        }
    }
    const auto keys = s.rows * s.vocab * static_cast<std::int64_t>(state.iterations());
    state.SetItemsProcessed(keys);
    state.SetBytesProcessed(keys * bytes_per_key);
}

void sort_device(benchmark::State& state, Shape s) {
    auto ctx = device_context(roomy());
    const long n = s.rows * s.vocab;
    DeviceBuffer x(n * 4), y(n * 4), index(n * 4);
    const auto p = probabilities(s);
    std::copy(p.begin(), p.end(), x.as<float>());
    keep_running(state, s, 12, [&] {
        return infer_ops::sort<float, int>(ctx.get(), x.as<float>(), y.as<float>(), index.as<int>(), s.rows, s.vocab,
                                           true) == 0 &&
               tsu_wait(ctx->stream) == TSU_SUCCESS;
    });
}

void sort_reference(benchmark::State& state, Shape s) {
    Context ctx(DeviceType::CPU);
    const auto x = probabilities(s);
    std::vector<float> y(x.size());
    std::vector<int> index(x.size());
    keep_running(state, s, 12, [&] {
        const int st = infer_ops::sort<float, int>(&ctx, x.data(), y.data(), index.data(), s.rows, s.vocab, true);
        benchmark::DoNotOptimize(y.data());
        return st == 0;
    });
}

// What a caller would write without the library: per row, the columns
// stable-sorted by value, then the values gathered.
void sort_std_stable(benchmark::State& state, Shape s) {
    const auto x = probabilities(s);
    std::vector<float> y(x.size());
    std::vector<int> index(x.size());
    keep_running(state, s, 12, [&] {
        for (long r = 0; r < s.rows; ++r) {
            const float* xr = x.data() + r * s.vocab;
            int* ir = index.data() + r * s.vocab;
            std::iota(ir, ir + s.vocab, 0);
            std::stable_sort(ir, ir + s.vocab, [xr](int a, int b) { return xr[a] > xr[b]; });
            for (long k = 0; k < s.vocab; ++k) y[static_cast<std::size_t>(r * s.vocab + k)] = xr[ir[k]];
        }
        benchmark::DoNotOptimize(y.data());
        return true;
    });
}

struct SamplerInputs {
    std::vector<float> x, top_ps, u;
    SamplerInputs(const Shape& s, float top_p)
        : x(probabilities(s)), top_ps(static_cast<std::size_t>(s.rows), top_p),
          u(static_cast<std::size_t>(s.rows)) {
        for (long r = 0; r < s.rows; ++r) u[static_cast<std::size_t>(r)] = static_cast<float>(r % 10) / 10.0f;
    }
};

void top_p_device(benchmark::State& state, Shape s, float top_p) {
    auto ctx = device_context(roomy());
    const SamplerInputs in(s, top_p);
    DeviceBuffer x(static_cast<long>(in.x.size()) * 4), ps(s.rows * 4), u(s.rows * 4), ids(s.rows * 4),
        values(s.rows * 4);
    std::copy(in.x.begin(), in.x.end(), x.as<float>());
    std::copy(in.top_ps.begin(), in.top_ps.end(), ps.as<float>());
    std::copy(in.u.begin(), in.u.end(), u.as<float>());
    keep_running(state, s, 4, [&] {
        return infer_ops::top_p_sampling<float, int>(ctx.get(), x.as<float>(), ps.as<float>(), u.as<float>(),
                                                     ids.as<int>(), s.rows, s.vocab, values.as<float>(),
                                                     nullptr) == 0 &&
               tsu_wait(ctx->stream) == TSU_SUCCESS;
    });
}

void top_p_reference(benchmark::State& state, Shape s, float top_p) {
    Context ctx(DeviceType::CPU);
    const SamplerInputs in(s, top_p);
    std::vector<int> ids(static_cast<std::size_t>(s.rows));
    std::vector<float> values(static_cast<std::size_t>(s.rows));
    keep_running(state, s, 4, [&] {
        const int st = infer_ops::top_p_sampling<float, int>(&ctx, in.x.data(), in.top_ps.data(), in.u.data(),
                                                             ids.data(), s.rows, s.vocab, values.data(), nullptr);
        benchmark::DoNotOptimize(ids.data());
        return st == 0;
    });
}

// top_p 0.9 is the usual setting; 1.0 keeps the whole row, which makes the
// device kernel sort all of it.
const bool kRegistered = [] {
    for (long rows : kRows) {
        for (long vocab : kVocabs) {
            const Shape s{rows, vocab};
            const std::string l = label(s);
            per_call(benchmark::RegisterBenchmark(("sort<float,int>/device/" + l).c_str(), sort_device, s));
            per_call(benchmark::RegisterBenchmark(("sort<float,int>/reference/" + l).c_str(), sort_reference, s));
            per_call(benchmark::RegisterBenchmark(("sort<float,int>/std_stable_sort/" + l).c_str(), sort_std_stable,
                                                   s));
            for (float top_p : {0.9f, 1.0f}) {
                const std::string p = top_p < 1.0f ? "p0.9/" : "p1.0/";
                per_call(benchmark::RegisterBenchmark(("top_p_sampling<float,int>/device/" + p + l).c_str(),
                                                       top_p_device, s, top_p));
                per_call(benchmark::RegisterBenchmark(("top_p_sampling<float,int>/reference/" + p + l).c_str(),
                                                       top_p_reference, s, top_p));
            }
        }
    }
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
