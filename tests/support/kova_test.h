// Test fixture: every test runs in a temporary KOVA_ROOT of its own, with KOVA_LOG_FILE
// pointing at a file inside it, so that tests read back the exact log lines.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kova::test {

class RootTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The root directory, and `rel` (an absolute system path such as "/etc/kovainfo.conf")
    // as seen under it.
    const std::string &root() const { return root_; }
    std::string path(const std::string &rel) const { return root_ + rel; }

    // Files under the root; parent directories are created as needed.
    void write(const std::string &rel, const std::string &content, int mode = 0644) const;
    std::string read(const std::string &rel) const;
    bool exists(const std::string &rel) const;
    void mkdir(const std::string &rel) const;
    void symlink(const std::string &target, const std::string &rel) const;
    // A shell script under the root, executable.
    void script(const std::string &rel, const std::string &body) const;

    // Log lines written since the test began (or since clear_log()).
    std::vector<std::string> log() const;
    // The same with every "file.cpp:<line>" turned into "file.cpp:N".
    std::vector<std::string> log_normalized() const;
    void clear_log() const;
    // Whether some normalized log line equals `line`.
    bool logged(const std::string &line) const;

    // Sets the error state to a sentinel that no operation uses, to see whether a call touched it.
    static void poison_error();

private:
    std::string root_;
    std::string log_file_;
};

// "module.cpp:123" -> "module.cpp:N" everywhere in the text.
std::string normalize(const std::string &line);

}  // namespace kova::test
