// Short queries over the configured-ports check: the conflicting ports of a result list, the
// verdict for one port, and whether ports, a port or a range of ports are declared already.
#include <kovaserviceconf.h>

#include <cstdio>

#include "conflict/conflict_list.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

using ConfResult = KOVA_CONF_PORT_CONFLICT_RESULT;

int conf_is_conflict_ports(const KVLIB_SZLIST *pPortList, uint16_t protocol) {
    kova::DListPtr results(KOVAConfPortConflictResultListAlloc());
    if (!results) {
        KOVA_LOG("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    kova::SzListPtr conflicts(KVLIBCSzListAlloc(512));
    if (!conflicts) {
        KOVA_LOG("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    if (KOVAConfPortConflictCheck(pPortList, protocol, results.get()) < 0) {
        KOVA_LOG("Failed to KOVAConfPortConflictCheck");
        return 0;
    }
    if (KOVAConfListConflictPorts(results.get(), protocol, conflicts.get()) < 0) {
        KOVA_LOG("Failed to KOVAConfListConflictPorts");
        return 0;
    }
    return conflicts->nItem > 0 ? 1 : 0;
}

int conf_is_conflict_port(uint16_t port, uint16_t protocol) {
    kova::SzListPtr ports(KVLIBCSzListAlloc(512));
    if (!ports) {
        KOVA_LOG("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    kova::conflict::push_port_range(ports.get(), port, port);
    return KOVAConfIsConflictPorts(ports.get(), protocol);
}

int conf_is_conflict_port_range(uint16_t firstPort, uint16_t lastPort, uint16_t protocol) {
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
    return KOVAConfIsConflictPorts(ports.get(), protocol);
}

}  // namespace

extern "C" {

int KOVAConfListConflictPorts(const KVLIB_DLIST *pResultList, uint16_t protocol, KVLIB_SZLIST *pConflictPortList) {
    if (pResultList == nullptr) {
        KOVA_LOG("pResultList is undefined");
        return -1;
    }
    if (pConflictPortList == nullptr) {
        KOVA_LOG("pConflictPortList is undefined");
        return -1;
    }
    return KOVA_GUARDED(-1, [&] {
        kova::conflict::collect_conflict_ports<ConfResult>(pResultList, protocol, pConflictPortList);
        return 0;
    });
}

int KOVAConfVerifyConflictPort(const KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol) {
    if (pResultList == nullptr) {
        KOVA_LOG("pResultList is undefined");
        return -1;
    }
    return kova::conflict::verify_port<ConfResult>(pResultList, port, protocol);
}

int KOVAConfIsConflictPorts(const KVLIB_SZLIST *pPortList, uint16_t protocol) {
    return KOVA_GUARDED(0, [&] { return conf_is_conflict_ports(pPortList, protocol); });
}

int KOVAConfIsConflictPort(uint16_t port, uint16_t protocol) {
    return KOVA_GUARDED(0, [&] { return conf_is_conflict_port(port, protocol); });
}

int KOVAConfIsConflictPortRange(uint16_t firstPort, uint16_t lastPort, uint16_t protocol) {
    return KOVA_GUARDED(0, [&] { return conf_is_conflict_port_range(firstPort, lastPort, protocol); });
}

}  // extern "C"
