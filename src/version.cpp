#include <tsuops/version.h>

namespace infer_ops {
const char* version() { return TSUOPS_VERSION; }
}  // namespace infer_ops
