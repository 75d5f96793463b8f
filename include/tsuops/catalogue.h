// The kernel catalogue of this library, as the linker laid it out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace infer_ops {

struct kernel_info {
    std::string family;     // e.g. "infer_constant"
    std::string name;       // demangled, e.g. "tsu3::infer_constant<float>(char*, long, float)"
    std::string mangled;
    std::uint64_t engine;   // 0 clusters, 1 GMX
    std::uint64_t image_size;
    std::uint32_t hash;
};

std::vector<kernel_info> kernel_catalogue();

}  // namespace infer_ops
