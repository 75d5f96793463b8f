// Everything an operator test needs: contexts, random tensors, guarded
// buffers, log/launch/trace capture, the comparison rules and type lists.
#pragma once

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
#include "support/type_list.h"

// After a helper skipped the test (GTEST_SKIP in a helper records the skip
// but returns only from the helper), leave the test body.
#define TSUOPS_RETURN_IF_SKIPPED()                  \
    do {                                            \
        if (::testing::Test::IsSkipped()) return;   \
    } while (0)
