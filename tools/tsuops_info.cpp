// Prints the library version and its kernel catalogue, read from the
// descriptor section, so that it is always true of the library it loads.
#include <cstdio>
#include <cstring>
#include <map>

#include <tsuops/infer_ops.h>

int main(int argc, char** argv) {
    const bool all = argc > 1 && std::strcmp(argv[1], "--all") == 0;
    if (argc > 1 && !all) {
        std::fprintf(stderr, "usage: tsuops-info [--all]\n");
        return 2;
    }
    const auto kernels = infer_ops::kernel_catalogue();
    std::printf("libtsuops %s\n", infer_ops::version());
    std::map<std::string, int> families;
    for (const auto& k : kernels) ++families[k.family];
    for (const auto& [family, count] : families) {
        std::printf("%s %d\n", family.c_str(), count);
        if (!all) continue;
        for (const auto& k : kernels) {
            if (k.family == family) std::printf("  %s\n", k.name.c_str());
        }
    }
    std::printf("total: %zu kernels in %zu families\n", kernels.size(), families.size());
    return 0;
}
