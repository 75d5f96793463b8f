// transpose at the shapes of attention tensors: [tokens, heads, head_dim] to
// heads first, (1, 0, 2), which exchanges rows of 128 elements, and
// [heads, tokens, head_dim] to head_dim before tokens, (0, 2, 1), a true
// element transpose of 4096 by 128 per head. Device path (launch and wait)
// and reference path; bytes are the tensor read once and written once, so
// read them against copy/device_kernel and copy/host_memcpy of the tensor's
// size. The decode shapes (1 to 64 tokens) report the time per call.
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;

struct Case {
    std::vector<long> shape, perm;
};
const Case kCases[] = {{{4096, 32, 128}, {1, 0, 2}}, {{32, 4096, 128}, {0, 2, 1}}};
constexpr long kDecodeTokens[] = {1, 16, 64};

// 4096 * 32 * 128 elements of bfloat16 and float.
const bool kBaseline = (register_copy_baseline({32 * kMiB, 64 * kMiB}), true);

long elements(const Case& c) {
    long n = 1;
    for (long d : c.shape) n *= d;
    return n;
}

template <class T>
void device(benchmark::State& state, Case c) {
    auto ctx = device_context();
    const long bytes = elements(c) * static_cast<long>(sizeof(T));
    DeviceBuffer x(bytes), y(bytes);
    for (auto _ : state) {
        if (infer_ops::transpose<T>(ctx.get(), x.as<T>(), y.as<T>(), c.shape, c.perm) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("transpose failed");
            break;
        }
    }
    state.SetBytesProcessed(2 * bytes * static_cast<std::int64_t>(state.iterations()));
}

template <class T>
void reference(benchmark::State& state, Case c) {
    Context ctx(DeviceType::CPU);
    const long n = elements(c);
    std::vector<T> x(static_cast<std::size_t>(n)), y(static_cast<std::size_t>(n));
    for (auto _ : state) {
        if (infer_ops::transpose<T>(&ctx, x.data(), y.data(), c.shape, c.perm) != 0) {
            state.SkipWithError("transpose failed");
            break;
        }
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(2 * n * static_cast<long>(sizeof(T)) * static_cast<std::int64_t>(state.iterations()));
}

std::string label(const Case& c) {
    std::string s;
    for (long d : c.shape) s += (s.empty() ? "" : "x") + std::to_string(d);
    s += "/by";
    for (long p : c.perm) s += std::to_string(p);
    return s;
}

const bool kRegistered = [] {
    for (const Case& c : kCases) {
        const std::string l = "/" + label(c);
        per_call(benchmark::RegisterBenchmark(("transpose<bfloat16>/device" + l).c_str(), device<bfloat16>, c));
        per_call(benchmark::RegisterBenchmark(("transpose<float>/device" + l).c_str(), device<float>, c));
        per_call(benchmark::RegisterBenchmark(("transpose<bfloat16>/reference" + l).c_str(), reference<bfloat16>, c));
    }
    for (long t : kDecodeTokens) {
        const Case c{{t, 32, 128}, {1, 0, 2}};
        const std::string l = "/" + label(c);
        per_call(benchmark::RegisterBenchmark(("transpose<bfloat16>/device" + l).c_str(), device<bfloat16>, c));
    }
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
