// rotary_embedding_neox: device against host bit for bit in every
// instantiation, across every row of the selection table and the kernels'
// pass length, with the kernel each shape launches; the host against an
// independent computation; chunked launches; bad calls.
#pragma GCC optimize("fp-contract=off")

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kernels/rope/rotary_embedding_neox.h"
#include "support/tsuops_test.h"
#include "wrapper/rope/neox_select.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace orvane::tsu::api;
using namespace tsuops_test;
namespace sel = infer_ops::rope;

template <class X, class CS, class ID>
struct Triple {
    using TX = X;
    using TCS = CS;
    using TID = ID;
};
using Instantiations =
    ::testing::Types<Triple<float16, float16, int>, Triple<float16, float16, long>, Triple<float16, float, long>,
                     Triple<bfloat16, bfloat16, int>, Triple<bfloat16, bfloat16, long>, Triple<bfloat16, float, int>,
                     Triple<bfloat16, float, long>, Triple<float, float, int>, Triple<float, float, long>>;
struct TripleNames {
    template <class P>
    static std::string GetName(int) {
        return std::string(type_name<typename P::TX>()) + "_" + type_name<typename P::TCS>() + "_" +
               type_name<typename P::TID>();
    }
};

struct Shape {
    long ncluster, tokens, heads, kv_heads, head_size, rotary_dim;
    const char* kernel;  // the family the selection table must give
};

constexpr long kTableRows = 37;

// Every selection rule one below, at and one above its limit, the odd head
// counts, rotary spans shorter than and equal to the head, and one and two
// passes of the kernels over a head.
std::vector<Shape> shapes() {
    const long c1 = sel::kCoresPerCluster, c6 = 6 * sel::kCoresPerCluster;
    const long t = sel::kSmallCaseGqaMaxTokens, row = sel::kSmallCaseGqaMaxRow;
    const long p = 2 * tsuops::kernels::neox::kPairs;
    const char *plain = "rotary_embedding_neox", *gqa = "rotary_embedding_neox_gqa";
    const char *small = "rotary_embedding_neox_small_case", *small_gqa = "rotary_embedding_neox_small_case_gqa";
    return {
        // tokens against the cores of the launch, with equal, fewer and one key heads
        {1, c1 - 1, 4, 4, 64, 64, small}, {1, c1, 4, 4, 64, 64, plain}, {1, c1 + 1, 4, 4, 72, 48, plain},
        {1, c1 - 1, 8, 2, 128, 64, small}, {1, c1, 8, 2, 128, 128, gqa}, {1, c1 + 1, 8, 2, 16, 16, gqa},
        {1, c1 - 1, 4, 1, 64, 64, small_gqa}, {1, c1, 4, 1, 64, 64, gqa},
        {6, c6 - 1, 2, 1, 32, 32, small}, {6, c6, 2, 1, 160, 128, gqa},
        // the token limit of the small gqa case
        {6, t - 1, 4, 1, 64, 16, small_gqa}, {6, t, 4, 1, 64, 48, small_gqa}, {6, t + 1, 4, 1, 64, 32, small},
        // its query row limit
        {1, 5, 2, 1, row / 2, 496, small_gqa}, {1, 5, 3, 1, row / 3, 336, small_gqa},
        {1, 5, 2, 1, row / 2 + 1, 512, small},
        // its head counts
        {1, 5, 1, 1, 128, 128, small}, {1, 5, 7, 1, 128, 64, small}, {1, 5, 6, 1, 128, 64, small_gqa},
        {1, 5, 8, 1, 128, 64, small}, {1, 5, 8, 8, 48, 48, small},
        // more heads than one stage group; one pass at its longest, then two
        {1, 70, 40, 8, 128, 128, gqa}, {1, 3, 2, 1, p, p, small}, {1, 3, 2, 2, p + 16, p + 16, small},
        {1, 70, 2, 1, p + 32, p, gqa}};
}

// The tensors of one call in the memory of ctx. flavour 0: values of a few
// units salted with NaN, infinities, subnormals and signed zeros; 1: values
// near the top of the float16 range; 2: constant query rows and a key with a
// large common offset. Table row 0 is cos 1, sin 0.
template <class P>
struct Call {
    using TX = typename P::TX;
    using TCS = typename P::TCS;
    using TID = typename P::TID;
    Shape s;
    GuardedBuffer<TID> pos;
    GuardedBuffer<TX> q, k;
    GuardedBuffer<TCS> table;

