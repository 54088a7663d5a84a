// String utilities of the core stand-in.
#include <kovaserviceconf.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::vector<std::string> items(const KVLIB_SZLIST *list) {
    std::vector<std::string> out;
    for (int i = 0; i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
    return out;
}

using V = std::vector<std::string>;

TEST(PlatformStrTokIndex, HasStrsepSemanticsWithEmptyTokens) {
    char text[] = ",80,,443,";
    char *cursor = text;
    V tokens;
    while (char *tok = KVLIBCStrTokIndex(&cursor, ",")) tokens.emplace_back(tok);
    EXPECT_EQ(tokens, (V{"", "80", "", "443", ""}));
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(KVLIBCStrTokIndex(&cursor, ","), nullptr);

    // The cursor left behind is the rest of the text after the first delimiter.
    char ports[] = "80,443/tcp,udp";
    cursor = ports;
    EXPECT_STREQ(KVLIBCStrTokIndex(&cursor, "/"), "80,443");
    EXPECT_STREQ(cursor, "tcp,udp");

    char none[] = "8080";
    cursor = none;
    EXPECT_EQ(KVLIBCStrTokIndex(&cursor, "/"), none);
    EXPECT_EQ(cursor, nullptr);

    char empty[] = "";
    cursor = empty;
    EXPECT_STREQ(KVLIBCStrTokIndex(&cursor, ","), "");
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(KVLIBCStrTokIndex(nullptr, ","), nullptr);

    char multi[] = "a:b,c";
    cursor = multi;
    EXPECT_STREQ(KVLIBCStrTokIndex(&cursor, ",:"), "a");
    EXPECT_STREQ(KVLIBCStrTokIndex(&cursor, ",:"), "b");
    EXPECT_STREQ(KVLIBCStrTokIndex(&cursor, ",:"), "c");
}

TEST(PlatformStrTrimSpace, TrimsBothEndsMovingTextToStart) {
    char text[] = " \t\r\n  80 : 90 \v\f\n";
    char *const start = text;
    ASSERT_EQ(KVLIBCStrTrimSpace(text, 0), 0);
    EXPECT_STREQ(start, "80 : 90");

    char blank[] = " \t \n";
    ASSERT_EQ(KVLIBCStrTrimSpace(blank, 0), 0);
    EXPECT_STREQ(blank, "");
    char plain[] = "tcp";
    ASSERT_EQ(KVLIBCStrTrimSpace(plain, 0), 0);
    EXPECT_STREQ(plain, "tcp");
    char empty[] = "";
    EXPECT_EQ(KVLIBCStrTrimSpace(empty, 0), 0);
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_LT(KVLIBCStrTrimSpace(nullptr, 0), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
}

TEST(PlatformStrCaseLower, CopyCutToSizeOrInPlace) {
    char src[] = "TCP,Udp";
    char dst[5];
    EXPECT_EQ(KVLIBCStrCaseLower(src, 0, dst, sizeof dst), dst);
    EXPECT_STREQ(dst, "tcp,");
    EXPECT_STREQ(src, "TCP,Udp");
    char big[32];
    EXPECT_EQ(KVLIBCStrCaseLower(src, 0, big, sizeof big), big);
    EXPECT_STREQ(big, "tcp,udp");

    EXPECT_EQ(KVLIBCStrCaseLower(src, 0, nullptr, 0), src);
    EXPECT_STREQ(src, "tcp,udp");

    EXPECT_EQ(KVLIBCStrCaseLower(nullptr, 0, big, sizeof big), nullptr);
    EXPECT_EQ(KVLIBCStrCaseLower(src, 0, big, 0), nullptr);
    EXPECT_EQ(KVLIBCStrCaseLower(src, 0, nullptr, 8), nullptr);
}

TEST(PlatformStrTok, SplitsAtAnyDelimiterSkippingEmptyTokens) {
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(128);
    ASSERT_EQ(KVLIBCStrTok(" ,80, 443,,8000:8010  ", " ,", &list), 0);
    EXPECT_EQ(items(list), (V{"80", "443", "8000:8010"}));
    ASSERT_EQ(KVLIBCStrTok("", " ,", &list), 0);
    ASSERT_EQ(KVLIBCStrTok(" , ", " ,", &list), 0);
    ASSERT_EQ(KVLIBCStrTok("udp", " ,", &list), 0);  // appends
    EXPECT_EQ(items(list), (V{"80", "443", "8000:8010", "udp"}));
    EXPECT_LT(KVLIBCStrTok(nullptr, " ,", &list), 0);
    EXPECT_LT(KVLIBCStrTok("a", nullptr, &list), 0);
    EXPECT_LT(KVLIBCStrTok("a", ",", nullptr), 0);
    KVLIBCSzListFree(list);
}

TEST(PlatformStrSep, KeepsEmptyPiecesAndCountsThem) {
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(512);
    EXPECT_EQ(KVLIBCStrSep("812,77,", ",", &list), 3);
    EXPECT_EQ(items(list), (V{"812", "77", ""}));
    ASSERT_EQ(KVLIBCSzListPop(list), 0);
    EXPECT_EQ(items(list), (V{"812", "77"}));
    KVLIBCSzListFree(list);

    list = KVLIBCSzListAlloc(512);
    EXPECT_EQ(KVLIBCStrSep(",,a", ",", &list), 3);
    EXPECT_EQ(items(list), (V{"", "", "a"}));
    EXPECT_EQ(KVLIBCStrSep("", ",", &list), 1);
    EXPECT_EQ(list->nItem, 4);
    EXPECT_LT(KVLIBCStrSep(nullptr, ",", &list), 0);
    KVLIBCSzListFree(list);
}

TEST(PlatformStrCat, GrowsHeapText) {
    char *text = nullptr;
    int capacity = 0;
    ASSERT_EQ(KVLIBCStrCat(&text, &capacity, "80"), 0);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "80");
    EXPECT_GE(capacity, 3);
    std::string expected = "80";
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
}

TEST(PlatformStrGet, FormatsIntoNewHeapText) {
    char *text = KVLIBCStrGet("%s,%d:%d", "80", 8000, 8010);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "80,8000:8010");
    KVLIBCStrPut(text);
    std::string big(100000, 'x');
    text = KVLIBCStrGet("%s!", big.c_str());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), big + "!");
    KVLIBCStrPut(text);
    KVLIBCStrPut(nullptr);
}

}  // namespace
