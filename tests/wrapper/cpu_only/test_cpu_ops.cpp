// The host reference primitives: broadcasting, gather, partition, quantisation,
// softmax, concat and split, and the host-only routines' refusal of a device.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>
#include <vector>

#include <tsuops/cpu_ops.h>

#include "frame/quant_rules.h"
#include "support/tsuops_test.h"
#include "wrapper/wrapper_test.h"

namespace {

namespace cpu_ops = infer_ops::cpu_ops;
using namespace orvane::tsu::api;
using namespace tsuops_test;

template <class T>
std::vector<T> vec(std::initializer_list<float> v) { return std::vector<T>(v.begin(), v.end()); }

template <class T>
class HalfAndFloat : public ::testing::Test {};
TYPED_TEST_SUITE(HalfAndFloat, HalfAndFloatTypes, ElementTypeNames);

// x[b, 0, j] = 100 b + j plus y[i, j] = 10 i gives z[b, i, j] = 100 b + 10 i + j,
// exact in every type, whichever side has the lower rank; [1, 4] times [3, 1]
// is an outer product.
TYPED_TEST(HalfAndFloat, BroadcastOfUnequalRanks) {
    using T = TypeParam;
    auto ctx = host_context();
    const auto x = vec<T>({0, 1, 2, 100, 101, 102}), a = vec<T>({1, 2, 3, 4}), c = vec<T>({10, 100, 1000});
    const auto outer = vec<T>({10, 20, 30, 40, 100, 200, 300, 400, 1000, 2000, 3000, 4000});
    std::vector<T> y, z;
    for (int i = 0; i < 12; ++i) y.push_back(T(float(10 * (i / 3))));
    for (int e = 0; e < 24; ++e) z.push_back(T(float(100 * (e / 12) + 10 * (e / 3 % 4) + e % 3)));
    GuardedBuffer<T> xy(ctx.get(), 24), yx(ctx.get(), 24), ac(ctx.get(), 12);
    ASSERT_EQ(cpu_ops::broadcast_add<T>(ctx.get(), x.data(), y.data(), xy.data(), {2, 1, 3}, {4, 3}), 0);
    ASSERT_EQ(cpu_ops::broadcast_add<T>(ctx.get(), y.data(), x.data(), yx.data(), {4, 3}, {2, 1, 3}), 0);
    ASSERT_EQ(cpu_ops::broadcast_mul<T>(ctx.get(), a.data(), c.data(), ac.data(), {1, 4}, {3, 1}), 0);
    EXPECT_TRUE(exactly_equal(z, xy.download()));
    EXPECT_TRUE(exactly_equal(z, yx.download()));
    EXPECT_TRUE(exactly_equal(outer, ac.download()));
}

template <class T>
class Gather : public ::testing::Test {};
using GatherTypes = ::testing::Types<float, bfloat16, signed char, long, short>;
TYPED_TEST_SUITE(Gather, GatherTypes, ElementTypeNames);

// x is [2, 5, 3]; along the axis of 5, -1 takes coordinate 4 and -6 and 5
// lie outside and give zeros. A negative axis has the rank added.
TYPED_TEST(Gather, NegativeAndOutOfRangeIndices) {
    using T = TypeParam;
    auto ctx = host_context();
    const auto x = random_tensor<T>(30, 11);
    const std::vector<long> index = {-1, -6, 5, 0, 2, -5, 4}, coord = {4, -1, -1, 0, 2, 0, 4};
    std::vector<T> want;
    for (long b = 0; b < 2; ++b)
        for (long k : coord)
            for (long a = 0; a < 3; ++a) want.push_back(k < 0 ? T{} : x[(b * 5 + k) * 3 + a]);
    const std::vector<int> index32(index.begin(), index.end());
    GuardedBuffer<T> y(ctx.get(), 42), y32(ctx.get(), 42);
    ASSERT_EQ((cpu_ops::gather<T, long>(ctx.get(), x.data(), index.data(), y.data(), {2, 5, 3}, 7, -2)), 0);
    ASSERT_EQ((cpu_ops::gather<T, int>(ctx.get(), x.data(), index32.data(), y32.data(), {2, 5, 3}, 7, 1)), 0);
    EXPECT_TRUE(exactly_equal(want, y.download()));
    EXPECT_TRUE(exactly_equal(want, y32.download()));
}

long ceil_div(long a, long b) { return a / b + (a % b != 0); }

// The ranges of all workers tile [0, len) in worker order, each starting on
// a unit boundary; counts of whole units differ by at most one, larger first.
template <class T>
void check_partition(int nthreads, T len, int unit) {
    SCOPED_TRACE(::testing::Message() << "nthreads " << nthreads << " len " << len << " unit " << unit);
    T next = 0;
    long first = -1, last = -1;  // whole units of the first and of the latest worker
    for (int tid = 0; tid < nthreads; ++tid) {
        T b = -1, e = -1;
        cpu_ops::partition<T>(tid, nthreads, len, unit, &b, &e);
        const long units = unit < 1 ? 0 : ceil_div(static_cast<long>(e - b), unit);
        ASSERT_EQ(b, next) << "tid " << tid;
        ASSERT_TRUE(b <= e && (unit < 1 ? e == 0 : b % unit == 0 || b == len)) << "tid " << tid;
        ASSERT_TRUE(last < 0 || units <= last) << "tid " << tid;
        first = first < 0 ? units : first;
        last = units;
        next = e;
    }
    EXPECT_EQ(next, unit < 1 ? 0 : len);
    // The last unit may be short, so a worker holding it counts one block.
    const long blocks = unit < 1 ? 0 : ceil_div(static_cast<long>(len), unit);
    EXPECT_TRUE(blocks >= nthreads ? first - last <= 1 : first == (blocks > 0 ? 1 : 0));
}

TEST(Partition, TilesInOrderWithBalance) {
    for (int nthreads = 1; nthreads <= 9; ++nthreads)
        for (int len = 0; len <= 40; ++len)
            for (int unit = 0; unit <= 7; ++unit) {
                check_partition<int>(nthreads, len, unit);
                check_partition<long>(nthreads, len, unit);
            }
    for (int nthreads : {3, 64, 1000}) {
        check_partition<long>(nthreads, std::numeric_limits<long>::max(), 4096);
        check_partition<int>(nthreads, std::numeric_limits<int>::max(), 1);
    }
}

template <class T, class Q>
void quantises_by_the_rule(long len) {
    auto ctx = host_context();
    const auto x = random_tensor<T>(len, 40 + len, RandomSpec::with_specials(0.05));
    float rowmax = 1e-30f;
    for (T v : x) rowmax = std::max(rowmax, std::fabs(float(v)));
    const float given = 0.3f;
    for (const float* maxptr : {static_cast<const float*>(nullptr), &given}) {
        GuardedBuffer<Q> y(ctx.get(), len);
        ASSERT_EQ((cpu_ops::quantization<T, Q>(ctx.get(), x.data(), y.data(), len, maxptr)), 0);
        std::vector<Q> want;
        for (T v : x) want.push_back(quant_fp32<Q>(float(v), maxptr ? given : rowmax));
        EXPECT_TRUE(exactly_equal(want, y.download())) << "given max " << (maxptr != nullptr);
    }
}

TEST(Quantization, EightAndSixteenBit) {
    for (long len : {1L, 300L}) {
        quantises_by_the_rule<float, signed char>(len);
        quantises_by_the_rule<float, short>(len);
        quantises_by_the_rule<float16, signed char>(len);
        quantises_by_the_rule<float16, short>(len);
    }
}

// The int form writes 16-bit words: the low 15 bits of each result, then
// a second plane of the results shifted right by 15.
TEST(Quantization, IntTwoPlanes) {
    const std::vector<float> x = {4.0f, -4.0f, 2.0f, 0.0f, -1.0f, 3.0e-3f, NAN};
    const long len = static_cast<long>(x.size());
    auto ctx = host_context();
    GuardedBuffer<int> y(ctx.get(), len);
    ASSERT_EQ((cpu_ops::quantization<float, int>(ctx.get(), x.data(), y.data(), len, nullptr)), 0);
    std::vector<std::int16_t> words(2 * len);
    std::memcpy(words.data(), y.raw_bytes().data(), words.size() * 2);
    for (long i = 0; i < len; ++i) {
        const int v = quant_fp32<int>(x[i], 4.0f);
        EXPECT_EQ(words[i], static_cast<std::int16_t>(v & 0x7fff)) << i;
        EXPECT_EQ(words[len + i], static_cast<std::int16_t>(v >> 15)) << i;
    }
}

TYPED_TEST(HalfAndFloat, SoftmaxRowsAreDistributions) {
    using T = TypeParam;
    const long m = 5, n = 33;
    auto x = random_tensor<T>(m * n, 9, RandomSpec::range(-8, 8));
    for (long j = 0; j < n; ++j) x[n + j] = T(2.5f);  // row 1: all equal
    auto ctx = host_context();
    GuardedBuffer<T> y(ctx.get(), m * n);
    ASSERT_EQ(cpu_ops::softmax2d<T>(ctx.get(), x.data(), y.data(), m, n), 0);
    const auto out = y.download();
    std::vector<T> want;
    for (long r = 0; r < m; ++r) {
        double mx = -1e300, sum = 0;
        for (long j = 0; j < n; ++j) mx = std::max(mx, double(float(x[r * n + j])));
        for (long j = 0; j < n; ++j) sum += std::exp(float(x[r * n + j]) - mx);
        for (long j = 0; j < n; ++j) want.push_back(T(float(std::exp(float(x[r * n + j]) - mx) / sum)));
    }
    EXPECT_TRUE(nearly_equal(want, out, reduction_tolerance<T>(n)));
    EXPECT_TRUE(all_equal(std::vector<T>(out.begin() + n, out.begin() + 2 * n), T(1.0f / n)));
}

// The running maximum starts at -10000: far below it every exponential
// underflows, 0 / 0. A start at the row's own maximum would give 1/2 each.
TEST(Softmax, MaximumStartsAtMinusTenThousand) {
    const std::vector<float> x = {-20000.0f, -20000.0f, -10001.0f, -10002.0f};
    std::vector<float> y(4);
    ASSERT_EQ(cpu_ops::softmax2d<float>(host_context().get(), x.data(), y.data(), 2, 2), 0);
    EXPECT_TRUE(std::isnan(y[0]) && std::isnan(y[1]));
    EXPECT_FLOAT_EQ(y[2], 1.0f / (1.0f + std::exp(-1.0f)));
}

// x is [2, 6, 2] = 0..23; along axis 1 the sizes 1, 2, 3 take per block of
// 12 elements the runs [0, 2), [2, 6), [6, 12). Concat puts them back.
TEST(ConcatSplit, SplitSkipsNullOutputsAndConcatUndoesIt) {
    auto ctx = host_context();
    std::vector<int> x(24);
    std::iota(x.begin(), x.end(), 0);
    const std::vector<std::vector<int>> parts = {
        {0, 1, 12, 13}, {2, 3, 4, 5, 14, 15, 16, 17}, {6, 7, 8, 9, 10, 11, 18, 19, 20, 21, 22, 23}};
    for (int skip = -1; skip < 3; ++skip) {
        std::vector<GuardedBuffer<int>> out;
        std::vector<int*> ys;
        for (int i = 0; i < 3; ++i) ys.push_back(out.emplace_back(ctx.get(), long(parts[i].size())).data());
        if (skip >= 0) ys[skip] = nullptr;
        ASSERT_EQ(cpu_ops::split<int>(ctx.get(), x.data(), ys, {2, 6, 2}, {1, 2, 3}, 1), 0);
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(i == skip ? out[i].untouched() : exactly_equal(parts[i], out[i].download())) << skip;
        }
    }
    GuardedBuffer<int> joined(ctx.get(), 24);
    ASSERT_EQ(cpu_ops::concat<int>(ctx.get(), {parts[0].data(), parts[1].data(), parts[2].data()}, joined.data(),
                                   {{2, 1, 2}, {2, 2, 2}, {2, 3, 2}}, 1),
              0);
    EXPECT_TRUE(exactly_equal(x, joined.download()));
}

