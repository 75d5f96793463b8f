// The frame of the cache stores: the regions each call records (names,
// lengths, directions, in order), the trace, the kernel and grid of each
// launch with its arguments, the catalogue's instances, and bad calls.
#include <functional>
#include <string>
#include <vector>

#include "kernels/cache/cache.h"
#include "wrapper/kv_batch.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace kv_batch;
using wrapper_test::as;
using wrapper_test::fp;
constexpr long kMaxBytes = tsuops::kernels::cache::kMaxHeadBlockBytes;

// Sizes of the calls below: 3 tokens in 2 sequences, 5 blocks of 4.
const int kLod[] = {0, 2, 3}, kStarts[] = {1, 6}, kRows[] = {2, 0};

// Calls on the runner's six pointers: sizes m and n, and the variant
// `param` where a call has several.
int paged(Context* c, void* const* p, long m, long n, double scales) {
    return infer_ops::store_paged_kv_cache<float16, signed char>(c, as<float16>(p[0]), as<float16>(p[1]),
                                                                 as<signed char>(p[2]), as<signed char>(p[3]),
                                                                 as<int>(p[4]), scales ? fp(p[5]) : nullptr,
                                                                 scales > 1 ? fp(p[5]) + 64 : nullptr, m, 2, n, 5, 4);
}
int slot_major(Context* c, void* const* p, long m, long n, double scales) {
    return infer_ops::store_kv_cache<bfloat16, bfloat16>(c, as<bfloat16>(p[0]), as<bfloat16>(p[1]), as<bfloat16>(p[2]),
                                                         as<bfloat16>(p[3]), as<int>(p[4]), as<int>(p[4]) + 2,
                                                         as<int>(p[4]) + 4, scales ? fp(p[5]) : nullptr,
                                                         scales ? fp(p[5]) + 64 : nullptr, 2, m, 3, 6, 2, n);
}
int by_slot(Context* c, void* const* p, long m, long n, double v_dim) {
    const bool keys_only = v_dim < 0;
    return infer_ops::reshape_and_cache<float16, long>(c, as<float16>(p[0]), keys_only ? nullptr : as<float16>(p[1]),
                                                       as<float16>(p[2]), keys_only ? nullptr : as<float16>(p[3]),
                                                       as<long>(p[4]), m, 5, 2, n, keys_only ? 0 : long(v_dim), 4);
}

// The variants of reshape_and_cached_lod: lengths of the three parameters
// against batch 2, the layouts, which maxima are given, and 4-bit caches.
struct LodVariant {
    long lod_len = 3, starts_len = 2, rows_len = 2;
    const char* layout = "BLHD";
    const char* cache_layout = "HLD";
    bool maxima = true, batch_maxima = true, null_lod = false;
    int cache_bits = 8;
};
const LodVariant kLodVariants[] = {
    {}, {.lod_len = 2}, {.layout = "BSHD"}, {.cache_layout = "LHD"}, {.starts_len = 1, .layout = "BSHD"},
    {.null_lod = true}, {.batch_maxima = false}, {.rows_len = 3}, {.maxima = false, .batch_maxima = false},
    {.cache_bits = 4}, {.cache_bits = -4},
};
template <class TC>
int by_table(Context* c, void* const* p, long head_dim, long block_size, const LodVariant& v) {
    const VectorParam<int> lod{v.null_lod ? nullptr : kLod, v.lod_len}, starts{kStarts, v.starts_len},
        rows{kRows, v.rows_len};
    float* s = fp(p[5]);
    return infer_ops::reshape_and_cached_lod<float16, TC, int>(
        c, as<float16>(p[0]), as<float16>(p[1]), as<TC>(p[2]), as<TC>(p[3]), as<int>(p[4]), lod, starts, rows, 2, 2,
        head_dim, 3, block_size, 2, v.layout, v.cache_layout, s, s + 2, v.batch_maxima ? s + 16 : nullptr,
        v.batch_maxima ? s + 32 : nullptr, v.maxima ? s + 4 : nullptr, v.maxima ? s + 8 : nullptr);
}
int by_table(Context* c, void* const* p, long head_dim, long block_size, double variant) {
    const LodVariant& v = kLodVariants[static_cast<int>(variant)];
    if (v.cache_bits == 4) return by_table<int4_t>(c, p, head_dim, block_size, v);
    if (v.cache_bits == -4) return by_table<uint4_t>(c, p, head_dim, block_size, v);
    return by_table<signed char>(c, p, head_dim, block_size, v);
}

