// The four cache stores: the host path against a model written here from
// the layout definitions (every byte of the caches, so nothing outside the
// addressed rows may change), and the device bit for bit against the host,
// over block sizes 1, 16 and 64, sequences off block boundaries, shuffled
// block tables and rows, with and without values, scales and maxima. Then
// the store conversion at its edges.
#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include "frame/quant_rules.h"
#include "wrapper/cache/cache_test.h"

namespace {

using namespace cache_test;

template <class A, class B>
struct Pair { using X = A; using Y = B; };
struct PairNames {
    template <class P>
    static std::string GetName(int) {
        return std::string(type_name<typename P::X>()) + "_" + type_name<typename P::Y>();
    }
};

// Host and device outcome of one call: the status and each output's bytes.
struct Outcome {
    int status;
    std::vector<std::vector<unsigned char>> out;
};

template <class Run>
void expect_model(const std::vector<std::vector<unsigned char>>& model, Run&& run) {
    auto host = host_context({.max_ptr_size = 3});
    auto dev = device_context({.ncluster = 1, .ngmx = 2, .max_ptr_size = 3});
    const Outcome h = run(host.get()), d = run(dev.get());
    ASSERT_EQ(h.status, 0);
    ASSERT_EQ(d.status, 0);
    for (std::size_t i = 0; i < model.size(); ++i) {
        EXPECT_TRUE(exactly_equal(model[i], h.out[i])) << "host, output " << i;
        EXPECT_TRUE(exactly_equal(h.out[i], d.out[i])) << "device, output " << i;
    }
}

template <class T>
T* data_or_null(GuardedBuffer<T>& b, bool given) { return given ? b.data() : nullptr; }

// ---- reshape_and_cache ----------------------------------------------------------------------------
template <class P>
class ReshapeAndCache : public ::testing::Test {};
using IndexPairs = ::testing::Types<Pair<float16, int>, Pair<float16, long>, Pair<float, int>, Pair<float, long>,
                                    Pair<bfloat16, int>, Pair<bfloat16, long>>;
TYPED_TEST_SUITE(ReshapeAndCache, IndexPairs, PairNames);

TYPED_TEST(ReshapeAndCache, EveryHeadRowLandsAtItsSlot) {
    using T = typename TypeParam::X;
    using TID = typename TypeParam::Y;
    const long kd = 24;
    for (const Batch& s : batches(3, 0)) {
        for (const bool keys_only : {false, true}) {
            SCOPED_TRACE(::testing::Message() << "block size " << s.block_size << (keys_only ? ", keys only" : ""));
            const long vd = keys_only ? 0 : 40, n = s.tokens(), H = s.heads, bs = s.block_size;
            const auto k = inputs<T>(n * H, kd, 1), v = inputs<T>(n * H, vd, 2);
            const auto kc0 = random_bytes<T>(s.num_blocks * H * bs * kd, 3), vc0 = random_bytes<T>(s.num_blocks * H * bs * vd, 4);
            const std::vector<int> slots = s.slots();
            // The flat position minus its offset is the block's first position.
            auto kc = kc0, vc = vc0;
            for (long t = 0; t < n; ++t) {
                const long off = slots[t] % bs, base = slots[t] - off;
                for (long h = 0; h < H; ++h) {
                    std::copy_n(k.data() + (t * H + h) * kd, kd, kc.data() + base * H * kd + h * bs * kd + off * kd);
                    std::copy_n(v.data() + (t * H + h) * vd, vd, vc.data() + base * H * vd + h * bs * vd + off * vd);
                }
            }
            expect_model({raw(kc), raw(vc)}, [&](Context* ctx) {
                GuardedBuffer<T> kb(ctx, k), vb(ctx, v), kcb(ctx, kc0), vcb(ctx, vc0);
                GuardedBuffer<TID> sm(ctx, std::vector<TID>(slots.begin(), slots.end()));
                const int st = infer_ops::reshape_and_cache<T, TID>(ctx, kb.data(), data_or_null(vb, !keys_only),
                                                                    kcb.data(), data_or_null(vcb, !keys_only), sm.data(),
                                                                    n, s.num_blocks, H, kd, vd, bs);
                return Outcome{st, {raw(kcb.download()), raw(vcb.download())}};
            });
        }
    }
}

// ---- store_paged_kv_cache and store_kv_cache --------------------------------------------------------
// The store conversion, from its table: clamp, then round half away from
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

// What both stores take besides their addressing.
template <class T>
struct StoreInputs {
    std::vector<T> key, value;
    std::vector<float> key_scale, value_scale;
    StoreInputs(long tokens, long heads, long dim)
        : key(inputs<T>(tokens * heads, dim, 5)), value(inputs<T>(tokens * heads, dim, 6)),
          key_scale(random_tensor<float>(heads * dim, 7, RandomSpec::range(-60, 60))),
          value_scale(random_tensor<float>(heads * dim, 8, RandomSpec::range(-60, 60))) {}
};

// Each case: values given, scales given.
constexpr std::tuple<bool, bool> kStoreCases[] = {{true, true}, {true, false}, {false, true}};

TYPED_TEST(Store, PagedRowsLandAtTheirSlots) {
    using T = typename TypeParam::X;
    using TC = typename TypeParam::Y;
    for (const Batch& s : batches(2, 64)) {
        for (const auto& [values, scales] : kStoreCases) {
            SCOPED_TRACE(::testing::Message() << "block size " << s.block_size << " values " << values << " scales "
                                              << scales);
            const long n = s.tokens(), H = s.heads, D = s.dim, bs = s.block_size;
            StoreInputs<T> in(n, H, D);
            const auto kc0 = random_bytes<TC>(s.num_blocks * H * bs * D, 9), vc0 = random_bytes<TC>(kc0.size(), 10);
            const std::vector<int> slots = s.slots();
            auto kc = kc0, vc = vc0;
            for (long t = 0; t < n; ++t) {
                for (long h = 0; h < H; ++h) {
                    for (long d = 0; d < D; ++d) {
                        const long dst = ((slots[t] / bs * H + h) * bs + slots[t] % bs) * D + d, src = (t * H + h) * D + d;
                        kc[dst] = converted<T, TC>(in.key[src], scales ? &in.key_scale[h * D + d] : nullptr);
                        if (values) vc[dst] = converted<T, TC>(in.value[src], scales ? &in.value_scale[h * D + d] : nullptr);
                    }
                }
            }
            expect_model({raw(kc), raw(vc)}, [&](Context* ctx) {
                GuardedBuffer<T> kb(ctx, in.key), vb(ctx, in.value);
                GuardedBuffer<TC> kcb(ctx, kc0), vcb(ctx, vc0);
                GuardedBuffer<float> ks(ctx, in.key_scale), vs(ctx, in.value_scale);
                GuardedBuffer<int> sm(ctx, slots);
                const int st = infer_ops::store_paged_kv_cache<T, TC>(
                    ctx, kb.data(), data_or_null(vb, values), kcb.data(), data_or_null(vcb, values), sm.data(),
                    data_or_null(ks, scales), data_or_null(vs, scales), n, H, D, s.num_blocks, bs);
                return Outcome{st, {raw(kcb.download()), raw(vcb.download())}};
            });
        }
    }
}

// Sequence b goes to slot rows[b] from position starts[b]: the slot-major
// cache. The sequence of a token is the one whose x_lod range holds it.
TYPED_TEST(Store, SequencesLandInTheirSlotRows) {
    using T = typename TypeParam::X;
    using TC = typename TypeParam::Y;
    // Heads longer than the kernels' conversion chunk.
    const Batch s = make_batch(11, 2, 576, 1, {5, 23, 1, 9}, {3, 60, 0, 17});
    const long n = s.tokens(), H = s.heads, D = s.dim, max_slots = s.max_batch, len = 84;
    for (const auto& [values, scales] : kStoreCases) {
        SCOPED_TRACE(::testing::Message() << "values " << values << " scales " << scales);
        StoreInputs<T> in(n, H, D);
        const auto kc0 = random_bytes<TC>(max_slots * H * len * D, 12), vc0 = random_bytes<TC>(kc0.size(), 13);
        auto kc = kc0, vc = vc0;
        for (long b = 0; b < s.batch(); ++b) {
            for (long t = s.lod[b]; t < s.lod[b + 1]; ++t) {
                for (long h = 0; h < H; ++h) {
                    for (long d = 0; d < D; ++d) {
                        const long dst = ((s.rows[b] * H + h) * len + s.starts[b] + t - s.lod[b]) * D + d;
                        const long src = (t * H + h) * D + d;
                        kc[dst] = converted<T, TC>(in.key[src], scales ? &in.key_scale[h * D + d] : nullptr);
                        if (values) vc[dst] = converted<T, TC>(in.value[src], scales ? &in.value_scale[h * D + d] : nullptr);
                    }
                }
            }
        }
        expect_model({raw(kc), raw(vc)}, [&](Context* ctx) {
            GuardedBuffer<T> kb(ctx, in.key), vb(ctx, in.value);
            GuardedBuffer<TC> kcb(ctx, kc0), vcb(ctx, vc0);
            GuardedBuffer<float> ks(ctx, in.key_scale), vs(ctx, in.value_scale);
            GuardedBuffer<int> slot_id(ctx, s.rows), offset(ctx, s.starts), x_lod(ctx, s.lod);
            const int st = infer_ops::store_kv_cache<T, TC>(
                ctx, kb.data(), data_or_null(vb, values), kcb.data(), data_or_null(vcb, values), slot_id.data(),
                offset.data(), x_lod.data(), data_or_null(ks, scales), data_or_null(vs, scales), s.batch(), n,
                max_slots, len, H, D);
            return Outcome{st, {raw(kcb.download()), raw(vcb.download())}};
        });
    }
}

// The conversion at its edges: x * scale, the q its table gives, for one
// token of one head whose elements are these cases.
struct Edge { float x, scale; int q; };
constexpr Edge kEdges[] = {
    {126.5f, 1, 127},   {-128.7f, 1, -128}, {127.9f, 1, 127}, {-127.5f, 1, -128}, {2.5f, 1, 3},   {-2.5f, 1, -3},
    {0.5f, 1, 1},       {-0.5f, 1, -1},     {1.25f, 1, 1},    {31.625f, 4, 127},  {0.5f, 4, 2},   {1e9f, 1, 127},
    {-1e9f, 1, -128},   {-0.0f, 1, 0},      {300.0f, 0.5f, 127}, {-1.75f, 1, -2}, {129.5f, 1, 127},
    {INFINITY, 1, 127}, {-INFINITY, 1, -128}, {NAN, 1, -128}, {INFINITY, 0, -128}, {-1.75f, -2, 4}};

TYPED_TEST(Store, ConversionAtItsEdges) {
    using T = typename TypeParam::X;
    using TC = typename TypeParam::Y;
    constexpr long D = 64;
    std::vector<T> x(D, T(0.0f));
    std::vector<float> scale(D, 1.0f);
    for (std::size_t i = 0; i < std::size(kEdges); ++i) {
        x[i] = T(kEdges[i].x);
        scale[i] = kEdges[i].scale;
        EXPECT_EQ(static_cast<int>(converted<T, signed char>(x[i], &scale[i])), kEdges[i].q) << kEdges[i].x;
    }
    // Unscaled signed char stores keep the low byte of the truncation.
    x[40] = T(4000.0f);
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
                                                                  slot.data(), data_or_null(sb, scaled),
                                                                  data_or_null(sb, scaled), 1, 1, D, 1, 1);
            return Outcome{st, {raw(kc.download())}};
        });
    }
}

