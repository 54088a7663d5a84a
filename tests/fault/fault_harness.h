// Runs one operation again and again, making allocation 1, 2, 3, ... of the call fail, until a
// call completes without any failure injected. For every run the operation must return its
// success or its failure result (check()), and once what the call handed out and its inputs are
// released, as many blocks must be alive as before the call.
#pragma once

#include <gtest/gtest.h>
#include <kovaserviceconf.h>

#include <functional>
#include <string>

#include "fault_alloc.h"
#include "kova_test.h"

namespace kova::fault {

constexpr unsigned int kPoison = 0x7E57;

struct Case {
    std::function<void()> prepare = [] {};  // inputs of one call; not counted
    std::function<void()> call;             // runs with the injection armed; stores its results
    std::function<bool(bool)> check;        // (failures injected?) -> whether the call succeeded; EXPECTs
    std::function<void()> release = [] {};  // frees what the call handed out and the inputs
};

enum class Mode { kOnce, kSticky };

// The loop described above; a run that breaks a check or leaks stops it.
void expect_robust(const std::string &name, const Case &c, Mode mode);

// An operation that hands out its result whole or not at all: `op` returns 0 or -1 (run with the
// error state poisoned) and `now` shows the caller's outputs. Success shows `expected`; failure
// leaves `untouched` and sets the out-of-memory error, or with `sets_error` false (an operation
// that never sets the error state itself) leaves the state poisoned or out of memory (0x0200 from
// the platform's text operations) in both cases.
Case all_or_nothing(std::function<void()> reset, std::function<int()> op, std::function<std::string()> now,
                    const std::string &expected, const std::string &untouched, std::function<void()> release,
                    bool sets_error = true);

// Runs the C library's one-time set-ups that the log path triggers, so that they are not taken
// for leaks of the first run.
void prime_c_library();

// A temporary root with a small catalogue (settings, one system and one package .sc file, a
// socket table); every test runs once per mode.
class FaultTest : public kova::test::RootTest, public ::testing::WithParamInterface<Mode> {
protected:
    void SetUp() override;
    void expect_robust(const std::string &name, const Case &c) { kova::fault::expect_robust(name, c, GetParam()); }
};

#define KOVA_FAULT_MODES(suite)                                                                       \
    INSTANTIATE_TEST_SUITE_P(Modes, suite, ::testing::Values(Mode::kOnce, Mode::kSticky),             \
                             [](const ::testing::TestParamInfo<Mode> &info) {                         \
                                 return std::string(info.param == Mode::kSticky ? "Sticky" : "Once"); \
                             })

}  // namespace kova::fault
