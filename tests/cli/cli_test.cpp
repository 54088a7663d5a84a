#include "cli_test.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#ifndef KOVA_SVC_PATH
#error "KOVA_SVC_PATH names the built tool"
#endif

namespace fs = std::filesystem;

namespace kova::cli_test {

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

unsigned int bound_port(int fd) {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) return 0;
    return ntohs(addr.sin_port);
}

int bind_loopback(int type) {
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);  // not handed to the tool
    if (fd < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

std::vector<std::string> ToolRun::lines() const {
    std::vector<std::string> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

JsonValue ToolRun::json() const {
    return JsonValue::parse(out);
}

std::string CliTest::tool() {
    return KOVA_SVC_PATH;
}

void CliTest::SetUp() {
    RootTest::SetUp();
    work_ = root() + ".work";
    fs::create_directories(work_);
    fs::path example = fs::path(KOVA_SOURCE_DIR) / "examples" / "root";
    if (fs::is_directory(example))
        fs::copy(example, root(),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks | fs::copy_options::overwrite_existing);
    // Temporary copies of changes, and stand-ins for the firewall and router tools.
    mkdir("/tmp");
    mkdir("/usr/kova/etc/services.d");
    mkdir("/usr/local/etc/services.d");
    script("/usr/kova/bin/kovafirewall", "exit 0\n");
    script("/usr/kova/sbin/kovaroutertool", "exit 0\n");
}

void CliTest::TearDown() {
    std::error_code ec;
    fs::remove_all(work_, ec);
    RootTest::TearDown();
}

std::string CliTest::write_work(const std::string &name, const std::string &content) const {
    std::string path = work_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

void CliTest::use_real_proc() const {
    std::error_code ec;
    fs::remove_all(path("/proc"), ec);
    symlink("/proc", "/proc");
}

ToolRun CliTest::run(const std::vector<std::string> &args, const std::vector<std::string> &env) const {
    std::string out_path = work_ + "/.stdout", err_path = work_ + "/.stderr";
    std::vector<std::string> argv_text = {tool()};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &a : argv_text) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_text = env;

    pid_t pid = fork();
    if (pid == 0) {
        int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int in = open("/dev/null", O_RDONLY);
        if (out < 0 || err < 0 || in < 0) _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        for (auto &e : env_text) putenv(e.data());
        execv(argv[0], argv.data());
        _exit(127);
    }
    ToolRun r;
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = slurp(out_path);
    r.err = slurp(err_path);
    return r;
}

ToolRun CliTest::svc(const std::vector<std::string> &args) const {
    std::vector<std::string> all = {"--root", root()};
    all.insert(all.end(), args.begin(), args.end());
    return run(all);
}

HeldPorts::HeldPorts() {
    tcp_fd_ = bind_loopback(SOCK_STREAM);
    if (tcp_fd_ >= 0 && listen(tcp_fd_, 4) == 0) tcp_port_ = bound_port(tcp_fd_);
    udp_fd_ = bind_loopback(SOCK_DGRAM);
    if (udp_fd_ >= 0) udp_port_ = bound_port(udp_fd_);
}

HeldPorts::~HeldPorts() {
    if (tcp_fd_ >= 0) close(tcp_fd_);
    if (udp_fd_ >= 0) close(udp_fd_);
}

}  // namespace kova::cli_test
