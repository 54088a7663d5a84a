// Short queries over the runtime check: the conflicting ports of a result list, the verdict
// for one port, and whether ports, a port or a range of ports are held by a process now.
#include <kovaserviceconf.h>

#include "conflict/conflict_twins.h"
#include "foundation/guard.h"
#include "foundation/log.h"

namespace {

using Family = kova::conflict::RuntimeFamily;

// This module's log lines, for the shared operations.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

}  // namespace

int kova::conflict::runtime_list_conflict_ports(const KVLIB_DLIST *results, uint16_t protocol,
                                                KVLIB_SZLIST *ports) noexcept {
    return KOVA_GUARDED(-1, [&] { return list_conflict_ports<Family>(results, protocol, ports, module_log); });
}

int kova::conflict::runtime_is_conflict_ports(const KVLIB_SZLIST *ports, uint16_t protocol) noexcept {
    return KOVA_GUARDED(0, [&] { return is_conflict_ports<Family>(ports, protocol, module_log); });
}

extern "C" {

int KOVARuntimeListConflictPorts(const KVLIB_DLIST *pResultList, uint16_t protocol, KVLIB_SZLIST *pConflictPortList) {
    return kova::conflict::runtime_list_conflict_ports(pResultList, protocol, pConflictPortList);
}

int KOVARuntimeVerifyConflictPort(const KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol) {
    return kova::conflict::verify_conflict_port<Family>(pResultList, port, protocol, module_log);
}

int KOVARuntimeIsConflictPorts(const KVLIB_SZLIST *pPortList, uint16_t protocol) {
    return kova::conflict::runtime_is_conflict_ports(pPortList, protocol);
}

int KOVARuntimeIsConflictPort(uint16_t port, uint16_t protocol) {
    return KOVA_GUARDED(
        0, [&] { return kova::conflict::is_conflict_port_range<Family>(port, port, protocol, module_log); });
}

int KOVARuntimeIsConflictPortRange(uint16_t firstPort, uint16_t lastPort, uint16_t protocol) {
    return KOVA_GUARDED(
        0, [&] { return kova::conflict::is_conflict_port_range<Family>(firstPort, lastPort, protocol, module_log); });
}

}  // extern "C"
