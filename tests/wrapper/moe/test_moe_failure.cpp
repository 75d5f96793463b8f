// The bad calls of the token flow and the index operators: regions and
// comparisons in their order, status, log and nothing written; the device
// limits and failed device steps, told as failures of their own and then as
// kernel failures of the operator.
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
using S = tsuemu::Site;

// Calls of the six buffers p[0..]; m, n and the row's parameter as each call
// says; d is 4 where not given. 0-5: the token flow (0 and 1
// moe_ffn_pre_sorted, 2 its quant_pe form, 3 moe_ffn_pre_fusion, 4
// moe_ffn_post_fusion, 5 moe_sum); 6-10 the index operators
// (moe_sorted_topk_idx, moe_resort_idx, moe_align_block_size,
// gen_block_statistic, moe_expert_m_to_lod); 11 moe_ffn_pre_sorted with
// blocks and no statistic.
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
            return infer_ops::moe_sum<float16>(c, as<float16>(p[0]), as<float16>(p[2]), m, d, static_cast<long>(k));
        },
        [=](Context* c, void* const* p, long m, long n, double k) {  // k in the parameter
            return infer_ops::moe_sorted_topk_idx<int>(c, i(p[0]), i(p[2]), i(p[3]), m, static_cast<long>(k), n);
        },
        [=](Context* c, void* const* p, long m, long n, double) {  // count m
            return infer_ops::moe_resort_idx<int>(c, i(p[0]), i(p[2]), m, n);
        },
        [=](Context* c, void* const* p, long m, long n, double bs) {  // numel m, block_size in the parameter
            return infer_ops::moe_align_block_size<int>(c, i(p[0]), i(p[2]), i(p[3]), i(p[4]), n,
                                                        static_cast<long>(bs), m);
        },
        [=](Context* c, void* const* p, long m, long n, double blocks) {  // k 2, block_num in the parameter
            return infer_ops::gen_block_statistic<int>(c, i(p[0]), i(p[2]), m, n, 2, static_cast<long>(blocks));
        },
        [=](Context* c, void* const* p, long, long n, double gmx) {
            return infer_ops::moe_expert_m_to_lod<int, long>(c, i(p[0]), as<long>(p[2]), n, gmx != 0);
        },
        [=](Context* c, void* const* p, long m, long n, double blocks) {  // k 2, no statistic though blocks
            return infer_ops::moe_ffn_pre_sorted<float, int>(c, as<float>(p[0]), i(p[1]), nullptr, as<float>(p[2]),
                                                             i(p[3]), i(p[4]), i(p[5]), m, 4, n, 2,
                                                             static_cast<long>(blocks));
        },
    };
}

TEST(MoeFailure, StatusLogAndNothingWritten) {
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
         {"sum: y no memory", 5, dev, 2, 4, 2, 2, 0x1000, {}, 1, "invalid_memory", {}},
         {"sum: no columns", 5, cpu, 2, 0, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"sum: another device type does nothing", 5, other, 2, 4, 2, 0, 0, {}, 0, nullptr, {}},
         {"topk_idx: null context", 6, wrapper_test::kNoContext, 2, 4, 2, 0, 0, {}, 1, nullptr, {}},
         {"topk_idx: n below k, and too many experts: n >= k first", 6, dev, 2, 600, 700, 0, 0, {}, 1, "compare_fail",
          {"600", ">=", "700"}},
         {"topk_idx: no tokens", 6, cpu, 0, 4, 2, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"topk_idx: no choices", 6, dev, 2, 4, 0, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"topk_idx: 513 experts and a null table: the limit first", 6, dev, 2, 513, 2, 0, 1, {}, 1, "compare_fail",
          {"513", "<", "513"}},
         {"topk_idx: every pointer bad: the table first", 6, dev, 2, 4, 2, -1, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{4}", "{1}", "input"}},
         {"topk_idx: offsets no memory", 6, dev, 2, 4, 2, 2, 0x1000, {}, 1, "invalid_memory", {}},
         {"topk_idx: launch fails", 6, dev, 2, 4, 2, 0, 0, S::Config, 2, "kernel_fail", {"7"}},
         {"topk_idx: device type without a path", 6, other, 2, 4, 2, 0, 0, {}, 4, "unimplement", {}},
         {"resort: nothing to resort", 7, dev, 0, 0, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"resort: output past device memory", 7, dev, 5, 0, 0, 2, 0x8000000000, {}, 1, "invalid_memory", {}},
         {"resort: another device type does nothing", 7, other, 5, 0, 0, 0, 0, {}, 0, nullptr, {}},
         {"align: block_size 0 and no pairs: the size first", 8, dev, 0, 4, 0, 0, 0, {}, 1, "compare_fail",
          {"0", ">", "0"}},
         {"align: no pairs", 8, cpu, 0, 4, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"align: every pointer bad: the table first", 8, dev, 6, 4, 2, -1, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{6}", "{1}", "input"}},
         {"align: null total", 8, cpu, 6, 4, 2, 4, 1, {}, 1, "invalid_memory", {}},
         {"align: another device type does nothing", 8, other, 6, 4, 2, 0, 0, {}, 0, nullptr, {}},
         {"statistic: no blocks", 9, dev, 3, 4, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"statistic: every pointer bad: the histogram first", 9, dev, 3, 4, 2, -1, 0x1000, {}, 1, "invalid_memory",
          {"", "0x3000", "{8}", "{1}", "output"}},
         {"statistic: launch fails", 9, dev, 3, 4, 2, 0, 0, S::Async, 2, "kernel_fail", {"7"}},
         {"statistic: device type without a path", 9, other, 3, 4, 2, 0, 0, {}, 4, "unimplement", {}},
         {"offsets: no counts and a null input: the count first", 10, dev, 0, 0, 0, 0, 1, {}, 1, "compare_fail",
          {"0", ">", "0"}},
         {"offsets: null counts", 10, cpu, 0, 4, 0, 0, 1, {}, 1, "invalid_memory", {}},
         {"offsets: another device type does nothing", 10, other, 0, 4, 1, 0, 0, {}, 0, nullptr, {}}});
}

