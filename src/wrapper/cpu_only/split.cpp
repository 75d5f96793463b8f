#include <cstring>
#include <vector>

#include <tsuops/cpu_ops.h>

#include "frame/frame.h"

namespace infer_ops::cpu_ops {

template <typename T>
int split(Context* ctx, const T* x, const std::vector<T*>& ys, const std::vector<long>& xshape,
          const std::vector<long>& sizes, long axis) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    // The walk reads sum(sizes) * after elements per block of x: these checks
    // keep it inside x and inside the list of outputs.
    const long rank = static_cast<long>(xshape.size());
    if (int st = frame::check(ctx, ys.size(), frame::Rel::EQ, sizes.size())) return st;
    if (int st = frame::check(ctx, axis, frame::Rel::GE, 0L)) return st;
    if (int st = frame::check(ctx, axis, frame::Rel::LT, rank)) return st;
    long total = 0;
    for (long s : sizes) {
        if (int st = frame::check(ctx, s, frame::Rel::GE, 0L)) return st;
        total += s;
    }
    if (int st = frame::check(ctx, total, frame::Rel::EQ, xshape[axis])) return st;

    long before = 1, after = 1;
    for (long i = 0; i < axis; ++i) before *= xshape[i];
    for (long i = axis + 1; i < rank; ++i) after *= xshape[i];
    if (before < 1 || after < 1) return SUCCESS;

    const T* in = x;
    for (long b = 0; b < before; ++b) {
        for (std::size_t i = 0; i < ys.size(); ++i) {
            const long width = sizes[i] * after;
            if (ys[i] != nullptr && width > 0) std::memcpy(ys[i] + b * width, in, sizeof(T) * width);
            in += width;
        }
    }
    return SUCCESS;
}

#define TSUOPS_CPU_SPLIT(T)                                                                                  \
    template int split<T>(Context*, const T*, const std::vector<T*>&, const std::vector<long>&,             \
                          const std::vector<long>&, long);
TSUOPS_CPU_SPLIT(float)
TSUOPS_CPU_SPLIT(float16)
TSUOPS_CPU_SPLIT(int)
TSUOPS_CPU_SPLIT(long)
TSUOPS_CPU_SPLIT(short)
TSUOPS_CPU_SPLIT(signed char)
TSUOPS_CPU_SPLIT(unsigned char)
TSUOPS_CPU_SPLIT(bfloat16)
#undef TSUOPS_CPU_SPLIT

}  // namespace infer_ops::cpu_ops
