// Error state and containers of the core stand-in: what the library relies on. (The string
// utilities are exercised through the port parsers, the socket inventory and the exporters.)
#include <kovacore.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(PlatformErrorState, IsPerThreadAndCopiesTheFileName) {
    std::thread([] {
        EXPECT_EQ(KVLIBCErrGet(), 0u);
        KVLIBCErrSetEx(0x0D00, "other_thread.cpp", 12);
    }).join();
    std::string name = "module.cpp";
    KVLIBCErrSetEx(0x0700, name.c_str(), 42);
    name.assign("overwritten");
    EXPECT_EQ(KVLIBCErrGet(), 0x0700u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "module.cpp");
    EXPECT_EQ(KVLIBCErrorGetLine(), 42);
    KVLIBCErrSetEx(2, KVLIBCErrorGetFile(), 4);  // from the state's own text
    EXPECT_STREQ(KVLIBCErrorGetFile(), "module.cpp");
}

TEST(PlatformContainers, ListRecordNeverMovesHashKeepsOrderDListCopies) {
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(2);
    KVLIB_SZLIST *const original = list;
    char first[] = "alpha";
    ASSERT_EQ(KVLIBCSzListPush(&list, first), 0);
    first[0] = 'X';
    for (int i = 1; i < 1000; ++i) ASSERT_EQ(KVLIBCSzListPush(&list, std::to_string(i).c_str()), 0);
    EXPECT_EQ(list, original);
    EXPECT_EQ(list->nItem, 1000);
    EXPECT_STREQ(KVLIBCSzListGet(list, 0), "alpha");
    EXPECT_EQ(KVLIBCSzListGet(list, 1000), nullptr);
    ASSERT_EQ(KVLIBCSzListPop(list), 0);
    EXPECT_EQ(list->nItem, 999);
    KVLIBCSzListFree(list);

    KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(1);
    ASSERT_EQ(KVLIBCSzHashSetValue(&hash, "title", "\"Web\""), 0);
    const char *title = KVLIBCSzHashGetValue(hash, "title");
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(KVLIBCSzHashSetValue(&hash, ("k" + std::to_string(i)).c_str(), std::to_string(i).c_str()), 0);
    EXPECT_EQ(KVLIBCSzHashGetValue(hash, "title"), title);  // growth moved nothing handed out
    ASSERT_EQ(KVLIBCSzHashSetValue(&hash, "title", ""), 0);
    EXPECT_EQ(KVLIBCSzHashCount(hash), 5001);
    EXPECT_STREQ(KVLIBCSzHashKeyAt(hash, 0), "title");  // replacing keeps the position
    EXPECT_STREQ(KVLIBCSzHashValueAt(hash, 0), "");
    EXPECT_EQ(KVLIBCSzHashGetValue(hash, "missing"), nullptr);
    KVLIBCSzHashFree(hash);

    static int frees = 0;
    KVLIB_DLIST *dlist = KVLIBCDListAlloc([](const void *p) -> void * { return strdup(static_cast<const char *>(p)); },
                                          [](void *p) {
                                              std::free(p);
                                              ++frees;
                                          });
    char item[] = "first";
    ASSERT_EQ(KVLIBCDListAppend(dlist, item), 0);
    ASSERT_EQ(KVLIBCDListAppend(dlist, "second"), 0);
    item[0] = 'X';
    ASSERT_EQ(dlist->nItem, 2);
    EXPECT_STREQ(static_cast<char *>(dlist->pHead->pData), "first");
    EXPECT_STREQ(static_cast<char *>(dlist->pHead->pNext->pData), "second");
    EXPECT_EQ(dlist->pHead->pNext->pNext, nullptr);
    KVLIBCDListFree(dlist);
    EXPECT_EQ(frees, 2);
}

}  // namespace
