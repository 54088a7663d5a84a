// Cost of the runtime socket inventory (RuntimeServiceListFetch) with 1,000 and 10,000 open
// sockets held by a few processes: this one and forked children, each holding a share of
// TCP sockets listening on 127.0.0.1 and UDP sockets bound there.
//
// The inventory reads the process table named by KOVA_ROOT: leave it unset (or point it at a
// root whose proc is a link to /proc), so that the sockets opened here are in it.
//
// With --compare=N (and optionally --runs=R, --ss=PATH, --lsof=PATH; an empty PATH skips that
// tool) the program opens the same N sockets once and times, in this one run, the inventory
// against `ss -tuanp` and `lsof -i -n -P` over them, printing the medians and the inventory's
// time as a ratio of each tool's. bench/compare_ss.sh drives it.
//
// The children die with this process (PR_SET_PDEATHSIG) and are reaped when the socket set is
// replaced or the program ends; the sockets close with their holders.
#include <kovaserviceconf.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

// Opens `count` sockets on 127.0.0.1 (alternately a listening TCP socket and a bound UDP
// socket, each on a port of the kernel's choice); false if one could not be opened.
bool open_sockets(int count, std::vector<int> &fds) {
    for (int i = 0; i < count; ++i) {
        const bool tcp = i % 2 == 0;
        const int fd = socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
        if (fd < 0) return false;
        fds.push_back(fd);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) return false;
        if (tcp && listen(fd, 1) != 0) return false;
    }
    return true;
}

void close_all(std::vector<int> &fds) {
    for (int fd : fds) close(fd);
    fds.clear();
}

// Raises the descriptor limit of this process (and so of the children forked later) to hold
// `per_process` sockets and some spare; the number of processes needed for `total` sockets.
int plan_processes(int total) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    constexpr int kSpare = 64;
    constexpr int kMinProcesses = 4;
    int processes = kMinProcesses;
    const rlim_t hard = limit.rlim_max == RLIM_INFINITY ? rlim_t{1} << 20 : limit.rlim_max;
    while (static_cast<rlim_t>(total / processes + kSpare) > hard) ++processes;
    const rlim_t wanted = static_cast<rlim_t>(total / processes + total % processes + kSpare);
    if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(wanted, hard);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    return processes;
}

// `total` sockets spread over this process and forked children.
class SocketHolders {
public:
    explicit SocketHolders(int total) : total_(total) {
        const int processes = plan_processes(total);
        const int share = total / processes;
        int release[2];
        if (pipe2(release, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        release_fd_ = release[1];
        for (int p = 1; p < processes; ++p) spawn(share, release[0]);
        close(release[0]);
        if (!open_sockets(total - share * (processes - 1), fds_)) {
            stop();
            throw std::runtime_error("could not open the sockets in this process");
        }
    }

    ~SocketHolders() { stop(); }
    SocketHolders(const SocketHolders &) = delete;
    SocketHolders &operator=(const SocketHolders &) = delete;

    int total() const { return total_; }

    // This process and the children.
    std::set<uint32_t> pids() const {
        std::set<uint32_t> out{static_cast<uint32_t>(getpid())};
        for (pid_t c : children_) out.insert(static_cast<uint32_t>(c));
        return out;
    }

private:
    // A child that opens `count` sockets, reports through a pipe, and holds them until the
    // release pipe is closed (or this process dies).
    void spawn(int count, int release_read) {
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        const pid_t parent = getpid();
        const pid_t child = fork();
        if (child < 0) throw std::runtime_error("fork");
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(1);
            close(ready[0]);
            close(release_fd_);
            close_all(fds_);
            std::vector<int> mine;
            const char status = open_sockets(count, mine) ? 'y' : 'n';
            if (write(ready[1], &status, 1) != 1) _exit(1);
            char byte;
            while (read(release_read, &byte, 1) > 0) {
            }
            _exit(0);
        }
        children_.push_back(child);
        close(ready[1]);
        char status = 'n';
        const bool ok = read(ready[0], &status, 1) == 1 && status == 'y';
        close(ready[0]);
        if (!ok) {
            stop();
            throw std::runtime_error("a child could not open its sockets");
        }
    }

    void stop() {
        close_all(fds_);
        if (release_fd_ >= 0) close(release_fd_);
        release_fd_ = -1;
        for (pid_t c : children_) waitpid(c, nullptr, 0);
        children_.clear();
    }

    int total_;
    int release_fd_ = -1;
    std::vector<int> fds_;
    std::vector<pid_t> children_;
};

// The socket set of the benchmark being run; replaced when the size changes.
std::unique_ptr<SocketHolders> &current_holders() {
    static std::unique_ptr<SocketHolders> holders;
    return holders;
}

SocketHolders &holders_for(int total) {
    auto &holders = current_holders();
    if (!holders || holders->total() != total) {
        holders.reset();
        holders = std::make_unique<SocketHolders>(total);
    }
    return *holders;
}

// Records of the inventory held by the given processes.
size_t own_records(const KVLIB_DLIST *inventory, const std::set<uint32_t> &pids) {
    size_t n = 0;
    for (const KVLIB_DLIST_NODE *node = inventory->pHead; node != nullptr; node = node->pNext)
        if (pids.count(static_cast<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *>(node->pData)->pid) != 0) ++n;
    return n;
}

void BM_RuntimeInventory(benchmark::State &state) {
    const int total = static_cast<int>(state.range(0));
    SocketHolders *holders = nullptr;
    try {
        holders = &holders_for(total);
    } catch (const std::exception &e) {
        state.SkipWithError(e.what());
        return;
    }
    size_t records = 0;
    size_t own = 0;
    for (auto _ : state) {
        KVLIB_DLIST *inventory = RuntimeServiceListFetch();
        if (inventory == nullptr) {
            state.SkipWithError("RuntimeServiceListFetch failed");
            break;
        }
        state.PauseTiming();
        records = static_cast<size_t>(inventory->nItem);
        own = own_records(inventory, holders->pids());
        state.ResumeTiming();
        KVLIBCDListFree(inventory);
    }
    state.counters["records"] = static_cast<double>(records);
    state.counters["own"] = static_cast<double>(own);
    state.SetComplexityN(total);
}

BENCHMARK(BM_RuntimeInventory)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

// ---- comparison with ss and lsof ------------------------------------------------------------

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Wall time of one run of a command, its output discarded; negative if it failed.
double time_command(const std::vector<std::string> &argv) {
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        const int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, STDIN_FILENO);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    const double elapsed = seconds_since(start);
    // lsof exits 1 when some file could not be listed; that is still a full run.
    if (!WIFEXITED(status) || WEXITSTATUS(status) == 127) return -1;
    return elapsed;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? -1 : v[v.size() / 2];
}

