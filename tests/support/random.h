// Reproducible random tensors of every element type, optionally salted with
// special values.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>
#include <vector>

#include <tsuops/float16.h>

namespace tsuops_test {

// Kinds of special values, combined as a bit mask.
enum Special : unsigned {
    kNaN = 1u << 0,          // quiet NaN of either sign
    kInfinity = 1u << 1,     // +inf and -inf
    kSubnormal = 1u << 2,    // subnormals of the element type itself, either sign
    kSignedZero = 1u << 3,   // +0 and -0
    kBeyondRange = 1u << 4,  // magnitudes at and past RandomSpec::beyond (floating types)
    kExtremes = 1u << 5,     // an integer type's minimum, maximum, 0 and -1
};
inline constexpr unsigned kFloatSpecials = kNaN | kInfinity | kSubnormal | kSignedZero;
inline constexpr unsigned kAllSpecials = kFloatSpecials | kBeyondRange | kExtremes;

struct RandomSpec {
    // Value range. Unset: [-1, 1) for floating types, the whole range of an
    // integer type; bool ignores it (true and false are equally likely).
    std::optional<double> lo = std::nullopt;
    std::optional<double> hi = std::nullopt;
    // Fraction of elements replaced by a special value of an enabled kind
    // that applies to the element type.
    double special_fraction = 0.0;
    unsigned specials = kAllSpecials;
    // Limit used by kBeyondRange, typically the largest value of the integer
    // type that the tensor will be cast to (127 for signed char); 0: unused.
    double beyond = 0.0;

    static RandomSpec range(double lo_, double hi_) { return RandomSpec{}.in(lo_, hi_); }
    // "Random with specials": a tenth of the elements special by default.
    static RandomSpec with_specials(double fraction = 0.1, unsigned kinds = kAllSpecials) {
        return RandomSpec{.special_fraction = fraction, .specials = kinds};
    }
    // Floats meant for a cast: specials include values at and past +-limit.
    static RandomSpec for_cast(double limit, double fraction = 0.1) {
        return RandomSpec{.special_fraction = fraction, .beyond = limit};
    }
    RandomSpec& in(double lo_, double hi_) { lo = lo_; hi = hi_; return *this; }
};

namespace detail {

// splitmix64: tiny, fast and identical on every standard library, unlike
// the distributions of <random>.
class Rng {
public:
    explicit Rng(std::uint64_t seed) : s_(seed ^ 0x6a09e667f3bcc909ull) {}
    std::uint64_t next() {
        std::uint64_t z = (s_ += 0x9e3779b97f4a7c15ull);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    // Uniform in [0, 1).
    double unit() { return static_cast<double>(next() >> 11) * 0x1p-53; }
    std::uint64_t below(std::uint64_t n) { return n == 0 ? 0 : next() % n; }
    bool coin() { return (next() >> 63) != 0; }

private:
    std::uint64_t s_;
};

template <class T>
constexpr bool is_half = std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>;

template <class T>
double largest_finite() {
    if constexpr (std::is_same_v<T, float16>) return 65504.0;
    else if constexpr (std::is_same_v<T, bfloat16>) return std::numeric_limits<float>::max() * (1.0 - 0x1p-8);
    else return static_cast<double>(std::numeric_limits<T>::max());
}

// A subnormal of T's own format, built from bits so that no narrowing mode
// can flush it.
template <class T>
T random_subnormal(Rng& rng) {
    const bool neg = rng.coin();
    if constexpr (is_half<T>) {
        const unsigned mantissa = std::is_same_v<T, float16> ? 0x3ff : 0x7f;
        return T::from_bits(static_cast<std::uint16_t>((1 + rng.below(mantissa)) | (neg ? 0x8000u : 0u)));
    } else {
        constexpr int digits = std::numeric_limits<T>::digits - 1;
        const T m = static_cast<T>(1 + rng.below((std::uint64_t{1} << std::min(digits, 62)) - 1));
        const T v = m * std::numeric_limits<T>::denorm_min();
        return neg ? -v : v;
    }
}

template <class T>
T special_float(Rng& rng, const RandomSpec& draw) {
    std::vector<unsigned> kinds;
    for (unsigned k : {kNaN, kInfinity, kSubnormal, kSignedZero, kBeyondRange}) {
        if ((draw.specials & k) && (k != kBeyondRange || draw.beyond > 0)) kinds.push_back(k);
    }
    if (kinds.empty()) return static_cast<T>(0.0);
    const double sign = rng.coin() ? -1.0 : 1.0;
    switch (kinds[rng.below(kinds.size())]) {
    case kNaN:
        return static_cast<T>(std::copysign(std::numeric_limits<double>::quiet_NaN(), sign));
    case kInfinity:
        return static_cast<T>(sign * std::numeric_limits<double>::infinity());
    case kSubnormal:
        return random_subnormal<T>(rng);
    case kSignedZero:
        return static_cast<T>(sign * 0.0);
    default: {
        // The limit itself, one past it, half past it, and well beyond.
        const double b = draw.beyond;
        const double picks[] = {b, b + 1.0, b + 0.5, b * (1.0 + 3.0 * rng.unit())};
        return static_cast<T>(sign * std::min(picks[rng.below(4)], largest_finite<T>()));
    }
    }
}

template <class T>
T special_integer(Rng& rng) {
    using L = std::numeric_limits<T>;
    const T picks[] = {L::min(), L::max(), T(0), static_cast<T>(L::is_signed ? -1 : 1)};
    return picks[rng.below(4)];
}

template <class T>
T uniform_integer(Rng& rng, const RandomSpec& draw) {
    using L = std::numeric_limits<T>;
    const auto clamp = [](double v) -> long double {
        return std::clamp(static_cast<long double>(v), static_cast<long double>(L::min()),
                          static_cast<long double>(L::max()));
    };
    const T a = draw.lo ? static_cast<T>(std::ceil(clamp(*draw.lo))) : L::min();
    const T b = draw.hi ? static_cast<T>(std::floor(clamp(*draw.hi))) : L::max();
    if (b <= a) return a;
    const std::uint64_t span = static_cast<std::uint64_t>(b) - static_cast<std::uint64_t>(a);
    const std::uint64_t r = span == ~std::uint64_t{0} ? rng.next() : rng.below(span + 1);
    return static_cast<T>(static_cast<std::uint64_t>(a) + r);
}

}  // namespace detail

// n elements; the same (n, seed, draw) gives the same tensor on every run.
// Floating values are drawn in double and narrowed once to T.
template <class T>
std::vector<T> random_tensor(long n, std::uint64_t seed, const RandomSpec& draw = {}) {
    std::vector<T> out;
    detail::Rng rng(seed);
    for (long i = 0; i < n; ++i) {
        const bool special = draw.special_fraction > 0 && rng.unit() < draw.special_fraction;
        if constexpr (std::is_same_v<T, bool>) {
            out.push_back(rng.coin());
        } else if constexpr (detail::is_half<T> || std::is_floating_point_v<T>) {
            const double lo = draw.lo.value_or(-1.0);
            const double hi = draw.hi.value_or(1.0);
            out.push_back(special ? detail::special_float<T>(rng, draw)
                                  : static_cast<T>(lo + (hi - lo) * rng.unit()));
        } else {
            out.push_back(special && (draw.specials & kExtremes) ? detail::special_integer<T>(rng)
                                                                 : detail::uniform_integer<T>(rng, draw));
        }
    }
    return out;
}

}  // namespace tsuops_test
