#include <algorithm>
#include <cstddef>
#include <vector>

#include <tsuops/cpu_ops.h>

namespace infer_ops::cpu_ops {

namespace {

template <int CAL_TYPE>
inline float combine(float a, float b) {
    static_assert(CAL_TYPE == 0 || CAL_TYPE == 1);
    if constexpr (CAL_TYPE == 0) return a + b;
    else return a * b;
}

// The inner run of `n` output elements; the four cases let the contiguous
// and the repeated-scalar forms vectorise without changing what is computed.
template <typename T, int CAL_TYPE>
void run(const T* x, long sx, const T* y, long sy, T* z, long n) {
    if (sx == 1 && sy == 1) {
        for (long i = 0; i < n; ++i) z[i] = T(combine<CAL_TYPE>(float(x[i]), float(y[i])));
    } else if (sx == 1 && sy == 0) {
        const float b = float(*y);
        for (long i = 0; i < n; ++i) z[i] = T(combine<CAL_TYPE>(float(x[i]), b));
    } else if (sx == 0 && sy == 1) {
        const float a = float(*x);
        for (long i = 0; i < n; ++i) z[i] = T(combine<CAL_TYPE>(a, float(y[i])));
    } else {
        for (long i = 0; i < n; ++i) z[i] = T(combine<CAL_TYPE>(float(x[i * sx]), float(y[i * sy])));
    }
}

// Per output dimension, the step through an input's own row-major layout
// after padding it to `rank` dimensions; 0 where the input repeats
// (dimension 1).
std::vector<long> steps_of(const std::vector<long>& shape, std::size_t rank) {
    std::vector<long> dims(rank, 1);
    std::copy(shape.begin(), shape.end(), dims.begin() + static_cast<long>(rank - shape.size()));
    std::vector<long> step(rank, 0);
    long stride = 1;
    for (std::size_t i = rank; i-- > 0;) {
        step[i] = dims[i] == 1 ? 0 : stride;
        stride *= dims[i];
    }
    return step;
}

std::vector<long> padded(const std::vector<long>& shape, std::size_t rank) {
    std::vector<long> dims(rank, 1);
    std::copy(shape.begin(), shape.end(), dims.begin() + static_cast<long>(rank - shape.size()));
    return dims;
}

}  // namespace

template <typename T, int CAL_TYPE>
int broadcast_op(Context*, const T* x, const T* y, T* z, const std::vector<long>& xshape,
                 const std::vector<long>& yshape) {
    const std::size_t rank = std::max(xshape.size(), yshape.size());
    const std::vector<long> xd = padded(xshape, rank);
    const std::vector<long> yd = padded(yshape, rank);
    std::vector<long> zd(rank);
    long count = 1;
    for (std::size_t i = 0; i < rank; ++i) {
        zd[i] = std::max(xd[i], yd[i]);
        count *= zd[i];
    }
    if (count < 1 || std::any_of(zd.begin(), zd.end(), [](long d) { return d < 1; })) return SUCCESS;

    // Merge neighbouring output dimensions wherever both inputs walk them as
    // one; equal shapes become a single flat run. The offsets visited are
    // exactly those of the per-element index decomposition.
    std::vector<long> sx = steps_of(xshape, rank);
    std::vector<long> sy = steps_of(yshape, rank);
    std::vector<long> dims, stx, sty;
    for (std::size_t i = 0; i < rank; ++i) {
        if (zd[i] == 1) continue;
        if (!dims.empty() && stx.back() == sx[i] * zd[i] && sty.back() == sy[i] * zd[i]) {
            dims.back() *= zd[i];
            stx.back() = sx[i];
            sty.back() = sy[i];
        } else {
            dims.push_back(zd[i]);
            stx.push_back(sx[i]);
            sty.push_back(sy[i]);
        }
    }
    if (dims.empty()) {
        dims = {1};
        stx = {0};
        sty = {0};
    }

    const std::size_t r = dims.size();
    const long inner = dims[r - 1];
    std::vector<long> coord(r, 0);
    long xo = 0, yo = 0;
    for (long zo = 0; zo < count; zo += inner) {
        run<T, CAL_TYPE>(x + xo, stx[r - 1], y + yo, sty[r - 1], z + zo, inner);
        for (std::size_t d = r - 1; d-- > 0;) {
            xo += stx[d];
            yo += sty[d];
            if (++coord[d] < dims[d]) break;
            xo -= stx[d] * dims[d];
            yo -= sty[d] * dims[d];
            coord[d] = 0;
        }
    }
    return SUCCESS;
}

template <typename T>
int broadcast_add(Context* ctx, const T* x, const T* y, T* z, const std::vector<long>& xshape,
                  const std::vector<long>& yshape) {
    return broadcast_op<T, 0>(ctx, x, y, z, xshape, yshape);
}

template <typename T>
int broadcast_mul(Context* ctx, const T* x, const T* y, T* z, const std::vector<long>& xshape,
                  const std::vector<long>& yshape) {
    return broadcast_op<T, 1>(ctx, x, y, z, xshape, yshape);
}

template <typename T>
int add(Context* ctx, const T* x, const T* y, T* z, long len) {
    return broadcast_op<T, 0>(ctx, x, y, z, {len}, {len});
}

template <typename T>
int mul(Context* ctx, const T* x, const T* y, T* z, long len) {
    return broadcast_op<T, 1>(ctx, x, y, z, {len}, {len});
}

#define TSUOPS_CPU_ELEMENTWISE(T)                                                                       \
    template int broadcast_op<T, 0>(Context*, const T*, const T*, T*, const std::vector<long>&,         \
                                    const std::vector<long>&);                                          \
    template int broadcast_op<T, 1>(Context*, const T*, const T*, T*, const std::vector<long>&,         \
                                    const std::vector<long>&);                                          \
    template int broadcast_add<T>(Context*, const T*, const T*, T*, const std::vector<long>&,           \
                                  const std::vector<long>&);                                            \
    template int broadcast_mul<T>(Context*, const T*, const T*, T*, const std::vector<long>&,           \
                                  const std::vector<long>&);                                            \
    template int add<T>(Context*, const T*, const T*, T*, long);                                        \
    template int mul<T>(Context*, const T*, const T*, T*, long);
TSUOPS_CPU_ELEMENTWISE(float)
TSUOPS_CPU_ELEMENTWISE(float16)
TSUOPS_CPU_ELEMENTWISE(bfloat16)
#undef TSUOPS_CPU_ELEMENTWISE

}  // namespace infer_ops::cpu_ops
