// constant, copy, add and cast: host against device, add's folded launch and
// inline narrowing, the cast table with and without device imitation, the
// kernels of every cast pair, the regions each operator describes, and the
// failures of frame, scratch and launch.
#include <bit>
#include <map>

#include "support/tsuops_test.h"
#include "wrapper/basic/add_fold.h"
#include "wrapper/basic/cast_table.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace orvane::tsu::api;
using namespace tsuops_test;
using infer_ops::add_fold::kFoldMinCols;
using sc = signed char;
using uc = unsigned char;
constexpr auto bf = &bfloat16::from_bits;
constexpr auto h = &float16::from_bits;

template <typename T>
class ConstantCopy : public ::testing::Test {};
TYPED_TEST_SUITE(ConstantCopy, AllElementTypes, ElementTypeNames);

TYPED_TEST(ConstantCopy, DeviceMatchesHost) {
    using T = TypeParam;
    auto host = host_context();
    auto dev = device_context();
    // Fewer bytes than one 64-byte line, a ragged last line, more lines than cores.
    for (long len : {1L, 7L, 1000L, 40001L}) {
        const auto xs = random_tensor<T>(len, len, RandomSpec::with_specials());
        GuardedBuffer<T> hc(host.get(), len), dc(dev.get(), len);
        ASSERT_EQ(infer_ops::constant<T>(host.get(), hc.data(), len, xs[0]), 0);
        ASSERT_EQ(infer_ops::constant<T>(dev.get(), dc.data(), len, xs[0]), 0);
        EXPECT_TRUE(all_equal(hc.download(), T(xs[0]))) << len;
        EXPECT_TRUE(exactly_equal(hc.download(), dc.download())) << len;

        GuardedBuffer<T> hx(host.get(), xs), dx(dev.get(), xs), hy(host.get(), len), dy(dev.get(), len);
        LaunchCapture launches;
        ASSERT_EQ(infer_ops::copy<T>(host.get(), hx.data(), hy.data(), len), 0);
        ASSERT_EQ(infer_ops::copy<T>(dev.get(), dx.data(), dy.data(), len), 0);
        EXPECT_EQ(hy.raw_bytes(), hx.raw_bytes()) << len;
        EXPECT_EQ(dy.raw_bytes(), dx.raw_bytes()) << len;
        ASSERT_EQ(launches.size(), 1u);
        EXPECT_EQ(LaunchCapture::arg<long>(launches.records()[0], 16), len * static_cast<long>(sizeof(T)));
    }
}

struct Fold { long m, n, rows, cols; };

// One below and at the shortest folded row (which no width divides), several
// rows, and for each width a row that it folds and no wider one divides. Two
// negative sizes pass by their product: the kernel gets their magnitudes.
std::vector<Fold> folds() {
    std::vector<Fold> f = {{1, kFoldMinCols - 1, 1, kFoldMinCols - 1}, {1, kFoldMinCols, 1, kFoldMinCols},
                           {3, 2048, 3, 2048}, {-2, -3, 2, 3}, {-1, -2048, 2, 1024}};
    for (long w : infer_ops::add_fold::kFoldWidths) f.push_back({1, 33 * w, 33, w});
    return f;
}

template <typename T>
class Add : public ::testing::Test {};
using AddTypes = ::testing::Types<float, bfloat16>;
TYPED_TEST_SUITE(Add, AddTypes, ElementTypeNames);

