// cast: all 100 ordered pairs, host imitating the device against the device,
// on random inputs salted with NaN, infinities, subnormals, signed zeros,
// values at and past the destination's range, integer extremes and exact
// rounding ties. The results must agree bit for bit.
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/infer_ops.h>

#include "support/tsuops_test.h"
#include "wrapper/basic/cast_table.h"

namespace {

using namespace orvane::tsu::api;
using infer_ops::cast_table::Route;
using tsuops_test::GuardedBuffer;
using tsuops_test::LogCapture;
using tsuops_test::RandomSpec;

template <class... T>
struct types {};
using AllTypes = types<float, float16, bfloat16, bool, signed char, short, int, long, unsigned char, double>;

template <class... T, class F>
void for_each_type(types<T...>, F&& f) {
    (f.template operator()<T>(), ...);
}

template <class T>
constexpr bool floating = tsuops_test::is_floating_v<T>;

// The magnitude around which a destination's results change: its range for
// integers (32 bits for long, which floating sources reach through int).
template <class TY>
double range_of() {
    if constexpr (std::is_same_v<TY, bool>) return 2.0;
    else if constexpr (std::is_same_v<TY, long>) return 2147483648.0;
    else if constexpr (std::is_integral_v<TY>) return static_cast<double>(std::numeric_limits<TY>::max());
    else if constexpr (std::is_same_v<TY, float16>) return 65504.0;
    else return 1e30;
}

// Values that sit exactly halfway for some rounding step: bfloat16 and
// float16 ties, a float16 subnormal tie, a double-to-float tie, and halves
// at the edges of the 8-bit ranges.
const std::vector<double> kFloatingTies = {1.00390625,   -1.00390625, 1.00048828125, 1.00146484375, 0x1p-25,
                                           -0x1p-25,     16777217.0,  2.5,           -2.5,          127.5,
                                           -128.5,       255.5,       32767.5,       2147483648.0,  -2147483649.0,
                                           1e-50,        300.7,       -300.7,        -1.5,          65520.0};
// Integers that are ties on their way to float, float16 or bfloat16, and
// values just past each narrower range.
const std::vector<long> kIntegerTies = {16777217, 16777219, -16777217, 2049,  257,   -257,         200,
                                        -200,     128,      -129,      255,   256,   32768,        65535,
                                        -32769,   -1,       0,         (1L << 32) + 5, (1L << 32) - 1};

template <class TX, class TY>
std::vector<TX> inputs(long len, std::uint64_t seed) {
    std::vector<TX> v;
    if constexpr (floating<TX>) {
        const double r = range_of<TY>();
        v = tsuops_test::random_tensor<TX>(len, seed, RandomSpec::for_cast(r, 0.15).in(-1.5 * r, 1.5 * r));
    } else {
        v = tsuops_test::random_tensor<TX>(len, seed, RandomSpec::with_specials(0.15));
    }
    for (std::size_t i = 0; i < v.size(); ++i) {
        if constexpr (std::is_same_v<TX, double>) {
            if (i < kFloatingTies.size()) v[i] = kFloatingTies[i];
        } else if constexpr (floating<TX>) {
            if (i < kFloatingTies.size()) v[i] = TX(static_cast<float>(kFloatingTies[i]));
        } else {
            if (i < kIntegerTies.size()) v[i] = static_cast<TX>(kIntegerTies[i]);
        }
    }
    return v;
}

template <class TY>
::testing::AssertionResult same_bits(const GuardedBuffer<TY>& want, const GuardedBuffer<TY>& got) {
    const auto a = want.raw_bytes();
    const auto b = got.raw_bytes();
    if (a == b) return ::testing::AssertionSuccess();
    // Bit patterns differ: show the first element that does.
    return tsuops_test::exactly_equal(want.download(), got.download()) << " (bit patterns differ)";
}

template <class TX, class TY>
void differential(Context* host, Context* dev, long len, std::uint64_t seed) {
    SCOPED_TRACE(std::string(tsuops_test::type_name<TX>()) + " -> " + tsuops_test::type_name<TY>() + ", len " +
                 std::to_string(len));
    LogCapture quiet;  // the refused pairs log, by design
    const std::vector<TX> xs = inputs<TX, TY>(len, seed);
    GuardedBuffer<TX> hx(host, xs);
    GuardedBuffer<TX> dx(dev, xs);
    GuardedBuffer<TY> hy(host, len);
    GuardedBuffer<TY> dy(dev, len);
    ASSERT_EQ((infer_ops::cast<TX, TY>(host, hx.data(), hy.data(), len)), 0);
    const int st = infer_ops::cast<TX, TY>(dev, dx.data(), dy.data(), len);
    constexpr Route route = infer_ops::cast_table::route<TX, TY>();
    if constexpr (route == Route::refused) {
        EXPECT_EQ(st, infer_ops::STATUS_UNIMPLEMENTED);
        EXPECT_TRUE(dy.untouched());
    } else if constexpr (route == Route::copy) {
        // The device copies bytes; only the host passes half types through float.
        ASSERT_EQ(st, 0);
        EXPECT_TRUE(same_bits(dx, dy));
    } else {
        ASSERT_EQ(st, 0);
        EXPECT_TRUE(same_bits(hy, dy));
    }
}

class CastDifferential : public ::testing::Test {
protected:
    template <class TX>
    void run_source() {
        auto host = tsuops_test::host_context({.sim_dev_type = 3});
        auto dev = tsuops_test::device_context();
        std::uint64_t seed = 100;
        // One element; a ragged tail across the per-core split; several
        // vector blocks and float blocks per core.
        for (long len : {1L, 4099L, 70001L}) {
            for_each_type(AllTypes{}, [&]<class TY>() { differential<TX, TY>(host.get(), dev.get(), len, seed++); });
        }
    }
};

TEST_F(CastDifferential, FromFloat) { run_source<float>(); }
TEST_F(CastDifferential, FromFloat16) { run_source<float16>(); }
TEST_F(CastDifferential, FromBfloat16) { run_source<bfloat16>(); }
TEST_F(CastDifferential, FromBool) { run_source<bool>(); }
TEST_F(CastDifferential, FromSignedChar) { run_source<signed char>(); }
TEST_F(CastDifferential, FromShort) { run_source<short>(); }
TEST_F(CastDifferential, FromInt) { run_source<int>(); }
TEST_F(CastDifferential, FromLong) { run_source<long>(); }
TEST_F(CastDifferential, FromUnsignedChar) { run_source<unsigned char>(); }
TEST_F(CastDifferential, FromDouble) { run_source<double>(); }

}  // namespace
