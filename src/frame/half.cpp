#include <bit>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <immintrin.h>

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

// The conversions are written once, over a lane type: U is std::uint32_t
// (with F float) for the scalar forms, or a vector of eight lanes for the
// array forms, so that the two cannot drift apart. Selections are bit masks,
// which keeps every lane on the same straight-line code. The vector helpers
// are always inlined, so the calling convention of 32-byte vectors in a
// build without AVX never applies to them.
#pragma GCC diagnostic ignored "-Wpsabi"
using u32x8 = std::uint32_t __attribute__((vector_size(32)));
using i32x8 = std::int32_t __attribute__((vector_size(32)));
using f32x8 = float __attribute__((vector_size(32)));
using u16x8 = std::uint16_t __attribute__((vector_size(16)));

[[gnu::always_inline]] inline std::uint32_t as_mask(bool c) { return 0u - static_cast<std::uint32_t>(c); }
[[gnu::always_inline]] inline u32x8 as_mask(const i32x8& c) { return reinterpret_cast<const u32x8&>(c); }

template <class U>
[[gnu::always_inline]] inline U select(const U& mask, const U& a, const U& b) {
    return (a & mask) | (b & ~mask);
}

template <class U>
[[gnu::always_inline]] inline U splat(std::uint32_t v) {
    return U{} + v;
}

// The branch-free narrowing: round to nearest even, overflow to infinity,
// subnormals kept, every NaN to the quiet 0x7e00 under its own sign.
template <class U, class F>
[[gnu::always_inline]] inline U half_rne(const U& w) {
    const U shl1 = w << 1;
    const U sign = (w >> 16) & 0x8000u;
    const F base = (std::bit_cast<F>(w & 0x7fffffffu) * 0x1p112f) * 0x1p-110f;
    U bias = shl1 & 0xff000000u;
    bias = select(as_mask(bias < 0x71000000u), splat<U>(0x71000000u), bias);
    const F v = std::bit_cast<F>((bias >> 1) + 0x7800000u) + base;
    const U bits = std::bit_cast<U>(v);
    U nonsign = ((bits >> 13) & 0x7c00u) + (bits & 0xfffu);
    nonsign = select(as_mask(shl1 > 0xff000000u), splat<U>(0x7e00u), nonsign);
    return sign | nonsign;
}

// Outside "tsu3" a result with a zero exponent field becomes a signed zero.
template <class U>
[[gnu::always_inline]] inline U half_flush(const U& r) {
    return select(as_mask((r & 0x7c00u) == 0u), r & 0x8000u, r);
}

template <class U>
[[gnu::always_inline]] inline U bf16_round(const U& w, bool rn) {
    const U r = rn ? (w + 0x8000u) >> 16 : (w + 0x7fffu + ((w >> 16) & 1u)) >> 16;
    return select(as_mask((w & 0x7fffffffu) > 0x7f800000u), splat<U>(0x7fc0u), r);
}

template <class U, class F>
[[gnu::always_inline]] inline F half_widen(const U& h) {
    const U two_w = h << 17;
    const F sub = std::bit_cast<F>((two_w >> 17) | 0x3f000000u) - 0.5f;
    const F nor = std::bit_cast<F>((two_w >> 4) | 0x70000000u) * 0x1p-112f;
    const U mag = select(as_mask(two_w < 0x8000000u), std::bit_cast<U>(sub), std::bit_cast<U>(nor));
    return std::bit_cast<F>(mag | ((h & 0x8000u) << 16));
}

