#include <cctype>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <string>

#include <tsuops/float16.h>

using tsuops_half_detail::bits_to_float;
using tsuops_half_detail::float_to_bits;

namespace {

std::string lower(const char* s) {
    std::string out = s ? s : "";
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// The mode strings are read on the first narrowing of each kind and kept.
const std::string& get_env_fp16_round_mode() {
    static std::string mode;
    static std::once_flag once;
    std::call_once(once, [] {
        const char* v = std::getenv("TSUAPI_BF16_FP16_MODE");
        if (v == nullptr) v = std::getenv("TSUAPI_FP16_MODE");
        mode = v ? lower(v) : std::string("tsu2");
    });
    return mode;
}

const std::string& get_env_bf16_round_mode() {
    static std::string mode;
    static std::once_flag once;
    std::call_once(once, [] {
        const char* v = std::getenv("TSUAPI_BF16_ROUND_MODE");
        mode = v ? lower(v) : std::string("rne");
    });
    return mode;
}

}  // namespace

namespace infer_ops {

std::uint16_t float_to_half_bits_rne(float f) {
    const std::uint32_t w = float_to_bits(f);
    const std::uint32_t shl1 = w << 1;
    const std::uint32_t sign = (w >> 16) & 0x8000u;
    const float base = (std::fabs(f) * 0x1p112f) * 0x1p-110f;
    std::uint32_t bias = shl1 & 0xff000000u;
    if (bias < 0x71000000u) bias = 0x71000000u;
    const float v = bits_to_float((bias >> 1) + 0x7800000u) + base;
    const std::uint32_t bits = float_to_bits(v);
    std::uint32_t nonsign = ((bits >> 13) & 0x7c00u) + (bits & 0xfffu);
    if (shl1 > 0xff000000u) nonsign = 0x7e00u;
    return static_cast<std::uint16_t>(sign | nonsign);
}

bool fp16_mode_is_tsu3() { return get_env_fp16_round_mode() == "tsu3"; }
bool bf16_mode_is_rn() { return get_env_bf16_round_mode() == "rn"; }

}  // namespace infer_ops

__attribute__((weak)) float16::float16(float f) {
    const std::uint16_t r = infer_ops::float_to_half_bits_rne(f);
    x = (!infer_ops::fp16_mode_is_tsu3() && (r & 0x7c00u) == 0) ? static_cast<std::uint16_t>(r & 0x8000u) : r;
}

__attribute__((weak)) bfloat16::bfloat16(float f, bool force_rn) {
    const std::uint32_t w = float_to_bits(f);
    if (f != f) {
        x = 0x7fc0;
    } else if (force_rn || infer_ops::bf16_mode_is_rn()) {
        x = static_cast<std::uint16_t>((w + 0x8000u) >> 16);
    } else {
        x = static_cast<std::uint16_t>((w + 0x7fffu + ((w >> 16) & 1u)) >> 16);
    }
}
