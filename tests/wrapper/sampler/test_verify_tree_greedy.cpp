// verify_tree_greedy: named trees (a chain, a full tree, nothing accepted,
// accepted to the deepest leaf, the budget, broken trees) with their
// accepted paths, and random forests at the size limits, on both paths
// against a walk written here from explicit child lists; untouched slots
// keep the caller's sentinel; bad calls.
#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/tsuops_test.h"
#include "wrapper/sampler/sampler_limits.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace tsuops_test;
namespace lim = infer_ops::sampler_limits;

constexpr int kUnset = -7;

// One batch of trees: every array of the call, [bs, ndt] each.
struct Forest {
    long bs, nss, ndt;
    std::vector<long> candidates, index, next, sibling, target;
};

// A tree from its parents (parent[0] ignored) in the first-child,
// next-sibling form, children in ascending local number; node u of tree b
// sits at global position b * ndt + (ndt - 1 - u), so that local numbers
// and positions differ.
void add_tree(Forest& f, long b, const std::vector<long>& parent, const std::vector<long>& token) {
    const long base = b * f.ndt;
    for (long u = 0; u < f.ndt; ++u) {
        f.candidates[base + u] = u < static_cast<long>(token.size()) ? token[u] : 99;
        f.index[base + u] = base + f.ndt - 1 - u;
        f.next[base + u] = f.sibling[base + u] = -1;
    }
    for (long u = static_cast<long>(parent.size()) - 1; u >= 1; --u) {
        f.sibling[base + u] = f.next[base + parent[u]];
        f.next[base + parent[u]] = u;
    }
}

Forest empty_forest(long bs, long nss, long ndt) {
    const auto n = static_cast<std::size_t>(bs * ndt);
    return {bs, nss, ndt, std::vector<long>(n), std::vector<long>(n), std::vector<long>(n), std::vector<long>(n),
            std::vector<long>(n, 0)};
}

struct Result {
    std::vector<int> predicts, accept_index, accept_token_num;
    bool operator==(const Result&) const = default;
};

// The walk stated over explicit child lists: the children of a node are its
// first child and that child's siblings, up to the first link outside the
// tree or the first node seen twice. At each node the first child carrying
// the target's token is taken, if its position lies in the batch.
Result expected_walk(const Forest& f) {
    const long total = f.bs * f.ndt;
    Result r{std::vector<int>(total, kUnset), std::vector<int>(f.bs * f.nss, kUnset), std::vector<int>(f.bs * f.nss, kUnset)};
    const auto in = [](long v, long end) { return v >= 0 && v < end; };
    for (long b = 0; b < f.bs; ++b) {
        const long base = b * f.ndt;
        const auto children = [&](long u) {
            std::vector<long> out;
            std::set<long> seen;
            for (long c = f.next[base + u]; in(c, f.ndt) && seen.insert(c).second; c = f.sibling[base + c]) out.push_back(c);
            return out;
        };
        long pos = f.index[base];
        r.accept_index[b * f.nss] = static_cast<int>(pos);
        long depth = 0;
        if (in(pos, total)) {
            for (long u = 0; depth + 1 < f.nss;) {
                const auto kids = children(u);
                const auto hit = std::find_if(kids.begin(), kids.end(),
                                              [&](long c) { return f.candidates[base + c] == f.target[pos]; });
                if (hit == kids.end() || !in(f.index[base + *hit], total)) break;
                r.predicts[pos] = static_cast<int>(f.target[pos]);
                u = *hit;
                pos = f.index[base + u];
                r.accept_index[b * f.nss + ++depth] = static_cast<int>(pos);
            }
            r.predicts[pos] = static_cast<int>(f.target[pos]);
        }
        r.accept_token_num[b] = static_cast<int>(depth);
    }
    return r;
}