[[gnu::always_inline]] inline u32x8 load8(const float* p) {
    u32x8 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <class H>
[[gnu::always_inline]] inline u32x8 load8(const H* p) {
    u16x8 v;
    std::memcpy(&v, p, sizeof v);
    return __builtin_convertvector(v, u32x8);
}

template <class H>
[[gnu::always_inline]] inline void store8(H* p, const u32x8& v) {
    const u16x8 n = __builtin_convertvector(v, u16x8);
    std::memcpy(p, &n, sizeof n);
}

[[gnu::always_inline]] inline void store8(float* p, const f32x8& v) { std::memcpy(p, &v, sizeof v); }

// Eight lanes at a time, the rest one by one through the same lane code.
// The AVX2 clone is picked at load time where the CPU has it. A clone with
// fused multiply-add would still give the same bits: where the narrowing's
// last multiply is inexact (a subnormal product) it is far too small to move
// the rounding of the addition that follows.
#define TSUOPS_HALF_CLONES __attribute__((target_clones("avx2", "default")))

template <bool flush>
TSUOPS_HALF_CLONES void narrow_half(const float* src, float16* dst, long n) {
    long i = 0;
    for (; i + 8 <= n; i += 8) {
        u32x8 r = half_rne<u32x8, f32x8>(load8(src + i));
        if (flush) r = half_flush(r);
        store8(dst + i, r);
    }
    for (; i < n; ++i) {
        std::uint32_t r = half_rne<std::uint32_t, float>(std::bit_cast<std::uint32_t>(src[i]));
        if (flush) r = half_flush(r);
        dst[i].x = static_cast<std::uint16_t>(r);
    }
}

template <bool rn>
TSUOPS_HALF_CLONES void narrow_bf16(const float* src, bfloat16* dst, long n) {
    long i = 0;
    for (; i + 8 <= n; i += 8) store8(dst + i, bf16_round(load8(src + i), rn));
    for (; i < n; ++i) dst[i].x = static_cast<std::uint16_t>(bf16_round(std::bit_cast<std::uint32_t>(src[i]), rn));
}

TSUOPS_HALF_CLONES void widen_half(const float16* src, float* dst, long n) {
    long i = 0;
    for (; i + 8 <= n; i += 8) store8(dst + i, half_widen<u32x8, f32x8>(load8(src + i)));
    for (; i < n; ++i) dst[i] = half_widen<std::uint32_t, float>(src[i].x);
}

TSUOPS_HALF_CLONES void widen_bf16(const bfloat16* src, float* dst, long n) {
    long i = 0;
    for (; i + 8 <= n; i += 8) store8(dst + i, __builtin_bit_cast(f32x8, load8(src + i) << 16));
    for (; i < n; ++i) dst[i] = std::bit_cast<float>(static_cast<std::uint32_t>(src[i].x) << 16);
}

// The converter instructions round to nearest even, keep subnormal results
// and widen exactly: the same bits as the lane code above once a NaN is set
// to the quiet pattern under its own sign and, outside "tsu3", a zero
// exponent field is flushed.
#define TSUOPS_F16C __attribute__((target("avx2,f16c")))

template <bool flush>
TSUOPS_F16C void narrow_half_f16c(const float* src, float16* dst, long n) {
    const __m128i quiet = _mm_set1_epi16(0x7e00);
    const __m128i sign_bit = _mm_set1_epi16(static_cast<short>(0x8000));
    const __m128i exponent = _mm_set1_epi16(0x7c00);
    long i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 v = _mm256_loadu_ps(src + i);
        __m128i r = _mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
        const __m256i nan32 = _mm256_castps_si256(_mm256_cmp_ps(v, v, _CMP_UNORD_Q));
        const __m128i nan16 = _mm_packs_epi32(_mm256_castsi256_si128(nan32), _mm256_extracti128_si256(nan32, 1));
        const __m128i sign = _mm_and_si128(r, sign_bit);
        r = _mm_blendv_epi8(r, _mm_or_si128(sign, quiet), nan16);
        if (flush) {
            const __m128i zero_exp = _mm_cmpeq_epi16(_mm_and_si128(r, exponent), _mm_setzero_si128());
            r = _mm_blendv_epi8(r, sign, zero_exp);
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), r);
    }
    for (; i < n; ++i) {
        std::uint32_t r = half_rne<std::uint32_t, float>(std::bit_cast<std::uint32_t>(src[i]));
        if (flush) r = half_flush(r);
        dst[i].x = static_cast<std::uint16_t>(r);
    }
}

TSUOPS_F16C void widen_half_f16c(const float16* src, float* dst, long n) {
    long i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i h = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
        _mm256_storeu_ps(dst + i, _mm256_cvtph_ps(h));
    }
    for (; i < n; ++i) dst[i] = half_widen<std::uint32_t, float>(src[i].x);
}

bool has_f16c() {
    static const bool yes = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("f16c");
    return yes;
}

}  // namespace

namespace infer_ops {

std::uint16_t float_to_half_bits_rne(float f) {
    return static_cast<std::uint16_t>(half_rne<std::uint32_t, float>(std::bit_cast<std::uint32_t>(f)));
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
    if (has_f16c()) {
        if (keep) {
            narrow_half_f16c<false>(src, dst, n);
        } else {
            narrow_half_f16c<true>(src, dst, n);
        }
    } else if (keep) {
        narrow_half<false>(src, dst, n);
    } else {
        narrow_half<true>(src, dst, n);
    }
}

// The mode is read even when force_rn decides, so that the first narrowing
// fixes the mode whatever its call site.
void narrow(const float* src, bfloat16* dst, long n, bool force_rn) {
    const bool away = bf16_mode_is_rn() || force_rn;
    if (n <= 0) return;
    if (away) {
        narrow_bf16<true>(src, dst, n);
    } else {
        narrow_bf16<false>(src, dst, n);
    }
}

void widen(const float16* src, float* dst, long n) {
    if (n <= 0) return;
    if (has_f16c()) {
        widen_half_f16c(src, dst, n);
    } else {
        widen_half(src, dst, n);
    }
}

void widen(const bfloat16* src, float* dst, long n) {
    if (n > 0) widen_bf16(src, dst, n);
}

}  // namespace infer_ops

__attribute__((weak)) float16::float16(float f) {
    const std::uint32_t r = half_rne<std::uint32_t, float>(std::bit_cast<std::uint32_t>(f));
    x = static_cast<std::uint16_t>(infer_ops::fp16_mode_is_tsu3() ? r : half_flush(r));
}

__attribute__((weak)) bfloat16::bfloat16(float f, bool force_rn) {
    const bool away = infer_ops::bf16_mode_is_rn() || force_rn;
    x = static_cast<std::uint16_t>(bf16_round(std::bit_cast<std::uint32_t>(f), away));
}
