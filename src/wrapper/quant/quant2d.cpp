#include <tsuops/quant.h>

#include <algorithm>
#include <cmath>

#include "frame/env_switch.h"
#include "frame/frame.h"
#include "frame/quant_rules.h"
#include "kernels/quant/quant2d.h"
#include "wrapper/quant/quant2d_select.h"

namespace infer_ops {

namespace {

namespace sel = quant2d_select;

constexpr auto kExactlyOne = frame::env_switch::rule::exactly_one;
constinit const frame::env_switch quant_gmx_switch{"TSUOPS_QUANT_GMX", kExactlyOne};
constinit const frame::env_switch zfr_stable_switch{"ZFR_STABLE", kExactlyOne};

template <typename T>
int cpu_wrapper(const T* x, signed char* y, float* scale, long m, long n, long ld) {
    for (long r = 0; r < m; ++r) {
        const T* row = x + r * ld;
        signed char* out = y + r * n;
        float s = quant::kScaleFloor;
        for (long j = 0; j < n; ++j) s = quant::absmax_step(s, std::fabs(static_cast<float>(row[j])));
        scale[r] = s;
        for (long j = 0; j < n; ++j) {
            out[j] = orvane::tsu::api::__fp32_to_intx<signed char, 127>(static_cast<float>(row[j]), s);
        }
    }
    return SUCCESS;
}

template <typename T>
using stub_t = int (*)(const T*, signed char*, float*, long, long, long);

template <typename T, int N>
constexpr stub_t<T> bigm_stub = &tsu3::__device_stub__infer_quant2d_bigm<T, N, tsuops::kernels::quant2d_tiles<T>(N)>;

template <typename T>
stub_t<T> stub_for(const sel::Choice& c) {
    switch (c.kernel) {
    case sel::Kernel::smallm: return &tsu3::__device_stub__infer_quant2d_smallm<T>;
    case sel::Kernel::midm:
        return &tsu3::__device_stub__infer_quant2d_midm<T, sel::kRowCap1536,
                                                         tsuops::kernels::quant2d_tiles<T>(sel::kRowCap1536)>;
    case sel::Kernel::bigm:
        switch (c.row_cap) {
        case sel::kRowCap1536: return bigm_stub<T, sel::kRowCap1536>;
        case sel::kRowCap6144: return bigm_stub<T, sel::kRowCap6144>;
        case sel::kRowCap12288: return bigm_stub<T, sel::kRowCap12288>;
        case sel::kRowCap24576: return bigm_stub<T, sel::kRowCap24576>;
        default: break;
        }
        break;
    case sel::Kernel::gmx_staged: return &tsu3::__device_stub__infer_quant2d_gmx<T, true, true>;
    case sel::Kernel::gmx_general: return &tsu3::__device_stub__infer_quant2d_gmx<T, false, true>;
    case sel::Kernel::general: break;
    }
    return &tsu3::__device_stub__infer_quant2d<T>;
}

template <typename T>
int tsu3_wrapper(Context* ctx, const T* x, signed char* y, float* scale, long m, long n, long ld, bool use_gmx) {
    if (m <= 0) return SUCCESS;
    const bool gmx = use_gmx || quant_gmx_switch.on();
    const sel::Choice choice = sel::select(m, n, ctx->ncluster, gmx, zfr_stable_switch.on());
    const stub_t<T> stub = stub_for<T>(choice);
    const frame::launch launch = choice.gmx ? frame::gmx_launch(ctx) : frame::cluster_launch(ctx);
    // A launch takes at most kRowsPerCluster rows per cluster. A cluster
    // count below 1 fails at the launch configuration; the chunk is kept
    // positive so that the loop still ends there.
    const long clusters = choice.gmx ? ctx->ngmx : ctx->ncluster;
    const long chunk = std::max(1L, clusters) * sel::kRowsPerCluster;
    for (long i = 0; i < m; i += chunk) {
        const long rows = std::min(m - i, chunk);
        // smallm shares each row among a cluster's cores: the scale floats
        // first, in a launch of their own, then the conversion.
        if (choice.kernel == sel::Kernel::smallm) {
            if (int st = launch(stub, x + i * ld, nullptr, scale + i, rows, n, ld)) return st;
        }
        if (int st = launch(stub, x + i * ld, y + i * n, scale + i, rows, n, ld)) return st;
    }
    return SUCCESS;
}

}  // namespace

template <typename T>
int quant2d(Context* ctx, const T* x, signed char* y, float* scale, long m, long n, long ld, bool use_gmx) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "quant2d", x, y, scale, m, n, ld, use_gmx);
    const long lead = ld < 0 ? n : ld;
    if (int st = frame::input(guard, ctx, "x", x, lead * m)) return st;
    if (int st = frame::output(guard, ctx, "y", y, n * m)) return st;
    if (int st = frame::output(guard, ctx, "scale", scale, m)) return st;
    if (int st = frame::check(ctx, n, frame::Rel::LE, lead)) return st;
    switch (ctx->dev_type) {
    case 0: return cpu_wrapper(x, y, scale, m, n, lead);
    case 3: return tsu3_wrapper(ctx, x, y, scale, m, n, lead, use_gmx);
    case 2: return frame::unimplemented(ctx);
    default: return SUCCESS;  // device types without a path of their own: nothing is done
    }
}

#define TSUOPS_QUANT2D(T) template int quant2d<T>(Context*, const T*, signed char*, float*, long, long, long, bool);
TSUOPS_QUANT2D(float16)
TSUOPS_QUANT2D(float)
TSUOPS_QUANT2D(bfloat16)
#undef TSUOPS_QUANT2D

}  // namespace infer_ops