TYPED_TEST(Add, DeviceMatchesHostOnTheFoldedShape) {
    using T = TypeParam;
    auto host = host_context();
    auto dev = device_context();
    const auto draw = RandomSpec::with_specials(0.05).in(-100, 100);
    for (const Fold& f : folds()) {
        const long len = f.m * f.n;
        const auto xs = random_tensor<T>(len, len, draw), ys = random_tensor<T>(len, len + 1, draw);
        GuardedBuffer<T> hx(host.get(), xs), hy(host.get(), ys), hz(host.get(), len);
        GuardedBuffer<T> dx(dev.get(), xs), dy(dev.get(), ys), dz(dev.get(), len);
        LaunchCapture launches;
        ASSERT_EQ(infer_ops::add<T>(host.get(), hx.data(), hy.data(), hz.data(), f.m, f.n, false), 0);
        ASSERT_EQ(infer_ops::add<T>(dev.get(), dx.data(), dy.data(), dz.data(), f.m, f.n, true), 0);
        // Which NaN a sum of two NaNs gives is the compiler's choice: any NaN matches.
        EXPECT_TRUE(exactly_equal(hz.download(), dz.download())) << f.m << " x " << f.n;
        ASSERT_EQ(launches.size(), 1u);
        const auto r = launches.records()[0];
        EXPECT_EQ(kernel_family(r.kernel), "infer_add_gmx");
        EXPECT_EQ(r.nclusters, dev->ngmx);
        EXPECT_EQ(r.ncores, 8);
        EXPECT_EQ(LaunchCapture::arg<long>(r, 24), f.rows) << f.m << " x " << f.n;
        EXPECT_EQ(LaunchCapture::arg<long>(r, 32), f.cols) << f.m << " x " << f.n;
    }
}

// The sum is narrowed inline, (bits + 0x8000) >> 16, on both paths: ties go
// away from zero whatever the bfloat16 mode.
TEST(AddBfloat16, TiesRoundAwayFromZero) {
    for (auto type : {DeviceType::CPU, DeviceType::TSU3}) {
        auto ctx = make_context(type);
        GuardedBuffer<bfloat16> x(ctx.get(), {bf(0x3f80), bf(0xbf80), bf(0x3f82)}), z(ctx.get(), 3);
        GuardedBuffer<bfloat16> y(ctx.get(), {bf(0x3b80), bf(0xbb80), bf(0x3b80)});  // +-2^-8
        ASSERT_EQ(infer_ops::add<bfloat16>(ctx.get(), x.data(), y.data(), z.data(), 1, 3, false), 0);
        EXPECT_TRUE(exactly_equal(z.download(), {bf(0x3f81), bf(0xbf81), bf(0x3f83)})) << ctx->dev_type;
    }
}

// Every operator here on the runner's buffers: p[0] in, p[1] out.
TEST(BasicFailure, StatusLogAndNothingWritten) {
    using wrapper_test::as, wrapper_test::fp;
    const std::vector<wrapper_test::Call> ops = {
        [](auto c, auto p, long, long n, auto) { return infer_ops::constant<float>(c, fp(p[1]), n, 3); },
        [](auto c, auto p, long, long n, auto) { return infer_ops::copy<float>(c, fp(p[0]), fp(p[1]), n); },
        [](auto c, auto p, long, long n, auto) {
            return infer_ops::add<float>(c, fp(p[0]), fp(p[2]), fp(p[1]), 1, n, false);
        },
        [](auto c, auto p, long, long n, auto) { return infer_ops::cast<int, float>(c, as<int>(p[0]), fp(p[1]), n); },
        [](auto c, auto p, long, long n, auto) {  // in two hops through float
            return infer_ops::cast<short, float16>(c, as<short>(p[0]), as<float16>(p[1]), n);
        }};
    const auto dev = DeviceType::TSU3;
    std::vector<wrapper_test::BadCall> rows;
    for (int op = 0; op < 5; ++op) {
        const int in = op == 0 ? 1 : 0;  // constant has no input: its output stands in
        // With two faults, every pointer at 0x1000 + 0x1000 i and a device type with no path, the
        // first region in the order x, y, z is reported.
        const std::vector<std::string> first = {"", in == 0 ? "0x1000" : "0x2000", "{16}", "{1}",
                                                in == 0 ? "input" : "output"};
        rows.insert(rows.end(),
                    {{"a null context", op, wrapper_test::kNoContext, 1, 16, 0, 0, 0, {}, 1, nullptr, {}},
                     {"zero length", op, dev, 1, 0, 0, 0, 0, {}, 1, "invalid_memory", {}},
                     {"zero length, host", op, DeviceType::CPU, 1, 0, 0, 0, 0, {}, 1, "invalid_memory", {}},
                     {"negative length", op, dev, 1, -4, 0, 0, 0, {}, 1, "invalid_memory", {}},
                     {"an input past device memory", op, dev, 1, 16, 0, in, 0x8000000000, {}, 1, "invalid_memory", {}},
                     {"an output that is no memory", op, dev, 1, 16, 0, 1, 0x1000, {}, 1, "invalid_memory", {}},
                     // Addresses of type-1 global memory pass every check first.
                     {"device type 1", op, DeviceType::TSU1, 1, 16, 0, -1, 0x200001000, {}, 4, "unimplement", {}},
                     {"configuration fails", op, dev, 1, 16, 0, 0, 0, tsuemu::Site::Config, 2, "kernel_fail", {"7"}},
                     {"launch fails", op, dev, 1, 16, 0, 0, 0, tsuemu::Site::Async, 2, "kernel_fail", {"7"}},
                     {"all regions bad, no path", op, DeviceType::TSU1, 1, 16, 0, -1, 0x1000, {}, 1,
                      "invalid_memory", first}});
    }
    // Two hops take general scratch; without it, the pointer check gives 3.
    rows.push_back({"no scratch", 4, dev, 1, 16, 0, 0, 0, tsuemu::Site::PoolAlloc, 3, "compare_fail",
                    {"ptr(0)", "!=", "nullptr"}});
    wrapper_test::expect_failures(ops, {1}, rows);
}