template <class TL>
Result run(Context* ctx, const Forest& f) {
    const auto cast = [](const std::vector<long>& v) { return std::vector<TL>(v.begin(), v.end()); };
    GuardedBuffer<int> predicts(ctx, std::vector<int>(f.bs * f.ndt, kUnset));
    GuardedBuffer<int> accept_index(ctx, std::vector<int>(f.bs * f.nss, kUnset));
    GuardedBuffer<int> accept_num(ctx, std::vector<int>(f.bs * f.nss, kUnset));
    GuardedBuffer<TL> cand(ctx, cast(f.candidates)), index(ctx, cast(f.index)), next(ctx, cast(f.next)),
        sibling(ctx, cast(f.sibling)), target(ctx, cast(f.target));
    if (::testing::Test::IsSkipped()) return {};
    EXPECT_EQ((infer_ops::verify_tree_greedy<int, TL>(ctx, predicts.data(), accept_index.data(), accept_num.data(),
                                                      cand.data(), index.data(), next.data(), sibling.data(),
                                                      target.data(), f.bs, f.nss, f.ndt)),
              0);
    return {predicts.download(), accept_index.download(), accept_num.download()};
}

template <class TL>
class VerifyTreeGreedy : public ::testing::Test {};
using TokenTypes = ::testing::Types<int, long>;
TYPED_TEST_SUITE(VerifyTreeGreedy, TokenTypes, ElementTypeNames);

struct NamedTree {
    const char* what;
    long nss;
    std::vector<long> parent, token;
    std::vector<long> target_by_node;  // the target's token at each local node
    std::vector<long> path;            // the accepted local nodes, root first
    void (*breaks)(Forest&);           // damage done to the built tree, or null
};

// Trees of 8 nodes; the target's token at node u is target_by_node[u].
TYPED_TEST(VerifyTreeGreedy, NamedTreesAcceptTheirPaths) {
    const std::vector<long> chain = {0, 0, 1, 2, 3, 4, 5, 6}, full = {0, 0, 0, 1, 1, 2, 2, 3};
    const std::vector<long> tokens = {0, 10, 11, 12, 13, 14, 15, 16};
    const std::vector<NamedTree> trees = {
        {"a chain accepted to its end", 8, chain, tokens, {10, 11, 12, 13, 14, 15, 16, 0}, {0, 1, 2, 3, 4, 5, 6, 7}, nullptr},
        {"a chain cut by the budget", 4, chain, tokens, {10, 11, 12, 13, 14, 15, 16, 0}, {0, 1, 2, 3}, nullptr},
        {"a budget of one: the root alone", 1, chain, tokens, {10, 11, 12, 13, 14, 15, 16, 0}, {0}, nullptr},
        {"a full tree: the second child, then its second child", 8, full, tokens, {11, 0, 15, 0, 0, 0, 0, 0},
         {0, 2, 6}, nullptr},
        {"a full tree accepted to its deepest leaf", 8, full, tokens, {10, 12, 0, 16, 0, 0, 0, 0}, {0, 1, 3, 7}, nullptr},
        {"nothing accepted", 8, full, tokens, {13, 0, 0, 0, 0, 0, 0, 0}, {0}, nullptr},
        {"a root without children", 8, {0}, {0}, {10, 0, 0, 0, 0, 0, 0, 0}, {0}, nullptr},
        {"siblings in a cycle, none matching", 8, full, tokens, {13, 0, 0, 0, 0, 0, 0, 0}, {0},
         [](Forest& f) { f.sibling[2] = 1; }},
        {"a first child pointing back at the root", 5, chain, std::vector<long>(8, 10),
         {10, 10, 10, 10, 10, 10, 10, 10}, {0, 1, 0, 1, 0}, [](Forest& f) { f.next[1] = 0; }},
        {"a link outside the tree ends the list", 8, full, tokens, {11, 0, 0, 0, 0, 0, 0, 0}, {0},
         [](Forest& f) { f.sibling[1] = 8; }},
        {"a position outside the batch ends the walk before it", 8, chain, tokens, {10, 11, 12, 13, 0, 0, 0, 0},
         {0, 1}, [](Forest& f) { f.index[2] = -5; }},
        {"a root outside the batch: nothing read through it", 8, chain, tokens, {10, 11, 0, 0, 0, 0, 0, 0}, {},
         [](Forest& f) { f.index[0] = 8; }},
    };
    for (const NamedTree& t : trees) {
        SCOPED_TRACE(t.what);
        Forest f = empty_forest(1, t.nss, 8);
        add_tree(f, 0, t.parent, t.token);
        for (long u = 0; u < 8; ++u) f.target[f.index[u]] = t.target_by_node[u];
        if (t.breaks) t.breaks(f);
        const Result want = expected_walk(f);
        std::vector<int> path(want.accept_index.begin(), want.accept_index.begin() + static_cast<long>(t.path.size()));
        std::vector<int> named;
        for (long u : t.path) named.push_back(static_cast<int>(f.index[u]));
        EXPECT_EQ(path, named) << "the walk written here";
        if (!t.path.empty()) {
            EXPECT_EQ(want.accept_token_num[0], static_cast<int>(t.path.size()) - 1);
        }
        for (const auto& ctx : {host_context(), device_context({.ncluster = 2})}) {
            SCOPED_TRACE("device type " + std::to_string(ctx->dev_type));
            const Result got = run<TypeParam>(ctx.get(), f);
            TSUOPS_RETURN_IF_SKIPPED();
            EXPECT_EQ(got.accept_index, want.accept_index);
            EXPECT_EQ(got.accept_token_num, want.accept_token_num);
            EXPECT_EQ(got.predicts, want.predicts);
        }
    }
}

