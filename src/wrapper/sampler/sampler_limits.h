// The size limits of the sampler operators, as named constants that the
// tests sweep one below, at and one above.
#pragma once

namespace infer_ops::sampler_limits {

// verify_tree_greedy: sequences, accepted tokens with the root, tree nodes.
inline constexpr long kMaxTreeBatch = 256;
inline constexpr long kMaxSpecSteps = 64;
inline constexpr long kMaxDraftTokens = 64;

}  // namespace infer_ops::sampler_limits
