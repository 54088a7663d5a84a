// Installing a .sc file into the package directory of the root named by KOVA_ROOT, beside the
// floor: the bare `mkdir -p` and `cp -f` that an install runs. CPU time of this process and of
// the commands it waits for. Each iteration installs into a directory without the file (it is
// removed again, untimed), so every install is a first install.
//
//   BM_Install/NAME   KOVAServiceConfInstall of KOVA_BENCH_ROOTS/install/NAME.sc
//   BM_MkdirCp        /bin/mkdir -p DIR, then /bin/cp -f SOURCE DIR/benchone.sc
#include <kovaserviceconf.h>
#include <unistd.h>

#include "bench_common.h"

namespace {

using namespace kova_bench;

fs::path package_dir() {
    return current_root() / "usr/local/etc/services.d";
}

void BM_Install(benchmark::State &state, const std::string &name) {
    const fs::path source = roots_dir() / "install" / cat(name, ".sc");
    const fs::path installed = package_dir() / cat(name, ".sc");
    int result = -1;
    for (auto _ : state) {
        const double start = cpu_self_and_children();
        result = KOVAServiceConfInstall(source.c_str(), KOVA_CONF_LOCATION_PACKAGE);
        state.SetIterationTime(cpu_self_and_children() - start);
        // The heap is left as the install left it, as BM_Catalogue leaves it after each build:
        // the ratio of the two compares like with like (mkdir and cp are spawned without copying
        // the heap, so its size does not make them dearer).
        unlink(installed.c_str());
        if (result != 0) break;
    }
    if (result != 0) state.SkipWithError(cat("the install of ", name, " returned ", std::to_string(result)).c_str());
}

void BM_MkdirCp(benchmark::State &state) {
    const std::string dir = package_dir().string();
    const std::string source = (roots_dir() / "install/benchone.sc").string();
    const std::string target = dir + "/benchone.sc";
    bool ok = true;
    time_with_children(state, [&] {
        ok = ok && run_process({"/bin/mkdir", "-p", dir}).status == 0 &&
             run_process({"/bin/cp", "-f", source, target}).status == 0;
    });
    unlink(target.c_str());
    if (!ok) state.SkipWithError("mkdir or cp failed");
}

}  // namespace

int main(int argc, char **argv) {
    unsetenv("KOVA_LOG_FILE");
    current_root();
    // The floor first, in a process that has not yet built a catalogue.
    benchmark::RegisterBenchmark("BM_MkdirCp", BM_MkdirCp)->UseManualTime()->Unit(benchmark::kMillisecond);
    for (const char *name : {"benchone", "sections10", "sections100"})
        benchmark::RegisterBenchmark(cat("BM_Install/", name).c_str(), BM_Install, std::string(name))
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    return run_benchmarks(argc, argv);
}
