// Handing records to a caller's list at the ABI edge: all of them or none.
#pragma once

#include <kovaserviceconf.h>

#include <vector>

#include "foundation/raii.h"

namespace kova {

// Appends copies of `items` (made by the list's own copy function) to the end of `list`. The
// copies are made in a list of their own first and moved over only when every one was made, so
// a failure leaves `list` as it was; false then, with the error state of the failed append.
template <class T>
bool append_all(KVLIB_DLIST *list, const std::vector<T> &items) {
    if (items.empty()) return true;
    const DListPtr staged(KVLIBCDListAlloc(list->fnCopy, list->fnFree));
    if (!staged) return false;
    for (const T &item : items)
        if (KVLIBCDListAppend(staged.get(), &item) < 0) return false;
    KVLIB_DLIST_NODE *first = staged->pHead;
    first->pPrev = list->pTail;
    if (list->pTail != nullptr)
        list->pTail->pNext = first;
    else
        list->pHead = first;
    list->pTail = staged->pTail;
    list->nItem += staged->nItem;
    staged->pHead = staged->pTail = nullptr;
    staged->nItem = 0;
    return true;
}

}  // namespace kova
