// rotary_embedding_neox: the host against the rotation written out here and
// the device bit for bit, in every instantiation, across every row of the
// selection table and the kernels' pass length, with the kernel each shape
// launches; chunked launches; bad calls.
#pragma GCC optimize("fp-contract=off")

#include <string>
#include <vector>

#include "kernels/rope/rotary_embedding_neox.h"
#include "wrapper/kv_batch.h"
#include "wrapper/rope/neox_select.h"
#include "wrapper/rope/vsl_model.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace kv_batch;
namespace sel = infer_ops::rope;

using Instantiations =
    ::testing::Types<Form<float16, float16, int>, Form<float16, float16, long>, Form<float16, float, long>,
                     Form<bfloat16, bfloat16, int>, Form<bfloat16, bfloat16, long>, Form<bfloat16, float, int>,
                     Form<bfloat16, float, long>, Form<float, float, int>, Form<float, float, long>>;

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

// The tensors of one call: table row 0 is cos 1, sin 0, which must give
// the input back.
template <class F>
struct Inputs {
    using TX = Arg<F, 0>;
    using TCS = Arg<F, 1>;
    using TID = Arg<F, 2>;
    Shape s;
    std::vector<TID> pos;
    std::vector<TX> q, k;
    std::vector<TCS> table;

    Inputs(const Shape& sh, std::uint64_t seed)
        : s(sh), pos(random_tensor<TID>(sh.tokens, seed, RandomSpec::range(0, kTableRows - 1))),
          q(activations<TX>(sh.tokens * sh.heads * sh.head_size, sh.head_size, seed + 1)),
          k(activations<TX>(sh.tokens * sh.kv_heads * sh.head_size, sh.head_size, seed + 2)),
          table(random_tensor<TCS>(kTableRows * sh.rotary_dim, seed + 3, RandomSpec::with_specials(0.01, kFloatSpecials))) {
        for (long i = 0; i < s.rotary_dim; ++i) table[i] = TCS(i < s.rotary_dim / 2 ? 1.0f : 0.0f);
    }

    // Split halves of each head's first rotary_dim elements, against the
    // token's table row of rotary_dim / 2 cosines, then as many sines.
    std::vector<TX> rotated(std::vector<TX> x, long heads) const {
        const long e = s.rotary_dim / 2;
        for (long t = 0; t < s.tokens; ++t) {
            const TCS* cs = table.data() + static_cast<long>(pos[t]) * s.rotary_dim;
            for (long h = 0; h < heads; ++h) {
                TX* y = x.data() + (t * heads + h) * s.head_size;
                for (long i = 0; i < e; ++i) {
                    const float c = float(cs[i]), si = float(cs[i + e]);
                    std::tie(y[i], y[i + e]) = vsl_model::rotate<TX, float>(float(y[i]), float(y[i + e]), c, si, c, si);
                }
            }
        }
        return x;
    }
    std::vector<Bytes> model() const { return {raw(rotated(q, s.heads)), raw(rotated(k, s.kv_heads))}; }

    Outcome run(Context* ctx) const {
        GuardedBuffer<TID> pb(ctx, pos);
        GuardedBuffer<TX> qb(ctx, q), kb(ctx, k);
        GuardedBuffer<TCS> tb(ctx, table);
        const int st = infer_ops::rotary_embedding_neox<TX, TCS, TID>(ctx, pb.data(), qb.data(), kb.data(), tb.data(),
                                                                      s.rotary_dim, s.heads, s.kv_heads, s.head_size,
                                                                      s.tokens);
        return {st, {raw(qb), raw(kb)}};
    }
};

template <class F>
void differential() {
    std::uint64_t seed = 1;
    for (const Shape& s : shapes()) {
        SCOPED_TRACE(::testing::Message() << "ncluster " << s.ncluster << ", " << s.tokens << " tokens, heads "
                                          << s.heads << "/" << s.kv_heads << ", head " << s.head_size << ", rotary "
                                          << s.rotary_dim);
        const Inputs<F> in(s, seed += 10);
        const auto r = expect_model(in.model(), [&](Context* ctx) { return in.run(ctx); },
                                    {.ncluster = static_cast<int>(s.ncluster)});
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(kernel_family(r[0].kernel), s.kernel);
        EXPECT_NE(r[0].kernel.find(s.rotary_dim % sel::kWideRotaryUnit == 0 ? ", true>" : ", false>"),
                  std::string::npos) << r[0].kernel;
        EXPECT_EQ(r[0].nclusters, s.ncluster);
        EXPECT_EQ(r[0].ncores, sel::kCoresPerCluster);
    }
}

template <class F>
class RotaryNeox : public ::testing::Test {};
TYPED_TEST_SUITE(RotaryNeox, Instantiations, FormNames);

TYPED_TEST(RotaryNeox, HostIsTheRotationAndTheDeviceItsBitsOnEverySelectionRow) { differential<TypeParam>(); }

