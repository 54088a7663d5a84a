// Helpers for the range tests: building sets and entries, reading sets back, and checking the
// set invariant.
#pragma once

#include <gtest/gtest.h>
#include <kovaserviceconf.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kova::test {

using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;

inline KOVA_SERVICE_CONF_PORT entry(uint32_t begin, uint32_t end, uint32_t type = 1) {
    KOVA_SERVICE_CONF_PORT e{};
    e.type = type;
    e.beginPort = begin;
    e.endPort = end;
    return e;
}

inline Ranges ranges_of(const KOVA_SERVICE_CONF_PORT *n) {
    Ranges out;
    for (; n != nullptr; n = n->next) out.emplace_back(n->beginPort, n->endPort);
    return out;
}

inline Ranges ranges_of(const KVLIB_PORT_RANGE *set) {
    return ranges_of(set->head);
}

// Sorted by begin port, neither overlapping nor touching, count matching, nodes in the set's
// own form (type from the ports, direction and protocol 0).
inline ::testing::AssertionResult WellFormed(const KVLIB_PORT_RANGE *set) {
    if (set == nullptr) return ::testing::AssertionFailure() << "null set";
    int32_t nodes = 0;
    const KOVA_SERVICE_CONF_PORT *prev = nullptr;
    for (const KOVA_SERVICE_CONF_PORT *n = set->head; n != nullptr; prev = n, n = n->next, ++nodes) {
        if (nodes > 1000000) return ::testing::AssertionFailure() << "list does not end";
        if (n->beginPort > n->endPort)
            return ::testing::AssertionFailure() << "backwards node [" << n->beginPort << "," << n->endPort << "]";
        if (n->type != (n->beginPort != n->endPort ? 1u : 0u))
            return ::testing::AssertionFailure() << "node " << n->beginPort << " has type " << n->type;
        if (n->direction != 0 || n->protocol != 0)
            return ::testing::AssertionFailure() << "node " << n->beginPort << " keeps direction/protocol";
        if (prev != nullptr && static_cast<uint64_t>(prev->endPort) + 1 >= n->beginPort)
            return ::testing::AssertionFailure() << "nodes [" << prev->beginPort << "," << prev->endPort << "] and ["
                                                 << n->beginPort << "," << n->endPort << "] overlap or touch";
    }
    if (nodes != set->count)
        return ::testing::AssertionFailure() << "count " << set->count << " but " << nodes << " nodes";
    return ::testing::AssertionSuccess();
}

// Exported text of a set ("" for null), released.
inline std::string exported(const KVLIB_PORT_RANGE *set) {
    char *text = KVLIBPortRangeExport(set);
    std::string out = text != nullptr ? text : "";
    KVLIBCStrPut(text);
    return out;
}

}  // namespace kova::test
