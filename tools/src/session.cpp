#include "session.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "json.h"

namespace kovasvc {

namespace {

int g_log_fd = -1;       // the tool's own copy of the library's log lines
off_t g_log_read = 0;    // how far it has been read
std::string g_user_log;  // the user's KOVA_LOG_FILE, if any
int g_lock_fd = -1;

bool is_dir(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void append_to_user_log(const std::string &text) {
    if (g_user_log.empty() || text.empty()) return;
    int fd = ::open(g_user_log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    for (size_t done = 0; done < text.size();) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ::close(fd);
}

// The message of a log line without its "module.cpp:LINE " prefix.
std::string message_of(const std::string &line) {
    size_t space = line.find(' ');
    if (space == std::string::npos) return line;
    std::string head = line.substr(0, space);
    size_t colon = head.rfind(':');
    if (colon == std::string::npos || head.find(".c") == std::string::npos) return line;
    return line.substr(space + 1);
}

bool follow_up_failure(const std::string &line) {
    static const char *const kMarks[] = {"Failed to execute [", "--udpate",     "Restart service fail", "plugin",
                                         "FAILED to notify",    "FAILED to set"};
    for (const char *mark : kMarks)
        if (line.find(mark) != std::string::npos) return true;
    return false;
}

}  // namespace

Session &session() {
    static Session s;
    return s;
}

std::string Session::path(const std::string &system_path) const {
    return root + system_path;
}

bool Session::offline() const {
    return !root.empty() && !is_dir(path("/proc"));
}

void Session::note_offline() {
    static bool said = false;
    if (said) return;
    said = true;
    warn(root +
         " is an offline root (no proc/): ports in use, firewall reload, router tool and notifications "
         "are skipped");
}

void warn(const std::string &message) {
    session().warnings.push_back(message);
    std::cerr << "kova-svc: warning: " << message << '\n';
}

void warnings_json(Json &json) {
    json.key("warnings").begin_array();
    for (const auto &w : session().warnings) json.string(w);
    json.end_array();
}

void capture_library_log() {
    if (const char *user = secure_getenv("KOVA_LOG_FILE"); user != nullptr && *user != '\0') g_user_log = user;
    int fd = ::memfd_create("kova-svc-log", MFD_CLOEXEC);
    if (fd < 0) return;
    std::string name = "/proc/self/fd/" + std::to_string(fd);
    if (::access(name.c_str(), W_OK) != 0) {
        ::close(fd);
        return;  // without the machine's /proc the lines go only where the user sent them
    }
    g_log_fd = fd;
    ::setenv("KOVA_LOG_FILE", name.c_str(), 1);
}

std::vector<std::string> take_library_log() {
    std::vector<std::string> lines;
    if (g_log_fd < 0) return lines;
    std::string text;
    char buf[4096];
    for (;;) {
        ssize_t n = ::pread(g_log_fd, buf, sizeof buf, g_log_read);
        if (n <= 0) break;
        text.append(buf, static_cast<size_t>(n));
        g_log_read += n;
    }
    append_to_user_log(text);
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        lines.push_back(text.substr(start, nl - start));
    return lines;
}

void warn_failed_follow_ups() {
    for (const auto &line : take_library_log())
        if (follow_up_failure(line))
            warn("a follow-up of the change failed: " + (session().verbose ? line : message_of(line)));
}

void ensure_temp_dir() {
    if (session().root.empty()) return;
    std::string tmp = session().path("/tmp");
    if (is_dir(tmp)) return;
    if (::mkdir(tmp.c_str(), 01777) == 0) ::chmod(tmp.c_str(), 01777);
}

void lock_for_change() {
    if (g_lock_fd >= 0) return;
    ensure_temp_dir();
    std::string tmp = session().path("/tmp");
    int fd = ::open(tmp.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    while (::flock(fd, LOCK_EX) != 0)
        if (errno != EINTR) break;
    g_lock_fd = fd;  // released when the process ends
}

}  // namespace kovasvc