TEST(ConcatSplit, MismatchedShapesWriteNothing) {
    struct Case {
        const char* what;
        bool concat;
        std::vector<std::vector<long>> shapes;  // concat: the inputs'; split: x's, then the sizes
        long axis;
        int tensors;  // inputs of concat, outputs of split
        int status;   // 1 with a compare_fail record, 4 with an unimplement one
    };
    const Case cases[] = {
        {"no input", true, {}, 0, 0, 1},
        {"fewer shapes than inputs", true, {{2, 2}}, 0, 2, 1},
        {"negative axis", true, {{2, 2}, {2, 2}}, -1, 2, 1},
        {"axis past the rank", true, {{2, 2}, {2, 2}}, 2, 2, 1},
        {"another dimension differs", true, {{2, 2}, {3, 2}}, 1, 2, 4},
        {"the rank differs", true, {{2, 2}, {2, 2, 1}}, 1, 2, 4},
        {"sizes sum below the axis", false, {{2, 6, 2}, {1, 2, 2}}, 1, 3, 1},
        {"sizes sum above the axis", false, {{2, 6, 2}, {1, 2, 4}}, 1, 3, 1},
        {"negative size", false, {{2, 6, 2}, {-1, 4, 3}}, 1, 3, 1},
        {"fewer outputs than sizes", false, {{2, 6, 2}, {1, 2, 3}}, 1, 2, 1},
        {"negative axis is not wrapped", false, {{2, 6, 2}, {1, 2, 3}}, -2, 3, 1},
        {"axis past the rank", false, {{2, 6, 2}, {1, 1}}, 3, 2, 1},
    };
    auto ctx = host_context();
    const std::vector<float> x(24, 1.0f);
    for (const auto& c : cases) {
        std::vector<GuardedBuffer<float>> out;
        std::vector<float*> ys;
        for (int i = 0; i < (c.concat ? 1 : c.tensors); ++i) ys.push_back(out.emplace_back(ctx.get(), 24).data());
        LogCapture logs;
        const int status = c.concat ? cpu_ops::concat<float>(ctx.get(), std::vector<const float*>(c.tensors, x.data()),
                                                             ys[0], c.shapes, c.axis)
                                    : cpu_ops::split<float>(ctx.get(), x.data(), ys, c.shapes[0], c.shapes[1], c.axis);
        EXPECT_EQ(status, c.status) << c.what;
        ASSERT_EQ(logs.failures().size(), 1u) << c.what;
        EXPECT_EQ(logs.failures()[0].kind, c.status == 1 ? "compare_fail" : "unimplement") << c.what;
        for (auto& o : out) EXPECT_TRUE(o.untouched()) << c.what;
    }
}

