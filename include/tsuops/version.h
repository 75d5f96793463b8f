#pragma once

namespace infer_ops {
// The library's version, "major.minor.patch".
const char* version();
}  // namespace infer_ops
