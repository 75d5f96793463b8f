#include <vector>

#include <tsuops/cpu_ops.h>

#include "frame/frame.h"

namespace infer_ops::cpu_ops {

template <typename T, typename I>
int gather(Context* ctx, const T* x, const I* index, T* y, const std::vector<long>& xshape, long index_len,
           long axis) {
    if (ctx == nullptr) return STATUS_INVALID_ARGUMENT;
    if (ctx->dev_type != 0) return frame::unimplemented(ctx);
    const long rank = static_cast<long>(xshape.size());
    if (axis < 0) axis += rank;
    if (int st = frame::check(ctx, axis, frame::Rel::GE, 0L)) return st;
    if (int st = frame::check(ctx, axis, frame::Rel::LT, rank)) return st;

    // The output is [before, index_len, after] over x's [before, dim, after]:
    // the same coordinates as the per-element decomposition, walked by block.
    long before = 1, after = 1;
    for (long i = 0; i < axis; ++i) before *= xshape[i];
    for (long i = axis + 1; i < rank; ++i) after *= xshape[i];
    const long dim = xshape[axis];
    if (before < 1 || after < 1 || index_len < 1) return SUCCESS;

    for (long b = 0; b < before; ++b) {
        for (long j = 0; j < index_len; ++j) {
            long k = static_cast<long>(index[j]);
            if (k < 0) k += dim;
            T* out = y + (b * index_len + j) * after;
            if (k < 0 || k >= dim) {
                for (long a = 0; a < after; ++a) out[a] = T{};
            } else {
                const T* in = x + (b * dim + k) * after;
                for (long a = 0; a < after; ++a) out[a] = in[a];
            }
        }
    }
    return SUCCESS;
}

#define TSUOPS_CPU_GATHER(T)                                                                              \
    template int gather<T, int>(Context*, const T*, const int*, T*, const std::vector<long>&, long, long); \
    template int gather<T, long>(Context*, const T*, const long*, T*, const std::vector<long>&, long, long);
TSUOPS_CPU_GATHER(float)
TSUOPS_CPU_GATHER(float16)
TSUOPS_CPU_GATHER(bfloat16)
TSUOPS_CPU_GATHER(signed char)
TSUOPS_CPU_GATHER(long)
TSUOPS_CPU_GATHER(int)
TSUOPS_CPU_GATHER(short)
TSUOPS_CPU_GATHER(bool)
#undef TSUOPS_CPU_GATHER

}  // namespace infer_ops::cpu_ops
