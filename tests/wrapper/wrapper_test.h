// What the operator tests share: tables of calls that must fail, and for the
// norms their type pairs and the tensors of one call.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/tsuops_test.h"

namespace wrapper_test {

using namespace orvane::tsu::api;
using namespace tsuops_test;

// A call gets pointers to six guarded buffers of 64 floats in the memory of
// its row's device (type-3 memory for types 4 and 5, which take it as theirs);
// a row may make one of them bad. The runner checks the status, the failure
// record (one, or none where the row names no log) and that the buffers named
// as outputs did not change.
inline constexpr auto kNoContext = static_cast<DeviceType>(99);  // a null context, which logs nothing

struct BadCall {
    const char* what;
    int op;  // index into the test's list of calls
    DeviceType dev;
    long m, n;
    double param;  // what the call takes besides sizes and pointers: eps, ld
    int arg;       // the pointer that takes `addr`, 1 meaning null; -1: each pointer i, addr + 0x1000 i
    std::uint64_t addr;
    std::optional<tsuemu::Site> fault;
    int status;
    const char* log;
    std::vector<std::string> fields;  // of the record, checked when not empty
};

using Call = std::function<int(Context*, void* const* p, long m, long n, double param)>;

template <class T>
T* as(void* p) { return static_cast<T*>(p); }
inline float* fp(void* p) { return static_cast<float*>(p); }

inline void expect_failures(const std::vector<Call>& ops, const std::vector<int>& outputs,
                            const std::vector<BadCall>& rows) {
    for (const BadCall& c : rows) {
        SCOPED_TRACE(std::string(c.what) + " (call " + std::to_string(c.op) + ", device type " +
                     std::to_string(static_cast<int>(c.dev)) + ")");
        if (c.dev == DeviceType::TSU2 && !tsuemu::gm_available(2)) continue;  // absent under the sanitizer
        auto ctx = c.dev == kNoContext ? nullptr : make_context(c.dev);
        auto owner = make_context(c.dev == DeviceType::CPU || c.dev == DeviceType::TSU2 ? c.dev : DeviceType::TSU3);
        std::vector<GuardedBuffer<float>> b;
        void* p[6];
        for (int i = 0; i < 6; ++i) {
            p[i] = b.emplace_back(owner.get(), std::vector<float>(64, 1.0f)).data();
            if (c.arg == i && c.addr != 0) p[i] = c.addr == 1 ? nullptr : reinterpret_cast<void*>(c.addr);
            if (c.arg < 0) p[i] = reinterpret_cast<void*>(c.addr + 0x1000 * i);
        }
        for (int o : outputs) b[o].fill_sentinel();
        LogCapture logs;
        if (c.fault) tsuemu::inject_failure(*c.fault, 1, 7);
        EXPECT_EQ(ops[c.op](ctx.get(), p, c.m, c.n, c.param), c.status);
        tsuemu::clear_failures();
        const auto failures = ctx ? logs.failures() : logs.records();
        ASSERT_EQ(failures.size(), c.log ? 1u : 0u);
        EXPECT_TRUE(!c.log || failures[0].kind == c.log) << failures[0].kind;
        EXPECT_TRUE(c.fields.empty() || failures[0].fields == c.fields) << ::testing::PrintToString(failures[0].fields);
        for (int o : outputs) EXPECT_TRUE(b[o].untouched()) << "output " << o;
    }
}

template <class T, class TW>
struct Pair { using X = T; using W = TW; };
using AllPairs = ::testing::Types<Pair<float16, float16>, Pair<float16, float>, Pair<bfloat16, bfloat16>,
                                  Pair<bfloat16, float>, Pair<float, float>>;
struct PairNames {
    template <class P>
    static std::string GetName(int) {
        return std::string(type_name<typename P::X>()) + "_" + type_name<typename P::W>();
    }
};

// x and y of m rows of n, scale and bias of n, and two row statistics, in the
// memory of ctx; x has an offset, as real activations do.
template <class T, class TW>
struct Tensors {
    GuardedBuffer<T> x, y;
    GuardedBuffer<TW> scale, bias;
    GuardedBuffer<float> s1, s2;

    Tensors(Context* ctx, long m, long n, std::uint64_t seed, double scale_lo)
        : x(ctx, random_tensor<T>(m * n, seed, RandomSpec::range(-0.5, 1.5))), y(ctx, m * n),
          scale(ctx, random_tensor<TW>(n, seed + 1, RandomSpec::range(scale_lo, 1.5))),
          bias(ctx, random_tensor<TW>(n, seed + 2, RandomSpec::range(-0.5, 0.5))), s1(ctx, m), s2(ctx, m) {}
};

// Three rows of n with a large common offset: 1000.0 throughout, 100 + N(0, 1)
// and 300 + N(0, 1). Sums of their large equal terms give other bits in any
// other order.
template <class T>
std::vector<T> offset_rows(long n) {
    std::mt19937 rng(static_cast<unsigned>(n));
    std::normal_distribution<double> noise(0.0, 1.0);
    std::vector<T> x(n, T(1000.0f));
    for (double offset : {100.0, 300.0}) {
        for (long j = 0; j < n; ++j) x.push_back(T(static_cast<float>(offset + noise(rng))));
    }
    return x;
}

}  // namespace wrapper_test
