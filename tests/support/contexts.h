// Contexts for tests: a host context and emulated device contexts.
#pragma once

#include <memory>

#include <tsuapi/tsuapi.h>

namespace tsuops_test {

using orvane::tsu::api::Context;
using orvane::tsu::api::ContextOptions;
using orvane::tsu::api::DeviceType;

// DeviceType::CPU: the reference paths.
std::unique_ptr<Context> host_context(const ContextOptions& opts = {});
// DeviceType::TSU3: the device paths on the emulator.
std::unique_ptr<Context> device_context(const ContextOptions& opts = {});
// Any device type, for tests of dispatch and address classification.
std::unique_ptr<Context> make_context(DeviceType type, const ContextOptions& opts = {});

// The emulated global-memory arena that serves a device type: 3 for types 3
// to 5, 2 for type 2, -1 for types without memory (0 and 1).
int arena_of(DeviceType type);

// True when built with AddressSanitizer, under which only the type-3 arena
// can be mapped.
constexpr bool under_asan() {
#if defined(__SANITIZE_ADDRESS__)
    return true;
#else
    return false;
#endif
}

}  // namespace tsuops_test
