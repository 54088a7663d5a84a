// Port range sets: adding the ranges written in a text ("80,443,8000:8010").
#include <kovaserviceconf.h>

#include <cstdint>
#include <string_view>
#include <new>
#include <vector>

#include "foundation/log.h"
#include "foundation/ports.h"
#include "range/port_range_internal.h"

namespace kova::range {

std::vector<Span> import_spans(std::string_view text) {
    std::vector<Span> spans;
    ports::each_piece(text, ",", [&](std::string_view piece) {
        const ports::Item item = ports::split_item(ports::trim(piece), ':');
        const auto first = static_cast<uint32_t>(ports::lenient_number(item.first));
        spans.push_back(item.joined ? span_of(1, first, static_cast<uint32_t>(ports::lenient_number(item.last)))
                                    : span_of(0, first, first));
        return true;
    });
    return spans;
}

}  // namespace kova::range

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
        spans = kova::range::import_spans(szPorts);
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
