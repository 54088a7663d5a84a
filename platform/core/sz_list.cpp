// String list: a record that never moves once allocated and a growable array of owned texts.
// Lookups (Get, Find, Pop of an empty list) leave the error state alone: running past the end
// is how callers walk a list.
#include <kovacore.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/plat_log.h"

namespace {

constexpr int kDefaultCapacity = 16;
constexpr int kFirstSlots = 4;

// Makes room for one more item; the record stays where it is.
bool reserve_one(KVLIB_SZLIST *list) {
    if (list->nItem < list->nCapacity) return true;
    if (list->nCapacity > INT_MAX / 2) return false;
    int capacity = list->nCapacity > 0 ? list->nCapacity * 2 : kDefaultCapacity;
    void *items = std::realloc(list->ppszItem, sizeof(char *) * static_cast<size_t>(capacity));
    if (items == nullptr) return false;
    list->ppszItem = static_cast<char **>(items);
    list->nCapacity = capacity;
    return true;
}

}  // namespace

extern "C" {

// The capacity asked for is a hint: a list starts with a few slots and grows as items are pushed,
// so that the many short lists of a catalogue do not each hold room for a hundred items.
KVLIB_SZLIST *KVLIBCSzListAlloc(int capacity) {
    if (capacity <= 0) capacity = kDefaultCapacity;
    capacity = std::min(capacity, kFirstSlots);
    auto *list = static_cast<KVLIB_SZLIST *>(std::calloc(1, sizeof(KVLIB_SZLIST)));
    if (list == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    list->ppszItem = static_cast<char **>(std::calloc(static_cast<size_t>(capacity), sizeof(char *)));
    if (list->ppszItem == nullptr) {
        std::free(list);
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    list->nCapacity = capacity;
    return list;
}

void KVLIBCSzListFree(KVLIB_SZLIST *pList) {
    if (pList == nullptr) return;
    for (int i = 0; i < pList->nItem; ++i) std::free(pList->ppszItem[i]);
    std::free(pList->ppszItem);
    std::free(pList);
}

const char *KVLIBCSzListGet(const KVLIB_SZLIST *pList, int index) {
    if (pList == nullptr || index < 0 || index >= pList->nItem) return nullptr;
    return pList->ppszItem[index];
}

int KVLIBCSzListPush(KVLIB_SZLIST **ppList, const char *szItem) {
    if (ppList == nullptr || szItem == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    if (*ppList == nullptr && (*ppList = KVLIBCSzListAlloc(0)) == nullptr) return -1;
    KVLIB_SZLIST *list = *ppList;
    char *copy = strdup(szItem);
    if (copy == nullptr || !reserve_one(list)) {
        std::free(copy);
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
    list->ppszItem[list->nItem++] = copy;
    return 0;
}

int KVLIBCSzListPop(KVLIB_SZLIST *pList) {
    if (pList == nullptr || pList->nItem <= 0) return -1;
    --pList->nItem;
    std::free(pList->ppszItem[pList->nItem]);
    pList->ppszItem[pList->nItem] = nullptr;
    return 0;
}

int KVLIBCSzListFind(const KVLIB_SZLIST *pList, const char *szItem) {
    if (pList == nullptr || szItem == nullptr) return -1;
    for (int i = 0; i < pList->nItem; ++i)
        if (std::strcmp(pList->ppszItem[i], szItem) == 0) return i;
    return -1;
}

// One line per item, "[index] item", on the standard error stream.
void KVLIBCISzListDump(const KVLIB_SZLIST *pList) {
    if (pList == nullptr) return;
    for (int i = 0; i < pList->nItem; ++i) std::fprintf(stderr, "[%d] %s\n", i, pList->ppszItem[i]);
    std::fflush(stderr);
}

}  // extern "C"
