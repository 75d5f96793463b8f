// Makes a host context and an emulated TSU3 context, launches a fill kernel
// on the device and prints what ran.
#include <cstdio>
#include <vector>

#include <tsuapi/tsuapi.h>
#include <tsuops/infer_ops.h>
#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

namespace {

// A kernel entry written by hand: each core fills its share of the buffer.
void fill_entry(const unsigned char* args) {
    float* x;
    long n;
    float v;
    __builtin_memcpy(&x, args, 8);
    __builtin_memcpy(&n, args + 8, 8);
    __builtin_memcpy(&v, args + 16, 4);
    const long cores = tsuemu::global_core_count();
    const long me = tsuemu::global_core_id();
    for (long i = n * me / cores; i < n * (me + 1) / cores; ++i) x[i] = v;
}

const char kFillName[] = "_ZN4tsu34fillEPflf";
const tsuemu::KernelDescriptor kFill{0, reinterpret_cast<std::uint64_t>(&fill_entry), 0, 0, 0,
                                     reinterpret_cast<std::uint64_t>(kFillName), 0, 0};

}  // namespace

int main() {
    using namespace orvane::tsu::api;
    std::printf("libtsuops %s\n", infer_ops::version());
    Context host(DeviceType::CPU);
    Context dev(DeviceType::TSU3);
    std::printf("host context: dev_type %u\n", host.dev_type);
    std::printf("device context: dev_type %u, %d clusters, L3 pool %lu bytes\n", dev.dev_type, dev.ncluster,
                static_cast<unsigned long>(dev.l3_size));

    const long n = 1 << 20;
    void* buf = nullptr;
    if (tsu_malloc(&buf, n * sizeof(float), 3) != 0) {
        std::printf("no device memory\n");
        return 1;
    }
    tsuemu::set_launch_observer([](const tsuemu::LaunchRecord& r) {
        std::printf("launch: %s on %d x %d cores, %zu argument bytes\n", r.kernel.c_str(), r.nclusters,
                    r.ncores, r.args.size());
    });
    float value = 2.5f;
    int rc = tsu_launch_config(dev.ncluster, 64, dev.stream);
    if (rc == 0) rc = tsu_launch_argument_set(&buf, 8, 0);
    if (rc == 0) rc = tsu_launch_argument_set(&n, 8, 8);
    if (rc == 0) rc = tsu_launch_argument_set(&value, 4, 16);
    if (rc == 0) rc = tsu_launch_async(&kFill);
    std::vector<float> out(n);
    if (rc == 0) rc = do_device2host(&dev, buf, out.data(), n * static_cast<long>(sizeof(float)));
    tsuemu::set_launch_observer({});
    tsu_free(buf);
    if (rc != 0) {
        std::printf("launch failed: %d\n", rc);
        return 1;
    }
    long good = 0;
    for (float f : out) good += f == value;
    std::printf("device filled %ld of %ld floats with %g\n", good, n, static_cast<double>(value));
    return good == n ? 0 : 1;
}
