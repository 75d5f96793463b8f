// Runs one test of the current test program in a fresh process with a
// changed environment: for behaviour fixed by switches that the library reads
// once per process.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace tsuops_test {

// Re-executes /proc/self/exe with --gtest_filter=<gtest_filter> and
// --gtest_also_run_disabled_tests, the variables of `env` set and those of
// `unset` removed. Tests meant only for such a child are named DISABLED_...
// so that an ordinary run skips them. Succeeds when the child exits 0 having
// run at least one test; on failure the message carries the child's output.
::testing::AssertionResult run_child(const std::string& gtest_filter,
                                     const std::vector<std::pair<std::string, std::string>>& env,
                                     const std::vector<std::string>& unset = {});

}  // namespace tsuops_test
