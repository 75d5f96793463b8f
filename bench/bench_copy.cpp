// The memory-bandwidth baseline of the machine (host memcpy and a device copy
// kernel) and the fixed cost of one launch on the emulated device.
#include "bench_common.h"

namespace {

using namespace tsuops_bench;

const bool kBaseline = (register_copy_baseline({2 * kMiB, 8 * kMiB, 64 * kMiB, 1 * kGiB}), true);

// Config, one argument, queue, a grid of 8 x 64 cores that does nothing, wait.
void BM_empty_launch(benchmark::State& state) {
    ContextOptions opts;
    opts.ncluster = 8;
    auto ctx = device_context(opts);
    for (auto _ : state) {
        if (launch_empty(ctx.get(), nullptr) != TSU_SUCCESS || tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("launch failed");
            break;
        }
    }
}
BENCHMARK(BM_empty_launch)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(kMinTime);

}  // namespace

BENCHMARK_MAIN();
