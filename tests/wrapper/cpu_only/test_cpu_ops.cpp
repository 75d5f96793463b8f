// The host reference primitives against values from their definitions
// (floating results as float bit patterns, compared exactly), and the
// host-only routines' refusal of a device.
#include <bit>
#include <numeric>

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
// The half types narrow the float with their constructor, as the routines do.
template <class T>
T from_bits32(std::uint32_t b) { return T(std::bit_cast<float>(b)); }

template <class T>
class HalfAndFloat : public ::testing::Test {};
TYPED_TEST_SUITE(HalfAndFloat, HalfAndFloatTypes, ElementTypeNames);

// x[b, 0, j] = 100 b + j plus y[i, j] = 10 i gives 100 b + 10 i + j, exact in
// every type, whichever side has the lower rank; [1, 4] times [3, 1] is an
// outer product.
TYPED_TEST(HalfAndFloat, BroadcastOfUnequalRanks) {
    using T = TypeParam;
    auto ctx = host_context();
    const auto x = vec<T>({0, 1, 2, 100, 101, 102}), a = vec<T>({1, 2, 3, 4}), c = vec<T>({10, 100, 1000});
    std::vector<T> y, z, outer;
    for (int i = 0; i < 12; ++i) y.push_back(T(float(10 * (i / 3))));
    for (int i = 0; i < 12; ++i) outer.push_back(a[i % 4] * c[i / 4]);
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
    const std::vector<int> index32(index.begin(), index.end());
    std::vector<T> want;
    for (long b = 0; b < 2; ++b)
        for (long k : coord)
            for (long a = 0; a < 3; ++a) want.push_back(k < 0 ? T{} : x[(b * 5 + k) * 3 + a]);
    GuardedBuffer<T> y(ctx.get(), 42), y32(ctx.get(), 42);
    ASSERT_EQ((cpu_ops::gather<T, long>(ctx.get(), x.data(), index.data(), y.data(), {2, 5, 3}, 7, -2)), 0);
    ASSERT_EQ((cpu_ops::gather<T, int>(ctx.get(), x.data(), index32.data(), y32.data(), {2, 5, 3}, 7, 1)), 0);
    EXPECT_TRUE(exactly_equal(want, y.download()));
    EXPECT_TRUE(exactly_equal(want, y32.download()));
}

