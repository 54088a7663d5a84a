// Configured-port result records and the result lists that hold them.
#include <kovaserviceconf.h>

#include "conflict/conflict_twins.h"
#include "foundation/log.h"

namespace {

using Family = kova::conflict::ConfFamily;

// This module's log lines, for the shared operations.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

}  // namespace

void *kova::conflict::conf_result_copy(const void *result) noexcept {
    return copy_result<Family>(static_cast<const KOVA_CONF_PORT_CONFLICT_RESULT *>(result), module_log);
}

extern "C" {

PKOVA_CONF_PORT_CONFLICT_RESULT KOVAConfPortConflictResultAlloc(void) {
    return kova::calloc_record<KOVA_CONF_PORT_CONFLICT_RESULT>();
}

void KOVAConfPortConflictResultFree(PKOVA_CONF_PORT_CONFLICT_RESULT pResult) {
    kova::conflict::free_result<Family>(pResult);
}

PKOVA_CONF_PORT_CONFLICT_RESULT KOVAConfPortConflictResultCopy(const KOVA_CONF_PORT_CONFLICT_RESULT *pResult) {
    return kova::conflict::copy_result<Family>(pResult, module_log);
}

KVLIB_DLIST *KOVAConfPortConflictResultListAlloc(void) {
    return kova::conflict::alloc_result_list<Family>();
}

void KOVAConfPortConflictResultListFree(KVLIB_DLIST *pResultList) {
    if (pResultList != nullptr) KVLIBCDListFree(pResultList);
}

KVLIB_DLIST *KOVAConfPortConflictResultListCopy(const KVLIB_DLIST *pResultList) {
    return kova::conflict::copy_result_list<Family>(pResultList, module_log);
}

}  // extern "C"
