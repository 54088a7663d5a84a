// Error state, containers and string utilities of the core stand-in.
#include <kovaserviceconf.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using V = std::vector<std::string>;

V items(const KVLIB_SZLIST *list) {
    V out;
    for (int i = 0; i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
    return out;
}

TEST(PlatformErrorState, IsPerThreadAndCopiesTheFileName) {
    std::thread([] {
        EXPECT_EQ(KVLIBCErrGet(), 0u);
        EXPECT_STREQ(KVLIBCErrorGetFile(), "");
        KVLIBCErrSetEx(0x0D00, "other_thread.cpp", 12);
    }).join();
    std::string name = "module.cpp";
    KVLIBCErrSetEx(0x0700, name.c_str(), 42);
    name.assign("overwritten");
    std::thread([] { KVLIBCErrSetEx(0x0200, "elsewhere.cpp", 1); }).join();
    EXPECT_EQ(KVLIBCErrGet(), 0x0700u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "module.cpp");
    EXPECT_EQ(KVLIBCErrorGetLine(), 42);
    KVLIBCErrSetEx(2, KVLIBCErrorGetFile(), 4);  // from the state's own text
    EXPECT_STREQ(KVLIBCErrorGetFile(), "module.cpp");
    KVLIBCErrSetEx(0, nullptr, 0);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "");
}

