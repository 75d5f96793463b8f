// moe_softmax_topk<bfloat16, float, int> at the router shapes of MoE layers
// (tokens, experts, k), and moe_sorted_topk_idx and moe_align_block_size on
// the routing table of 4096 tokens with 8 choices over 256 experts: the
// device path (launch and wait) and the reference path. Each reports
// microseconds per call, tokens per second and the bytes it must move (the
// logits read, the choices written; the table read, the index arrays
// written). launch/empty is the fixed cost of one launch and wait, what a
// decode shape pays whatever its work; copy/device_kernel of the logits'
// size is the memory bound.
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;

struct Router {
    long experts;
    long k;
};
constexpr Router kRouters[] = {{64, 8}, {128, 8}, {256, 8}, {8, 2}};
constexpr long kTokens[] = {1, 64, 512, 4096};

// The logits of 4096 tokens over 64, 128 and 256 experts in bfloat16.
const bool kBaseline = (register_copy_baseline({512 * kKiB, 1 * kMiB, 2 * kMiB}), true);

long router_bytes(long tokens, const Router& r) {
    return tokens * r.experts * 2 + tokens * r.k * static_cast<long>(sizeof(float) + sizeof(int));
}

// Logits in [-4, 4), a different spread in every row.
std::vector<bfloat16> logits(long n) {
    std::vector<bfloat16> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) v[static_cast<std::size_t>(i)] = bfloat16(static_cast<float>((i * 7919) % 800 - 400) / 100.0f);
    return v;
}

// Expert numbers spread over n experts.
std::vector<int> table(long pairs, long n) {
    std::vector<int> v(static_cast<std::size_t>(pairs));
    for (long i = 0; i < pairs; ++i) v[static_cast<std::size_t>(i)] = static_cast<int>((i * 2654435761u >> 7) % n);
    return v;
}

void report(benchmark::State& state, long tokens, long bytes) {
    state.SetItemsProcessed(tokens * static_cast<std::int64_t>(state.iterations()));
    state.SetBytesProcessed(bytes * static_cast<std::int64_t>(state.iterations()));
}

void router_device(benchmark::State& state, long tokens, Router r, long block_num) {
    auto ctx = device_context();
    DeviceBuffer x(tokens * r.experts * 2), score(tokens * r.k * 4), index(tokens * r.k * 4);
    DeviceBuffer stat(std::max(block_num, 1L) * r.experts * 4);
    const auto xs = logits(tokens * r.experts);
    std::memcpy(x.data(), xs.data(), xs.size() * sizeof(bfloat16));
    for (auto _ : state) {
        if (infer_ops::moe_softmax_topk<bfloat16, float, int>(ctx.get(), x.as<bfloat16>(), score.as<float>(),
                                                              index.as<int>(), stat.as<int>(), tokens, r.experts, r.k,
                                                              block_num) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("moe_softmax_topk failed");
            break;
        }
    }
    report(state, tokens, router_bytes(tokens, r));
}

void router_reference(benchmark::State& state, long tokens, Router r) {
    Context ctx(DeviceType::CPU);
    const auto xs = logits(tokens * r.experts);
    std::vector<float> score(static_cast<std::size_t>(tokens * r.k));
    std::vector<int> index(static_cast<std::size_t>(tokens * r.k));
    for (auto _ : state) {
        if (infer_ops::moe_softmax_topk<bfloat16, float, int>(&ctx, xs.data(), score.data(), index.data(), nullptr,
                                                              tokens, r.experts, r.k, 0) != 0) {
            state.SkipWithError("moe_softmax_topk failed");
            break;
        }
        benchmark::DoNotOptimize(index.data());
        benchmark::ClobberMemory();
    }
    report(state, tokens, router_bytes(tokens, r));
}

constexpr long kIndexTokens = 4096, kIndexK = 8, kIndexExperts = 256, kBlockSize = 64;

// The index arrays of one table on a context: the table read, the gather
// form and the offsets (or the padded forms) written.
template <bool Align>
void index_device(benchmark::State& state) {
    auto ctx = device_context();
    const long pairs = kIndexTokens * kIndexK;
    const long padded = (kBlockSize - 1) * kIndexExperts + pairs;
    DeviceBuffer t(pairs * 4), a(padded * 4), b(padded * 4), c(64);
    const auto tab = table(pairs, kIndexExperts);
    std::memcpy(t.data(), tab.data(), tab.size() * sizeof(int));
    for (auto _ : state) {
        const int st = Align ? infer_ops::moe_align_block_size<int>(ctx.get(), t.as<int>(), a.as<int>(), b.as<int>(),
                                                                    c.as<int>(), kIndexExperts, kBlockSize, pairs)
                             : infer_ops::moe_sorted_topk_idx<int>(ctx.get(), t.as<int>(), b.as<int>(), a.as<int>(),
                                                                   kIndexTokens, kIndexK, kIndexExperts);
        if (st != 0 || tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("index operator failed");
            break;
        }
    }
    report(state, kIndexTokens, 2 * pairs * 4);
}

template <bool Align>
void index_reference(benchmark::State& state) {
    Context ctx(DeviceType::CPU);
    const long pairs = kIndexTokens * kIndexK;
    const long padded = (kBlockSize - 1) * kIndexExperts + pairs;
    const auto tab = table(pairs, kIndexExperts);
    std::vector<int> a(static_cast<std::size_t>(padded)), b(static_cast<std::size_t>(padded)), c(1);
    for (auto _ : state) {
        const int st = Align ? infer_ops::moe_align_block_size<int>(&ctx, tab.data(), a.data(), b.data(), c.data(),
                                                                    kIndexExperts, kBlockSize, pairs)
                             : infer_ops::moe_sorted_topk_idx<int>(&ctx, tab.data(), b.data(), a.data(), kIndexTokens,
                                                                   kIndexK, kIndexExperts);
        if (st != 0) {
            state.SkipWithError("index operator failed");
            break;
        }
        benchmark::DoNotOptimize(a.data());
        benchmark::ClobberMemory();
    }
    report(state, kIndexTokens, 2 * pairs * 4);
}

const bool kRegistered = [] {
    register_empty_launch("launch/empty");
    for (const Router& r : kRouters) {
        for (long tokens : kTokens) {
            const std::string l = std::to_string(tokens) + "x" + std::to_string(r.experts) + "/k" + std::to_string(r.k);
            per_call(benchmark::RegisterBenchmark(("moe_softmax_topk<bfloat16,float,int>/device/" + l).c_str(),
                                                   router_device, tokens, r, 0L));
            per_call(benchmark::RegisterBenchmark(("moe_softmax_topk<bfloat16,float,int>/reference/" + l).c_str(),
                                                   router_reference, tokens, r));
        }
    }
    // The histogram binds whole blocks to cores: 12 blocks use 12 of them.
    per_call(benchmark::RegisterBenchmark("moe_softmax_topk<bfloat16,float,int>/device/4096x256/k8/12_blocks",
                                           router_device, 4096L, Router{256, 8}, 12L));
    per_call(benchmark::RegisterBenchmark("moe_sorted_topk_idx/device/4096x8/256", index_device<false>));
    per_call(benchmark::RegisterBenchmark("moe_sorted_topk_idx/reference/4096x8/256", index_reference<false>));
    per_call(benchmark::RegisterBenchmark("moe_align_block_size/device/4096x8/256", index_device<true>));
    per_call(benchmark::RegisterBenchmark("moe_align_block_size/reference/4096x8/256", index_reference<true>));
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
