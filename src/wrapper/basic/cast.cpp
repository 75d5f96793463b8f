#include <tsuops/basic.h>
#include <tsuops/ctx_guard.h>

#include "frame/convert.h"
#include "frame/frame.h"
#include "kernels/basic/cast.h"
#include "wrapper/basic/cast_table.h"

namespace infer_ops {

namespace {

template <typename TX, typename TY>
int cpu_wrapper(Context* ctx, const TX* x, TY* y, long len) {
    if (ctx->sim_dev_type == 3) {
        for (long i = 0; i < len; ++i) y[i] = convert::element<TX, TY, true>(x[i]);
    } else {
        for (long i = 0; i < len; ++i) y[i] = convert::element<TX, TY, false>(x[i]);
    }
    return SUCCESS;
}

// Pairs without a kernel of their own go through float in general scratch.
template <typename TX, typename TY, int CType>
struct tsu3_wrapper_helper {
    static int do_cast(Context* ctx, const TX* x, TY* y, long len) {
        orvane::tsu::api::ctx_guard scratch(ctx);
        float* mid = scratch.alloc<float>(static_cast<unsigned long>(len));
        if (int st = frame::check_scratch(ctx, mid)) return st;
        using tsu3::__device_stub__infer_cluster_cast_mk3;
        if (int st = frame::cluster_launch(ctx)(&__device_stub__infer_cluster_cast_mk3<TX, float>, x, mid, len)) {
            return st;
        }
        return frame::cluster_launch(ctx)(&__device_stub__infer_cluster_cast_mk3<float, TY>, mid, y, len);
    }
};

template <typename TX, typename TY>
int tsu3_wrapper(Context* ctx, const TX* x, TY* y, long len) {
    using cast_table::Route;
    constexpr Route route = cast_table::route<TX, TY>();
    if constexpr (route == Route::copy) {
        if (static_cast<const void*>(x) == static_cast<const void*>(y)) return SUCCESS;
        const int st = copy<signed char>(ctx, reinterpret_cast<const signed char*>(x),
                                         reinterpret_cast<signed char*>(y), len * static_cast<long>(sizeof(TX)));
        return frame::check_nested(ctx, st);
    } else if constexpr (route == Route::refused) {
        return frame::unimplemented(ctx);
    } else if constexpr (route == Route::two_hops) {
        return tsu3_wrapper_helper<TX, TY, cast_table::two_hop_ctype<TX, TY>>::do_cast(ctx, x, y, len);
    } else {
        return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_cluster_cast_mk3<TX, TY>, x, y, len);
    }
}

}  // namespace

template <typename TX, typename TY>
int cast(Context* ctx, const TX* x, TY* y, long len) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<TX, TY>(guard, ctx, "cast", x, y, len);
    if (int st = frame::input(guard, ctx, "x", x, len)) return st;
    if (int st = frame::output(guard, ctx, "y", y, len)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(ctx, x, y, len); }, [&] { return tsu3_wrapper(ctx, x, y, len); });
}

#define TSUOPS_CAST(TX, TY) template int cast<TX, TY>(Context*, const TX*, TY*, long);
#define TSUOPS_CAST_FROM(TX)            \
    TSUOPS_CAST(TX, float)              \
    TSUOPS_CAST(TX, float16)            \
    TSUOPS_CAST(TX, bfloat16)           \
    TSUOPS_CAST(TX, bool)               \
    TSUOPS_CAST(TX, signed char)        \
    TSUOPS_CAST(TX, short)              \
    TSUOPS_CAST(TX, int)                \
    TSUOPS_CAST(TX, long)               \
    TSUOPS_CAST(TX, unsigned char)      \
    TSUOPS_CAST(TX, double)
TSUOPS_CAST_FROM(float)
TSUOPS_CAST_FROM(float16)
TSUOPS_CAST_FROM(bfloat16)
TSUOPS_CAST_FROM(bool)
TSUOPS_CAST_FROM(signed char)
TSUOPS_CAST_FROM(short)
TSUOPS_CAST_FROM(int)
TSUOPS_CAST_FROM(long)
TSUOPS_CAST_FROM(unsigned char)
TSUOPS_CAST_FROM(double)
#undef TSUOPS_CAST_FROM
#undef TSUOPS_CAST

}  // namespace infer_ops
