// The comparison rules of every operator test. Each returns an AssertionResult
// naming the first mismatching index, both values and the mismatch count.
// - identical: bit for bit, NaN payloads and signs included: a kernel against
//   its reference path.
// - exactly_equal: data movement, integers, indices, masks, routing; floating
//   elements bit for bit (signed zeros differ), any NaN matching any NaN.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <tsuops/float16.h>

namespace tsuops_test {

template <class T>
inline constexpr bool is_floating_v =
    std::is_floating_point_v<T> || std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>;

namespace detail {

template <class T>
double as_double(T v) {
    return static_cast<double>(static_cast<std::conditional_t<std::is_class_v<T>, float, T>>(v));
}

template <class T>
std::uint64_t bits_of(T v) {
    std::uint64_t b = 0;
    std::memcpy(&b, &v, sizeof(T));
    return b;
}

// Floating values with their bit pattern; bool as 0 or 1.
template <class T>
std::string describe(T v) {
    std::ostringstream os;
    if constexpr (is_floating_v<T>) {
        os << std::setprecision(sizeof(T) >= 8 ? 17 : 9) << as_double(v) << " (0x" << std::hex
           << std::setfill('0') << std::setw(2 * sizeof(T)) << bits_of(v) << ")";
    } else {
        os << +v;
    }
    return os.str();
}

template <class T, class Match>
::testing::AssertionResult compare_all(const std::vector<T>& expected, const std::vector<T>& actual,
                                       const char* rule, Match match) {
    if (expected.size() != actual.size()) {
        return ::testing::AssertionFailure()
               << rule << ": expected " << expected.size() << " elements, got " << actual.size();
    }
    std::size_t mismatches = 0, first = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (!match(static_cast<T>(expected[i]), static_cast<T>(actual[i])) && mismatches++ == 0) first = i;
    }
    if (mismatches == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << rule << ": first mismatch at index " << first << ": expected "
           << describe(static_cast<T>(expected[first])) << ", actual " << describe(static_cast<T>(actual[first]))
           << "; " << mismatches << " of " << expected.size() << " elements differ";
}

}  // namespace detail

template <class T>
::testing::AssertionResult identical(const std::vector<T>& expected, const std::vector<T>& actual) {
    return detail::compare_all(expected, actual, "identical",
                               [](T e, T a) { return detail::bits_of(e) == detail::bits_of(a); });
}

template <class T>
::testing::AssertionResult exactly_equal(const std::vector<T>& expected, const std::vector<T>& actual) {
    return detail::compare_all(expected, actual, "exact", [](T e, T a) {
        if constexpr (is_floating_v<T>) {
            return (std::isnan(detail::as_double(e)) && std::isnan(detail::as_double(a))) ||
                   detail::bits_of(e) == detail::bits_of(a);
        } else {
            return e == a;
        }
    });
}

// One tensor against a single value, exactly (fills, masks).
template <class T>
::testing::AssertionResult all_equal(const std::vector<T>& actual, T value) {
    return exactly_equal(std::vector<T>(actual.size(), value), actual);
}

}  // namespace tsuops_test