// One contender of the comparison: a way to time one run, and the times taken.
struct Contender {
    Contender(std::string n, std::function<double()> f) : name(std::move(n)), once(std::move(f)) {}
    std::string name;
    std::function<double()> once;  // seconds, negative on failure
    std::vector<double> times;
    bool failed = false;
};

int compare(int total, int runs, const std::string &ss, const std::string &lsof) {
    std::unique_ptr<SocketHolders> holders;
    try {
        holders = std::make_unique<SocketHolders>(total);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "cannot open %d sockets: %s\n", total, e.what());
        return 1;
    }
    size_t records = 0;
    size_t own = 0;
    std::vector<Contender> contenders;
    contenders.emplace_back("inventory", [&]() -> double {
        const auto start = std::chrono::steady_clock::now();
        KVLIB_DLIST *inventory = RuntimeServiceListFetch();
        if (inventory == nullptr) return -1;
        const double t = seconds_since(start);
        records = static_cast<size_t>(inventory->nItem);
        own = own_records(inventory, holders->pids());
        KVLIBCDListFree(inventory);
        return t;
    });
    if (!ss.empty()) contenders.emplace_back("ss -tuanp", [&] { return time_command({ss, "-tuanp"}); });
    if (!lsof.empty()) contenders.emplace_back("lsof -i -n -P", [&] { return time_command({lsof, "-i", "-n", "-P"}); });

    // Runs interleaved, after one warm-up run each, so that a change of the machine's load
    // during the comparison falls on every contender alike.
    for (int round = -1; round < runs; ++round) {
        for (Contender &c : contenders) {
            if (c.failed) continue;
            const double t = c.once();
            if (t < 0)
                c.failed = true;
            else if (round >= 0)
                c.times.push_back(t);
        }
    }
    const Contender &ours = contenders.front();
    if (ours.failed) {
        std::fprintf(stderr, "RuntimeServiceListFetch failed\n");
        return 1;
    }
    const double ours_median = median(ours.times);
    std::printf("sockets=%d (records %zu, of them %zu held by the benchmark's processes), median of %d runs\n", total,
                records, own, runs);
    std::printf("  %-16s %9.2f ms\n", ours.name.c_str(), ours_median * 1e3);
    for (size_t i = 1; i < contenders.size(); ++i) {
        const Contender &c = contenders[i];
        if (c.failed) {
            std::printf("  %-16s failed to run\n", c.name.c_str());
            continue;
        }
        const double theirs = median(c.times);
        std::printf("  %-16s %9.2f ms   ratio inventory/%s = %.2f\n", c.name.c_str(), theirs * 1e3, c.name.c_str(),
                    ours_median / theirs);
    }
    if (ss.empty()) std::printf("  %-16s skipped (not installed)\n", "ss -tuanp");
    if (lsof.empty()) std::printf("  %-16s skipped (not installed)\n", "lsof -i -n -P");
    std::fflush(stdout);
    return own >= static_cast<size_t>(total) ? 0 : 2;
}

// The value of "--name=value" among the arguments, removing it; `fallback` when absent.
std::string take_option(int &argc, char **argv, const std::string &name, const std::string &fallback, bool *found) {
    const std::string prefix = "--" + name + "=";
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], prefix.c_str(), prefix.size()) != 0) continue;
        std::string value = argv[i] + prefix.size();
        for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
        --argc;
        if (found != nullptr) *found = true;
        return value;
    }
    if (found != nullptr) *found = false;
    return fallback;
}

}  // namespace

int main(int argc, char **argv) {
    bool comparing = false;
    const std::string count = take_option(argc, argv, "compare", "", &comparing);
    const int runs = std::max(1, std::atoi(take_option(argc, argv, "runs", "5", nullptr).c_str()));
    const std::string ss = take_option(argc, argv, "ss", "/usr/bin/ss", nullptr);
    const std::string lsof = take_option(argc, argv, "lsof", "/usr/bin/lsof", nullptr);
    if (comparing) return compare(std::max(1, std::atoi(count.c_str())), runs, ss, lsof);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    current_holders().reset();
    return 0;
}