// The ranges of all workers tile [0, len) in worker order, each starting on
// a unit boundary; counts of whole units differ by at most one, larger first
// (a worker holding the short last unit counts it as one).
template <class T>
void check_partition(int nthreads, T len, int unit) {
    SCOPED_TRACE(::testing::Message() << "nthreads " << nthreads << " len " << len << " unit " << unit);
    const auto units_of = [unit](long v) { return unit < 1 ? 0 : v / unit + (v % unit != 0); };
    T next = 0;
    long first = -1, last = -1;
    for (int tid = 0; tid < nthreads; ++tid) {
        T b = -1, e = -1;
        cpu_ops::partition<T>(tid, nthreads, len, unit, &b, &e);
        const long units = units_of(static_cast<long>(e - b));
        ASSERT_EQ(b, next) << "tid " << tid;
        ASSERT_TRUE(b <= e && (unit < 1 ? e == 0 : b % unit == 0 || b == len) && (last < 0 || units <= last));
        first = first < 0 ? units : first;
        last = units;
        next = e;
    }
    EXPECT_EQ(next, unit < 1 ? 0 : len);
    const long blocks = units_of(static_cast<long>(len));
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

// The row's own maximum magnitude (from 1e-30) or the given one. The int form
// writes 16-bit words: the low 15 bits of each result, then a second plane of
// the results shifted right by 15.
TEST(Quantization, ByTheRuleWithOwnOrGivenMaximum) {
    auto ctx = host_context();
    const auto check = [&]<class T, class Q>(long len) {
        const auto x = random_tensor<T>(len, 40 + len, RandomSpec::with_specials(0.05));
        float rowmax = 1e-30f;
        for (T v : x) rowmax = std::max(rowmax, std::fabs(float(v)));
        const float given = 0.3f;
        for (const float* maxptr : {static_cast<const float*>(nullptr), &given}) {
            GuardedBuffer<Q> y(ctx.get(), len);
            ASSERT_EQ((cpu_ops::quantization<T, Q>(ctx.get(), x.data(), y.data(), len, maxptr)), 0);
            std::vector<Q> want;
            for (T v : x) want.push_back(quant_fp32<Q>(float(v), maxptr ? given : rowmax));
            EXPECT_TRUE(exactly_equal(want, y.download())) << type_name<T>() << " " << type_name<Q>() << " " << len;
        }
    };
    for (long len : {1L, 300L}) {
        check.operator()<float, signed char>(len);
        check.operator()<float, short>(len);
        check.operator()<float16, signed char>(len);
        check.operator()<float16, short>(len);
    }
    const std::vector<float> x = {4.0f, -4.0f, 2.0f, 0.0f, -1.0f, 3.0e-3f, NAN};
    const long len = static_cast<long>(x.size());
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

// y = 1 / (exp(-x) + 1) in double, stored as float; silu = x / (exp(-x) + 1)
// in double, one division: x times the float sigmoid differs at -3 and -100.
TYPED_TEST(HalfAndFloat, SigmoidAndSiluValues) {
    using T = TypeParam;
    const struct { float x; std::uint32_t sigmoid, silu; } rows[] = {
        {0.0f, 0x3f000000, 0x00000000},   {1.0f, 0x3f3b26a8, 0x3f3b26a8},    {-1.0f, 0x3e89b2b1, 0xbe89b2b1},
        {2.5f, 0x3f6c948f, 0x4013dcd9},   {-3.0f, 0x3d4241a2, 0xbe11b139},   {8.0f, 0x3f7fea06, 0x40ffea06},
        {-100.0f, 0x0000001b, 0x80000a5f}, {100.0f, 0x3f800000, 0x42c80000},
        {-INFINITY, 0x00000000, 0x7fc00000}, {INFINITY, 0x3f800000, 0x7f800000}};
    auto ctx = host_context();
    std::vector<T> x, sig, silu;
    for (const auto& r : rows) {
        x.push_back(T(r.x));
        sig.push_back(from_bits32<T>(r.sigmoid));
        silu.push_back(from_bits32<T>(r.silu));
    }
    const long n = static_cast<long>(x.size());
    GuardedBuffer<T> ys(ctx.get(), n), yl(ctx.get(), n);
    ASSERT_EQ(cpu_ops::sigmoid<T>(ctx.get(), x.data(), ys.data(), n), 0);
    ASSERT_EQ(cpu_ops::silu<T>(ctx.get(), x.data(), yl.data(), n, nullptr, nullptr), 0);
    EXPECT_TRUE(exactly_equal(sig, ys.download()));
    EXPECT_TRUE(exactly_equal(silu, yl.download()));
    // signed char passes through float and back, truncating: only a sigmoid
    // that rounds to 1.0f gives 1.
    const std::vector<signed char> xc = {-128, 0, 10, 17, 18, 127};
    GuardedBuffer<signed char> yc(ctx.get(), 6);
    ASSERT_EQ(cpu_ops::sigmoid<signed char>(ctx.get(), xc.data(), yc.data(), 6), 0);
    EXPECT_EQ(yc.download(), (std::vector<signed char>{0, 0, 0, 0, 1, 1}));
}

// Each row of four: the maximum from -10000, exp of the float difference in
// double, the sum in float in element order, the quotient in float. Rows past
// the half types' precision run for float only.
TYPED_TEST(HalfAndFloat, Softmax2dValues) {
    using T = TypeParam;
    const struct { std::vector<float> x; std::vector<std::uint32_t> y; bool float_only; } rows[] = {
        {{1, 2, 3, 4}, {0x3d034fe2, 0x3db278b9, 0x3e72916a, 0x3f24d791}, false},
        {{-4, 0, 0.5f, 8}, {0x36cdfb35, 0x39afb8c9, 0x3a10dbb0, 0x3f7fc56b}, false},
        {{2.5f, 2.5f, 2.5f, 2.5f}, {0x3e800000, 0x3e800000, 0x3e800000, 0x3e800000}, false},
        // Below the start value the maximum stays -10000; far below it every
        // exponential underflows and the row is 0 / 0.
        {{-10001, -10002, -20000, -10000.5f}, {0x3ea9ba3c, 0x3df9c1ca, 0x00000000, 0x3f0beaa9}, true},
        {{-20000, -20000, -20000, -20000}, {0x7fc00000, 0x7fc00000, 0x7fc00000, 0x7fc00000}, true}};
    auto ctx = host_context();
    for (const auto& r : rows) {
        if (r.float_only && !std::is_same_v<T, float>) continue;
        std::vector<T> x = vec<T>({r.x[0], r.x[1], r.x[2], r.x[3]}), want;
        for (std::uint32_t b : r.y) want.push_back(from_bits32<T>(b));
        GuardedBuffer<T> y(ctx.get(), 4);
        ASSERT_EQ(cpu_ops::softmax2d<T>(ctx.get(), x.data(), y.data(), 1, 4), 0);
        EXPECT_TRUE(exactly_equal(want, y.download())) << r.x[0];
    }
}

// Both orders of the two operations, each a separate float step (no fused
// multiply-add), truncated towards zero in the float-to-integer forms;
// integer forms wrap.
template <class T, class S>
void expect_scale(T x, S alpha, S beta, T bias_after, T bias_before) {
    SCOPED_TRACE(std::string(type_name<T>()) + ", " + type_name<S>() + ": x " + detail::describe(x));
    auto ctx = host_context();
    for (bool after : {true, false}) {
        GuardedBuffer<T> y(ctx.get(), 1);
        ASSERT_EQ((cpu_ops::scale<T, S>(ctx.get(), &x, y.data(), 1, after, alpha, beta)), 0);
        EXPECT_TRUE(exactly_equal({after ? bias_after : bias_before}, y.download())) << "bias_after " << after;
    }
}

TEST(Scale, EveryForm) {
    expect_scale<float, float>(3, 2, 1, 7, 8);
    // x * alpha rounds to 1 + 2^-11 before beta cancels it; fused it would give 2^-24.
    const float e = 1 + 0x1p-12f;
    expect_scale<float, float>(e, e, -(1 + 0x1p-11f), 0.0f, -0x1.001p-12f);
    expect_scale<float16, float>(float16(3.0f), 0.5f, 0.25f, float16(1.75f), float16(1.625f));
    expect_scale<float16, float>(float16(1.0f), 1.0f / 3, 0, float16::from_bits(0x3555), float16::from_bits(0x3555));
    expect_scale<bfloat16, float>(bfloat16(1.0f), 1.0f / 3, 0, bfloat16::from_bits(0x3eab), bfloat16::from_bits(0x3eab));
    expect_scale<long, long>(1L << 62, 4, 3, 3, 12);
    expect_scale<short, short>(30000, 2, 10, -5526, -5516);
    expect_scale<unsigned char, unsigned char>(200, 2, 100, 244, 88);
    expect_scale<signed char, signed char>(100, 2, -1, -57, -58);
    // 4.25 and 3.875, -2.75 and -3.125: towards zero, neither floor nor nearest.
    expect_scale<long, float>(-7, 0.5f, 0.75f, -2, -3);
    expect_scale<long, float>((1L << 40) + 1, 1, 0, 1L << 40, 1L << 40);  // x passes through float
    expect_scale<int, float>(-7, 0.5f, 0.75f, -2, -3);
    expect_scale<short, float>(-7, 0.5f, 0.75f, -2, -3);
    expect_scale<signed char, float>(-7, 0.5f, 0.75f, -2, -3);
    expect_scale<unsigned char, float>(7, 0.5f, 0.75f, 4, 3);
}

// The largest magnitude with a running maximum from 0, so an all-zero row
// and an empty one give 0; NaN never replaces it. Rows of 40 put the
// maximum in the vector body and in the tail.
TYPED_TEST(HalfAndFloat, FindmaxValues) {
    using T = TypeParam;
    std::vector<float> body(40, 0.5f), tail(40, -0.5f);
    body[5] = -6;
    tail[37] = 6;
    const struct { std::vector<float> x; float want; } rows[] = {
        {{0, 0, 0}, 0}, {{-0.0f}, 0}, {{1, -3, 2}, 3}, {{NAN, -2}, 2}, {{-INFINITY, 1}, INFINITY},
        {{}, 0}, {body, 6}, {tail, 6}};
    auto ctx = host_context();
    for (const auto& r : rows) {
        const std::vector<T> x(r.x.begin(), r.x.end());
        float out = 7;
        ASSERT_EQ(cpu_ops::findmax<T>(ctx.get(), x.data(), &out, static_cast<long>(x.size())), 0);
        EXPECT_EQ(std::bit_cast<std::uint32_t>(out), std::bit_cast<std::uint32_t>(r.want)) << r.x.size() << " " << out;
    }
}

template <class T>
class Copy2d : public ::testing::Test {};
using Copy2dTypes = ::testing::Types<signed char, float16, double>;
TYPED_TEST_SUITE(Copy2d, Copy2dTypes, ElementTypeNames);

// Rows of cols elements step by their own strides, in elements; what lies
// between rows of y stays; no rows or no columns copy nothing.
TYPED_TEST(Copy2d, StridesInElements) {
    using T = TypeParam;
    const struct { long rows, x_stride, y_stride, cols; std::vector<float> y; } rows[] = {
        {3, 5, 4, 3, {0, 1, 2, -1, 5, 6, 7, -1, 10, 11, 12, -1}},
        {2, 4, 6, 4, {0, 1, 2, 3, -1, -1, 4, 5, 6, 7, -1, -1}},
        {0, 5, 4, 3, std::vector<float>(12, -1)},
        {3, 5, 4, 0, std::vector<float>(12, -1)}};
    auto ctx = host_context();
    std::vector<T> x;
    for (int i = 0; i < 20; ++i) x.push_back(T(float(i)));
    for (const auto& r : rows) {
        GuardedBuffer<T> y(ctx.get(), std::vector<T>(12, T(-1.0f)));
        ASSERT_EQ(cpu_ops::copy2d<T>(ctx.get(), x.data(), y.data(), r.rows, r.x_stride, r.y_stride, r.cols), 0);
        EXPECT_TRUE(exactly_equal(std::vector<T>(r.y.begin(), r.y.end()), y.download())) << r.x_stride;
    }
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

// Most rows hold two faults, and the record's fields tell which check came first.
TEST(ConcatSplit, MismatchedShapesWriteNothing) {
    const struct {
        const char* what;
        bool concat;
        std::vector<std::vector<long>> shapes;  // concat: the inputs'; split: x's, then the sizes
        long axis;
        int tensors;  // inputs of concat, outputs of split
        int status;   // 1 with a compare_fail record, 4 with an unimplement one
        std::vector<std::string> fields;
    } cases[] = {
        {"no input, negative axis", true, {}, -1, 0, 1, {"0", ">=", "1"}},
        {"fewer shapes, negative axis", true, {{2, 2}}, -1, 2, 1, {"2", "==", "1"}},
        {"negative axis, a dimension differs", true, {{2, 2}, {3, 2}}, -1, 2, 1, {"-1", ">=", "0"}},
        {"axis past the rank, a dimension differs", true, {{2, 2}, {3, 2}}, 2, 2, 1, {"2", "<", "2"}},
        {"another dimension differs", true, {{2, 2}, {3, 2}}, 1, 2, 4, {"0"}},
        {"the rank differs", true, {{2, 2}, {2, 2, 1}}, 1, 2, 4, {"0"}},
        {"fewer outputs, negative axis", false, {{2, 6, 2}, {1, 2, 3}}, -2, 2, 1, {"2", "==", "3"}},
        {"negative axis (not wrapped), negative size", false, {{2, 6, 2}, {-1, 4, 3}}, -2, 3, 1, {"-2", ">=", "0"}},
        {"axis past the rank", false, {{2, 6, 2}, {1, 1}}, 3, 2, 1, {"3", "<", "3"}},
        {"negative size, sum off", false, {{2, 6, 2}, {-1, 2, 3}}, 1, 3, 1, {"-1", ">=", "0"}},
        {"sizes sum below the axis", false, {{2, 6, 2}, {1, 2, 2}}, 1, 3, 1, {"5", "==", "6"}},
        {"sizes sum above the axis", false, {{2, 6, 2}, {1, 2, 4}}, 1, 3, 1, {"7", "==", "6"}},
    };
    auto ctx = host_context();
    const std::vector<float> x(24, 1.0f);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<GuardedBuffer<float>> out;
        std::vector<float*> ys;
        for (int i = 0; i < (c.concat ? 1 : c.tensors); ++i) ys.push_back(out.emplace_back(ctx.get(), 24).data());
        LogCapture logs;
        const int status = c.concat ? cpu_ops::concat<float>(ctx.get(), std::vector<const float*>(c.tensors, x.data()),
                                                             ys[0], c.shapes, c.axis)
                                    : cpu_ops::split<float>(ctx.get(), x.data(), ys, c.shapes[0], c.shapes[1], c.axis);
        EXPECT_EQ(status, c.status);
        ASSERT_EQ(logs.failures().size(), 1u);
        EXPECT_EQ(logs.failures()[0].kind, c.status == 1 ? "compare_fail" : "unimplement");
        EXPECT_EQ(logs.failures()[0].fields, c.fields);
        for (auto& o : out) EXPECT_TRUE(o.untouched());
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
        [](auto c, auto p, auto...) { return cpu_ops::scale<float, float>(c, fp(p[0]), fp(p[1]), 4, true, 2, 1); },
        [](auto c, auto p, auto...) { return cpu_ops::silu<float>(c, fp(p[0]), fp(p[1]), 4, nullptr, nullptr); },
        [](auto c, auto p, auto...) { return cpu_ops::softmax2d<float>(c, fp(p[0]), fp(p[1]), 2, 2); },
        [](auto c, auto p, auto...) {
            return cpu_ops::concat<float>(c, {fp(p[0]), fp(p[2])}, fp(p[1]), {{1, 2}, {1, 2}}, 0);
        },
        [](auto c, auto p, auto...) { return cpu_ops::sigmoid<float>(c, fp(p[0]), fp(p[1]), 4); },
        // An axis past the rank too: the device is refused before the axis is looked at.
        [](auto c, auto p, auto...) { return cpu_ops::gather<float, int>(c, fp(p[0]), index, fp(p[1]), {2, 2}, 2, 5); }};
    std::vector<wrapper_test::BadCall> rows;
    for (int op = 0; op < int(ops.size()); ++op) {
        for (auto dev : {DeviceType::TSU3, DeviceType::TSU2, DeviceType::TSU1, wrapper_test::kNoContext}) {
            const bool quiet = op == 0 || dev == wrapper_test::kNoContext;
            rows.push_back({"", op, dev, 0, 0, 0, 0, 0, {}, quiet ? 1 : 4, quiet ? nullptr : "unimplement", {}});
        }
    }
    rows.push_back({"axis past the rank", int(ops.size()) - 1, DeviceType::CPU, 0, 0, 0, 0, 0, {}, 1, "compare_fail",
                    {"5", "<", "2"}});
    wrapper_test::expect_failures(ops, {1}, rows);
}

}  // namespace
