// What the cache, rotary and front-end tests share: sequences laid into a
// paged cache through a shuffled block table, activations with the patterns
// that expose kernels, and a runner that holds the host path to a model
// written in the test and the device path to the same bits.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include <tsuops/catalogue.h>

#include "support/tsuops_test.h"

namespace kv_batch {

using namespace orvane::tsu::api;
using namespace tsuops_test;

// A typed suite's parameter: an operator's template arguments in order,
// named by their type strings joined ("float16_float_int64_t").
template <class... T>
struct Form {
    using types = std::tuple<T...>;
};
template <class F, std::size_t I>
using Arg = std::tuple_element_t<I, typename F::types>;
struct FormNames {
    template <class T>
    static std::string label() {
        if constexpr (std::is_same_v<T, int4_t>) return "int4";
        else return type_name<T>();
    }
    template <class T0, class... T>
    static std::string join(std::tuple<T0, T...>*) {
        return (label<T0>() + ... + ("_" + label<T>()));
    }
    template <class F>
    static std::string GetName(int) {
        return join(static_cast<typename F::types*>(nullptr));
    }
};

// Sequences b of lens[b] tokens from logical position starts[b], in
// block-table row rows[b]. Rows and physical blocks are shuffled and some
// rows left unused; the cache has `spare` blocks beyond the table's.
struct Batch {
    long block_size, max_batch, max_blocks_per_seq, num_blocks;
    std::vector<int> lod, starts, rows, table;

