// Sampling from the probability rows of the last layer.
#pragma once

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops {

using orvane::tsu::api::Context;

// Draws one token per row of m rows of n probabilities, from the smallest set
// of most probable tokens whose mass exceeds top_ps[i]. The row is sorted in
// descending order (equal probabilities in column order); entries are kept
// while the running float sum, taken before each entry, is at most top_ps[i],
// so the entry that crosses the threshold stays. The draw walks the kept
// entries in order, adding each divided by their float sum, and takes the
// first at which the running sum reaches rand_coeff[i]. The token's column
// goes to top_p_ids[i] and, when top_p_values is not null, its probability
// (not renormalised) to top_p_values[i]. A row whose draw reaches no entry,
// or whose stop_flags entry is true, keeps what its outputs held. The draw is
// a function of the inputs alone, on the host and on the device.
// T is float or float16; TID is int or long.
template <typename T, typename TID>
int top_p_sampling(Context* ctx, const T* x, const T* top_ps, const float* rand_coeff, TID* top_p_ids, long m, long n,
                   T* top_p_values, const bool* stop_flags);

}  // namespace infer_ops
