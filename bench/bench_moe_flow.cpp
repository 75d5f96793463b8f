// One MoE layer's token flow in bfloat16 at Mixtral-like (8 experts, k 2)
// and DeepSeek-like (256 experts, k 8) shapes, rows of 4096 and 7168, 1 to
// 4096 tokens: the gather moe_ffn_pre_sorted (with the router's block
// statistic) and the combine moe_ffn_post_fusion<bfloat16, int, float,
// float>, on the device (launch and wait) and, at decode shapes, on the
// reference path. Each reports microseconds per call and the bytes it must
// move: the gather reads m rows and writes m * k, the combine reads m * k
// and writes m. Read them against copy/device_kernel of a similar size, the
// memory bound, and against launch/empty, the fixed cost of a launch and
// wait that decode shapes pay whatever their work.
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;

struct Experts {
    long n;
    long k;
};
constexpr Experts kExperts[] = {{8, 2}, {256, 8}};
constexpr long kWidths[] = {4096, 7168};
constexpr long kTokens[] = {1, 64, 512, 4096};
// The router's statistic: one block per cluster of the default context.
constexpr long kBlocks = 8;

// Half of what the largest gathers and combines move, and smaller sizes.
const bool kBaseline = (register_copy_baseline({1 * kMiB, 16 * kMiB, 64 * kMiB, 256 * kMiB}), true);

std::vector<int> routing(long tokens, const Experts& e) {
    std::vector<int> v(static_cast<std::size_t>(tokens * e.k));
    for (long t = 0; t < tokens; ++t) {
        for (long j = 0; j < e.k; ++j) {
            v[static_cast<std::size_t>(t * e.k + j)] = static_cast<int>((t * 2654435761u + j * 97) % e.n);
        }
    }
    return v;
}

std::vector<bfloat16> rows(long n) {
    std::vector<bfloat16> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) v[static_cast<std::size_t>(i)] = bfloat16(static_cast<float>(i % 1000 - 500) / 256.0f);
    return v;
}

void report(benchmark::State& state, long tokens, long bytes) {
    state.SetItemsProcessed(tokens * static_cast<std::int64_t>(state.iterations()));
    state.SetBytesProcessed(bytes * static_cast<std::int64_t>(state.iterations()));
}

long gather_bytes(long tokens, long d, const Experts& e) { return tokens * d * 2 * (1 + e.k); }

// One layer's arrays in device memory: the token rows, the routing table and
// its statistic, the sorted rows, the index arrays and the weights.
struct Layer {
    long tokens, d;
    Experts e;
    DeviceBuffer x, index, stat, y, moe_index, counts, lod, score, out;
    bool ok = false;

    Layer(Context* ctx, long tokens_, long d_, Experts e_)
        : tokens(tokens_), d(d_), e(e_), x(tokens * d * 2), index(tokens * e.k * 4), stat(kBlocks * e.n * 4),
          y(tokens * e.k * d * 2), moe_index(tokens * e.k * 4), counts(e.n * 4), lod((e.n + 1) * 4),
          score(tokens * e.k * 4), out(tokens * d * 2) {
        const auto xs = rows(tokens * d);
        const auto table = routing(tokens, e);
        std::memcpy(x.data(), xs.data(), xs.size() * sizeof(bfloat16));
        std::memcpy(index.data(), table.data(), table.size() * sizeof(int));
        std::vector<float> w(static_cast<std::size_t>(tokens * e.k), 1.0f / static_cast<float>(e.k));
        std::memcpy(score.data(), w.data(), w.size() * sizeof(float));
        ok = infer_ops::gen_block_statistic<int>(ctx, index.as<int>(), stat.as<int>(), tokens, e.n, e.k, kBlocks) == 0 &&
             gather(ctx) == 0 && tsu_wait(ctx->stream) == TSU_SUCCESS;
    }

    int gather(Context* ctx) {
        return infer_ops::moe_ffn_pre_sorted<bfloat16, int>(ctx, x.as<bfloat16>(), index.as<int>(), stat.as<int>(),
                                                            y.as<bfloat16>(), moe_index.as<int>(), counts.as<int>(),
                                                            lod.as<int>(), tokens, d, e.n, e.k, kBlocks);
    }
    int combine(Context* ctx) {
        return infer_ops::moe_ffn_post_fusion<bfloat16, int, float, float>(ctx, y.as<bfloat16>(), moe_index.as<int>(),
                                                                           score.as<float>(), nullptr,
                                                                           out.as<bfloat16>(), tokens, d, e.k);
    }
};

template <bool Combine>
void flow_device(benchmark::State& state, long tokens, long d, Experts e) {
    auto ctx = device_context();
    Layer layer(ctx.get(), tokens, d, e);
    if (!layer.ok) {
        state.SkipWithError("setting the layer up failed");
        return;
    }
    for (auto _ : state) {
        if ((Combine ? layer.combine(ctx.get()) : layer.gather(ctx.get())) != 0 || tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("the operator failed");
            break;
        }
    }
    report(state, tokens, gather_bytes(tokens, d, e));
}

// The reference path on host copies of the same arrays.
template <bool Combine>
void flow_reference(benchmark::State& state, long tokens, long d, Experts e) {
    Context ctx(DeviceType::CPU);
    const auto xs = rows(tokens * d);
    const auto table = routing(tokens, e);
    std::vector<bfloat16> y(static_cast<std::size_t>(tokens * e.k * d)), out(static_cast<std::size_t>(tokens * d));
    std::vector<int> moe_index(table.size()), counts(static_cast<std::size_t>(e.n)), lod(counts.size() + 1);
    const std::vector<float> w(table.size(), 1.0f / static_cast<float>(e.k));
    const auto gather = [&] {
        return infer_ops::moe_ffn_pre_sorted<bfloat16, int>(&ctx, xs.data(), table.data(), nullptr, y.data(),
                                                            moe_index.data(), counts.data(), lod.data(), tokens, d,
                                                            e.n, e.k, 0);
    };
    if (gather() != 0) {
        state.SkipWithError("the gather failed");
        return;
    }
    for (auto _ : state) {
        const int st = Combine ? infer_ops::moe_ffn_post_fusion<bfloat16, int, float, float>(
                                     &ctx, y.data(), moe_index.data(), w.data(), nullptr, out.data(), tokens, d, e.k)
                               : gather();
        if (st != 0) {
            state.SkipWithError("the operator failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    report(state, tokens, gather_bytes(tokens, d, e));
}

const bool kRegistered = [] {
    register_empty_launch("launch/empty");
    for (const Experts& e : kExperts) {
        for (long d : kWidths) {
            for (long tokens : kTokens) {
                const std::string l = std::to_string(tokens) + "x" + std::to_string(d) + "/e" + std::to_string(e.n) +
                                      "k" + std::to_string(e.k);
                per_call(benchmark::RegisterBenchmark(("moe_ffn_pre_sorted<bfloat16>/device/" + l).c_str(),
                                                       flow_device<false>, tokens, d, e));
                per_call(benchmark::RegisterBenchmark(("moe_ffn_post_fusion<bfloat16,float>/device/" + l).c_str(),
                                                       flow_device<true>, tokens, d, e));
                if (tokens > 64) continue;
                per_call(benchmark::RegisterBenchmark(("moe_ffn_pre_sorted<bfloat16>/reference/" + l).c_str(),
                                                       flow_reference<false>, tokens, d, e));
                per_call(benchmark::RegisterBenchmark(("moe_ffn_post_fusion<bfloat16,float>/reference/" + l).c_str(),
                                                       flow_reference<true>, tokens, d, e));
            }
        }
    }
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
