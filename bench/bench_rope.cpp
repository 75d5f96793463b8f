// rotary_embedding_neox at LLM shapes: 32 query heads, 8 or 32 key heads,
// heads of 128 with a rotary span of 128 or 64, at decode (1, 16, 64 tokens)
// and prefill (512, 4096 tokens); the device path (launch and wait) and, at a
// few shapes, the reference path.
//
// Bytes are what a call must move: the rotary spans of query and key read and
// written, and one table row and one position read per token (the tail of a
// head is not touched). The copy baseline of each prefill shape copies the
// rotary spans once, the same traffic: read the device figure as a fraction
// of copy/device_kernel of the span bytes. At decode the fixed cost of a call
// dominates: read its time beside empty_launch, a launch that does nothing.
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;

struct Shape {
    long tokens;
    long kv_heads;
    long rotary_dim;
};

constexpr long kHeads = 32;
constexpr long kHeadSize = 128;
constexpr long kTableRows = 4096;
constexpr long kTokens[] = {1, 16, 64, 512, 4096};
constexpr long kKvHeads[] = {8, 32};
constexpr long kRotaryDims[] = {128, 64};

template <class TX>
long span_bytes(const Shape& s) {
    return s.tokens * (kHeads + s.kv_heads) * s.rotary_dim * static_cast<long>(sizeof(TX));
}

template <class TX, class TCS, class TID>
long bytes_moved(const Shape& s) {
    return 2 * span_bytes<TX>(s) + s.tokens * (s.rotary_dim * static_cast<long>(sizeof(TCS)) + sizeof(TID));
}

const bool kBaseline = [] {
    for (long t : {512L, 4096L}) {
        for (long kv : kKvHeads) {
            for (long rd : kRotaryDims) register_copy_baseline({span_bytes<bfloat16>({t, kv, rd})});
        }
    }
    return true;
}();

template <class T>
std::vector<T> values(long n) {
    std::vector<T> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) v[static_cast<std::size_t>(i)] = T(static_cast<float>((i * 37) % 200 - 100) / 100.0f);
    return v;
}

template <class T>
std::vector<T> positions(long n) {
    std::vector<T> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) v[static_cast<std::size_t>(i)] = static_cast<T>((i * 131) % kTableRows);
    return v;
}

template <class T>
void upload(const DeviceBuffer& dst, const std::vector<T>& src) {
    std::memcpy(dst.data(), src.data(), src.size() * sizeof(T));
}

template <class TX, class TCS, class TID>
void rope_device(benchmark::State& state, Shape s) {
    auto ctx = device_context();
    const long nq = s.tokens * kHeads * kHeadSize, nk = s.tokens * s.kv_heads * kHeadSize;
    DeviceBuffer q(nq * static_cast<long>(sizeof(TX))), k(nk * static_cast<long>(sizeof(TX)));
    DeviceBuffer table(kTableRows * s.rotary_dim * static_cast<long>(sizeof(TCS)));
    DeviceBuffer pos(s.tokens * static_cast<long>(sizeof(TID)));
    upload(q, values<TX>(nq));
    upload(k, values<TX>(nk));
    upload(table, values<TCS>(kTableRows * s.rotary_dim));
    upload(pos, positions<TID>(s.tokens));
    for (auto _ : state) {
        if (infer_ops::rotary_embedding_neox<TX, TCS, TID>(ctx.get(), pos.as<TID>(), q.as<TX>(), k.as<TX>(),
                                                           table.as<TCS>(), s.rotary_dim, kHeads, s.kv_heads,
                                                           kHeadSize, s.tokens) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("rotary_embedding_neox failed");
            break;
        }
    }
    state.SetBytesProcessed(bytes_moved<TX, TCS, TID>(s) * static_cast<std::int64_t>(state.iterations()));
}

template <class TX, class TCS, class TID>
void rope_reference(benchmark::State& state, Shape s) {
    Context ctx(DeviceType::CPU);
    std::vector<TX> q = values<TX>(s.tokens * kHeads * kHeadSize), k = values<TX>(s.tokens * s.kv_heads * kHeadSize);
    const std::vector<TCS> table = values<TCS>(kTableRows * s.rotary_dim);
    const std::vector<TID> pos = positions<TID>(s.tokens);
    for (auto _ : state) {
        if (infer_ops::rotary_embedding_neox<TX, TCS, TID>(&ctx, pos.data(), q.data(), k.data(), table.data(),
                                                           s.rotary_dim, kHeads, s.kv_heads, kHeadSize,
                                                           s.tokens) != 0) {
            state.SkipWithError("rotary_embedding_neox failed");
            break;
        }
        benchmark::DoNotOptimize(q.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(bytes_moved<TX, TCS, TID>(s) * static_cast<std::int64_t>(state.iterations()));
}

std::string label(const Shape& s) {
    return std::to_string(s.tokens) + "t/kv" + std::to_string(s.kv_heads) + "/rd" + std::to_string(s.rotary_dim);
}

template <class TX, class TCS, class TID>
void register_types(const std::string& types) {
    for (long t : kTokens) {
        for (long kv : kKvHeads) {
            for (long rd : kRotaryDims) {
                const Shape s{t, kv, rd};
                const std::string name = "rotary_embedding_neox<" + types + ">/";
                per_call(benchmark::RegisterBenchmark((name + "device/" + label(s)).c_str(), rope_device<TX, TCS, TID>,
                                                       s));
                if (kv == 8 && rd == 128 && (t == 16 || t == 512)) {
                    per_call(benchmark::RegisterBenchmark((name + "reference/" + label(s)).c_str(),
                                                           rope_reference<TX, TCS, TID>, s));
                }
            }
        }
    }
}

const bool kRegistered = [] {
    register_empty_launch("empty_launch");
    register_types<bfloat16, float, int>("bfloat16,float,int");
    register_types<float16, float16, long>("float16,float16,int64_t");
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