// On a device context quantization gives 1 and no record, the other host-only
// routines 4 and an unimplement record; a null context gives 1, silently.
TEST(HostOnly, DeviceAndNullContextsAreRefused) {
    using wrapper_test::fp;
    static const int index[2] = {0, 1};
    const std::vector<wrapper_test::Call> ops = {
        [](auto c, auto p, auto...) {
            return cpu_ops::quantization<float, signed char>(c, fp(p[0]), static_cast<signed char*>(p[1]), 4, nullptr);
        },
        [](auto c, auto p, auto...) { return cpu_ops::copy2d<float>(c, fp(p[0]), fp(p[1]), 2, 2, 2, 2); },
        [](auto c, auto p, auto...) { return cpu_ops::findmax<float>(c, fp(p[0]), fp(p[1]), 4); },
        [](auto c, auto p, auto...) { return cpu_ops::gather<float, int>(c, fp(p[0]), index, fp(p[1]), {2, 2}, 2, 0); },
        [](auto c, auto p, auto...) { return cpu_ops::scale<float, float>(c, fp(p[0]), fp(p[1]), 4, true, 2, 1); },
        [](auto c, auto p, auto...) { return cpu_ops::silu<float>(c, fp(p[0]), fp(p[1]), 4, nullptr, nullptr); },
        [](auto c, auto p, auto...) { return cpu_ops::softmax2d<float>(c, fp(p[0]), fp(p[1]), 2, 2); },
        [](auto c, auto p, auto...) {
            return cpu_ops::concat<float>(c, {fp(p[0]), fp(p[2])}, fp(p[1]), {{1, 2}, {1, 2}}, 0);
        },
        [](auto c, auto p, auto...) { return cpu_ops::sigmoid<float>(c, fp(p[0]), fp(p[1]), 4); }};
    std::vector<wrapper_test::BadCall> rows;
    for (int op = 0; op < int(ops.size()); ++op) {
        for (auto dev : {DeviceType::TSU3, DeviceType::TSU2, DeviceType::TSU1, wrapper_test::kNoContext}) {
            const bool quiet = op == 0 || dev == wrapper_test::kNoContext;
            rows.push_back({"", op, dev, 0, 0, 0, 0, 0, {}, quiet ? 1 : 4, quiet ? nullptr : "unimplement", {}});
        }
    }
    wrapper_test::expect_failures(ops, {1}, rows);
}

}  // namespace