// The "memory" record of each region a traced call describes, in order: name,
// direction, extent in elements and the source file of the operator that
// describes it. A same-type cast on the device copies bytes through copy,
// whose regions follow its own.
TEST(BasicRegions, EachOperatorDescribesItsTensors) {
    auto ctx = device_context({.debug_flags = 0x1});
    std::vector<GuardedBuffer<float>> b;
    for (int i = 0; i < 3; ++i) b.emplace_back(ctx.get(), 64);
    float *x = b[0].data(), *y = b[1].data(), *z = b[2].data();
    const struct { const char* what; std::function<int()> call; std::vector<std::string> regions; } cases[] = {
        {"constant", [&] { return infer_ops::constant<float>(ctx.get(), z, 16, 1.0f); },
         {"x output {16} constant.cpp"}},
        {"copy", [&] { return infer_ops::copy<float>(ctx.get(), x, z, 16); },
         {"x input {16} copy.cpp", "y output {16} copy.cpp"}},
        {"add", [&] { return infer_ops::add<float>(ctx.get(), x, y, z, -2, -3, false); },
         {"x input {6} add.cpp", "y input {6} add.cpp", "z output {6} add.cpp"}},
        {"cast", [&] { return infer_ops::cast<float, int>(ctx.get(), x, reinterpret_cast<int*>(z), 16); },
         {"x input {16} cast.cpp", "y output {16} cast.cpp"}},
        {"same-type cast", [&] { return infer_ops::cast<float, float>(ctx.get(), x, z, 16); },
         {"x input {16} cast.cpp", "y output {16} cast.cpp", "x input {64} copy.cpp", "y output {64} copy.cpp"}},
    };
    for (const auto& c : cases) {
        TraceCapture traces;
        LogCapture logs;
        ASSERT_EQ(c.call(), 0) << c.what;
        std::vector<std::string> got;
        for (const auto& r : logs.of_kind("memory")) {
            const std::string file = r.file.substr(r.file.rfind('/') + 1);
            got.push_back(r.fields[0] + " " + r.fields[4] + " " + r.fields[2] + " " + file);
        }
        EXPECT_EQ(got, c.regions) << c.what;
    }
}

using infer_ops::cast_table::Route;
template <class TX, class TY>
constexpr bool refused = infer_ops::cast_table::route<TX, TY>() == Route::refused;
template <class TX, class TY>
constexpr bool two_hops = infer_ops::cast_table::route<TX, TY>() == Route::two_hops;

