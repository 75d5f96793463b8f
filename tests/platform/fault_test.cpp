// Failure injection at every site, and bad input to the runtime: every
// failure comes back as a code, nothing aborts.
#include <climits>
#include <thread>
#include <tuple>

#include "platform_util.h"
#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
using platform_test::kNoop;
using tsuemu::Site;

// One call at each site that succeeds when nothing is injected; a pool
// allocation that gives null reads as -1.
struct SiteCase {
    Site site;
    int (*call)(Context* ctx, long* host, long* dev);
};

const SiteCase kSites[] = {
    {Site::Config, [](Context*, long*, long*) { return tsu_launch_config(1, 1, nullptr); }},
    {Site::ArgumentSet,
     [](Context*, long* host, long*) {
         tsu_launch_config(1, 1, nullptr);
         return tsu_launch_argument_set(host, sizeof *host, 0);
     }},
    {Site::Async,
     [](Context*, long*, long*) {
         tsu_launch_config(1, 1, nullptr);
         return tsu_launch_async(&kNoop);
     }},
    {Site::Memcpy, [](Context*, long* host, long* dev) { return tsu_memcpy(host, dev, 8, TSU_MEMCPY_D2H); }},
    {Site::HostToDevice,
     [](Context* ctx, long* host, long* dev) { return orvane::tsu::api::do_host2device(ctx, host, dev, 8); }},
    {Site::DeviceToHost,
     [](Context* ctx, long* host, long* dev) { return orvane::tsu::api::do_device2host(ctx, dev, host, 8); }},
    {Site::PoolAlloc,
     [](Context* ctx, long*, long*) { return ctx->gm_mgr.alloc(ctx->impl, 64, ctx->stream) ? 0 : -1; }},
};

TEST(Injection, TheChosenCallAtEachSiteFailsOnceWithTheChosenCode) {
    auto ctx = device_context();
    GuardedBuffer<long> dev(ctx.get(), 1);
    long host = 1;
    ctx->gm_mgr.save();
    for (const SiteCase& c : kSites) {
        const int code = 40 + static_cast<int>(c.site);
        tsuemu::inject_failure(c.site, 3, code);
        for (int n = 1; n <= 5; ++n) {
            const int want = n != 3 ? 0 : c.site == Site::PoolAlloc ? -1 : code;
            EXPECT_EQ(c.call(ctx.get(), &host, dev.data()), want) << "site " << int(c.site) << ", call " << n;
        }
    }
    tsuemu::clear_failures();
    ctx->gm_mgr.restore(ctx->stream);
    tsu_wait(nullptr);
}

TEST(BadInput, MallocOfNothingOrTooMuchFailsWithANullPointer) {
    const std::pair<unsigned long, int> cases[] = {{0, 3}, {0, 2}, {tsuemu::kGm3Size + 1, 3}, {ULONG_MAX, 3},
                                                   {tsuemu::kGm2Size + 1, 2}, {64, 0}, {64, 1}};
    for (const auto& [bytes, dev] : cases) {
        void* p = reinterpret_cast<void*>(0x1234);
        EXPECT_NE(tsu_malloc(&p, bytes, dev), TSU_SUCCESS) << bytes << " bytes of type " << dev;
        EXPECT_EQ(p, nullptr) << bytes << " bytes of type " << dev;
    }
}

TEST(BadInput, FreeOfAPointerNotHandedOutFails) {
    void* p = nullptr;
    long on_stack = 0;
    ASSERT_EQ(tsu_malloc(&p, 4096, 3), TSU_SUCCESS);
    EXPECT_NE(tsu_free(&on_stack), TSU_SUCCESS);
    EXPECT_NE(tsu_free(static_cast<char*>(p) + 256), TSU_SUCCESS) << "a pointer inside a block";
    EXPECT_EQ(tsu_free(p), TSU_SUCCESS);
    EXPECT_NE(tsu_free(p), TSU_SUCCESS) << "a second free";
}

// On a thread of its own, whose pending launch is fresh.
TEST(BadInput, LaunchCallsNeedAConfigurationAndArgumentsMustFitTheBlock) {
    std::thread([] {
        const long v = 1;
        EXPECT_EQ(tsu_launch_argument_set(&v, sizeof v, 0), TSU_ERROR_NOT_CONFIGURED);
        EXPECT_EQ(tsu_launch_async(&kNoop), TSU_ERROR_NOT_CONFIGURED);
        ASSERT_EQ(tsu_launch_config(1, 1, nullptr), TSU_SUCCESS);
        const std::size_t cap = tsuemu::kArgBlockCapacity;
        const unsigned char bytes[16] = {};
        for (const auto& [size, offset, ok] : {std::tuple{8ul, cap - 8, true}, std::tuple{8ul, cap - 7, false},
                                               std::tuple{0ul, cap, true}, std::tuple{1ul, cap, false},
                                               std::tuple{ULONG_MAX, 8ul, false}}) {
            EXPECT_EQ(tsu_launch_argument_set(bytes, size, offset) == TSU_SUCCESS, ok) << size << " at " << offset;
        }
        EXPECT_EQ(tsu_launch_async(&kNoop), TSU_SUCCESS) << "rejected arguments spoil no launch";
        EXPECT_EQ(tsu_launch_async(&kNoop), TSU_ERROR_NOT_CONFIGURED) << "a launch closes its configuration";
        tsu_wait(nullptr);
    }).join();
}

}  // namespace
