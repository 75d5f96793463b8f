// The four cache stores against models written here from the layouts, over
// whole caches that start as random bytes so that nothing outside the
// addressed rows may change: the host gives the model, the device the same
// bits, over block sizes 1, 16 and 64, shuffled tables and rows, sequences
// off block boundaries, with and without values, scales and maxima.
#include <cmath>
#include <tuple>
#include <vector>

#include "frame/quant_rules.h"
#include "wrapper/kv_batch.h"
#include "wrapper/wrapper_test.h"

namespace {

using namespace kv_batch;
using wrapper_test::Pair;
using wrapper_test::PairNames;
const ContextOptions kOpts{.ncluster = 1, .ngmx = 2, .max_ptr_size = 3};

template <class P>
class ReshapeAndCache : public ::testing::Test {};
using IndexPairs = ::testing::Types<Pair<float16, int>, Pair<float16, long>, Pair<float, int>, Pair<float, long>,
                                    Pair<bfloat16, int>, Pair<bfloat16, long>>;
TYPED_TEST_SUITE(ReshapeAndCache, IndexPairs, PairNames);

// Keys of 24 elements with values of 40, or keys alone.
TYPED_TEST(ReshapeAndCache, EveryHeadRowLandsAtItsSlot) {
    using T = typename TypeParam::X;
    using TID = typename TypeParam::W;
    const long H = 3, kd = 24;
    for (const Batch& s : batches()) {
        for (const long vd : {40L, 0L}) {
            SCOPED_TRACE(::testing::Message() << "block size " << s.block_size << ", v_dim " << vd);
            const long n = s.tokens(), bs = s.block_size;
            const auto k = activations<T>(n * H * kd, kd, 1), v = activations<T>(n * H * vd, vd, 2);
            const auto kc0 = random_bytes<T>(s.num_blocks * H * bs * kd, 3);
            const auto vc0 = random_bytes<T>(s.num_blocks * H * bs * vd, 4);
            const std::vector<int> slots = s.slots();
            auto kc = kc0, vc = vc0;
            for (long t = 0; t < n; ++t) {
                const long off = slots[t] % bs, base = slots[t] - off;
                for (long h = 0; h < H; ++h) {
                    std::copy_n(k.begin() + (t * H + h) * kd, kd, kc.begin() + base * H * kd + h * bs * kd + off * kd);
                    std::copy_n(v.begin() + (t * H + h) * vd, vd, vc.begin() + base * H * vd + h * bs * vd + off * vd);
                }
            }
            expect_model({raw(kc), raw(vc)}, [&](Context* ctx) {
                GuardedBuffer<T> kb(ctx, k), vb(ctx, v), kcb(ctx, kc0), vcb(ctx, vc0);
                GuardedBuffer<TID> sm(ctx, std::vector<TID>(slots.begin(), slots.end()));
                const int st = infer_ops::reshape_and_cache<T, TID>(ctx, kb.data(), given(vb), kcb.data(), given(vcb),
                                                                    sm.data(), n, s.num_blocks, H, kd, vd, bs);
                return Outcome{st, {raw(kcb), raw(vcb)}};
            }, kOpts);
        }
    }
}

// The store conversion from its table: clamp, then round half away from
// zero; unscaled signed char stores keep the low byte of the truncation.
template <class T, class TC>
TC converted(T x, const float* scale) {
    const float f = static_cast<float>(x);
    if (scale != nullptr) {
        const long q = std::lround(std::fmin(std::fmax(f * *scale, -128.0f), 127.0f));  // fmax drops a NaN: -128
        if constexpr (std::is_same_v<TC, signed char>) return static_cast<signed char>(q);
        else return TC(static_cast<float>(q));
    }
    if constexpr (std::is_same_v<TC, T>) {
        return x;
    } else {
        const long t = std::isfinite(f) && std::fabs(f) < 0x1p31f ? static_cast<long>(std::trunc(f)) : 0;
        return static_cast<signed char>(static_cast<unsigned char>(t & 0xff));
    }
}

template <class P>
class Store : public ::testing::Test {};
using StorePairs = ::testing::Types<Pair<float16, float16>, Pair<bfloat16, bfloat16>, Pair<float16, signed char>,
                                    Pair<bfloat16, signed char>>;
TYPED_TEST_SUITE(Store, StorePairs, PairNames);

// store_paged_kv_cache by slot, and store_kv_cache into the slot-major
// cache, sequence b into row rows[b] from position starts[b]; heads longer
// than the kernels' conversion chunk at block size 1.
TYPED_TEST(Store, RowsLandAtTheirSlots) {
    using T = typename TypeParam::X;
    using TC = typename TypeParam::W;
    for (const Batch& s : batches()) {
        const long n = s.tokens(), H = 2, D = s.block_size == 1 ? 576 : 64, bs = s.block_size;
        const long len = s.max_blocks_per_seq * bs;
        const auto key = activations<T>(n * H * D, D, 5), value = activations<T>(n * H * D, D, 6);
        const auto ks = random_tensor<float>(H * D, 7, RandomSpec::range(-60, 60));
        const auto vs = random_tensor<float>(H * D, 8, RandomSpec::range(-60, 60));
        const std::vector<int> slots = s.slots();
        for (const bool paged : {true, false}) {
            for (const auto& [values, scales] : {std::tuple{true, true}, {true, false}, {false, true}}) {
                SCOPED_TRACE(::testing::Message() << "block size " << s.block_size << (paged ? " paged" : " slot-major")
                                                  << ", values " << values << ", scales " << scales);
                const auto kc0 = random_bytes<TC>(paged ? s.num_blocks * H * bs * D : s.max_batch * H * len * D, 9);
                const auto vc0 = random_bytes<TC>(kc0.size(), 10);
                auto kc = kc0, vc = vc0;
                for (long b = 0; b < s.batch(); ++b) {
                    for (long t = s.lod[b]; t < s.lod[b + 1]; ++t) {
                        for (long h = 0; h < H; ++h) {
                            const long row = paged ? ((slots[t] / bs * H + h) * bs + slots[t] % bs) * D
                                                   : ((s.rows[b] * H + h) * len + s.starts[b] + t - s.lod[b]) * D;
                            for (long d = 0, src = (t * H + h) * D; d < D; ++d) {
                                kc[row + d] = converted<T, TC>(key[src + d], scales ? &ks[h * D + d] : nullptr);
                                if (values) vc[row + d] = converted<T, TC>(value[src + d], scales ? &vs[h * D + d] : nullptr);
                            }
                        }
                    }
                }
                expect_model({raw(kc), raw(vc)}, [&](Context* ctx) {
                    GuardedBuffer<T> kb(ctx, key), vb(ctx, value);
                    GuardedBuffer<TC> kcb(ctx, kc0), vcb(ctx, vc0);
                    GuardedBuffer<float> ksb(ctx, ks), vsb(ctx, vs);
                    GuardedBuffer<int> sm(ctx, slots), ids(ctx, s.rows), offsets(ctx, s.starts), lod(ctx, s.lod);
                    const int st =
                        paged ? infer_ops::store_paged_kv_cache<T, TC>(
                                    ctx, kb.data(), given(vb, values), kcb.data(), given(vcb, values), sm.data(),
                                    given(ksb, scales), given(vsb, scales), n, H, D, s.num_blocks, bs)
                              : infer_ops::store_kv_cache<T, TC>(
                                    ctx, kb.data(), given(vb, values), kcb.data(), given(vcb, values), ids.data(),
                                    offsets.data(), lod.data(), given(ksb, scales), given(vsb, scales), s.batch(), n,
                                    s.max_batch, len, H, D);
                    return Outcome{st, {raw(kcb), raw(vcb)}};
                }, kOpts);
            }
        }
    }
}

// The conversion at its edges: x * scale and the q its table gives, as the
// elements of one head of one token.
struct Edge { float x, scale; int q; };
constexpr Edge kEdges[] = {
    {126.5f, 1, 127},   {-128.7f, 1, -128}, {127.9f, 1, 127}, {-127.5f, 1, -128}, {2.5f, 1, 3},   {-2.5f, 1, -3},
    {0.5f, 1, 1},       {-0.5f, 1, -1},     {1.25f, 1, 1},    {31.625f, 4, 127},  {0.5f, 4, 2},   {1e9f, 1, 127},
    {-1e9f, 1, -128},   {-0.0f, 1, 0},      {300.0f, 0.5f, 127}, {-1.75f, 1, -2}, {129.5f, 1, 127},
    {INFINITY, 1, 127}, {-INFINITY, 1, -128}, {NAN, 1, -128}, {INFINITY, 0, -128}, {-1.75f, -2, 4}};

TYPED_TEST(Store, ConversionAtItsEdges) {
    using T = typename TypeParam::X;
    using TC = typename TypeParam::W;
    constexpr long D = 64;
    std::vector<T> x(D, T(0.0f));
    std::vector<float> scale(D, 1.0f);
    for (std::size_t i = 0; i < std::size(kEdges); ++i) {
        x[i] = T(kEdges[i].x);
        scale[i] = kEdges[i].scale;
        EXPECT_EQ(static_cast<int>(converted<T, signed char>(x[i], &scale[i])), kEdges[i].q) << kEdges[i].x;
    }
    x[40] = T(4000.0f);  // unscaled signed char stores keep the low byte of the truncation
    x[41] = T(-300.9f);
    for (const bool scaled : {true, false}) {
        std::vector<TC> model(D);
        for (long d = 0; d < D; ++d) model[d] = converted<T, TC>(x[d], scaled ? &scale[d] : nullptr);
        expect_model({raw(model)}, [&](Context* ctx) {
            GuardedBuffer<T> kb(ctx, x);
            GuardedBuffer<TC> kc(ctx, random_bytes<TC>(D, 14));
            GuardedBuffer<float> sb(ctx, scale);
            GuardedBuffer<int> slot(ctx, std::vector<int>{0});
            const int st = infer_ops::store_paged_kv_cache<T, TC>(ctx, kb.data(), nullptr, kc.data(), nullptr,
                                                                  slot.data(), given(sb, scaled), given(sb, scaled), 1,
                                                                  1, D, 1, 1);
            return Outcome{st, {raw(kc)}};
        }, kOpts);
    }
}

template <class TC>
class ReshapeAndCachedLod : public ::testing::Test {};
using LodCaches = ::testing::Types<float16, signed char>;
TYPED_TEST_SUITE(ReshapeAndCachedLod, LodCaches, ElementTypeNames);

// A signed char cache quantises each head row against its head's scale or,
// without scales, the row's own largest magnitude. The host folds the batch
// maxima and keeps the tensor maxima; the device leaves both as they were.
// Heads longer than the kernel's chunk at block size 1.
TYPED_TEST(ReshapeAndCachedLod, SequencesLandThroughTheBlockTable) {
    using TC = TypeParam;
    constexpr long M = 3, H = 3;
    for (const Batch& s : batches()) {
        const long n = s.tokens(), D = s.block_size == 1 ? 600 : 40, bs = s.block_size, mb = s.max_batch;
        const auto k = activations<float16>(n * H * D, D, 15), v = activations<float16>(n * H * D, D, 16);
        const std::vector<float> scale = {1.5f, 0.0f, 0.25f}, m0(M, 9.0f);
        const auto bm0 = random_tensor<float>(M * mb, 19, RandomSpec::range(0, 4));
        for (const char* layout : {"BHLD", "BLHD"}) {
            for (const bool extras : {false, true}) {  // scales and maxima
                SCOPED_TRACE(::testing::Message() << "block size " << bs << " " << layout << " extras " << extras);
                const auto kc0 = random_bytes<TC>(s.num_blocks * H * bs * D, 17), vc0 = random_bytes<TC>(kc0.size(), 18);
                std::vector<TC> cache[2] = {kc0, vc0};
                std::vector<float> bm[2] = {bm0, bm0}, mx[2] = {m0, m0};
                for (long c = 0; c < 2 && extras; ++c) mx[c].assign(M, 0.0f);
                for (long b = 0; b < s.batch(); ++b) {
                    const long S = s.lod[b + 1] - s.lod[b], r = s.rows[b];
                    for (long c = 0; c < 2 && extras; ++c) {
                        for (long i = 1; i < M; ++i) {
                            bm[c][r] = std::max(bm[c][r], bm[c][i * mb + r]);
                            bm[c][i * mb + r] = 0.0f;
                        }
                    }
                    for (long h = 0; h < H; ++h) {
                        for (long j = 0; j < S; ++j) {
                            const long pos = s.starts[b] + j, blk = s.table[r * s.max_blocks_per_seq + pos / bs];
                            const long src = layout[1] == 'L' ? ((s.lod[b] + j) * H + h) * D : (s.lod[b] * H + h * S + j) * D;
                            const long dst = ((blk * H + h) * bs + pos % bs) * D;
                            for (long c = 0; c < 2; ++c) {
                                const float16* x = (c ? v : k).data() + src;
                                float amax = 0.0f, s8 = infer_ops::quant::kScaleFloor;
                                for (long d = 0; d < D; ++d) {
                                    const float a = std::fabs(static_cast<float>(x[d]));
                                    amax = a > amax ? a : amax;
                                    s8 = a > s8 ? a : s8;
                                }
                                if (extras) bm[c][r] = std::max(amax, bm[c][r]), s8 = scale[h];
                                for (long d = 0; d < D; ++d) {
                                    if constexpr (std::is_same_v<TC, float16>) cache[c][dst + d] = x[d];
                                    else cache[c][dst + d] = quant_fp32<signed char>(static_cast<float>(x[d]), s8);
                                }
                            }
                        }
                    }
                    for (long c = 0; c < 2 && extras; ++c) mx[c][0] = std::max(bm[c][r], mx[c][0]);
                }
                const std::vector<Bytes> model = {raw(cache[0]), raw(cache[1]), raw(bm[0]), raw(bm[1]), raw(mx[0]), raw(mx[1])};
                const std::vector<Bytes> untouched = {raw(cache[0]), raw(cache[1]), raw(bm0), raw(bm0), raw(m0), raw(m0)};
                expect_model(model, [&](Context* ctx) {
                    GuardedBuffer<float16> kb(ctx, k), vb(ctx, v);
                    GuardedBuffer<TC> kcb(ctx, kc0), vcb(ctx, vc0);
                    GuardedBuffer<int> table(ctx, s.table);
                    GuardedBuffer<float> sb(ctx, scale), kbm(ctx, bm0), vbm(ctx, bm0), km(ctx, m0), vm(ctx, m0);
                    const VectorParam<int> lod{s.lod.data(), s.batch() + 1}, starts{s.starts.data(), s.batch()},
                        rows{s.rows.data(), s.batch()};
                    const int st = infer_ops::reshape_and_cached_lod<float16, TC, int>(
                        ctx, kb.data(), vb.data(), kcb.data(), vcb.data(), table.data(), lod, starts, rows, s.batch(),
                        H, D, mb, bs, s.max_blocks_per_seq, layout, "HLD", given(sb, extras), given(sb, extras),
                        given(kbm, extras), given(vbm, extras), given(km, extras), given(vm, extras));
                    return Outcome{st, {raw(kcb), raw(vcb), raw(kbm), raw(vbm), raw(km), raw(vm)}};
                }, kOpts, kBothPaths, untouched);
            }
        }
    }
}

}  // namespace
