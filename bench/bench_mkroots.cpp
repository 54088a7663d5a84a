// bench_mkroots DIR EXAMPLE_ROOT SIZE...: writes the roots that bench/run measures into DIR.
#include <cstdio>
#include <cstdlib>

#include "bench_common.h"

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: bench_mkroots DIR EXAMPLE_ROOT SIZE...\n");
        return 2;
    }
    std::vector<int> sizes;
    for (int i = 3; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
    kova_bench::make_roots(argv[1], argv[2], sizes);
    return 0;
}
