// Limits of the fused attention front ends and the choice of the encoder's
// kernel on the device: an ordered table of candidates, the first that
// matches wins. The choice reads the token count against the cores of the
// launch and the heads of a qkv row; the decoder has one family and groups
// its kv heads instead (head_group of the kernels' header).
#pragma once

#include "kernels/fusion/split_rope_cache_kv.h"
#include "wrapper/rope/neox_select.h"

namespace infer_ops::front_end {

inline constexpr long kDecoderMaxBatch = 1024;
inline constexpr long kEncoderMaxBatch = 512;
// Heads are whole multiples of this many elements (the encoder; the
// decoder's device path).
inline constexpr long kHeadDimUnit = 64;
inline constexpr long kEncoderMaxHeadDim = 512;
// One token's key row, kv_heads * head_dim elements of two bytes, fits this.
inline constexpr long kEncoderMaxKeyRowBytes = 32768;
inline constexpr long kKeyElementBytes = 2;
// The decoder's device path.
inline constexpr long kDecoderMaxHeadDim = 128;
inline constexpr long kDecoderMaxKvHeads = 64;

// Calls of up to kShortSeqMaxTokens tokens, and calls whose tokens leave a
// last round of 1 to kShortSeqRemainder tokens over the cores, take the
// short-sequence kernels, which split heads across cores as well as tokens;
// so do calls with fewer tokens than heads in a qkv row. The per-channel
// signed char forms draw the line at kInt8PcShortSeqMaxTokens tokens alone.
inline constexpr long kShortSeqMaxTokens = 384;
inline constexpr long kShortSeqRemainder = 128;
inline constexpr long kInt8PcShortSeqMaxTokens = 256;

enum class Encoder { regular, short_seq };

struct EncoderQuery {
    long total;
    long q_heads;
    long kv_heads;
    long ncluster;
    bool int8_per_channel;  // the per-channel signed char kernels
};

struct EncoderCandidate {
    Encoder kernel;
    bool (*matches)(const EncoderQuery&);
};

constexpr long row_heads(const EncoderQuery& q) { return q.q_heads + 2 * q.kv_heads; }

constexpr long remainder(const EncoderQuery& q) { return q.total % (q.ncluster * rope::kCoresPerCluster); }

inline constexpr EncoderCandidate kEncoderCandidates[] = {
    {Encoder::short_seq,
     [](const EncoderQuery& q) {
         return q.int8_per_channel && (q.total <= kInt8PcShortSeqMaxTokens || row_heads(q) > q.total);
     }},
    {Encoder::regular, [](const EncoderQuery& q) { return q.int8_per_channel; }},
    {Encoder::short_seq, [](const EncoderQuery& q) { return q.total <= kShortSeqMaxTokens; }},
    {Encoder::short_seq, [](const EncoderQuery& q) { return remainder(q) > 0 && remainder(q) <= kShortSeqRemainder; }},
    {Encoder::short_seq, [](const EncoderQuery& q) { return row_heads(q) > q.total; }},
};

constexpr Encoder select_encoder(const EncoderQuery& q) {
    for (const EncoderCandidate& c : kEncoderCandidates) {
        if (c.matches(q)) return c.kernel;
    }
    return Encoder::regular;
}

using tsuops::kernels::front_end::head_group;

}  // namespace infer_ops::front_end
