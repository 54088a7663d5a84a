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

// Port arithmetic is done in 64 bits so that "end + 1" of port 0xFFFFFFFF does not wrap.
uint64_t after(uint32_t port) {
    return static_cast<uint64_t>(port) + 1;
}

bool begins_before(const Span &a, const Span &b) {
    return a.begin < b.begin;
}

void set_node(KOVA_SERVICE_CONF_PORT *node, const Span &s) {
    node->direction = 0;
    node->protocol = 0;
    node->beginPort = s.begin;
    node->endPort = s.end;
    node->type = s.begin != s.end ? 1 : 0;
}

// Frees one node that has been unlinked from its list.
void free_node(KOVA_SERVICE_CONF_PORT *node) {
    node->next = nullptr;
    KOVAServiceConfPortsFree(node);
}

// Appends `s` to a sorted run of disjoint spans, fusing it with the last one when they
// overlap or touch.
void push_merged(std::vector<Span> &out, const Span &s) {
    if (!out.empty() && s.begin <= after(out.back().end)) {
        out.back().end = std::max(out.back().end, s.end);
        return;
    }
    out.push_back(s);
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
        std::vector<Span> old;
        for (KOVA_SERVICE_CONF_PORT *n = set->head; n != nullptr; n = n->next) {
            pool.push_back(n);
            old.push_back(span_of(n->type, n->beginPort, n->endPort));
        }
        if (!std::is_sorted(old.begin(), old.end(), begins_before))
            std::stable_sort(old.begin(), old.end(), begins_before);
        if (!std::is_sorted(spans.begin(), spans.end(), begins_before))
            std::stable_sort(spans.begin(), spans.end(), begins_before);

        std::vector<Span> merged;
        merged.reserve(old.size() + spans.size());
        size_t i = 0, j = 0;
        while (i < old.size() || j < spans.size()) {
            if (j == spans.size() || (i < old.size() && old[i].begin <= spans[j].begin))
                push_merged(merged, old[i++]);
            else
                push_merged(merged, spans[j++]);
        }

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
    const uint64_t end_after = static_cast<uint64_t>(s.end) + 1;

    // Pass every node that ends more than one port before the new range.
    KOVA_SERVICE_CONF_PORT **link = &pRange->head;
    while (*link != nullptr && static_cast<uint64_t>((*link)->endPort) + 1 < s.begin) link = &(*link)->next;

    auto *node = kova::calloc_record<KOVA_SERVICE_CONF_PORT>();
    if (node == nullptr) {
        KOVA_LOG("Out of memory");
        return -1;
    }
    KOVA_SERVICE_CONF_PORT *n = *link;
    node->beginPort = n != nullptr ? std::min(n->beginPort, s.begin) : s.begin;
    node->endPort = s.end;
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
