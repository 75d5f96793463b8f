#include "support/contexts.h"

namespace tsuops_test {

std::unique_ptr<Context> host_context(const ContextOptions& opts) {
    return std::make_unique<Context>(DeviceType::CPU, opts);
}

std::unique_ptr<Context> device_context(const ContextOptions& opts) {
    return std::make_unique<Context>(DeviceType::TSU3, opts);
}

std::unique_ptr<Context> make_context(DeviceType type, const ContextOptions& opts) {
    return std::make_unique<Context>(type, opts);
}

int arena_of(DeviceType type) {
    switch (type) {
    case DeviceType::TSU2:
        return 2;
    case DeviceType::TSU3:
    case DeviceType::TSU4:
    case DeviceType::TSU5:
        return 3;
    default:
        return -1;
    }
}

}  // namespace tsuops_test
