// Port range sets: adding every range of one set to another.
#include <kovaserviceconf.h>

#include <new>
#include <vector>

#include "foundation/log.h"
#include "range/port_range_internal.h"

extern "C" {

int KVLIBPortRangeJoin(KVLIB_PORT_RANGE *pTarget, const KVLIB_PORT_RANGE *pSource) {
    if (pTarget == nullptr || pSource == nullptr) {
        KOVA_LOG("Bad parameters.");
        return -1;
    }
    // The source may be a lent list in any order (a conflict list, say); its single entries
    // are completed as adding them would ([p, 0] becomes [p, p]).
    std::vector<kova::range::Span> spans;
    try {
        for (KOVA_SERVICE_CONF_PORT *n = pSource->head; n != nullptr; n = n->next) {
            if (n->type == 0) n->endPort = n->beginPort;
            spans.push_back(kova::range::span_of(n->type, n->beginPort, n->endPort));
        }
    } catch (const std::bad_alloc &) {
        kova::range::log_add_out_of_memory();
        KOVA_LOG("Failed to KVLIBPortRangeAdd().");
        return -1;
    }
    if (kova::range::add_spans(pTarget, spans) != 0) {
        KOVA_LOG("Failed to KVLIBPortRangeAdd().");
        return -1;
    }
    return 0;
}

}  // extern "C"
