#include "change_test.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace kova::test {

RelayDaemon::RelayDaemon(const std::string &pid_file) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    sigset_t set;
    sigset_t old;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGUSR1);
    // Blocked before the fork, so that no signal can reach the child before it waits.
    ::sigprocmask(SIG_BLOCK, &set, &old);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::close(fds[0]);
        for (;;) {
            int sig = 0;
            if (::sigwait(&set, &sig) != 0) ::_exit(1);
            if (sig == SIGUSR1) ::_exit(0);
            const char mark = 'H';
            if (::write(fds[1], &mark, 1) != 1) ::_exit(1);
        }
    }
    ::sigprocmask(SIG_SETMASK, &old, nullptr);
    ::close(fds[1]);
    read_fd_ = fds[0];
    std::ofstream(pid_file) << pid_ << "\n";
}

int RelayDaemon::stop() {
    if (pid_ <= 0) return hups_;
    // SIGHUP has the lower number, so a pending one is taken before SIGUSR1.
    ::kill(pid_, SIGUSR1);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    hups_ = 0;
    char buf[64];
    for (ssize_t n; (n = ::read(read_fd_, buf, sizeof buf)) > 0;) hups_ += static_cast<int>(n);
    ::close(read_fd_);
    read_fd_ = -1;
    return hups_;
}

RelayDaemon::~RelayDaemon() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (read_fd_ >= 0) ::close(read_fd_);
}

void ChangeTest::SetUp() {
    RootTest::SetUp();
    mkdir("/tmp");
    mkdir("/calls");
    // The settings that the conflict checks read; none of these ports is used by the tests.
    write("/etc/kovainfo.conf",
          "ftpport=\"21\"\nftplowport=\"55536\"\nftphighport=\"55899\"\nsftpPort=\"22\"\n"
          "rsync_sshd_port=\"22\"\nWebDavPort=\"5005\"\nsecure_WebDavPort=\"5006\"\nsyslogport=\"514\"\n");
    write("/etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=\"no\"\n");
    // Socket tables without sockets: no port is in use.
    const std::string header =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
    for (const char *table : {"tcp", "tcp6", "udp", "udp6"}) write(std::string("/proc/net/") + table, header);
}

namespace {

std::vector<std::string> lines_of(const std::string &file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string slurp(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

void ChangeTest::remove_all(const std::string &rel) const {
    fs::remove_all(path(rel));
}

void ChangeTest::install_firewall_tool(int exit_status) const {
    script("/usr/kova/bin/kovafirewall",
           "echo \"$*\" >> '" + path("/calls/firewall") + "'\nexit " + std::to_string(exit_status) + "\n");
}

void ChangeTest::install_router_tool(int exit_status) const {
    script("/usr/kova/sbin/kovaroutertool", "echo \"$*\" >> '" + path("/calls/router") + "'\ncat \"$2\" > '" +
                                                path("/calls/router.old") + "'\nexit " + std::to_string(exit_status) +
                                                "\n");
}

std::vector<std::string> ChangeTest::firewall_calls() const {
    return lines_of(path("/calls/firewall"));
}
std::vector<std::string> ChangeTest::router_calls() const {
    return lines_of(path("/calls/router"));
}
std::string ChangeTest::router_old_content() const {
    return slurp(path("/calls/router.old"));
}

void ChangeTest::install_plugin_receiver() const {
    const std::string dir = path("/calls/events");
    script("/usr/kova/etc/plugin.d/port_config/10-record",
           "n=0\n"
           "while [ -e '" +
               dir +
               "'.$n ]; do n=$((n+1)); done\n"
               "d='" +
               dir +
               "'.$n\n"
               "mkdir \"$d\"\n"
               "printf '%s' \"$1\" > \"$d/event\"\n"
               "for v in OLD_PORT_CONFIG_CONTENT NEW_PORT_CONFIG_CONTENT PORT_CONFIG_CONTENT NOTIFY_PF NOTIFY_FW; do\n"
               "  eval \"isset=\\${$v+yes}\"\n"
               "  if [ -n \"$isset\" ]; then eval \"printf '%s' \\\"\\$$v\\\"\" > \"$d/$v\"; fi\n"
               "done\n");
}

std::vector<PluginEvent> ChangeTest::plugin_events() const {
    std::vector<PluginEvent> events;
    for (int n = 0;; ++n) {
        const std::string dir = path("/calls/events." + std::to_string(n));
        if (!fs::exists(dir)) break;
        PluginEvent event;
        event.name = slurp(dir + "/event");
        for (const auto &entry : fs::directory_iterator(dir)) {
            const std::string name = entry.path().filename();
            if (name != "event") event.args[name] = slurp(entry.path());
        }
        events.push_back(std::move(event));
    }
    return events;
}

std::unique_ptr<RelayDaemon> ChangeTest::start_relay_daemon() const {
    mkdir("/run");
    return std::make_unique<RelayDaemon>(path("/run/kovarelayd.pid"));
}

std::vector<std::string> ChangeTest::leftovers() const {
    std::vector<std::string> found;
    std::error_code ec;
    for (const char *dir : {"/tmp", "/usr/kova/etc", "/usr/local/etc", "/etc/portforward"}) {
        for (const auto &entry : fs::directory_iterator(path(dir), ec))
            found.push_back(std::string(dir) + "/" + entry.path().filename().string());
    }
    std::vector<std::string> temps;
    std::copy_if(found.begin(), found.end(), std::back_inserter(temps), [](const std::string &name) {
        return name.rfind("/tmp/", 0) == 0 || name.find(".tmp.") != std::string::npos;
    });
    return temps;
}

KVLIB_SERVICE_CONF_REQUEST ChangeTest::request(uint32_t mode, uint32_t restartMask, uint32_t action, uint32_t scope,
                                               const std::string &file, const std::string &section, uint32_t location) {
    KVLIB_SERVICE_CONF_REQUEST r{};
    r.mode = mode;
    r.restartMask = restartMask;
    r.action = action;
    r.scope = scope;
    std::strncpy(r.fileName, file.c_str(), sizeof r.fileName - 1);
    std::strncpy(r.sectionName, section.c_str(), sizeof r.sectionName - 1);
    r.location = location;
    return r;
}

std::string ChangeTest::sc_section(const std::string &name, const std::string &dst_ports, const std::string &extra) {
    return "[" + name + "]\ntitle=\"" + name + " title\"\ndesc=\"" + name + " desc\"\ndst.ports=\"" + dst_ports +
           "\"\n" + extra;
}

}  // namespace kova::test
