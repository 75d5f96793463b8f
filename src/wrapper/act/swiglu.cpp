// The reference path rounds where the documented steps round: the operands
// widened by cast, the SiLU product in float with the sigmoid in double,
// the result narrowed by cast. Nothing may be fused on the way.
#pragma GCC optimize("fp-contract=off")

#include <numeric>
#include <utility>
#include <vector>

#include <tsuops/act.h>
#include <tsuops/basic.h>
#include <tsuops/ctx_guard.h>

#include "frame/frame.h"
#include "kernels/act/silu_math.h"
#include "kernels/act/swiglu.h"
#include "wrapper/act/swiglu_select.h"

namespace infer_ops {

namespace {

using tsuops::kernels::act::silu_product;

long product(const std::vector<long>& dims, std::size_t begin, std::size_t end) {
    long p = 1;
    for (std::size_t k = begin; k < end; ++k) p *= dims[k];
    return p;
}

template <typename T>
int cpu_wrapper(Context* ctx, const T* x, const T* y, T* z, const std::vector<long>& shape, long axis,
                bool gate_first) {
    std::vector<long> out_shape = shape;
    if (y == nullptr) out_shape[axis] = shape[axis] / 2;
    const long len_in = product(shape, 0, shape.size());
    const long len_out = product(out_shape, 0, out_shape.size());
    std::vector<float> x_float(len_in), y_float(y != nullptr ? len_in : 0), result(len_out);
    if (int st = frame::check_nested(ctx, cast<T, float>(ctx, x, x_float.data(), len_in))) return st;
    if (y != nullptr) {
        if (int st = frame::check_nested(ctx, cast<T, float>(ctx, y, y_float.data(), len_in))) return st;
        for (long i = 0; i < len_out; ++i) {
            result[i] = gate_first ? silu_product(x_float[i], y_float[i]) : silu_product(y_float[i], x_float[i]);
        }
    } else {
        // Output i at its multi-index over out_shape (last dimension
        // fastest); its operands are x at that index and at the index moved
        // half the axis on.
        const std::size_t rank = shape.size();
        std::vector<long> stride(rank);
        for (std::size_t k = 0; k < rank; ++k) stride[k] = product(shape, k + 1, rank);
        const long half = out_shape[axis] * stride[axis];
        for (long i = 0; i < len_out; ++i) {
            long rem = i, first = 0;
            for (std::size_t k = rank; k-- > 0;) {
                first += rem % out_shape[k] * stride[k];
                rem /= out_shape[k];
            }
            const float lo = x_float[first], hi = x_float[first + half];
            result[i] = gate_first ? silu_product(lo, hi) : silu_product(hi, lo);
        }
    }
    return frame::check_nested(ctx, cast<float, T>(ctx, result.data(), z, len_out));
}

// The exchange of the split axis with the first: its own inverse.
std::vector<long> lead_axis(std::size_t rank, long axis) {
    std::vector<long> perm(rank);
    std::iota(perm.begin(), perm.end(), 0L);
    std::swap(perm[0], perm[axis]);
    return perm;
}

template <typename T>
int tsu3_wrapper(Context* ctx, const T* x, const T* y, T* z, const std::vector<long>& shape, long axis,
                 bool gate_first) {
    const long before = product(shape, 0, axis);
    const long after = product(shape, axis + 1, shape.size());
    const long dim = shape[axis];
    orvane::tsu::api::ctx_guard scratch(ctx);
    if (swiglu_route::select({y == nullptr, before, after, dim}) == swiglu_route::Route::plain) {
        const long out_dim = y == nullptr ? dim / 2 : dim;
        return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_swiglu<T>, x, y, z, dim * after, before,
                                          out_dim * after, gate_first);
    }
    // The split axis brought to the front makes the whole tensor one row
    // whose halves are the halves of the axis.
    const std::vector<long> perm = lead_axis(shape.size(), axis);
    std::vector<long> t_shape(shape.size());
    for (std::size_t k = 0; k < shape.size(); ++k) t_shape[k] = shape[perm[k]];
    std::vector<long> t_out_shape = t_shape;
    t_out_shape[0] = t_shape[0] / 2;
    const long rest = before * after;
    T* x_t = scratch.alloc_l3_first<T>(static_cast<unsigned long>(t_shape[0] * rest));
    if (int st = frame::check_scratch(ctx, x_t)) return st;
    T* z_t = scratch.alloc_l3_first<T>(static_cast<unsigned long>(t_out_shape[0] * rest));
    if (int st = frame::check_scratch(ctx, z_t)) return st;
    if (int st = frame::check_nested(ctx, transpose<T>(ctx, x, x_t, shape, perm))) return st;
    if (int st = frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_swiglu<T>, x_t, nullptr, z_t,
                                            t_shape[0] * rest, 1L, t_out_shape[0] * rest, gate_first)) {
        return st;
    }
    return frame::check_nested(ctx, transpose<T>(ctx, z_t, z, t_out_shape, perm));
}

}  // namespace

template <typename T>
int swiglu(Context* ctx, const T* x, const T* y, T* z, const std::vector<long>& shape, long axis, bool gate_first) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "swiglu", x, y, z, shape, axis, gate_first);
    if (int st = frame::check(ctx, axis, frame::Rel::GE, 0)) return st;
    if (int st = frame::check(ctx, axis, frame::Rel::LT, shape.size())) return st;
    if (y == nullptr) {
        if (int st = frame::check(ctx, shape[axis] % 2, frame::Rel::EQ, 0)) return st;
    }
    long total = 0;
    if (int st = frame::check_shape(ctx, shape, &total)) return st;
    const long out_total = y != nullptr ? total : total >> 1;
    if (int st = frame::input(guard, ctx, "x", x, total)) return st;
    if (int st = frame::output(guard, ctx, "z", z, out_total)) return st;
    if (int st = frame::optional_input(guard, ctx, "y", y, total)) return st;
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(ctx, x, y, z, shape, axis, gate_first); },
        [&] { return tsu3_wrapper(ctx, x, y, z, shape, axis, gate_first); });
}

#define TSUOPS_SWIGLU(T) \
    template int swiglu<T>(Context*, const T*, const T*, T*, const std::vector<long>&, long, bool);
TSUOPS_SWIGLU(float)
TSUOPS_SWIGLU(float16)
TSUOPS_SWIGLU(bfloat16)
#undef TSUOPS_SWIGLU

}  // namespace infer_ops
