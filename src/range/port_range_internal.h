// Shared inside the port range family: the range an entry stands for, and adding many ranges
// to a set in one merge instead of one list walk per range.
#pragma once

#include <kovaserviceconf.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "foundation/ports.h"

namespace kova::range {

// A closed range of port numbers, first <= last.
using Span = kova::ports::Span;

// The range an entry stands for as KVLIBPortRangeAdd reads it: a single entry (type 0) is its
// begin port alone; a range written backwards stands for the ports between its two ends.
Span span_of(uint32_t type, uint32_t begin, uint32_t end) noexcept;

// Adds every span to the set. The set that results is the one that adding the spans one by
// one with KVLIBPortRangeAdd gives (sorted, merged, count matching), built with one merge.
// On an allocation failure it logs the add operation's "Out of memory" line, leaves the set
// as it was and returns -1; otherwise 0. `spans` is used up.
int add_spans(KVLIB_PORT_RANGE *set, std::vector<Span> &spans) noexcept;

// The spans of a text as KVLIBPortRangeImport reads it ("80,443,8000:8010": items at ",",
// trimmed, a range at its first ":", numbers as strtol reads them, kept as 32-bit numbers).
std::vector<Span> import_spans(std::string_view text);

// The add operation's "Out of memory" line, for callers whose preparation of the spans ran
// out of memory (so that the log reads as if the add itself had failed).
void log_add_out_of_memory() noexcept;

}  // namespace kova::range
