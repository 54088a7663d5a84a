// Record list: a doubly linked list whose items are copies made by the list's copy callback
// and released by its free callback.
#include <kovacore.h>

#include <cstdlib>

#include "core/plat_log.h"

extern "C" {

KVLIB_DLIST *KVLIBCDListAlloc(KVLIB_DLIST_COPY_FN fnCopy, KVLIB_DLIST_FREE_FN fnFree) {
    auto *list = static_cast<KVLIB_DLIST *>(std::calloc(1, sizeof(KVLIB_DLIST)));
    if (list == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    list->fnCopy = fnCopy;
    list->fnFree = fnFree;
    return list;
}

// Without a copy callback the list stores the item pointer itself.
int KVLIBCDListAppend(KVLIB_DLIST *pList, const void *pItem) {
    if (pList == nullptr || pItem == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    auto *node = static_cast<KVLIB_DLIST_NODE *>(std::calloc(1, sizeof(KVLIB_DLIST_NODE)));
    if (node == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
    node->pData = pList->fnCopy != nullptr ? pList->fnCopy(pItem) : const_cast<void *>(pItem);
    if (node->pData == nullptr) {
        std::free(node);
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
    node->pPrev = pList->pTail;
    if (pList->pTail != nullptr)
        pList->pTail->pNext = node;
    else
        pList->pHead = node;
    pList->pTail = node;
    ++pList->nItem;
    return 0;
}

void KVLIBCDListFree(KVLIB_DLIST *pList) {
    if (pList == nullptr) return;
    for (KVLIB_DLIST_NODE *node = pList->pHead; node != nullptr;) {
        KVLIB_DLIST_NODE *next = node->pNext;
        if (pList->fnFree != nullptr) pList->fnFree(node->pData);
        std::free(node);
        node = next;
    }
    std::free(pList);
}

}  // extern "C"
