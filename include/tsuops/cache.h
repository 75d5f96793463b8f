// Stores of new keys and values into the key/value cache of attention.
//
// Layout names list the axes from slowest to fastest: B the sequence (or
// batch slot), L the position along a sequence, H the head, D the element
// within a head.
//
// Input tensors hold the new tokens. A sequence b of S tokens takes the
// S * H * D elements from lod[b] * H * D on:
//   "BLHD": token-major, row (b, j, h) at (lod[b] + j) * H * D + h * D;
//   "BHLD": head-major, row (b, j, h) at lod[b] * H * D + h * S * D + j * D.
// A flat token tensor [token, head, dim] is "BLHD" with one token a sequence.
//
// Caches:
//   paged "HLD": [num_blocks, H, block_size, D]; a block holds block_size
//     consecutive positions of one sequence for every head, head-major; row
//     (block, h, off) at ((block * H + h) * block_size + off) * D.
//   slot-major: [max_slots, H, max_seq_len, D]; row (slot, h, pos) at
//     ((slot * H + h) * max_seq_len + pos) * D.
//
// Cache positions are named either by a slot_mapping entry per token, the
// flat position block * block_size + off, or by a block_table of
// [max_batch, max_blocks_per_seq] ints whose entry [r, i] is the physical
// block of logical block i of the sequence in row r, so that position pos
// lies in block_table[r * max_blocks_per_seq + pos / block_size] at offset
// pos % block_size.
//
// None of these operators checks a slot, block number, table row or
// position against the cache: a value outside it writes outside it. There
// is no padding slot either; a negative slot_mapping entry is not skipped.
// The caller passes only tokens with a real slot, and no two tokens of one
// call may share a cache row.
#pragma once

#include <string>

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>
#include <tsuops/vector_param.h>

namespace infer_ops {

using orvane::tsu::api::Context;
using orvane::tsu::api::VectorParam;

// Copies each head row of num_tokens tokens of k ([token, head, k_dim]) and
// v ([token, head, v_dim]) into the paged "HLD" caches at the token's
// slot_mapping entry, bit for bit. Keys and values may have different head
// dimensions. With v_dim 0 and both v and v_cache null only keys are stored.
// Device type 2 is refused (status 4); device types without a path of their
// own (1, 4, 5) return 0 and do nothing.
// T: float16, float, bfloat16; TID: int, long.
template <typename T, typename TID>
int reshape_and_cache(Context* ctx, const T* k, const T* v, T* k_cache, T* v_cache, TID* slot_mapping,
                      long num_tokens, long num_blocks, long num_heads, long k_dim, long v_dim, long block_size);

// Stores the tokens of `batch` sequences of k and v (layout "BLHD" or
// "BHLD", sequence b spanning [kv_seq_lod[b], kv_seq_lod[b + 1]) tokens) into
// the paged "HLD" caches: token j of sequence b goes to logical position
// start_tokens[b] + j of block_table row real_batch[b]. A signed char cache
// takes each head row quantised against k_scale[h] (v_scale[h]), the value
// that maps to 127, or against the row's own absolute maximum where the
// scale is null; a float16 cache takes the row as it is.
// On the host only, and only where k_maxptrs (v_maxptrs) is given: every
// float of k_maxptrs is cleared; per sequence, the rows above the first of
// k_batch_maxptrs ([max_ptr_size, max_batch]) are folded into the first at
// column real_batch[b] and cleared, the largest magnitude of the sequence's
// key rows is folded in, and k_maxptrs[0] takes the largest of those
// columns. k_batch_maxptrs must then be given too. The device path leaves
// all four maxima unwritten and refuses a head block (head_dim * block_size
// cache elements) of more than 200704 bytes.
// The caches have no region check: their size is not passed.
// (TX, TC, TID): (float16, float16, int), (float16, signed char, int);
// (float16, int4_t, int) and (float16, uint4_t, int) only return status 4.
template <typename TX, typename TC, typename TID>
int reshape_and_cached_lod(Context* ctx, const TX* k, const TX* v, TC* k_cache, TC* v_cache, const TID* block_table,
                           const VectorParam<int>& kv_seq_lod, const VectorParam<int>& start_tokens,
                           const VectorParam<int>& real_batch, long batch, long num_heads, long head_dim,
                           long max_batch, long block_size, long max_blocks_per_seq, const std::string& layout,
                           const std::string& cache_layout, const float* k_scale, const float* v_scale,
                           float* k_batch_maxptrs, float* v_batch_maxptrs, float* k_maxptrs, float* v_maxptrs);

// The store conversion of the two operators below, for an element x of T
// widened to float:
//   scale given: q = x * scale clamped to [-128, 127], then rounded half
//     away from zero; a NaN product fails both comparisons of the clamp and
//     gives -128, as the device's max and min do. A signed char cache takes
//     q, a cache of T takes the whole number q as a T;
//   scale null: a cache of T takes x bit for bit; a signed char cache takes
//     the low eight bits of x truncated towards zero (0 for NaN, infinities
//     and magnitudes of 2^31 and more).
// The scale is a multiplier, not a largest magnitude: key_scale and
// value_scale hold one float per (head, element), [num_heads, head_dim].

// Stores the x_lod[batch] tokens of key and value ([token, head, head_dim])
// into slot-major caches: token t of sequence b (x_lod[b] <= t < x_lod[b + 1])
// goes to row slot_id[b], position offset[b] + t - x_lod[b]. The sequence of
// a token is found by a walk that moves on by at most one sequence per token,
// so an empty sequence in x_lod takes the next token; pass none. Values are
// stored when both value and v_cache are given. head_dim must be a multiple
// of 64. Device type 2 is refused (status 4).
// (T, TC): (float16, float16), (bfloat16, bfloat16), (float16, signed char),
// (bfloat16, signed char).
template <typename T, typename TC>
int store_kv_cache(Context* ctx, const T* key, const T* value, TC* k_cache, TC* v_cache, const int* slot_id,
                   const int* offset, const int* x_lod, const float* key_scale, const float* value_scale, long batch,
                   long num_tokens, long max_slots, long max_seq_len, long num_heads, long head_dim);

// Stores num_tokens tokens of key and value ([token, head, head_dim]) into
// paged "HLD" caches at each token's slot_mapping entry. Values are stored
// when both value and value_cache are given. head_dim must be a multiple of
// 64. Device type 2 is refused (status 4).
// (T, TC): as store_kv_cache.
template <typename T, typename TC>
int store_paged_kv_cache(Context* ctx, const T* key, const T* value, TC* key_cache, TC* value_cache,
                         const int* slot_mapping, const float* key_scale, const float* value_scale, long num_tokens,
                         long num_heads, long head_dim, long num_blocks, long block_size);

}  // namespace infer_ops
