// libtsuops: every exported operator, the 16-bit scalar types and the
// parameter classes.
#pragma once

#include <tsuops/version.h>
