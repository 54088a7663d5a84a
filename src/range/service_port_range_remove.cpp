// Port range sets: removing a range, splitting the ranges it cuts.
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstdlib>

#include "foundation/log.h"
#include "foundation/raii.h"
#include "range/port_range_internal.h"

namespace {

void fill(KOVA_SERVICE_CONF_PORT *node, uint32_t begin, uint32_t end) {
    node->beginPort = begin;
    node->endPort = end;
    node->type = begin != end ? 1 : 0;
}

void free_node(KOVA_SERVICE_CONF_PORT *node) {
    node->next = nullptr;
    KOVAServiceConfPortsFree(node);
}

}  // namespace

extern "C" {

int KVLIBPortRangeRemove(KVLIB_PORT_RANGE *pRange, const KOVA_SERVICE_CONF_PORT *pEntry) {
    if (pRange == nullptr || pEntry == nullptr || pRange->head == nullptr) {
        KOVA_LOG("Bad parameters.");
        return -1;
    }
    // The entry's ports are read as given. Written backwards, a single entry as the port-list
    // parser makes it ([p, 0]) stands for its port, and a range for the ports between its ends.
    const bool backwards = pEntry->endPort < pEntry->beginPort;
    const kova::range::Span s =
        kova::range::span_of(backwards && pEntry->type == 0 ? 0 : 1, pEntry->beginPort, pEntry->endPort);

    KOVA_SERVICE_CONF_PORT **link = &pRange->head;
    while (*link != nullptr && (*link)->endPort < s.first) link = &(*link)->next;
    KOVA_SERVICE_CONF_PORT *first = *link;
    if (first == nullptr) {
        KOVA_LOG("Can't find entry to remove in the list");
        return -1;
    }

    // At most two nodes are made: the part of the first node below the range and the part of
    // the last node above it. Both are allocated before the list changes.
    const bool keep_below = s.first > first->beginPort;
    bool keep_above = false;
    for (const KOVA_SERVICE_CONF_PORT *t = first; t != nullptr && t->beginPort <= s.last; t = t->next) {
        if (s.last < t->endPort) {
            keep_above = true;
            break;
        }
    }
    kova::PortsPtr below(keep_below ? kova::calloc_record<KOVA_SERVICE_CONF_PORT>() : nullptr);
    kova::PortsPtr above(keep_above ? kova::calloc_record<KOVA_SERVICE_CONF_PORT>() : nullptr);
    if ((keep_below && below == nullptr) || (keep_above && above == nullptr)) return -1;

    if (keep_below) {
        fill(below.get(), first->beginPort, s.first - 1);
        below->next = first;
        *link = below.get();
        link = &below.release()->next;
        ++pRange->count;
    }
    KOVA_SERVICE_CONF_PORT *t = first;
    while (t != nullptr && t->beginPort <= s.last) {
        KOVA_SERVICE_CONF_PORT *following = t->next;
        if (s.last >= t->endPort) {
            *link = following;
            free_node(t);
            --pRange->count;
            t = following;
            continue;
        }
        fill(above.get(), s.last + 1, t->endPort);
        above->next = following;
        *link = above.release();
        free_node(t);
        break;
    }
    return 0;
}

}  // extern "C"
