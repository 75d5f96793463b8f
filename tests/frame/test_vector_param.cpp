// Length-offset parameters: when to_tsu uploads, where the copy lives, and
// that every failure is a silent null.
#include <ostream>
#include <vector>

#include <tsuops/vector_param.h>

#include "support/tsuops_test.h"

namespace {

using orvane::tsu::api::ContextOptions;
using orvane::tsu::api::ctx_guard;
using orvane::tsu::api::VectorParam;
using tsuops_test::device_context;
using tsuops_test::host_context;
using tsuops_test::LogCapture;

template <class T>
std::vector<T> read_back(orvane::tsu::api::Context* ctx, const T* dev, long n) {
    std::vector<T> out(static_cast<std::size_t>(n));
    EXPECT_EQ(orvane::tsu::api::do_device2host(ctx, dev, out.data(), n * static_cast<long>(sizeof(T))), 0);
    return out;
}

bool within(const void* p, const orvane::tsu::api::BufferMgr& mgr) {
    const auto* base = static_cast<const char*>(mgr.base());
    const auto* q = static_cast<const char*>(p);
    return base != nullptr && q >= base && q < base + mgr.capacity();
}

template <class T>
class VectorParamTyped : public ::testing::Test {};
using Elements = ::testing::Types<int, long>;
TYPED_TEST_SUITE(VectorParamTyped, Elements);

// Two parameters upload in order into general scratch, the second above
// the first, and both are given back with the guard.
TYPED_TEST(VectorParamTyped, UploadsIntoGeneralScratch) {
    using T = TypeParam;
    auto ctx = device_context();
    LogCapture logs;
    const std::vector<T> lod = {0, 3, 7, 12, 20};
    const std::vector<T> starts = {5, 1, 4};
    {
        ctx_guard guard(ctx.get());
        const VectorParam<T> a{lod.data(), static_cast<long>(lod.size())};
        const VectorParam<T> b{starts.data(), static_cast<long>(starts.size())};
        const VectorParam<T> a_tsu = a.to_tsu(guard);
        const VectorParam<T> b_tsu = b.to_tsu(guard);
        ASSERT_NE(a_tsu.tsu, nullptr);
        ASSERT_NE(b_tsu.tsu, nullptr);
        EXPECT_EQ(a_tsu.cpu, a.cpu);
        EXPECT_EQ(a_tsu.len, a.len);
        EXPECT_EQ(a.tsu, nullptr);
        EXPECT_TRUE(within(a_tsu.tsu, ctx->gm_mgr));
        EXPECT_GE(b_tsu.tsu, a_tsu.tsu + a.len);
        EXPECT_EQ(read_back(ctx.get(), a_tsu.tsu, a.len), lod);
        EXPECT_EQ(read_back(ctx.get(), b_tsu.tsu, b.len), starts);
    }
    EXPECT_EQ(ctx->gm_mgr.top(), 0u);
    EXPECT_TRUE(logs.failures().empty());
}

// A caller's device copy is used as it is, even when it differs from the
// host copy: nothing is allocated or copied. On a host context a device
// pointer passes through and none is made.
TEST(VectorParam, CallerCopyAndHostPassThrough) {
    auto ctx = device_context();
    const std::vector<int> host = {0, 1, 2};
    ctx_guard setup(ctx.get());
    int* dev = setup.alloc<int>(3);
    const std::vector<int> other = {9, 9, 9};
    ASSERT_EQ(orvane::tsu::api::do_host2device(ctx.get(), other.data(), dev, 12), 0);
    const unsigned long top = ctx->gm_mgr.top();
    {
        ctx_guard guard(ctx.get());
        const VectorParam<int> p{host.data(), 3, dev};
        EXPECT_EQ(p.to_tsu(guard).tsu, dev);
        EXPECT_EQ(ctx->gm_mgr.top(), top);
    }
    EXPECT_EQ(read_back(ctx.get(), dev, 3), other);

    auto cpu = host_context();
    ctx_guard guard(cpu.get());
    long marker = 0;
    const long values[2] = {0, 4};
    const VectorParam<long> with_dev{values, 2, &marker};
    const VectorParam<long> without{values, 2};
    EXPECT_EQ(with_dev.to_tsu(guard).tsu, &marker);
    EXPECT_EQ(without.to_tsu(guard).tsu, nullptr);
    EXPECT_TRUE(guard.host_buffers.empty());
}

// The copy takes general scratch: the caller's allocator when it has one,
// never the fast pool.
TEST(VectorParam, UsesCallersAllocator) {
    auto ctx = device_context();
    alignas(64) static int caller_block[16];
    unsigned long asked = 0;
    ctx->overload_alloc = [&](unsigned long bytes) -> void* {
        asked = bytes;
        return caller_block;
    };
    const int lod[3] = {0, 2, 5};
    ctx_guard guard(ctx.get());
    const VectorParam<int> p = VectorParam<int>{lod, 3}.to_tsu(guard);
    EXPECT_EQ(p.tsu, caller_block);
    EXPECT_EQ(asked, 3 * sizeof(int));
    EXPECT_EQ(caller_block[2], 5);
}

struct FailureCase {
    const char* name;
    tsuemu::Site site;
    unsigned long gm_pool_bytes;
    long len;
    bool expect_copy;
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class VectorParamFailure : public ::testing::TestWithParam<FailureCase> {
protected:
    void TearDown() override { tsuemu::clear_failures(); }
};

// Every failure gives a null tsu and no log record; a length of 0 asks the
// pool for 0 bytes, which a present pool serves and an absent one does not.
TEST_P(VectorParamFailure, NullWithoutLog) {
    const FailureCase& c = GetParam();
    ContextOptions opts;
    opts.gm_pool_bytes = c.gm_pool_bytes;
    auto ctx = device_context(opts);
    LogCapture logs;
    const long lod[4] = {0, 1, 2, 3};
    ctx_guard guard(ctx.get());
    if (c.site != tsuemu::Site::Config) tsuemu::inject_failure(c.site, 1, 7);
    const VectorParam<long> p = VectorParam<long>{lod, c.len}.to_tsu(guard);
    EXPECT_EQ(p.tsu != nullptr, c.expect_copy);
    EXPECT_EQ(p.cpu, lod);
    EXPECT_EQ(p.len, c.len);
    EXPECT_TRUE(logs.records().empty());
}

// Site::Config stands for "no failure injected".
INSTANTIATE_TEST_SUITE_P(
    Cases, VectorParamFailure,
    ::testing::Values(FailureCase{"upload_fails", tsuemu::Site::HostToDevice, 64ul << 20, 4, false},
                      FailureCase{"pool_fails", tsuemu::Site::PoolAlloc, 64ul << 20, 4, false},
                      FailureCase{"no_pool", tsuemu::Site::Config, 0, 4, false},
                      FailureCase{"empty_from_pool", tsuemu::Site::Config, 64ul << 20, 0, true},
                      FailureCase{"empty_without_pool", tsuemu::Site::Config, 0, 0, false}),
    [](const ::testing::TestParamInfo<FailureCase>& p) { return std::string(p.param.name); });

}  // namespace