    static std::vector<TX> values(long n, std::uint64_t seed, int flavour, double offset) {
        if (flavour == 1) return random_tensor<TX>(n, seed, RandomSpec::range(-60000, 60000));
        if (flavour == 2) return random_tensor<TX>(n, seed, RandomSpec::range(offset, offset + 2));
        return random_tensor<TX>(n, seed, RandomSpec::with_specials(0.03, kFloatSpecials).in(-4, 4));
    }
    static std::vector<TCS> rows(std::uint64_t seed, long rd) {
        auto v = random_tensor<TCS>(kTableRows * rd, seed, RandomSpec::with_specials(0.01, kFloatSpecials));
        for (long i = 0; i < rd; ++i) v[i] = TCS(i < rd / 2 ? 1.0f : 0.0f);
        return v;
    }
    Call(Context* ctx, const Shape& sh, std::uint64_t seed, int flavour)
        : s(sh), pos(ctx, random_tensor<TID>(sh.tokens, seed, RandomSpec::range(0, kTableRows - 1))),
          q(ctx, flavour == 2 ? std::vector<TX>(sh.tokens * sh.heads * sh.head_size, TX(3.25f))
                              : values(sh.tokens * sh.heads * sh.head_size, seed + 1, flavour, 0)),
          k(ctx, values(sh.tokens * sh.kv_heads * sh.head_size, seed + 2, flavour, 1000)),
          table(ctx, rows(seed + 3, sh.rotary_dim)) {}
    int run(Context* ctx) {
        return infer_ops::rotary_embedding_neox<TX, TCS, TID>(ctx, pos.data(), q.data(), k.data(), table.data(),
                                                              s.rotary_dim, s.heads, s.kv_heads, s.head_size,
                                                              s.tokens);
    }
};

template <class T>
std::vector<std::uint32_t> bits(const std::vector<T>& v) {
    std::vector<std::uint32_t> out(v.size());
    for (std::size_t i = 0; i < v.size(); ++i) std::memcpy(&out[i], &v[i], sizeof(T));
    return out;
}

// Each shape on the host and on a device of its cluster count: the same bits
// in query and key, and the kernel of the selection table.
template <class P>
void differential() {
    auto host = host_context();
    std::uint64_t seed = 1;
    for (const Shape& s : shapes()) {
        SCOPED_TRACE(::testing::Message() << "ncluster " << s.ncluster << ", " << s.tokens << " tokens, heads "
                                          << s.heads << "/" << s.kv_heads << ", head " << s.head_size << ", rotary "
                                          << s.rotary_dim);
        auto dev = device_context({.ncluster = static_cast<int>(s.ncluster)});
        const int flavour = static_cast<int>(seed % 3);
        Call<P> want(host.get(), s, seed, flavour), got(dev.get(), s, seed, flavour);
        seed += 10;
        ASSERT_EQ(want.run(host.get()), 0);
        LaunchCapture launches;
        ASSERT_EQ(got.run(dev.get()), 0);
        EXPECT_TRUE(exactly_equal(bits(want.q.download()), bits(got.q.download()))) << "query";
        EXPECT_TRUE(exactly_equal(bits(want.k.download()), bits(got.k.download()))) << "key";
        ASSERT_EQ(launches.size(), 1u);
        const LaunchRecord r = launches.records()[0];
        EXPECT_EQ(kernel_family(r.kernel), s.kernel);
        const bool wide = s.rotary_dim % sel::kWideRotaryUnit == 0;
        EXPECT_NE(r.kernel.find(wide ? ", true>" : ", false>"), std::string::npos) << r.kernel;
        EXPECT_EQ(r.nclusters, s.ncluster);
        EXPECT_EQ(r.ncores, sel::kCoresPerCluster);
    }
}

template <class P>
class RotaryNeox : public ::testing::Test {};
TYPED_TEST_SUITE(RotaryNeox, Instantiations, TripleNames);

