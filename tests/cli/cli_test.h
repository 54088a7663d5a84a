// Fixture for the end-to-end tests of kova-svc: a sandbox root (a copy of the example root
// under the test's temporary KOVA_ROOT) and a runner for the built tool.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "json_value.h"
#include "kova_test.h"

namespace kova::cli_test {

struct ToolRun {
    int status = -1;  // exit status; 128 + signal when a signal ended the tool
    std::string out, err;

    std::vector<std::string> lines() const;  // standard output, line by line
    JsonValue json() const { return JsonValue::parse(out); }
    bool has(const std::string &text) const { return out.find(text) != std::string::npos; }
};

class CliTest : public kova::test::RootTest {
protected:
    void SetUp() override;

    // Runs the tool with `args` and the test's environment plus `env` ("NAME=value" entries).
    ToolRun run(const std::vector<std::string> &args, const std::vector<std::string> &env = {}) const;
    // The same with "--root ROOT" in front of the command.
    ToolRun svc(std::vector<std::string> args) const;

    // A scratch directory for source files, away from the directories the library reads.
    std::string work() const { return path("/scratch"); }
    std::string write_work(const std::string &name, const std::string &content) const {
        write("/scratch/" + name, content);
        return work() + "/" + name;
    }
    // The root without socket tables, or with the machine's (which show this process's sockets).
    void drop_proc() const {
        std::error_code ec;
        std::filesystem::remove_all(path("/proc"), ec);
    }
    void use_real_proc() const {
        drop_proc();
        symlink("/proc", "/proc");
    }
};

// The words of `line`, split at spaces; '' stands for an empty word.
std::vector<std::string> words(const std::string &line);
// The `fields` of a JSON record as text, joined by spaces.
std::string cells(const JsonValue &record, const std::vector<std::string> &fields);
// The items of a JSON array as text, each followed by "; ": the `fields` of a record, or the
// item itself when no fields are named.
std::string rows(const JsonValue &list, const std::vector<std::string> &fields = {});

// A run that failed with `status`: nothing on standard output and one line on standard error
// that begins with `start`.
inline void expect_error(const ToolRun &r, int status, const std::string &start) {
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind(start, 0), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
}

// A listening TCP socket and a bound UDP socket on loopback ports the kernel chose, open for
// the life of the object.
class HeldPorts {
public:
    HeldPorts();
    ~HeldPorts();
    HeldPorts(const HeldPorts &) = delete;
    HeldPorts &operator=(const HeldPorts &) = delete;

    unsigned int tcp = 0, udp = 0;

private:
    int tcp_fd_ = -1, udp_fd_ = -1;
};

}  // namespace kova::cli_test
