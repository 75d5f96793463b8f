#include "param_dump.h"

#include <cmath>
#include <sstream>

#include "memory_region.h"

namespace orvane::tsu::api {

namespace {

const char* kind_text(MemoryKind k) {
    switch (k) {
    case MemoryKind::CPU: return "\"CPU\"";
    case MemoryKind::L3: return "\"L3\"";
    case MemoryKind::GM: return "\"GM\"";
    case MemoryKind::NULL_PTR: return "\"NULL\"";
    default: return "\"INVALID\"";
    }
}

}  // namespace

template <typename T>
void function_info::add_param(Context* ctx, T* ptr) {
    void* key = const_cast<void*>(static_cast<const void*>(ptr));
    if (auto it = pointer_index.find(key); it != pointer_index.end()) {
        std::string& first = params[static_cast<std::size_t>(it->second)];
        // Only the short device entries ("GM", "L3" with quotes) take a label.
        if (first.size() <= 4) {
            first = first.substr(0, 3) + "_" + std::to_string(alias_counter) + "\"";
            ++alias_counter;
        }
        params.push_back(first);
        return;
    }
    params.emplace_back(ptr ? kind_text(classify_address(ctx->dev_type, ptr)) : "\"NULL\"");
    if (ptr) pointer_index[key] = static_cast<int>(params.size() - 1);
}

template <>
void function_info::add_param<char>(Context* /*ctx*/, char* str) {
    params.push_back("\"" + std::string(str ? str : "") + "\"");
}

template <typename T>
void function_info::add_param(Context* ctx, std::vector<T*> ptrs) {
    params.emplace_back("{");
    for (T* p : ptrs) add_param(ctx, p);
    params.emplace_back("}");
}

void function_info::add_param(Context* /*ctx*/, std::string s) { params.push_back(std::move(s)); }

template <typename T>
std::string ornet_param_to_str(Context* /*ctx*/, const std::vector<T>& v) {
    std::string out = "{";
    for (std::size_t i = 0; i < v.size(); ++i) {
        if (i) out += ", ";
        out += std::to_string(v[i]);
    }
    return out + "}";
}

template <typename T>
std::string ornet_param_to_str(Context* /*ctx*/, T f) {
    if (std::isinf(f)) return f > 0 ? "INFINITY" : "-INFINITY";
    if (std::isnan(f)) return "NAN";
    std::ostringstream os;
    os << static_cast<double>(f);
    return os.str();
}

template <typename T>
std::string ornet_param_to_str(Context* ctx, const VectorParam<T>& v) {
    if (v.cpu == nullptr) return "\"cpu_nullptr\"";
    if (v.len < 1) return "{}";
    return ornet_param_to_str(ctx, std::vector<T>(v.cpu, v.cpu + v.len));
}

template std::string ornet_param_to_str<int>(Context*, const VectorParam<int>&);
template std::string ornet_param_to_str<long>(Context*, const VectorParam<long>&);
template std::string ornet_param_to_str<long>(Context*, const std::vector<long>&);
template std::string ornet_param_to_str<int>(Context*, const std::vector<int>&);
template std::string ornet_param_to_str<float>(Context*, float);

#define TSUOPS_ADD_PARAM(T) template void function_info::add_param<T>(Context*, T*);
TSUOPS_ADD_PARAM(float)
TSUOPS_ADD_PARAM(float16)
TSUOPS_ADD_PARAM(bfloat16)
TSUOPS_ADD_PARAM(double)
TSUOPS_ADD_PARAM(bool)
TSUOPS_ADD_PARAM(signed char)
TSUOPS_ADD_PARAM(unsigned char)
TSUOPS_ADD_PARAM(short)
TSUOPS_ADD_PARAM(int)
TSUOPS_ADD_PARAM(long)
TSUOPS_ADD_PARAM(long long)
TSUOPS_ADD_PARAM(int4_t)
TSUOPS_ADD_PARAM(const float)
TSUOPS_ADD_PARAM(const float16)
TSUOPS_ADD_PARAM(const bfloat16)
TSUOPS_ADD_PARAM(const double)
TSUOPS_ADD_PARAM(const bool)
TSUOPS_ADD_PARAM(const signed char)
TSUOPS_ADD_PARAM(const unsigned char)
TSUOPS_ADD_PARAM(const short)
TSUOPS_ADD_PARAM(const int)
TSUOPS_ADD_PARAM(const long)
TSUOPS_ADD_PARAM(const int4_t)
TSUOPS_ADD_PARAM(void)
TSUOPS_ADD_PARAM(const void)
#undef TSUOPS_ADD_PARAM
template void function_info::add_param<float>(Context*, std::vector<float*>);
template void function_info::add_param<float16>(Context*, std::vector<float16*>);
template void function_info::add_param<bfloat16>(Context*, std::vector<bfloat16*>);
template void function_info::add_param<signed char>(Context*, std::vector<signed char*>);

}  // namespace orvane::tsu::api