// ---- reshape_and_cached_lod ---------------------------------------------------------------------------
template <class TC>
class ReshapeAndCachedLod : public ::testing::Test {};
using LodCaches = ::testing::Types<float16, signed char>;
TYPED_TEST_SUITE(ReshapeAndCachedLod, LodCaches, ElementTypeNames);

TYPED_TEST(ReshapeAndCachedLod, SequencesLandThroughTheBlockTable) {
    using TC = TypeParam;
    constexpr long M = 3;  // the contexts' max_ptr_size
    std::vector<Batch> sweep = batches(3, 40);
    sweep.push_back(make_batch(20, 3, 600, 16, {4, 9}, {13, 0}));  // heads longer than the kernel's chunk
    for (const Batch& s : sweep) {
        for (const char* layout : {"BHLD", "BLHD"}) {
            for (const bool extras : {false, true}) {  // scales and maxima
                SCOPED_TRACE(::testing::Message() << "block size " << s.block_size << " " << layout << " extras "
                                                  << extras);
                const long n = s.tokens(), H = s.heads, D = s.dim, bs = s.block_size, mb = s.max_batch;
                const bool blhd = layout[1] == 'L';
                const auto k = inputs<float16>(n * H, D, 15), v = inputs<float16>(n * H, D, 16);
                const auto kc0 = random_bytes<TC>(s.num_blocks * H * bs * D, 17), vc0 = random_bytes<TC>(kc0.size(), 18);
                const std::vector<float> scale = {1.5f, 0.0f, 0.25f};
                const auto bm0 = random_tensor<float>(M * mb, 19, RandomSpec::range(0, 4)), m0 = std::vector<float>(M, 9.0f);
                auto kc = kc0, vc = vc0;
                auto kbm = bm0, vbm = bm0, km = m0, vm = m0;
                if (extras) {
                    km.assign(M, 0.0f);
                    vm.assign(M, 0.0f);
                }
                for (long b = 0; b < s.batch(); ++b) {
                    const long S = s.lod[b + 1] - s.lod[b], r = s.rows[b];
                    for (long i = 1; extras && i < M; ++i) {
                        for (auto* bm : {&kbm, &vbm}) {
                            (*bm)[r] = std::max((*bm)[r], (*bm)[i * mb + r]);
                            (*bm)[i * mb + r] = 0.0f;
                        }
                    }
                    for (long h = 0; h < H; ++h) {
                        for (long j = 0; j < S; ++j) {
                            const long pos = s.starts[b] + j, blk = s.table[r * s.max_blocks_per_seq + pos / bs];
                            const long src = blhd ? ((s.lod[b] + j) * H + h) * D : s.lod[b] * H * D + (h * S + j) * D;
                            const long dst = ((blk * H + h) * bs + pos % bs) * D;
                            for (auto [x, c, bm] : {std::tuple{&k, &kc, &kbm}, std::tuple{&v, &vc, &vbm}}) {
                                float amax = 0.0f, s8 = infer_ops::quant::kScaleFloor;
                                for (long d = 0; d < D; ++d) {
                                    const float a = std::fabs(static_cast<float>((*x)[src + d]));
                                    amax = a > amax ? a : amax;
                                    s8 = a > s8 ? a : s8;
                                }
                                if (extras) (*bm)[r] = std::max(amax, (*bm)[r]);
                                if (extras) s8 = scale[h];
                                for (long d = 0; d < D; ++d) {
                                    if constexpr (std::is_same_v<TC, float16>) (*c)[dst + d] = (*x)[src + d];
                                    else (*c)[dst + d] = quant_fp32<signed char>(static_cast<float>((*x)[src + d]), s8);
                                }
                            }
                        }
                    }
                    if (extras) {
                        km[0] = std::max(kbm[r], km[0]);
                        vm[0] = std::max(vbm[r], vm[0]);
                    }
                }
                // The device path leaves the maxima as they were.
                auto host = host_context({.max_ptr_size = M});
                auto dev = device_context({.ngmx = 2, .max_ptr_size = M});
                for (Context* ctx : {host.get(), dev.get()}) {
                    GuardedBuffer<float16> kb(ctx, k), vb(ctx, v);
                    GuardedBuffer<TC> kcb(ctx, kc0), vcb(ctx, vc0);
                    GuardedBuffer<int> table(ctx, s.table);
                    GuardedBuffer<float> sb(ctx, scale), kbmb(ctx, bm0), vbmb(ctx, bm0), kmb(ctx, m0), vmb(ctx, m0);
                    const VectorParam<int> lod{s.lod.data(), s.batch() + 1}, starts{s.starts.data(), s.batch()},
                        rows{s.rows.data(), s.batch()};
                    ASSERT_EQ((infer_ops::reshape_and_cached_lod<float16, TC, int>(
                                  ctx, kb.data(), vb.data(), kcb.data(), vcb.data(), table.data(), lod, starts, rows,
                                  s.batch(), H, D, mb, bs, s.max_blocks_per_seq, layout, "HLD",
                                  data_or_null(sb, extras), data_or_null(sb, extras), data_or_null(kbmb, extras),
                                  data_or_null(vbmb, extras), data_or_null(kmb, extras), data_or_null(vmb, extras))),
                              0);
                    const bool on_host = ctx->dev_type == 0;
                    EXPECT_TRUE(exactly_equal(raw(kc), raw(kcb.download()))) << on_host;
                    EXPECT_TRUE(exactly_equal(raw(vc), raw(vcb.download()))) << on_host;
                    for (auto [got, want, init] : {std::tuple{&kbmb, &kbm, &bm0}, std::tuple{&vbmb, &vbm, &bm0},
                                                   std::tuple{&kmb, &km, &m0}, std::tuple{&vmb, &vm, &m0}}) {
                        EXPECT_TRUE(exactly_equal(on_host ? *want : *init, got->download())) << on_host;
                    }
                }
            }
        }
    }
}

}  // namespace
