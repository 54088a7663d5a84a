// The runtime check: for each port asked for and each protocol asked for, the records of the
// processes that hold it (the runtime inventory), or one no-conflict record.
#include <kovaserviceconf.h>

#include "conflict/conflict_list.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

using RuntimeResult = KOVA_RUNTIME_PORT_CONFLICT_RESULT;

int runtime_port_conflict_check(const KVLIB_SZLIST *pPortList, uint16_t protocol, KVLIB_DLIST *pResultList) {
    if (!IsLegalProtocol(protocol)) {
        KOVA_LOG("Illegal protocol: %u", static_cast<unsigned int>(protocol));
        return -1;
    }
    if (pPortList == nullptr) {
        KOVA_LOG("pPortList is undefined");
        return -1;
    }
    if (pResultList == nullptr) {
        KOVA_LOG("pResultList is undefined");
        return -1;
    }
    kova::DListPtr inventory(RuntimeServiceListFetch());
    if (!inventory) {
        KOVA_LOG("Failed to ServiceConfListFetch");
        return -1;
    }
    const auto outcome = kova::conflict::check_ports<RuntimeResult>(
        pPortList, protocol, inventory.get(), pResultList, [](const char *text) { KOVA_LOG("Illegal port: %s", text); },
        [](KVLIB_DLIST *list, uint16_t port, uint16_t single) {
            return RuntimeNotConflictResultAppend(list, port, single);
        });
    if (outcome == kova::conflict::CheckOutcome::kAppendFailed) {
        KOVA_LOG("Failed to append no conflict result");
        return -1;
    }
    return 0;
}

}  // namespace

extern "C" {

int KOVARuntimePortConflictCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol, KVLIB_DLIST *pResultList) {
    return KOVA_GUARDED(-1, [&] { return runtime_port_conflict_check(pPortList, protocol, pResultList); });
}

KVLIB_DLIST *KOVARuntimePortConflictResultListAllocAndCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol) {
    if (pPortList == nullptr) {
        KOVA_LOG("pPortList is undefined");
        return nullptr;
    }
    kova::DListPtr list(KOVARuntimePortConflictResultListAlloc());
    if (!list) {
        KOVA_LOG("Failed to alloc KOVARuntimePortConflictResultListAlloc, Out of memory.[0x%04X]", KVLIBCErrGet());
        return nullptr;
    }
    if (KOVARuntimePortConflictCheck(pPortList, protocol, list.get()) < 0) {
        KOVA_LOG("Failed to KOVARuntimePortConflictCheck");
        return nullptr;
    }
    return list.release();
}

}  // extern "C"
