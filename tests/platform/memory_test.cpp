// The emulated memories lie where the address map of the frame says, to
// their last byte, and the scratch pools keep their stack discipline.
#include "frame/memory_region.h"
#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
using orvane::tsu::api::classify_address;
using orvane::tsu::api::MemoryKind;

::testing::AssertionResult spans(std::uint32_t dev_type, const void* p, unsigned long bytes, MemoryKind want) {
    const void* last = static_cast<const char*>(p) + bytes - 1;
    if (classify_address(dev_type, p) == want && classify_address(dev_type, last) == want) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "device type " << dev_type << ": [" << p << ", " << last
                                         << "] does not classify as kind " << static_cast<int>(want) << " throughout";
}

// The whole arena in one block: its last byte still classifies, nothing more
// fits, and host code reaches it directly.
TEST(DeviceMemory, WholeArenaIsGlobalMemoryToTheLastByte) {
    for (const auto& [dev, size] : {std::pair{3u, tsuemu::kGm3Size}, std::pair{2u, tsuemu::kGm2Size}}) {
        if (!tsuemu::gm_available(static_cast<int>(dev))) {
            EXPECT_TRUE(under_asan() && dev == 2) << "arena of type " << dev << " is absent";
            continue;
        }
        void* all = nullptr;
        void* more = nullptr;
        ASSERT_EQ(tsu_malloc(&all, size, dev), TSU_SUCCESS) << "a block of an earlier test leaked";
        EXPECT_TRUE(spans(dev, all, size, MemoryKind::GM));
        static_cast<unsigned char*>(all)[size - 1] = 1;
        EXPECT_NE(tsu_malloc(&more, 1, dev), TSU_SUCCESS);
        EXPECT_EQ(tsu_free(all), TSU_SUCCESS);
    }
}

TEST(DeviceMemory, ContextPoolsLieInTheirMemoryToTheLastByte) {
    for (const DeviceType type : {DeviceType::TSU2, DeviceType::TSU3}) {
        const auto dev = static_cast<std::uint32_t>(type);
        auto ctx = make_context(type);
        if (!tsuemu::gm_available(arena_of(type))) continue;  // type 2 under the sanitizer
        EXPECT_TRUE(spans(dev, ctx->gm_mgr.base(), ctx->gm_mgr.capacity(), MemoryKind::GM));
        if (ctx->l3_mgr.capacity() == 0 && under_asan()) continue;  // the L3 windows are absent under it
        EXPECT_TRUE(spans(dev, ctx->l3_mgr.base(), ctx->l3_mgr.capacity(), MemoryKind::L3));
    }
}

TEST(ScratchPool, MarksNestLastInFirstOutAndAnExhaustedPoolGivesNull) {
    auto ctx = device_context();
    for (orvane::tsu::api::BufferMgr* pool : {&ctx->gm_mgr, &ctx->l3_mgr}) {
        if (pool->capacity() == 0 && under_asan()) continue;
        ASSERT_GT(pool->capacity(), 0u);
        const auto take = [&](unsigned long n) { return static_cast<char*>(pool->alloc(ctx->impl, n, ctx->stream)); };
        char* const base = static_cast<char*>(pool->base());
        pool->save();
        char* a = take(100);
        EXPECT_EQ(a, base);
        pool->save();
        char* b = take(1000);
        EXPECT_GE(b, a + 100);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b) % 64, 0u);
        pool->save();
        char* c = take(10);
        pool->restore(ctx->stream);
        EXPECT_EQ(take(10), c);
        pool->restore(ctx->stream);  // gives back b and the second c
        EXPECT_EQ(take(1000), b) << "the inner mark did not give back what was above it";
        pool->restore(ctx->stream);
        EXPECT_EQ(pool->depth(), 0u);

        pool->save();
        EXPECT_EQ(take(pool->capacity() + 1), nullptr);
        EXPECT_EQ(take(pool->capacity()), base);
        EXPECT_EQ(take(1), nullptr);
        EXPECT_EQ(take(~0ul), nullptr) << "a request that overflows the arithmetic";
        pool->restore(ctx->stream);
        EXPECT_EQ(take(1), base);
    }
}

}  // namespace
