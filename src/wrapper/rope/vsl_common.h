// What the variable-length rotary embeddings and the fused front ends that
// compose them check of their sequences, and how they start a device call.
#pragma once

#include <algorithm>
#include <limits>

#include "frame/frame.h"

namespace infer_ops::rope::vsl {

// The lengths of the sequences of a lod (len entries, batch = len - 1):
// the longest must fit the rows a table keeps per sequence, and none may be
// negative.
template <typename TID>
int check_sequences(Context* ctx, const VectorParam<TID>& lod, long rope_max_seqlen,
                    frame::where at = frame::where::current()) {
    long longest = 0, shortest = std::numeric_limits<long>::max();
    for (long b = 0; b + 1 < lod.len; ++b) {
        const long n = static_cast<long>(lod.cpu[b + 1]) - static_cast<long>(lod.cpu[b]);
        longest = std::max(longest, n);
        shortest = std::min(shortest, n);
    }
    if (int st = frame::check(ctx, longest, frame::Rel::LE, rope_max_seqlen, at)) return st;
    if (lod.len < 2) return SUCCESS;
    return frame::check(ctx, shortest, frame::Rel::GE, 0L, at);
}

// positions: none, or one per sequence, with its host copy.
template <typename TID>
int check_positions(Context* ctx, const VectorParam<TID>& positions, long batch,
                    frame::where at = frame::where::current()) {
    if (positions.len == 0) return SUCCESS;
    if (int st = frame::check(ctx, positions.len, frame::Rel::EQ, batch, at)) return st;
    return frame::check_ptr(ctx, positions.cpu, STATUS_INVALID_ARGUMENT, at);
}

// The device copies of a lod and of positions that may be empty: an empty
// positions parameter reaches the kernels as a null pointer, which they read
// as every sequence starting at its table's first row.
template <typename TID>
int device_copies(ContextStackGuard& g, Context* ctx, orvane::tsu::api::ctx_guard& scratch,
                  const VectorParam<TID>& lod, const VectorParam<TID>& positions, VectorParam<TID>& lod_tsu,
                  VectorParam<TID>& positions_tsu, frame::where at = frame::where::current()) {
    if (int st = frame::device_copy(g, ctx, scratch, lod, "lod_tsu", lod_tsu, at)) return st;
    if (positions.len == 0) return SUCCESS;
    return frame::device_copy(g, ctx, scratch, positions, "positions_tsu", positions_tsu, at);
}

}  // namespace infer_ops::rope::vsl
