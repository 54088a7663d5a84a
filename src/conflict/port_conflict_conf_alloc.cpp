// Configured-port result records and the result lists that hold them.
#include <kovaserviceconf.h>

#include <cstdlib>
#include <cstring>

#include "conflict/conflict_list.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

// The list callbacks, with the signatures the record list expects.
void *copy_record(const void *p) {
    return KOVAConfPortConflictResultCopy(static_cast<const KOVA_CONF_PORT_CONFLICT_RESULT *>(p));
}

void free_record(void *p) {
    KOVAConfPortConflictResultFree(static_cast<KOVA_CONF_PORT_CONFLICT_RESULT *>(p));
}

}  // namespace

extern "C" {

PKOVA_CONF_PORT_CONFLICT_RESULT KOVAConfPortConflictResultAlloc(void) {
    return kova::calloc_record<KOVA_CONF_PORT_CONFLICT_RESULT>();
}

void KOVAConfPortConflictResultFree(PKOVA_CONF_PORT_CONFLICT_RESULT pResult) {
    if (pResult == nullptr) return;
    std::free(pResult->serviceName);
    std::free(pResult);
}

PKOVA_CONF_PORT_CONFLICT_RESULT KOVAConfPortConflictResultCopy(const KOVA_CONF_PORT_CONFLICT_RESULT *pResult) {
    if (pResult == nullptr) return nullptr;
    auto *copy = kova::calloc_record<KOVA_CONF_PORT_CONFLICT_RESULT>();
    if (copy == nullptr) {
        KOVA_LOG("Failed to allocate PKOVA_CONF_PORT_CONFLICT_RESULT");
        return nullptr;
    }
    *copy = *pResult;
    copy->serviceName = pResult->serviceName != nullptr ? strdup(pResult->serviceName) : nullptr;
    return copy;
}

KVLIB_DLIST *KOVAConfPortConflictResultListAlloc(void) {
    return KVLIBCDListAlloc(copy_record, free_record);
}

void KOVAConfPortConflictResultListFree(KVLIB_DLIST *pResultList) {
    if (pResultList != nullptr) KVLIBCDListFree(pResultList);
}

KVLIB_DLIST *KOVAConfPortConflictResultListCopy(const KVLIB_DLIST *pResultList) {
    if (pResultList == nullptr) return nullptr;
    KVLIB_DLIST *copy = KOVAConfPortConflictResultListAlloc();
    if (copy == nullptr) {
        KOVA_LOG("Failed to allocate KOVAConfPortConflictResultListAlloc");
        return nullptr;
    }
    kova::conflict::for_each_record<KOVA_CONF_PORT_CONFLICT_RESULT>(
        pResultList, [&](const KOVA_CONF_PORT_CONFLICT_RESULT &r) { KVLIBCDListAppend(copy, &r); });
    return copy;
}

}  // extern "C"
