// Allocation failures while a log line is formatted: the line falls back to a fixed buffer,
// formats its arguments from the start again and still reaches the log file whole.
#include "fault_harness.h"
#include "foundation/log.h"

namespace kova::fault {
namespace {

class LogFaultTest : public FaultTest {};
KOVA_FAULT_MODES(LogFaultTest);

TEST_P(LogFaultTest, EveryAllocationOfALineFails) {
    // Long enough that no text fits a small-string buffer: every step of the line allocates.
    const std::string value(200, 'v');
    expect_robust("log_line", {.call = [&] { kova::log_line("m.cpp", 7, "%s %d %s", value.c_str(), 42, "end"); },
                               .check =
                                   [&](bool) {
                                       EXPECT_EQ(log_normalized(),
                                                 std::vector<std::string>{"m.cpp:N " + value + " 42 end"});
                                       clear_log();
                                       return true;
                                   }});
}

}  // namespace
}  // namespace kova::fault
