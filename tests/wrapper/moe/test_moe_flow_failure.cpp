// The token flow's bad calls: regions and comparisons in their order, the
// device limits and failed device steps told as kernel failures.
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "moe_test.h"
#include "wrapper/moe/moe_flow.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace moe_test;
namespace flow = infer_ops::moe_flow;
using wrapper_test::as;

// Calls of the six buffers p[0..]; m, n and the row's parameter as each
// call says. d is 4 where not given.
std::vector<wrapper_test::Call> calls() {
    const auto i = [](void* p) { return as<int>(p); };
    return {
        [=](Context* c, void* const* p, long m, long n, double k) {  // e n, k in the parameter, no statistic
            return infer_ops::moe_ffn_pre_sorted<float16, int>(c, as<float16>(p[0]), i(p[1]), nullptr,
                                                               as<float16>(p[2]), i(p[3]), i(p[4]), i(p[5]), m, 4, n,
                                                               static_cast<long>(k), 0);
        },
        [=](Context* c, void* const* p, long m, long n, double blocks) {  // statistic p[4], k 2
            return infer_ops::moe_ffn_pre_sorted<float, int>(c, as<float>(p[0]), i(p[1]), i(p[4]), as<float>(p[2]),
                                                             i(p[3]), nullptr, i(p[5]), m, 4, n, 2,
                                                             static_cast<long>(blocks));
        },
        [=](Context* c, void* const* p, long m, long n, double y_rows) {  // k 2, no statistic
            return infer_ops::moe_ffn_pre_sorted_quant_pe<bfloat16, int>(
                c, as<bfloat16>(p[0]), i(p[1]), as<float>(p[2]), nullptr, as<signed char>(p[3]), i(p[4]), nullptr,
                i(p[5]), nullptr, m, 4, n, 2, 0, static_cast<long>(y_rows));
        },
        [=](Context* c, void* const* p, long m, long n, double blocks) {  // k 2
            return infer_ops::moe_ffn_pre_fusion<int>(c, i(p[0]), i(p[1]), i(p[2]), i(p[3]), m, n, 2,
                                                      static_cast<long>(blocks));
        },
        [=](Context* c, void* const* p, long m, long d, double k) {
            return infer_ops::moe_ffn_post_fusion<bfloat16, int, float, float>(
                c, as<bfloat16>(p[0]), i(p[1]), as<float>(p[2]), as<float>(p[3]), as<bfloat16>(p[4]), m, d,
                static_cast<long>(k));
        },
        [=](Context* c, void* const* p, long m, long d, double k) {
            return infer_ops::moe_sum<float16>(c, as<float16>(p[0]), as<float16>(p[1]), m, d, static_cast<long>(k));
        },
    };
}

