// A small integer array that both the host and the kernels read: a host
// copy, its length and an optional device copy. The usual content is a
// length-offset array ("lod"): for b sequences b + 1 ascending offsets, the
// first 0, sequence i occupying [lod[i], lod[i + 1]).
#pragma once

#include <tsuops/ctx_guard.h>

namespace orvane::tsu::api {

// Owns nothing: the caller keeps cpu (and a tsu of its own) alive for the
// call. Built member-wise, e.g. VectorParam<int>{lod, batch + 1}.
template <typename T>
struct VectorParam {
    const T* cpu = nullptr;
    long len = 0;
    T* tsu = nullptr;

    // A copy whose tsu is usable by kernels for the guard's lifetime: the
    // caller's device copy if there is one; null on a host context; else an
    // upload of cpu into general scratch of the guard. A failed allocation
    // or upload gives a null tsu and logs nothing.
    VectorParam<T> to_tsu(ctx_guard& guard) const;
};

extern template struct VectorParam<int>;
extern template struct VectorParam<long>;

}  // namespace orvane::tsu::api
