// The fused attention front ends at LLM shapes: a Llama-3-8B-like layer (32
// query heads, 8 key heads, heads of 128, cache blocks of 16 and 64) and a
// Qwen-like one (28 and 4 heads, blocks of 16). The decoder at 1, 16, 64 and
// 256 sequences, the encoder at 512 and 4096 tokens (sequences of 512); a
// cache of the tensor's type or of signed char with per-head inverse scales.
//
// Bytes are what a call must move: the qkv rows read, q_emb, k_emb and v_out
// written, one table row read per token, the key and value rows written into
// the caches. The copy baseline of each shape copies half that many bytes,
// the same traffic: read the device figures as a fraction of
// copy/device_kernel at the same size. At decode the fixed cost of a call
// dominates: read its time per call beside empty_launch.
//
// "fused" is the front end in one launch; "separate" the same work as three
// operators in a row on float16, the types all three take: the split as
// three copies of the query, key and value bytes (the library has no strided
// split on the device, and contiguous copies of the same bytes cost the
// same), vsl_rotary_embedding_neox over whole heads, reshape_and_cached_lod.
// Its bytes are counted as the fused call's, so the two rates compare
// directly; the ratio of their times is the gain of fusing.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <type_traits>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;
using orvane::tsu::api::VectorParam;

constexpr long kHeadDim = 128;
constexpr long kSeqTokens = 512;  // encoder sequences, and the table's rows
constexpr long kDecodePosition = 40;

struct Model {
    const char* name;
    long q_heads, kv_heads;
};
constexpr Model kLlama{"llama3-8b", 32, 8};
constexpr Model kQwen{"qwen", 28, 4};

enum class Cache { same, int8 };
enum class Path { fused_bf16, fused_f16, separate_f16 };

struct Shape {
    Model model;
    bool decode;
    long tokens;  // sequences when decoding
    long block_size;
    Cache cache;
    Path path;

    long batch() const { return decode ? tokens : (tokens + kSeqTokens - 1) / kSeqTokens; }
    long row() const { return model.q_heads + 2 * model.kv_heads; }
    long kv_row() const { return model.kv_heads * kHeadDim; }
    // Positions a sequence reaches, in blocks.
    long blocks_per_seq() const {
        const long last = decode ? kDecodePosition + batch() : kSeqTokens;
        return (last + block_size - 1) / block_size;
    }
    long blocks() const { return batch() * blocks_per_seq(); }
};

long traffic(const Shape& s) {
    const long x = 2;  // bytes of a 16-bit element
    const long cache = s.cache == Cache::int8 ? 1 : 2;
    return s.tokens * (2 * s.row() * kHeadDim * x + 2 * kHeadDim * 4 + 2 * s.kv_row() * cache);
}

template <class T>
void fill(const DeviceBuffer& b, long n, float scale) {
    std::vector<float> f(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) f[i] = scale * static_cast<float>((i * 37) % 200 - 100) / 100.0f;
    if constexpr (std::is_same_v<T, float>) {
        std::memcpy(b.data(), f.data(), f.size() * 4);
    } else {
        std::vector<T> h(f.size());
        infer_ops::narrow(f.data(), h.data(), n);
        std::memcpy(b.data(), h.data(), h.size() * sizeof(T));
    }
}

// Everything a call reads and writes, in device memory.
struct Buffers {
    std::vector<int> lod, starts, lens, rows;  // lod: one token a sequence when decoding
    DeviceBuffer qkv, table, block_table, q_emb, k_emb, v_out, k_cache, v_cache, inv, q, k, v;

