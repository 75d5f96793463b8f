// A kernel body that throws ends the process with a message that names the
// kernel and the exception, instead of unwinding through a grid whose other
// cores still run on the launch's state.
#include <gtest/gtest.h>

#include <stdexcept>

#include "kernels/catalogue.h"
#include "support/tsuops_test.h"

#define TSU_FAMILY_probe_throws(X) X(probe_throws, TSU_ENGINE_CLUSTER, (typename T), (T), (T*, out), (long, at))
TSU_KERNEL_DECLARE(probe_throws)

namespace tsu3 {
template <typename T>
void probe_throws(T* out, long at) {
    if (tsuemu::global_core_id() == at) throw std::runtime_error("row out of range");
    out[tsuemu::global_core_id()] = T(1);
}
}  // namespace tsu3

TSU_KERNEL_DEFINE(probe_throws)
TSU_KERNEL_INSTANCE(probe_throws, float)

namespace {

using namespace tsuops_test;

TEST(KernelDeathTest, ABodyThatThrowsEndsTheProcessNamingTheKernel) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto ctx = device_context();
    GuardedBuffer<float> out(ctx.get(), 2 * 8);
    float* p = out.data();
    // A core in the middle of the second host thread's share, if there is one.
    EXPECT_DEATH(
        {
            tsu_launch_config(2, 8, ctx->stream);
            tsu3::__device_stub__probe_throws<float>(p, 11L);
            tsu_wait(ctx->stream);
        },
        "kernel void tsu3::probe_throws<float>\\(float\\*, long\\) threw: row out of range");
}

}  // namespace
