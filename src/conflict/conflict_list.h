// Helpers shared by the configured and the runtime conflict reports: walking result lists,
// grouping an inventory by port and protocol, and the checks and queries that both families
// run the same way. Nothing here logs: the modules log under their own names, through the
// callbacks they pass in.
#pragma once

#include <kovaserviceconf.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "foundation/ports.h"

namespace kova::conflict {

// Calls f(record) for every record of a result list, first node first.
template <class R, class F>
void for_each_record(const KVLIB_DLIST *list, F &&f) {
    for (const KVLIB_DLIST_NODE *node = list->pHead; node != nullptr; node = node->pNext)
        if (node->pData != nullptr) f(*static_cast<const R *>(node->pData));
}

// Whether a record's single protocol (1 TCP, 2 UDP) is among the protocol flags.
inline bool protocol_selected(unsigned int flags, unsigned int protocol) {
    return ((flags & KOVA_PROTO_TCP) != 0 && protocol == KOVA_PROTO_TCP) ||
           ((flags & KOVA_PROTO_UDP) != 0 && protocol == KOVA_PROTO_UDP);
}

inline uint32_t port_key(uint16_t port, uint16_t protocol) {
    return (static_cast<uint32_t>(port) << 16) | protocol;
}

// The records of an inventory grouped by port and protocol; each group keeps inventory order.
// The records stay owned by the inventory, which must outlive the index.
template <class R>
class PortIndex {
public:
    explicit PortIndex(const KVLIB_DLIST *inventory) {
        for_each_record<R>(inventory, [&](const R &r) { groups_[port_key(r.port, r.protocol)].push_back(&r); });
    }

    const std::vector<const R *> *find(uint16_t port, uint16_t protocol) const {
        auto it = groups_.find(port_key(port, protocol));
        return it == groups_.end() ? nullptr : &it->second;
    }

private:
    std::unordered_map<uint32_t, std::vector<const R *>> groups_;
};

enum class CheckOutcome { kOk, kAppendFailed };

// For each port text of `ports` and each protocol in `protocol` (TCP first): appends copies of
// the inventory records holding that port and protocol to `out`, in inventory order, or, when
// there are none, one no-conflict record through append_none(out, port, protocol). A text that
// is not a port goes to on_illegal(text) and adds nothing.
template <class R, class OnIllegal, class AppendNone>
CheckOutcome check_ports(const KVLIB_SZLIST *ports, uint16_t protocol, const KVLIB_DLIST *inventory, KVLIB_DLIST *out,
                         OnIllegal &&on_illegal, AppendNone &&append_none) {
    const PortIndex<R> index(inventory);
    for (int i = 0; i < ports->nItem; ++i) {
        const char *text = KVLIBCSzListGet(ports, i);
        if (text == nullptr) continue;
        const uint16_t port = kova::ports::port_or_zero(text);
        if (port == 0) {
            on_illegal(text);
            continue;
        }
        for (uint16_t single : {static_cast<uint16_t>(KOVA_PROTO_TCP), static_cast<uint16_t>(KOVA_PROTO_UDP)}) {
            if ((protocol & single) == 0) continue;
            int appended = 0;
            if (const auto *group = index.find(port, single))
                for (const R *r : *group)
                    if (KVLIBCDListAppend(out, r) >= 0) ++appended;
            if (appended == 0 && append_none(out, port, single) < 0) return CheckOutcome::kAppendFailed;
        }
    }
    return CheckOutcome::kOk;
}

// Appends to `out` every record of `source` with this port and protocol, in order; the count.
template <class R>
int filter_records(const KVLIB_DLIST *source, uint16_t port, uint16_t protocol, KVLIB_DLIST *out) {
    int appended = 0;
    for_each_record<R>(source, [&](const R &r) {
        if (r.port == port && r.protocol == protocol && KVLIBCDListAppend(out, &r) >= 0) ++appended;
    });
    return appended;
}

// Appends to `out` the distinct ports ("%hu") of the conflicting records of `results` for the
// protocols in `protocol`, in first-seen order, skipping ports that `out` already holds.
// `out` is the caller's list handle: the record stays in place while it grows.
template <class R>
void collect_conflict_ports(const KVLIB_DLIST *results, uint16_t protocol, KVLIB_SZLIST *out) {
    std::unordered_set<std::string> listed;
    for (int i = 0; i < out->nItem; ++i)
        if (const char *item = KVLIBCSzListGet(out, i)) listed.insert(item);
    for_each_record<R>(results, [&](const R &r) {
        if (r.isConflict != 1 || !protocol_selected(protocol, r.protocol)) return;
        char text[8];
        std::snprintf(text, sizeof text, "%hu", r.port);
        if (!listed.insert(text).second) return;
        KVLIB_SZLIST *handle = out;
        if (KVLIBCSzListPush(&handle, text) < 0) listed.erase(text);
    });
}

// 1 if `results` holds a conflicting record for the port and one of the protocols, 0 if it holds
// records for them and none conflicts, -2 if it holds none.
template <class R>
int verify_port(const KVLIB_DLIST *results, uint16_t port, uint16_t protocol) {
    bool seen = false;
    for (const KVLIB_DLIST_NODE *node = results->pHead; node != nullptr; node = node->pNext) {
        if (node->pData == nullptr) continue;
        const R &r = *static_cast<const R *>(node->pData);
        if (r.port != port || !protocol_selected(protocol, r.protocol)) continue;
        if (r.isConflict == 1) return 1;
        seen = true;
    }
    return seen ? 0 : -2;
}

// Appends the ports first..last ("%hu", ascending, last included, 65535 too) to a port list.
inline void push_port_range(KVLIB_SZLIST *list, uint16_t first, uint16_t last) {
    char text[8];
    for (uint32_t port = first; port <= last; ++port) {
        std::snprintf(text, sizeof text, "%u", static_cast<unsigned int>(port));
        KVLIBCSzListPush(&list, text);
    }
}

}  // namespace kova::conflict
