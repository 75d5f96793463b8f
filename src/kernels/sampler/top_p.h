// Kernels of top_p_sampling: one token drawn per row, rows split over every
// core of the launch; rows whose stop flag is set are skipped.
//
//   top_p_sampling<T, TID>           sorts each row itself, in the caller's
//                                    scratch of m * n floats and m * n
//                                    unsigned ints (any n below 2^32).
//   top_p_sampling_fallback<T, TID>  takes rows already sorted in descending
//                                    order with their source columns.
//
// Both give the draw of the reference path bit for bit: the same float sums
// in the same order over the same sorted rows.
#pragma once

#include "kernels/catalogue.h"

#define TSU_FAMILY_top_p_sampling(X)                                                                          \
    X(top_p_sampling, TSU_ENGINE_CLUSTER, (typename T, typename TID), (T, TID), (const T*, x),                 \
      (const T*, top_ps), (const float*, rand_coeff), (const bool*, stop_flags), (TID*, top_p_ids),            \
      (T*, top_p_values), (float*, sorted_tmp), (unsigned int*, ids_tmp), (long, m), (long, n))
TSU_KERNEL_DECLARE(top_p_sampling)

#define TSU_FAMILY_top_p_sampling_fallback(X)                                                                 \
    X(top_p_sampling_fallback, TSU_ENGINE_CLUSTER, (typename T, typename TID), (T, TID), (const T*, sorted_x), \
      (const TID*, sorted_ids), (const T*, top_ps), (const float*, rand_coeff), (const bool*, stop_flags),     \
      (TID*, top_p_ids), (T*, top_p_values), (long, m), (long, n))
TSU_KERNEL_DECLARE(top_p_sampling_fallback)
