// Controls and kernel-side API of the emulated TSU device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tsuemu {

// The 64-byte catalogue row of a kernel. In the emulator `image` holds the
// address of the kernel's host entry (KernelEntry) and `name` its mangled name.
struct KernelDescriptor {
    std::uint64_t engine;      // 0 cluster engine, 1 GMX engine
    std::uint64_t image;       // KernelEntry
    std::uint64_t image_size;  // bytes, multiple of 4
    std::uint64_t reserved0;
    std::uint64_t hash;        // 32-bit hash in the low half
    std::uint64_t name;        // const char*, mangled kernel name
    std::uint64_t reserved1;
    std::uint64_t reserved2;
};
static_assert(sizeof(KernelDescriptor) == 64, "a descriptor is 64 bytes");

// Runs one core's share of a launch; `args` is the packed argument block.
using KernelEntry = void (*)(const unsigned char* args);

// Capacity of a launch's argument block in bytes.
inline constexpr std::size_t kArgBlockCapacity = 4096;

// Position of the calling core inside the running launch. Outside a launch
// every accessor returns 0 for ids and 1 for counts.
struct CorePosition {
    int cluster = 0;
    int clusters = 1;
    int core = 0;
    int cores = 1;
};

namespace detail {
// Set by the runtime before each core's call of a kernel. Kernels read it
// once or more per core, so it is a plain load (the runtime's libraries are
// loaded with the program, where the initial-exec model holds).
extern thread_local constinit CorePosition running_core __attribute__((tls_model("initial-exec")));
}  // namespace detail

inline int cluster_id() noexcept { return detail::running_core.cluster; }
inline int cluster_count() noexcept { return detail::running_core.clusters; }
inline int core_id() noexcept { return detail::running_core.core; }
inline int core_count() noexcept { return detail::running_core.cores; }

// Flat index and count over the whole grid: cluster-major.
inline int global_core_id() noexcept { return cluster_id() * core_count() + core_id(); }
inline int global_core_count() noexcept { return cluster_count() * core_count(); }

struct LaunchRecord {
    std::string kernel;  // demangled, without return type
    int nclusters = 0;
    int ncores = 0;
    void* stream = nullptr;
    std::vector<unsigned char> args;  // bytes up to the highest offset set
};

// Called on the launching thread for every successful tsu_launch_async,
// before the launch is queued. An empty function removes the observer.
void set_launch_observer(std::function<void(const LaunchRecord&)> observer);

enum class Site { Config, ArgumentSet, Async, Memcpy, HostToDevice, DeviceToHost, PoolAlloc };

// The nth call (1-based, counted from now) at `site` returns `code`
// (PoolAlloc: returns null). One injection per site; a new one replaces it.
void inject_failure(Site site, int nth, int code);
void clear_failures();
// Used by the platform at each site: true (and *code set) if this call fails.
bool consume_failure(Site site, int* code) noexcept;

// Runs each launch to its end inside tsu_launch_async, in the stream's
// order and accounting (a wait on the stream from another thread covers it).
// The default comes from TSUEMU_SYNC=1; the override is for tests.
void set_sync_override(int mode);  // -1 environment, 0 off, 1 on
bool sync_mode() noexcept;

// Fast on-chip memory (L3) of device type 2 or 3 (4 and 5 share type 3's).
// Null when the window is absent (e.g. under AddressSanitizer) or full.
void* l3_alloc(int dev_type, unsigned long bytes) noexcept;
int l3_free(void* ptr) noexcept;

// Address map of the emulated memories.
inline constexpr std::uint64_t kGm3Base = 0x504000000000ull;
inline constexpr std::uint64_t kGm3Size = 64ull << 30;
inline constexpr std::uint64_t kGm2Base = 1ull << 35;
inline constexpr std::uint64_t kGm2Size = 1ull << 35;
inline constexpr std::uint64_t kL3Tsu3Base = 0x90000000ull;
inline constexpr std::uint64_t kL3Tsu3Size = 0x06000000ull;
inline constexpr std::uint64_t kL3Tsu2Base = 0xc0000000ull;
inline constexpr std::uint64_t kL3Tsu2Size = 0x04000000ull;

// Whether the global arena of a device type could be reserved in this process.
bool gm_available(int dev_type) noexcept;
bool l3_available(int dev_type) noexcept;

}  // namespace tsuemu
