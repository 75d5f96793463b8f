// The group routers at DeepSeek-V3-like routing (256 experts in 8 groups, 4
// groups taken, k 8; the singlek router with one shared expert) for 1, 64
// and 4096 tokens; top_k_renorm_probs (k 50) and top_p_renorm_probs (p 0.9)
// over vocabularies of 32000 and 152064 at 1 and 64 rows; verify_tree_greedy
// at batch 64 with 64 draft tokens. The device path (launch and wait) and
// the reference path, each reporting microseconds per call and the bytes it
// must move (the logits read and the choices written; each row read and
// written once; the tree arrays read and the paths written). launch/empty
// is the fixed cost of one launch and wait; copy/device_kernel of the
// renormalisers' sizes is the memory bound.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tsuops/infer_ops.h>

#include "bench_common.h"

namespace {

using namespace tsuops_bench;

constexpr long kExperts = 256, kGroups = 8, kGroupsTaken = 4, kChoices = 8, kShared = 1;
constexpr long kTokens[] = {1, 64, 4096};
constexpr long kVocab[] = {32000, 152064};
constexpr long kRows[] = {1, 64};
constexpr long kTopK = 50;
constexpr float kTopP = 0.9f;
constexpr long kBatch = 64, kDraft = 64, kSteps = 8;

// The bytes of 64 rows of each vocabulary in float, and of the router's
// logits at 4096 tokens.
const bool kBaseline = (register_copy_baseline({64 * 32000 * 4, 64 * 152064 * 4, 4096 * kExperts * 2}), true);

std::uint64_t mix(std::uint64_t i) {
    i = (i ^ (i >> 30)) * 0xbf58476d1ce4e5b9ull;
    i = (i ^ (i >> 27)) * 0x94d049bb133111ebull;
    return i ^ (i >> 31);
}

// Logits in [-4, 4), a different spread in every row.
std::vector<bfloat16> logits(long n) {
    std::vector<bfloat16> v(static_cast<std::size_t>(n));
    for (long i = 0; i < n; ++i) v[i] = bfloat16(static_cast<float>(mix(i) % 800) / 100.0f - 4.0f);
    return v;
}

// Zipf-like rows: the token of rank r has probability proportional to
// (r + 1)^-1.1, the ranks shuffled over the vocabulary.
std::vector<float> distribution(long m, long n) {
    std::vector<float> v(static_cast<std::size_t>(m * n));
    for (long r = 0; r < m; ++r) {
        double sum = 0;
        for (long j = 0; j < n; ++j) sum += std::pow(static_cast<double>(mix(r * n + j) % n + 1), -1.1);
        for (long j = 0; j < n; ++j) {
            v[r * n + j] = static_cast<float>(std::pow(static_cast<double>(mix(r * n + j) % n + 1), -1.1) / sum);
        }
    }
    return v;
}

void report(benchmark::State& state, long items, long bytes) {
    state.SetItemsProcessed(items * static_cast<std::int64_t>(state.iterations()));
    state.SetBytesProcessed(bytes * static_cast<std::int64_t>(state.iterations()));
}

enum class Router { group_topk, sigmoid, singlek };

long router_width(Router r) { return r == Router::singlek ? kGroups + kShared : kChoices; }

int route(Router r, Context* ctx, const bfloat16* x, const float* bias, float* score, int* index, long tokens) {
    switch (r) {
    case Router::group_topk:
        return infer_ops::moe_group_topk_fusion<bfloat16, float, int>(ctx, x, score, index, nullptr, tokens, kExperts,
                                                                      kGroups, kGroupsTaken, kChoices, 0);
    case Router::sigmoid:
        return infer_ops::moe_sigmoid_topk_norm_fusion<bfloat16, float, int>(
            ctx, x, const_cast<float*>(bias), 2.5f, score, index, nullptr, tokens, kExperts, kGroups, kGroupsTaken,
            kChoices, 0);
    case Router::singlek:
        return infer_ops::moe_softmax_group_singlek_norm<bfloat16, float, int>(ctx, x, score, index, nullptr, tokens,
                                                                               kExperts, kGroups, kShared, 0);
    }
    return -1;
}

long router_bytes(Router r, long tokens) { return tokens * kExperts * 2 + tokens * router_width(r) * 8; }

void router_device(benchmark::State& state, Router r, long tokens) {
    auto ctx = device_context();
    DeviceBuffer x(tokens * kExperts * 2), bias(kExperts * 4), score(tokens * 16 * 4), index(tokens * 16 * 4);
    const auto xs = logits(tokens * kExperts);
    std::memcpy(x.data(), xs.data(), xs.size() * sizeof(bfloat16));
    std::memset(bias.data(), 0, kExperts * 4);
    for (auto _ : state) {
        if (route(r, ctx.get(), x.as<bfloat16>(), bias.as<float>(), score.as<float>(), index.as<int>(), tokens) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("router failed");
            break;
        }
    }
    report(state, tokens, router_bytes(r, tokens));
}

void router_reference(benchmark::State& state, Router r, long tokens) {
    Context ctx(DeviceType::CPU);
    const auto xs = logits(tokens * kExperts);
    const std::vector<float> bias(kExperts, 0.0f);
    std::vector<float> score(static_cast<std::size_t>(tokens * 16));
    std::vector<int> index(static_cast<std::size_t>(tokens * 16));
    for (auto _ : state) {
        if (route(r, &ctx, xs.data(), bias.data(), score.data(), index.data(), tokens) != 0) {
            state.SkipWithError("router failed");
            break;
        }
        benchmark::DoNotOptimize(index.data());
        benchmark::ClobberMemory();
    }
    report(state, tokens, router_bytes(r, tokens));
}

int renorm(bool top_k, Context* ctx, const float* x, float* y, long m, long n) {
    return top_k ? infer_ops::top_k_renorm_probs<float, int>(ctx, x, y, m, n, kTopK, nullptr)
                 : infer_ops::top_p_renorm_probs<float>(ctx, x, y, nullptr, kTopP, m, n);
}

void renorm_device(benchmark::State& state, bool top_k, long m, long n) {
    auto ctx = device_context();
    DeviceBuffer x(m * n * 4), y(m * n * 4);
    const auto xs = distribution(m, n);
    std::memcpy(x.data(), xs.data(), xs.size() * sizeof(float));
    for (auto _ : state) {
        if (renorm(top_k, ctx.get(), x.as<float>(), y.as<float>(), m, n) != 0 || tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("renormalisation failed");
            break;
        }
    }
    report(state, m, 2 * m * n * 4);
}

void renorm_reference(benchmark::State& state, bool top_k, long m, long n) {
    Context ctx(DeviceType::CPU);
    const auto xs = distribution(m, n);
    std::vector<float> y(xs.size());
    for (auto _ : state) {
        if (renorm(top_k, &ctx, xs.data(), y.data(), m, n) != 0) {
            state.SkipWithError("renormalisation failed");
            break;
        }
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    report(state, m, 2 * m * n * 4);
}

// Random trees whose tokens the target agrees with often enough that paths
// run several levels deep.
struct Trees {
    std::vector<int> candidates, index, next, sibling, target;
    Trees() : candidates(kBatch * kDraft), index(kBatch * kDraft), next(kBatch * kDraft, -1),
              sibling(kBatch * kDraft, -1), target(kBatch * kDraft) {
        for (long b = 0; b < kBatch; ++b) {
            const long base = b * kDraft;
            for (long u = kDraft - 1; u >= 0; --u) {
                candidates[base + u] = static_cast<int>(mix(base + u) % 3);
                index[base + u] = static_cast<int>(base + u);
                target[base + u] = static_cast<int>(mix(base + u + 7) % 4);
                if (u > 0) {
                    const long parent = static_cast<long>(mix(base + u + 13) % u);
                    sibling[base + u] = next[base + parent];
                    next[base + parent] = static_cast<int>(u);
                }
            }
        }
    }
};

constexpr long kTreeBytes = 5 * kBatch * kDraft * 4 + kBatch * kDraft * 4 + 2 * kBatch * kSteps * 4;

void verify_device(benchmark::State& state) {
    auto ctx = device_context();
    const Trees t;
    const long nodes = kBatch * kDraft * 4;
    DeviceBuffer cand(nodes), index(nodes), next(nodes), sibling(nodes), target(nodes), predicts(nodes),
        accept(kBatch * kSteps * 4), count(kBatch * kSteps * 4);
    std::memcpy(cand.data(), t.candidates.data(), nodes);
    std::memcpy(index.data(), t.index.data(), nodes);
    std::memcpy(next.data(), t.next.data(), nodes);
    std::memcpy(sibling.data(), t.sibling.data(), nodes);
    std::memcpy(target.data(), t.target.data(), nodes);
    for (auto _ : state) {
        if (infer_ops::verify_tree_greedy<int, int>(ctx.get(), predicts.as<int>(), accept.as<int>(), count.as<int>(),
                                                    cand.as<int>(), index.as<int>(), next.as<int>(),
                                                    sibling.as<int>(), target.as<int>(), kBatch, kSteps,
                                                    kDraft) != 0 ||
            tsu_wait(ctx->stream) != TSU_SUCCESS) {
            state.SkipWithError("verify_tree_greedy failed");
            break;
        }
    }
    report(state, kBatch, kTreeBytes);
}

void verify_reference(benchmark::State& state) {
    Context ctx(DeviceType::CPU);
    Trees t;
    std::vector<int> predicts(kBatch * kDraft), accept(kBatch * kSteps), count(kBatch * kSteps);
    for (auto _ : state) {
        if (infer_ops::verify_tree_greedy<int, int>(&ctx, predicts.data(), accept.data(), count.data(),
                                                    t.candidates.data(), t.index.data(), t.next.data(),
                                                    t.sibling.data(), t.target.data(), kBatch, kSteps, kDraft) != 0) {
            state.SkipWithError("verify_tree_greedy failed");
            break;
        }
        benchmark::DoNotOptimize(accept.data());
        benchmark::ClobberMemory();
    }
    report(state, kBatch, kTreeBytes);
}

const bool kRegistered = [] {
    register_empty_launch("launch/empty");
    const std::pair<Router, const char*> routers[] = {
        {Router::group_topk, "moe_group_topk_fusion<bfloat16,float,int>"},
        {Router::sigmoid, "moe_sigmoid_topk_norm_fusion<bfloat16,float,int>"},
        {Router::singlek, "moe_softmax_group_singlek_norm<bfloat16,float,int>"}};
    for (const auto& [r, name] : routers) {
        for (long tokens : kTokens) {
            const std::string l = "/" + std::to_string(tokens) + "x256/8_groups";
            per_call(benchmark::RegisterBenchmark((std::string(name) + "/device" + l).c_str(), router_device, r,
                                                   tokens));
            per_call(benchmark::RegisterBenchmark((std::string(name) + "/reference" + l).c_str(), router_reference,
                                                   r, tokens));
        }
    }
    for (bool top_k : {true, false}) {
        const std::string name = top_k ? "top_k_renorm_probs<float>/k50" : "top_p_renorm_probs<float>/p0.9";
        for (long n : kVocab) {
            for (long m : kRows) {
                const std::string l = "/" + std::to_string(m) + "x" + std::to_string(n);
                per_call(benchmark::RegisterBenchmark((name + "/device" + l).c_str(), renorm_device, top_k, m, n));
                // The reference at 64 rows of the large vocabulary takes seconds a call.
                if (m == 1 || n == kVocab[0]) {
                    per_call(benchmark::RegisterBenchmark((name + "/reference" + l).c_str(), renorm_reference, top_k,
                                                           m, n));
                }
            }
        }
    }
    per_call(benchmark::RegisterBenchmark("verify_tree_greedy<int,int>/device/64x64/8_steps", verify_device));
    per_call(benchmark::RegisterBenchmark("verify_tree_greedy<int,int>/reference/64x64/8_steps", verify_reference));
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
