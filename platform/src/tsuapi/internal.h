#pragma once

#include <atomic>
#include <string>

#include <tsuapi/tsuapi.h>

namespace orvane::tsu::api {

class ContextImpl {
public:
    std::atomic<int> opcount{0};
    std::string last_profiled;
    void* gm_block = nullptr;
    void* l3_block = nullptr;
};

namespace detail {
void emit_trace(const function_info& info);
}

}  // namespace orvane::tsu::api
