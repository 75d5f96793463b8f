// The debug check of expert indices (INFER_OPS_DEBUG, read once per process,
// so each value runs in a child): check_moe_index's lines on standard output
// verbatim, its log and status, and its place around the kernels of
// moe_resort_idx, moe_ffn_post_fusion and moe_ffn_pre_sorted_quant_pe; and
// the catalogue's MoE families.
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "moe_test.h"

namespace {

using namespace moe_test;

TEST(MoeCheckChild, DISABLED_Lines) {
    const bool on = debug_switch_on();
    auto dev = emulated_device();
    // 4 x 10 entries, the first 25 wrong: negative at even places, past the
    // end at odd ones.
    std::vector<int> errors(40);
    for (int i = 0; i < 40; ++i) errors[i] = i >= 25 ? 39 - i : (i % 2 ? 40 + i : -1 - i);
    GuardedBuffer<int> index(dev.get(), errors), clean(dev.get(), std::vector<int>{3, 0, 2, 1});
    GuardedBuffer<float> x(dev.get(), std::vector<float>(8, 1.0f)), y(dev.get(), 4), pe(dev.get(), {2.0f, 3.0f}),
        token_max(dev.get(), 4);
    GuardedBuffer<int> gather(dev.get(), std::vector<int>{2, 0, 7, 1}), out(dev.get(), 4),
        bad(dev.get(), std::vector<int>{0, 9, 2, 1}), table(dev.get(), std::vector<int>{0, 5, 1, 1}),
        moe_index(dev.get(), 4), counts(dev.get(), 2), lod(dev.get(), 3);
    GuardedBuffer<signed char> q(dev.get(), 8);
    TSUOPS_RETURN_IF_SKIPPED();
    // The call's status, what it printed, its launches and its failure
    // records (with fields, or their kinds where `kinds_only`).
    const auto run = [&](const std::function<int()>& op, int status, const std::string& printed, std::size_t launched,
                         const std::vector<std::string>& records, bool kinds_only = true) {
        LogCapture logs;
        LaunchCapture launches;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(op(), status);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), printed);
        EXPECT_EQ(launches.size(), launched);
        EXPECT_EQ(told(logs, !kinds_only), records);
    };
    const std::vector<std::string> stopped = {"compare_fail", "kernel_fail"};
    const auto check = [&](GuardedBuffer<int>& i, long m, long n) {
        return [&, m, n] { return infer_ops::check_moe_index<int>(dev.get(), i.data(), m, n, "probe", "idx"); };
    };
    // The first ten wrong values one by one, then the count.
    std::string lines;
    for (int i = 0; i < 10; ++i) {
        lines += "probe(), idx[" + std::to_string(i) + "] = " + std::to_string(errors[i]) + " out of [0, 4*10] error\n";
    }
    run(check(index, 4, 10), on ? 1 : 0, on ? lines + "probe() idx error num: 25/40\n" : "", 0,
        on ? std::vector<std::string>{"compare_fail 1 == SUCCESS"} : std::vector<std::string>{}, false);
    // A clean array passes silently; a failed copy returns its code.
    run(check(clean, 1, 4), 0, "", 0, {});
    tsuemu::inject_failure(tsuemu::Site::DeviceToHost, 1, 7);
    run(check(clean, 1, 4), on ? 7 : 0, "", 0,
        on ? std::vector<std::string>{"compare_fail 7 == SUCCESS"} : std::vector<std::string>{}, false);
    tsuemu::clear_failures();
    // moe_resort_idx and the combine check their input before the kernel: a
    // bad entry stops them with a kernel failure, nothing launched.
    out.fill_sentinel();
    y.fill_sentinel();
    run([&] { return infer_ops::moe_resort_idx<int>(dev.get(), gather.data(), out.data(), 4, 0); }, on ? 2 : 0,
        on ? "moe_resort_idx(), moe_index[2] = 7 out of [0, 1*4] error\n"
             "moe_resort_idx() moe_index error num: 1/4\n"
           : "",
        on ? 0 : 1, on ? stopped : std::vector<std::string>{});
    EXPECT_EQ(out.untouched(), on);
    run([&] {
        return infer_ops::moe_ffn_post_fusion<float, int, float, float>(dev.get(), x.data(), bad.data(), x.data(),
                                                                        nullptr, y.data(), 2, 2, 2);
    },
        on ? 2 : 0,
        on ? "moe_ffn_post_fusion(), moe_index[1] = 9 out of [0, 2*2] error\n"
             "moe_ffn_post_fusion() moe_index error num: 1/4\n"
           : "",
        on ? 0 : 1, on ? stopped : std::vector<std::string>{});
    EXPECT_EQ(y.untouched(), on);
    // A pair of quant_pe without a slot (-1) is found after the gather's kernels.
    run([&] {
        return infer_ops::moe_ffn_pre_sorted_quant_pe<float, int>(dev.get(), x.data(), table.data(), pe.data(),
                                                                  nullptr, q.data(), moe_index.data(), counts.data(),
                                                                  lod.data(), token_max.data(), 2, 2, 2, 2, 0, 0);
    },
        on ? 2 : 0,
        on ? "moe_ffn_pre_sorted_quant_pe(), moe_index[1] = -1 out of [0, 2*2] error\n"
             "moe_ffn_pre_sorted_quant_pe() moe_index error num: 1/4\n"
           : "",
        2, on ? stopped : std::vector<std::string>{});
    EXPECT_EQ(moe_index.download(), (std::vector<int>{0, -1, 1, 2}));
    // Read once: a change now changes nothing.
    setenv("INFER_OPS_DEBUG", on ? "0" : "1", 1);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(infer_ops::check_moe_index<int>(dev.get(), index.data(), 4, 10, "probe", "idx"), on ? 1 : 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout().empty(), !on);
}

