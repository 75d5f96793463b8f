// Runs the constant operator on a host context and on an emulated TSU3
// context and prints what ran.
#include <cstdio>
#include <vector>

#include <tsuops/infer_ops.h>
#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

int main() {
    using namespace orvane::tsu::api;
    std::printf("libtsuops %s\n", infer_ops::version());
    Context host(DeviceType::CPU);
    Context dev(DeviceType::TSU3);

    const long n = 1 << 20;
    std::vector<float> on_host(n);
    int rc = infer_ops::constant<float>(&host, on_host.data(), n, 2.5f);
    std::printf("host context: constant<float> over %ld elements, status %d\n", n, rc);

    float* x = nullptr;
    if (tsu_malloc(reinterpret_cast<void**>(&x), n * sizeof(float), 3) != 0) {
        std::printf("no device memory\n");
        return 1;
    }
    tsuemu::set_launch_observer([](const tsuemu::LaunchRecord& r) {
        std::printf("device launch: %s on %d clusters x %d cores, %zu argument bytes\n", r.kernel.c_str(),
                    r.nclusters, r.ncores, r.args.size());
    });
    rc = infer_ops::constant<float>(&dev, x, n, 2.5f);
    tsuemu::set_launch_observer({});
    std::vector<float> back(n);
    if (rc == 0) rc = do_device2host(&dev, x, back.data(), n * static_cast<long>(sizeof(float)));
    tsu_free(x);
    std::printf("device context: status %d\n", rc);
    if (rc != 0) return 1;
    long same = 0;
    for (long i = 0; i < n; ++i) same += back[i] == on_host[i];
    std::printf("device result equals host result in %ld of %ld elements\n", same, n);
    return same == n ? 0 : 1;
}