TYPED_TEST(RotaryNeox, DeviceMatchesHostBitForBitAndTheSelectionTable) { differential<TypeParam>(); }

// The kernels narrow by the same rules as the host in the other rounding
// modes too (float16 keeping subnormals, bfloat16 ties away from zero), which
// are fixed once per process.
TEST(RotaryNeoxChild, DISABLED_OtherRoundingModes) {
    differential<Triple<float16, float16, int>>();
    differential<Triple<float16, float, long>>();
    differential<Triple<bfloat16, bfloat16, long>>();
    differential<Triple<bfloat16, float, int>>();
}

TEST(RotaryNeoxModes, DeviceMatchesHostInTheOtherRoundingModes) {
    EXPECT_TRUE(run_child("RotaryNeoxChild.DISABLED_OtherRoundingModes",
                          {{"TSUAPI_FP16_MODE", "tsu3"}, {"TSUAPI_BF16_ROUND_MODE", "rn"}}, {"TSUAPI_BF16_FP16_MODE"}));
}

// The documented rotation written out on its own, for a head longer than its
// rotary span (the tail must keep its bits) and one without a tail; a NaN
// result is the positive quiet NaN, whatever NaN went in; token 1 reads the
// cos 1, sin 0 row and must come back unchanged.
TYPED_TEST(RotaryNeox, BothPathsMatchAnIndependentComputation) {
    using TX = typename TypeParam::TX;
    using TCS = typename TypeParam::TCS;
    for (const Shape& s : {Shape{1, 3, 3, 2, 40, 16, ""}, Shape{1, 3, 2, 3, 48, 48, ""}}) {
        std::unique_ptr<Context> contexts[] = {host_context(), device_context()};
        for (auto& ctx : contexts) {
            Call<TypeParam> c(ctx.get(), s, 77, 2);
            auto q = random_tensor<TX>(c.q.size(), 5, RandomSpec::range(-4, 4));
            q[1] = TX(-std::numeric_limits<float>::quiet_NaN());
            c.q.upload(q);
            c.pos.upload({3, 0, 3});
            const auto pos = c.pos.download();
            const auto table = c.table.download();
            const auto q0 = c.q.download(), k0 = c.k.download();
            ASSERT_EQ(c.run(ctx.get()), 0);
            const long e = s.rotary_dim / 2;
            const auto one_nan = [](float v) { return std::isnan(v) ? std::numeric_limits<float>::quiet_NaN() : v; };
            auto expect = [&](const std::vector<TX>& in, long heads) {
                std::vector<TX> out = in;
                for (long t = 0; t < s.tokens; ++t) {
                    const TCS* cs = table.data() + pos[t] * s.rotary_dim;
                    for (long h = 0; h < heads; ++h) {
                        const TX* x = in.data() + (t * heads + h) * s.head_size;
                        TX* y = out.data() + (t * heads + h) * s.head_size;
                        for (long i = 0; i < e; ++i) {
                            const float a = float(x[i]), b = float(x[i + e]), co = float(cs[i]), si = float(cs[i + e]);
                            const float ac = a * co, bs = b * si, bc = b * co, asi = a * si;
                            y[i] = TX(one_nan(ac - bs));
                            y[i + e] = TX(one_nan(bc + asi));
                        }
                    }
                }
                return out;
            };
            const auto q1 = c.q.download();
            EXPECT_TRUE(exactly_equal(bits(expect(q0, s.heads)), bits(q1)));
            EXPECT_TRUE(exactly_equal(bits(expect(k0, s.kv_heads)), bits(c.k.download())));
            const long row = s.heads * s.head_size;
            EXPECT_TRUE(exactly_equal(bits(std::vector<TX>(q0.begin() + row, q0.begin() + 2 * row)),
                                      bits(std::vector<TX>(q1.begin() + row, q1.begin() + 2 * row))));
        }
    }
}

