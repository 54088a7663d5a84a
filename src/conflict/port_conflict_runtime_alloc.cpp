// Runtime result records (ports in use by processes) and the result lists that hold them.
#include <kovaserviceconf.h>

#include "conflict/conflict_twins.h"
#include "foundation/log.h"

namespace {

using Family = kova::conflict::RuntimeFamily;

// This module's log lines, for the shared operations.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

}  // namespace

void *kova::conflict::runtime_result_copy(const void *result) noexcept {
    return copy_result<Family>(static_cast<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *>(result), module_log);
}

extern "C" {

PKOVA_RUNTIME_PORT_CONFLICT_RESULT KOVARuntimePortConflictResultAlloc(void) {
    return kova::calloc_record<KOVA_RUNTIME_PORT_CONFLICT_RESULT>();
}

void KOVARuntimePortConflictResultFree(PKOVA_RUNTIME_PORT_CONFLICT_RESULT pResult) {
    kova::conflict::free_result<Family>(pResult);
}

PKOVA_RUNTIME_PORT_CONFLICT_RESULT KOVARuntimePortConflictResultCopy(const KOVA_RUNTIME_PORT_CONFLICT_RESULT *pResult) {
    return kova::conflict::copy_result<Family>(pResult, module_log);
}

KVLIB_DLIST *KOVARuntimePortConflictResultListAlloc(void) {
    return kova::conflict::alloc_result_list<Family>();
}

void KOVARuntimePortConflictResultListFree(KVLIB_DLIST *pResultList) {
    if (pResultList != nullptr) KVLIBCDListFree(pResultList);
}

KVLIB_DLIST *KOVARuntimePortConflictResultListCopy(const KVLIB_DLIST *pResultList) {
    return kova::conflict::copy_result_list<Family>(pResultList, module_log);
}

}  // extern "C"
