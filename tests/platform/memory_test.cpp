// The emulated memories lie where the address map says, to their last byte,
// and the scratch pools keep their stack discipline.
#include <string>
#include <vector>

#include "platform_util.h"
#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
using platform_test::classify;
using platform_test::Kind;
using platform_test::kind_name;

::testing::AssertionResult spans(std::uint32_t dev_type, const void* p, unsigned long bytes, Kind want) {
    const auto first = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t last = first + bytes - 1;
    const Kind a = classify(dev_type, first);
    const Kind b = classify(dev_type, last);
    if (a == want && b == want) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "device type " << dev_type << ": [0x" << std::hex << first << ", 0x"
                                         << last << "] classifies as " << kind_name(a) << " .. " << kind_name(b)
                                         << ", want " << kind_name(want);
}

TEST(DeviceMemory, Type3ArenaIsAlwaysPresent) {
    EXPECT_TRUE(tsuemu::gm_available(3));
}

TEST(DeviceMemory, OtherMemoriesArePresentOutsideTheSanitizer) {
    if (under_asan()) GTEST_SKIP() << "type-2 memory and the L3 windows lie in the sanitizer's shadow gap";
    EXPECT_TRUE(tsuemu::gm_available(2));
    EXPECT_TRUE(tsuemu::l3_available(2));
    EXPECT_TRUE(tsuemu::l3_available(3));
}

// One memory of the address map: who allocates from it, how big it is, and
// the device types whose classification must accept all of it.
struct MemoryCase {
    const char* name;
    int arena;
    bool l3;
    unsigned long size;
    std::uint64_t base;
    std::vector<std::uint32_t> classified_by;
};

void PrintTo(const MemoryCase& c, std::ostream* os) { *os << c.name; }

class MemoryRange : public ::testing::TestWithParam<MemoryCase> {
protected:
    void* alloc(unsigned long bytes) const {
        const MemoryCase& c = GetParam();
        if (c.l3) return tsuemu::l3_alloc(c.arena, bytes);
        void* p = nullptr;
        const int rc = tsu_malloc(&p, bytes, c.arena);
        EXPECT_EQ(rc == TSU_SUCCESS, p != nullptr) << "status and pointer disagree";
        return p;
    }
    int release(void* p) const { return GetParam().l3 ? tsuemu::l3_free(p) : tsu_free(p); }
    bool present() const {
        const MemoryCase& c = GetParam();
        return c.l3 ? tsuemu::l3_available(c.arena) : tsuemu::gm_available(c.arena);
    }
    Kind kind() const { return GetParam().l3 ? Kind::L3 : Kind::GM; }
};

TEST_P(MemoryRange, SmallBlocksClassifyToTheirLastByte) {
    if (!present()) {
        const bool must_exist = !under_asan() || (!GetParam().l3 && GetParam().arena == 3);
        if (must_exist) FAIL() << GetParam().name << " is absent";
        GTEST_SKIP() << GetParam().name << " is absent under the sanitizer";
    }
    std::vector<void*> blocks;
    for (unsigned long bytes : {1ul, 63ul, 256ul, 4097ul, 1ul << 20}) {
        void* p = alloc(bytes);
        ASSERT_NE(p, nullptr) << bytes << " bytes";
        blocks.push_back(p);
        for (std::uint32_t dev : GetParam().classified_by) EXPECT_TRUE(spans(dev, p, bytes, kind()));
        // Host code dereferences device memory directly, at both ends.
        auto* c = static_cast<unsigned char*>(p);
        c[0] = 0x5a;
        EXPECT_EQ(c[0], 0x5a);
        c[bytes - 1] = 0xa5;
        EXPECT_EQ(c[bytes - 1], 0xa5);
    }
    for (void* p : blocks) EXPECT_EQ(release(p), TSU_SUCCESS);
}