// 32768 tokens a launch: the second launch takes the last token, with every
// pointer advanced by its own tensor's token stride, and a failure of its
// configuration leaves the first chunk applied and the last token as it was.
TEST(RotaryNeoxChunks, LaunchesInOrderWithAdvancedPointers) {
    using P = Triple<bfloat16, float, long>;
    const long n = sel::kChunkTokens + 1;
    const Shape s{1, n, 2, 1, 24, 16, "rotary_embedding_neox_gqa"};
    auto host = host_context();
    auto dev = device_context({.ncluster = 1});
    Call<P> want(host.get(), s, 9, 0), got(dev.get(), s, 9, 0), failed(dev.get(), s, 9, 0);
    ASSERT_EQ(want.run(host.get()), 0);
    LaunchCapture launches;
    ASSERT_EQ(got.run(dev.get()), 0);
    EXPECT_TRUE(exactly_equal(bits(want.q.download()), bits(got.q.download())));
    EXPECT_TRUE(exactly_equal(bits(want.k.download()), bits(got.k.download())));
    const auto rs = launches.records();
    ASSERT_EQ(rs.size(), 2u);
    constexpr auto off = tsuops::kernels::slot_offsets<const long*, bfloat16*, bfloat16*, const float*, int, int, int,
                                                       int, int>;
    for (int i = 0; i < 2; ++i) {
        const long first = i * sel::kChunkTokens;
        EXPECT_EQ(kernel_family(rs[i].kernel), s.kernel);
        EXPECT_EQ(LaunchCapture::arg<const long*>(rs[i], off[0]), got.pos.data() + first);
        EXPECT_EQ(LaunchCapture::arg<bfloat16*>(rs[i], off[1]), got.q.data() + first * s.heads * s.head_size);
        EXPECT_EQ(LaunchCapture::arg<bfloat16*>(rs[i], off[2]), got.k.data() + first * s.kv_heads * s.head_size);
        EXPECT_EQ(LaunchCapture::arg<const float*>(rs[i], off[3]), got.table.data());
        const int sizes[] = {16, 2, 1, 24, i == 0 ? static_cast<int>(sel::kChunkTokens) : 1};
        for (int a = 0; a < 5; ++a) EXPECT_EQ(LaunchCapture::arg<int>(rs[i], off[4 + a]), sizes[a]) << a;
    }
    const auto q_before = failed.q.download();
    LogCapture logs;
    tsuemu::inject_failure(tsuemu::Site::Config, 2, 7);
    EXPECT_EQ(failed.run(dev.get()), infer_ops::STATUS_KERNEL_FAILED);
    tsuemu::clear_failures();
    EXPECT_EQ(logs.count("kernel_fail"), 1u);
    const auto q_failed = failed.q.download(), q_want = want.q.download();
    const long chunk_elems = sel::kChunkTokens * s.heads * s.head_size;
    EXPECT_TRUE(exactly_equal(bits(std::vector<bfloat16>(q_want.begin(), q_want.begin() + chunk_elems)),
                              bits(std::vector<bfloat16>(q_failed.begin(), q_failed.begin() + chunk_elems))));
    EXPECT_TRUE(exactly_equal(bits(std::vector<bfloat16>(q_before.begin() + chunk_elems, q_before.end())),
                              bits(std::vector<bfloat16>(q_failed.begin() + chunk_elems, q_failed.end()))));
}

