// The comparison rules of every operator test, in one place:
// - exactly_equal: data movement, integers, indices, masks, routing. Floating
//   elements must match bit for bit (signed zeros differ), except that any
//   NaN matches any NaN.
// - nearly_equal: floating results. The default tolerance is a few ulp of the
//   output type's own precision (float16 and bfloat16 included); long
//   reductions use reduction_tolerance. NaN matches NaN, an infinity matches
//   only the same infinity.
// - within_one_step: quantised integers whose scale came from a reduction
//   may differ by one step, no more.
// Each returns an AssertionResult naming the first mismatching index, both
// values and the number of mismatches, for use in EXPECT_TRUE.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/float16.h>

namespace tsuops_test {

template <class T>
struct float_traits {
    static constexpr bool is_floating = std::is_floating_point_v<T>;
    static constexpr int digits = std::numeric_limits<T>::digits;            // with the implicit bit
    static constexpr int min_exponent = std::numeric_limits<T>::min_exponent - 1;  // of the smallest normal
};
template <>
struct float_traits<float16> {
    static constexpr bool is_floating = true;
    static constexpr int digits = 11;
    static constexpr int min_exponent = -14;
};
template <>
struct float_traits<bfloat16> {
    static constexpr bool is_floating = true;
    static constexpr int digits = 8;
    static constexpr int min_exponent = -126;
};

template <class T>
inline constexpr bool is_floating_v = float_traits<T>::is_floating;

// The spacing of T's values at the magnitude of x (subnormal spacing below
// the smallest normal).
template <class T>
double ulp_of(double x) {
    static_assert(is_floating_v<T>);
    int e = 0;
    std::frexp(std::fabs(x), &e);  // |x| = m * 2^e, m in [0.5, 1)
    const int exp = std::max(e - 1, float_traits<T>::min_exponent);
    return std::ldexp(1.0, exp - (float_traits<T>::digits - 1));
}

struct Tolerance {
    double ulps = 0;  // in the output type's own precision
    double rel = 0;   // times the larger magnitude
    double abs = 0;   // absolute floor, for results near zero after cancellation

    Tolerance with_abs(double a) const {
        Tolerance t = *this;
        t.abs = a;
        return t;
    }
};

inline constexpr double kDefaultUlps = 4;

// A few ulp of T: results computed in float and narrowed once per step.
template <class T>
Tolerance ulp_tolerance(double ulps = kDefaultUlps) {
    return Tolerance{ulps, 0, 0};
}

// A sum of n terms accumulated in float: the relative error of a sequential
// sum grows like sqrt(n) ulp in practice; the bound allows four times that.
template <class T>
Tolerance reduction_tolerance(long n) {
    const double terms = n > 1 ? static_cast<double>(n) : 1.0;
    return Tolerance{kDefaultUlps, 4.0 * std::sqrt(terms) * 0x1p-24, 0};
}

namespace detail {

template <class T>
double as_double(T v) {
    if constexpr (std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>) {
        return static_cast<double>(static_cast<float>(v));
    } else {
        return static_cast<double>(v);
    }
}

template <class T>
std::uint64_t bits_of(T v) {
    std::uint64_t b = 0;
    std::memcpy(&b, &v, sizeof(T));
    return b;
}

// Text of one value: floating values with their bit pattern.
std::string describe_floating(double v, std::uint64_t bits, int bytes);
std::string describe_integer(long long v);
std::string describe_unsigned(unsigned long long v);

template <class T>
std::string describe(T v) {
    if constexpr (is_floating_v<T>) {
        return describe_floating(as_double(v), bits_of(v), static_cast<int>(sizeof(T)));
    } else if constexpr (std::is_same_v<T, bool>) {
        return v ? "true" : "false";
    } else if constexpr (std::is_signed_v<T>) {
        return describe_integer(static_cast<long long>(v));
    } else {
        return describe_unsigned(static_cast<unsigned long long>(v));
    }
}

template <class T, class Match>
::testing::AssertionResult compare_all(const std::vector<T>& expected, const std::vector<T>& actual,
                                       const char* rule, Match match) {
    if (expected.size() != actual.size()) {
        return ::testing::AssertionFailure()
               << rule << ": expected " << expected.size() << " elements, got " << actual.size();
    }
    std::size_t mismatches = 0;
    std::size_t first = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (!match(static_cast<T>(expected[i]), static_cast<T>(actual[i]))) {
            if (mismatches == 0) first = i;
            ++mismatches;
        }
    }
    if (mismatches == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << rule << ": first mismatch at index " << first << ": expected "
           << describe(static_cast<T>(expected[first])) << ", actual " << describe(static_cast<T>(actual[first]))
           << "; " << mismatches << " of " << expected.size() << " elements differ";
}

}  // namespace detail

template <class T>
::testing::AssertionResult exactly_equal(const std::vector<T>& expected, const std::vector<T>& actual) {
    return detail::compare_all(expected, actual, "exact", [](T e, T a) {
        if constexpr (is_floating_v<T>) {
            if (std::isnan(detail::as_double(e)) && std::isnan(detail::as_double(a))) return true;
            return detail::bits_of(e) == detail::bits_of(a);
        } else {
            return e == a;
        }
    });
}

template <class T>
::testing::AssertionResult nearly_equal(const std::vector<T>& expected, const std::vector<T>& actual,
                                        const Tolerance& tol = ulp_tolerance<T>()) {
    static_assert(is_floating_v<T>, "integers compare exactly or within one step");
    return detail::compare_all(expected, actual, "tolerance", [&tol](T e, T a) {
        const double x = detail::as_double(e);
        const double y = detail::as_double(a);
        if (std::isnan(x) || std::isnan(y)) return std::isnan(x) && std::isnan(y);
        if (std::isinf(x) || std::isinf(y)) return x == y;
        const double mag = std::max(std::fabs(x), std::fabs(y));
        const double allowed = std::max({tol.ulps * ulp_of<T>(mag), tol.rel * mag, tol.abs});
        return std::fabs(x - y) <= allowed;
    });
}

// One tensor against a single value, exactly (fills, masks).
template <class T>
::testing::AssertionResult all_equal(const std::vector<T>& actual, T value) {
    return exactly_equal(std::vector<T>(actual.size(), value), actual);
}

template <class T>
::testing::AssertionResult within_one_step(const std::vector<T>& expected, const std::vector<T>& actual) {
    static_assert(std::is_integral_v<T> && !std::is_same_v<T, bool>, "quantised values are integers");
    return detail::compare_all(expected, actual, "one step", [](T e, T a) {
        const long long d = static_cast<long long>(e) - static_cast<long long>(a);
        return d >= -1 && d <= 1;
    });
}

}  // namespace tsuops_test
