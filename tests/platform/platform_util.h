// Hand-written kernels and argument packing for the tests of the platform
// itself, which must not lean on the library's catalogue.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include <gtest/gtest.h>

#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

namespace platform_test {

inline tsuemu::KernelDescriptor descriptor(tsuemu::KernelEntry entry, const char* mangled = "_ZN4tsu34testEv") {
    return {0, reinterpret_cast<std::uint64_t>(entry), 0, 0, 0, reinterpret_cast<std::uint64_t>(mangled), 0, 0};
}

inline void noop_entry(const unsigned char*) {}
inline const tsuemu::KernelDescriptor kNoop = descriptor(&noop_entry);

// The slot of an argument that follows `offset` bytes of the block: 8-byte
// arguments align to 8, all others to 4.
template <class T>
constexpr std::size_t slot(std::size_t offset) {
    constexpr std::size_t align = sizeof(T) == 8 ? 8 : 4;
    return (offset + align - 1) / align * align;
}

// Reads a packed argument block in signature order, inside a kernel entry.
class ArgReader {
public:
    explicit ArgReader(const unsigned char* args) : args_(args) {}
    template <class T>
    T next() {
        T v;
        off_ = slot<T>(off_);
        std::memcpy(&v, args_ + off_, sizeof(T));
        off_ += sizeof(T);
        return v;
    }

private:
    const unsigned char* args_;
    std::size_t off_ = 0;
};

// The share [begin, end) of n items that the calling core owns.
inline void core_share(long n, long* begin, long* end) {
    *begin = n * tsuemu::global_core_id() / tsuemu::global_core_count();
    *end = n * (tsuemu::global_core_id() + 1) / tsuemu::global_core_count();
}

// x = (3 * x + k) mod a prime over each core's share: any launch lost,
// repeated, run out of order or overlapping the one before changes the result.
constexpr long kPrime = 1000003;
inline long affine(long x, long k) { return (3 * x + k) % kPrime; }
inline void affine_entry(const unsigned char* args) {
    ArgReader r(args);
    auto* x = r.next<long*>();
    const long n = r.next<long>(), k = r.next<long>();
    long b, e;
    core_share(n, &b, &e);
    for (long i = b; i < e; ++i) x[i] = affine(x[i], k);
}

// y[i] = x[n - 1 - i]: each core reads what other cores of the launch before wrote.
inline void reverse_entry(const unsigned char* args) {
    ArgReader r(args);
    const auto* x = r.next<const long*>();
    auto* y = r.next<long*>();
    const long n = r.next<long>();
    long b, e;
    core_share(n, &b, &e);
    for (long i = b; i < e; ++i) y[i] = x[n - 1 - i];
}

// One whole launch: config, arguments by the slot rule, async.
template <class... A>
int launch(const tsuemu::KernelDescriptor& d, int nclusters, int ncores, void* stream, const A&... args) {
    int rc = tsu_launch_config(nclusters, ncores, stream);
    std::size_t off = 0;
    [[maybe_unused]] const auto set = [&](const auto& a) {
        off = slot<std::decay_t<decltype(a)>>(off);
        if (rc == TSU_SUCCESS) rc = tsu_launch_argument_set(&a, sizeof a, off);
        off += sizeof a;
    };
    (set(args), ...);
    return rc == TSU_SUCCESS ? tsu_launch_async(&d) : rc;
}

// A test run in the asynchronous (0) and the synchronous (1) launch mode.
class SyncModes : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { tsuemu::set_sync_override(GetParam()); }
    void TearDown() override { tsuemu::set_sync_override(-1); }
};
#define PLATFORM_SYNC_MODES(suite)                                                   \
    INSTANTIATE_TEST_SUITE_P(SyncModes, suite, ::testing::Values(0, 1),              \
                             [](const auto& p) { return p.param ? "sync" : "async"; })

}  // namespace platform_test
