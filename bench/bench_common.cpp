#include "bench_common.h"

#include <fcntl.h>
#include <kovaserviceconf.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

namespace kova_bench {

namespace {

const char *const kSystemDir = "usr/kova/etc/services.d";
const char *const kPackageDir = "usr/local/etc/services.d";
// The example root's file of faulty sections: every catalogue built on the corpus root logs it.
const char *const kBrokenExample = "broken_tool.sc";

// Ports of generated services walk through [10000, 60000); 60000 and above stay free for the
// files the benchmarks install.
class PortCursor {
public:
    int take(int width) {
        if (next_ + width >= 60000) next_ = 10000;
        const int p = next_;
        next_ += width + 1;
        return p;
    }

private:
    int next_ = 10000;
};

std::string quoted(bool quote, const std::string &value) {
    return quote ? cat("\"", value, "\"") : value;
}

// One port list of varied shape: a port, a list, a range, or a list with a range in it.
std::string port_list(std::mt19937 &rng, PortCursor &ports) {
    static const char *const protocols[] = {"tcp", "udp", "tcp,udp"};
    std::string text;
    switch (rng() % 4) {
        case 0:
            text = std::to_string(ports.take(0));
            break;
        case 1:
            for (int i = 0, n = 2 + static_cast<int>(rng() % 5); i < n; ++i)
                text += cat(i ? "," : "", std::to_string(ports.take(0)));
            break;
        case 2: {
            const int w = 2 + static_cast<int>(rng() % 20);
            const int p = ports.take(w);
            text = cat(std::to_string(p), ":", std::to_string(p + w));
            break;
        }
        default: {
            const int w = 5 + static_cast<int>(rng() % 50);
            const int a = ports.take(0);
            const int p = ports.take(w);
            text = cat(std::to_string(a), ",", std::to_string(p), ":", std::to_string(p + w));
        }
    }
    return cat(text, "/", protocols[rng() % 3]);
}

// A generated service file: a [global] section (sometimes with a support key, which is then
// added to `defaults`), then `sections` service sections of varied keys, quoting and comments.
std::string service_file(std::mt19937 &rng, PortCursor &ports, const std::string &name, int sections,
                         std::string &defaults) {
    const bool quote = rng() % 3 != 0;
    std::ostringstream out;
    if (rng() % 2) out << "# " << name << ": generated for the benchmarks\n";
    out << "[global]\nversion=" << quoted(quote, std::to_string(1 + rng() % 2)) << "\n";
    if (rng() % 3 == 0) {
        out << "support_key=" << quoted(quote, cat("support_", name)) << "\n";
        defaults += cat("support_", name, "=\"", rng() % 4 ? "yes" : "no", "\"\n");
    }
    for (int s = 0; s < sections; ++s) {
        const std::string sec = sections == 1 ? name : cat(name, "_", std::to_string(s));
        out << "\n[" << sec << "]\n";
        if (rng() % 2) out << "title_key=" << quoted(quote, cat("pkg:", name, ":title", std::to_string(s))) << "\n";
        out << "title=" << quoted(quote, cat("Service ", sec)) << "\n";
        if (rng() % 2) out << "desc_key=" << quoted(quote, cat("pkg:", name, ":desc", std::to_string(s))) << "\n";
        out << "desc=" << quoted(quote, cat("What ", sec, " offers to the network")) << "\n";
        if (rng() % 4 == 0) out << "; ports below\n";
        switch (rng() % 3) {
            case 0:
                out << "port_forward=" << quoted(quote, "yes") << "\n";
                break;
            case 1:
                out << "port_forward=" << quoted(quote, "no") << "\n";
                break;
            default:
                break;
        }
        if (rng() % 5 == 0) out << "src.ports=" << quoted(quote, "1024:65535/tcp") << "\n";
        out << "dst.ports=" << quoted(quote, port_list(rng, ports)) << "\n";
    }
    return out.str();
}

// A /proc/net socket table of `count` sockets from `first_port` in state `state`.
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

int count_sections(const fs::path &file) {
    std::ifstream in(file);
    int n = 0;
    for (std::string line; std::getline(in, line);)
        if (line.rfind('[', 0) == 0 && line != "[global]") ++n;
    return n;
}

// A copy of the example root with socket tables; the number of service sections and of .sc
// files it holds.
void copy_example(const fs::path &example, const fs::path &root, int &sections, int &files) {
    fs::remove_all(root);
    fs::create_directories(root);
    fs::copy(example, root, fs::copy_options::recursive);
    write_file(root / "proc/net/tcp", socket_table(40000, 200, 0x0A));
    write_file(root / "proc/net/tcp6", socket_table(41000, 50, 0x0A));
    write_file(root / "proc/net/udp", socket_table(42000, 100, 0x07));
    write_file(root / "proc/net/udp6", socket_table(43000, 20, 0x07));
    sections = files = 0;
    for (const char *dir : {kSystemDir, kPackageDir}) {
        fs::create_directories(root / dir);
        for (const auto &e : fs::directory_iterator(root / dir)) {
            sections += count_sections(e.path());
            ++files;
        }
    }
}

// Tops `root` up with generated services: files of one to three sections, until it holds
// `want_files` files, or `want_sections` sections when that is not zero.
void top_up(const fs::path &root, int want_files, int want_sections, unsigned seed) {
    int sections = 0;
    int files = 0;
    std::mt19937 rng(seed);
    PortCursor ports;
    std::string defaults;
    {
        std::ifstream in(root / "etc.defaults/kovainfo.conf");
        std::stringstream all;
        all << in.rdbuf();
        defaults = all.str();
    }
    for (const char *dir : {kSystemDir, kPackageDir})
        for (const auto &e : fs::directory_iterator(root / dir)) {
            sections += count_sections(e.path());
            ++files;
        }
    for (int i = 0; want_sections ? sections < want_sections : files < want_files; ++i) {
        int n = 1 + static_cast<int>(rng() % 3);
        if (want_sections) n = std::min(n, want_sections - sections);
        const std::string name = cat("gen", std::to_string(i));
        const char *dir = rng() % 4 == 0 ? kSystemDir : kPackageDir;
        write_file(root / dir / cat(name, ".sc"), service_file(rng, ports, name, n, defaults));
        sections += n;
        ++files;
    }
    write_file(root / "etc.defaults/kovainfo.conf", defaults);
}

// 1,000 files of one section with `count` single ports each.
void many_ports(const fs::path &root, int count) {
    PortCursor ports;
    for (int i = 0; i < 1000; ++i) {
        std::string list;
        for (int p = 0; p < count; ++p) list += cat(p ? "," : "", std::to_string(ports.take(1)));
        const std::string name = cat("ports", std::to_string(i));
        write_file(root / kPackageDir / cat(name, ".sc"),
                   cat("[global]\nversion=\"1\"\n\n[", name, "]\ntitle=\"", name,
                       "\"\ndesc=\"Many ports\"\ndst.ports=\"", list, "/tcp,udp\"\n"));
    }
}

std::string install_file(const std::string &name, int sections) {
    std::string text = "[global]\nversion=\"1\"\n";
    for (int s = 0; s < sections; ++s) {
        const std::string sec = sections == 1 ? name : cat(name, "_", std::to_string(s));
        const int port = 60000 + 4 * s;
        text += cat("\n[", sec, "]\ntitle=\"", sec, "\"\ndesc=\"Installed by the benchmark\"\nport_forward=\"yes\"\n",
                    "dst.ports=\"", std::to_string(port), ",", std::to_string(port + 1), ":", std::to_string(port + 2),
                    "/tcp\"\n");
    }
    return text;
}

}  // namespace

void write_file(const fs::path &path, const std::string &text) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::trunc);
    out << text;
    if (!out.flush()) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