TEST(MoeFlowFailure, StatusLogAndNothingWritten) {
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3, other = DeviceType::TSU4;
    const auto x_first = std::vector<std::string>{"", "0x1000", "{8}", "{1}", "input"};
    wrapper_test::expect_failures(
        calls(), {0, 1, 2, 3, 4, 5},
        {{"sorted: null context", 0, wrapper_test::kNoContext, 2, 4, 2, 0, 0, {}, 1, nullptr, {}},
         {"sorted: x no memory", 0, dev, 2, 4, 2, 0, 0x1000, {}, 1, "invalid_memory", x_first},
         {"sorted: every pointer bad and k above the device's limit: x first", 0, dev, 2, 4, 65, -1, 0x1000, {}, 1,
          "invalid_memory", x_first},
         {"sorted: null routing table", 0, cpu, 2, 4, 2, 1, 1, {}, 1, "invalid_memory", {}},
         {"sorted: null offsets", 0, dev, 2, 4, 2, 5, 1, {}, 1, "invalid_memory", {}},
         {"sorted: no tokens", 0, cpu, 0, 4, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"sorted: another device type does nothing", 0, other, 2, 4, 2, 0, 0, {}, 0, nullptr, {}},
         {"sorted: statistic past device memory", 1, dev, 2, 4, 2, 4, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"quant: null maxima", 2, dev, 2, 4, 0, 2, 1, {}, 1, "invalid_memory", {}},
         {"quant: y no memory", 2, cpu, 2, 4, 9, 3, 1, {}, 1, "invalid_memory", {}},
         {"quant: every pointer bad: x first", 2, dev, 2, 4, 0, -1, 0x1000, {}, 1, "invalid_memory", x_first},
         {"fusion: 11 blocks", 3, dev, 2, 4, 11, 0, 0, {}, 1, "compare_fail", {"11", "==", "12"}},
         {"fusion: 11 blocks and a null table: the table first", 3, cpu, 2, 4, 11, 0, 1, {}, 1, "invalid_memory", {}},
         {"fusion: 11 blocks and too many experts: the blocks first", 3, dev, 2, 2000, 11, 0, 0, {}, 1,
          "compare_fail", {"11", "==", "12"}},
         {"fusion: null statistic", 3, dev, 2, 4, 12, 1, 1, {}, 1, "invalid_memory", {}},
         {"fusion: 1024 experts", 3, cpu, 2, flow::kPreFusionExpertLimit, 12, 0, 0, {}, 1, "compare_fail",
          {"1024", "<", "1024"}},
         {"fusion: fewer experts than choices", 3, dev, 2, 1, 12, 0, 0, {}, 1, "compare_fail", {"1", ">=", "2"}},
         {"fusion: no tokens: the table's region first", 3, dev, 0, 4, 12, 0, 0, {}, 1, "invalid_memory", {}},
         {"post: null moe_index", 4, dev, 2, 4, 2, 1, 1, {}, 1, "invalid_memory", {}},
         {"post: factors past device memory", 4, dev, 2, 4, 2, 3, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"post: no choices", 4, cpu, 2, 4, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"post: another device type does nothing", 4, other, 2, 4, 2, 0, 0, {}, 0, nullptr, {}},
         {"sum: y no memory", 5, dev, 2, 4, 2, 1, 0x1000, {}, 1, "invalid_memory", {}},
         {"sum: no columns", 5, cpu, 2, 0, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"sum: another device type does nothing", 5, other, 2, 4, 2, 0, 0, {}, 0, nullptr, {}}});
}

