// String list: a record that never moves once allocated and a growable array of owned texts.
// Lookups (Get, Find, Pop of an empty list) leave the error state alone: running past the end
// is how callers walk a list.
#include <kovacore.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/plat_log.h"

namespace {

constexpr int kDefaultCapacity = 16;
constexpr int kFirstSlots = 4;

// A list and its first slots share one block: a short list costs one allocation. The slots move
// to a block of their own once they outgrow it; the record itself never moves.
struct ListBlock {
    KVLIB_SZLIST list;
    char *slots[kFirstSlots];
};
static_assert(offsetof(ListBlock, list) == 0);

bool inline_slots(const KVLIB_SZLIST *list) {
    return list->ppszItem == reinterpret_cast<const ListBlock *>(list)->slots;
}

// Makes room for one more item; the record stays where it is.
bool reserve_one(KVLIB_SZLIST *list) {
    if (list->nItem < list->nCapacity) return true;
    if (list->nCapacity > INT_MAX / 2) return false;
    int capacity = list->nCapacity > 0 ? list->nCapacity * 2 : kDefaultCapacity;
    const size_t bytes = sizeof(char *) * static_cast<size_t>(capacity);
    void *items = nullptr;
    if (inline_slots(list)) {
        if ((items = std::malloc(bytes)) != nullptr)
            std::memcpy(items, list->ppszItem, sizeof(char *) * static_cast<size_t>(list->nItem));
    } else {
        items = std::realloc(list->ppszItem, bytes);
    }
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
    // malloc, not calloc: the C library's calloc passes by its per-thread cache of small blocks.
    auto *block = static_cast<ListBlock *>(std::malloc(sizeof(ListBlock)));
    if (block == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    *block = ListBlock{};
    block->list.ppszItem = block->slots;
    block->list.nCapacity = capacity > 0 ? std::min(capacity, kFirstSlots) : kFirstSlots;
    return &block->list;
}

void KVLIBCSzListFree(KVLIB_SZLIST *pList) {
    if (pList == nullptr) return;
    for (int i = 0; i < pList->nItem; ++i) std::free(pList->ppszItem[i]);
    if (!inline_slots(pList)) std::free(pList->ppszItem);
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
