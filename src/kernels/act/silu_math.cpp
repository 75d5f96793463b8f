// Every product and sum below is rounded where the algorithm it reproduces
// rounds it, so the compiler must not fuse any of them on its own.
#pragma GCC optimize("fp-contract=off")

#include "kernels/act/silu_math.h"

#include <immintrin.h>

#include <bit>
#include <cstdint>

namespace tsuops::kernels::act {

namespace {

// ---- the math library's exp ---------------------------------------------------------------
// exp(x) = 2^(k/128) * exp(r) with k = round(x * 128 / ln 2) and
// r = x - k * ln 2 / 128, |r| <= ln 2 / 256. 2^(k/128) is 2^(k div 128) times
// a table entry H (1 + T) of k mod 128; exp(r) - 1 is r + r^2 p(r) with p of
// degree 3. Inputs with |x| outside [2^-54, 512) take other branches.
constexpr double kInvLn2N = 0x1.71547652b82fep7;       // 128 / ln 2
constexpr double kNegLn2HiN = -0x1.62e42fefa0000p-8;   // -ln 2 / 128, short enough that k times it is exact
constexpr double kNegLn2LoN = -0x1.cf79abc9e3b3ap-47;  // the rest of -ln 2 / 128
constexpr double kShift = 0x1.8p52;                    // adding it rounds to an integer kept in the low bits
constexpr double kC2 = 0x1.ffffffffffdbdp-2;
constexpr double kC3 = 0x1.555555555543cp-3;
constexpr double kC4 = 0x1.55555cf172b91p-5;
constexpr double kC5 = 0x1.1111167a4d017p-7;
constexpr int kTableBits = 7;
constexpr int kTableSize = 1 << kTableBits;

// The main branch holds for biased exponents in [kTinyTop, kLargeTop); below
// it exp(x) rounds to 1 + x.
constexpr long kTinyTop = 0x3c9;   // 2^-54
constexpr long kLargeTop = 0x408;  // 512

// Entry 2i is T[i], the relative error of H[i] = 2^(i/128) rounded to double;
// entry 2i + 1 the bits of H[i] less i << 45, so that adding k << 45 puts
// k div 128 into the exponent.
struct Table {
    alignas(64) std::uint64_t v[2 * kTableSize];
};

// 2^(i/128) to about 2^-108, from seven square roots of 2 taken in quad
// precision and multiplied by the bits of i.
Table make_table() {
    using quad = __float128;
    const auto sqrt_q = [](quad v) {
        quad y = std::sqrt(static_cast<double>(v));
        for (int k = 0; k < 3; ++k) y = (y + v / y) / 2;
        return y;
    };
    quad root[kTableBits];  // root[b] = 2^(2^b / 128)
    quad v = 2;
    for (int b = kTableBits - 1; b >= 0; --b) root[b] = v = sqrt_q(v);
    Table t{};
    for (int i = 0; i < kTableSize; ++i) {
        quad h = 1;
        for (int b = 0; b < kTableBits; ++b) h = (i >> b) & 1 ? h * root[b] : h;
        const double hi = static_cast<double>(h);
        const double tail = static_cast<double>((h - hi) / hi);
        t.v[2 * i] = std::bit_cast<std::uint64_t>(tail);
        t.v[2 * i + 1] = std::bit_cast<std::uint64_t>(hi) - (static_cast<std::uint64_t>(i) << (52 - kTableBits));
    }
    return t;
}

const Table& table() {
    static const Table t = make_table();
    return t;
}

#pragma GCC push_options
#pragma GCC target("avx2,fma")

// a * b + c, rounded once when Fused, else after the product and after the sum.
template <bool Fused>
[[gnu::always_inline]] inline __m256d mul_add(__m256d a, __m256d b, __m256d c) {
    if constexpr (Fused) {
        return _mm256_fmadd_pd(a, b, c);
    } else {
        return _mm256_add_pd(_mm256_mul_pd(a, b), c);
    }
}

// Four lanes of the library's exp: the main branch in vector form, 1 + x for
// tiny lanes, and the library itself for the rare rest (|x| >= 512, NaN).
template <bool Fused>
[[gnu::always_inline]] inline __m256d exp4(__m256d x, const std::uint64_t* tab) {
    const __m256i bits = _mm256_castpd_si256(x);
    const __m256i top = _mm256_and_si256(_mm256_srli_epi64(bits, 52), _mm256_set1_epi64x(0x7ff));
    const __m256i tiny = _mm256_cmpgt_epi64(_mm256_set1_epi64x(kTinyTop), top);
    const __m256i large = _mm256_cmpgt_epi64(top, _mm256_set1_epi64x(kLargeTop - 1));

    const __m256d shift = _mm256_set1_pd(kShift);
    const __m256d z = mul_add<Fused>(x, _mm256_set1_pd(kInvLn2N), shift);
    const __m256i ki = _mm256_castpd_si256(z);
    const __m256d kd = _mm256_sub_pd(z, shift);
    __m256d r = mul_add<Fused>(kd, _mm256_set1_pd(kNegLn2HiN), x);
    r = mul_add<Fused>(kd, _mm256_set1_pd(kNegLn2LoN), r);
    const __m256i idx = _mm256_slli_epi64(_mm256_and_si256(ki, _mm256_set1_epi64x(kTableSize - 1)), 1);
    const __m256d tail = _mm256_i64gather_pd(reinterpret_cast<const double*>(tab), idx, 8);
    const __m256i sbits = _mm256_add_epi64(_mm256_i64gather_epi64(reinterpret_cast<const long long*>(tab + 1), idx, 8),
                                           _mm256_slli_epi64(ki, 52 - kTableBits));
    const __m256d r2 = _mm256_mul_pd(r, r);
    const __m256d p23 = mul_add<Fused>(r, _mm256_set1_pd(kC3), _mm256_set1_pd(kC2));
    const __m256d p45 = mul_add<Fused>(r, _mm256_set1_pd(kC5), _mm256_set1_pd(kC4));
    const __m256d t1 = mul_add<Fused>(r2, p23, _mm256_add_pd(tail, r));
    const __m256d tmp = mul_add<Fused>(_mm256_mul_pd(r2, r2), p45, t1);
    const __m256d scale = _mm256_castsi256_pd(sbits);
    __m256d y = mul_add<Fused>(scale, tmp, scale);

    y = _mm256_blendv_pd(y, _mm256_add_pd(x, _mm256_set1_pd(1.0)), _mm256_castsi256_pd(tiny));
    if (const int rest = _mm256_movemask_pd(_mm256_castsi256_pd(large))) [[unlikely]] {
        alignas(32) double xs[4], ys[4];
        _mm256_store_pd(xs, x);
        _mm256_store_pd(ys, y);
        for (int l = 0; l < 4; ++l) {
            if (rest >> l & 1) ys[l] = std::exp(xs[l]);
        }
        y = _mm256_load_pd(ys);
    }
    return y;
}

template <bool Fused>
void exp_array_avx2(const double* x, double* y, long n) {
    const std::uint64_t* tab = table().v;
    long i = 0;
    for (; i + 4 <= n; i += 4) _mm256_storeu_pd(y + i, exp4<Fused>(_mm256_loadu_pd(x + i), tab));
    for (; i < n; ++i) y[i] = std::exp(x[i]);
}

// Eight products at a time: the negated gates widened in two halves, the
// sigmoid in double, narrowed back, then the two float products.
template <bool Fused>
void silu_products_avx2(const float* gate, const float* other, float* out, long n) {
    const std::uint64_t* tab = table().v;
    const __m256d one = _mm256_set1_pd(1.0);
    long i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 a = _mm256_loadu_ps(gate + i);
        const __m256 b = _mm256_loadu_ps(other + i);
        const __m256 neg = _mm256_xor_ps(a, _mm256_set1_ps(-0.0f));
        const __m256d e_lo = exp4<Fused>(_mm256_cvtps_pd(_mm256_castps256_ps128(neg)), tab);
        const __m256d e_hi = exp4<Fused>(_mm256_cvtps_pd(_mm256_extractf128_ps(neg, 1)), tab);
        const __m128 s_lo = _mm256_cvtpd_ps(_mm256_div_pd(one, _mm256_add_pd(e_lo, one)));
        const __m128 s_hi = _mm256_cvtpd_ps(_mm256_div_pd(one, _mm256_add_pd(e_hi, one)));
        const __m256 sa = _mm256_mul_ps(_mm256_set_m128(s_hi, s_lo), a);
        _mm256_storeu_ps(out + i, _mm256_mul_ps(sa, b));
    }
    for (; i < n; ++i) out[i] = silu_product(gate[i], other[i]);
}

#pragma GCC pop_options

bool has_avx2_fma() { return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"); }

// Widened floats spread over the main branch, in a fixed order.
double probe(long k) {
    const double unit = static_cast<double>(k) * 0.6180339887498949;
    return static_cast<double>(static_cast<float>(-500.0 + 1000.0 * (unit - static_cast<long>(unit))));
}

// Inputs on which the two forms differ, each a vote against one of them; a
// form that the library contradicts once is out.
constexpr int kTellingProbes = 32;
constexpr long kMaxProbes = 1 << 20;

ExpForm calibrate() {
    if (!has_avx2_fma()) return ExpForm::library;
    bool fused = true, separate = true;
    int telling = 0;
    for (long k = 0; k < kMaxProbes && telling < kTellingProbes && (fused || separate); k += 4) {
        double x[4], f[4], s[4];
        for (int l = 0; l < 4; ++l) x[l] = probe(k + l);
        exp_array_avx2<true>(x, f, 4);
        exp_array_avx2<false>(x, s, 4);
        for (int l = 0; l < 4; ++l) {
            const auto want = std::bit_cast<std::uint64_t>(std::exp(x[l]));
            fused = fused && std::bit_cast<std::uint64_t>(f[l]) == want;
            separate = separate && std::bit_cast<std::uint64_t>(s[l]) == want;
            telling += f[l] != s[l];
        }
    }
    if (telling < kTellingProbes) return ExpForm::library;
    return fused ? ExpForm::fused : separate ? ExpForm::separate : ExpForm::library;
}

}  // namespace

ExpForm exp_form() {
    static const ExpForm form = calibrate();
    return form;
}

const char* exp_form_name(ExpForm form) {
    switch (form) {
    case ExpForm::fused: return "fused";
    case ExpForm::separate: return "separate";
    case ExpForm::library: break;
    }
    return "library";
}

void exp_array(const double* x, double* y, long n) {
    switch (exp_form()) {
    case ExpForm::fused: return exp_array_avx2<true>(x, y, n);
    case ExpForm::separate: return exp_array_avx2<false>(x, y, n);
    case ExpForm::library: break;
    }
    for (long i = 0; i < n; ++i) y[i] = std::exp(x[i]);
}

void silu_products(const float* gate, const float* other, float* out, long n) {
    switch (exp_form()) {
    case ExpForm::fused: return silu_products_avx2<true>(gate, other, out, n);
    case ExpForm::separate: return silu_products_avx2<false>(gate, other, out, n);
    case ExpForm::library: break;
    }
    for (long i = 0; i < n; ++i) out[i] = silu_product(gate[i], other[i]);
}

}  // namespace tsuops::kernels::act
