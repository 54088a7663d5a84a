// Runs one operation again and again, making allocation 1, 2, 3, ... of the call fail, until a
// call completes without any failure injected. For every run the operation must return its
// success or its failure result (check()), and once what the call handed out is released, as
// many blocks must be alive as before the call.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

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

enum class Mode { kOnce, kSticky };

// The loop described above; a run that breaks a check or leaks stops it.
void expect_robust(const std::string &name, const Case &c, Mode mode);

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
