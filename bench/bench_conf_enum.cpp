// Enumerating services.d directories: time per .sc file for 100, 1,000 and 10,000 files of two
// sections each. The generated roots live beside this program in the build directory.
#include <benchmark/benchmark.h>
#include <kovaserviceconf.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace fs = std::filesystem;

namespace {

// A root with `files` .sc files, half system and half package services.
fs::path make_root(const fs::path &base, int files) {
    const fs::path root = base / std::to_string(files);
    const fs::path dirs[2] = {root / "usr/kova/etc/services.d", root / "usr/local/etc/services.d"};
    for (const auto &d : dirs) fs::create_directories(d);
    for (int i = 0; i < files; ++i) {
        const std::string name = "svc" + std::to_string(i);
        std::ofstream out(dirs[i % 2] / (name + ".sc"));
        const int port = 10000 + (i * 3) % 50000;
        out << "[global]\nversion=\"2\"\nsupport_key=\"support_" << name << "\"\n\n"
            << "[" << name << "_web]\ntitle_key=\"pkg:" << name << ":title\"\ntitle=\"Service " << i
            << " web\"\ndesc_key=\"pkg:" << name << ":desc\"\ndesc=\"Web interface of service " << i
            << "\"\nport_forward=\"yes\"\ndst.ports=\"" << port << "," << port + 1 << "/tcp\"\n\n"
            << "[" << name << "_data]\ntitle=\"Service " << i << " data\"\ndesc=\"Data channel\"\n"
            << "src.ports=\"1024:65535/tcp\"\ndst.ports=\"" << port + 2 << ":" << port + 2 << "/tcp,udp\"\n";
    }
    return root;
}

// Generated roots, made once per size and removed when the program ends.
class Roots {
public:
    ~Roots() {
        std::error_code ec;
        if (!base_.empty()) fs::remove_all(base_, ec);
    }
    const fs::path &get(int files) {
        if (base_.empty()) {
            const fs::path exe = fs::read_symlink("/proc/self/exe");
            base_ = exe.parent_path() / ("bench_conf_enum_root." + std::to_string(::getpid()));
        }
        auto it = roots_.find(files);
        if (it == roots_.end()) it = roots_.emplace(files, make_root(base_, files)).first;
        return it->second;
    }

private:
    fs::path base_;
    std::map<int, fs::path> roots_;
};

Roots &roots() {
    static Roots instance;
    return instance;
}

void BM_ConfEnum(benchmark::State &state) {
    const int files = static_cast<int>(state.range(0));
    const fs::path &root = roots().get(files);
    setenv("KOVA_ROOT", root.c_str(), 1);
    for (auto _ : state) {
        KOVA_SERVICE_CONF *list = nullptr;
        const int n = KOVAServiceConfEnum(&list, KOVA_CONF_LOCATION_SYSTEM | KOVA_CONF_LOCATION_PACKAGE);
        if (n != files) state.SkipWithError("not every file was read");
        benchmark::DoNotOptimize(list);
        KOVAServiceConfFree(list);
    }
    unsetenv("KOVA_ROOT");
    state.SetItemsProcessed(state.iterations() * files);
    state.counters["files"] = files;
    // Seconds per file: the inverse of the file rate.
    state.counters["time_per_file"] = benchmark::Counter(
        static_cast<double>(files), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(BM_ConfEnum)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
