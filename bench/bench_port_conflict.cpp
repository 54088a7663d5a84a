// Benchmarks of the service-wide conflict check over generated roots, and of port range sets.
//
// The roots are generated under the build directory (next to this program), each with N .sc
// services, the settings the catalogue reads, and a fabricated /proc/net.
#include <benchmark/benchmark.h>
#include <kovaserviceconf.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

fs::path program_dir() {
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::current_path() : exe.parent_path();
}

void write_file(const fs::path &p, const std::string &text) {
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::trunc) << text;
}

std::string socket_table(int first_port, int count, int state) {
    std::string text =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
    for (int i = 0; i < count; ++i) {
        char line[200];
        std::snprintf(line, sizeof line,
                      "%4d: 00000000:%04X 00000000:0000 %02X 00000000:00000000 00:00000000 00000000     0        0 "
                      "%d 1 0000000000000000 100 0 0 10 0\n",
                      i, first_port + i, state, 5000 + i);
        text += line;
    }
    return text;
}

// A root with `services` package services (one .sc file each, two port items per service).
fs::path make_root(int services) {
    const fs::path root = program_dir() / "bench_roots" / ("services_" + std::to_string(services));
    fs::remove_all(root);
    write_file(root / "etc/kovainfo.conf",
               "ftpport=21\nftplowport=55536\nftphighport=55899\nWebDavPort=5005\nsecure_WebDavPort=5006\n"
               "syslogport=514\nsftpPort=22\nrsync_sshd_port=22\n");
    write_file(root / "etc.defaults/kovainfo.conf", "supportmysql=yes\n");
    write_file(root / "etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=no\n");
    write_file(root / "etc/ssh/sshd_config", "Port 22\n");
    for (int i = 0; i < services; ++i) {
        const int base = 20000 + i * 20;
        const std::string name = "svc" + std::to_string(i);
        write_file(root / "usr/local/etc/services.d" / (name + ".sc"),
                   "[global]\nversion=1\n[" + name + "]\ntitle=" + name + "\ndesc=" + name +
                       "\ndst.ports=" + std::to_string(base) + "," + std::to_string(base + 5) + ":" +
                       std::to_string(base + 9) + "/tcp\n");
    }
    write_file(root / "proc/net/tcp", socket_table(40000, 200, 0x0A));
    write_file(root / "proc/net/tcp6", socket_table(41000, 50, 0x0A));
    write_file(root / "proc/net/udp", socket_table(42000, 100, 0x07));
    write_file(root / "proc/net/udp6", socket_table(43000, 20, 0x07));
    return root;
}

void BM_IsPortConflict(benchmark::State &state) {
    const int services = static_cast<int>(state.range(0));
    const fs::path root = make_root(services);
    setenv("KOVA_ROOT", root.c_str(), 1);
    unsetenv("KOVA_LOG_FILE");
    // A port that the last generated service holds, one range, and ports nobody uses.
    const std::string ports = std::to_string(20000 + (services - 1) * 20 + 6) + ",8000:8100,9443";
    int result = 0;
    for (auto _ : state) {
        KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
        result = KVLIBIsPortConflict("svc0", ports.c_str(), "tcp,udp", 0x1C, &conflicts);
        benchmark::DoNotOptimize(result);
        KOVAServiceConfPortsFree(conflicts);
    }
    if (result != 1) state.SkipWithError("the generated collision was not found");
    state.SetComplexityN(services);
    unsetenv("KOVA_ROOT");
    fs::remove_all(root);
}
BENCHMARK(BM_IsPortConflict)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

