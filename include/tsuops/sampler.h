// Sampling from the probability rows of the last layer, and the verification
// of speculative tokens.
#pragma once

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops {

using orvane::tsu::api::Context;

// ---- sampling ------------------------------------------------------------------------------
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

// ---- renormalisation and tree verification ------------------------------------------------
// Both renormalisers cut each of m rows of n probabilities without sorting:
// a ternary search over the values, one pass of the row per step, finds a
// pivot such that the entries above it are kept (a group of equal values at
// the cut is kept whole), rescaled to sum to 1, and every other entry
// becomes 0. T: float, float16, bfloat16; results are narrowed to T once,
// by the type's plain conversion. A failed launch is logged, status 2.

// Keeps the k largest entries of each row (top_k_arr, m ints, may be null,
// gives each row its own k). A row whose k is n or more is copied unchanged
// (entries at or below -10000 become 0). m, n and k must be above 0.
// TK: int.
template <typename T, typename TK>
int top_k_renorm_probs(Context* ctx, const T* probs, T* renormed_probs, long m, long n, long k,
                       const TK* top_k_arr);

// Keeps the largest entries of each row whose sum reaches top_p (top_p_arr,
// m floats, may be null, gives each row its own). m and n must be above 0.
template <typename T>
int top_p_renorm_probs(Context* ctx, const T* x, T* y, const float* top_p_arr, float top_p, long m, long n);

// Greedy acceptance of a draft tree per sequence. Each of the bs trees has
// num_draft_tokens nodes, node 0 the root, stored as first-child
// (retrive_next_token) and next-sibling (retrive_next_sibling) lists of
// local node numbers ended by -1, with each node's token (candidates) and
// global position (retrive_index). From the root, each level accepts the
// first child in sibling order whose token equals the target's token at the
// current node (target_predict, by global position), until no child
// matches or num_spec_step - 1 tokens are accepted. accept_index row b
// receives the global positions of the path, root first, accept_token_num[b]
// the tokens accepted beyond the root, and predicts, at every position on
// the path, the target's token there. Other entries are not written. A link
// outside the tree ends its list, a position outside the batch ends the
// walk, and a sibling list that runs longer than the tree is taken as a
// cycle and ends the walk. bs at most 256, num_spec_step and
// num_draft_tokens at most 64. A failed launch returns the runtime's code,
// logged as a nested status. (TI, TL): (int, int), (int, long).
template <typename TI, typename TL>
int verify_tree_greedy(Context* ctx, TI* predicts, TI* accept_index, TI* accept_token_num, TL* candidates,
                       TL* retrive_index, TL* retrive_next_token, TL* retrive_next_sibling, TL* target_predict,
                       long bs, long num_spec_step, long num_draft_tokens);

}  // namespace infer_ops
