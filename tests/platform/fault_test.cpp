// Failure injection at every site, and bad input to the runtime: every
// failure comes back as a code, nothing aborts.
#include <climits>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "platform_util.h"
#include "support/tsuops_test.h"

namespace {

using namespace tsuops_test;
using platform_test::descriptor;
using platform_test::launch;
using tsuemu::Site;

const auto kNoop = descriptor(&platform_test::noop_entry, platform_test::kNoopName);

// Runs f on a thread of its own, whose pending launch is fresh.
void on_fresh_thread(const std::function<void()>& f) {
    std::thread t(f);
    t.join();
}

std::string site_name(Site site) {
    static const char* const names[] = {"Config",       "ArgumentSet",  "Async",    "Memcpy",
                                        "HostToDevice", "DeviceToHost", "PoolAlloc"};
    return names[static_cast<int>(site)];
}

// ---- injection ----------------------------------------------------------------------------
// One call at a site that succeeds when nothing is injected; its code, or
// -1 for a pool allocation that gave null.
class Injection : public ::testing::TestWithParam<Site> {
protected:
    void SetUp() override {
        tsuemu::clear_failures();
        ctx_ = device_context();
        ASSERT_GT(ctx_->gm_mgr.capacity(), 0u);
        ctx_->gm_mgr.save();
    }
    void TearDown() override {
        tsuemu::clear_failures();
        ctx_->gm_mgr.restore(ctx_->stream);
        tsu_wait(nullptr);
    }

    int call(Site site) {
        long host = 1;
        long* dev = static_cast<long*>(ctx_->gm_mgr.base());
        switch (site) {
        case Site::Config:
            return tsu_launch_config(1, 1, nullptr);
        case Site::ArgumentSet: {
            const int rc = tsu_launch_config(1, 1, nullptr);
            if (rc != TSU_SUCCESS) return 1000 + rc;
            return tsu_launch_argument_set(&host, sizeof host, 0);
        }
        case Site::Async: {
            const int rc = tsu_launch_config(1, 1, nullptr);
            if (rc != TSU_SUCCESS) return 1000 + rc;
            return tsu_launch_async(&kNoop);
        }
        case Site::Memcpy:
            return tsu_memcpy(&host, dev, sizeof host, TSU_MEMCPY_D2H);
        case Site::HostToDevice:
            return orvane::tsu::api::do_host2device(ctx_.get(), &host, dev, sizeof host);
        case Site::DeviceToHost:
            return orvane::tsu::api::do_device2host(ctx_.get(), dev, &host, sizeof host);
        case Site::PoolAlloc:
            return ctx_->gm_mgr.alloc(ctx_->impl, 64, ctx_->stream) ? 0 : -1;
        }
        return -2;
    }
    // What a failing call returns: the injected code, or null for the pool.
    static int failed(Site site, int code) { return site == Site::PoolAlloc ? -1 : code; }