// The whole memory in one block: its last byte still classifies, nothing
// more fits, and after the release the space coalesces again.
TEST_P(MemoryRange, WholeMemoryClassifiesAndThenIsExhausted) {
    if (!present()) GTEST_SKIP() << GetParam().name << " is absent";
    const MemoryCase& c = GetParam();
    void* all = alloc(c.size);
    ASSERT_NE(all, nullptr) << "the memory is not empty: a block of an earlier test leaked";
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(all), c.base);
    for (std::uint32_t dev : c.classified_by) EXPECT_TRUE(spans(dev, all, c.size, kind()));
    static_cast<unsigned char*>(all)[c.size - 1] = 1;
    EXPECT_EQ(alloc(1), nullptr);
    EXPECT_EQ(release(all), TSU_SUCCESS);

    void* half1 = alloc(c.size / 2);
    void* half2 = alloc(c.size / 2);
    ASSERT_NE(half1, nullptr);
    ASSERT_NE(half2, nullptr);
    EXPECT_EQ(release(half1), TSU_SUCCESS);
    EXPECT_EQ(release(half2), TSU_SUCCESS);
    void* again = alloc(c.size);
    EXPECT_EQ(again, all) << "freed neighbours did not coalesce";
    EXPECT_EQ(release(again), TSU_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(
    AddressMap, MemoryRange,
    ::testing::Values(MemoryCase{"gm3", 3, false, tsuemu::kGm3Size, tsuemu::kGm3Base, {3, 4, 5}},
                      MemoryCase{"gm2", 2, false, tsuemu::kGm2Size, tsuemu::kGm2Base, {2}},
                      MemoryCase{"l3_tsu3", 3, true, tsuemu::kL3Tsu3Size, tsuemu::kL3Tsu3Base, {3, 4, 5}},
                      MemoryCase{"l3_tsu2", 2, true, tsuemu::kL3Tsu2Size, tsuemu::kL3Tsu2Base, {2}}),
    [](const auto& p) { return std::string(p.param.name); });

// ---- contexts ------------------------------------------------------------------------------
class ContextPools : public ::testing::TestWithParam<DeviceType> {};

TEST_P(ContextPools, PoolsLieInTheirMemoryToTheLastByte) {
    const DeviceType type = GetParam();
    const auto dev = static_cast<std::uint32_t>(type);
    if (type == DeviceType::TSU2 && !tsuemu::gm_available(2)) GTEST_SKIP() << "no type-2 memory";
    const ContextOptions opts;
    auto ctx = make_context(type, opts);
    EXPECT_EQ(ctx->dev_type, dev);
    EXPECT_NE(ctx->stream, nullptr);
    ASSERT_EQ(ctx->gm_mgr.capacity(), opts.gm_pool_bytes);
    EXPECT_TRUE(spans(dev, ctx->gm_mgr.base(), ctx->gm_mgr.capacity(), Kind::GM));
    if (ctx->l3_mgr.capacity() == 0) {
        EXPECT_TRUE(under_asan()) << "the L3 pool is missing";
        EXPECT_EQ(ctx->l3_size, 0u);
        return;
    }
    EXPECT_EQ(ctx->l3_mgr.capacity(), opts.l3_pool_bytes);
    EXPECT_EQ(ctx->l3_size, opts.l3_pool_bytes);
    EXPECT_TRUE(spans(dev, ctx->l3_mgr.base(), ctx->l3_mgr.capacity(), Kind::L3));
}

INSTANTIATE_TEST_SUITE_P(DeviceTypes, ContextPools,
                         ::testing::Values(DeviceType::TSU2, DeviceType::TSU3, DeviceType::TSU4, DeviceType::TSU5),
                         [](const auto& p) { return "tsu" + std::to_string(static_cast<int>(p.param)); });

TEST(Context, HostAndTypeOneContextsHaveNoPools) {
    auto host = host_context();
    EXPECT_EQ(host->stream, nullptr);
    EXPECT_EQ(host->gm_mgr.capacity(), 0u);
    EXPECT_EQ(host->l3_mgr.capacity(), 0u);
    auto tsu1 = make_context(DeviceType::TSU1);
    EXPECT_NE(tsu1->stream, nullptr);
    EXPECT_EQ(tsu1->gm_mgr.capacity(), 0u);
    EXPECT_EQ(tsu1->gm_mgr.alloc(tsu1->impl, 64, tsu1->stream), nullptr);
}

TEST(Context, OptionsReachTheContext) {
    ContextOptions opts;
    opts.ncluster = 4;
    opts.ngmx = 2;
    opts.max_ptr_size = 77;
    opts.debug_flags = 0x10010;
    opts.sim_dev_type = 3;
    opts.l3_pool_bytes = 0;
    opts.gm_pool_bytes = 1 << 20;
    auto ctx = device_context(opts);
    EXPECT_EQ(ctx->ncluster, 4);
    EXPECT_EQ(ctx->ngmx, 2);
    EXPECT_EQ(ctx->max_ptr_size, 77);
    EXPECT_EQ(ctx->debug_level(), 0x10010u);
    EXPECT_EQ(ctx->sim_dev_type, 3u);
    EXPECT_EQ(ctx->l3_mgr.capacity(), 0u);
    EXPECT_EQ(ctx->l3_mgr.alloc(ctx->impl, 0, ctx->stream), nullptr) << "an absent pool serves nothing";
    EXPECT_EQ(ctx->gm_mgr.capacity(), 1ul << 20);
}

// A pool whose memory cannot be had is absent, not a failed context.
TEST(Context, OversizedPoolIsAbsent) {
    ContextOptions opts;
    opts.gm_pool_bytes = tsuemu::kGm3Size + 1;
    opts.l3_pool_bytes = tsuemu::kL3Tsu3Size + 1;
    auto ctx = device_context(opts);
    EXPECT_EQ(ctx->gm_mgr.capacity(), 0u);
    EXPECT_EQ(ctx->l3_mgr.capacity(), 0u);
    EXPECT_EQ(ctx->gm_mgr.alloc(ctx->impl, 1, ctx->stream), nullptr);
}

// ---- the scratch pools -------------------------------------------------------------------
class Pool : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        ctx_ = device_context();
        if (pool().capacity() == 0) GTEST_SKIP() << "pool absent in this process";
    }
    orvane::tsu::api::BufferMgr& pool() { return GetParam() ? ctx_->l3_mgr : ctx_->gm_mgr; }
    char* take(unsigned long bytes) { return static_cast<char*>(pool().alloc(ctx_->impl, bytes, ctx_->stream)); }
    char* base() { return static_cast<char*>(pool().base()); }

    std::unique_ptr<Context> ctx_;
};

