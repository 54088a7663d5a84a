// The configured-ports check: for each port asked for and each protocol asked for, the
// inventory records that declare it, or one no-conflict record.
#include <kovaserviceconf.h>

#include "conflict/conflict_twins.h"
#include "foundation/guard.h"
#include "foundation/log.h"

namespace {

using Family = kova::conflict::ConfFamily;

// This module's log lines, for the shared operations.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

}  // namespace

extern "C" {

int KOVAConfPortConflictCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol, KVLIB_DLIST *pResultList) {
    return KOVA_GUARDED(
        -1, [&] { return kova::conflict::port_conflict_check<Family>(pPortList, protocol, pResultList, module_log); });
}

KVLIB_DLIST *KOVAConfPortConflictResultListAllocAndCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol) {
    return KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr),
                        [&] { return kova::conflict::alloc_and_check<Family>(pPortList, protocol, module_log); });
}

}  // extern "C"
