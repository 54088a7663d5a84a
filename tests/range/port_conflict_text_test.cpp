// Comparing the caller's port text with other sources' port texts, and the entries it leaves.
#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "conflict_support.h"
#include "range/port_conflict_text.h"

namespace kova::test {
namespace {

constexpr uint32_t kBoth = KOVA_PROTO_BOTH;

class PortTextTest : public ConflictTest {
protected:
    int compare(const char *ports, const char *other) { return PortsConflictWithText(ports, other, &list); }
};

TEST_F(PortTextTest, RangeAgainstRanges) {
    EXPECT_EQ(compare("8000:8010", "8005-8020"), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{1, kBoth, 8005, 8010}}));
    EXPECT_EQ(compare("8000:8010", "8010-8020"), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 8010, 0}, {1, kBoth, 8005, 8010}}));
    // Written backwards, on either side.
    EXPECT_EQ(compare("8010:8000", "8020-7990"), 1);
    EXPECT_EQ(std::get<2>(entries().front()), 8000u);
    EXPECT_EQ(std::get<3>(entries().front()), 8010u);
    EXPECT_EQ(compare("8000:8010", "8011-9000,1-7999"), 0);
    EXPECT_EQ(entries().size(), 3u);
}

TEST_F(PortTextTest, SinglePortsAndEveryItemCompared) {
    EXPECT_EQ(compare("445", "1-100"), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(compare("445", "137,138,139,445"), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 445, 0}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;

    EXPECT_EQ(compare("80,443", "443"), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 443, 0}}));
    EXPECT_EQ(compare("443,443", "443"), 1);
    EXPECT_EQ(entries().size(), 3u);

    // Newest first; a port inside another's range; a range holding single ports of the other.
    KOVAServiceConfPortsFree(list);
    list = nullptr;
    EXPECT_EQ(compare(" 80 , 100:105 ", " 80 , 50-90 , 103 "), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 103, 0}, {0, kBoth, 80, 0}, {0, kBoth, 80, 0}}));
    EXPECT_TRUE(mine().empty());
}

TEST_F(PortTextTest, MalformedItemsFailWithoutTouchingTheErrorState) {
    for (const char *ports : {"80:", ":80"}) {
        poison_error();
        EXPECT_EQ(compare(ports, "80"), -1) << ports;
        EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu) << ports;
    }
    poison_error();
    EXPECT_EQ(compare("80", "10-"), -1);
    EXPECT_EQ(compare("80", "-10"), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(list, nullptr);
}

TEST_F(PortTextTest, BadPortNumbersFailThroughThePortCheck) {
    EXPECT_EQ(compare("70000", "80"), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    EXPECT_EQ(log_normalized(),
              std::vector<std::string>{"service_conf_ports_get.cpp:N illegal ports number, port=70000, "
                                       "kovaerr=[0x0D00 service_conf_ports_get.cpp:N]"});
    clear_log();
    EXPECT_EQ(compare("80 443", "80"), -1);  // one item with a space
    EXPECT_TRUE(
        logged("service_conf_ports_get.cpp:N illegal ports number, port=80 443, "
               "kovaerr=[0x0D00 service_conf_ports_get.cpp:N]"));
    clear_log();
    for (const char *ports : {"80,,90", "+80", "-1", "8000 : 8010"}) {
        KVLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(compare(ports, "80"), -1) << ports;
        EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER)) << ports;
    }
    EXPECT_EQ(compare("80", "80,65536"), -1);
    EXPECT_EQ(compare("80", "80,"), -1);  // an empty item of the other text
    EXPECT_TRUE(mine().empty());
}

TEST_F(PortTextTest, AFailureKeepsTheEntriesAddedBefore) {
    EXPECT_EQ(compare("80,abc", "80"), -1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 80, 0}}));
    EXPECT_EQ(compare("90", "90,x-1"), -1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 90, 0}, {0, kBoth, 80, 0}}));
}

TEST_F(PortTextTest, LowLevelArguments) {
    poison_error();
    EXPECT_EQ(PortConflictWithText(10, 5, "7", &list), -1);
    EXPECT_EQ(mine(), std::vector<std::string>{
                          "service_is_port_conflict.cpp:N begin port 10 larger than end port 5![0xEEEE poison:7]"});
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);

    EXPECT_EQ(PortConflictWithText(-1, -1, "7", &list), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    poison_error();
    EXPECT_EQ(PortConflictWithText(1, -2, "7", &list), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    poison_error();
    EXPECT_EQ(PortConflictWithText(1, -1, nullptr, &list), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    poison_error();
    EXPECT_EQ(PortsConflictWithText(nullptr, "1", &list), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));

    EXPECT_EQ(PortConflictWithText(5, 5, "5", &list), 1);  // a range of one port
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 5, 0}}));

    poison_error();
    EXPECT_EQ(ConflictPortAppend(1, -1, 1, &list), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    EXPECT_EQ(ConflictPortAppend(10, 20, 9, &list), 0);
    EXPECT_EQ(ConflictPortAppend(10, 20, 20, &list), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 20, 0}, {0, kBoth, 5, 0}}));
}

}  // namespace
}  // namespace kova::test
