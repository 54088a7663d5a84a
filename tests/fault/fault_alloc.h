// Allocation failure injection for the fault tests.
//
// The test program replaces malloc, calloc, realloc, free (and the aligned variants) with
// versions that forward to the C library and count the blocks alive. Armed with N, the Nth
// allocation from then on fails (returns null with ENOMEM); in sticky mode every allocation after
// it fails too. operator new, strdup, the platform stand-ins and the library all allocate through
// these functions, so a failure can hit any of them.
//
// AddressSanitizer replaces the allocator itself: under it the replacement is not compiled and
// available() is false.
#pragma once

#include <cstddef>

namespace kova::fault {

bool available();

// The nth allocation from now (1: the next one) fails; with `sticky`, every one after it too.
void arm(long nth, bool sticky);
void disarm();
// Allocations refused since the last arm().
long injected();
// Blocks allocated and not yet freed, over the whole process.
long live();

}  // namespace kova::fault