TEST(MoeCheck, OnOnlyForANonZeroNumber) {
    for (const char* value : {"1", "-3", "7abc", "0", "abc", "", static_cast<const char*>(nullptr)}) {
        std::vector<std::pair<std::string, std::string>> env;
        if (value) env.emplace_back("INFER_OPS_DEBUG", value);
        EXPECT_TRUE(run_child("MoeCheckChild.DISABLED_Lines", env, {"INFER_OPS_DEBUG"})) << (value ? value : "unset");
    }
}

// Instances per family; only the _gmx families run on the GMX engine.
TEST(MoeCatalogue, HoldsEveryInstanceOfTheFamilies) {
    std::map<std::string, int> families;
    std::map<std::string, std::uint64_t> engines;
    for (const auto& k : infer_ops::kernel_catalogue()) {
        ++families[k.family];
        engines[k.family] |= k.engine;
    }
    for (const auto& [family, count] : std::map<std::string, int>{
             {"infer_moe_softmax_topk", 18},  {"moe_topk", 18}, {"moe_group_topk", 18},
             {"moe_sigmoid_group_topk_norm", 18}, {"infer_moe_softmax_group_singlek_norm", 18},
             {"gen_block_statistic", 1}, {"infer_moe_align_block_size", 1}, {"infer_moe_expert_m_to_lod", 4},
             {"infer_moe_expert_m_to_lod_gmx", 4}, {"infer_moe_sorted_topk_idx", 1}, {"moe_resort_idx", 2},
             {"expand_expert_max_to_token_max", 1}, {"infer_moe_ffn_pre_fusion_split_m", 1},
             {"infer_moe_ffn_pre_sorted", 3}, {"infer_moe_ffn_pre_sorted_split_m", 3},
             {"infer_moe_ffn_pre_sorted_split_m_large", 3}, {"moe_ffn_pre_sorted_quant_pe", 3},
             {"moe_ffn_pre_sorted_quant_pe_split_m", 3}, {"moe_ffn_pre_sorted_quant_pe_split_m_large", 3},
             {"infer_moe_ffn_post_fusion", 5}, {"infer_moe_sum", 3}}) {
        EXPECT_EQ(families[family], count) << family;
        EXPECT_EQ(engines[family], family.ends_with("_gmx") ? 1u : 0u) << family;
    }
}

}  // namespace
