// Fixture for the changing operations: recording firewall and router tools, a recording
// plug-in receiver, and a relay daemon that counts the SIGHUPs it gets.
#pragma once

#include <kovaserviceconf.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "kova_test.h"

namespace kova::test {

namespace fs = std::filesystem;
using Args = std::map<std::string, std::string>;
using Events = std::vector<std::pair<std::string, Args>>;  // name and arguments

// A child process named by a pid file; it counts the SIGHUPs it gets until stopped.
class RelayDaemon {
public:
    explicit RelayDaemon(const std::string &pid_file) {
        sigset_t set, old;
        sigemptyset(&set);
        sigaddset(&set, SIGHUP);
        sigaddset(&set, SIGUSR1);
        ::sigprocmask(SIG_BLOCK, &set, &old);  // before the fork: no signal is lost
        if ((pid_ = ::fork()) == 0) {
            int hups = 0;
            for (int sig = 0; ::sigwait(&set, &sig) == 0 && sig == SIGHUP;) ++hups;
            ::_exit(hups);
        }
        ::sigprocmask(SIG_SETMASK, &old, nullptr);
        std::ofstream(pid_file) << pid_ << "\n";
    }
    ~RelayDaemon() { stop(); }
    // A pending SIGHUP is taken before SIGUSR1, which stops the daemon.
    int stop() {
        int status = 0;
        if (pid_ <= 0 || ::kill(pid_, SIGUSR1) != 0 || ::waitpid(pid_, &status, 0) != pid_) return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
};

class ChangeTest : public RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        mkdir("/tmp");
        mkdir("/calls");
        // What the conflict checks read: reserved ports, and socket tables without sockets.
        write("/etc/kovainfo.conf", "ftpport=\"21\"\nsftpPort=\"22\"\nsyslogport=\"514\"\n");
        write("/etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=\"no\"\n");
        tables("", "", "", "");
        firewall_tool();
        router_tool();
        plugin_receiver();
    }
    // A tool that appends "$*" to ROOT/calls/<name>, runs `extra` and exits with `status`.
    void tool(const std::string &rel, const std::string &name, int status, const std::string &extra) const {
        script(rel, "echo \"$*\" >> " + path("/calls/" + name) + "\n" + extra + "\nexit " + std::to_string(status));
    }
    void firewall_tool(int status = 0, const std::string &extra = "") const { tool(kFw, "firewall", status, extra); }
    // The router tool also keeps the old file it is given.
    void router_tool(int status = 0) const {
        tool("/usr/kova/sbin/kovaroutertool", "router", status, "cat \"$2\" > " + path("/calls/router.old"));
    }
    Lines calls(const std::string &name) const {
        Lines lines;
        std::istringstream in(read("/calls/" + name));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    // Each event becomes ROOT/calls/events.<n>/ holding its name and the arguments that are set.
    void plugin_receiver() const {
        const std::string d = path("/calls/events");
        script(
            "/usr/kova/etc/plugin.d/port_config/10-record",
            "n=0; while [ -e " + d + ".$n ]; do n=$((n+1)); done; d=" + d + ".$n; mkdir $d\n" +
                "printf %s \"$1\" > $d/event\n"
                "for v in OLD_PORT_CONFIG_CONTENT NEW_PORT_CONFIG_CONTENT PORT_CONFIG_CONTENT NOTIFY_PF NOTIFY_FW; do\n"
                "  eval \"[ -n \\\"\\${$v+y}\\\" ] && printf %s \\\"\\$$v\\\" > $d/$v\"\ndone\nexit 0\n");
    }
    Events events() const {
        Events out;
        for (int n = 0; exists("/calls/events." + std::to_string(n)); ++n) {
            out.emplace_back();
            for (const auto &e : fs::directory_iterator(path("/calls/events." + std::to_string(n)))) {
                const std::string name = e.path().filename(), text = read(e.path().string().substr(root().size()));
                (name == "event" ? out.back().first : out.back().second[name]) = text;
            }
        }
        return out;
    }
    std::unique_ptr<RelayDaemon> relay_daemon() const {
        mkdir("/run");
        return std::make_unique<RelayDaemon>(path("/run/kovarelayd.pid"));
    }
    // Temporary copies left behind: anything in ROOT/tmp, ".tmp." copies next to the trees.
    Lines leftovers() const {
        Lines found;
        std::error_code ec;
        for (const char *dir : {"/tmp", "/usr/kova/etc", "/usr/local/etc", "/etc/portforward"})
            for (const auto &e : fs::directory_iterator(path(dir), ec))
                if (dir[1] == 't' || e.path().filename().string().find(".tmp.") != std::string::npos)
                    found.push_back(e.path());
        return found;
    }
    static KVLIB_SERVICE_CONF_REQUEST request(uint32_t mode, uint32_t restartMask, uint32_t action, uint32_t scope,
                                              const std::string &file, const std::string &section, uint32_t location) {
        KVLIB_SERVICE_CONF_REQUEST r{mode, restartMask, action, scope, {}, {}, location};
        std::strncpy(r.fileName, file.c_str(), sizeof r.fileName - 1);
        std::strncpy(r.sectionName, section.c_str(), sizeof r.sectionName - 1);
        return r;
    }
    static std::string sc(const std::string &name, const std::string &ports) {
        return "[" + name + "]\ntitle=\"" + name + "\"\ndesc=\"" + name + "\"\ndst.ports=\"" + ports + "\"\n";
    }
    // The log lines of one module; with `cut`, without the error state.
    Lines log_of(const std::string &module, bool cut = false) const {
        Lines lines;
        for (const auto &l : log_normalized())
            if (l.rfind(module + ":", 0) == 0) lines.push_back(cut ? l.substr(0, l.find('[')) : l);
        return lines;
    }
    static constexpr const char *kFw = "/usr/kova/bin/kovafirewall";
};

inline KOVA_SERVICE_CONF_PORT port(uint32_t dir, uint32_t proto, uint32_t begin, uint32_t end = 0,
                                   KOVA_SERVICE_CONF_PORT *next = nullptr) {
    return KOVA_SERVICE_CONF_PORT{dir, end != 0 ? 1u : 0u, proto, begin, end, next};
}

}  // namespace kova::test
