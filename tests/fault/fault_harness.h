// Failure injection for the fault tests.
//
// A Trigger armed with N makes the Nth event from then on fail; with `sticky`, every one after it
// too. The test program replaces malloc, calloc, realloc, free (and the aligned variants) with
// versions that forward to the C library, count the blocks alive and return null (ENOMEM) when
// `allocations` fires (fault_alloc.cpp). operator new, strdup, the platform stand-ins and the
// library all allocate through them. AddressSanitizer replaces the allocator itself: under it the
// replacement is not compiled and available() is false.
//
// expect_robust() runs one operation again and again, making allocation 1, 2, 3, ... of the call fail, until a
// call completes without any failure injected. For every run the operation must return its
// success or its failure result (check()), and once what the call handed out and its inputs are
// released, as many blocks must be alive as before the call.
#pragma once

#include <gtest/gtest.h>
#include <kovaserviceconf.h>

#include <atomic>
#include <functional>
#include <string>

#include "kova_test.h"

namespace kova::fault {

class Trigger {
public:
    constexpr Trigger() = default;
    void arm(long nth, bool sticky) { fired_ = 0, failing_ = false, sticky_ = sticky, countdown_ = nth; }
    void disarm() { countdown_ = 0, failing_ = false; }
    long fired() const { return fired_; }  // events failed since arm()
    // Counts one event; whether it is to fail.
    bool fire() {
        if (!failing_) {
            if (countdown_ <= 0 || countdown_.fetch_sub(1) != 1) return false;
            failing_ = sticky_.load();
        }
        ++fired_;
        return true;
    }

private:
    std::atomic<long> countdown_{0}, fired_{0};  // countdown 0: disarmed
    std::atomic<bool> sticky_{false}, failing_{false};
};

extern constinit Trigger allocations;
bool available();
// Blocks allocated and not yet freed, over the whole process.
long live();

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

}  // namespace kova::fault