    explicit Buffers(const Shape& s)
        : qkv(s.tokens * s.row() * kHeadDim * 2), table(2 * kSeqTokens * kHeadDim * 4),
          block_table(s.blocks() * 4), q_emb(s.tokens * s.model.q_heads * kHeadDim * 2),
          k_emb(s.tokens * s.kv_row() * 2), v_out(s.tokens * s.kv_row() * 2),
          k_cache(s.blocks() * s.block_size * s.kv_row() * 2), v_cache(s.blocks() * s.block_size * s.kv_row() * 2),
          inv(2 * s.model.kv_heads * 4), q(s.path == Path::separate_f16 ? s.tokens * s.model.q_heads * kHeadDim * 2 : 8),
          k(s.path == Path::separate_f16 ? s.tokens * s.kv_row() * 2 : 8),
          v(s.path == Path::separate_f16 ? s.tokens * s.kv_row() * 2 : 8) {
        if (s.path == Path::fused_bf16) {
            fill<bfloat16>(qkv, s.tokens * s.row() * kHeadDim, 3.0f);
        } else {
            fill<float16>(qkv, s.tokens * s.row() * kHeadDim, 3.0f);
        }
        fill<float>(table, 2 * kSeqTokens * kHeadDim, 1.0f);
        std::vector<float> inv_h(static_cast<std::size_t>(2 * s.model.kv_heads), 0.25f);
        std::memcpy(inv.data(), inv_h.data(), inv_h.size() * 4);
        // Each sequence its own blocks, in reverse order.
        std::vector<int> bt(static_cast<std::size_t>(s.blocks()));
        std::iota(bt.rbegin(), bt.rend(), 0);
        std::memcpy(block_table.data(), bt.data(), bt.size() * 4);
        lod.push_back(0);
        for (long b = 0; b < s.batch(); ++b) {
            lod.push_back(static_cast<int>(std::min(s.tokens, (b + 1) * (s.decode ? 1 : kSeqTokens))));
            starts.push_back(s.decode ? static_cast<int>(kDecodePosition + b) : 0);
            lens.push_back(starts.back() + 1);
            rows.push_back(static_cast<int>(b));
        }
    }
};

template <class TX, class TC, class TS>
int fused(Context* ctx, const Shape& s, const Buffers& b) {
    const long n = s.batch();
    const float* ks = s.cache == Cache::int8 ? b.inv.as<float>() : nullptr;
    if (s.decode) {
        return infer_ops::split_rope_cache_kv_decoder<TX, float, TC, float, int>(
            ctx, b.qkv.as<TX>(), b.table.as<float>(), b.block_table.as<int>(), b.q_emb.as<TX>(), b.k_emb.as<TX>(),
            b.v_out.as<TX>(), b.k_cache.as<TC>(), b.v_cache.as<TC>(), VectorParam<int>{b.lens.data(), n},
            VectorParam<int>{b.rows.data(), n}, n, 1, kSeqTokens, s.model.q_heads, s.model.kv_heads, kHeadDim, n,
            s.block_size, s.blocks_per_seq(), "BLHD", "HLD", "NORMAL", ks, ks ? ks + s.model.kv_heads : nullptr,
            nullptr, nullptr, false);
    }
    return infer_ops::split_rope_cache_kv_encoder<TX, float, TC, int, TS>(
        ctx, b.qkv.as<TX>(), b.table.as<float>(), b.block_table.as<int>(), b.q_emb.as<TX>(), b.k_emb.as<TX>(),
        b.v_out.as<TX>(), b.k_cache.as<TC>(), b.v_cache.as<TC>(), VectorParam<int>{b.lod.data(), n + 1},
        VectorParam<int>{b.rows.data(), n}, VectorParam<int>{b.starts.data(), n}, n, 1, kSeqTokens, s.model.q_heads,
        s.model.kv_heads, kHeadDim, n, s.block_size, s.blocks_per_seq(), "BLHD", "HLD", "NORMAL", ks,
        ks ? ks + s.model.kv_heads : nullptr, nullptr, nullptr, nullptr, nullptr);
}