// One row of the table: on the host with and without imitation, and on the
// device where it has a path, with the imitated result (a copy of same types).
template <class TX, class TY>
void expect_cast(TX x, TY with_sim, TY without) {
    SCOPED_TRACE(std::string(type_name<TX>()) + " " + detail::describe(x) + " -> " + type_name<TY>());
    auto sim = host_context({.sim_dev_type = 3});
    auto plain = host_context();
    auto dev = device_context();
    std::vector<std::pair<Context*, TY>> runs = {{sim.get(), with_sim}, {plain.get(), without}};
    if constexpr (std::is_same_v<TX, TY>) runs.push_back({dev.get(), x});
    else if constexpr (!refused<TX, TY>) runs.push_back({dev.get(), with_sim});
    for (auto [ctx, want] : runs) {
        GuardedBuffer<TX> in(ctx, std::vector<TX>{x});
        GuardedBuffer<TY> out(ctx, 1);
        ASSERT_EQ((infer_ops::cast<TX, TY>(ctx, in.data(), out.data(), 1)), 0);
        const TY got = out.download()[0];
        EXPECT_EQ(detail::bits_of(got), detail::bits_of(want))
            << "dev_type " << ctx->dev_type << " sim " << ctx->sim_dev_type << ": " << detail::describe(got);
    }
}

constexpr long kTwo32 = 1L << 32;

TEST(CastTable, EdgeCasesWithAndWithoutSim) {
    expect_cast<float, sc>(300.7f, 127, 44);
    expect_cast<float, sc>(-300.7f, -128, -44);
    // The clamp takes NaN to the lower bound; plain truncation gives the most
    // negative 32-bit value, whose low byte is 0.
    expect_cast<float, sc>(NAN, -128, 0);
    expect_cast<float, uc>(-1.5f, 0, 255);
    expect_cast<float, uc>(300.7f, 255, 44);
    expect_cast<float16, sc>(float16(-200.0f), -128, 56);
    expect_cast<int, sc>(200, 127, -56);
    expect_cast<uc, sc>(200, 127, -56);
    expect_cast<sc, uc>(-5, 0, 251);
    expect_cast<long, sc>(kTwo32 + 300, 127, 44);  // the clamp sees the low 32 bits
    expect_cast<long, uc>(kTwo32 - 1, 0, 255);
    // signed char clamps the float and then truncates; unsigned char truncates
    // first, so past the 32-bit range it clamps the most negative int.
    expect_cast<float, sc>(3e9f, 127, 0);
    expect_cast<float, uc>(3e9f, 0, 0);
    expect_cast<double, uc>(1e10, 0, 0);
    expect_cast<float, uc>(255.9f, 255, 255);
    expect_cast<int, uc>(300, 255, 44);
    expect_cast<short, sc>(short(-300), -128, -44);
    // The rest pass through 32 bits in the same way with and without sim.
    expect_cast<float, short>(40000.0f, short(-25536), short(-25536));
    expect_cast<float, long>(3e9f, -2147483648L, -2147483648L);  // the host's truncation out of range
    expect_cast<double, long>(3e9, 3000000000L, 3000000000L);
    expect_cast<short, long>(short(-3), -3L, -3L);
    expect_cast<uc, short>(uc(250), short(250), short(250));
    expect_cast<long, float>(kTwo32 + 5, 5.0f, 5.0f);
    expect_cast<long, double>(kTwo32 + 5, 4294967301.0, 4294967301.0);
    expect_cast<int, double>(16777217, 16777216.0, 16777216.0);
    // A double reaches an int through float: 16777217 rounds to 16777216 first.
    expect_cast<double, int>(16777217.0, 16777216, 16777216);
    expect_cast<double, short>(-2.5, short(-2), short(-2));
    expect_cast<double, float16>(65520.0, h(0x7c00), h(0x7c00));
    expect_cast<float16, double>(h(0x0001), 0x1p-24, 0x1p-24);
    expect_cast<bfloat16, float16>(bf(0x3f81), h(0x3c08), h(0x3c08));
    const float payload = std::bit_cast<float>(0xffc10000u);
    expect_cast<bfloat16, float>(bf(0xffc1), payload, payload);
    expect_cast<double, bool>(1e-50, false, false);
    expect_cast<float, bool>(NAN, true, true);
    expect_cast<long, bool>(kTwo32, true, true);
}

