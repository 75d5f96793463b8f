// What the MoE tests share: the contexts of a differential run, bitwise
// comparison of two guarded buffers, the kernel names as the launch observer
// spells them, and random routing tables.
#pragma once

#include <cstdint>
#include <cstdlib>
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

// The 18 instantiations of a router: TX and TY over float, float16 and
// bfloat16, TID over int and long.
template <class X, class Y, class I>
struct RouterTypes {
    using TX = X;
    using TY = Y;
    using TID = I;
};
using RouterInstances = ::testing::Types<
    RouterTypes<float, float, int>, RouterTypes<float, float, long>, RouterTypes<float, float16, int>,
    RouterTypes<float, float16, long>, RouterTypes<float, bfloat16, int>, RouterTypes<float, bfloat16, long>,
    RouterTypes<float16, float, int>, RouterTypes<float16, float, long>, RouterTypes<float16, float16, int>,
    RouterTypes<float16, float16, long>, RouterTypes<float16, bfloat16, int>, RouterTypes<float16, bfloat16, long>,
    RouterTypes<bfloat16, float, int>, RouterTypes<bfloat16, float, long>, RouterTypes<bfloat16, float16, int>,
    RouterTypes<bfloat16, float16, long>, RouterTypes<bfloat16, bfloat16, int>, RouterTypes<bfloat16, bfloat16, long>>;
struct RouterInstanceNames {
    template <class R>
    static std::string GetName(int) {
        return std::string(type_name<typename R::TX>()) + "_" + type_name<typename R::TY>() + "_" +
               type_name<typename R::TID>();
    }
};

// The kernel name as the launch observer spells it, up to the parameters.
template <class R>
std::string router_kernel(const std::string& family) {
    return "tsu3::" + family + "<" + spelled<typename R::TX>() + ", " + spelled<typename R::TY>() + ", " +
           spelled<typename R::TID>() + ">(";
}

// The failure records of a capture, each as its kind and fields in one line.
inline std::vector<std::string> told(const LogCapture& logs, bool fields = true) {
    std::vector<std::string> lines;
    for (const auto& r : logs.failures()) {
        lines.push_back(r.kind);
        for (const auto& f : r.fields) lines.back() += fields ? " " + f : "";
    }
    return lines;
}

// INFER_OPS_DEBUG as the library reads it: on for a non-zero number.
inline bool debug_switch_on() {
    const char* v = std::getenv("INFER_OPS_DEBUG");
    return v != nullptr && std::strtol(v, nullptr, 10) != 0;
}

}  // namespace moe_test