// The same work as three operators on float16.
template <class TC>
int separate(Context* ctx, const Shape& s, const Buffers& b) {
    const long n = s.batch(), qn = s.tokens * s.model.q_heads * kHeadDim, kn = s.tokens * s.kv_row();
    const float16* qkv = b.qkv.as<float16>();
    if (int st = infer_ops::copy<float16>(ctx, qkv, b.q.as<float16>(), qn)) return st;
    if (int st = infer_ops::copy<float16>(ctx, qkv + qn, b.k.as<float16>(), kn)) return st;
    if (int st = infer_ops::copy<float16>(ctx, qkv + qn + kn, b.v.as<float16>(), kn)) return st;
    const VectorParam<int> lod_p{b.lod.data(), n + 1};
    if (int st = infer_ops::vsl_rotary_embedding_neox<float16, float, int, false, true>(
            ctx, b.q.as<float16>(), b.k.as<float16>(), b.table.as<float>(), b.q_emb.as<float16>(),
            b.k_emb.as<float16>(), lod_p, 1, kSeqTokens, s.model.q_heads, kHeadDim, kHeadDim, "BLHD",
            VectorParam<int>{b.starts.data(), n}, "NORMAL", s.model.kv_heads, false)) {
        return st;
    }
    const float* ks = s.cache == Cache::int8 ? b.inv.as<float>() : nullptr;
    return infer_ops::reshape_and_cached_lod<float16, TC, int>(
        ctx, b.k_emb.as<float16>(), b.v.as<float16>(), b.k_cache.as<TC>(), b.v_cache.as<TC>(),
        b.block_table.as<int>(), lod_p, VectorParam<int>{b.starts.data(), n}, VectorParam<int>{b.rows.data(), n}, n,
        s.model.kv_heads, kHeadDim, n, s.block_size, s.blocks_per_seq(), "BLHD", "HLD", ks,
        ks ? ks + s.model.kv_heads : nullptr, nullptr, nullptr, nullptr, nullptr);
}

int call(Context* ctx, const Shape& s, const Buffers& b) {
    const bool int8 = s.cache == Cache::int8;
    switch (s.path) {
    case Path::fused_bf16:
        return int8 ? fused<bfloat16, signed char, bfloat16>(ctx, s, b) : fused<bfloat16, bfloat16, bfloat16>(ctx, s, b);
    case Path::fused_f16:
        return int8 ? fused<float16, signed char, bfloat16>(ctx, s, b) : fused<float16, float16, bfloat16>(ctx, s, b);
    case Path::separate_f16:
        return int8 ? separate<signed char>(ctx, s, b) : separate<float16>(ctx, s, b);
    }
    return -1;
}

void BM_front_end(benchmark::State& state, Shape s) {
    auto ctx = device_context();
    const Buffers b(s);
    for (auto _ : state) {
        if (call(ctx.get(), s, b) != 0 || tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("the front end failed");
            break;
        }
    }
    state.SetBytesProcessed(traffic(s) * static_cast<std::int64_t>(state.iterations()));
}

const char* path_name(Path p) {
    switch (p) {
    case Path::fused_bf16: return "fused<bfloat16>";
    case Path::fused_f16: return "fused<float16>";
    case Path::separate_f16: return "separate<float16>";
    }
    return "";
}

const bool kRegistered = [] {
    register_empty_launch("empty_launch");
    std::vector<long> baselines;
    struct Run {
        Model model;
        long block_size;
    };
    for (const Run& r : {Run{kLlama, 16}, Run{kLlama, 64}, Run{kQwen, 16}}) {
        for (const bool decode : {true, false}) {
            for (const long tokens : decode ? std::vector<long>{1, 16, 64, 256} : std::vector<long>{512, 4096}) {
                for (const Cache cache : {Cache::same, Cache::int8}) {
                    for (const Path path : {Path::fused_bf16, Path::fused_f16, Path::separate_f16}) {
                        const Shape s{r.model, decode, tokens, r.block_size, cache, path};
                        if (!decode) baselines.push_back(traffic(s) / 2);
                        const std::string name = std::string(decode ? "decoder/" : "encoder/") + r.model.name + "/" +
                                                 (cache == Cache::int8 ? "int8" : "16bit") + "/bs" +
                                                 std::to_string(r.block_size) + "/" + path_name(path) + "/" +
                                                 std::to_string(tokens) + (decode ? "seq" : "tok");
                        benchmark::RegisterBenchmark(name.c_str(), BM_front_end, s)
                            ->UseRealTime()
                            ->Unit(benchmark::kMicrosecond)
                            ->MinTime(kMinTime);
                    }
                }
            }
        }
    }
    std::sort(baselines.begin(), baselines.end());
    baselines.erase(std::unique(baselines.begin(), baselines.end()), baselines.end());
    for (long b : baselines) register_copy_baseline({b});
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
