#include <cstdint>
#include <limits>
#include <type_traits>

#include <tsuops/cpu_ops.h>

#include "frame/frame.h"

namespace infer_ops::cpu_ops {

namespace {

template <typename T>
inline constexpr bool is_half = std::is_same_v<T, float16> || std::is_same_v<T, bfloat16>;

// Integer arithmetic with wrap-around: done on 64-bit unsigned words, whose
// low bits are those of the exact result, then cut to T.
template <typename T>
inline T wrap(std::uint64_t v) {
    return static_cast<T>(static_cast<std::make_unsigned_t<T>>(v));
}
template <typename T>
inline T wrap_mul(T a, T b) {
    return wrap<T>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}
template <typename T>
inline T wrap_add(T a, T b) {
    return wrap<T>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

// Truncation towards zero into an integer type. Values the host's truncating
// conversion cannot represent (NaN, out of range) give what that instruction
// gives, the most negative value of its width, without relying on undefined
// behaviour. Types narrower than 32 bits truncate to 32 bits and keep the low
// bits.
template <typename T>
inline T truncate(float f) {
    if constexpr (sizeof(T) == 8) {
        const bool fits = f >= -0x1p63f && f < 0x1p63f;
        return fits ? static_cast<T>(f) : std::numeric_limits<T>::min();
    } else {
        const bool fits = f >= -0x1p31f && f < 0x1p31f;
        const std::int32_t v = fits ? static_cast<std::int32_t>(f) : std::numeric_limits<std::int32_t>::min();
        return static_cast<T>(static_cast<std::make_unsigned_t<T>>(static_cast<std::uint32_t>(v)));
    }
}

}  // namespace

template <typename T, typename S>
int scale(Context* ctx, const T* x, T* y, long len, bool bias_after, S alpha, S beta) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    if (ctx->dev_type != 0) return frame::unimplemented(ctx);
    if constexpr (std::is_same_v<T, S> && std::is_integral_v<T>) {
        if (bias_after) {
            for (long i = 0; i < len; ++i) y[i] = wrap_add(wrap_mul(x[i], alpha), beta);
        } else {
            for (long i = 0; i < len; ++i) y[i] = wrap_mul(wrap_add(x[i], beta), alpha);
        }
    } else {
        static_assert(std::is_same_v<S, float>);
        const auto store = [](float v) {
            if constexpr (std::is_same_v<T, float> || is_half<T>) return T(v);
            else return truncate<T>(v);
        };
        if (bias_after) {
            for (long i = 0; i < len; ++i) {
                const float p = static_cast<float>(x[i]) * alpha;
                y[i] = store(p + beta);
            }
        } else {
            for (long i = 0; i < len; ++i) {
                const float s = static_cast<float>(x[i]) + beta;
                y[i] = store(s * alpha);
            }
        }
    }
    return SUCCESS;
}

#define TSUOPS_CPU_SCALE(T, S) template int scale<T, S>(Context*, const T*, T*, long, bool, S, S);
TSUOPS_CPU_SCALE(float, float)
TSUOPS_CPU_SCALE(float16, float)
TSUOPS_CPU_SCALE(bfloat16, float)
TSUOPS_CPU_SCALE(long, long)
TSUOPS_CPU_SCALE(long, float)
TSUOPS_CPU_SCALE(int, int)
TSUOPS_CPU_SCALE(int, float)
TSUOPS_CPU_SCALE(short, short)
TSUOPS_CPU_SCALE(short, float)
TSUOPS_CPU_SCALE(unsigned char, unsigned char)
TSUOPS_CPU_SCALE(unsigned char, float)
TSUOPS_CPU_SCALE(signed char, signed char)
TSUOPS_CPU_SCALE(signed char, float)
#undef TSUOPS_CPU_SCALE

}  // namespace infer_ops::cpu_ops