// With sim, bfloat16 rounds ties away from zero; float16 never looks at sim.
// The rows depend on the modes, so they run in children with known settings.
TEST(CastChild, DISABLED_DefaultModes) {
    expect_cast<float, bfloat16>(std::bit_cast<float>(0x3f808000u), bf(0x3f81), bf(0x3f80));
    expect_cast<float, bfloat16>(std::bit_cast<float>(0xbf808000u), bf(0xbf81), bf(0xbf80));
    expect_cast<int, bfloat16>(257, bf(0x4381), bf(0x4380));
    expect_cast<double, bfloat16>(std::nan(""), bf(0x7fc0), bf(0x7fc0));
    expect_cast<float, float16>(-6e-05f, h(0x8000), h(0x8000));  // a subnormal result flushes, keeping its sign
    expect_cast<float, float16>(1.0f + 0x1p-11f, h(0x3c00), h(0x3c00));
    expect_cast<int, float16>(2049, h(0x6800), h(0x6800));
    // Same type: the host passes through float, the device copies bytes.
    expect_cast<float16, float16>(h(0x0001), h(0x0000), h(0x0000));
    expect_cast<bfloat16, bfloat16>(bf(0xffc1), bf(0x7fc0), bf(0x7fc0));
}

TEST(CastModes, DefaultModesInAChildProcess) {
    EXPECT_TRUE(run_child("CastChild.DISABLED_DefaultModes", {},
                          {"TSUAPI_BF16_FP16_MODE", "TSUAPI_FP16_MODE", "TSUAPI_BF16_ROUND_MODE"}));
}

template <class... T, class F>
void for_each_type(::testing::Types<T...>, F&& f) { (f.template operator()<T>(), ...); }

// "tsu3::infer_cluster_cast_mk3<signed char, float>(": type names as the demangler writes them.
template <class TX, class TY>
std::string mk3() {
    const auto spelled = []<class T>() -> std::string {
        return std::is_same_v<T, sc> ? "signed char" : std::is_same_v<T, uc> ? "unsigned char"
               : std::is_same_v<T, short> ? "short" : std::is_same_v<T, long> ? "long" : type_name<T>();
    };
    return "tsu3::infer_cluster_cast_mk3<" + spelled.template operator()<TX>() + ", " + spelled.template operator()<TY>() + ">(";
}

// Random values salted with specials and values past the destination's range,
// led by exact ties of some rounding step and values at the integer edges.
template <class TX, class TY>
std::vector<TX> inputs(long len, std::uint64_t seed) {
    static const double ties[] = {1.00390625, -1.00390625, 1.00048828125, 1.00146484375, 0x1p-25, -0x1p-25,
                                  16777217.0, 2.5,         -2.5,          127.5,         -128.5,  255.5,
                                  32767.5,    2147483648.0, -2147483649.0, 1e-50,        300.7,   65520.0};
    static const long int_ties[] = {16777217, 16777219, -16777217, 2049,  257,   -257,  200,  -200, 128,
                                    -129,     255,      256,       32768, 65535, -32769, -1,  kTwo32 + 5, kTwo32 - 1};
    static_assert(std::size(ties) == std::size(int_ties));
    // The magnitude around which results change: an integer destination's range
    // (32 bits for long, which floating sources reach through int).
    const double r = std::is_same_v<TY, bool> ? 2.0 : std::is_same_v<TY, long> ? 0x1p31
                     : std::is_integral_v<TY>   ? double(std::numeric_limits<TY>::max())
                     : std::is_same_v<TY, float16> ? 65504.0 : 1e30;
    const RandomSpec draw = RandomSpec::for_cast(r, 0.15).in(-1.5 * r, 1.5 * r);
    std::vector<TX> v = random_tensor<TX>(len, seed, is_floating_v<TX> ? draw : RandomSpec::with_specials(0.15));
    for (std::size_t i = 0; i < v.size() && i < std::size(ties); ++i) {
        if constexpr (std::is_same_v<TX, double>) v[i] = ties[i];
        else if constexpr (is_floating_v<TX>) v[i] = TX(static_cast<float>(ties[i]));
        else v[i] = static_cast<TX>(int_ties[i]);
    }
    return v;
}

