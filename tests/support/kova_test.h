// Test fixture: every test runs in a temporary KOVA_ROOT of its own, with KOVA_LOG_FILE
// pointing at a file inside it, so that tests read back the exact log lines.
#pragma once

#include <gtest/gtest.h>
#include <kovaserviceconf.h>

#include <string>
#include <type_traits>
#include <vector>

namespace kova::test {

using Lines = std::vector<std::string>;

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
    void script(const std::string &rel, const std::string &body) const { write(rel, "#!/bin/sh\n" + body, 0755); }
    // The names in a directory under the root, sorted.
    Lines entries(const std::string &rel) const;
    // The four socket tables under /proc/net, each a header line and the lines given.
    void tables(const std::string &tcp, const std::string &tcp6, const std::string &udp, const std::string &udp6) const;

    // Log lines written since the test began (or since clear_log()); normalized, with every
    // "file.cpp:<line>" turned into "file.cpp:N".
    Lines log() const;
    Lines log_normalized() const;
    void clear_log() const;
    bool logged(const std::string &line) const;  // some normalized line equals `line`

    // Sets the error state to a sentinel that no operation uses, to see whether a call touched it.
    static void poison_error() { KVLIBCErrSetEx(0xEEEE, "poison", 7); }

private:
    std::string root_;
    std::string log_file_;
};

// Texts and numbers joined: str("w", 3, "-", name) is "w3-name". It appends to one string:
// GCC 12 at -O3 reports a false -Wrestrict on `"literal" + std::string(...)` temporaries.
template <class... Parts>
std::string str(const Parts &...parts) {
    std::string out;
    auto add = [&out](const auto &part) {
        if constexpr (std::is_arithmetic_v<std::decay_t<decltype(part)>>)
            out += std::to_string(part);
        else
            out += part;
    };
    (add(parts), ...);
    return out;
}

// "module.cpp:123" -> "module.cpp:N" everywhere in the text.
std::string normalize(const std::string &line);
// "<rc> 0x<code>": a result and the error state the call left, to compare both at once.
std::string outcome(int rc);
// The items of a string list; {"no list"} for none.
Lines items(const KVLIB_SZLIST *list);
// One socket table line as the kernel writes it (local address 127.0.0.1 or ::1).
std::string sock_line(unsigned port, unsigned state, unsigned long inode = 0, bool v6 = false);

}  // namespace kova::test
