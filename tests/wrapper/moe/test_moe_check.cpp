// check_moe_index: INFER_OPS_DEBUG is read once per process, so each value
// runs in a child; its lines on standard output verbatim, its log and
// status, and its place in moe_resort_idx.
#include <cstdlib>
#include <string>
#include <vector>

#include "moe_test.h"

namespace {

using namespace moe_test;

bool switch_on() {
    const char* v = std::getenv("INFER_OPS_DEBUG");
    return v != nullptr && std::strtol(v, nullptr, 10) != 0;
}

// 4 x 10 entries, the first 25 wrong: negative at even places, past the
// end at odd ones.
std::vector<int> index_with_errors() {
    std::vector<int> v(40);
    for (int i = 0; i < 40; ++i) v[i] = i >= 25 ? 39 - i : (i % 2 ? 40 + i : -1 - i);
    return v;
}

TEST(MoeCheckChild, DISABLED_Lines) {
    const bool on = switch_on();
    auto dev = emulated_device();
    GuardedBuffer<int> index(dev.get(), index_with_errors());
    TSUOPS_RETURN_IF_SKIPPED();
    {
        LogCapture logs;
        ::testing::internal::CaptureStdout();
        const int st = infer_ops::check_moe_index<int>(dev.get(), index.data(), 4, 10, "probe", "idx");
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(st, on ? 1 : 0);
        EXPECT_EQ(out, on ? "probe(), idx[0] = -1 out of [0, 4*10] error\n"
                            "probe(), idx[1] = 41 out of [0, 4*10] error\n"
                            "probe(), idx[2] = -3 out of [0, 4*10] error\n"
                            "probe(), idx[3] = 43 out of [0, 4*10] error\n"
                            "probe(), idx[4] = -5 out of [0, 4*10] error\n"
                            "probe(), idx[5] = 45 out of [0, 4*10] error\n"
                            "probe(), idx[6] = -7 out of [0, 4*10] error\n"
                            "probe(), idx[7] = 47 out of [0, 4*10] error\n"
                            "probe(), idx[8] = -9 out of [0, 4*10] error\n"
                            "probe(), idx[9] = 49 out of [0, 4*10] error\n"
                            "probe() idx error num: 25/40\n"
                          : "");
        const auto f = logs.failures();
        ASSERT_EQ(f.size(), on ? 1u : 0u);
        if (on) {
            EXPECT_EQ(f[0].fields, (std::vector<std::string>{"1", "==", "SUCCESS"}));
        }
    }
    // A clean array passes silently; a failed copy returns its code.
    {
        GuardedBuffer<int> clean(dev.get(), std::vector<int>{3, 0, 2, 1});
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(infer_ops::check_moe_index<int>(dev.get(), clean.data(), 1, 4, "probe", "idx"), 0);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
        LogCapture logs;
        tsuemu::inject_failure(tsuemu::Site::DeviceToHost, 1, 7);
        EXPECT_EQ(infer_ops::check_moe_index<int>(dev.get(), clean.data(), 1, 4, "probe", "idx"), on ? 7 : 0);
        tsuemu::clear_failures();
        ASSERT_EQ(logs.failures().size(), on ? 1u : 0u);
        if (on) {
            EXPECT_EQ(logs.failures()[0].fields, (std::vector<std::string>{"7", "==", "SUCCESS"}));
        }
    }
    // moe_resort_idx checks its input before the kernel: a bad entry stops
    // it with a kernel failure and nothing launched.
    {
        GuardedBuffer<int> gather(dev.get(), std::vector<int>{2, 0, 7, 1}), out(dev.get(), 4);
        out.fill_sentinel();
        LogCapture logs;
        LaunchCapture launches;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(infer_ops::moe_resort_idx<int>(dev.get(), gather.data(), out.data(), 4, 0), on ? 2 : 0);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(),
                  on ? "moe_resort_idx(), moe_index[2] = 7 out of [0, 1*4] error\n"
                       "moe_resort_idx() moe_index error num: 1/4\n"
                     : "");
        EXPECT_EQ(launches.size(), on ? 0u : 1u);
        std::vector<std::string> kinds;
        for (const auto& r : logs.failures()) kinds.push_back(r.kind);
        EXPECT_EQ(kinds, on ? (std::vector<std::string>{"compare_fail", "kernel_fail"}) : std::vector<std::string>{});
        EXPECT_EQ(out.untouched(), on);
    }
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

}  // namespace
