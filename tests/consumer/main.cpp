// Makes a device context, fills device memory through a hand-written kernel
// and reads it back: the installed headers, libraries and emulator work
// together from outside the build tree.
#include <cstdio>
#include <cstring>
#include <vector>

#include <tsuapi/tsuapi.h>
#include <tsuops/infer_ops.h>
#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

namespace {

void iota_entry(const unsigned char* args) {
    int* x;
    long n;
    std::memcpy(&x, args, 8);
    std::memcpy(&n, args + 8, 8);
    const long cores = tsuemu::global_core_count();
    const long me = tsuemu::global_core_id();
    for (long i = n * me / cores; i < n * (me + 1) / cores; ++i) x[i] = static_cast<int>(i);
}

const char kIotaName[] = "_ZN4tsu34iotaEPil";

}  // namespace

int main() {
    using namespace orvane::tsu::api;
    std::printf("libtsuops %s\n", infer_ops::version());
    Context ctx(DeviceType::TSU3);
    if (ctx.stream == nullptr || ctx.gm_mgr.capacity() == 0) {
        std::printf("device context without stream or pool\n");
        return 1;
    }
    const long n = 10000;
    int* x = static_cast<int*>(ctx.gm_mgr.alloc(ctx.impl, n * sizeof(int), ctx.stream));
    if (x == nullptr) {
        std::printf("no scratch\n");
        return 1;
    }
    const tsuemu::KernelDescriptor iota{0, reinterpret_cast<std::uint64_t>(&iota_entry), 0, 0, 0,
                                        reinterpret_cast<std::uint64_t>(kIotaName), 0, 0};
    int rc = tsu_launch_config(ctx.ncluster, 64, ctx.stream);
    if (rc == 0) rc = tsu_launch_argument_set(&x, 8, 0);
    if (rc == 0) rc = tsu_launch_argument_set(&n, 8, 8);
    if (rc == 0) rc = tsu_launch_async(&iota);
    std::vector<int> out(n, -1);
    if (rc == 0) rc = do_device2host(&ctx, x, out.data(), n * static_cast<long>(sizeof(int)));
    if (rc != 0) {
        std::printf("launch or transfer failed: %d\n", rc);
        return 1;
    }
    for (long i = 0; i < n; ++i) {
        if (out[i] != i) {
            std::printf("element %ld is %d\n", i, out[i]);
            return 1;
        }
    }
    std::printf("consumer: %ld elements filled on the device\n", n);
    return 0;
}
