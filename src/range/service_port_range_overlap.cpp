// Port range sets: adding the intersection of two sets to a third.
#include <kovaserviceconf.h>

#include <algorithm>
#include <new>
#include <vector>

#include "foundation/log.h"
#include "range/port_range_internal.h"

namespace {

// Sweeps both lists at once (the second is never walked back) and collects the common pieces.
void intersect(const KOVA_SERVICE_CONF_PORT *x, const KOVA_SERVICE_CONF_PORT *y,
               std::vector<kova::range::Span> &pieces) {
    for (; x != nullptr; x = x->next) {
        while (y->endPort < x->beginPort) {
            y = y->next;
            if (y == nullptr) return;
        }
        while (y->beginPort <= x->endPort) {
            const uint32_t begin = std::max(x->beginPort, y->beginPort);
            const uint32_t end = std::min(x->endPort, y->endPort);
            pieces.push_back(kova::range::span_of(begin != end ? 1 : 0, begin, end));
            if (y->endPort >= x->endPort) break;
            y = y->next;
            if (y == nullptr) return;
        }
    }
}

}  // namespace

extern "C" {

int KVLIBPortRangeOverlap(const KVLIB_PORT_RANGE *pFirst, const KVLIB_PORT_RANGE *pSecond, KVLIB_PORT_RANGE *pTarget) {
    if (pFirst == nullptr || pSecond == nullptr || pTarget == nullptr) {
        KOVA_LOG("Bad parameters.");
        return -1;
    }
    if (pFirst->head == nullptr || pSecond->head == nullptr) return 0;

    std::vector<kova::range::Span> pieces;
    try {
        intersect(pFirst->head, pSecond->head, pieces);
    } catch (const std::bad_alloc &) {
        kova::range::log_add_out_of_memory();
        KOVA_LOG("Failed to KVLIBPortRangeAdd().");
        return -1;
    }
    if (kova::range::add_spans(pTarget, pieces) != 0) {
        KOVA_LOG("Failed to KVLIBPortRangeAdd().");
        return -1;
    }
    return 0;
}

}  // extern "C"