// At the size limits: trees with random parents and tokens of three kinds;
// the target's tokens of six, so that some levels match and some do not.
TYPED_TEST(VerifyTreeGreedy, RandomForestsAtTheLimitsOnBothPaths) {
    for (long nss : {1L, 7L, lim::kMaxSpecSteps}) {
        SCOPED_TRACE("num_spec_step " + std::to_string(nss));
        Forest f = empty_forest(lim::kMaxTreeBatch, nss, lim::kMaxDraftTokens);
        const auto r = random_tensor<int>(3 * f.bs * f.ndt, static_cast<std::uint64_t>(nss), RandomSpec::range(0, 1 << 20));
        for (long b = 0; b < f.bs; ++b) {
            std::vector<long> parent(f.ndt), token(f.ndt);
            for (long u = 1; u < f.ndt; ++u) {
                parent[u] = r[b * f.ndt + u] % u;
                token[u] = r[f.bs * f.ndt + b * f.ndt + u] % 3;
            }
            add_tree(f, b, parent, token);
        }
        for (long p = 0; p < f.bs * f.ndt; ++p) f.target[p] = r[2 * f.bs * f.ndt + p] % 6;
        const Result want = expected_walk(f);
        EXPECT_GE(*std::max_element(want.accept_token_num.begin(), want.accept_token_num.begin() + f.bs),
                  std::min(nss - 1, 2L));
        for (const auto& ctx : {host_context(), device_context({.ncluster = 2})}) {
            SCOPED_TRACE("device type " + std::to_string(ctx->dev_type));
            const Result got = run<TypeParam>(ctx.get(), f);
            TSUOPS_RETURN_IF_SKIPPED();
            EXPECT_TRUE(got == want);
        }
    }
}

