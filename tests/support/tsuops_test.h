// Everything an operator test needs: contexts, random tensors, guarded
// buffers, log/launch/trace capture, the comparison rules and type lists.
#pragma once

#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include <tsuapi/tsuapi.h>
#include <tsuops/infer_ops.h>
#include <tsurt/emulator.h>
#include <tsurt/tsurt.h>

#include "support/capture.h"
#include "support/child_process.h"
#include "support/compare.h"
#include "support/contexts.h"
#include "support/guarded_buffer.h"
#include "support/random.h"

// After a helper skipped the test (GTEST_SKIP in a helper records the skip
// but returns only from the helper), leave the test body.
#define TSUOPS_RETURN_IF_SKIPPED() do { if (::testing::Test::IsSkipped()) return; } while (0)

namespace tsuops_test {

// The ten element types of the operators.
using AllElementTypes =
    ::testing::Types<float, float16, bfloat16, double, long, int, short, signed char, unsigned char, bool>;
using HalfAndFloatTypes = ::testing::Types<float, float16, bfloat16>;

// The type strings of the frame ("float16", "int64_t", ...), also used as
// the names of typed-test instances.
template <class T>
constexpr const char* type_name() {
    if constexpr (std::is_same_v<T, float>) return "float";
    else if constexpr (std::is_same_v<T, float16>) return "float16";
    else if constexpr (std::is_same_v<T, bfloat16>) return "bfloat16";
    else if constexpr (std::is_same_v<T, double>) return "double";
    else if constexpr (std::is_same_v<T, long>) return "int64_t";
    else if constexpr (std::is_same_v<T, int>) return "int";
    else if constexpr (std::is_same_v<T, short>) return "int16_t";
    else if constexpr (std::is_same_v<T, signed char>) return "int8_t";
    else if constexpr (std::is_same_v<T, unsigned char>) return "uint8_t";
    else if constexpr (std::is_same_v<T, bool>) return "bool";
    else return "unknown";
}

// TYPED_TEST_SUITE(Suite, AllElementTypes, ElementTypeNames);
struct ElementTypeNames {
    template <class T>
    static std::string GetName(int) { return type_name<T>(); }
};

}  // namespace tsuops_test
