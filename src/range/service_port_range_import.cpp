// Port range sets: adding the ranges written in a text ("80,443,8000:8010").
#include <kovaserviceconf.h>

#include <cstdint>
#include <string_view>
#include <new>
#include <vector>

#include "foundation/log.h"
#include "foundation/ports.h"
#include "range/port_range_internal.h"

namespace {

// Decimal conversion without validation, as strtol reads it; kept as a 32-bit number.
uint32_t to_port(std::string_view text) {
    return static_cast<uint32_t>(kova::ports::lenient_number(text));
}

}  // namespace

extern "C" {

int KVLIBPortRangeImport(KVLIB_PORT_RANGE *pRange, const char *szPorts) {
    if (szPorts == nullptr || pRange == nullptr) {
        KOVA_LOG("Bad parameters.");
        return -1;
    }
    // The items are collected and added in one merge; the set is the one that adding them
    // one by one gives.
    std::vector<kova::range::Span> spans;
    try {
        kova::ports::each_piece(szPorts, ",", [&](std::string_view piece) {
            const kova::ports::Item item = kova::ports::split_item(kova::ports::trim(piece), ':');
            const uint32_t first = to_port(item.first);
            spans.push_back(item.joined ? kova::range::span_of(1, first, to_port(item.last))
                                        : kova::range::span_of(0, first, first));
            return true;
        });
    } catch (const std::bad_alloc &) {
        kova::range::log_add_out_of_memory();
        KOVA_LOG("Failed to KVLIBPortRangeAdd().");
        return -1;
    }
    if (kova::range::add_spans(pRange, spans) != 0) {
        KOVA_LOG("Failed to KVLIBPortRangeAdd().");
        return -1;
    }
    return 0;
}

}  // extern "C"
