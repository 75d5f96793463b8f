#include <cstring>
#include <vector>

#include <tsuops/basic.h>
#include <tsuops/cpu_ops.h>

#include "frame/frame.h"

namespace infer_ops::cpu_ops {

template <typename T>
int concat(Context* ctx, const std::vector<const T*>& xs, T* y, const std::vector<std::vector<long>>& shapes,
           long axis) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    if (int st = frame::check(ctx, xs.size(), frame::Rel::GE, 1)) return st;
    if (int st = frame::check(ctx, xs.size(), frame::Rel::EQ, shapes.size())) return st;
    if (int st = frame::check(ctx, axis, frame::Rel::GE, 0)) return st;
    const long rank = static_cast<long>(shapes[0].size());
    if (int st = frame::check(ctx, axis, frame::Rel::LT, rank)) return st;

    // One input is a plain copy, which also works on a device context.
    if (xs.size() == 1) {
        long len = 1;
        for (long d : shapes[0]) len *= d;
        return copy<T>(ctx, xs[0], y, len);
    }

    for (const auto& s : shapes) {
        bool agrees = static_cast<long>(s.size()) == rank;
        agrees = agrees && s[axis] >= 0;
        for (long i = 0; agrees && i < rank; ++i) agrees = i == axis || s[i] == shapes[0][i];
        if (!agrees) return frame::unimplemented(ctx);
    }
    if (ctx->dev_type != 0) return frame::unimplemented(ctx);

    long before = 1, after = 1;
    for (long i = 0; i < axis; ++i) before *= shapes[0][i];
    for (long i = axis + 1; i < rank; ++i) after *= shapes[0][i];
    T* out = y;
    for (long b = 0; b < before; ++b) {
        for (std::size_t i = 0; i < xs.size(); ++i) {
            const long width = shapes[i][axis] * after;
            if (width > 0) std::memcpy(out, xs[i] + b * width, sizeof(T) * width);
            out += width;
        }
    }
    return SUCCESS;
}

#define TSUOPS_CPU_CONCAT(T)                                                                            \
    template int concat<T>(Context*, const std::vector<const T*>&, T*, const std::vector<std::vector<long>>&, \
                           long);
TSUOPS_CPU_CONCAT(float)
TSUOPS_CPU_CONCAT(float16)
TSUOPS_CPU_CONCAT(bfloat16)
TSUOPS_CPU_CONCAT(double)
TSUOPS_CPU_CONCAT(long)
TSUOPS_CPU_CONCAT(int)
TSUOPS_CPU_CONCAT(short)
TSUOPS_CPU_CONCAT(signed char)
TSUOPS_CPU_CONCAT(unsigned char)
TSUOPS_CPU_CONCAT(bool)
#undef TSUOPS_CPU_CONCAT

}  // namespace infer_ops::cpu_ops
