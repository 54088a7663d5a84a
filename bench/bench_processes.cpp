// Whole processes, measured by wait4: CPU time (user + system) per run, and peak resident set.
//
//   BM_List            kova-svc --root ROOT list
//   BM_ReadFilesProc   bench_read_files ROOT, a process that only reads the .sc files
//   BM_Check           kova-svc --root ROOT check 443,20000-20400,61000/tcp
//   BM_Sockets/N       kova-svc --root / sockets, with N sockets of this program's own open
//   BM_SS/N            ss -tuanp over the same sockets (when KOVA_BENCH_SS names ss)
//   BM_ReadProcProc/N  bench_read_proc over the same sockets: only the reads of /proc that a
//                      runtime inventory must make, the floor of BM_Sockets
//
// ROOT is KOVA_ROOT; kova-svc is KOVA_BENCH_SVC; N are the counts in KOVA_BENCH_SOCKETS
// (comma-separated; none: no socket benchmarks). The sockets (TCP listening and UDP bound on
// 127.0.0.1, alternately) are held by one child, which dies with this program.
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "bench_common.h"

namespace {

using namespace kova_bench;

std::string env_or(const char *name, const std::string &fallback) {
    const char *value = std::getenv(name);
    return value != nullptr ? std::string(value) : fallback;
}

bool open_sockets(int count) {
    for (int i = 0; i < count; ++i) {
        const bool tcp = i % 2 == 0;
        const int fd = socket(AF_INET, tcp ? SOCK_STREAM : SOCK_DGRAM, 0);
        if (fd < 0) return false;
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) return false;
        if (tcp && listen(fd, 1) != 0) return false;
    }
    return true;
}

// One child holding `count` sockets until it is killed (or this process dies).
class SocketHolder {
public:
    explicit SocketHolder(int count) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlim_t wanted = static_cast<rlim_t>(count) + 64;
        if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < wanted) {
            if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < wanted) limit.rlim_max = wanted;
            limit.rlim_cur = wanted;
            if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
                throw std::runtime_error(cat("cannot raise RLIMIT_NOFILE to ", std::to_string(wanted)));
        }
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        const pid_t parent = getpid();
        child_ = fork();
        if (child_ < 0) throw std::runtime_error("fork");
        if (child_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(1);
            close(ready[0]);
            const char status = open_sockets(count) ? 'y' : 'n';
            if (write(ready[1], &status, 1) != 1) _exit(1);
            close(ready[1]);
            for (;;) pause();
        }
        close(ready[1]);
        char status = 'n';
        const bool ok = read(ready[0], &status, 1) == 1 && status == 'y';
        close(ready[0]);
        if (!ok) {
            stop();
            throw std::runtime_error(cat("the child could not open ", std::to_string(count), " sockets"));
        }
    }
    ~SocketHolder() { stop(); }
    SocketHolder(const SocketHolder &) = delete;
    SocketHolder &operator=(const SocketHolder &) = delete;

private:
    void stop() {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
        child_ = -1;
    }
    pid_t child_ = -1;
};

// The sockets of the benchmark being run; replaced when the count changes.
std::unique_ptr<SocketHolder> holder;
int held = 0;

void with_sockets(benchmark::State &state, const std::vector<std::string> &argv, std::vector<int> ok) {
    const int count = static_cast<int>(state.range(0));
    if (held != count) {
        holder.reset();
        held = 0;
        try {
            holder = std::make_unique<SocketHolder>(count);
            held = count;
        } catch (const std::exception &e) {
            state.SkipWithError(e.what());
            return;
        }
    }
    bench_process(state, argv, std::move(ok));
}

}  // namespace

int main(int argc, char **argv) {
    const std::string root = current_root().string();
    const std::string svc = env_or("KOVA_BENCH_SVC", (program_dir() / "../tools/kova-svc").string());
    const std::string reader = (program_dir() / "bench_read_files").string();
    const std::string proc_reader = (program_dir() / "bench_read_proc").string();
    const std::string ss = env_or("KOVA_BENCH_SS", "");
    const std::string query = "443,20000-20400,61000/tcp";

    benchmark::RegisterBenchmark("BM_List", bench_process, std::vector<std::string>{svc, "--root", root, "list"},
                                 std::vector<int>{0})
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_ReadFilesProc", bench_process, std::vector<std::string>{reader, root},
                                 std::vector<int>{0})
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    // check: 1 is the answer "conflict", which the query is made to get.
    benchmark::RegisterBenchmark("BM_Check", bench_process,
                                 std::vector<std::string>{svc, "--root", root, "check", query}, std::vector<int>{1})
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    std::stringstream counts(env_or("KOVA_BENCH_SOCKETS", ""));
    for (std::string n; std::getline(counts, n, ',');) {
        const int count = std::atoi(n.c_str());
        if (count <= 0) continue;
        benchmark::RegisterBenchmark("BM_Sockets", with_sockets,
                                     std::vector<std::string>{svc, "--root", "/", "sockets"}, std::vector<int>{0})
            ->Arg(count)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark("BM_ReadProcProc", with_sockets, std::vector<std::string>{proc_reader},
                                     std::vector<int>{0})
            ->Arg(count)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
        if (!ss.empty())
            benchmark::RegisterBenchmark("BM_SS", with_sockets, std::vector<std::string>{ss, "-tuanp"},
                                         std::vector<int>{0})
                ->Arg(count)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
    }
    const int status = run_benchmarks(argc, argv);
    holder.reset();
    return status;
}
