// Error state, string lists, string hashes and record lists of the core stand-in.
#include <kovaserviceconf.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "kova_test.h"

namespace {

TEST(PlatformErrorState, IsPerThreadAndNeverNull) {
    std::thread([] {
        EXPECT_EQ(KVLIBCErrGet(), 0u);
        ASSERT_NE(KVLIBCErrorGetFile(), nullptr);
        EXPECT_STREQ(KVLIBCErrorGetFile(), "");
        EXPECT_EQ(KVLIBCErrorGetLine(), 0);
        KVLIBCErrSetEx(0x0D00, "other_thread.cpp", 12);
    }).join();

    KVLIBCErrSetEx(0x0700, "module.cpp", 42);
    std::thread([] { KVLIBCErrSetEx(0x0200, "elsewhere.cpp", 1); }).join();
    EXPECT_EQ(KVLIBCErrGet(), 0x0700u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "module.cpp");
    EXPECT_EQ(KVLIBCErrorGetLine(), 42);

    // The file name is copied, and setting from the state's own text is safe.
    std::string name = "temporary.cpp";
    KVLIBCErrSetEx(1, name.c_str(), 3);
    name.assign("overwritten!!");
    EXPECT_STREQ(KVLIBCErrorGetFile(), "temporary.cpp");
    KVLIBCErrSetEx(2, KVLIBCErrorGetFile(), 4);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "temporary.cpp");
    KVLIBCErrSetEx(0, nullptr, 0);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "");
}

TEST(PlatformSzList, RecordNeverMovesWhilePushGrowsItems) {
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(2);
    ASSERT_NE(list, nullptr);
    KVLIB_SZLIST *const original = list;
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(KVLIBCSzListPush(&list, std::to_string(i).c_str()), 0);
    EXPECT_EQ(list, original);
    EXPECT_EQ(list->nItem, 1000);
    EXPECT_STREQ(KVLIBCSzListGet(list, 0), "0");
    EXPECT_STREQ(KVLIBCSzListGet(list, 999), "999");
    EXPECT_EQ(KVLIBCSzListGet(list, 1000), nullptr);
    EXPECT_EQ(KVLIBCSzListGet(list, -1), nullptr);
    KVLIBCSzListFree(list);
    KVLIBCSzListFree(nullptr);
}

TEST(PlatformSzList, PushCopiesFindAndPop) {
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(128);
    ASSERT_NE(list, nullptr);
    char item[] = "alpha";
    ASSERT_EQ(KVLIBCSzListPush(&list, item), 0);
    item[0] = 'X';
    ASSERT_EQ(KVLIBCSzListPush(&list, "beta"), 0);
    ASSERT_EQ(KVLIBCSzListPush(&list, ""), 0);
    ASSERT_EQ(KVLIBCSzListPush(&list, "beta"), 0);
    EXPECT_STREQ(KVLIBCSzListGet(list, 0), "alpha");
    EXPECT_EQ(KVLIBCSzListFind(list, "alpha"), 0);
    EXPECT_EQ(KVLIBCSzListFind(list, "beta"), 1);
    EXPECT_EQ(KVLIBCSzListFind(list, ""), 2);
    EXPECT_EQ(KVLIBCSzListFind(list, "Xlpha"), -1);
    EXPECT_EQ(KVLIBCSzListFind(list, nullptr), -1);

    ASSERT_EQ(KVLIBCSzListPop(list), 0);
    EXPECT_EQ(list->nItem, 3);
    EXPECT_EQ(KVLIBCSzListGet(list, 3), nullptr);
    while (list->nItem > 0) ASSERT_EQ(KVLIBCSzListPop(list), 0);
    EXPECT_LT(KVLIBCSzListPop(list), 0);
    ASSERT_EQ(KVLIBCSzListPush(&list, "again"), 0);
    EXPECT_STREQ(KVLIBCSzListGet(list, 0), "again");

    KVLIBCErrSetEx(0, "", 0);
    EXPECT_LT(KVLIBCSzListPush(&list, nullptr), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    KVLIBCSzListFree(list);

    KVLIB_SZLIST *fresh = nullptr;  // a null handle gets a new list
    ASSERT_EQ(KVLIBCSzListPush(&fresh, "x"), 0);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->nItem, 1);
    KVLIBCSzListFree(fresh);
}

TEST(PlatformSzList, DumpWritesEveryItem) {
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(4);
    ASSERT_EQ(KVLIBCSzListPush(&list, "80"), 0);
    ASSERT_EQ(KVLIBCSzListPush(&list, "443"), 0);
    testing::internal::CaptureStderr();
    KVLIBCISzListDump(list);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[0] 80\n[1] 443\n");
    KVLIBCSzListFree(list);
}

