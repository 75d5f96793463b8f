// Cache stores at LLM shapes: 8 key heads of 128 elements, a paged cache of
// 2048 blocks of 16 or 64 positions, and 1, 64 (decode: one token per
// sequence, each in its own block) or 4096 tokens (prefill: one sequence
// over shuffled blocks). A call reads the new keys and values, the scales
// and the slots and writes the same rows into the caches; bytes per second
// count all of it. The copy baseline of each shape copies half that traffic,
// so it moves the same bytes: read the device figures as a fraction of
// copy/device_kernel at the same size. At 1 and 64 tokens the fixed cost of
// a call dominates; read those as time per call.
#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

constexpr long kHeads = 8, kDim = 128, kBlocks = 2048, kMaxBlockSize = 64;
constexpr long kTokens[] = {1, 64, 4096};
constexpr long kBlockSizes[] = {16, 64};

enum class Op { paged_bf16, paged_f16_int8_scaled, reshape_f16 };

struct Shape {
    Op op;
    long tokens;
    long block_size;
};

// Every input is 16-bit; only the scaled store writes one byte per element.
long cache_bytes(Op op) { return op == Op::paged_f16_int8_scaled ? 1 : 2; }

// Read plus written bytes of one call.
long traffic(const Shape& s) {
    const long rows = 2 * s.tokens * kHeads * kDim;  // keys and values
    const long scales = s.op == Op::paged_f16_int8_scaled ? 2 * kHeads * kDim * 4 : 0;
    const long slots = s.tokens * 4;
    return rows * (2 + cache_bytes(s.op)) + scales + slots;
}

// Both caches at their largest, shared by every benchmark: 2048 blocks of
// 64 positions of 16-bit elements each.
struct Caches {
    tsuops_bench::DeviceBuffer k{kBlocks * kHeads * kMaxBlockSize * kDim * 2};
    tsuops_bench::DeviceBuffer v{kBlocks * kHeads * kMaxBlockSize * kDim * 2};
};
Caches& caches() {
    static Caches c;
    return c;
}

// Decode: each token its own random block and offset. Prefill: consecutive
// positions of one sequence over shuffled blocks.
std::vector<int> shuffled_slots(long tokens, long block_size) {
    std::mt19937 rng(7);
    std::vector<int> blocks(kBlocks);
    std::iota(blocks.begin(), blocks.end(), 0);
    std::shuffle(blocks.begin(), blocks.end(), rng);
    std::vector<int> slots(static_cast<std::size_t>(tokens));
    for (long t = 0; t < tokens; ++t) {
        slots[t] = tokens <= 64 ? blocks[t] * block_size + static_cast<int>(rng() % block_size)
                                : blocks[t / block_size] * block_size + static_cast<int>(t % block_size);
    }
    return slots;
}

template <typename T>
std::vector<T> rows(long count) {
    std::vector<float> f(static_cast<std::size_t>(count));
    std::mt19937 rng(1);
    std::normal_distribution<float> dist(0.0f, 2.0f);
    for (float& x : f) x = dist(rng);
    std::vector<T> out(f.size());
    infer_ops::narrow(f.data(), out.data(), count);
    return out;
}

// One call of the benchmarked store on ctx; the device's inputs live in
// device memory, which a host context reads as it is.
struct Inputs {
    tsuops_bench::DeviceBuffer k, v, scales, slots;
    explicit Inputs(const Shape& s)
        : k(s.tokens * kHeads * kDim * 2), v(s.tokens * kHeads * kDim * 2), scales(2 * kHeads * kDim * 4),
          slots(s.tokens * 8) {
        const auto x = rows<float16>(s.tokens * kHeads * kDim);
        std::memcpy(k.data(), x.data(), x.size() * 2);
        std::memcpy(v.data(), x.data(), x.size() * 2);
        std::vector<float> sc(2 * kHeads * kDim, 20.0f);
        std::memcpy(scales.data(), sc.data(), sc.size() * 4);
        const auto sl = shuffled_slots(s.tokens, s.block_size);
        std::memcpy(slots.data(), sl.data(), sl.size() * 4);
    }
};

int call(orvane::tsu::api::Context* ctx, const Shape& s, const Inputs& in) {
    Caches& c = caches();
    switch (s.op) {
    case Op::paged_bf16:
        return infer_ops::store_paged_kv_cache<bfloat16, bfloat16>(ctx, in.k.as<bfloat16>(), in.v.as<bfloat16>(),
                                                                   c.k.as<bfloat16>(), c.v.as<bfloat16>(),
                                                                   in.slots.as<int>(), nullptr, nullptr, s.tokens,
                                                                   kHeads, kDim, kBlocks, s.block_size);
    case Op::paged_f16_int8_scaled:
        return infer_ops::store_paged_kv_cache<float16, signed char>(
            ctx, in.k.as<float16>(), in.v.as<float16>(), c.k.as<signed char>(), c.v.as<signed char>(),
            in.slots.as<int>(), in.scales.as<float>(), in.scales.as<float>() + kHeads * kDim, s.tokens, kHeads, kDim,
            kBlocks, s.block_size);
    case Op::reshape_f16:
        return infer_ops::reshape_and_cache<float16, int>(ctx, in.k.as<float16>(), in.v.as<float16>(),
                                                          c.k.as<float16>(), c.v.as<float16>(), in.slots.as<int>(),
                                                          s.tokens, kBlocks, kHeads, kDim, kDim, s.block_size);
    }
    return -1;
}

void BM_store(benchmark::State& state, Shape s, bool device) {
    auto ctx = device ? tsuops_bench::device_context()
                      : std::make_unique<orvane::tsu::api::Context>(orvane::tsu::api::DeviceType::CPU);
    const Inputs in(s);
    caches();  // first touched here, not in the timed loop
    for (auto _ : state) {
        if (call(ctx.get(), s, in) != 0 || (device && tsu_wait(ctx->stream) != TSU_SUCCESS)) {
            state.SkipWithError("the store failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(traffic(s) * static_cast<std::int64_t>(state.iterations()));
}

const char* op_name(Op op) {
    switch (op) {
    case Op::paged_bf16: return "store_paged_kv_cache<bfloat16,bfloat16>";
    case Op::paged_f16_int8_scaled: return "store_paged_kv_cache<float16,int8_t>+scales";
    case Op::reshape_f16: return "reshape_and_cache<float16,int>";
    }
    return "";
}

const bool kRegistered = [] {
    std::vector<long> baselines;
    for (Op op : {Op::paged_bf16, Op::paged_f16_int8_scaled, Op::reshape_f16}) {
        for (long bs : kBlockSizes) {
            for (long tokens : kTokens) {
                const Shape s{op, tokens, bs};
                baselines.push_back(traffic(s) / 2);
                for (bool device : {true, false}) {
                    const std::string name = std::string(op_name(op)) + (device ? "/device/" : "/reference/") +
                                             std::to_string(tokens) + "tok/bs" + std::to_string(bs);
                    benchmark::RegisterBenchmark(name.c_str(), BM_store, s, device)
                        ->UseRealTime()
                        ->Unit(benchmark::kMicrosecond)
                        ->MinTime(tsuops_bench::kMinTime);
                }
            }
        }
    }
    std::sort(baselines.begin(), baselines.end());
    baselines.erase(std::unique(baselines.begin(), baselines.end()), baselines.end());
    for (long b : baselines) tsuops_bench::register_copy_baseline({b});
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
