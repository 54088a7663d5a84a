// The runtime check: for each port asked for and each protocol asked for, the records of the
// processes that hold it (the runtime inventory), or one no-conflict record.
#include <kovaserviceconf.h>

#include "conflict/conflict_twins.h"
#include "foundation/guard.h"
#include "foundation/log.h"

namespace {

using Family = kova::conflict::RuntimeFamily;

// This module's log lines, for the shared operations.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

}  // namespace

int kova::conflict::runtime_port_check(const KVLIB_SZLIST *ports, uint16_t protocol, KVLIB_DLIST *results) noexcept {
    return KOVA_GUARDED(-1, [&] { return port_conflict_check<Family>(ports, protocol, results, module_log); });
}

extern "C" {

int KOVARuntimePortConflictCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol, KVLIB_DLIST *pResultList) {
    return kova::conflict::runtime_port_check(pPortList, protocol, pResultList);
}

KVLIB_DLIST *KOVARuntimePortConflictResultListAllocAndCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol) {
    return KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr),
                        [&] { return kova::conflict::alloc_and_check<Family>(pPortList, protocol, module_log); });
}

}  // extern "C"