// Device failures, each told as a failure of its own and then as a kernel
// failure of the operator.
TEST(MoeFlowFailure, DeviceFailuresAreToldAsKernelFailures) {
    using S = tsuemu::Site;
    const auto dev = DeviceType::TSU3, tsu2 = DeviceType::TSU2;
    constexpr long kMost = flow::kMaxPairsWithoutStatistic + 1;
    struct Buffers {
        GuardedBuffer<float> x, y, pe, token_max;
        GuardedBuffer<int> index, stat, moe_index, counts, lod;
        GuardedBuffer<signed char> q;
        GuardedBuffer<long> lod_long;
    };
    using Op = std::function<int(Context*, Buffers&)>;
    const auto sorted = [](long m, long e, long k, long blocks, bool stat) -> Op {
        return [=](Context* c, Buffers& b) {
            return infer_ops::moe_ffn_pre_sorted<float, int>(c, b.x.data(), b.index.data(),
                                                             stat ? b.stat.data() : nullptr, b.y.data(),
                                                             b.moe_index.data(), b.counts.data(), b.lod.data(), m, 2,
                                                             e, k, blocks);
        };
    };
    const Op quant = [](Context* c, Buffers& b) {
        return infer_ops::moe_ffn_pre_sorted_quant_pe<float, int>(c, b.x.data(), b.index.data(), b.pe.data(), nullptr,
                                                                  b.q.data(), b.moe_index.data(), b.counts.data(),
                                                                  b.lod.data(), b.token_max.data(), 8, 2, 4, 2, 0, 0);
    };
    const Op fusion = [](Context* c, Buffers& b) {
        return infer_ops::moe_ffn_pre_fusion<int>(c, b.index.data(), b.stat.data(), b.moe_index.data(), b.lod.data(),
                                                  8, 4, 2, flow::kPreFusionBlocks);
    };
    const Op post = [](Context* c, Buffers& b) {
        return infer_ops::moe_ffn_post_fusion<float, int, float, float>(c, b.x.data(), b.index.data(), b.pe.data(),
                                                                        nullptr, b.y.data(), 8, 2, 2);
    };
    const Op sum = [](Context* c, Buffers& b) { return infer_ops::moe_sum<float>(c, b.x.data(), b.y.data(), 8, 2, 2); };
    const Op align = [](Context* c, Buffers& b) {
        return infer_ops::moe_align_block_size<int>(c, b.index.data(), b.moe_index.data(), b.counts.data(),
                                                    b.lod.data(), 4, 2, 4);
    };
    const Op offsets = [](Context* c, Buffers& b) {
        return infer_ops::moe_expert_m_to_lod<int, long>(c, b.index.data(), b.lod_long.data(), 4, true);
    };
    const Op resort = [](Context* c, Buffers& b) {
        return infer_ops::moe_resort_idx<int>(c, b.index.data(), b.moe_index.data(), 4, 0);
    };
    struct Row {
        const char* what;
        DeviceType type;
        Op op;
        std::optional<S> fault;
        int nth;
        std::vector<std::string> told;
        bool untouched = true;
    };
    const std::vector<Row> rows = {
        {"k above 64", dev, sorted(2, 4, 65, 0, false), {}, 0, {"compare_fail 65 <= 64", "kernel_fail 1"}},
        {"e above 256", dev, sorted(2, 257, 2, 2, true), {}, 0, {"compare_fail 257 <= 256", "kernel_fail 1"}},
        {"k above 64 and e above 256: k first", dev, sorted(2, 257, 65, 0, false), {}, 0,
         {"compare_fail 65 <= 64", "kernel_fail 1"}},
        {"too many pairs without a statistic", dev, sorted(kMost, 4, 1, 0, false), {}, 0,
         {"compare_fail 16129 <= 16128", "kernel_fail 1"}},
        {"second generation", tsu2, sorted(2, 4, 2, 0, false), {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"launch fails", dev, sorted(8, 4, 2, 3, true), S::Config, 1, {"kernel_fail 7", "kernel_fail 2"}},
        {"no scratch for the statistic", dev, sorted(8, 4, 2, 3, false), S::PoolAlloc, 1,
         {"compare_fail ptr(0) != nullptr", "kernel_fail 3"}},
        {"the statistic's launch fails", dev, sorted(8, 4, 2, 3, false), S::Async, 1,
         {"kernel_fail 7", "kernel_fail 2", "kernel_fail 2"}},
        {"quant: the maxima's launch fails", dev, quant, S::Async, 2, {"kernel_fail 7", "kernel_fail 2"}, false},
        {"fusion: launch fails", dev, fusion, S::Config, 1, {"kernel_fail 7", "kernel_fail 2"}},
        {"fusion: second generation", tsu2, fusion, {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"post: launch fails", dev, post, S::ArgumentSet, 3, {"kernel_fail 7", "kernel_fail 2"}},
        {"post: second generation", tsu2, post, {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"sum: launch fails, told once", dev, sum, S::Async, 1, {"kernel_fail 7"}},
        {"sum: second generation", tsu2, sum, {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"align: wrapper and entry", dev, align, S::Config, 1, {"kernel_fail 7", "kernel_fail 2"}},
        {"offsets: wrapper and entry", dev, offsets, S::Async, 1, {"kernel_fail 7", "kernel_fail 2"}},
        {"offsets: second generation", tsu2, offsets, {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"resort: the launch's code against 0", dev, resort, S::Async, 1, {"compare_fail 7 == 0", "kernel_fail 7"}},
        {"resort: second generation", tsu2, resort, {}, 0, {"unimplement 2", "kernel_fail 4"}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        if (r.type == tsu2 && !tsuemu::gm_available(2)) continue;
        auto ctx = make_context(r.type);
        Context* c = ctx.get();
        Buffers b{{c, 2 * kMost}, {c, 2 * kMost}, {c, 4}, {c, 16},
                  {c, std::vector<int>(kMost, 1)}, {c, std::vector<int>(3 * 257, 1)}, {c, kMost}, {c, 257},
                  {c, 258}, {c, 2 * kMost}, {c, 5}};
        TSUOPS_RETURN_IF_SKIPPED();
        for (auto* o : {&b.y, &b.token_max}) o->fill_sentinel();
        LogCapture logs;
        if (r.fault) tsuemu::inject_failure(*r.fault, r.nth, 7);
        EXPECT_EQ(r.op(c, b), 2);
        tsuemu::clear_failures();
        EXPECT_EQ(told(logs), r.told);
        const bool untouched = b.y.untouched() && b.moe_index.untouched() && b.lod.untouched() && b.q.untouched() &&
                               b.counts.untouched();
        EXPECT_TRUE(!r.untouched || untouched);
    }
}

}  // namespace
