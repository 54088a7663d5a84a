// Cost of building the firewall catalogue: KOVAFwServiceEnum over the shipped example root and
// over generated roots of 100 and 1,000 .sc files.
//
// The example root is taken from KOVA_EXAMPLE_ROOT, else from the source tree recorded in the
// build directory's CMakeCache.txt, else from an "examples/root" found above the binary. The
// generated roots are written under the build directory (bench_data/), or under
// KOVA_BENCH_DATA_DIR when that is set.
#include <kovaserviceconf.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

fs::path self_dir() {
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::current_path() : exe.parent_path();
}

// The build directory: the nearest directory above the binary holding CMakeCache.txt.
fs::path build_dir() {
    for (fs::path dir = self_dir(); !dir.empty(); dir = dir.parent_path()) {
        if (fs::exists(dir / "CMakeCache.txt")) return dir;
        if (dir == dir.root_path()) break;
    }
    return self_dir();
}

fs::path source_dir_from_cache(const fs::path &build) {
    std::ifstream cache(build / "CMakeCache.txt");
    const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
    for (std::string line; std::getline(cache, line);) {
        if (line.rfind(key, 0) == 0) return line.substr(key.size());
    }
    return {};
}

fs::path example_root() {
    if (const char *env = std::getenv("KOVA_EXAMPLE_ROOT"); env != nullptr && *env != '\0') return env;
    if (fs::path src = source_dir_from_cache(build_dir()); !src.empty() && fs::exists(src / "examples/root")) {
        return src / "examples/root";
    }
    for (fs::path dir = self_dir(); !dir.empty(); dir = dir.parent_path()) {
        if (fs::exists(dir / "examples/root")) return dir / "examples/root";
        if (dir == dir.root_path()) break;
    }
    return {};
}

void write_file(const fs::path &path, const std::string &text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::trunc) << text;
}

// A root with settings for every getter and `files` .sc files of two sections each, spread
// over both services.d directories; a third of the files name a support key.
fs::path generate_root(int files) {
    const char *env = std::getenv("KOVA_BENCH_DATA_DIR");
    const fs::path base = (env != nullptr && *env != '\0') ? fs::path(env) : build_dir() / "bench_data";
    const fs::path root = base / ("fw_enum_" + std::to_string(files));
    fs::remove_all(root);
    write_file(root / "etc/kovainfo.conf",
               "ftpport=21\nftplowport=55536\nftphighport=55899\nsftpPort=22\nrsync_sshd_port=22\n");
    write_file(root / "etc.defaults/kovainfo.conf",
               "supportmysql=yes\nsupportups=yes\nsupportNFS=yes\nsupport_pkg_a=yes\nsupport_pkg_b=no\n");
    write_file(root / "etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=yes\nstatd_port=662\nnlm_port=875\n");
    write_file(root / "etc/ssh/sshd_config", "Port 22\n");
    for (int i = 0; i < files; ++i) {
        const std::string name = "svc" + std::to_string(i);
        const char *dir = (i % 2 == 0) ? "usr/kova/etc/services.d" : "usr/local/etc/services.d";
        std::string text = "[global]\nversion=1\n";
        if (i % 3 == 1) text += "support_key=support_pkg_a\n";
        if (i % 3 == 2) text += "support_key=support_pkg_b\n";
        const int port = 10000 + 20 * i;
        for (int s = 0; s < 2; ++s) {
            const std::string sec = name + "_" + std::to_string(s);
            text += "\n[" + sec + "]\ntitle_key=pkg:" + sec + ":title\ntitle=" + sec + "\ndesc_key=" + sec +
                    ":desc\ndesc=Service " + sec +
                    "\nport_forward=yes\nsrc.ports=1024:65535/tcp\ndst.ports=" + std::to_string(port + s * 10) + "," +
                    std::to_string(port + s * 10 + 1) + ":" + std::to_string(port + s * 10 + 5) + "/tcp,udp\n";
        }
        write_file(root / dir / (name + ".sc"), text);
    }
    return root;
}

int enumerate_once() {
    KOVA_FW_SERVICE *list = nullptr;
    const int n = KOVAFwServiceEnum(&list);
    KOVAFwServiceFree(list);
    return n;
}

void BM_FwServiceEnum(benchmark::State &state, const fs::path &root) {
    if (root.empty() || !fs::exists(root)) {
        state.SkipWithError("root not found (set KOVA_EXAMPLE_ROOT)");
        return;
    }
    setenv("KOVA_ROOT", root.c_str(), 1);
    const int records = enumerate_once();
    int built_in = 0;
    while (rgServices[built_in].name != nullptr) ++built_in;
    const int sections = records > built_in ? records - built_in : 0;

    for (auto _ : state) {
        KOVA_FW_SERVICE *list = nullptr;
        benchmark::DoNotOptimize(KOVAFwServiceEnum(&list));
        KOVAFwServiceFree(list);
    }
    state.SetItemsProcessed(state.iterations() * records);
    state.counters["records"] = records;
    state.counters["sc_sections"] = sections;
    if (sections > 0) {
        state.counters["per_sc_section"] =
            benchmark::Counter(sections, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    }
    unsetenv("KOVA_ROOT");
}

}  // namespace

int main(int argc, char **argv) {
    unsetenv("KOVA_LOG_FILE");
    benchmark::RegisterBenchmark("BM_FwServiceEnum/example_root", BM_FwServiceEnum, example_root())
        ->Unit(benchmark::kMicrosecond);
    for (int files : {100, 1000}) {
        benchmark::RegisterBenchmark(("BM_FwServiceEnum/generated_" + std::to_string(files)).c_str(), BM_FwServiceEnum,
                                     generate_root(files))
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
