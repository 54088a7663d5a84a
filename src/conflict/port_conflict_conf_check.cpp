// The configured-ports check: for each port asked for and each protocol asked for, the
// declarations that hold it, or one no-conflict record. The declarations are searched as spans:
// a range is never expanded into one record per port.
#include <kovaserviceconf.h>

#include "conflict/configured_ports.h"
#include "conflict/conflict_twins.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/ports.h"

namespace {

using Family = kova::conflict::ConfFamily;

// This module's log lines, for the shared operations.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

int check(const KVLIB_SZLIST *ports, uint16_t protocol, KVLIB_DLIST *results) {
    using kova::conflict::Declared;
    if (!kova::conflict::check_arguments<Family>(ports, protocol, results, module_log)) return -1;
    const std::optional<kova::conflict::ConfiguredPorts> declared = kova::conflict::ConfiguredPorts::build();
    if (!declared) {
        KOVA_LOG("Failed to ServiceConfListFetch");
        return -1;
    }
    std::vector<uint32_t> positions;
    for (int i = 0; i < ports->nItem; ++i) {
        const char *text = KVLIBCSzListGet(ports, i);
        if (text == nullptr) continue;
        const uint16_t port = kova::ports::port_or_zero(text);
        if (port == 0) {
            KOVA_LOG("Illegal port: %s", text);
            continue;
        }
        for (uint16_t single : {static_cast<uint16_t>(KOVA_PROTO_TCP), static_cast<uint16_t>(KOVA_PROTO_UDP)}) {
            if ((protocol & single) == 0) continue;
            const std::vector<Declared> &holders = declared->holders(port, single, positions);
            int appended = 0;
            for (uint32_t at : positions) {
                KOVA_CONF_PORT_CONFLICT_RESULT record{port, single, const_cast<char *>(holders[at].name), 1};
                if (KVLIBCDListAppend(results, &record) >= 0) ++appended;
            }
            if (appended == 0 && kova::conflict::append_no_conflict(results, port, single) < 0) {
                KOVA_LOG("Failed to append no conflict result");
                return -1;
            }
        }
    }
    return 0;
}

}  // namespace

int kova::conflict::conf_port_check(const KVLIB_SZLIST *ports, uint16_t protocol, KVLIB_DLIST *results) noexcept {
    return KOVA_GUARDED(-1, [&] { return check(ports, protocol, results); });
}

extern "C" {

int KOVAConfPortConflictCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol, KVLIB_DLIST *pResultList) {
    return kova::conflict::conf_port_check(pPortList, protocol, pResultList);
}

KVLIB_DLIST *KOVAConfPortConflictResultListAllocAndCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol) {
    return KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr),
                        [&] { return kova::conflict::alloc_and_check<Family>(pPortList, protocol, module_log); });
}

}  // extern "C"