TEST_P(Pool, MarksNestLastInFirstOut) {
    pool().save();
    char* a = take(100);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a, base());
    pool().save();
    char* b = take(1000);
    ASSERT_NE(b, nullptr);
    EXPECT_GE(b, a + 100);
    pool().save();
    char* c = take(10);
    pool().restore(ctx_->stream);  // gives back c
    EXPECT_EQ(take(10), c);
    pool().restore(ctx_->stream);  // gives back b and the second c
    EXPECT_EQ(pool().depth(), 1u);
    EXPECT_EQ(take(1000), b) << "the inner mark did not give back what was above it";
    pool().restore(ctx_->stream);
    EXPECT_EQ(pool().depth(), 0u);
    EXPECT_EQ(pool().top(), 0u);
    EXPECT_EQ(take(1), base());
    pool().restore(ctx_->stream);  // no mark left: nothing happens
    EXPECT_EQ(pool().depth(), 0u);
}

TEST_P(Pool, EveryBlockIs64ByteAligned) {
    pool().save();
    for (unsigned long bytes : {1ul, 3ul, 63ul, 64ul, 65ul, 127ul, 1000ul}) {
        char* p = take(bytes);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 64, 0u) << "after a block of " << bytes;
    }
    pool().restore(ctx_->stream);
}

TEST_P(Pool, ExhaustedPoolReturnsNullAndKeepsItsTop) {
    const unsigned long cap = pool().capacity();
    pool().save();
    EXPECT_EQ(take(cap + 1), nullptr);
    EXPECT_EQ(pool().top(), 0u);
    char* all = take(cap);
    EXPECT_EQ(all, base());
    EXPECT_EQ(take(1), nullptr);
    EXPECT_EQ(pool().top(), cap);
    EXPECT_EQ(take(~0ul), nullptr) << "a request that overflows the arithmetic";
    pool().restore(ctx_->stream);
    EXPECT_EQ(take(cap), base());
}

TEST_P(Pool, ZeroByteRequestGivesAPointerInsideThePool) {
    pool().save();
    take(10);
    char* z = take(0);
    ASSERT_NE(z, nullptr);
    EXPECT_GE(z, base());
    EXPECT_LE(z, base() + pool().capacity());
    char* next = take(1);
    EXPECT_GE(next, z) << "a zero-byte block must not overlap what follows it backwards";
    pool().restore(ctx_->stream);
}

INSTANTIATE_TEST_SUITE_P(BothPools, Pool, ::testing::Values(false, true),
                         [](const auto& p) { return p.param ? "l3" : "gm"; });

}  // namespace
