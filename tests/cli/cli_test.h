// Fixture for the end-to-end tests of kova-svc: a sandbox root (a copy of the example root
// under the test's temporary KOVA_ROOT, in the build tree) and a runner for the built tool.
#pragma once

#include <string>
#include <vector>

#include "json_value.h"
#include "kova_test.h"

namespace kova::cli_test {

struct ToolRun {
    int status = -1;  // exit status; 128 + signal when a signal ended the tool
    std::string out;
    std::string err;

    std::vector<std::string> lines() const;  // standard output, line by line
    JsonValue json() const;                  // standard output as one JSON document
};

class CliTest : public kova::test::RootTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Runs the tool with `args`, the environment of the test (KOVA_ROOT, KOVA_LOG_FILE) and
    // `env` ("NAME=value" entries, set on top).
    ToolRun run(const std::vector<std::string> &args, const std::vector<std::string> &env = {}) const;
    // The same with "--root ROOT" in front of the command.
    ToolRun svc(const std::vector<std::string> &args) const;

    // A scratch directory outside the root, for source files.
    const std::string &work() const { return work_; }
    std::string write_work(const std::string &name, const std::string &content) const;

    // Gives the root the machine's process table, so that the runtime inventory sees the
    // sockets of the test process.
    void use_real_proc() const;

    static std::string tool();

private:
    std::string work_;
};

// A listening TCP socket and a bound UDP socket on ports chosen by the kernel, held open for
// the life of the object.
class HeldPorts {
public:
    HeldPorts();
    ~HeldPorts();
    HeldPorts(const HeldPorts &) = delete;
    HeldPorts &operator=(const HeldPorts &) = delete;

    unsigned int tcp() const { return tcp_port_; }
    unsigned int udp() const { return udp_port_; }

private:
    int tcp_fd_ = -1, udp_fd_ = -1;
    unsigned int tcp_port_ = 0, udp_port_ = 0;
};

}  // namespace kova::cli_test