// Every region of a traced call, "name {len} direction", in order; the
// launch is refused so that nothing is read.
TEST(CacheFrame, RegionsAndTrace) {
    struct Case {
        std::function<int(Context*, void* const*)> call;
        std::vector<std::string> dtypes, regions;
    };
    const Case cases[] = {
        {[](Context* c, void* const* p) { return paged(c, p, 3, 64, 2); },
         {"float16", "int8_t"},
         {"key {384} input", "key_cache {2560} output", "slot_mapping {3} input", "value {384} input",
          "value_cache {2560} output", "key_scale {128} input", "value_scale {128} input"}},
        {[](Context* c, void* const* p) { return paged(c, p, 3, 64, 1); },  // one scale: none recorded
         {"float16", "int8_t"},
         {"key {384} input", "key_cache {2560} output", "slot_mapping {3} input", "value {384} input",
          "value_cache {2560} output"}},
        {[](Context* c, void* const* p) { return slot_major(c, p, 5, 64, 1); },
         {"bfloat16", "bfloat16"},
         {"key {640} input", "k_cache {2304} output", "x_lod {3} input", "slot_id {2} input", "offset {2} input",
          "value {640} input", "v_cache {2304} output", "key_scale {128} input", "value_scale {128} input"}},
        {[](Context* c, void* const* p) { return by_slot(c, p, 3, 8, 4); },
         {"float16", "int64_t"},
         {"k {48} input", "v {24} input", "slot_mapping {3} output", "k_cache {320} output", "v_cache {160} output"}},
        {[](Context* c, void* const* p) { return by_slot(c, p, 3, 8, -1); },
         {"float16", "int64_t"},
         {"k {48} input", "slot_mapping {3} output", "k_cache {320} output"}},
        {[](Context* c, void* const* p) { return by_table(c, p, 8, 4, 0.0); },
         {"float16", "int8_t", "int"},
         {"k {48} input", "v {48} input", "block_table {6} input", "k_scale {2} input", "v_scale {2} input",
          "k_maxptrs {4} output", "v_maxptrs {4} output", "k_batch_maxptrs {12} output",
          "v_batch_maxptrs {12} output", "kv_seq_lod_tsu.tsu {3} output", "start_tokens_tsu.tsu {2} output",
          "real_batch_tsu.tsu {2} output"}},
    };
    auto dev = device_context({.max_ptr_size = 4, .debug_flags = 1});
    GuardedBuffer<float> mem(dev.get(), 6 * 4096);
    void* p[6];
    for (int i = 0; i < 6; ++i) p[i] = mem.data() + 4096 * i;
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.regions));
        TraceCapture traces;
        LogCapture logs;
        tsuemu::inject_failure(tsuemu::Site::Config, 1, 7);
        EXPECT_EQ(c.call(dev.get(), p), 2);
        tsuemu::clear_failures();
        std::vector<std::string> got;
        for (const auto& r : logs.of_kind("memory")) got.push_back(r.fields[0] + " " + r.fields[2] + " " + r.fields[4]);
        EXPECT_EQ(got, c.regions);
        ASSERT_EQ(traces.size(), 1u);
        EXPECT_EQ(traces.records()[0].dtypes, c.dtypes);
    }
}

// Argument i of a launch of Stub's kernel.
template <class Stub>
struct Args;
template <class... A>
struct Args<int(A...)> {
    template <class V>
    static V at(const LaunchRecord& r, std::size_t i) {
        return LaunchCapture::arg<V>(r, tsuops::kernels::slot_offsets<A...>[i]);
    }
    template <class V>
    static void expect(const LaunchRecord& r, std::size_t first, std::initializer_list<V> want) {
        for (V w : want) {
            EXPECT_EQ(at<V>(r, first), w) << r.kernel << ", argument " << first;
            ++first;
        }
    }
};

