// libtsuops: every exported operator, the 16-bit scalar types and the
// parameter classes.
#pragma once

#include <tsuops/basic.h>
#include <tsuops/cache.h>
#include <tsuops/catalogue.h>
#include <tsuops/cpu_ops.h>
#include <tsuops/float16.h>
#include <tsuops/moe.h>
#include <tsuops/norm.h>
#include <tsuops/quant.h>
#include <tsuops/rope.h>
#include <tsuops/sampler.h>
#include <tsuops/types.h>
#include <tsuops/vector_param.h>
#include <tsuops/version.h>
