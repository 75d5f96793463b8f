// Mixture-of-experts routing and the index arrays of the token flow.
//
// A routed pair is (token t, choice j), t < m, j < k, at flat position
// t * k + j; the routing table holds there the expert chosen. The sorted
// view puts the pairs in slots: experts ascending, and within an expert the
// flat positions ascending. The gather form holds at each slot the flat
// position of its pair, the scatter form at each flat position the slot; the
// offsets (n + 1 entries) give the first slot of every expert and, last, the
// number of pairs. Token block b of block_num holds the tokens of the b-th
// of block_num contiguous near-equal spans, the first m % block_num one token
// longer; block_statistic[b * n + e] counts its pairs routed to expert e.
#pragma once

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>

namespace infer_ops {

using orvane::tsu::api::Context;

// For each of the m tokens: the softmax of its n gate logits, and the k
// experts of highest probability, highest first; equal probabilities go to
// the lower expert number. The order is decided on the float probabilities,
// before they are rounded to TY. topk_score and topk_index are [m, k]. With
// block_num above 0 also the per-block histogram block_statistic
// [block_num, n]; with block_num 0 or below it is not touched and may be
// null. n at most 1024, k at most n. On the device a failed launch returns
// the runtime's own code, unlogged.
// TX, TY: float, float16, bfloat16 each; TID: int, long.
template <typename TX, typename TY, typename TID>
int moe_softmax_topk(Context* ctx, const TX* x, TY* topk_score, TID* topk_index, int* block_statistic, long m,
                     long n, long k, long block_num);

// The offsets (n + 1) and the gather form (m * k) of a routing table of m
// tokens with k choices over n experts. k at most n, m and k above 0, n at
// most 512. The reference path returns 1 without a log at the first expert
// number outside [0, n), with the offsets partly built and the gather form
// unwritten; the kernel gives such pairs no slot.
template <typename T>
int moe_sorted_topk_idx(Context* ctx, const T* topk_idx, T* sorted_tokens_num_lod, T* sorted_tokens_idx, long m,
                        long k, long n);

// sorted_token_idx[moe_index[i]] = i for i in [0, count): turns a gather
// form into its scatter form and back. The reference path stops with 1 and
// no log at the first value outside [0, count), what it wrote so far
// staying. On the device (types 2 and 3) check_moe_index tests the input
// before and the output after the kernel; the kernel itself skips values
// outside the range. Other device types: nothing done, 0. count2 is only
// dumped.
template <typename T>
int moe_resort_idx(Context* ctx, const T* moe_index, T* sorted_token_idx, long count, long count2);

// The block-padded gather form of a routing table of numel pairs over n
// experts: each expert's run of flat positions starts at a multiple of
// block_size; expert_ids[b] names the expert of each block of block_size
// slots that holds pairs; *total_tokens_post_pad = the slots in use with
// padding. sorted_token_ids has room for max((block_size - 1) * n + numel,
// block_size) slots and expert_ids for that many over block_size, rounded
// up. Padding slots and the unused tail of expert_ids are not written.
// Pairs whose expert lies outside [0, n) get no slot. block_size must be
// above 0. Device types other than 0 and 3: nothing done, 0.
template <typename T>
int moe_align_block_size(Context* ctx, const T* topk_idx, T* sorted_token_ids, T* expert_ids,
                         T* total_tokens_post_pad, long n, long block_size, long numel);

// The per-block histogram of a routing table of m tokens with k choices over
// n experts, as the routers give it. Expert numbers outside [0, n) are not
// counted.
template <typename T>
int gen_block_statistic(Context* ctx, const T* topk_ids, T* block_statistic, long m, long n, long k,
                        long block_num);

// The offsets of n counts: lod[0] = 0, lod[i + 1] = lod[i] + expert_m[i],
// summed in TOUT (wrapping on overflow). use_gmx runs the device kernel on
// the GMX engine. Device types other than 0, 2 and 3: nothing done, 0.
// TIN, TOUT: int, long.
template <typename TIN, typename TOUT>
int moe_expert_m_to_lod(Context* ctx, const TIN* expert_m, TOUT* sorted_tokens_num_lod, long n, bool use_gmx);

// Debug check of an index array of rows * cols entries in device memory:
// every value must lie in [0, rows * cols). Only while INFER_OPS_DEBUG (read
// once per process) is a non-zero number; otherwise 0 at once. Copies the
// array to the host, prints the first ten wrong values and a summary line to
// standard output, and returns 1 when any value is wrong; a failed copy
// returns its status.
template <typename T>
int check_moe_index(Context* ctx, const T* index, long rows, long cols, const char* func_name,
                    const char* array_name);


// ---- the token flow: gathering into expert order and combining back --------------------

// Copies token row t of x ([m, d]) to the slot of each of its pairs in y
// ([m * k, d]), the slots in the order above, and gives the scatter form
// moe_index, the counts expert_m (may be null) and the offsets
// sorted_tokens_num_lod, whose last entry is m * k (a 32-bit product) rather
// than the sum of the counts. Pairs whose expert lies outside [0, e) get no
// slot and keep their moe_index entry. x and y may both be null: only the
// index arrays are made. block_statistic ([block_num, e], as the routers
// give it) may be null; with block_num above 0 the device then makes it in
// scratch. The device path takes k at most 64, e at most 256 and, with
// block_num below 1, m * k at most 16128; beyond those, and on any failure
// of a device step, status 2. With INFER_OPS_DEBUG on, moe_index is checked
// after the device run. Device types other than 0, 2 and 3: nothing done, 0.
// T: float, float16, bfloat16; TI: int.
template <typename T, typename TI>
int moe_ffn_pre_sorted(Context* ctx, const T* x, const TI* index, const TI* block_statistic, T* y, TI* moe_index,
                       TI* expert_m, TI* sorted_tokens_num_lod, long m, long d, long e, long k, long block_num);

// As moe_ffn_pre_sorted, with every row quantised to signed char by rule
// Q8 against the scale float pe_max[e] of its expert, token_max_out[slot]
// (may be null) = that scale float. y has y_rows rows (m * k when y_rows is
// below 1) and must hold a row for every pair routed to an expert in
// [0, e); rows past the pairs are not written. Pairs outside [0, e) get
// moe_index -1; the offsets end with the sum of the counts.
template <typename T, typename TI>
int moe_ffn_pre_sorted_quant_pe(Context* ctx, const T* x, const TI* index, const float* pe_max,
                                const TI* block_statistic, signed char* y, TI* moe_index, TI* expert_m,
                                TI* sorted_tokens_num_lod, float* token_max_out, long m, long d, long e, long k,
                                long block_num, long y_rows);

// The gather form moe_index and the offsets expert_offset_m (n + 1) of a
// routing table of m tokens with k choices over n experts, equal to those
// of moe_sorted_topk_idx. block_num must be 12 and block_statistic hold its
// 12 * n entries (the device reads it); n below 1024, k at most n, m and k
// above 0. Pairs outside [0, n) get no slot. With INFER_OPS_DEBUG on,
// moe_index is checked after the device run.
template <typename TI>
int moe_ffn_pre_fusion(Context* ctx, const TI* index, const TI* block_statistic, TI* moe_index, TI* expert_offset_m,
                       long m, long n, long k, long block_num);

// Row t of y ([m, d]) = the sum over j of the slot rows x[moe_index[t * k +
// j]] (x is [m * k, d] in slot order, moe_index the scatter form) times the
// weight normed_score[t * k + j] * dequant_score[slot] (the factor follows
// the slot; 1 when dequant_score is null). Where the sum is rounded depends
// on the types: float sums in double steps rounded to float; (float16,
// float) in float; (float16, float16) in float16 after every step, the
// weight included; bfloat16 in bfloat16 after every expert. On the device,
// moe_index is checked first while INFER_OPS_DEBUG is on; every device
// failure is status 2. Device types other than 0, 2 and 3: nothing done, 0.
// (T, TS): (float16, float16), (float16, float), (bfloat16, bfloat16),
// (bfloat16, float), (float, float); TI int, TF float.
template <typename T, typename TI, typename TF, typename TS>
int moe_ffn_post_fusion(Context* ctx, const T* x, const TI* moe_index, const TS* normed_score,
                        const TF* dequant_score, T* y, long m, long d, long k);

// Row t of y ([m, d]) = the sum of the k rows of token t in x ([m, k, d]),
// rounded to T after every addition; with k 1 a copy. Every device failure
// is status 2. Device types other than 0, 2 and 3: nothing done, 0.
// T: float, float16, bfloat16.
template <typename T>
int moe_sum(Context* ctx, const T* x, T* y, long m, long d, long k);

// ---- group routers ----------------------------------------------------------------------
// The n experts split into group_num groups of gs = n / group_num
// consecutive experts. Every stage orders by the routers' rule: a higher
// key first, and equal keys in the order the list was built (lower group
// first, lower expert first). TX, TY: float, float16, bfloat16 each; TID:
// int, long. On the device a failed launch returns the runtime's own code,
// unlogged, except where said.

// Per token: the groups ranked by their greatest input, the group_topk best
// groups' experts ranked by their input, the first k taken; score is the
// chosen inputs converted once from TX to TY. group_num and group_topk both
// 0: the plain top-k of the row. score and topk_index are [m, k];
// block_statistic [block_num, n] with block_num above 0. Refused with status
// 1: on the host a grouped call whose n is not a multiple of group_num; on
// either path a grouped call with group_num below 1, group_topk above
// group_num or fewer than k candidates (group_topk * gs), and k above n
// without groups; on the device a row of more than 1024 experts.
template <typename TX, typename TY, typename TID>
int moe_group_topk_fusion(Context* ctx, const TX* x, TY* score, TID* topk_index, int* block_statistic, long m, long n,
                          long group_num, long group_topk, long k, long block_num);

// Per token: s = sigmoid(x), selection on s + bias (bias of n floats):
// groups ranked by the sum of their two best keys, then as above. The
// weights ignore the bias: s of each chosen expert times scale / (1e-7 +
// the sum of the chosen s). n at most 1024, group_topk at most group_num, k
// at most n; also group_num above 0, groups of at least 2 experts and at
// least k candidates.
template <typename TX, typename TY, typename TID>
int moe_sigmoid_topk_norm_fusion(Context* ctx, const TX* x, float* bias, float scale, TY* norm_score,
                                 TID* topk_index, int* block_statistic, long m, long n, long group_num,
                                 long group_topk, long k, long block_num);

// Per token and group: the first greatest input of the group, weighted by
// its softmax inside the group; the group_num weights renormalised to sum
// to 1. Then shared_num shared experts n, n + 1, ... with weight 1.0. Rows
// of norm_score and topk_index have group_num + shared_num entries, rows
// of block_statistic n + shared_num. n at most 1024, group_num in [1, n],
// shared_num at least 0; on the host n a multiple of group_num. A failed
// launch is logged, status 2.
template <typename TX, typename TY, typename TID>
int moe_softmax_group_singlek_norm(Context* ctx, const TX* x, TY* norm_score, TID* topk_index, int* block_statistic,
                                   long m, long n, long group_num, long shared_num, long block_num);

}  // namespace infer_ops
