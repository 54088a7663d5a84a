#include "kova_test.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace fs = std::filesystem;

namespace kova::test {

void RootTest::SetUp() {
    fs::create_directories(KOVA_TEST_TMPDIR);
    std::string tmpl = std::string(KOVA_TEST_TMPDIR) + "/root.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
    root_ = tmpl;
    log_file_ = root_ + ".log";
    std::ofstream(log_file_).close();
    setenv("KOVA_ROOT", root_.c_str(), 1);
    setenv("KOVA_LOG_FILE", log_file_.c_str(), 1);
    KVLIBCErrSetEx(0, "", 0);
}

void RootTest::TearDown() {
    unsetenv("KOVA_ROOT");
    unsetenv("KOVA_LOG_FILE");
    std::error_code ec;
    if (root_.empty()) return;
    // Directories made unreadable by a test would stop remove_all.
    for (auto it = fs::recursive_directory_iterator(root_, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
        if (it->is_directory(ec) && !it->is_symlink(ec)) ::chmod(it->path().c_str(), 0755);
    fs::remove_all(root_, ec);
    fs::remove(log_file_, ec);
}

void RootTest::write(const std::string &rel, const std::string &content, int mode) const {
    const fs::path p(path(rel));
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary | std::ios::trunc) << content;
    ::chmod(p.c_str(), mode);
}

std::string RootTest::read(const std::string &rel) const {
    std::stringstream ss;
    ss << std::ifstream(path(rel), std::ios::binary).rdbuf();
    return ss.str();
}

bool RootTest::exists(const std::string &rel) const {
    std::error_code ec;
    return fs::exists(fs::symlink_status(path(rel), ec));
}

void RootTest::mkdir(const std::string &rel) const {
    fs::create_directories(path(rel));
}

void RootTest::symlink(const std::string &target, const std::string &rel) const {
    fs::create_directories(fs::path(path(rel)).parent_path());
    fs::create_symlink(target, path(rel));
}

Lines RootTest::entries(const std::string &rel) const {
    Lines out;
    for (const auto &e : fs::directory_iterator(path(rel))) out.push_back(e.path().filename());
    std::sort(out.begin(), out.end());
    return out;
}

void RootTest::tables(const std::string &tcp, const std::string &tcp6, const std::string &udp,
                      const std::string &udp6) const {
    const std::string header = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt\n";
    write("/proc/net/tcp", header + tcp);
    write("/proc/net/tcp6", header + tcp6);
    write("/proc/net/udp", header + udp);
    write("/proc/net/udp6", header + udp6);
}

Lines RootTest::log() const {
    std::ifstream in(log_file_);
    Lines lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

Lines RootTest::log_normalized() const {
    Lines lines = log();
    for (auto &l : lines) l = normalize(l);
    return lines;
}

void RootTest::clear_log() const {
    std::ofstream(log_file_, std::ios::trunc).close();
}

bool RootTest::logged(const std::string &line) const {
    const Lines lines = log_normalized();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string normalize(const std::string &line) {
    static const std::regex place(R"((\.cpp|\.c):-?[0-9]+)");
    return std::regex_replace(line, place, "$1:N");
}

std::string outcome(int rc) {
    char text[32];
    std::snprintf(text, sizeof text, "%d 0x%04X", rc, KVLIBCErrGet());
    return text;
}

Lines items(const KVLIB_SZLIST *list) {
    if (list == nullptr) return {"no list"};
    Lines out;
    for (int i = 0; i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
    return out;
}

std::string sock_line(unsigned port, unsigned state, unsigned long inode, bool v6) {
    const std::string any(v6 ? 32 : 8, '0'), local = v6 ? any.substr(8) + "01000000" : "0100007F";
    char text[320];
    std::snprintf(text, sizeof text,
                  "   0: %s:%04X %s:0000 %02X 00000000:00000000 00:00000000 00000000     0        0 %lu 1 "
                  "0000000000000000 100 0 0 10 0\n",
                  local.c_str(), port, any.c_str(), state, inode);
    return text;
}

}  // namespace kova::test