// float tensors in the runner's 64-float buffers: p[0] positions, p[1] query,
// p[2] key, p[3] the table. Call 0 sizes (rotary_dim m, head_size n, tokens
// param) with one head each; call 1 (heads m, key heads n, tokens param) with
// heads of 16 rotated whole.
TEST(RotaryNeoxFailure, StatusLogAndNothingWritten) {
    using wrapper_test::as;
    using wrapper_test::fp;
    const wrapper_test::Call by_dims = [](Context* c, void* const* p, long m, long n, double tokens) {
        return infer_ops::rotary_embedding_neox<float, float, int>(c, as<int>(p[0]), fp(p[1]), fp(p[2]), fp(p[3]), m,
                                                                   1, 1, n, static_cast<long>(tokens));
    };
    const wrapper_test::Call by_heads = [](Context* c, void* const* p, long m, long n, double tokens) {
        return infer_ops::rotary_embedding_neox<float, float, int>(c, as<int>(p[0]), fp(p[1]), fp(p[2]), fp(p[3]), 16,
                                                                   m, n, 16, static_cast<long>(tokens));
    };
    const auto cpu = DeviceType::CPU, dev = DeviceType::TSU3;
    const std::uint64_t nowhere = 0x8000000000;
    wrapper_test::expect_failures(
        {by_dims, by_heads}, {1, 2},
        {{"rotary span past the head", 0, dev, 48, 32, 2, 0, 0, {}, 1, "compare_fail", {"32", ">=", "48"}},
         {"no tokens", 0, dev, 16, 32, 0, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"negative tokens, host", 0, cpu, 16, 32, -1, 0, 0, {}, 1, "compare_fail", {"-1", ">", "0"}},
         {"no rotary span", 0, dev, 0, 32, 2, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"rotary_dim 8", 0, dev, 8, 32, 2, 0, 0, {}, 1, "compare_fail", {"8", "==", "0"}},
         {"rotary_dim 24, host", 0, cpu, 24, 32, 2, 0, 0, {}, 1, "compare_fail", {"8", "==", "0"}},
         {"rotary_dim 24 and no tokens: tokens first", 0, dev, 24, 32, 0, 0, 0, {}, 1, "compare_fail",
          {"0", ">", "0"}},
         {"span past the head and a null query: the span first", 0, dev, 48, 32, 2, 1, 1, {}, 1, "compare_fail",
          {"32", ">=", "48"}},
         {"null positions", 0, dev, 16, 32, 2, 0, 1, {}, 1, "invalid_memory", {}},
         {"null query, host", 0, cpu, 16, 32, 2, 1, 1, {}, 1, "invalid_memory", {}},
         {"query outside device memory", 0, dev, 16, 32, 2, 1, nowhere, {}, 1, "invalid_memory", {}},
         {"key outside device memory", 0, dev, 16, 32, 2, 2, nowhere, {}, 1, "invalid_memory", {}},
         {"no query heads", 1, dev, 0, 1, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"no key heads", 1, dev, 2, 0, 2, 0, 0, {}, 1, "invalid_memory", {}},
         {"key runs off the end of device memory", 1, dev, 1, 3, 2, 2, nowhere - 8, {}, 1, "invalid_memory", {}},
         {"the table has no region: a bad one reaches the launch", 1, dev, 2, 1, 2, 3, nowhere,
          tsuemu::Site::Config, 2, "kernel_fail", {"7"}},
         {"the launch fails", 1, dev, 2, 2, 2, 0, 0, tsuemu::Site::Async, 2, "kernel_fail", {"7"}},
         {"device type 2 has no path", 0, DeviceType::TSU2, 16, 32, 2, 0, 0, {}, 4, "unimplement", {}},
         {"device type 4 has no path", 0, DeviceType::TSU4, 16, 32, 2, 0, 0, {}, 4, "unimplement", {}},
         {"no context", 0, wrapper_test::kNoContext, 16, 32, 2, 0, 0, {}, 1, nullptr, {}}});
}

TEST(RotaryNeoxFrame, TracesNameTypesAndArgumentsAndCarriesEveryInstance) {
    auto dev = device_context({.debug_flags = 1});
    const Shape s{1, 3, 2, 1, 24, 16, ""};
    Call<Triple<float16, float, long>> c(dev.get(), s, 4, 0);
    TraceCapture traces;
    LogCapture quiet;  // a traced call logs its regions
    ASSERT_EQ(c.run(dev.get()), 0);
    ASSERT_EQ(traces.size(), 1u);
    const function_info info = traces.records()[0];
    EXPECT_EQ(info.name, "rotary_embedding_neox");
    EXPECT_EQ(info.dtypes, (std::vector<std::string>{"float16", "float", "int64_t"}));
    ASSERT_EQ(info.params.size(), 10u);
    EXPECT_EQ(std::vector<std::string>(info.params.begin() + 4, info.params.end() - 1),
              (std::vector<std::string>{"16", "2", "1", "24", "3"}));
    std::map<std::string, int> families;
    for (const auto& k : infer_ops::kernel_catalogue()) ++families[k.family];
    for (const char* f : {"rotary_embedding_neox", "rotary_embedding_neox_gqa", "rotary_embedding_neox_small_case",
                          "rotary_embedding_neox_small_case_gqa"}) {
        EXPECT_EQ(families[f], 20) << f;
    }
}

}  // namespace
