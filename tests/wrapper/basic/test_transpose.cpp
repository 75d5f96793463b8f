// transpose: the plan of the documented cases and the kernel of a step across
// every threshold; random shapes of rank 2 to 5 under random permutations on
// both paths against a scatter by index, with every launch checked against
// the plan and the inverse permutation restoring the input; bad calls; a
// failing launch at each step of a long chain.
#include <numeric>
#include <set>

#include "support/tsuops_test.h"
#include "wrapper/basic/transpose_plan.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace orvane::tsu::api;
using namespace tsuops_test;
namespace plan = infer_ops::transpose_plan;
using plan::Buffer;
using plan::Kernel;
using plan::Word;
using Dims = std::vector<long>;

constexpr int kClusters = 3, kGmx = 2;

TEST(TransposePlan, DocumentedCases) {
    const auto k0213 = Kernel::cluster_0213, small = Kernel::small_dim_021, gmx = Kernel::gmx_021;
    const auto x = Buffer::x, y = Buffer::y, tmp = Buffer::scratch;
    struct Row {
        Dims shape, perm;
        Word word;
        Dims norm_shape, norm_perm;
        std::vector<plan::Step> steps;
    };
    const Row rows[] = {
        {{2, 3, 4, 5}, {0, 1, 2, 3}, Word::w32, {120}, {0}, {}},
        {{1, 5}, {1, 0}, Word::w16, {5}, {0}, {}},
        {{1, 1}, {1, 0}, Word::w8, {1}, {0}, {}},
        {{2, 3}, {1, 0}, Word::w32, {2, 3}, {1, 0}, {{1, 2, 3, 1, small, x, y}}},
        {{2, 3, 4, 5}, {0, 2, 1, 3}, Word::w32, {2, 3, 4, 5}, {0, 2, 1, 3}, {{2, 3, 4, 5, k0213, x, y}}},
        {{2, 3, 4}, {2, 0, 1}, Word::w16, {6, 4}, {1, 0}, {{1, 6, 4, 1, gmx, x, y}}},
        {{2, 3, 4}, {2, 1, 0}, Word::w32, {2, 3, 4}, {2, 1, 0}, {{1, 6, 4, 1, small, x, tmp}, {4, 2, 3, 1, small, tmp, y}}},
        {{2, 3, 4, 5}, {3, 2, 1, 0}, Word::w16, {2, 3, 4, 5}, {3, 2, 1, 0},
         {{1, 24, 5, 1, gmx, x, y}, {5, 6, 4, 1, gmx, y, tmp}, {20, 2, 3, 1, gmx, tmp, y}}},
        // Neighbours that stay neighbours merge; the unit dimension goes.
        {{2, 3, 1, 4, 5}, {3, 4, 2, 0, 1}, Word::w32, {6, 20}, {1, 0}, {{1, 6, 20, 1, gmx, x, y}}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(::testing::PrintToString(r.shape) + " by " + ::testing::PrintToString(r.perm));
        const plan::Plan p = plan::make_plan(r.shape, r.perm, r.word);
        EXPECT_EQ(p.shape, r.norm_shape);
        EXPECT_EQ(p.perm, r.norm_perm);
        EXPECT_EQ(p.words, std::accumulate(r.shape.begin(), r.shape.end(), 1L, std::multiplies<>()));
        EXPECT_EQ(p.steps, r.steps);
        EXPECT_EQ(p.needs_scratch(), r.steps.size() >= 2);
    }
    // long: a trailing pair of words that stays in place.
    const plan::Plan p = plan::plan_for<long>({2, 3}, {1, 0});
    EXPECT_EQ(p.steps, (std::vector<plan::Step>{{1, 2, 3, 2, k0213, x, y}}));
    EXPECT_EQ(p.words, 12);
}

TEST(TransposePlan, KernelOfAStepAcrossEveryThreshold) {
    const long s = plan::kSmallDimMax, c = plan::kNhwcChannels, big = plan::kMaxBlockBytes;
    const auto k0213 = Kernel::cluster_0213, small = Kernel::small_dim_021, gmx = Kernel::gmx_021;
    struct Row { Word word; long a, b, rest; Kernel want; };
    const Row rows[] = {
        {Word::w32, 7, s - 1, 1, small}, {Word::w32, 7, s, 1, small}, {Word::w32, 7, s + 1, 1, gmx},
        {Word::w32, 7, s, 2, k0213}, {Word::w32, big / 4, s + 1, 1, gmx}, {Word::w32, big / 4 + 1, s + 1, 1, k0213},
        {Word::w32, 7, big / 4 + 1, 1, k0213}, {Word::w32, big / 4 + 1, s, 1, small},
        {Word::w16, 7, 2, 1, gmx}, {Word::w16, 7, 2, 3, k0213}, {Word::w16, big / 2, 7, 1, gmx},
        {Word::w16, big / 2 + 1, 7, 1, k0213}, {Word::w16, 7, big / 2 + 1, 1, k0213},
        {Word::w8, 7, c - 1, 1, gmx}, {Word::w8, 7, c, 1, Kernel::nhwc_c3}, {Word::w8, 7, c + 1, 1, gmx},
        {Word::w8, 7, c, 2, k0213}, {Word::w8, big, 7, 1, gmx}, {Word::w8, big + 1, 7, 1, k0213},
        {Word::w8, 7, big + 1, 1, k0213}, {Word::w8, big + 1, c, 1, Kernel::nhwc_c3},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(plan::choose({1, r.a, r.b, r.rest, k0213, Buffer::x, Buffer::y}, r.word), r.want)
            << "word " << static_cast<int>(r.word) << " a " << r.a << " b " << r.b << " rest " << r.rest;
    }
}

// The definition read the other way round: each input element, walked in
// input order, scattered to where its index lands in the output.
std::vector<unsigned char> scatter(const std::vector<unsigned char>& x, std::size_t elem, const Dims& shape,
                                   const Dims& perm) {
    const std::size_t rank = shape.size();
    Dims out_stride(rank, 1), id(rank, 0);
    for (std::size_t i = rank - 1; i-- > 0;) out_stride[i] = out_stride[i + 1] * shape[perm[i + 1]];
    std::vector<unsigned char> y(x.size());
    for (std::size_t e = 0; e < x.size() / elem; ++e) {
        long o = 0;
        for (std::size_t i = 0; i < rank; ++i) o += id[perm[i]] * out_stride[i];
        std::memcpy(&y[o * elem], &x[e * elem], elem);
        for (std::size_t d = rank; d-- > 0 && ++id[d] == shape[d];) id[d] = 0;
    }
    return y;
}

struct Case { Dims shape, perm; };

// Fixed cases that reach each kernel and cross the kernels' tile edges (a
// line of units by 512 bytes of them, 4 KiB runs of units of a line or more,
// short-row tiles of 2048 / b rows, register blocks of 16 bytes), then random
// shapes of rank 2 to 5 with mostly small dimensions and now and then a long
// one.
std::vector<Case> cases() {
    const long s = plan::kSmallDimMax, c = plan::kNhwcChannels;
    std::vector<Case> out = {{{140, s}, {1, 0}}, {{9, s + 1}, {1, 0}}, {{5, c}, {1, 0}}, {{3, c + 1}, {1, 0}},
                             {{100, c}, {1, 0}}, {{70, 65}, {1, 0}}, {{520, 70}, {1, 0}}, {{2, 130, 33}, {0, 2, 1}},
                             {{70, 3, 32}, {1, 0, 2}}, {{2, 3, 4, 5}, {0, 2, 1, 3}}, {{3, 33, 2, 40}, {0, 3, 2, 1}},
                             {{2, 3, 4, 5}, {3, 2, 1, 0}}, {{4, 6}, {0, 1}}, {{1, 1, 1}, {2, 0, 1}}};
    detail::Rng rng(2024);
    const long longs[] = {16, 17, 33, 65, 70, 130};
    while (out.size() < 60) {
        Case k;
        const long rank = 2 + static_cast<long>(rng.below(4));
        long total = 1;
        for (long d = 0; d < rank; ++d) {
            k.shape.push_back(rng.below(6) == 0 ? longs[rng.below(6)] : 1 + static_cast<long>(rng.below(5)));
            total *= k.shape.back();
        }
        if (total > 40000) continue;
        k.perm.resize(rank);
        std::iota(k.perm.begin(), k.perm.end(), 0L);
        for (long i = rank - 1; i > 0; --i) std::swap(k.perm[i], k.perm[rng.below(i + 1)]);
        out.push_back(k);
    }
    return out;
}

std::string family(Kernel k) {
    return k == Kernel::gmx_021 ? "infer_transpose_021_gmx_bsp" : k == Kernel::nhwc_c3 ? "infer_transpose_nhwc_c3"
           : k == Kernel::small_dim_021 ? "infer_transpose_021_small_dim_cluster" : "infer_transpose_0213_cluster";
}

// The launches of one device call against its plan: kernel, grid, buffers,
// block sizes. An empty plan is one copy of the bytes.
template <class T>
void expect_launches(const std::vector<LaunchRecord>& got, const plan::Plan& p, const void* x, const void* y,
                     std::set<std::string>& reached) {
    if (p.steps.empty()) {
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(kernel_family(got[0].kernel), "infer_memcpy_1d");
        EXPECT_EQ(LaunchCapture::arg<long>(got[0], 16), p.words * plan::word_bytes(p.word));
        return;
    }
    ASSERT_EQ(got.size(), p.steps.size());
    const void* scratch = nullptr;
    for (std::size_t k = 0; k < got.size(); ++k) {
        const plan::Step& s = p.steps[k];
        const LaunchRecord& r = got[k];
        const std::string fam = family(s.kernel);
        reached.insert(fam);
        EXPECT_EQ(kernel_family(r.kernel), fam) << "step " << k;
        EXPECT_EQ((Dims{r.nclusters, r.ncores}), (s.kernel == Kernel::gmx_021 ? Dims{kGmx, 8} : Dims{kClusters, 64}));
        const void* ptr[2] = {LaunchCapture::arg<const void*>(r, 0), LaunchCapture::arg<const void*>(r, 8)};
        const Buffer buf[2] = {s.src, s.dst};
        for (int i = 0; i < 2; ++i) {
            if (buf[i] == Buffer::scratch && scratch == nullptr) scratch = ptr[i];
            EXPECT_EQ(ptr[i], buf[i] == Buffer::x ? x : buf[i] == Buffer::y ? y : scratch) << "step " << k;
        }
        EXPECT_EQ((Dims{LaunchCapture::arg<long>(r, 16), LaunchCapture::arg<long>(r, 24),
                        LaunchCapture::arg<long>(r, 32)}),
                  (Dims{s.left, s.a, s.b}));
        if (s.kernel == Kernel::cluster_0213) { EXPECT_EQ(LaunchCapture::arg<long>(r, 40), s.rest); }
    }
    EXPECT_TRUE(scratch != x && scratch != y);
}

template <class T>
class Transpose : public ::testing::Test {};
using TransposeTypes =
    ::testing::Types<float, float16, bfloat16, int, signed char, short, long, unsigned char, bool>;
TYPED_TEST_SUITE(Transpose, TransposeTypes, ElementTypeNames);

TYPED_TEST(Transpose, RandomPermutationsOnBothPathsAndBack) {
    using T = TypeParam;
    auto host = host_context();
    auto dev = device_context({.ncluster = kClusters, .ngmx = kGmx});
    std::set<std::string> reached;
    std::uint64_t seed = 1;
    for (const Case& c : cases()) {
        SCOPED_TRACE(::testing::PrintToString(c.shape) + " by " + ::testing::PrintToString(c.perm));
        const long n = std::accumulate(c.shape.begin(), c.shape.end(), 1L, std::multiplies<>());
        const auto xs = random_tensor<T>(n, ++seed, RandomSpec::with_specials());
        GuardedBuffer<T> hx(host.get(), xs), hy(host.get(), n), dx(dev.get(), xs), dy(dev.get(), n), back(dev.get(), n);
        const auto want = scatter(hx.raw_bytes(), sizeof(T), c.shape, c.perm);
        ASSERT_EQ(infer_ops::transpose<T>(host.get(), hx.data(), hy.data(), c.shape, c.perm), 0);
        EXPECT_EQ(hy.raw_bytes(), want);
        LaunchCapture launches;
        ASSERT_EQ(infer_ops::transpose<T>(dev.get(), dx.data(), dy.data(), c.shape, c.perm), 0);
        EXPECT_EQ(dy.raw_bytes(), want);
        expect_launches<T>(launches.records(), plan::plan_for<T>(c.shape, c.perm), dx.data(), dy.data(), reached);

        Dims inverse(c.perm.size()), out_shape(c.perm.size());
        for (std::size_t i = 0; i < c.perm.size(); ++i) {
            inverse[c.perm[i]] = static_cast<long>(i);
            out_shape[i] = c.shape[c.perm[i]];
        }
        ASSERT_EQ(infer_ops::transpose<T>(dev.get(), dy.data(), back.data(), out_shape, inverse), 0);
        EXPECT_EQ(back.raw_bytes(), dx.raw_bytes());
    }
    // 8-byte elements always carry a trailing pair of words: the 0213 kernel only.
    std::set<std::string> all = {family(Kernel::cluster_0213)};
    if (sizeof(T) < 8) all.insert(family(Kernel::gmx_021));
    if (sizeof(T) == 4) all.insert(family(Kernel::small_dim_021));
    if (plan::word_of<T> == Word::w8) all.insert(family(Kernel::nhwc_c3));
    EXPECT_EQ(reached, all);
}

TEST(TransposeFailure, StatusLogAndNothingWritten) {
    using wrapper_test::fp;
    const auto with = [](Dims perm, bool in_place = false, int extra = 0) -> wrapper_test::Call {
        return [=](Context* c, void* const* p, long m, long n, double) {
            Dims shape = {m, n};
            if (extra) shape.push_back(extra);
            return infer_ops::transpose<float>(c, fp(p[0]), fp(p[in_place ? 0 : 1]), shape, perm);
        };
    };
    const std::vector<wrapper_test::Call> ops = {
        with({1, 0}), with({0, 0}), with({1, 2}), with({-1, 0}), with({1, 0, 2}), with({0, 1}, true),
        with({2, 1, 0}, false, 2),
        [](Context* c, void* const* p, long, long, double) {
            return infer_ops::transpose<float>(c, fp(p[0]), fp(p[1]), {}, {});
        },
        with({3, 0, 0})};
    const auto dev = DeviceType::TSU3, cpu = DeviceType::CPU;
    wrapper_test::expect_failures(
        ops, {1},
        {{"a null context", 0, wrapper_test::kNoContext, 4, 8, 0, 0, 0, {}, 1, nullptr, {}},
         {"a zero dimension", 0, dev, 0, 8, 0, 0, 0, {}, 1, "invalid_shape", {}},
         {"a negative dimension, host", 0, cpu, 4, -8, 0, 0, 0, {}, 1, "invalid_shape", {}},
         {"an empty shape", 7, dev, 4, 8, 0, 0, 0, {}, 1, "invalid_shape", {}},
         {"null x", 0, dev, 4, 8, 0, 0, 1, {}, 1, "invalid_memory", {}},
         {"y no memory", 0, dev, 4, 8, 0, 1, 0x1000, {}, 1, "invalid_memory", {}},
         {"in place", 5, dev, 4, 8, 0, 0, 0, {}, 1, "compare_fail", {}},
         {"lengths differ", 4, dev, 4, 8, 0, 0, 0, {}, 1, "compare_fail", {"2", "==", "3"}},
         {"a negative axis", 3, cpu, 4, 8, 0, 0, 0, {}, 1, "compare_fail", {"-1", ">=", "0"}},
         {"an axis past the rank", 2, dev, 4, 8, 0, 0, 0, {}, 1, "compare_fail", {"2", "<", "2"}},
         {"a repeated axis", 1, dev, 4, 8, 0, 0, 0, {}, 1, "compare_fail", {"1", "==", "0"}},
         {"a repeated axis, host", 1, cpu, 4, 8, 0, 0, 0, {}, 1, "compare_fail", {"1", "==", "0"}},
         {"device type 1", 0, DeviceType::TSU1, 4, 8, 0, -1, 0x200001000, {}, 4, "unimplement", {}},
         {"no scratch for two steps", 6, dev, 4, 8, 0, 0, 0, tsuemu::Site::PoolAlloc, 3, "compare_fail",
          {"ptr(0)", "!=", "nullptr"}},
         {"the launch fails", 0, dev, 4, 8, 0, 0, 0, tsuemu::Site::Config, 2, "kernel_fail", {"7"}},
         // Two faults: the shape before the permutation, the regions before
         // the in-place test, the lengths before the entries.
         {"a zero dimension and a repeated axis", 1, dev, 0, 8, 0, 0, 0, {}, 1, "invalid_shape", {}},
         {"in place on no memory", 5, dev, 4, 8, 0, 0, 0x1000, {}, 1, "invalid_memory", {}},
         {"lengths differ and an axis past the rank", 8, cpu, 4, 8, 0, 0, 0, {}, 1, "compare_fail",
          {"2", "==", "3"}}});
}

// Each launch of a three-step chain fails in turn: status 2, one record, no
// later launch, both scratch pools back where they were. The identity's
// inner copy fails with its own records and status.
TEST(TransposeFailure, EachLaunchOfAChainFails) {
    auto dev = device_context({.ncluster = kClusters, .ngmx = kGmx});
    const Dims shape = {2, 3, 4, 5}, perm = {3, 2, 1, 0};
    ASSERT_EQ(plan::plan_for<float>(shape, perm).steps.size(), 3u);
    GuardedBuffer<float> x(dev.get(), random_tensor<float>(120, 5)), y(dev.get(), 120);
    for (int nth = 1; nth <= 3; ++nth) {
        SCOPED_TRACE("launch " + std::to_string(nth));
        const auto pools = [&] { return Dims{long(dev->gm_mgr.top()), long(dev->l3_mgr.top()),
                                             long(dev->gm_mgr.depth() + dev->l3_mgr.depth())}; };
        const Dims before = pools();
        LogCapture logs;
        LaunchCapture launches;
        tsuemu::inject_failure(tsuemu::Site::Async, nth, 9);
        EXPECT_EQ(infer_ops::transpose<float>(dev.get(), x.data(), y.data(), shape, perm), 2);
        tsuemu::clear_failures();
        EXPECT_EQ(launches.size(), static_cast<std::size_t>(nth - 1));
        ASSERT_EQ(logs.failures().size(), 1u);
        EXPECT_EQ(logs.failures()[0].kind, "kernel_fail");
        EXPECT_EQ(pools(), before) << "general top, fast top, marks";
    }
    LogCapture logs;
    y.fill_sentinel();
    tsuemu::inject_failure(tsuemu::Site::Async, 1, 9);
    EXPECT_EQ(infer_ops::transpose<float>(dev.get(), x.data(), y.data(), {1, 120}, {1, 0}), 2);
    tsuemu::clear_failures();
    std::vector<std::string> kinds;
    for (const auto& r : logs.failures()) kinds.push_back(r.kind);
    EXPECT_EQ(kinds, (std::vector<std::string>{"kernel_fail", "compare_fail"}));
    EXPECT_TRUE(y.untouched());
}

}  // namespace
