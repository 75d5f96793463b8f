// The threshold search of the renormalising samplers (top_k_renorm_probs,
// top_p_renorm_probs), as their kernels run it.
//
// One pass over a row against double bounds low < high, with p0 and p1 at
// one and two thirds between them, gives: the least value above low (from
// float(high)), the greatest value at most high (from float(low)), the
// counts of values above p0 and above p1, and their float sums in column
// order. Only the sums depend on the order of the row; the least and
// greatest value and the counts do not (up to the sign of a zero, which
// only ever meets an equality test), so the kernels take those over many
// values at once and keep the sums sequential.
//
// Every comparison of a float value with a double bound is made with the
// bound rounded down to a float, which decides it the same way.
#pragma once

namespace tsuops::kernels::sampler {

// A row whose search is still open after this many passes keeps the bounds
// it has: NaN and infinities can hold the interval open for ever. A row of
// finite values closes long before.
inline constexpr int kMaxSearchPasses = 1024;

// Values widened to float per step of a pass.
inline constexpr long kChunk = 1024;

// The greatest float at or below t (NaN stays NaN): for every float v,
// v > t exactly when v > below(t), and v <= t exactly when v <= below(t).
float below(double t);

// Bounds of one pass, each rounded down.
struct bounds {
    float low, high, p0, p1;
};

struct tally {
    float min_gt_low;
    float max_le_high;
    long c0, c1;
    float sum0, sum1;
};

// Adds the values v[0, len) to the least, the greatest and the two counts
// of `acc`.
void tally_counts(const float* v, long len, const bounds& b, tally& acc);

// Adds the values above p0 to acc.sum0 and those above p1 to acc.sum1, in
// order.
void tally_sums(const float* v, long len, const bounds& b, tally& acc);

// sum plus the values above `low`, added in order.
float sum_above(const float* v, long len, float low, float sum);

// The greatest of start and the values, NaN never taken.
float max_of(const float* v, long len, float start);

}  // namespace tsuops::kernels::sampler
