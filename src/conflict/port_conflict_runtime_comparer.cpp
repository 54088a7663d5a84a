// Short queries over the runtime check: the conflicting ports of a result list, the verdict
// for one port, and whether ports, a port or a range of ports are held by a process now.
#include <kovaserviceconf.h>

#include <cstdio>

#include "conflict/conflict_list.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

using RuntimeResult = KOVA_RUNTIME_PORT_CONFLICT_RESULT;

int runtime_is_conflict_ports(const KVLIB_SZLIST *pPortList, uint16_t protocol) {
    kova::DListPtr results(KOVARuntimePortConflictResultListAlloc());
    if (!results) {
        KOVA_LOG("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    kova::SzListPtr conflicts(KVLIBCSzListAlloc(512));
    if (!conflicts) {
        KOVA_LOG("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    if (KOVARuntimePortConflictCheck(pPortList, protocol, results.get()) < 0) {
        KOVA_LOG("Failed to KOVARuntimePortConflictCheck");
        return 0;
    }
    if (KOVARuntimeListConflictPorts(results.get(), protocol, conflicts.get()) < 0) {
        KOVA_LOG("Failed to KOVARuntimeListConflictPorts");
        return 0;
    }
    if (conflicts->nItem <= 0) return 0;
    std::fputs("pConflictPortList:\n", stderr);
    KVLIBCISzListDump(conflicts.get());
    return 1;
}

int runtime_is_conflict_port(uint16_t port, uint16_t protocol) {
    kova::SzListPtr ports(KVLIBCSzListAlloc(512));
    if (!ports) {
        KOVA_LOG("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    kova::conflict::push_port_range(ports.get(), port, port);
    return KOVARuntimeIsConflictPorts(ports.get(), protocol);
}

int runtime_is_conflict_port_range(uint16_t firstPort, uint16_t lastPort, uint16_t protocol) {
    kova::SzListPtr ports(KVLIBCSzListAlloc(512));
    if (!ports) {
        KOVA_LOG("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    if (firstPort > lastPort) {
        KOVA_LOG("Illegal port range: %hu~%hu", firstPort, lastPort);
        return 0;
    }
    kova::conflict::push_port_range(ports.get(), firstPort, lastPort);
    return KOVARuntimeIsConflictPorts(ports.get(), protocol);
}

}  // namespace

extern "C" {

int KOVARuntimeListConflictPorts(const KVLIB_DLIST *pResultList, uint16_t protocol, KVLIB_SZLIST *pConflictPortList) {
    if (pResultList == nullptr) {
        KOVA_LOG("pResultList is undefined");
        return -1;
    }
    if (pConflictPortList == nullptr) {
        KOVA_LOG("pConflictPortList is undefined");
        return -1;
    }
    return KOVA_GUARDED(-1, [&] {
        kova::conflict::collect_conflict_ports<RuntimeResult>(pResultList, protocol, pConflictPortList);
        return 0;
    });
}

int KOVARuntimeVerifyConflictPort(const KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol) {
    if (pResultList == nullptr) {
        KOVA_LOG("pResultList is undefined");
        return -1;
    }
    return kova::conflict::verify_port<RuntimeResult>(pResultList, port, protocol);
}

int KOVARuntimeIsConflictPorts(const KVLIB_SZLIST *pPortList, uint16_t protocol) {
    return KOVA_GUARDED(0, [&] { return runtime_is_conflict_ports(pPortList, protocol); });
}

int KOVARuntimeIsConflictPort(uint16_t port, uint16_t protocol) {
    return KOVA_GUARDED(0, [&] { return runtime_is_conflict_port(port, protocol); });
}

int KOVARuntimeIsConflictPortRange(uint16_t firstPort, uint16_t lastPort, uint16_t protocol) {
    return KOVA_GUARDED(0, [&] { return runtime_is_conflict_port_range(firstPort, lastPort, protocol); });
}

}  // extern "C"