    std::unique_ptr<Context> ctx_;
};

TEST_P(Injection, NthCallFailsOnceWithTheCode) {
    const Site site = GetParam();
    for (int nth : {1, 3}) {
        tsuemu::inject_failure(site, nth, 77 + nth);
        for (int call_no = 1; call_no <= nth + 3; ++call_no) {
            const int want = call_no == nth ? failed(site, 77 + nth) : 0;
            EXPECT_EQ(call(site), want) << "nth " << nth << ", call " << call_no;
        }
    }
}

TEST_P(Injection, NewInjectionReplacesTheOld) {
    const Site site = GetParam();
    tsuemu::inject_failure(site, 5, 11);
    tsuemu::inject_failure(site, 2, 22);
    std::vector<int> got;
    for (int i = 0; i < 7; ++i) got.push_back(call(site));
    EXPECT_EQ(got, (std::vector<int>{0, failed(site, 22), 0, 0, 0, 0, 0}));
}

TEST_P(Injection, ClearFailuresAndNonPositiveNthDisarm) {
    const Site site = GetParam();
    tsuemu::inject_failure(site, 1, 5);
    tsuemu::clear_failures();
    EXPECT_EQ(call(site), 0);
    tsuemu::inject_failure(site, 2, 5);
    tsuemu::inject_failure(site, 0, 5);
    EXPECT_EQ(call(site), 0);
    EXPECT_EQ(call(site), 0);
}

TEST_P(Injection, OtherSitesDoNotConsumeTheInjection) {
    const Site site = GetParam();
    tsuemu::inject_failure(site, 1, 33);
    for (Site other : {Site::Config, Site::ArgumentSet, Site::Async, Site::Memcpy, Site::HostToDevice,
                       Site::DeviceToHost, Site::PoolAlloc}) {
        if (other == site) continue;
        // Calls at the later launch sites configure on the way.
        if (site == Site::Config && (other == Site::ArgumentSet || other == Site::Async)) continue;
        EXPECT_EQ(call(other), 0) << site_name(other);
    }
    EXPECT_EQ(call(site), failed(site, 33));
}

INSTANTIATE_TEST_SUITE_P(Sites, Injection,
                         ::testing::Values(Site::Config, Site::ArgumentSet, Site::Async, Site::Memcpy,
                                           Site::HostToDevice, Site::DeviceToHost, Site::PoolAlloc),
                         [](const auto& p) { return site_name(p.param); });

TEST(InjectionEffects, FailedConfigOpensNoLaunch) {
    on_fresh_thread([] {
        tsuemu::inject_failure(Site::Config, 1, 9);
        EXPECT_EQ(tsu_launch_config(1, 1, nullptr), 9);
        EXPECT_EQ(tsu_launch_async(&kNoop), TSU_ERROR_NOT_CONFIGURED);
        tsuemu::clear_failures();
    });
}

TEST(InjectionEffects, FailedAsyncNeitherObservesNorRuns) {
    static std::atomic<int> runs{0};
    const auto counting = descriptor(+[](const unsigned char*) { ++runs; }, "_ZN4tsu35countEv");
    LaunchCapture cap;
    tsuemu::inject_failure(Site::Async, 1, 6);
    EXPECT_EQ(launch(counting, 1, 1, nullptr), 6);
    ASSERT_EQ(tsu_wait(nullptr), TSU_SUCCESS);
    EXPECT_EQ(cap.size(), 0u);
    EXPECT_EQ(runs.load(), 0);
    EXPECT_EQ(launch(counting, 1, 1, nullptr), TSU_SUCCESS);
    ASSERT_EQ(tsu_wait(nullptr), TSU_SUCCESS);
    EXPECT_EQ(runs.load(), 1);
    tsuemu::clear_failures();
}

TEST(InjectionEffects, FailedTransferCopiesNothing) {
    auto ctx = device_context();
    GuardedBuffer<long> x(ctx.get(), std::vector<long>{1, 2, 3});
    const std::vector<long> src{7, 8, 9};
    tsuemu::inject_failure(Site::HostToDevice, 1, 4);
    EXPECT_EQ(orvane::tsu::api::do_host2device(ctx.get(), src.data(), x.data(), 24), 4);
    EXPECT_EQ(x.download(), (std::vector<long>{1, 2, 3}));
    std::vector<long> out{0, 0, 0};
    tsuemu::inject_failure(Site::DeviceToHost, 1, 4);
    EXPECT_EQ(orvane::tsu::api::do_device2host(ctx.get(), x.data(), out.data(), 24), 4);
    EXPECT_EQ(out, (std::vector<long>{0, 0, 0}));
    tsuemu::clear_failures();
}

// ---- bad input ----------------------------------------------------------------------------------
TEST(BadInput, MallocRejectsWhatItCannotServe) {
    struct Case {
        unsigned long bytes;
        int dev_type;
    };
    for (const Case c : {Case{0, 3}, Case{0, 2}, Case{tsuemu::kGm3Size + 1, 3}, Case{ULONG_MAX, 3},
                         Case{tsuemu::kGm2Size + 1, 2}, Case{64, 0}, Case{64, 1}, Case{64, 4}, Case{64, 5},
                         Case{64, -1}}) {
        void* p = reinterpret_cast<void*>(0x1234);
        EXPECT_NE(tsu_malloc(&p, c.bytes, c.dev_type), TSU_SUCCESS) << c.bytes << " bytes, type " << c.dev_type;
        EXPECT_EQ(p, nullptr) << c.bytes << " bytes, type " << c.dev_type;
    }
    EXPECT_NE(tsu_malloc(nullptr, 64, 3), TSU_SUCCESS);
}

TEST(BadInput, FreeRejectsPointersItDidNotHandOut) {
    void* p = nullptr;
    ASSERT_EQ(tsu_malloc(&p, 4096, 3), TSU_SUCCESS);
    long on_stack = 0;
    EXPECT_NE(tsu_free(&on_stack), TSU_SUCCESS);
    EXPECT_NE(tsu_free(static_cast<char*>(p) + 256), TSU_SUCCESS) << "a pointer inside a block";
    EXPECT_NE(tsu_free(reinterpret_cast<void*>(tsuemu::kGm3Base + tsuemu::kGm3Size - 256)), TSU_SUCCESS);
    EXPECT_EQ(tsu_free(nullptr), TSU_SUCCESS);
    static_cast<char*>(p)[4095] = 1;  // still ours
    EXPECT_EQ(tsu_free(p), TSU_SUCCESS);
    EXPECT_NE(tsu_free(p), TSU_SUCCESS) << "a second free";
    EXPECT_NE(tsuemu::l3_free(&on_stack), TSU_SUCCESS);
    EXPECT_EQ(tsuemu::l3_free(nullptr), TSU_SUCCESS);
}

TEST(BadInput, LaunchCallsWithoutAPendingConfiguration) {
    on_fresh_thread([] {
        const long v = 1;
        EXPECT_EQ(tsu_launch_argument_set(&v, sizeof v, 0), TSU_ERROR_NOT_CONFIGURED);
        EXPECT_EQ(tsu_launch_async(&kNoop), TSU_ERROR_NOT_CONFIGURED);
        // A launch closes the configuration: the next async has none.
        ASSERT_EQ(launch(kNoop, 1, 1, nullptr), TSU_SUCCESS);
        EXPECT_EQ(tsu_launch_async(&kNoop), TSU_ERROR_NOT_CONFIGURED);
        EXPECT_EQ(tsu_launch_argument_set(&v, sizeof v, 0), TSU_ERROR_NOT_CONFIGURED);
        tsu_wait(nullptr);
    });
}

TEST(BadInput, ArgumentsMustFitTheBlock) {
    on_fresh_thread([] {
        const std::size_t cap = tsuemu::kArgBlockCapacity;
        unsigned char big[16] = {};
        ASSERT_EQ(tsu_launch_config(1, 1, nullptr), TSU_SUCCESS);
        struct Case {
            std::size_t bytes, offset;
            bool ok;
        };
        for (const Case c : {Case{8, cap - 8, true}, Case{4, cap - 4, true}, Case{0, cap, true},
                             Case{8, cap - 4, false}, Case{1, cap, false}, Case{16, cap - 15, false},
                             Case{1, SIZE_MAX, false}, Case{SIZE_MAX, 0, false}, Case{SIZE_MAX, 8, false}}) {
            const int rc = tsu_launch_argument_set(big, c.bytes, c.offset);
            EXPECT_EQ(rc == TSU_SUCCESS, c.ok) << c.bytes << " bytes at " << c.offset << ": " << rc;
        }
        EXPECT_NE(tsu_launch_argument_set(nullptr, 4, 0), TSU_SUCCESS) << "null source";
        EXPECT_EQ(tsu_launch_async(&kNoop), TSU_SUCCESS) << "rejected arguments do not spoil the launch";
        tsu_wait(nullptr);
    });
}

TEST(BadInput, ConfigAndAsyncRejectBadShapesStreamsAndDescriptors) {
    on_fresh_thread([] {
        void* bogus = reinterpret_cast<void*>(0x1000);
        EXPECT_NE(tsu_launch_config(0, 64, nullptr), TSU_SUCCESS);
        EXPECT_NE(tsu_launch_config(8, 0, nullptr), TSU_SUCCESS);
        EXPECT_NE(tsu_launch_config(-1, 64, nullptr), TSU_SUCCESS);
        EXPECT_NE(tsu_launch_config(8, 64, bogus), TSU_SUCCESS);
        ASSERT_EQ(tsu_launch_config(1, 1, nullptr), TSU_SUCCESS);
        EXPECT_NE(tsu_launch_async(nullptr), TSU_SUCCESS);
        const tsuemu::KernelDescriptor no_image{};
        EXPECT_NE(tsu_launch_async(&no_image), TSU_SUCCESS);
        EXPECT_EQ(tsu_launch_async(&kNoop), TSU_SUCCESS) << "the pending launch survives a bad descriptor";
        EXPECT_NE(tsu_wait(bogus), TSU_SUCCESS);
        EXPECT_NE(tsu_stream_destroy(bogus), TSU_SUCCESS);
        EXPECT_NE(tsu_stream_destroy(nullptr), TSU_SUCCESS);
        EXPECT_NE(tsu_stream_create(nullptr), TSU_SUCCESS);
        tsu_wait(nullptr);
    });
}

TEST(BadInput, MemcpyRejectsKindsAndNullsAndCopiesNothing) {
    long src = 5;
    long dst = 9;
    for (int kind : {-1, 3, 100, INT_MIN}) {
        EXPECT_NE(tsu_memcpy(&dst, &src, sizeof src, kind), TSU_SUCCESS) << "kind " << kind;
        EXPECT_EQ(dst, 9);
    }
    EXPECT_NE(tsu_memcpy(nullptr, &src, sizeof src, TSU_MEMCPY_D2H), TSU_SUCCESS);
    EXPECT_NE(tsu_memcpy(&dst, nullptr, sizeof src, TSU_MEMCPY_D2H), TSU_SUCCESS);
    EXPECT_EQ(tsu_memcpy(nullptr, nullptr, 0, TSU_MEMCPY_D2D), TSU_SUCCESS);
    for (int kind : {TSU_MEMCPY_D2H, TSU_MEMCPY_H2D, TSU_MEMCPY_D2D}) {
        dst = 0;
        EXPECT_EQ(tsu_memcpy(&dst, &src, sizeof src, kind), TSU_SUCCESS);
        EXPECT_EQ(dst, 5);
    }
}

TEST(BadInput, TransfersRejectNullContextNegativeSizesAndNulls) {
    using orvane::tsu::api::do_device2host;
    using orvane::tsu::api::do_host2device;
    auto ctx = device_context();
    long a = 1, b = 2;
    EXPECT_NE(do_host2device(nullptr, &a, &b, 8), 0);
    EXPECT_NE(do_host2device(ctx.get(), &a, &b, -8), 0);
    EXPECT_NE(do_device2host(ctx.get(), nullptr, &b, 8), 0);
    EXPECT_NE(do_device2host(ctx.get(), &a, nullptr, 8), 0);
    EXPECT_EQ(b, 2);
    EXPECT_EQ(do_device2host(ctx.get(), nullptr, nullptr, 0), 0);
    auto host = host_context();
    EXPECT_EQ(do_host2device(host.get(), &a, &b, 8), 0) << "a host context copies too";
    EXPECT_EQ(b, 1);
}

}  // namespace
