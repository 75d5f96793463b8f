// What the front-end tests add to kv_batch.h: the front ends written out
// from their definition (split, the adjacent-pairs rotation of vsl_model.h,
// the cache forms) to compare with.
//
// Includers compile with floating contraction off.
#pragma once

#include <cmath>
#include <cstring>
#include <type_traits>
#include <vector>

#include "frame/quant_rules.h"
#include "wrapper/kv_batch.h"
#include "wrapper/rope/vsl_model.h"

namespace front_end_test {

using namespace kv_batch;

template <class X, class R, class C, class S>
struct Form : kv_batch::Form<X, R, C, S> {
    using TX = X;
    using TR = R;
    using TC = C;
    using TS = S;
};

// Heads, table and cache shape of a call. The cache holds exactly
// max_batch * max_blocks_per_seq blocks, as the operators take it.
struct Shape {
    long q_heads, kv_heads, head_dim, block_size, rope_batch, rope_max_seqlen;
    bool half;
    long table_entries() const { return 2 * rope_batch * rope_max_seqlen * (half ? head_dim / 2 : head_dim); }
    long row() const { return q_heads + 2 * kv_heads; }
};

// Which scale tensors a call passes.
enum class Scales { none, per_head, per_channel, per_channel_no_zero, per_channel_key_zero };

// ---- the cache forms written out ----------------------------------------------------------------
inline int rne_clamped(float v, float lo, float hi) {
    return static_cast<int>(std::nearbyint(std::fmin(std::fmax(v, lo), hi)));  // fmax drops a NaN: lo
}
inline int channel_int8(float x, float m, float z) { return rne_clamped(x * m + z, -127, 127); }
inline int channel_int4(float x, float m, float z) { return rne_clamped(x * m + z, -8, 7); }
inline int channel_int4_half(float x, float m, float z) {
    const float t = float(float16(x * m));
    return rne_clamped(float(float16(z + t)), -8, 7);
}
inline unsigned char nibbles(int lo, int hi) { return static_cast<unsigned char>(((hi & 15) << 4) | (lo & 15)); }

// The rule Q8 of a head row against s, or its own absolute maximum.
template <class T>
void per_head_row(const T* x, signed char* y, long d, const float* s) {
    float m = infer_ops::quant::kScaleFloor;
    for (long e = 0; e < d; ++e) m = std::fabs(float(x[e])) > m ? std::fabs(float(x[e])) : m;
    for (long e = 0; e < d; ++e) y[e] = __fp32_to_intx<signed char, 127>(float(x[e]), s ? *s : m);
}

// What a front end must leave behind.
template <class TX>
struct Result {
    std::vector<TX> q, k, v;
    Bytes k_cache, v_cache;
    // The caches and q_emb, then k_emb and v_out where the call gives them.
    std::vector<Bytes> bytes(bool outputs = true) const {
        std::vector<Bytes> out = {k_cache, v_cache, raw(q)};
        if (outputs) out.insert(out.end(), {raw(k), raw(v)});
        return out;
    }
};

// The scale tensors as floats: inverse scales per head, multipliers and zero
// points per channel (empty where not given).
struct ScaleValues {
    std::vector<float> k_inv, v_inv, k_m, v_m, k_z, v_z;
};

// The front end on the given inputs: prefill (decode = false) or decode,
// whose sequences are one token each at position starts[b]. caches hold the
// caches' bytes before the call.
template <class F>
Result<typename F::TX> model(const std::vector<typename F::TX>& qkv, const std::vector<typename F::TR>& table,
                             const Batch& s, const Shape& sh, const ScaleValues& sc, bool decode,
                             std::vector<unsigned char> k_cache, std::vector<unsigned char> v_cache) {
    using TX = typename F::TX;
    using TC = typename F::TC;
    const long d = sh.head_dim, kvh = sh.kv_heads, n = s.tokens(), bs = sh.block_size;
    Result<TX> r;
    std::vector<TX> q, k;
    for (long t = 0; t < n; ++t) {
        const TX* row = qkv.data() + t * sh.row() * d;
        q.insert(q.end(), row, row + sh.q_heads * d);
        k.insert(k.end(), row + sh.q_heads * d, row + (sh.q_heads + kvh) * d);
        r.v.insert(r.v.end(), row + (sh.q_heads + kvh) * d, row + sh.row() * d);
    }
    const vsl_model::Sequences seq{s.lod, s.starts, sh.rope_batch, sh.rope_max_seqlen};
    r.q = vsl_model::gptj(q, table, seq, sh.q_heads, d, false, sh.half);
    r.k = vsl_model::gptj(k, table, seq, kvh, d, false, sh.half);
    for (long b = 0; b < s.batch(); ++b) {
        const long len = s.lod[b + 1] - s.lod[b];
        for (long j = 0; j < len; ++j) {
            const long pos = s.starts[b] + j, t = s.lod[b] + j;
            const long block = s.table[s.rows[b] * s.max_blocks_per_seq + pos / bs], off = pos % bs;
            for (long h = 0; h < kvh; ++h) {
                const TX* kr = r.k.data() + (t * kvh + h) * d;
                const TX* vr = r.v.data() + (t * kvh + h) * d;
                const long row = ((block * kvh + h) * bs + off) * d;
                if constexpr (std::is_same_v<TC, TX>) {
                    std::memcpy(k_cache.data() + row * sizeof(TX), kr, d * sizeof(TX));
                    std::memcpy(v_cache.data() + row * sizeof(TX), vr, d * sizeof(TX));
                } else if constexpr (std::is_same_v<TC, signed char>) {
                    auto* kc = reinterpret_cast<signed char*>(k_cache.data()) + row;
                    auto* vc = reinterpret_cast<signed char*>(v_cache.data()) + row;
                    if (sc.k_m.empty()) {
                        const float ks = sc.k_inv.empty() ? 0.0f : 1.0f / sc.k_inv[h];
                        const float vs = sc.v_inv.empty() ? 0.0f : 1.0f / sc.v_inv[h];
                        per_head_row(kr, kc, d, sc.k_inv.empty() ? nullptr : &ks);
                        per_head_row(vr, vc, d, sc.v_inv.empty() ? nullptr : &vs);
                        continue;
                    }
                    for (long e = 0; e < d; ++e) {
                        const long c = h * d + e;
                        kc[e] = static_cast<signed char>(
                            channel_int8(float(kr[e]), sc.k_m[c], sc.k_z.empty() ? 0.0f : sc.k_z[c]));
                        vc[e] = static_cast<signed char>(
                            channel_int8(float(vr[e]), sc.v_m[c], sc.v_z.empty() ? 0.0f : sc.v_z[c]));
                    }
                } else {
                    const auto kz = [&](long c) { return sc.k_z.empty() ? 0.0f : sc.k_z[c]; };
                    const auto vz = [&](long c) { return sc.v_z.empty() ? 0.0f : sc.v_z[c]; };
                    for (long e = 0; e < d; e += 2) {
                        const long c = h * d + e;
                        k_cache[row / 2 + e / 2] = nibbles(channel_int4(float(kr[e]), sc.k_m[c], kz(c)),
                                                           channel_int4(float(kr[e + 1]), sc.k_m[c + 1], kz(c + 1)));
                    }
                    const long vrow = ((block * kvh + h) * bs / 2 + off / 2) * d;
                    for (long e = 0; e < d && decode; ++e) {
                        const int a = channel_int4(float(vr[e]), sc.v_m[h * d + e], vz(h * d + e));
                        unsigned char& byte = v_cache[vrow + e];
                        byte = pos % 2 ? static_cast<unsigned char>(byte | nibbles(0, a)) : nibbles(a, 0);
                    }
                    for (long e = 0; e < d && !decode && j % 2 == 0; ++e) {
                        const long c = h * d + e;
                        const int lo = channel_int4_half(float(vr[e]), sc.v_m[c], vz(c));
                        const int hi = j + 1 < len ? channel_int4_half(float(vr[kvh * d + e]), sc.v_m[c], vz(c)) : 0;
                        v_cache[vrow + e] = nibbles(lo, hi);
                    }
                }
            }
        }
    }
    r.k_cache = std::move(k_cache);
    r.v_cache = std::move(v_cache);
    return r;
}

}  // namespace front_end_test
