// Runtime result records (ports in use by processes) and the result lists that hold them.
#include <kovaserviceconf.h>

#include <cstdlib>
#include <cstring>

#include "conflict/conflict_list.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

// The list callbacks, with the signatures the record list expects.
void *copy_record(const void *p) {
    return KOVARuntimePortConflictResultCopy(static_cast<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *>(p));
}

void free_record(void *p) {
    KOVARuntimePortConflictResultFree(static_cast<KOVA_RUNTIME_PORT_CONFLICT_RESULT *>(p));
}

}  // namespace

extern "C" {

PKOVA_RUNTIME_PORT_CONFLICT_RESULT KOVARuntimePortConflictResultAlloc(void) {
    return kova::calloc_record<KOVA_RUNTIME_PORT_CONFLICT_RESULT>();
}

void KOVARuntimePortConflictResultFree(PKOVA_RUNTIME_PORT_CONFLICT_RESULT pResult) {
    if (pResult == nullptr) return;
    std::free(pResult->program);
    std::free(pResult);
}

PKOVA_RUNTIME_PORT_CONFLICT_RESULT KOVARuntimePortConflictResultCopy(const KOVA_RUNTIME_PORT_CONFLICT_RESULT *pResult) {
    if (pResult == nullptr) return nullptr;
    auto *copy = kova::calloc_record<KOVA_RUNTIME_PORT_CONFLICT_RESULT>();
    if (copy == nullptr) {
        KOVA_LOG("Failed to allocate PKOVA_RUNTIME_PORT_CONFLICT_RESULT");
        return nullptr;
    }
    *copy = *pResult;
    copy->program = pResult->program != nullptr ? strdup(pResult->program) : nullptr;
    return copy;
}

KVLIB_DLIST *KOVARuntimePortConflictResultListAlloc(void) {
    return KVLIBCDListAlloc(copy_record, free_record);
}

void KOVARuntimePortConflictResultListFree(KVLIB_DLIST *pResultList) {
    if (pResultList != nullptr) KVLIBCDListFree(pResultList);
}

KVLIB_DLIST *KOVARuntimePortConflictResultListCopy(const KVLIB_DLIST *pResultList) {
    if (pResultList == nullptr) return nullptr;
    KVLIB_DLIST *copy = KOVARuntimePortConflictResultListAlloc();
    if (copy == nullptr) {
        KOVA_LOG("Failed to allocate KOVARuntimePortConflictResultListAlloc");
        return nullptr;
    }
    kova::conflict::for_each_record<KOVA_RUNTIME_PORT_CONFLICT_RESULT>(
        pResultList, [&](const KOVA_RUNTIME_PORT_CONFLICT_RESULT &r) { KVLIBCDListAppend(copy, &r); });
    return copy;
}

}  // extern "C"
