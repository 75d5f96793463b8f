#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include <tsuops/catalogue.h>

#include "catalogue.h"

namespace infer_ops {

namespace {

std::string demangle(const char* mangled) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> d(abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
    std::string out = (status == 0 && d) ? d.get() : mangled;
    if (out.rfind("void ", 0) == 0) out.erase(0, 5);
    return out;
}

// "tsu3::infer_constant<float>(char*, long, float)" -> "infer_constant"
std::string family_of(const std::string& name) {
    std::string s = name.rfind("tsu3::", 0) == 0 ? name.substr(6) : name;
    return s.substr(0, s.find_first_of("<("));
}

}  // namespace

std::vector<kernel_info> kernel_catalogue() {
    std::vector<kernel_info> out;
    for (const auto& d : tsuops::kernels::catalogue()) {
        const char* mangled = reinterpret_cast<const char*>(d.name);
        kernel_info k;
        k.mangled = mangled ? mangled : "";
        k.name = mangled ? demangle(mangled) : "";
        k.family = family_of(k.name);
        k.engine = d.engine;
        k.image_size = d.image_size;
        k.hash = static_cast<std::uint32_t>(d.hash);
        out.push_back(std::move(k));
    }
    return out;
}

}  // namespace infer_ops
