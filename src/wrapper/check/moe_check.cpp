#include <algorithm>
#include <cstdio>
#include <source_location>
#include <vector>

#include <tsuops/moe.h>

#include "frame/env_switch.h"
#include "frame/frame.h"

namespace infer_ops {

namespace {

constinit const frame::env_switch debug_switch{"INFER_OPS_DEBUG", frame::env_switch::rule::nonzero};

// Wrong values printed one by one; the rest are only counted.
constexpr int kPrintedErrors = 10;

}  // namespace

// Off, it costs one test of a value read once, so every caller leaves it in
// its device path.
template <typename T>
int check_moe_index(Context* ctx, const T* index, long rows, long cols, const char* func_name,
                    const char* array_name) {
    if (!debug_switch.on()) return SUCCESS;
    const int total = static_cast<int>(rows * cols);
    std::vector<T> host(static_cast<std::size_t>(std::max(total, 0)));
    const long bytes = static_cast<long>(host.size() * sizeof(T));
    if (int st = frame::check_nested(ctx, orvane::tsu::api::do_device2host(ctx, index, host.data(), bytes))) return st;
    if (total <= 0) return SUCCESS;
    int wrong = 0;
    for (int i = 0; i < total; ++i) {
        const T v = host[static_cast<std::size_t>(i)];
        if (v >= 0 && v < total) continue;
        if (wrong++ < kPrintedErrors) {
            std::printf("%s(), %s[%d] = %ld out of [0, %ld*%ld] error\n", func_name, array_name, i,
                        static_cast<long>(v), rows, cols);
        }
    }
    if (wrong == 0) return SUCCESS;
    std::printf("%s() %s error num: %d/%d\n", func_name, array_name, wrong, total);
    std::fflush(stdout);
    const auto at = std::source_location::current();
    orvane::tsu::api::_log_compare_fail(ctx, at.file_name(), static_cast<int>(at.line()), "1", "==", "SUCCESS");
    return 1;
}

template int check_moe_index<int>(Context*, const int*, long, long, const char*, const char*);

}  // namespace infer_ops
