// Runs one operation again and again, making allocation 1, 2, 3, ... of the call fail, until a
// call completes without any failure injected. For every run the operation must return its
// success or its failure result (check()), and once what the call handed out is released, as
// many blocks must be alive as before the call.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "fault_alloc.h"
#include "kova_test.h"

namespace kova::fault {

struct Case {
    std::function<void()> prepare;    // inputs of one call; not counted
    std::function<void()> call;       // runs with the injection armed; stores its results
    std::function<bool(bool)> check;  // (failures injected?) -> whether the call succeeded; EXPECTs
    std::function<void()> release;    // frees what the call handed out
    std::function<void()> finish;     // frees the inputs
};

struct Outcome {
    long allocations = 0;                               // allocations of a call without failures
    long failed_calls = 0;                              // runs that returned the failure result
    std::vector<long> leaks;                            // the failing allocation of every run that leaked
    std::map<std::string, std::vector<long>> degraded;  // note -> failing allocations
};

enum class Mode { kOnce, kSticky };
void PrintTo(Mode mode, std::ostream *out);

// Records, from inside check(), that the run succeeded with less than a full result in a way
// the operation's contract allows (an entry left out because memory ran out). exhaust() prints
// every such note with the failing allocations that led to it.
void degraded(const std::string &what);

// The loop described above. A run that breaks a check stops the loop.
Outcome exhaust(const std::string &name, const Case &c, Mode mode);

// Runs the loop in the test's mode and expects no leak.
void expect_robust(const std::string &name, const Case &c, Mode mode);

// Runs the C library's one-time set-ups that the log path triggers, so that they are not taken
// for leaks of the first run.
void prime_c_library();

// A temporary root with a small catalogue (settings, one system and one package .sc file, a
// socket table); every test runs once per mode.
class FaultTest : public kova::test::RootTest, public ::testing::WithParamInterface<Mode> {
protected:
    void SetUp() override;
    void write_small_root() const;
    void expect_robust(const std::string &name, const Case &c) { kova::fault::expect_robust(name, c, GetParam()); }
    bool sticky() const { return GetParam() == Mode::kSticky; }
};

std::string mode_name(const ::testing::TestParamInfo<Mode> &info);

#define KOVA_FAULT_MODES(suite) \
    INSTANTIATE_TEST_SUITE_P(Modes, suite, ::testing::Values(Mode::kOnce, Mode::kSticky), mode_name)

}  // namespace kova::fault