TEST(PlatformSzHash, InsertionOrderReplaceAndStablePointers) {
    KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(1);
    ASSERT_NE(hash, nullptr);
    EXPECT_EQ(KVLIBCSzHashCount(hash), 0);
    ASSERT_EQ(KVLIBCSzHashSetValue(&hash, "title", "\"Web\""), 0);
    const char *title = KVLIBCSzHashGetValue(hash, "title");
    const char *key0 = KVLIBCSzHashKeyAt(hash, 0);
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(KVLIBCSzHashSetValue(&hash, ("k" + std::to_string(i)).c_str(), std::to_string(i).c_str()), 0);
    // Growth moved nothing that was handed out.
    EXPECT_EQ(KVLIBCSzHashGetValue(hash, "title"), title);
    EXPECT_EQ(KVLIBCSzHashKeyAt(hash, 0), key0);
    EXPECT_STREQ(title, "\"Web\"");

    ASSERT_EQ(KVLIBCSzHashSetValue(&hash, "title", ""), 0);
    EXPECT_STREQ(KVLIBCSzHashGetValue(hash, "title"), "");
    EXPECT_EQ(KVLIBCSzHashCount(hash), 5001);
    EXPECT_STREQ(KVLIBCSzHashKeyAt(hash, 0), "title");  // replacing keeps the position
    EXPECT_STREQ(KVLIBCSzHashKeyAt(hash, 1), "k0");
    EXPECT_STREQ(KVLIBCSzHashValueAt(hash, 5000), "4999");
    EXPECT_EQ(KVLIBCSzHashKeyAt(hash, 5001), nullptr);
    EXPECT_EQ(KVLIBCSzHashValueAt(hash, -1), nullptr);
    EXPECT_EQ(KVLIBCSzHashGetValue(hash, "missing"), nullptr);
    EXPECT_EQ(KVLIBCSzHashGetValue(hash, nullptr), nullptr);
    EXPECT_LT(KVLIBCSzHashSetValue(&hash, nullptr, "v"), 0);
    EXPECT_LT(KVLIBCSzHashSetValue(&hash, "k", nullptr), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    KVLIBCSzHashFree(hash);
    KVLIBCSzHashFree(nullptr);
    EXPECT_EQ(KVLIBCSzHashCount(nullptr), 0);
}

struct Rec {
    int value;
    char *name;
};

int g_copies = 0;
int g_frees = 0;

void *rec_copy(const void *p) {
    const auto *src = static_cast<const Rec *>(p);
    auto *r = static_cast<Rec *>(std::calloc(1, sizeof(Rec)));
    r->value = src->value;
    r->name = strdup(src->name);
    ++g_copies;
    return r;
}

void rec_free(void *p) {
    auto *r = static_cast<Rec *>(p);
    std::free(r->name);
    std::free(r);
    ++g_frees;
}

void *failing_copy(const void *) {
    return nullptr;
}

TEST(PlatformDList, AppendStoresCopiesAndFreeUsesCallback) {
    g_copies = g_frees = 0;
    KVLIB_DLIST *list = KVLIBCDListAlloc(rec_copy, rec_free);
    ASSERT_NE(list, nullptr);
    char name[] = "first";
    Rec item{1, name};
    ASSERT_EQ(KVLIBCDListAppend(list, &item), 0);
    item.value = 2;
    ASSERT_EQ(KVLIBCDListAppend(list, &item), 0);
    name[0] = 'X';
    EXPECT_EQ(g_copies, 2);
    EXPECT_EQ(list->nItem, 2);

    KVLIB_DLIST_NODE *first = list->pHead;
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first->pData, &item);
    EXPECT_EQ(static_cast<Rec *>(first->pData)->value, 1);
    EXPECT_STREQ(static_cast<Rec *>(first->pData)->name, "first");
    ASSERT_NE(first->pNext, nullptr);
    EXPECT_EQ(static_cast<Rec *>(first->pNext->pData)->value, 2);
    EXPECT_EQ(first->pNext->pNext, nullptr);
    EXPECT_EQ(list->pTail, first->pNext);
    EXPECT_EQ(list->pTail->pPrev, first);

    KVLIBCDListFree(list);
    EXPECT_EQ(g_frees, 2);
    KVLIBCDListFree(nullptr);

    KVLIB_DLIST *bad = KVLIBCDListAlloc(failing_copy, rec_free);
    EXPECT_LT(KVLIBCDListAppend(bad, &item), 0);
    EXPECT_EQ(bad->pHead, nullptr);
    EXPECT_EQ(bad->nItem, 0);
    KVLIBCDListFree(bad);
}

}  // namespace