    long batch() const { return static_cast<long>(starts.size()); }
    long tokens() const { return lod.back(); }
    // The flat slot, block * block_size + offset, of each token.
    std::vector<int> slots() const {
        std::vector<int> out;
        for (long b = 0; b < batch(); ++b) {
            for (long pos = starts[b]; pos < starts[b] + lod[b + 1] - lod[b]; ++pos) {
                out.push_back(static_cast<int>(table[rows[b] * max_blocks_per_seq + pos / block_size] * block_size +
                                               pos % block_size));
            }
        }
        return out;
    }
};

inline Batch make_batch(std::uint64_t seed, long block_size, const std::vector<int>& lens,
                        const std::vector<int>& starts, long spare = 0) {
    std::mt19937 rng(static_cast<unsigned>(seed));
    Batch s{block_size, static_cast<long>(lens.size()) + 2, 1, 0, {0}, starts, {}, {}};
    for (std::size_t b = 0; b < lens.size(); ++b) {
        s.lod.push_back(s.lod.back() + lens[b]);
        s.max_blocks_per_seq = std::max(s.max_blocks_per_seq, (starts[b] + lens[b] + block_size - 1) / block_size);
    }
    s.num_blocks = s.max_batch * s.max_blocks_per_seq + spare;
    std::vector<int> blocks(static_cast<std::size_t>(s.num_blocks)), rows(static_cast<std::size_t>(s.max_batch));
    std::iota(blocks.begin(), blocks.end(), 0);
    std::iota(rows.begin(), rows.end(), 0);
    std::shuffle(blocks.begin(), blocks.end(), rng);
    std::shuffle(rows.begin(), rows.end(), rng);
    s.table.assign(blocks.begin(), blocks.begin() + s.max_batch * s.max_blocks_per_seq);
    s.rows.assign(rows.begin(), rows.begin() + static_cast<long>(lens.size()));
    return s;
}

// Block sizes 1, 16 and 64, with sequences that start off a block boundary,
// cross blocks, and hold a single token.
inline std::vector<Batch> batches(long spare = 3) {
    std::vector<Batch> out;
    for (long bs : {1L, 16L, 64L}) out.push_back(make_batch(bs, bs, {5, 23, 1}, {3, 70, 0}, spare));
    return out;
}

// n elements in heads of `head`: a few units salted with NaN, infinities,
// subnormals and signed zeros; where there are three heads or more, the
// first is constant, the second sits on a large common offset and the third
// near the top of the float16 range.
template <class T>
std::vector<T> activations(long n, long head, std::uint64_t seed) {
    auto x = random_tensor<T>(n, seed, RandomSpec::with_specials(0.03, kFloatSpecials).in(-4, 4));
    const auto offset = random_tensor<T>(head, seed + 1, RandomSpec::range(1000, 1002));
    const auto big = random_tensor<T>(head, seed + 2, RandomSpec::range(-60000, 60000));
    for (long d = 0; d < head && n >= 3 * head; ++d) {
        x[d] = T(1.375f);
        x[head + d] = offset[d];
        x[2 * head + d] = big[d];
    }
    return x;
}

// n elements of random bytes, NaN payloads and all: what a cache holds
// before a store.
template <class T>
std::vector<T> random_bytes(long n, std::uint64_t seed) {
    std::vector<T> out(static_cast<std::size_t>(n));
    std::vector<std::uint64_t> words((out.size() * sizeof(T) + 7) / 8);
    std::mt19937_64 rng(seed);
    for (auto& w : words) w = rng();
    if (!out.empty()) std::memcpy(out.data(), words.data(), out.size() * sizeof(T));
    return out;
}

using Bytes = std::vector<unsigned char>;

template <class T>
Bytes raw(const std::vector<T>& v) {
    Bytes out(v.size() * sizeof(T));
    if (!v.empty()) std::memcpy(out.data(), v.data(), out.size());
    return out;
}
template <class T>
Bytes raw(const GuardedBuffer<T>& b) {
    return raw(b.download());
}

template <class T>
T* given(const GuardedBuffer<T>& b, bool on = true) {
    return on && b.size() > 0 ? b.data() : nullptr;
}

// A call's status and its outputs.
struct Outcome {
    int status;
    std::vector<Bytes> out;
};

enum Paths : unsigned { kHostPath = 1, kDevicePath = 2, kBothPaths = 3 };

// run(ctx) on a host and on a device context of `opts`: each path in
// `paths` must give `model` bit for bit (the device `device_model` where its
// path differs), a path not in it must refuse as unimplemented. Returns the
// device's launches.
template <class Run>
std::vector<LaunchRecord> expect_model(const std::vector<Bytes>& model, Run&& run, const ContextOptions& opts = {},
                                       unsigned paths = kBothPaths, const std::vector<Bytes>& device_model = {}) {
    std::vector<LaunchRecord> launched;
    for (const bool device : {false, true}) {
        SCOPED_TRACE(device ? "device" : "host");
        auto ctx = device ? device_context(opts) : host_context(opts);
        const bool has = paths & (device ? kDevicePath : kHostPath);
        LogCapture logs;
        LaunchCapture launches;
        const Outcome o = run(ctx.get());
        EXPECT_EQ(o.status, has ? 0 : infer_ops::STATUS_UNIMPLEMENTED);
        EXPECT_EQ(logs.count("unimplement"), has ? 0u : 1u);
        const auto& want = device && !device_model.empty() ? device_model : model;
        for (std::size_t i = 0; has && i < want.size(); ++i) {
            EXPECT_TRUE(exactly_equal(want[i], o.out.at(i))) << "output " << i;
        }
        launched = launches.records();
    }
    return launched;
}

// The one trace a call leaves on a context with tracing on.
template <class Call>
function_info trace_of(Call&& call, int status = 0) {
    TraceCapture traces;
    LogCapture quiet;  // a traced call logs its regions
    EXPECT_EQ(call(), status);
    EXPECT_EQ(traces.size(), 1u);
    return traces.size() == 1 ? traces.records()[0] : function_info{};
}

// Instances of each kernel family in the catalogue.
inline void expect_families(const std::map<std::string, int>& want) {
    std::map<std::string, int> got;
    for (const auto& k : infer_ops::kernel_catalogue()) ++got[k.family];
    for (const auto& [family, count] : want) EXPECT_EQ(got[family], count) << family;
}

}  // namespace kv_batch
