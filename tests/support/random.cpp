#include "support/random.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>

namespace tsuops_test {

namespace {

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
constexpr bool is_floating = std::is_floating_point_v<T> || is_half<T>;

template <class T>
T narrow(double v) {
    if constexpr (is_half<T>) {
        return T(static_cast<float>(v));
    } else {
        return static_cast<T>(v);
    }
}

template <class T>
double largest_finite() {
    if constexpr (std::is_same_v<T, float16>) {
        return 65504.0;
    } else if constexpr (std::is_same_v<T, bfloat16>) {
        return static_cast<double>(std::numeric_limits<float>::max()) * (1.0 - 0x1p-8);
    } else {
        return static_cast<double>(std::numeric_limits<T>::max());
    }
}

// A subnormal of T's own format, built from bits so that no narrowing mode
// can flush it.
template <class T>
T random_subnormal(Rng& rng) {
    const bool neg = rng.coin();
    if constexpr (std::is_same_v<T, float16>) {
        const auto m = static_cast<std::uint16_t>(1 + rng.below(0x3ff));
        return float16::from_bits(static_cast<std::uint16_t>(m | (neg ? 0x8000u : 0u)));
    } else if constexpr (std::is_same_v<T, bfloat16>) {
        const auto m = static_cast<std::uint16_t>(1 + rng.below(0x7f));
        return bfloat16::from_bits(static_cast<std::uint16_t>(m | (neg ? 0x8000u : 0u)));
    } else {
        constexpr int digits = std::numeric_limits<T>::digits - 1;
        const T m = static_cast<T>(1 + rng.below((std::uint64_t{1} << std::min(digits, 62)) - 1));
        const T v = m * std::numeric_limits<T>::denorm_min();
        return neg ? -v : v;
    }
}

template <class T>
T special_float(Rng& rng, const RandomSpec& spec) {
    unsigned kinds[5];
    int nk = 0;
    for (unsigned k : {unsigned(kNaN), unsigned(kInfinity), unsigned(kSubnormal), unsigned(kSignedZero)}) {
        if (spec.specials & k) kinds[nk++] = k;
    }
    if ((spec.specials & kBeyondRange) && spec.beyond > 0) kinds[nk++] = kBeyondRange;
    if (nk == 0) return narrow<T>(0.0);
    const double sign = rng.coin() ? -1.0 : 1.0;
    switch (kinds[rng.below(static_cast<std::uint64_t>(nk))]) {
    case kNaN:
        return narrow<T>(std::copysign(std::numeric_limits<double>::quiet_NaN(), sign));
    case kInfinity:
        return narrow<T>(sign * std::numeric_limits<double>::infinity());
    case kSubnormal:
        return random_subnormal<T>(rng);
    case kSignedZero:
        return narrow<T>(sign * 0.0);
    default: {
        // The limit itself, one past it, half past it, and well beyond.
        const double b = spec.beyond;
        const double picks[] = {b, b + 1.0, b + 0.5, b * (1.0 + 3.0 * rng.unit())};
        const double mag = std::min(picks[rng.below(4)], largest_finite<T>());
        return narrow<T>(sign * mag);
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
T uniform_integer(Rng& rng, const RandomSpec& spec) {
    using L = std::numeric_limits<T>;
    const auto clamp = [](double v) -> long double {
        return std::clamp(static_cast<long double>(v), static_cast<long double>(L::min()),
                          static_cast<long double>(L::max()));
    };
    const T a = spec.lo ? static_cast<T>(std::ceil(clamp(*spec.lo))) : L::min();
    const T b = spec.hi ? static_cast<T>(std::floor(clamp(*spec.hi))) : L::max();
    if (b <= a) return a;
    const std::uint64_t span = static_cast<std::uint64_t>(b) - static_cast<std::uint64_t>(a);
    const std::uint64_t r = span == ~std::uint64_t{0} ? rng.next() : rng.below(span + 1);
    return static_cast<T>(static_cast<std::uint64_t>(a) + r);
}

}  // namespace

template <class T>
std::vector<T> random_tensor(long n, std::uint64_t seed, const RandomSpec& spec) {
    std::vector<T> out;
    if (n <= 0) return out;
    out.reserve(static_cast<std::size_t>(n));
    Rng rng(seed);
    for (long i = 0; i < n; ++i) {
        const bool special = spec.special_fraction > 0 && rng.unit() < spec.special_fraction;
        if constexpr (std::is_same_v<T, bool>) {
            out.push_back(rng.coin());
        } else if constexpr (is_floating<T>) {
            if (special) {
                out.push_back(special_float<T>(rng, spec));
            } else {
                const double lo = spec.lo.value_or(-1.0);
                const double hi = spec.hi.value_or(1.0);
                out.push_back(narrow<T>(lo + (hi - lo) * rng.unit()));
            }
        } else {
            out.push_back(special && (spec.specials & kExtremes) ? special_integer<T>(rng)
                                                                 : uniform_integer<T>(rng, spec));
        }
    }
    return out;
}

template std::vector<float> random_tensor<float>(long, std::uint64_t, const RandomSpec&);
template std::vector<float16> random_tensor<float16>(long, std::uint64_t, const RandomSpec&);
template std::vector<bfloat16> random_tensor<bfloat16>(long, std::uint64_t, const RandomSpec&);
template std::vector<double> random_tensor<double>(long, std::uint64_t, const RandomSpec&);
template std::vector<long> random_tensor<long>(long, std::uint64_t, const RandomSpec&);
template std::vector<int> random_tensor<int>(long, std::uint64_t, const RandomSpec&);
template std::vector<short> random_tensor<short>(long, std::uint64_t, const RandomSpec&);
template std::vector<signed char> random_tensor<signed char>(long, std::uint64_t, const RandomSpec&);
template std::vector<unsigned char> random_tensor<unsigned char>(long, std::uint64_t, const RandomSpec&);
template std::vector<bool> random_tensor<bool>(long, std::uint64_t, const RandomSpec&);

}  // namespace tsuops_test
