#include <type_traits>
#include <vector>

#include <tsuops/basic.h>
#include <tsuops/ctx_guard.h>

#include "frame/frame.h"
#include "kernels/basic/transpose.h"
#include "wrapper/basic/transpose_plan.h"

namespace infer_ops {

namespace {

namespace plan = transpose_plan;

// Each output element in order: its multi-index over the output shape, last
// dimension fastest, read back through the permutation into the input.
template <typename T>
int cpu_wrapper(const T* x, T* y, const std::vector<long>& shape, const std::vector<long>& perm) {
    const std::size_t rank = shape.size();
    std::vector<long> out_shape(rank), in_stride(rank), id(rank, 0);
    long total = 1;
    for (std::size_t i = rank; i-- > 0;) {
        in_stride[i] = total;
        total *= shape[i];
    }
    for (std::size_t i = 0; i < rank; ++i) out_shape[i] = shape[perm[i]];
    for (long o = 0; o < total; ++o) {
        long rem = o;
        for (std::size_t i = rank; i-- > 0;) {
            id[i] = rem % out_shape[i];
            rem /= out_shape[i];
        }
        long offset = 0;
        for (std::size_t i = 0; i < rank; ++i) offset += id[i] * in_stride[perm[i]];
        y[o] = x[offset];
    }
    return SUCCESS;
}

// The word type that the kernels of a word size are instantiated for.
template <plan::Word W>
using word_t = std::conditional_t<W == plan::Word::w32, float,
                                  std::conditional_t<W == plan::Word::w16, float16, signed char>>;

template <typename W>
int launch_step(Context* ctx, const plan::Step& s, const W* src, W* dst) {
    switch (s.kernel) {
    case plan::Kernel::gmx_021:
        return frame::gmx_launch(ctx)(&tsu3::__device_stub__infer_transpose_021_gmx_bsp<W>, src, dst, s.left, s.a,
                                      s.b);
    case plan::Kernel::small_dim_021:
        if constexpr (std::is_same_v<W, float>) {
            return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_transpose_021_small_dim_cluster<W>, src,
                                              dst, s.left, s.a, s.b);
        }
        break;
    case plan::Kernel::nhwc_c3:
        if constexpr (std::is_same_v<W, signed char>) {
            return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_transpose_nhwc_c3,
                                              reinterpret_cast<const char*>(src), reinterpret_cast<char*>(dst),
                                              s.left, s.a, s.b);
        }
        break;
    case plan::Kernel::cluster_0213: break;
    }
    return frame::cluster_launch(ctx)(&tsu3::__device_stub__infer_transpose_0213_cluster<W>, src, dst, s.left, s.a,
                                      s.b, s.rest);
}

// The plan's steps in order through one scratch of the whole tensor, which
// the guard gives back on every way out.
template <typename T>
int tsu3_wrapper(Context* ctx, const T* x, T* y, const std::vector<long>& shape, const std::vector<long>& perm) {
    using W = word_t<plan::word_of<T>>;
    orvane::tsu::api::ctx_guard scratch(ctx);
    const plan::Plan p = plan::plan_for<T>(shape, perm);
    const W* xw = reinterpret_cast<const W*>(x);
    W* yw = reinterpret_cast<W*>(y);
    if (p.steps.empty()) return cast<W, W>(ctx, xw, yw, p.words);
    W* tmp = nullptr;
    if (p.needs_scratch()) {
        tmp = scratch.alloc<W>(static_cast<unsigned long>(p.words));
        if (int st = frame::check_scratch(ctx, tmp)) return st;
    }
    const auto source = [&](plan::Buffer b) -> const W* {
        return b == plan::Buffer::x ? xw : b == plan::Buffer::y ? yw : tmp;
    };
    for (const plan::Step& s : p.steps) {
        W* dst = s.dst == plan::Buffer::y ? yw : tmp;
        if (int st = launch_step<W>(ctx, s, source(s.src), dst)) return st;
    }
    return SUCCESS;
}

}  // namespace

template <typename T>
int transpose(Context* ctx, const T* x, T* y, const std::vector<long>& shape, const std::vector<long>& perm) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    ContextStackGuard guard(ctx, "INFRA");
    frame::open<T>(guard, ctx, "transpose", x, y, shape, perm);
    long total = 0;
    if (int st = frame::check_shape(ctx, shape, &total)) return st;
    if (int st = frame::input(guard, ctx, "x", x, total)) return st;
    if (int st = frame::output(guard, ctx, "y", y, total)) return st;
    if (int st = frame::check(ctx, x, frame::Rel::NE, y)) return st;
    if (int st = frame::check(ctx, shape.size(), frame::Rel::EQ, perm.size())) return st;
    std::vector<bool> seen(perm.size(), false);
    for (long d : perm) {
        if (int st = frame::check(ctx, d, frame::Rel::GE, 0)) return st;
        if (int st = frame::check(ctx, d, frame::Rel::LT, perm.size())) return st;
        if (int st = frame::check(ctx, static_cast<int>(seen[d]), frame::Rel::EQ, 0)) return st;
        seen[d] = true;
    }
    return frame::dispatch(
        ctx, [&] { return cpu_wrapper(x, y, shape, perm); }, [&] { return tsu3_wrapper(ctx, x, y, shape, perm); });
}

#define TSUOPS_TRANSPOSE(T) \
    template int transpose<T>(Context*, const T*, T*, const std::vector<long>&, const std::vector<long>&);
TSUOPS_TRANSPOSE(float)
TSUOPS_TRANSPOSE(float16)
TSUOPS_TRANSPOSE(bfloat16)
TSUOPS_TRANSPOSE(int)
TSUOPS_TRANSPOSE(signed char)
TSUOPS_TRANSPOSE(short)
TSUOPS_TRANSPOSE(long)
TSUOPS_TRANSPOSE(unsigned char)
TSUOPS_TRANSPOSE(bool)
#undef TSUOPS_TRANSPOSE

}  // namespace infer_ops
