// Which route swiglu takes on the device: an ordered table of candidates,
// the first that matches wins. The kernel splits its work over rows, so a
// tensor of a great many short rows is first turned so that the split axis
// leads and the whole tensor is one long row, at the price of two transposes.
#pragma once

namespace infer_ops::swiglu_route {

// Halves taken along an axis with `before` / `after` (truncating) at least
// this many times the axis length go the transposing way, whatever the type.
inline constexpr long kTransposeFactor = 1024;

enum class Route { transposing, plain };

struct Query {
    bool halves;  // y is null: x holds both operands
    long before;  // product of the dimensions in front of the axis
    long after;   // product of the dimensions behind it
    long dim;     // the axis' length
};

struct Candidate {
    Route route;
    bool (*matches)(const Query&);
};

inline constexpr Candidate kCandidates[] = {
    {Route::transposing, [](const Query& q) { return q.halves && q.before / q.after >= q.dim * kTransposeFactor; }},
    {Route::plain, [](const Query&) { return true; }},
};

constexpr Route select(const Query& q) {
    for (const Candidate& c : kCandidates) {
        if (c.matches(q)) return c.route;
    }
    return Route::plain;
}

}  // namespace infer_ops::swiglu_route
