// Port range sets: adding the ranges written in a text ("80,443,8000:8010").
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "foundation/log.h"
#include "foundation/raii.h"
#include "range/port_range_internal.h"

namespace {

// Decimal conversion without validation: leading white space and a sign are accepted, the
// digits end at the first other character, no digits give 0; kept as a 32-bit number.
uint32_t to_port(const char *text) {
    return static_cast<uint32_t>(std::strtol(text, nullptr, 10));
}

}  // namespace

extern "C" {

int KVLIBPortRangeImport(KVLIB_PORT_RANGE *pRange, const char *szPorts) {
    if (szPorts == nullptr || pRange == nullptr) {
        KOVA_LOG("Bad parameters.");
        return -1;
    }
    kova::CStrPtr copy(strdup(szPorts));
    if (copy == nullptr) {
        KOVA_LOG("Out of memory.");
        return -1;
    }

    // The items are collected and added in one merge; the set is the one that adding them
    // one by one gives, also when an item ends the call early.
    std::vector<kova::range::Span> spans;
    int result = 0;
    try {
        char *cursor = copy.get();
        for (char *item = KVLIBCStrTokIndex(&cursor, ","); item != nullptr; item = KVLIBCStrTokIndex(&cursor, ",")) {
            if (KVLIBCStrTrimSpace(item, 0) < 0) {
                result = -1;
                break;
            }
            if (char *colon = std::strchr(item, ':'); colon != nullptr) {
                *colon = '\0';
                spans.push_back(kova::range::span_of(1, to_port(item), to_port(colon + 1)));
            } else {
                const uint32_t port = to_port(item);
                spans.push_back(kova::range::span_of(0, port, port));
            }
        }
    } catch (const std::bad_alloc &) {
        kova::range::log_add_out_of_memory();
        KOVA_LOG("Failed to KVLIBPortRangeAdd().");
        return -1;
    }
    if (kova::range::add_spans(pRange, spans) != 0) {
        KOVA_LOG("Failed to KVLIBPortRangeAdd().");
        return -1;
    }
    return result;
}

}  // extern "C"