TEST(PlatformSzList, RecordNeverMovesAndItemsAreCopies) {
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(2);
    ASSERT_NE(list, nullptr);
    KVLIB_SZLIST *const original = list;
    char first[] = "alpha";
    ASSERT_EQ(KVLIBCSzListPush(&list, first), 0);
    first[0] = 'X';
    for (int i = 1; i < 1000; ++i) ASSERT_EQ(KVLIBCSzListPush(&list, std::to_string(i).c_str()), 0);
    EXPECT_EQ(list, original);
    EXPECT_EQ(list->nItem, 1000);
    EXPECT_STREQ(KVLIBCSzListGet(list, 0), "alpha");
    EXPECT_STREQ(KVLIBCSzListGet(list, 999), "999");
    EXPECT_EQ(KVLIBCSzListGet(list, 1000), nullptr);
    EXPECT_EQ(KVLIBCSzListGet(list, -1), nullptr);
    EXPECT_EQ(KVLIBCSzListFind(list, "500"), 500);
    EXPECT_EQ(KVLIBCSzListFind(list, "Xlpha"), -1);
    EXPECT_EQ(KVLIBCSzListFind(list, nullptr), -1);
    ASSERT_EQ(KVLIBCSzListPop(list), 0);
    EXPECT_EQ(list->nItem, 999);
    EXPECT_EQ(KVLIBCSzListGet(list, 999), nullptr);
    while (list->nItem > 0) ASSERT_EQ(KVLIBCSzListPop(list), 0);
    EXPECT_LT(KVLIBCSzListPop(list), 0);
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_LT(KVLIBCSzListPush(&list, nullptr), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    ASSERT_EQ(KVLIBCSzListPush(&list, "80"), 0);
    ASSERT_EQ(KVLIBCSzListPush(&list, ""), 0);
    testing::internal::CaptureStderr();
    KVLIBCISzListDump(list);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[0] 80\n[1] \n");
    KVLIBCSzListFree(list);

    KVLIB_SZLIST *fresh = nullptr;  // a null handle gets a new list
    ASSERT_EQ(KVLIBCSzListPush(&fresh, "x"), 0);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(items(fresh), V{"x"});
    KVLIBCSzListFree(fresh);
}

TEST(PlatformSzHash, InsertionOrderReplaceAndStablePointers) {
    KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(1);
    ASSERT_EQ(KVLIBCSzHashSetValue(&hash, "title", "\"Web\""), 0);
    const char *title = KVLIBCSzHashGetValue(hash, "title");
    const char *key0 = KVLIBCSzHashKeyAt(hash, 0);
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(KVLIBCSzHashSetValue(&hash, ("k" + std::to_string(i)).c_str(), std::to_string(i).c_str()), 0);
    EXPECT_EQ(KVLIBCSzHashGetValue(hash, "title"), title);  // growth moved nothing handed out
    EXPECT_EQ(KVLIBCSzHashKeyAt(hash, 0), key0);
    EXPECT_STREQ(title, "\"Web\"");

    ASSERT_EQ(KVLIBCSzHashSetValue(&hash, "title", ""), 0);
    EXPECT_STREQ(KVLIBCSzHashGetValue(hash, "title"), "");
    EXPECT_EQ(KVLIBCSzHashCount(hash), 5001);
    EXPECT_STREQ(KVLIBCSzHashKeyAt(hash, 0), "title");  // replacing keeps the position
    EXPECT_STREQ(KVLIBCSzHashKeyAt(hash, 1), "k0");
    EXPECT_STREQ(KVLIBCSzHashValueAt(hash, 5000), "4999");
    EXPECT_EQ(KVLIBCSzHashKeyAt(hash, 5001), nullptr);
    EXPECT_EQ(KVLIBCSzHashGetValue(hash, "missing"), nullptr);
    EXPECT_LT(KVLIBCSzHashSetValue(&hash, nullptr, "v"), 0);
    EXPECT_LT(KVLIBCSzHashSetValue(&hash, "k", nullptr), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    KVLIBCSzHashFree(hash);
    EXPECT_EQ(KVLIBCSzHashCount(nullptr), 0);
}

int g_frees = 0;

TEST(PlatformDList, AppendStoresCopiesLinkedBothWaysAndFreeUsesCallback) {
    g_frees = 0;
    auto free_text = [](void *p) {
        std::free(p);
        ++g_frees;
    };
    KVLIB_DLIST *list =
        KVLIBCDListAlloc([](const void *p) -> void * { return strdup(static_cast<const char *>(p)); }, free_text);
    char item[] = "first";
    ASSERT_EQ(KVLIBCDListAppend(list, item), 0);
    ASSERT_EQ(KVLIBCDListAppend(list, "second"), 0);
    item[0] = 'X';
    EXPECT_EQ(list->nItem, 2);
    KVLIB_DLIST_NODE *first = list->pHead;
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(static_cast<char *>(first->pData), "first");
    ASSERT_NE(first->pNext, nullptr);
    EXPECT_STREQ(static_cast<char *>(first->pNext->pData), "second");
    EXPECT_EQ(first->pNext->pNext, nullptr);
    EXPECT_EQ(list->pTail, first->pNext);
    EXPECT_EQ(list->pTail->pPrev, first);
    KVLIBCDListFree(list);
    EXPECT_EQ(g_frees, 2);

    KVLIB_DLIST *bad = KVLIBCDListAlloc([](const void *) -> void * { return nullptr; }, free_text);
    EXPECT_LT(KVLIBCDListAppend(bad, item), 0);
    EXPECT_EQ(bad->pHead, nullptr);
    EXPECT_EQ(bad->nItem, 0);
    KVLIBCDListFree(bad);
}

TEST(PlatformStrTokIndex, HasStrsepSemantics) {
    char text[] = ",80,,443,";
    char *cursor = text;
    V tokens;
    while (char *tok = KVLIBCStrTokIndex(&cursor, ",")) tokens.emplace_back(tok);
    EXPECT_EQ(tokens, (V{"", "80", "", "443", ""}));
    EXPECT_EQ(cursor, nullptr);

    // The cursor left behind is the rest of the text after the first delimiter.
    char ports[] = "80,443/tcp,udp";
    cursor = ports;
    EXPECT_STREQ(KVLIBCStrTokIndex(&cursor, "/"), "80,443");
    EXPECT_STREQ(cursor, "tcp,udp");
    EXPECT_STREQ(KVLIBCStrTokIndex(&cursor, ",:"), "tcp");
    EXPECT_EQ(KVLIBCStrTokIndex(&cursor, ",:"), ports + 11);
    EXPECT_EQ(cursor, nullptr);

    char empty[] = "";
    cursor = empty;
    EXPECT_EQ(KVLIBCStrTokIndex(&cursor, ","), empty);
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(KVLIBCStrTokIndex(&cursor, ","), nullptr);
    EXPECT_EQ(KVLIBCStrTokIndex(nullptr, ","), nullptr);
}

TEST(PlatformStrSplit, TokSkipsEmptyPiecesSepKeepsAndCountsThem) {
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(4);
    ASSERT_EQ(KVLIBCStrTok(" ,80, 443,,8000:8010  ", " ,", &list), 0);
    ASSERT_EQ(KVLIBCStrTok(" , ", " ,", &list), 0);
    ASSERT_EQ(KVLIBCStrTok("udp", " ,", &list), 0);  // appends
    EXPECT_EQ(items(list), (V{"80", "443", "8000:8010", "udp"}));
    EXPECT_LT(KVLIBCStrTok(nullptr, " ,", &list), 0);
    EXPECT_LT(KVLIBCStrTok("a", ",", nullptr), 0);
    KVLIBCSzListFree(list);

    list = KVLIBCSzListAlloc(4);
    EXPECT_EQ(KVLIBCStrSep("812,77,", ",", &list), 3);
    EXPECT_EQ(KVLIBCStrSep(",:a", ",:", &list), 3);
    EXPECT_EQ(KVLIBCStrSep("", ",", &list), 1);
    EXPECT_EQ(items(list), (V{"812", "77", "", "", "", "a", ""}));
    EXPECT_LT(KVLIBCStrSep(nullptr, ",", &list), 0);
    KVLIBCSzListFree(list);
}

TEST(PlatformStrText, TrimAndLowerStayInBounds) {
    char text[] = " \t\r\n  80 : 90 \v\f\n";
    ASSERT_EQ(KVLIBCStrTrimSpace(text, 0), 0);
    EXPECT_STREQ(text, "80 : 90");
    char blank[] = " \t \n";
    ASSERT_EQ(KVLIBCStrTrimSpace(blank, 0), 0);
    EXPECT_STREQ(blank, "");
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_LT(KVLIBCStrTrimSpace(nullptr, 0), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));

    char src[] = "TCP,Udp";
    char dst[5] = "";
    EXPECT_EQ(KVLIBCStrCaseLower(src, 0, dst, sizeof dst), dst);
    EXPECT_STREQ(dst, "tcp,");  // cut to the buffer
    EXPECT_STREQ(src, "TCP,Udp");
    EXPECT_EQ(KVLIBCStrCaseLower(src, 0, nullptr, 0), src);  // in place
    EXPECT_STREQ(src, "tcp,udp");
    EXPECT_EQ(KVLIBCStrCaseLower(src, 0, dst, 0), nullptr);
    EXPECT_EQ(KVLIBCStrCaseLower(src, 0, nullptr, 8), nullptr);
    EXPECT_EQ(KVLIBCStrCaseLower(nullptr, 0, dst, sizeof dst), nullptr);
}

TEST(PlatformStrHeap, CatGrowsAndGetFormats) {
    char *text = nullptr;
    int capacity = 0;
    std::string expected;
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(KVLIBCStrCat(&text, &capacity, ",443"), 0);
        expected += ",443";
    }
    ASSERT_EQ(KVLIBCStrCat(&text, &capacity, ""), 0);
    EXPECT_EQ(std::string(text), expected);
    EXPECT_GT(capacity, static_cast<int>(expected.size()));
    EXPECT_LT(KVLIBCStrCat(&text, &capacity, nullptr), 0);
    EXPECT_EQ(std::string(text), expected);
    std::free(text);
    EXPECT_LT(KVLIBCStrCat(nullptr, &capacity, "x"), 0);

    text = KVLIBCStrGet("%s,%d:%d", "80", 8000, 8010);
    EXPECT_STREQ(text, "80,8000:8010");
    KVLIBCStrPut(text);
    std::string big(100000, 'x');
    text = KVLIBCStrGet("%s!", big.c_str());
    EXPECT_EQ(std::string(text), big + "!");
    KVLIBCStrPut(text);
}

}  // namespace