// Rows told in several records. p[0] and p[1] hold ones, enough for every
// region of the rows; the others start as sentinels and stay so.
TEST(MoeFailure, DeviceFailuresAreToldAsKernelFailures) {
    const auto dev = DeviceType::TSU3, tsu2 = DeviceType::TSU2;
    constexpr long kMost = flow::kMaxPairsWithoutStatistic + 1;
    struct Row {
        const char* what;
        int op;
        DeviceType type;
        long m, n;
        double param;
        std::optional<S> fault;
        int nth;
        std::vector<std::string> told;
        bool untouched = true;
    };
    const std::vector<Row> rows = {
        {"k above 64", 0, dev, 2, 4, 65, {}, 0, {"compare_fail 65 <= 64", "kernel_fail 1"}},
        {"e above 256", 1, dev, 2, 257, 2, {}, 0, {"compare_fail 257 <= 256", "kernel_fail 1"}},
        {"k above 64 and e above 256: k first", 0, dev, 2, 257, 65, {}, 0, {"compare_fail 65 <= 64", "kernel_fail 1"}},
        {"too many pairs without a statistic", 0, dev, kMost, 4, 1, {}, 0,
         {"compare_fail 16129 <= 16128", "kernel_fail 1"}},
        {"second generation", 0, tsu2, 2, 4, 2, {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"launch fails", 1, dev, 8, 4, 3, S::Config, 1, {"kernel_fail 7", "kernel_fail 2"}},
        {"no scratch for the statistic", 11, dev, 8, 4, 3, S::PoolAlloc, 1,
         {"compare_fail ptr(0) != nullptr", "kernel_fail 3"}},
        {"the statistic's launch fails", 11, dev, 8, 4, 3, S::Async, 1,
         {"kernel_fail 7", "kernel_fail 2", "kernel_fail 2"}},
        {"quant: the maxima's launch fails", 2, dev, 8, 4, 0, S::Async, 2, {"kernel_fail 7", "kernel_fail 2"}, false},
        {"fusion: launch fails", 3, dev, 8, 4, flow::kPreFusionBlocks, S::Config, 1, {"kernel_fail 7", "kernel_fail 2"}},
        {"fusion: second generation", 3, tsu2, 8, 4, flow::kPreFusionBlocks, {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"post: launch fails", 4, dev, 8, 2, 2, S::ArgumentSet, 3, {"kernel_fail 7", "kernel_fail 2"}},
        {"post: second generation", 4, tsu2, 8, 2, 2, {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"sum: launch fails, told once", 5, dev, 8, 2, 2, S::Async, 1, {"kernel_fail 7"}},
        {"sum: second generation", 5, tsu2, 8, 2, 2, {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"align: wrapper and entry", 8, dev, 4, 4, 2, S::Config, 1, {"kernel_fail 7", "kernel_fail 2"}},
        {"offsets: wrapper and entry", 10, dev, 0, 4, 1, S::Async, 1, {"kernel_fail 7", "kernel_fail 2"}},
        {"offsets: second generation", 10, tsu2, 0, 4, 1, {}, 0, {"unimplement 2", "kernel_fail 4"}},
        {"resort: the launch's code against 0", 7, dev, 4, 0, 0, S::Async, 1, {"compare_fail 7 == 0", "kernel_fail 7"}},
        {"resort: second generation", 7, tsu2, 4, 0, 0, {}, 0, {"unimplement 2", "kernel_fail 4"}},
    };
    const auto ops = calls();
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        if (r.type == tsu2 && !tsuemu::gm_available(2)) continue;
        auto ctx = make_context(r.type);
        std::vector<GuardedBuffer<int>> b;
        void* p[6];
        for (int i = 0; i < 6; ++i) {
            p[i] = i < 2 ? b.emplace_back(ctx.get(), std::vector<int>(4 * kMost, 1)).data()
                         : b.emplace_back(ctx.get(), 4 * kMost).data();
        }
        TSUOPS_RETURN_IF_SKIPPED();
        LogCapture logs;
        if (r.fault) tsuemu::inject_failure(*r.fault, r.nth, 7);
        EXPECT_EQ(ops[r.op](ctx.get(), p, r.m, r.n, r.param), 2);
        tsuemu::clear_failures();
        EXPECT_EQ(told(logs), r.told);
        for (int i = 2; i < 6; ++i) EXPECT_TRUE(!r.untouched || b[i].untouched()) << "buffer " << i;
    }
}

}  // namespace
