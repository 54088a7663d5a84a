// Port list parsing: order, fields, protocol words, port checks, failure codes and lines.
#include <kovaserviceconf.h>

#include <cstring>
#include <string>
#include <vector>

#include "conf_test_util.h"
#include "kova_test.h"

namespace {

using kova::test::port_texts;
using Strings = std::vector<std::string>;

class PortsGetTest : public kova::test::RootTest {
protected:
    void TearDown() override {
        KOVAServiceConfPortsFree(list_);
        RootTest::TearDown();
    }
    // Parses `text`; the entries as texts, or {"fail"}.
    Strings parse(const char *text, unsigned int direction = 1) {
        KOVAServiceConfPortsFree(list_);
        list_ = nullptr;
        if (KOVAServiceConfPortsGet(text, direction, &list_) != 0) {
            EXPECT_EQ(list_, nullptr);
            return {"fail"};
        }
        return port_texts(list_);
    }
    static std::string illegal(const std::string &port) {
        return "service_conf_ports_get.cpp:N illegal ports number, port=" + port +
               ", kovaerr=[0x0D00 service_conf_ports_get.cpp:N]";
    }
    static std::string proto_error(const std::string &text) {
        return "service_conf_ports_get.cpp:N protocol format error (" + text +
               ")! It should be \"tcp\" or \"udp\" or \"tcp,udp\", kovaerr=[0x0D00 service_conf_ports_get.cpp:N]";
    }
    KOVA_SERVICE_CONF_PORT *list_ = nullptr;
};

TEST_F(PortsGetTest, EntriesComeOutInReverseTextOrder) {
    EXPECT_EQ(parse("80"), Strings{"d1 t0 p3 80"});
    EXPECT_EQ(parse("80", 0), Strings{"d0 t0 p3 80"});
    EXPECT_EQ(parse("20,21/tcp"), (Strings{"d1 t0 p1 21", "d1 t0 p1 20"}));
    EXPECT_EQ(parse("80,443,8000:8010/tcp"), (Strings{"d1 t1 p1 8000-8010", "d1 t0 p1 443", "d1 t0 p1 80"}));
    EXPECT_EQ(parse("8000:8010/udp"), Strings{"d1 t1 p2 8000-8010"});
    EXPECT_EQ(parse("8010:8000"), Strings{"d1 t1 p3 8010-8000"});  // not reordered here
    EXPECT_EQ(parse("0,65535/UDP"), (Strings{"d1 t0 p2 65535", "d1 t0 p2 0"}));
    EXPECT_TRUE(log().empty());
}

TEST_F(PortsGetTest, WhiteSpaceAndProtocolWords) {
    EXPECT_EQ(parse(" 80 , 443 / TCP , udp "), (Strings{"d1 t0 p3 443", "d1 t0 p3 80"}));
    EXPECT_EQ(parse("1900/udp,tcp"), Strings{"d1 t0 p3 1900"});
    EXPECT_EQ(parse("53/udp, TCP"), Strings{"d1 t0 p3 53"});
    EXPECT_EQ(parse("22/tcp,tcp"), Strings{"d1 t0 p1 22"});
    EXPECT_EQ(parse("80/"), Strings{"d1 t0 p3 80"});
    EXPECT_EQ(parse("80/   "), Strings{"d1 t0 p3 80"});
    EXPECT_TRUE(log().empty());
}

TEST_F(PortsGetTest, BadProtocolWordsFailWithTheSavedText) {
    EXPECT_EQ(parse("80/tcp/udp"), Strings{"fail"});
    EXPECT_EQ(parse("80/icmp"), Strings{"fail"});
    EXPECT_EQ(parse("80/tcp,"), Strings{"fail"});
    EXPECT_EQ(parse("80/TCP,,udp"), Strings{"fail"});
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    EXPECT_EQ(log_normalized(),
              (Strings{proto_error("tcp/udp"), proto_error("icmp"), proto_error("tcp,"), proto_error("TCP,,udp")}));
}

TEST_F(PortsGetTest, ProtocolParseWorksInPlace) {
    char text[] = " TCP ";
    EXPECT_EQ(KVLIBServiceConfProtocolParse(text), 1);
    EXPECT_STREQ(text, "tcp");
    char both[] = "Udp , tcp";
    EXPECT_EQ(KVLIBServiceConfProtocolParse(both), 3);
    EXPECT_EQ(KVLIBServiceConfProtocolParse(nullptr), 3);
    char empty[] = "";
    EXPECT_EQ(KVLIBServiceConfProtocolParse(empty), 3);
    EXPECT_TRUE(log().empty());

    char blank[] = " ";  // the empty test comes before the trim
    EXPECT_EQ(KVLIBServiceConfProtocolParse(blank), -1);
    // The message shows at most 63 characters of the text as given.
    std::string longer = "  " + std::string(100, 'x');
    EXPECT_EQ(KVLIBServiceConfProtocolParse(longer.data()), -1);
    EXPECT_EQ(log_normalized(), (Strings{proto_error(" "), proto_error("  " + std::string(61, 'x'))}));
}

TEST_F(PortsGetTest, PortNumbersAreDigitsUpTo65535) {
    EXPECT_EQ(KOVAServiceConfPortsCheck("0"), 1);
    EXPECT_EQ(KOVAServiceConfPortsCheck("65535"), 1);
    EXPECT_EQ(KOVAServiceConfPortsCheck("00080"), 1);
    EXPECT_TRUE(log().empty());
    for (const char *bad : {"65536", "-1", "+80", "8 0", "99999999999999999999999"}) {
        poison_error();
        EXPECT_EQ(KOVAServiceConfPortsCheck(bad), 0) << bad;
        EXPECT_EQ(kova::test::error_text(), "0x0D00") << bad;
    }
    EXPECT_EQ(log_normalized(), (Strings{illegal("65536"), illegal("-1"), illegal("+80"), illegal("8 0"),
                                         illegal("99999999999999999999999")}));
    clear_log();
    poison_error();
    EXPECT_EQ(KOVAServiceConfPortsCheck(""), 0);
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    EXPECT_EQ(KOVAServiceConfPortsCheck(nullptr), 0);
    EXPECT_TRUE(log().empty());
}

TEST_F(PortsGetTest, BadItemsFailAndLeaveNothing) {
    EXPECT_EQ(parse("80:"), Strings{"fail"});  // empty last port: no line
    EXPECT_EQ(parse(":80"), Strings{"fail"});
    EXPECT_EQ(parse("80,,90"), Strings{"fail"});
    EXPECT_EQ(parse("/tcp"), Strings{"fail"});
    EXPECT_EQ(parse(""), Strings{"fail"});
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(parse("80,8000 : 8010"), Strings{"fail"});  // no trimming inside an item
    EXPECT_EQ(parse("1:2:3"), Strings{"fail"});           // the second ":" stays in the last port
    EXPECT_EQ(parse("80,65536/tcp"), Strings{"fail"});
    EXPECT_EQ(log_normalized(), (Strings{illegal("8000 "), illegal("2:3"), illegal("65536")}));
}

TEST_F(PortsGetTest, ArgumentChecks) {
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    EXPECT_EQ(KOVAServiceConfPortsGet(nullptr, 1, &list), -1);
    EXPECT_EQ(KOVAServiceConfPortsGet("80", 1, nullptr), -1);
    EXPECT_EQ(KOVAServiceConfPortsGet("80", 2, &list), -1);
    EXPECT_EQ(list, nullptr);
    KOVA_SERVICE_CONF_PORT sentinel{};
    list = &sentinel;
    poison_error();
    EXPECT_EQ(KOVAServiceConfPortsGet("80", 1, &list), -1);  // the target must hold null
    EXPECT_EQ(list, &sentinel);
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    EXPECT_TRUE(log().empty());
    KOVAServiceConfPortsFree(nullptr);
}

TEST_F(PortsGetTest, CallersTextIsLeftAlone) {
    const std::string text = " 80:90 / Tcp ";
    std::string copy = text;
    EXPECT_EQ(parse(copy.c_str()), Strings{"d1 t1 p1 80-90"});
    EXPECT_EQ(copy, text);
}

}  // namespace
