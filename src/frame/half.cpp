#include <bit>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <tsuops/float16.h>

namespace {

std::string lower(const char* s) {
    std::string out = s;
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string read_fp16_mode() {
    // An empty TSUAPI_BF16_FP16_MODE still counts as set and hides the other.
    const char* v = std::getenv("TSUAPI_BF16_FP16_MODE");
    if (v == nullptr) v = std::getenv("TSUAPI_FP16_MODE");
    return v ? lower(v) : std::string("tsu2");
}

std::string read_bf16_mode() {
    const char* v = std::getenv("TSUAPI_BF16_ROUND_MODE");
    return v ? lower(v) : std::string("rne");
}

// Function-local statics: the compiler guards their first initialisation, so
// threads that narrow for the first time at once read the environment once.
const std::string& get_env_fp16_round_mode() {
    static const std::string mode = read_fp16_mode();
    return mode;
}

const std::string& get_env_bf16_round_mode() {
    static const std::string mode = read_bf16_mode();
    return mode;
}

// The branch-free narrowing: round to nearest even, overflow to infinity,
// subnormals kept, every NaN to the quiet 0x7e00 under its own sign. The
// scalar and the array forms share it so that they cannot drift apart.
[[gnu::always_inline]] inline std::uint32_t half_rne(std::uint32_t w) {
    const std::uint32_t shl1 = w << 1;
    const std::uint32_t sign = (w >> 16) & 0x8000u;
    const float base = (std::bit_cast<float>(w & 0x7fffffffu) * 0x1p112f) * 0x1p-110f;
    std::uint32_t bias = shl1 & 0xff000000u;
    bias = bias < 0x71000000u ? 0x71000000u : bias;
    const float v = std::bit_cast<float>((bias >> 1) + 0x7800000u) + base;
    const std::uint32_t bits = std::bit_cast<std::uint32_t>(v);
    std::uint32_t nonsign = ((bits >> 13) & 0x7c00u) + (bits & 0xfffu);
    nonsign = shl1 > 0xff000000u ? 0x7e00u : nonsign;
    return sign | nonsign;
}

// Outside "tsu3" a result with a zero exponent field becomes a signed zero.
[[gnu::always_inline]] inline std::uint32_t half_flush(std::uint32_t r) {
    return (r & 0x7c00u) == 0 ? (r & 0x8000u) : r;
}

[[gnu::always_inline]] inline std::uint32_t bf16_round(std::uint32_t w, bool rn) {
    const std::uint32_t r = rn ? (w + 0x8000u) >> 16 : (w + 0x7fffu + ((w >> 16) & 1u)) >> 16;
    return (w & 0x7fffffffu) > 0x7f800000u ? 0x7fc0u : r;
}

[[gnu::always_inline]] inline float half_widen(std::uint32_t h) {
    const std::uint32_t two_w = h << 17;
    const float sub = std::bit_cast<float>((two_w >> 17) | 0x3f000000u) - 0.5f;
    const float nor = std::bit_cast<float>((two_w >> 4) | 0x70000000u) * 0x1p-112f;
    const std::uint32_t mag = std::bit_cast<std::uint32_t>(two_w < 0x8000000u ? sub : nor);
    return std::bit_cast<float>(mag | ((h & 0x8000u) << 16));
}

// The loops below are written for the auto-vectoriser. The AVX2 clones are
// picked at load time where the CPU has it; AVX2 brings no fused
// multiply-add, so no clone can contract the narrowing's multiply and add
// into one rounding and differ from the scalar form.
#define TSUOPS_HALF_CLONES __attribute__((target_clones("avx2", "default")))

TSUOPS_HALF_CLONES void narrow_half_keep(const float* __restrict src, float16* __restrict dst, long n) {
    for (long i = 0; i < n; ++i) {
        dst[i].x = static_cast<std::uint16_t>(half_rne(std::bit_cast<std::uint32_t>(src[i])));
    }
}

TSUOPS_HALF_CLONES void narrow_half_flush(const float* __restrict src, float16* __restrict dst, long n) {
    for (long i = 0; i < n; ++i) {
        dst[i].x = static_cast<std::uint16_t>(half_flush(half_rne(std::bit_cast<std::uint32_t>(src[i]))));
    }
}

TSUOPS_HALF_CLONES void narrow_bf16_even(const float* __restrict src, bfloat16* __restrict dst, long n) {
    for (long i = 0; i < n; ++i) {
        dst[i].x = static_cast<std::uint16_t>(bf16_round(std::bit_cast<std::uint32_t>(src[i]), false));
    }
}

TSUOPS_HALF_CLONES void narrow_bf16_away(const float* __restrict src, bfloat16* __restrict dst, long n) {
    for (long i = 0; i < n; ++i) {
        dst[i].x = static_cast<std::uint16_t>(bf16_round(std::bit_cast<std::uint32_t>(src[i]), true));
    }
}

TSUOPS_HALF_CLONES void widen_half(const float16* __restrict src, float* __restrict dst, long n) {
    for (long i = 0; i < n; ++i) dst[i] = half_widen(src[i].x);
}

TSUOPS_HALF_CLONES void widen_bf16(const bfloat16* __restrict src, float* __restrict dst, long n) {
    for (long i = 0; i < n; ++i) dst[i] = std::bit_cast<float>(static_cast<std::uint32_t>(src[i].x) << 16);
}

}  // namespace

namespace infer_ops {

std::uint16_t float_to_half_bits_rne(float f) {
    return static_cast<std::uint16_t>(half_rne(std::bit_cast<std::uint32_t>(f)));
}

// The comparison is cached with the string it is made from, so a conversion
// costs one guard test instead of a string compare.
bool fp16_mode_is_tsu3() {
    static const bool tsu3 = get_env_fp16_round_mode() == "tsu3";
    return tsu3;
}

bool bf16_mode_is_rn() {
    static const bool rn = get_env_bf16_round_mode() == "rn";
    return rn;
}

void narrow(const float* src, float16* dst, long n) {
    const bool keep = fp16_mode_is_tsu3();
    if (n <= 0) return;
    if (keep) {
        narrow_half_keep(src, dst, n);
    } else {
        narrow_half_flush(src, dst, n);
    }
}

// The mode is read even when force_rn decides, so that the first narrowing
// fixes the mode whatever its call site.
void narrow(const float* src, bfloat16* dst, long n, bool force_rn) {
    const bool away = bf16_mode_is_rn() || force_rn;
    if (n <= 0) return;
    if (away) {
        narrow_bf16_away(src, dst, n);
    } else {
        narrow_bf16_even(src, dst, n);
    }
}

void widen(const float16* src, float* dst, long n) {
    if (n > 0) widen_half(src, dst, n);
}

void widen(const bfloat16* src, float* dst, long n) {
    if (n > 0) widen_bf16(src, dst, n);
}

}  // namespace infer_ops

__attribute__((weak)) float16::float16(float f) {
    const std::uint32_t r = half_rne(std::bit_cast<std::uint32_t>(f));
    x = static_cast<std::uint16_t>(infer_ops::fp16_mode_is_tsu3() ? r : half_flush(r));
}

__attribute__((weak)) bfloat16::bfloat16(float f, bool force_rn) {
    const bool away = infer_ops::bf16_mode_is_rn() || force_rn;
    x = static_cast<std::uint16_t>(bf16_round(std::bit_cast<std::uint32_t>(f), away));
}
