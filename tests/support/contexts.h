// Contexts for tests: a host context and emulated device contexts.
#pragma once

#include <memory>

#include <tsuapi/tsuapi.h>

namespace tsuops_test {

using orvane::tsu::api::Context;
using orvane::tsu::api::ContextOptions;
using orvane::tsu::api::DeviceType;

// Any device type, for tests of dispatch and address classification.
inline std::unique_ptr<Context> make_context(DeviceType type, const ContextOptions& opts = {}) {
    return std::make_unique<Context>(type, opts);
}
// The reference paths.
inline auto host_context(const ContextOptions& opts = {}) { return make_context(DeviceType::CPU, opts); }
// The device paths on the emulator.
inline auto device_context(const ContextOptions& opts = {}) { return make_context(DeviceType::TSU3, opts); }

// The emulated global-memory arena that serves a device type: 3 for types 3
// to 5, 2 for type 2, -1 for types without memory (0 and 1).
inline int arena_of(DeviceType type) {
    if (type == DeviceType::TSU2) return 2;
    return type >= DeviceType::TSU3 && type <= DeviceType::TSU5 ? 3 : -1;
}

// True when built with AddressSanitizer, under which only the type-3 arena
// can be mapped.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool under_asan() { return true; }
#else
constexpr bool under_asan() { return false; }
#endif

}  // namespace tsuops_test
