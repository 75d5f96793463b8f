// Reproducible random tensors of every element type, optionally salted with
// special values.
#pragma once

#include <cstdint>
#include <optional>
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
    std::optional<double> lo;
    std::optional<double> hi;
    // Fraction of elements replaced by a special value of an enabled kind
    // that applies to the element type.
    double special_fraction = 0.0;
    unsigned specials = kAllSpecials;
    // Limit used by kBeyondRange, typically the largest value of the integer
    // type that the tensor will be cast to (127 for signed char); 0: unused.
    double beyond = 0.0;

    static RandomSpec range(double lo_, double hi_) {
        RandomSpec s;
        s.lo = lo_;
        s.hi = hi_;
        return s;
    }
    // "Random with specials": a tenth of the elements special by default.
    static RandomSpec with_specials(double fraction = 0.1, unsigned kinds = kAllSpecials) {
        RandomSpec s;
        s.special_fraction = fraction;
        s.specials = kinds;
        return s;
    }
    // Floats meant for a cast: specials include values at and past +-limit.
    static RandomSpec for_cast(double limit, double fraction = 0.1) {
        RandomSpec s = with_specials(fraction);
        s.beyond = limit;
        return s;
    }
    RandomSpec& in(double lo_, double hi_) {
        lo = lo_;
        hi = hi_;
        return *this;
    }
};

// n elements; the same (n, seed, spec) gives the same tensor on every run.
// Floating values are drawn in double and narrowed once to T.
template <class T>
std::vector<T> random_tensor(long n, std::uint64_t seed, const RandomSpec& spec = {});

extern template std::vector<float> random_tensor<float>(long, std::uint64_t, const RandomSpec&);
extern template std::vector<float16> random_tensor<float16>(long, std::uint64_t, const RandomSpec&);
extern template std::vector<bfloat16> random_tensor<bfloat16>(long, std::uint64_t, const RandomSpec&);
extern template std::vector<double> random_tensor<double>(long, std::uint64_t, const RandomSpec&);
extern template std::vector<long> random_tensor<long>(long, std::uint64_t, const RandomSpec&);
extern template std::vector<int> random_tensor<int>(long, std::uint64_t, const RandomSpec&);
extern template std::vector<short> random_tensor<short>(long, std::uint64_t, const RandomSpec&);
extern template std::vector<signed char> random_tensor<signed char>(long, std::uint64_t, const RandomSpec&);
extern template std::vector<unsigned char> random_tensor<unsigned char>(long, std::uint64_t,
                                                                        const RandomSpec&);
extern template std::vector<bool> random_tensor<bool>(long, std::uint64_t, const RandomSpec&);

}  // namespace tsuops_test
