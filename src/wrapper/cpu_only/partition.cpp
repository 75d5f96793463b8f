#include <algorithm>

#include <tsuops/cpu_ops.h>

namespace infer_ops::cpu_ops {

template <typename T>
void partition(int tid, int nthreads, T len, int unit, T* begin, T* end) {
    // 128-bit intermediates: (first + q + 1) * unit may pass the range of T
    // for lengths near its maximum even though the clamped result fits.
    using W = __int128;
    W blocks = 0;
    if (unit >= 1 && nthreads >= 1 && len > 0) blocks = (static_cast<W>(len) + unit - 1) / unit;
    const W n = nthreads >= 1 ? nthreads : 1;
    const W q = blocks / n;
    const W r = blocks % n;
    const W first = q * tid + std::min<W>(r, tid);
    const W last = first + q + (r > tid ? 1 : 0);
    *begin = static_cast<T>(std::min<W>(first * unit, len));
    *end = static_cast<T>(std::min<W>(last * unit, len));
}

template void partition<int>(int, int, int, int, int*, int*);
template void partition<long>(int, int, long, int, long*, long*);

}  // namespace infer_ops::cpu_ops
