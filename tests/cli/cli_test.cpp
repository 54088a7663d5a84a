#include "cli_test.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

namespace kova::cli_test {

namespace {

// A loopback socket of `type` on a port the kernel chooses (not inherited by the tool); the
// port goes to `port`.
int bind_loopback(int type, unsigned int &port) {
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&addr), len) == 0 &&
        (type != SOCK_STREAM || listen(fd, 4) == 0) && getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    return fd;
}

}  // namespace

std::vector<std::string> ToolRun::lines() const {
    std::vector<std::string> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> words(const std::string &line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string w; in >> w;) words.push_back(w == "''" ? "" : w);
    return words;
}

std::string cells(const JsonValue &record, const std::vector<std::string> &fields) {
    std::string out;
    for (const auto &f : fields) out += (&f == &fields[0] ? "" : " ") + record[f].text();
    return out;
}

std::string rows(const JsonValue &list, const std::vector<std::string> &fields) {
    std::string out;
    for (size_t i = 0; i < list.size(); ++i) out += (fields.empty() ? list[i].text() : cells(list[i], fields)) + "; ";
    return out;
}

void CliTest::SetUp() {
    RootTest::SetUp();
    fs::path example = fs::path(KOVA_SOURCE_DIR) / "examples" / "root";
    if (fs::is_directory(example))
        fs::copy(example, root(),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks | fs::copy_options::overwrite_existing);
    // Temporary copies of changes, and stand-ins for the firewall and router tools.
    mkdir("/scratch");
    mkdir("/tmp");
    mkdir("/usr/kova/etc/services.d");
    mkdir("/usr/local/etc/services.d");
    script("/usr/kova/bin/kovafirewall", "exit 0\n");
    script("/usr/kova/sbin/kovaroutertool", "exit 0\n");
}

ToolRun CliTest::run(const std::vector<std::string> &args, const std::vector<std::string> &env) const {
    std::string out_path = path("/scratch/.stdout"), err_path = path("/scratch/.stderr");
    std::vector<std::string> words = {KOVA_SVC_PATH}, env_text = env;
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);

    pid_t pid = fork();
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY), out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644),
            err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
        for (auto &e : env_text) putenv(e.data());
        execv(argv[0], argv.data());
        _exit(127);
    }
    ToolRun r;
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = read("/scratch/.stdout");
    r.err = read("/scratch/.stderr");
    return r;
}

ToolRun CliTest::svc(std::vector<std::string> args) const {
    args.insert(args.begin(), {"--root", root()});
    return run(args);
}

HeldPorts::HeldPorts() : tcp_fd_(bind_loopback(SOCK_STREAM, tcp)), udp_fd_(bind_loopback(SOCK_DGRAM, udp)) {}

HeldPorts::~HeldPorts() {
    if (tcp_fd_ >= 0) close(tcp_fd_);
    if (udp_fd_ >= 0) close(udp_fd_);
}

}  // namespace kova::cli_test
