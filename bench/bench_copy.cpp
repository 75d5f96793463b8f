// The memory-bandwidth baseline of the machine: host memcpy and a device copy
// kernel from 2 MiB to 1 GiB. The fixed cost of a launch is bench_launch's.
#include "bench_common.h"

namespace {

using namespace tsuops_bench;

const bool kBaseline = (register_copy_baseline({2 * kMiB, 8 * kMiB, 64 * kMiB, 1 * kGiB}), true);

}  // namespace

BENCHMARK_MAIN();