// The file check of a section of `ports` ports that is already installed: the section skips
// its own ports in every source, and some of them are in use (by the service itself).
void BM_InstalledSectionCheck(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0));
    const fs::path root = make_root(1);
    std::string ports;
    for (int i = 0; i < count; ++i) {
        if (i != 0) ports += ',';
        ports += std::to_string(32000 + i % 20000);
    }
    const fs::path file = root / "usr/local/etc/services.d/big.sc";
    write_file(file, "[big]\ntitle=big\ndesc=big\ndst.ports=" + ports + "/tcp,udp\n");
    write_file(root / "proc/net/tcp", socket_table(32000, 200, 0x0A));
    write_file(root / "proc/net/udp", socket_table(32500, 200, 0x07));
    setenv("KOVA_ROOT", root.c_str(), 1);
    unsetenv("KOVA_LOG_FILE");
    int result = 0;
    for (auto _ : state) {
        KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
        result = KVLIBIsConfPortConflict(file.c_str(), &conflicts);
        benchmark::DoNotOptimize(result);
        KOVAServiceConfPortsFree(conflicts);
    }
    if (result != 0) state.SkipWithError("the installed section collided");
    state.SetComplexityN(count);
    unsetenv("KOVA_ROOT");
    fs::remove_all(root);
}
BENCHMARK(BM_InstalledSectionCheck)
    ->Arg(10000)
    ->Arg(20000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

// `count` disjoint ranges "b:b+3" (and every third a single port), shuffled when asked.
std::string range_text(int count, int step, int offset, bool shuffled) {
    std::vector<std::string> items;
    items.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const long b = static_cast<long>(i) * step + offset;
        items.push_back(i % 3 == 0 ? std::to_string(b) : std::to_string(b) + ":" + std::to_string(b + 3));
    }
    if (shuffled) std::shuffle(items.begin(), items.end(), std::mt19937(42));
    std::string text;
    for (const auto &item : items) {
        if (!text.empty()) text += ',';
        text += item;
    }
    return text;
}

void BM_RangeImport(benchmark::State &state, bool shuffled) {
    const int count = static_cast<int>(state.range(0));
    const std::string text = range_text(count, 10, 0, shuffled);
    for (auto _ : state) {
        KVLIB_PORT_RANGE *set = KVLIBPortRangeCreate();
        benchmark::DoNotOptimize(KVLIBPortRangeImport(set, text.c_str()));
        KVLIBPortRangeDestory(set);
    }
    state.SetComplexityN(count);
}
BENCHMARK_CAPTURE(BM_RangeImport, sorted, false)->RangeMultiplier(10)->Range(1000, 100000)->Complexity(benchmark::oN);
BENCHMARK_CAPTURE(BM_RangeImport, shuffled, true)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Complexity(benchmark::oNLogN);

// Import two sets of `count` ranges each and intersect them (the work of the reserved-ports
// source, at scale), then join the intersection back into the first.
void BM_RangeImportOverlapJoin(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0));
    const std::string first = range_text(count, 10, 0, false);
    const std::string second = range_text(count, 10, 2, true);
    for (auto _ : state) {
        KVLIB_PORT_RANGE *a = KVLIBPortRangeCreate();
        KVLIB_PORT_RANGE *b = KVLIBPortRangeCreate();
        KVLIB_PORT_RANGE *common = KVLIBPortRangeCreate();
        KVLIBPortRangeImport(a, first.c_str());
        KVLIBPortRangeImport(b, second.c_str());
        KVLIBPortRangeOverlap(a, b, common);
        KVLIBPortRangeJoin(a, common);
        benchmark::DoNotOptimize(common->count);
        KVLIBPortRangeDestory(common);
        KVLIBPortRangeDestory(b);
        KVLIBPortRangeDestory(a);
    }
    state.SetComplexityN(count);
}
BENCHMARK(BM_RangeImportOverlapJoin)->RangeMultiplier(10)->Range(1000, 100000)->Complexity(benchmark::oNLogN);

// Intersection alone, of two prepared sets.
void BM_RangeOverlap(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0));
    KVLIB_PORT_RANGE *a = KVLIBPortRangeCreate();
    KVLIB_PORT_RANGE *b = KVLIBPortRangeCreate();
    KVLIBPortRangeImport(a, range_text(count, 10, 0, false).c_str());
    KVLIBPortRangeImport(b, range_text(count, 10, 2, false).c_str());
    for (auto _ : state) {
        KVLIB_PORT_RANGE *common = KVLIBPortRangeCreate();
        KVLIBPortRangeOverlap(a, b, common);
        benchmark::DoNotOptimize(common->count);
        KVLIBPortRangeDestory(common);
    }
    KVLIBPortRangeDestory(b);
    KVLIBPortRangeDestory(a);
    state.SetComplexityN(count);
}
BENCHMARK(BM_RangeOverlap)->RangeMultiplier(10)->Range(1000, 100000)->Complexity(benchmark::oN);

}  // namespace

BENCHMARK_MAIN();
