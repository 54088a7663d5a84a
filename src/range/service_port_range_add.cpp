// Port range sets: creation, destruction and adding a range (merging with every range it
// overlaps or touches). Also the one-pass merge used by import, join and overlap.
#include <kovaserviceconf.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include "foundation/log.h"
#include "foundation/raii.h"
#include "range/port_range_internal.h"

namespace kova::range {
namespace {

void set_node(KOVA_SERVICE_CONF_PORT *node, const Span &s) {
    node->direction = 0;
    node->protocol = 0;
    node->beginPort = s.first;
    node->endPort = s.last;
    node->type = s.first != s.last ? 1 : 0;
}

// Frees one node that has been unlinked from its list.
void free_node(KOVA_SERVICE_CONF_PORT *node) {
    node->next = nullptr;
    KOVAServiceConfPortsFree(node);
}

}  // namespace

Span span_of(uint32_t type, uint32_t begin, uint32_t end) noexcept {
    if (type == 0) end = begin;
    if (end < begin) std::swap(begin, end);
    return Span{begin, end};
}

void log_add_out_of_memory() noexcept {
    KOVA_LOG("Out of memory");
}

int add_spans(KVLIB_PORT_RANGE *set, std::vector<Span> &spans) noexcept {
    if (spans.empty()) return 0;
    try {
        // The set's own nodes, as spans and as a pool of nodes to reuse.
        std::vector<KOVA_SERVICE_CONF_PORT *> pool;
        for (KOVA_SERVICE_CONF_PORT *n = set->head; n != nullptr; n = n->next) {
            pool.push_back(n);
            spans.push_back(span_of(n->type, n->beginPort, n->endPort));
        }
        const std::vector<Span> merged = kova::ports::merge(std::move(spans));

        // Every allocation happens before the list is touched, so a failure leaves it as it was.
        const size_t owned = pool.size();
        pool.reserve(std::max(owned, merged.size()));
        for (size_t k = owned; k < merged.size(); ++k) {
            auto *node = calloc_record<KOVA_SERVICE_CONF_PORT>();
            if (node == nullptr) {
                for (size_t f = owned; f < pool.size(); ++f) free_node(pool[f]);
                log_add_out_of_memory();
                return -1;
            }
            pool.push_back(node);
        }

        for (size_t k = 0; k < merged.size(); ++k) {
            set_node(pool[k], merged[k]);
            pool[k]->next = k + 1 < merged.size() ? pool[k + 1] : nullptr;
        }
        for (size_t k = merged.size(); k < pool.size(); ++k) free_node(pool[k]);
        set->head = pool.front();
        set->count = static_cast<int32_t>(merged.size());
        return 0;
    } catch (const std::bad_alloc &) {
        log_add_out_of_memory();
        return -1;
    }
}

}  // namespace kova::range

using kova::range::Span;

extern "C" {

KVLIB_PORT_RANGE *KVLIBPortRangeCreate(void) {
    return kova::calloc_record<KVLIB_PORT_RANGE>();
}

void KVLIBPortRangeDestory(KVLIB_PORT_RANGE *pRange) {
    if (pRange == nullptr) return;
    KOVAServiceConfPortsFree(pRange->head);
    std::free(pRange);
}

int KVLIBPortRangeAdd(KVLIB_PORT_RANGE *pRange, KOVA_SERVICE_CONF_PORT *pEntry) {
    if (pRange == nullptr || pEntry == nullptr) {
        KOVA_LOG("Bad parameters.");
        return -1;
    }
    // A single entry from the port-list parser carries 0 as its end port: make it a range of one.
    if (pEntry->type == 0) pEntry->endPort = pEntry->beginPort;
    const Span s = kova::range::span_of(pEntry->type, pEntry->beginPort, pEntry->endPort);
    const uint64_t end_after = static_cast<uint64_t>(s.last) + 1;

    // Pass every node that ends more than one port before the new range.
    KOVA_SERVICE_CONF_PORT **link = &pRange->head;
    while (*link != nullptr && static_cast<uint64_t>((*link)->endPort) + 1 < s.first) link = &(*link)->next;

    auto *node = kova::calloc_record<KOVA_SERVICE_CONF_PORT>();
    if (node == nullptr) {
        KOVA_LOG("Out of memory");
        return -1;
    }
    KOVA_SERVICE_CONF_PORT *n = *link;
    node->beginPort = n != nullptr ? std::min(n->beginPort, s.first) : s.first;
    node->endPort = s.last;
    node->next = n;
    *link = node;
    ++pRange->count;

    // Fuse with the node found and every following one that the new range overlaps or touches.
    if (n != nullptr && n->beginPort <= end_after) {
        KOVA_SERVICE_CONF_PORT *t = n;
        do {
            node->endPort = std::max(node->endPort, t->endPort);
            KOVA_SERVICE_CONF_PORT *following = t->next;
            t->next = nullptr;
            KOVAServiceConfPortsFree(t);
            --pRange->count;
            t = following;
        } while (t != nullptr && t->beginPort <= static_cast<uint64_t>(node->endPort) + 1);
        node->next = t;
    }
    node->type = node->beginPort != node->endPort ? 1 : 0;
    return 0;
}

}  // extern "C"