// Which kernel each call launches, on which grid, with which arguments.
TEST(CacheFrame, KernelsGridsAndArguments) {
    auto dev = device_context({.ncluster = 3, .ngmx = 2, .max_ptr_size = 4});
    GuardedBuffer<float16> k(dev.get(), 64 * 8), kc(dev.get(), 5 * 2 * 4 * 64);
    GuardedBuffer<int> table(dev.get(), std::vector<int>{0, 1, 2, 3, 4, 0}), lod_tsu(dev.get(), 3);
    GuardedBuffer<int> ids(dev.get(), std::vector<int>{1, 0, 0, 3, 0, 2, 3}), sm(dev.get(), std::vector<int>{5, 9, 2});
    GuardedBuffer<long> slots(dev.get(), std::vector<long>{7, 0, 19});
    LaunchCapture launches;
    ASSERT_EQ((infer_ops::reshape_and_cache<float16, long>(dev.get(), k.data(), k.data(), kc.data(), kc.data(),
                                                           slots.data(), 3, 5, 2, 8, 4, 4)),
              0);
    // The caller's device copy of the lod is used as it is; the others are uploaded.
    const VectorParam<int> lod{kLod, 3, lod_tsu.data()}, starts{kStarts, 2}, rows{kRows, 2};
    lod_tsu.upload({0, 2, 3});
    ASSERT_EQ((infer_ops::reshape_and_cached_lod<float16, float16, int>(
                  dev.get(), k.data(), k.data(), kc.data(), kc.data(), table.data(), lod, starts, rows, 2, 2, 8, 3, 4,
                  2, "BHLD", "HLD", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)),
              0);
    ASSERT_EQ((infer_ops::store_kv_cache<float16, float16>(dev.get(), k.data(), nullptr, kc.data(), nullptr, ids.data(),
                                                           ids.data() + 2, ids.data() + 4, nullptr, nullptr, 2, 3, 3, 4,
                                                           1, 64)),
              0);
    ASSERT_EQ((infer_ops::store_paged_kv_cache<float16, float16>(dev.get(), k.data(), nullptr, kc.data(), nullptr,
                                                                 sm.data(), nullptr, nullptr, 3, 2, 64, 5, 4)),
              0);
    const auto r = launches.records();
    ASSERT_EQ(r.size(), 4u);
    const char* kernels[] = {"tsu3::infer_reshape_and_cache<float16, long>(",
                             "tsu3::reshape_cached_kv_v2_gmx<float16, float16, int, 0, 0>(",
                             "tsu3::store_kv_cache<float16, float16>(", "tsu3::store_paged_kv_cache<float16, float16>("};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(r[i].kernel.rfind(kernels[i], 0), 0u) << r[i].kernel;
        EXPECT_EQ(r[i].nclusters, i == 1 ? 2 : 3) << r[i].kernel;
        EXPECT_EQ(r[i].ncores, i == 1 ? 8 : 64) << r[i].kernel;
    }
    using Rac = Args<decltype(tsu3::__device_stub__infer_reshape_and_cache<float16, long>)>;
    EXPECT_EQ(Rac::at<const long*>(r[0], 4), slots.data());
    Rac::expect<int>(r[0], 5, {3, 2, 8, 4, 4});  // every size but num_blocks, as int
    using Lod = Args<decltype(tsu3::__device_stub__reshape_cached_kv_v2_gmx<float16, float16, int, 0, 0>)>;
    EXPECT_EQ(Lod::at<const int*>(r[1], 5), lod_tsu.data());
    EXPECT_NE(Lod::at<const int*>(r[1], 6), nullptr);
    EXPECT_NE(Lod::at<const int*>(r[1], 6), kStarts);
    Lod::expect<long>(r[1], 8, {2, 2, 8, 3, 4, 2});
    // Every size but num_tokens for the slot-major store.
    Args<decltype(tsu3::__device_stub__store_kv_cache<float16, float16>)>::expect<long>(r[2], 9, {2, 3, 4, 1, 64});
    Args<decltype(tsu3::__device_stub__store_paged_kv_cache<float16, float16>)>::expect<long>(r[3], 7, {3, 2, 64, 5, 4});
}

TEST(CacheFrame, CatalogueCarriesEveryInstance) {
    expect_families({{"infer_reshape_and_cache", 6}, {"reshape_cached_kv_v2_gmx", 4}, {"store_kv_cache", 4},
                     {"store_paged_kv_cache", 4}});
    int gmx = 0;  // engine 1
    for (const auto& k : infer_ops::kernel_catalogue()) gmx += k.family == "reshape_cached_kv_v2_gmx" && k.engine == 1;
    EXPECT_EQ(gmx, 4);
}

