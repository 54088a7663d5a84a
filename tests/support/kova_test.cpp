#include "kova_test.h"

#include <kovaserviceconf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace kova::test {

void RootTest::SetUp() {
    std::string tmpl = std::string(KOVA_TEST_TMPDIR) + "/root.XXXXXX";
    fs::create_directories(KOVA_TEST_TMPDIR);
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    ASSERT_NE(mkdtemp(buf.data()), nullptr);
    root_ = buf.data();
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
    if (!root_.empty()) {
        // Directories made unreadable by a test would stop remove_all.
        for (auto it = fs::recursive_directory_iterator(root_, fs::directory_options::skip_permission_denied, ec);
             !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            if (it->is_directory(ec) && !it->is_symlink(ec)) ::chmod(it->path().c_str(), 0755);
        }
        fs::remove_all(root_, ec);
        fs::remove(log_file_, ec);
    }
}

void RootTest::write(const std::string &rel, const std::string &content, int mode) const {
    fs::path p(path(rel));
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    ::chmod(p.c_str(), mode);
}

std::string RootTest::read(const std::string &rel) const {
    std::ifstream in(path(rel), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
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
    fs::path p(path(rel));
    fs::create_directories(p.parent_path());
    fs::create_symlink(target, p);
}

void RootTest::script(const std::string &rel, const std::string &body) const {
    write(rel, "#!/bin/sh\n" + body, 0755);
}

std::vector<std::string> RootTest::log() const {
    std::ifstream in(log_file_);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> RootTest::log_normalized() const {
    std::vector<std::string> lines = log();
    for (auto &l : lines) l = normalize(l);
    return lines;
}

void RootTest::clear_log() const {
    std::ofstream(log_file_, std::ios::trunc).close();
}

bool RootTest::logged(const std::string &line) const {
    for (const auto &l : log_normalized())
        if (l == line) return true;
    return false;
}

void RootTest::poison_error() {
    KVLIBCErrSetEx(0xEEEE, "poison", 7);
}

std::string normalize(const std::string &line) {
    static const std::regex place(R"((\.cpp|\.c):-?[0-9]+)");
    return std::regex_replace(line, place, "$1:N");
}

}  // namespace kova::test