// The other rounding modes, fixed once per process: float16 keeping
// subnormals, bfloat16 ties away from zero.
TEST(RotaryNeoxChild, DISABLED_OtherRoundingModes) {
    differential<Form<float16, float16, int>>();
    differential<Form<float16, float, long>>();
    differential<Form<bfloat16, bfloat16, long>>();
    differential<Form<bfloat16, float, int>>();
}

TEST(RotaryNeoxModes, DeviceMatchesHostInTheOtherRoundingModes) {
    EXPECT_TRUE(run_child("RotaryNeoxChild.DISABLED_OtherRoundingModes",
                          {{"TSUAPI_FP16_MODE", "tsu3"}, {"TSUAPI_BF16_ROUND_MODE", "rn"}}, {"TSUAPI_BF16_FP16_MODE"}));
}

// 32768 tokens a launch: the second launch takes the last token, every
// pointer advanced by its own tensor's token stride; a failure of its
// configuration leaves the first chunk applied and the last token as it was.
TEST(RotaryNeoxChunks, LaunchesInOrderWithAdvancedPointers) {
    using F = Form<bfloat16, float, long>;
    const long n = sel::kChunkTokens + 1, H = 2, KV = 1, D = 24;
    const Inputs<F> in({1, n, H, KV, D, 16, "rotary_embedding_neox_gqa"}, 9);
    const auto run = [&](Context* ctx) { return in.run(ctx); };
    const auto r = expect_model(in.model(), run, {.ncluster = 1});
    ASSERT_EQ(r.size(), 2u);
    constexpr auto off = tsuops::kernels::slot_offsets<const long*, bfloat16*, bfloat16*, const float*, int, int, int,
                                                       int, int>;
    const auto ptr = [&](int launch, int i) { return LaunchCapture::arg<const char*>(r[launch], off[i]); };
    const long strides[] = {sizeof(long), H * D * 2, KV * D * 2, 0};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(ptr(1, i) - ptr(0, i), sel::kChunkTokens * strides[i]) << "pointer " << i;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(kernel_family(r[i].kernel), in.s.kernel);
        const int sizes[] = {16, 2, 1, 24, i == 0 ? static_cast<int>(sel::kChunkTokens) : 1};
        for (int a = 0; a < 5; ++a) EXPECT_EQ(LaunchCapture::arg<int>(r[i], off[4 + a]), sizes[a]) << a;
    }
    auto dev = device_context({.ncluster = 1});
    LogCapture logs;
    tsuemu::inject_failure(tsuemu::Site::Config, 2, 7);
    const Outcome failed = run(dev.get());
    tsuemu::clear_failures();
    EXPECT_EQ(failed.status, infer_ops::STATUS_KERNEL_FAILED);
    EXPECT_EQ(logs.count("kernel_fail"), 1u);
    auto half = in.rotated(in.q, H);
    std::copy(in.q.begin() + sel::kChunkTokens * H * D, in.q.end(), half.begin() + sel::kChunkTokens * H * D);
    EXPECT_TRUE(exactly_equal(raw(half), failed.out[0]));
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
        {{"negative tokens, host", 0, cpu, 16, 32, -1, 0, 0, {}, 1, "compare_fail", {"-1", ">", "0"}},
         {"no rotary span", 0, dev, 0, 32, 2, 0, 0, {}, 1, "compare_fail", {"0", ">", "0"}},
         {"rotary_dim 24, host", 0, cpu, 24, 32, 2, 0, 0, {}, 1, "compare_fail", {"8", "==", "0"}},
         {"rotary_dim 24 and no tokens: tokens first", 0, dev, 24, 32, 0, 0, 0, {}, 1, "compare_fail",
          {"0", ">", "0"}},
         {"span past the head and a null query: the span first", 0, dev, 48, 32, 2, 1, 1, {}, 1, "compare_fail",
          {"32", ">=", "48"}},
         {"null positions", 0, dev, 16, 32, 2, 0, 1, {}, 1, "invalid_memory", {}},
         {"null query, host", 0, cpu, 16, 32, 2, 1, 1, {}, 1, "invalid_memory", {}},
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
    const Inputs<Form<float16, float, long>> in({1, 3, 2, 1, 24, 16, ""}, 4);
    const function_info info = trace_of([&] { return in.run(dev.get()).status; });
    EXPECT_EQ(info.name, "rotary_embedding_neox");
    EXPECT_EQ(info.dtypes, (std::vector<std::string>{"float16", "float", "int64_t"}));
    ASSERT_EQ(info.params.size(), 10u);
    EXPECT_EQ(std::vector<std::string>(info.params.begin() + 4, info.params.end() - 1),
              (std::vector<std::string>{"16", "2", "1", "24", "3"}));
    expect_families({{"rotary_embedding_neox", 20}, {"rotary_embedding_neox_gqa", 20},
                     {"rotary_embedding_neox_small_case", 20}, {"rotary_embedding_neox_small_case_gqa", 20}});
}

}  // namespace
