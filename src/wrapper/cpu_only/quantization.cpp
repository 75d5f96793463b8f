#include <cstdint>
#include <cstring>
#include <type_traits>

#include <tsuops/cpu_ops.h>

#include "frame/quant_rules.h"

namespace infer_ops::cpu_ops {

template <typename T, typename Q>
int quantization(Context* ctx, const T* x, Q* y, long len, const float* maxptr) {
    // Refused by the status alone, without a log.
    if (ctx == nullptr || ctx->dev_type != 0) return STATUS_INVALID_ARGUMENT;
    const float s = maxptr != nullptr ? *maxptr : quant::absmax(x, len);
    if constexpr (std::is_same_v<Q, int>) {
        // The 31-bit result travels as two planes of 16-bit words, low + high
        // * 2^15, each half fitting a signed 16-bit lane. The words are
        // stored bytewise because y holds int objects.
        const quant::quantiser<int> q(s);
        auto* bytes = reinterpret_cast<unsigned char*>(y);
        for (long i = 0; i < len; ++i) {
            const int v = q(static_cast<float>(x[i]));
            const std::int16_t low = static_cast<std::int16_t>(v & 0x7fff);
            const std::int16_t high = static_cast<std::int16_t>(v >> 15);
            std::memcpy(bytes + 2 * i, &low, 2);
            std::memcpy(bytes + 2 * (len + i), &high, 2);
        }
    } else {
        quant::quantize_span(x, y, len, s);
    }
    return SUCCESS;
}

template int quantization<float, signed char>(Context*, const float*, signed char*, long, const float*);
template int quantization<float, short>(Context*, const float*, short*, long, const float*);
template int quantization<float, int>(Context*, const float*, int*, long, const float*);
template int quantization<float16, signed char>(Context*, const float16*, signed char*, long, const float*);
template int quantization<float16, short>(Context*, const float16*, short*, long, const float*);

}  // namespace infer_ops::cpu_ops
