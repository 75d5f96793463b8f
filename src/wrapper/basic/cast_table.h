// How the device path of cast treats each ordered type pair, as an ordered
// table: the first row that matches decides.
//
//   same type                                  byte copy (copy<signed char>)
//   bfloat16 <-> short, bfloat16 <-> int       no kernel: unimplemented
//   float16 -> bool, short, long               two hops through float
//   bool, short, long -> float16               two hops through float
//   any other pair                             one infer_cluster_cast_mk3
#pragma once

#include <type_traits>

#include <tsuops/float16.h>

namespace infer_ops::cast_table {

enum class Route { copy, refused, two_hops, direct };

// The CType of a two-hop pair: where float16 stands.
inline constexpr int kHalfIsDestination = 1;
inline constexpr int kHalfIsSource = 2;

template <class T, class... U>
inline constexpr bool one_of = (std::is_same_v<T, U> || ...);

template <class TX, class TY>
constexpr Route route() {
    if (std::is_same_v<TX, TY>) return Route::copy;
    if ((std::is_same_v<TX, bfloat16> && one_of<TY, short, int>) ||
        (std::is_same_v<TY, bfloat16> && one_of<TX, short, int>)) {
        return Route::refused;
    }
    if ((std::is_same_v<TX, float16> && one_of<TY, bool, short, long>) ||
        (std::is_same_v<TY, float16> && one_of<TX, bool, short, long>)) {
        return Route::two_hops;
    }
    return Route::direct;
}

template <class TX, class TY>
inline constexpr int two_hop_ctype = std::is_same_v<TX, float16> ? kHalfIsSource : kHalfIsDestination;

}  // namespace infer_ops::cast_table
