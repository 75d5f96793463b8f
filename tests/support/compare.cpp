#include "support/compare.h"

#include <cinttypes>
#include <cstdio>

namespace tsuops_test::detail {

std::string describe_floating(double v, std::uint64_t bits, int bytes) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*g (0x%0*" PRIx64 ")", bytes >= 8 ? 17 : 9, v, bytes * 2, bits);
    return buf;
}

std::string describe_integer(long long v) { return std::to_string(v); }

std::string describe_unsigned(unsigned long long v) { return std::to_string(v); }

}  // namespace tsuops_test::detail