// reshape_and_cache returns success for device types without a path; the
// others refuse them. Device types 1 get addresses of their own memory.
TEST(CacheFrame, BadCalls) {
    const auto dev = DeviceType::TSU3, host = DeviceType::CPU;
    const std::uint64_t t1 = 0x200000000;  // global memory of device type 1
    const auto config = tsuemu::Site::Config;
    const std::vector<std::string> no_ptr = {"ptr(0)", "!=", "nullptr"};
    // store_paged_kv_cache and store_kv_cache
    wrapper_test::expect_failures(
        {paged, slot_major}, {2, 3},
        {{"head_dim not a multiple of 64", 0, dev, 3, 96, 2, 0, 0, {}, 1, "compare_fail", {"32", "==", "0"}},
         {"and key null: the check comes first", 0, dev, 3, 96, 2, 0, 1, {}, 1, "compare_fail", {"32", "==", "0"}},
         {"key null", 0, dev, 3, 64, 2, 0, 1, {}, 1, "invalid_memory", {}},
         {"slot_mapping outside memory", 0, dev, 3, 64, 2, 4, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{3}", "{1}", "input"}},
         {"value_cache outside memory", 0, dev, 3, 64, 2, 3, 0x8000000000, {}, 1, "invalid_memory",
          {"", "0x8000000000", "{2560}", "{1}", "output"}},
         {"scales outside memory", 0, dev, 3, 64, 2, 5, 0x1000, {}, 1, "invalid_memory", {}},
         {"no tokens", 0, host, 0, 64, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"device type 2", 0, DeviceType::TSU2, 3, 64, 2, 0, 0, {}, 4, "unimplement", {"2"}},
         {"device type 1", 0, DeviceType::TSU1, 3, 64, 2, -1, t1, {}, 4, "unimplement", {"1"}},
         {"device type 4", 0, DeviceType::TSU4, 3, 64, 2, 0, 0, {}, 4, "unimplement", {"4"}},
         {"launch fails", 0, dev, 3, 64, 2, 0, 0, tsuemu::Site::Async, 2, "kernel_fail", {"7"}},
         {"null context", 0, wrapper_test::kNoContext, 3, 64, 2, 0, 0, {}, 1, nullptr, {}},
         {"slot-major: head_dim 96", 1, host, 5, 96, 1, 0, 0, {}, 1, "compare_fail", {"32", "==", "0"}},
         {"slot-major: x_lod outside memory", 1, dev, 5, 64, 1, 4, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1010", "{3}", "{1}", "input"}},
         {"slot-major: device type 2", 1, DeviceType::TSU2, 5, 64, 1, 0, 0, {}, 4, "unimplement", {"2"}},
         {"slot-major: device type 5", 1, DeviceType::TSU5, 5, 64, 1, 0, 0, {}, 4, "unimplement", {"5"}},
         {"slot-major: launch fails", 1, dev, 5, 64, 1, 0, 0, config, 2, "kernel_fail", {"7"}}});
    // reshape_and_cache
    wrapper_test::expect_failures(
        {by_slot}, {2, 3, 4},
        {{"k null", 0, dev, 3, 8, 4, 0, 1, {}, 1, "invalid_memory", {}},
         {"v_dim 0 with v given", 0, dev, 3, 8, 0, 0, 0, {}, 1, "invalid_memory", {}},
         {"v null with v_dim 4", 0, dev, 3, 8, 4, 1, 1, {}, 1, "invalid_memory", {}},
         {"slot_mapping outside memory", 0, dev, 3, 8, 4, 4, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{3}", "{1}", "output"}},
         {"keys only, k_cache outside memory", 0, dev, 3, 8, -1, 2, 0x8000000000, {}, 1, "invalid_memory",
          {"", "0x8000000000", "{320}", "{1}", "output"}},
         {"no tokens, host", 0, host, 0, 8, 4, 0, 0, {}, 1, "invalid_memory", {}},
         {"device type 2", 0, DeviceType::TSU2, 3, 8, 4, 0, 0, {}, 4, "unimplement", {"2"}},
         {"device type 1 does nothing", 0, DeviceType::TSU1, 3, 8, 4, -1, t1, {}, 0, nullptr, {}},
         {"device type 4 does nothing", 0, DeviceType::TSU4, 3, 8, 4, 0, 0, {}, 0, nullptr, {}},
         {"device type 5 does nothing", 0, DeviceType::TSU5, 3, 8, 4, 0, 0, {}, 0, nullptr, {}},
         {"launch fails", 0, dev, 3, 8, 4, 0, 0, config, 2, "kernel_fail", {"7"}}});
    // reshape_and_cached_lod: m is head_dim, n block_size, param the variant.
    const wrapper_test::Call lod = [](Context* c, void* const* p, long m, long n, double v) { return by_table(c, p, m, n, v); };
    wrapper_test::expect_failures(
        {lod}, {2, 3, 5},
        {{"lod length", 0, dev, 8, 4, 1, 0, 0, {}, 1, "compare_fail", {"2", "==", "3"}},
         {"start_tokens length and layout: the length first", 0, dev, 8, 4, 4, 0, 0, {}, 1, "compare_fail",
          {"1", "==", "2"}},
         {"real_batch length", 0, host, 8, 4, 7, 0, 0, {}, 1, "compare_fail", {"3", "==", "2"}},
         {"lod without host copy", 0, dev, 8, 4, 5, 0, 0, {}, 1, "compare_fail", no_ptr},
         {"layout", 0, dev, 8, 4, 2, 0, 0, {}, 1, "compare_fail", {"BSHD", "==", "BHLD or BLHD"}},
         {"block_table and layout: the region first", 0, dev, 8, 4, 2, 4, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{6}", "{1}", "input"}},
         {"cache layout, host", 0, host, 8, 4, 3, 0, 0, {}, 1, "compare_fail", {"LHD", "==", "HLD"}},
         {"maxima without batch maxima", 0, dev, 8, 4, 6, 0, 0, {}, 1, "compare_fail", no_ptr},
         {"k_scale outside memory", 0, dev, 8, 4, 0, 5, 0x1000, {}, 1, "invalid_memory",
          {"", "0x1000", "{2}", "{1}", "input"}},
         {"head block at the limit reaches the launch", 0, dev, 1, kMaxBytes, 8, 0, 0, config, 2, "kernel_fail", {"7"}},
         {"head block one byte over", 0, dev, 1, kMaxBytes + 1, 8, 0, 0, {}, 1, "compare_fail",
          {std::to_string(kMaxBytes + 1), "<=", std::to_string(kMaxBytes)}},
         {"no scratch for the device copies", 0, dev, 8, 4, 0, 0, 0, tsuemu::Site::PoolAlloc, 1, "compare_fail",
          no_ptr},
         {"upload fails", 0, dev, 8, 4, 0, 0, 0, tsuemu::Site::HostToDevice, 1, "compare_fail", no_ptr},
         {"device type 2 takes the device path", 0, DeviceType::TSU2, 8, 4, 0, 0, 0, config, 2, "kernel_fail", {"7"}},
         {"device type 1", 0, DeviceType::TSU1, 8, 4, 0, -1, t1, {}, 4, "unimplement", {"1"}},
         {"device type 4", 0, DeviceType::TSU4, 8, 4, 0, 0, 0, {}, 4, "unimplement", {"4"}},
         {"null context", 0, wrapper_test::kNoContext, 8, 4, 0, 0, 0, {}, 1, nullptr, {}},
         {"4-bit caches only refuse, host", 0, host, 8, 4, 9, 0, 0, {}, 4, "unimplement", {}},
         {"4-bit caches only refuse, device", 0, dev, 8, 4, 10, 0, 0, {}, 4, "unimplement", {}},
         {"4-bit caches: null context", 0, wrapper_test::kNoContext, 8, 4, 9, 0, 0, {}, 1, nullptr, {}}});
}

// The head-block limit is the device's: the host stores such blocks. 4-bit
// caches refuse before any frame step, with nothing traced.
TEST(CacheFrame, HostStoresBlocksPastTheDeviceLimitAndFourBitCachesDoNothing) {
    const long D = 128, bs = 1024;
    auto host = host_context();
    auto dev = device_context({.debug_flags = 1});
    GuardedBuffer<float16> k(host.get(), activations<float16>(3 * D, D, 1)), c(host.get(), bs * D);
    GuardedBuffer<int> table(host.get(), std::vector<int>{0});
    const int three[] = {0, 3};
    const VectorParam<int> lod{three, 2}, starts{kStarts, 1}, rows{kRows + 1, 1};
    const auto call = [&](Context* ctx, auto* cache) {
        return infer_ops::reshape_and_cached_lod<float16, std::remove_pointer_t<decltype(cache)>, int>(
            ctx, k.data(), k.data(), cache, cache, table.data(), lod, starts, rows, 1, 1, D, 1, bs, 1, "BLHD", "HLD",
            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    };
    LogCapture logs;
    TraceCapture traces;
    EXPECT_EQ(call(host.get(), c.data()), 0);
    EXPECT_EQ(c.download()[(1 + 2) * D + 5].x, k.download()[2 * D + 5].x) << "position 1 + 2 holds token 2";
    EXPECT_EQ(call(dev.get(), static_cast<int4_t*>(nullptr)), infer_ops::STATUS_UNIMPLEMENTED);
    ASSERT_EQ(logs.failures().size(), 1u);
    EXPECT_EQ(logs.failures()[0].kind, "unimplement");
    EXPECT_EQ(traces.size(), 0u);
}

}  // namespace
