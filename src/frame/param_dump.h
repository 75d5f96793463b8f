// Text of each kind of argument in a call's parameter record.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <tsuapi/tsuapi.h>
#include <tsuops/types.h>
#include <tsuops/vector_param.h>

namespace orvane::tsu::api {

// "{a, b, c}" by "%ld"; "{}" when empty.
template <typename T>
std::string ornet_param_to_str(Context* ctx, const std::vector<T>& v);
// INFINITY, -INFINITY, NAN, else the stream's default format of the value as double.
template <typename T>
std::string ornet_param_to_str(Context* ctx, T f);

// The host copy as a vector; "cpu_nullptr" (with its quotes) without one.
template <typename T>
std::string ornet_param_to_str(Context* ctx, const VectorParam<T>& v);

// "ptr(<unsigned decimal>)"; the left side of a pointer check.
template <typename T>
std::string __wrapper_tostring(T* p) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "ptr(%llu)", static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
    return buf;
}

}  // namespace orvane::tsu::api