template <class TX, class TY>
void check_pair(Context& host, Context& dev, long len, std::uint64_t seed) {
    SCOPED_TRACE((mk3<TX, TY>() + " len " + std::to_string(len)));
    const std::vector<TX> xs = inputs<TX, TY>(len, seed);
    GuardedBuffer<TX> hx(&host, xs), dx(&dev, xs);
    GuardedBuffer<TY> hy(&host, len), dy(&dev, len);
    ASSERT_EQ((infer_ops::cast<TX, TY>(&host, hx.data(), hy.data(), len)), 0);
    LogCapture logs;
    LaunchCapture launches;
    const int status = infer_ops::cast<TX, TY>(&dev, dx.data(), dy.data(), len);
    const auto rec = launches.records();
    if constexpr (refused<TX, TY>) {
        EXPECT_EQ(status, 4);
        EXPECT_TRUE(logs.count("unimplement") == 1 && rec.empty() && dy.untouched());
        return;
    }
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(logs.failures().empty());
    std::vector<std::string> want = {mk3<TX, TY>()};
    if (std::is_same_v<TX, TY>) want = {"tsu3::infer_memcpy_1d"};
    if (two_hops<TX, TY>) want = {mk3<TX, float>(), mk3<float, TY>()};
    ASSERT_EQ(rec.size(), want.size());
    for (std::size_t i = 0; i < rec.size(); ++i) {
        EXPECT_TRUE(rec[i].kernel.starts_with(want[i]) && rec[i].nclusters == dev.ncluster && rec[i].ncores == 64)
            << rec[i].kernel;
    }
    const auto ptr = [&](std::size_t i, std::size_t offset) { return LaunchCapture::arg<const void*>(rec[i], offset); };
    EXPECT_EQ(ptr(0, 0), dx.data());
    EXPECT_EQ(ptr(rec.size() - 1, 8), dy.data());
    if (two_hops<TX, TY>) {
        // The first hop's output is the second's input: scratch of its own.
        EXPECT_EQ(ptr(1, 0), ptr(0, 8));
        EXPECT_NE(ptr(0, 8), dx.data());
        EXPECT_NE(ptr(0, 8), dy.data());
    }
    // A same-type pair copies bytes on the device; only the host passes half types through float.
    if constexpr (std::is_same_v<TX, TY>) hy.upload(xs);
    EXPECT_TRUE(hy.raw_bytes() == dy.raw_bytes()) << exactly_equal(hy.download(), dy.download()).message();
}

TEST(CastPairs, DeviceMatchesHostWithTheKernelsOfEachPair) {
    auto host = host_context({.sim_dev_type = 3});
    auto dev = device_context();
    std::uint64_t seed = 100;
    // One element; several vector blocks per core and a ragged tail.
    for (long len : {1L, 70001L}) {
        for_each_type(AllElementTypes{}, [&]<class TX>() {
            for_each_type(AllElementTypes{}, [&]<class TY>() { check_pair<TX, TY>(*host, *dev, len, seed++); });
        });
    }
}

// The sort and transpose families, with the instances no route reaches.
TEST(BasicCatalogue, EveryFamilyWithItsInstanceCount) {
    std::map<std::string, int> families;
    for (const auto& k : infer_ops::kernel_catalogue()) ++families[k.family];
    const std::map<std::string, int> want = {
        {"infer_sort_large_m", 10}, {"infer_sort_large_n", 10}, {"infer_radix_sort_gm", 32},
        {"infer_radix_sort_multicl_gm_sm", 32}, {"infer_transpose_0213_cluster", 3}, {"infer_transpose_021_gmx_bsp", 3},
        {"infer_transpose_021_small_dim_cluster", 1}, {"infer_transpose_nhwc_c3", 1}};
    for (const auto& [family, count] : want) EXPECT_EQ(families[family], count) << family;
}

}  // namespace