// The profile name, the type strings and the three sizes after the eight
// pointers.
TEST(VerifyTreeGreedyFrame, TracesNameTypesAndArguments) {
    auto dev = device_context({.debug_flags = 1});
    Forest f = empty_forest(2, 3, 4);
    add_tree(f, 0, {0, 0}, {0, 1});
    add_tree(f, 1, {0, 0}, {0, 1});
    TraceCapture traces;
    LogCapture quiet;  // a traced call logs its regions
    run<long>(dev.get(), f);
    ASSERT_EQ(traces.size(), 1u);
    const function_info info = traces.records()[0];
    EXPECT_EQ(info.name, "verify_tree_greedy");
    EXPECT_EQ(info.dtypes, (std::vector<std::string>{"int", "int64_t"}));
    ASSERT_EQ(info.params.size(), 12u);
    EXPECT_EQ(std::vector<std::string>(info.params.begin() + 8, info.params.end() - 1),
              (std::vector<std::string>{"2", "3", "4"}));
}

// Vector-engine instances count 1, others 100.
TEST(SamplerCatalogue, HoldsEveryInstanceOfTheFamilies) {
    std::map<std::string, int> families;
    for (const auto& k : infer_ops::kernel_catalogue()) families[k.family] += k.engine == 0 ? 1 : 100;
    for (const auto& [family, count] : std::map<std::string, int>{
             {"top_p_sampling", 4}, {"top_p_sampling_fallback", 4}, {"infer_top_k_renorm_probs", 3},
             {"infer_top_p_renorm_probs", 3}, {"infer_verify_tree_greedy", 2}}) {
        EXPECT_EQ(families[family], count) << family;
    }
}

using wrapper_test::as;
constexpr auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;

// predicts, accept_index, accept_token_num, candidates, retrive_index are
// p[0..4]; the three lists share p[5]. bs and num_draft_tokens are the
// row's sizes, num_spec_step its parameter.
TEST(VerifyTreeGreedyFailure, StatusLogAndNothingWritten) {
    const auto call = [](Context* c, void* const* p, long bs, long ndt, double nss) {
        return infer_ops::verify_tree_greedy<int, int>(c, as<int>(p[0]), as<int>(p[1]), as<int>(p[2]), as<int>(p[3]),
                                                       as<int>(p[4]), as<int>(p[5]), as<int>(p[5]), as<int>(p[5]), bs,
                                                       static_cast<long>(nss), ndt);
    };
    using S = tsuemu::Site;
    wrapper_test::expect_failures(
        {call}, {0, 1, 2},
        {{"null context", 0, wrapper_test::kNoContext, 2, 4, 3, 0, 0, {}, 1, nullptr, {}},
         {"too many sequences", 0, cpu, lim::kMaxTreeBatch + 1, 4, 3, 0, 0, {}, 1, "compare_fail",
          {"257", "<=", "256"}},
         {"too many steps", 0, dev, 2, 4, lim::kMaxSpecSteps + 1, 0, 0, {}, 1, "compare_fail", {"65", "<=", "64"}},
         {"too many nodes", 0, cpu, 2, lim::kMaxDraftTokens + 1, 3, 0, 0, {}, 1, "compare_fail", {"65", "<=", "64"}},
         {"too many sequences and nodes: sequences first", 0, dev, 257, 65, 3, 0, 0, {}, 1, "compare_fail",
          {"257", "<=", "256"}},
         {"a bad pointer and too many sequences: the region first", 0, cpu, 257, 4, 3, 2, 1, {}, 1, "invalid_memory",
          {}},
         {"no sequences", 0, dev, 0, 4, 3, 0, 0, {}, 1, "invalid_memory", {}},
         {"accept_token_num past device memory", 0, dev, 2, 4, 3, 2, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"a tree list with no memory", 0, dev, 2, 4, 3, 5, 0x1000, {}, 1, "invalid_memory", {}},
         {"device type without a path", 0, DeviceType::TSU4, 2, 4, 3, 0, 0, {}, 4, "unimplement", {}},
         {"configuration fails: the runtime's code as a nested status", 0, dev, 2, 4, 3, 0, 0, S::Config, 7,
          "compare_fail", {"7", "==", "SUCCESS"}},
         {"launch fails: the same", 0, dev, 2, 4, 3, 0, 0, S::Async, 7, "compare_fail", {"7", "==", "SUCCESS"}}});
}

}  // namespace
