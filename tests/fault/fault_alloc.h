// Failure injection for the fault tests.
//
// A Trigger armed with N makes the Nth event from then on fail; with `sticky`, every one after it
// too. The test program replaces malloc, calloc, realloc, free (and the aligned variants) with
// versions that forward to the C library, count the blocks alive and return null (ENOMEM) when
// `allocations` fires. operator new, strdup, the platform stand-ins and the library all allocate
// through them. AddressSanitizer replaces the allocator itself: under it the replacement is not
// compiled and available() is false.
#pragma once

#include <atomic>

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

}  // namespace kova::fault
