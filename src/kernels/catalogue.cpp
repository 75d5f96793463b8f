#include "catalogue.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

extern "C" {
// Bounds of the descriptor section of this library, placed by the linker.
extern tsuemu::KernelDescriptor __start_TSU_KERNEL[];
extern tsuemu::KernelDescriptor __stop_TSU_KERNEL[];
}

namespace tsuops::kernels {

thread_local int g_tsu_launch_error = 0;

namespace {

std::uint32_t fnv1a(const unsigned char* p, std::size_t n) {
    std::uint32_t h = 2166136261u;
    for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
    return h;
}

}  // namespace

// The body's symbol gives the mangled name; its code stands in for the image.
bool name_descriptor(tsuemu::KernelDescriptor* desc, const void* body) {
    Dl_info info{};
    void* extra = nullptr;
    if (dladdr1(body, &info, &extra, RTLD_DL_SYMENT) == 0 || info.dli_sname == nullptr ||
        info.dli_saddr != body) {
        return false;
    }
    const auto* sym = static_cast<const ElfW(Sym)*>(extra);
    const std::size_t size = sym ? static_cast<std::size_t>(sym->st_size) : 0;
    desc->name = reinterpret_cast<std::uint64_t>(info.dli_sname);
    desc->image_size = (size + 3) / 4 * 4;
    desc->hash = fnv1a(static_cast<const unsigned char*>(body), size);
    return true;
}

void kernel_threw(const void* body) noexcept {
    Dl_info info{};
    const char* mangled = dladdr(body, &info) != 0 ? info.dli_sname : nullptr;
    int status = -1;
    char* name = mangled ? abi::__cxa_demangle(mangled, nullptr, nullptr, &status) : nullptr;
    const char* what = "an exception";
    try {
        throw;
    } catch (const std::exception& e) {
        what = e.what();
    } catch (...) {
    }
    std::fprintf(stderr, "tsuops: kernel %s threw: %s\n", name ? name : mangled ? mangled : "(unknown)", what);
    std::free(name);
    std::terminate();
}

std::span<tsuemu::KernelDescriptor> catalogue() {
    return {__start_TSU_KERNEL, static_cast<std::size_t>(__stop_TSU_KERNEL - __start_TSU_KERNEL)};
}

}  // namespace tsuops::kernels