void make_roots(const fs::path &dir, const fs::path &example, const std::vector<int> &sizes) {
    int sections = 0;
    int files = 0;
    copy_example(example, dir / "corpus", sections, files);
    top_up(dir / "corpus", 0, 220, 1);
    fs::remove_all(dir / "quiet");
    fs::copy(dir / "corpus", dir / "quiet", fs::copy_options::recursive);
    if (!fs::remove(dir / "quiet" / kPackageDir / kBrokenExample)) {
        std::fprintf(stderr, "the example root has no %s any more: change bench_common.cpp\n", kBrokenExample);
        std::exit(1);
    }
    for (int n : sizes) {
        const fs::path root = dir / cat("s", std::to_string(n));
        copy_example(example, root, sections, files);
        top_up(root, n, 0, static_cast<unsigned>(n));
    }
    for (int k : {10, 100}) {
        const fs::path root = dir / cat("ports", std::to_string(k));
        copy_example(example, root, sections, files);
        many_ports(root, k);
    }
    write_file(dir / "install/benchone.sc", install_file("benchone", 1));
    for (int k : {10, 100})
        write_file(dir / cat("install/sections", std::to_string(k), ".sc"),
                   install_file(cat("sections", std::to_string(k)), k));
}

namespace {

fs::path directory_from(const char *variable) {
    const char *env = std::getenv(variable);
    if (env == nullptr || *env == '\0' || !fs::is_directory(env)) {
        std::fprintf(stderr, "%s does not name a directory; run bench/run\n", variable);
        std::exit(2);
    }
    return env;
}

}  // namespace

fs::path current_root() {
    return directory_from("KOVA_ROOT");
}
fs::path roots_dir() {
    return directory_from("KOVA_BENCH_ROOTS");
}

int catalogue_sections() {
    KOVA_FW_SERVICE *list = nullptr;
    const int records = KOVAFwServiceEnum(&list);
    KOVAFwServiceFree(list);
    int built_in = 0;
    while (rgServices[built_in].name != nullptr) ++built_in;
    return records > built_in ? records - built_in : 0;
}

double cpu_self_and_children() {
    double total = 0;
    for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage u{};
        getrusage(who, &u);
        total += static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
                 static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
    }
    return total;
}

ProcessUsage run_process(const std::vector<std::string> &argv) {
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    ProcessUsage usage;
    const pid_t pid = fork();
    if (pid < 0) return usage;
    if (pid == 0) {
        const int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, STDIN_FILENO);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        unsetenv("KOVA_LOG_FILE");
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    rusage u{};
    if (wait4(pid, &status, 0, &u) != pid) return usage;
    usage.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (usage.status == 127) return usage;
    usage.cpu = static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
                static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
    usage.max_rss_kb = u.ru_maxrss;
    return usage;
}

void bench_process(benchmark::State &state, const std::vector<std::string> &argv, std::vector<int> ok) {
    long rss = 0;
    for (auto _ : state) {
        const ProcessUsage u = run_process(argv);
        bool fine = u.cpu >= 0;
        bool known = false;
        for (int s : ok) known = known || s == u.status;
        if (!fine || !known) {
            state.SkipWithError(cat(argv[0], " failed, status ", std::to_string(u.status)).c_str());
            return;
        }
        state.SetIterationTime(u.cpu);
        rss = std::max(rss, u.max_rss_kb);
    }
    state.counters["max_rss_kb"] = static_cast<double>(rss);
}

int run_benchmarks(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

fs::path program_dir() {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::current_path() : exe.parent_path();
}

}  // namespace kova_bench
