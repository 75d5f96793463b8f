// cast at 64 MiB of float data: float to float16, float16 to float, float to
// bfloat16 and float to signed char, on the device path (launch and wait) and
// the reference path (a host context, plain and imitating the device).
// Bytes are source read plus destination written. Read the device path
// against copy/device_kernel/64MiB and the reference path against
// copy/host_memcpy/64MiB: a cast streams memory, so the copy of the float
// side is about what it can at best reach.
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;

constexpr long kElements = 64 * kMiB / static_cast<long>(sizeof(float));

const bool kBaseline = (register_copy_baseline({64 * kMiB}), true);

// Values spread over [-400, 400): every destination sees rounding, and the
// 8-bit one its saturation.
template <class T>
std::vector<T> inputs(long n) {
    std::vector<T> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) {
        v[static_cast<std::size_t>(i)] = T(static_cast<float>((i * 7919) % 80000 - 40000) / 100.0f);
    }
    return v;
}

template <class TX, class TY>
std::int64_t bytes_moved(std::int64_t iterations) {
    return kElements * static_cast<std::int64_t>(sizeof(TX) + sizeof(TY)) * iterations;
}

template <class TX, class TY>
void cast_device(benchmark::State& state) {
    auto ctx = device_context();
    DeviceBuffer x(kElements * static_cast<long>(sizeof(TX)));
    DeviceBuffer y(kElements * static_cast<long>(sizeof(TY)));
    const std::vector<TX> xs = inputs<TX>(kElements);
    std::memcpy(x.data(), xs.data(), xs.size() * sizeof(TX));
    for (auto _ : state) {
        if (infer_ops::cast<TX, TY>(ctx.get(), x.as<TX>(), y.as<TY>(), kElements) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("cast failed");
            break;
        }
    }
    state.SetBytesProcessed(bytes_moved<TX, TY>(static_cast<std::int64_t>(state.iterations())));
}

template <class TX, class TY>
void cast_reference(benchmark::State& state, unsigned sim_dev_type) {
    Context ctx(DeviceType::CPU, {.sim_dev_type = sim_dev_type});
    const std::vector<TX> x = inputs<TX>(kElements);
    std::vector<TY> y(static_cast<std::size_t>(kElements));
    for (auto _ : state) {
        if (infer_ops::cast<TX, TY>(&ctx, x.data(), y.data(), kElements) != 0) {
            state.SkipWithError("cast failed");
            break;
        }
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(bytes_moved<TX, TY>(static_cast<std::int64_t>(state.iterations())));
}

template <class TX, class TY>
void register_pair(const std::string& name) {
    const std::string size = "/" + bytes_label(64 * kMiB);
    for (auto* b : {benchmark::RegisterBenchmark(("cast<" + name + ">/device" + size).c_str(), cast_device<TX, TY>),
                    benchmark::RegisterBenchmark(("cast<" + name + ">/reference" + size).c_str(),
                                                 cast_reference<TX, TY>, 0u),
                    benchmark::RegisterBenchmark(("cast<" + name + ">/reference_sim" + size).c_str(),
                                                 cast_reference<TX, TY>, 3u)}) {
        b->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(kMinTime);
    }
}

const bool kRegistered = [] {
    register_pair<float, float16>("float,float16");
    register_pair<float16, float>("float16,float");
    register_pair<float, bfloat16>("float,bfloat16");
    register_pair<float, signed char>("float,int8_t");
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
