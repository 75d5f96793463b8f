// What the MoE tests share: the contexts of a differential run, bitwise
// comparison of two guarded buffers, the kernel names as the launch observer
// spells them, and random routing tables.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/tsuops_test.h"

namespace moe_test {

using namespace tsuops_test;

// Few clusters keep the emulated grid small; the kernels split by core,
// whatever the count.
inline constexpr int kClusters = 4;
inline constexpr int kGmx = 2;

// The reference path with the device's narrowing, and the device.
inline auto reference_context() { return host_context({.sim_dev_type = 3}); }
inline auto emulated_device() { return device_context({.ncluster = kClusters, .ngmx = kGmx}); }

// The two payloads bit for bit (NaN patterns included); the message names
// the first differing element. Both downloads check the guard bands.
template <class T>
::testing::AssertionResult same_bits(const GuardedBuffer<T>& want, const GuardedBuffer<T>& got) {
    const auto a = want.download(), b = got.download();
    if (want.raw_bytes() == got.raw_bytes()) return ::testing::AssertionSuccess();
    auto r = exactly_equal(a, b);
    return r ? (::testing::AssertionFailure() << "NaN patterns differ") : r;
}

// A template argument as the demangled kernel name spells it.
template <class T>
std::string spelled() {
    if constexpr (std::is_same_v<T, long>) return "long";
    else return type_name<T>();
}

// m * k expert numbers in [0, n): uniform, or skewed so that a few experts
// take most pairs and some take none.
inline std::vector<int> routing_table(long m, long k, long n, std::uint64_t seed, bool skewed) {
    auto u = random_tensor<int>(m * k, seed, RandomSpec::range(0, static_cast<double>(n - 1)));
    if (skewed) {
        for (auto& e : u) e = static_cast<int>((static_cast<long>(e) * e) % n) / 3;
    }
    return u;
}

}  // namespace moe_test
