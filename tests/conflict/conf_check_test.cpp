// The configured-ports inventory, its check and the queries over it, with the system
// information file, the NFS settings and a package .sc file under the test root.
#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "foundation/raii.h"
#include "kova_test.h"

namespace {

// "port/protocol name isConflict" per record.
std::vector<std::string> entries(const KVLIB_DLIST *list) {
    std::vector<std::string> out;
    for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext) {
        const auto *r = static_cast<const KOVA_CONF_PORT_CONFLICT_RESULT *>(n->pData);
        out.push_back(std::to_string(r->port) + "/" + std::to_string(r->protocol) + " " +
                      (r->serviceName ? r->serviceName : "(null)") + " " + std::to_string(r->isConflict));
    }
    return out;
}

std::vector<std::string> items(const KVLIB_SZLIST *list) {
    std::vector<std::string> out;
    for (int i = 0; i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
    return out;
}

kova::SzListPtr port_list(std::initializer_list<const char *> ports) {
    kova::SzListPtr list(KVLIBCSzListAlloc(512));
    for (const char *p : ports) {
        KVLIB_SZLIST *handle = list.get();
        KVLIBCSzListPush(&handle, p);
    }
    return list;
}

class ConfCheckTest : public kova::test::RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        write("/etc/kovainfo.conf", "syslogport=514\nsmsport=\"465\"\n");
        write("/etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=no\n");
        write("/usr/local/etc/services.d/pkg.sc",
              "[alpha]\ntitle=\"Alpha\"\ndesc=\"Alpha service\"\ndst.ports=\"8080/tcp\"\n"
              "[beta]\ntitle=\"Beta\"\ndesc=\"Beta service\"\ndst.ports=\"8080/tcp\"\n"
              "[wide]\ntitle=\"Wide\"\ndesc=\"Up to the last port\"\ndst.ports=\"65530:65535/tcp\"\n");
    }

    std::vector<std::string> check(std::initializer_list<const char *> ports, uint16_t protocol) {
        auto list = port_list(ports);
        kova::DListPtr results(KOVAConfPortConflictResultListAlloc());
        EXPECT_EQ(KOVAConfPortConflictCheck(list.get(), protocol, results.get()), 0);
        return entries(results.get());
    }
};

TEST_F(ConfCheckTest, SystemPortsComeFirstInTheirFixedOrder) {
    const std::vector<std::string> system{"514/1 kova-syslog 1", "465/1 kova-sms 1", "5005/1 kova-webdav 1",
                                          "5006/1 kova-webdav-ssl 1", "514/2 kova-syslog 1"};
    kova::DListPtr sys(SysConfListFetch());
    ASSERT_NE(sys, nullptr);
    EXPECT_EQ(entries(sys.get()), system);

    kova::DListPtr inventory(ServiceConfListFetch());
    ASSERT_NE(inventory, nullptr);
    auto all = entries(inventory.get());
    ASSERT_GT(all.size(), system.size() + 8);
    EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + 5), system);
    // Then the catalogue: the package sections, then the built-in rows; a range is walked
    // port by port up to and including 65535.
    EXPECT_EQ(std::vector<std::string>(all.begin() + 5, all.begin() + 13),
              (std::vector<std::string>{"8080/1 alpha 1", "8080/1 beta 1", "65530/1 wide 1", "65531/1 wide 1",
                                        "65532/1 wide 1", "65533/1 wide 1", "65534/1 wide 1", "65535/1 wide 1"}));
    EXPECT_EQ(all.back(), "23/1 telnet 1");
}

TEST_F(ConfCheckTest, MissingKeysAndFileConvertWhatTheBufferHolds) {
    write("/etc/kovainfo.conf", "syslogport=514\n");
    kova::DListPtr sys(SysConfListFetch());
    ASSERT_NE(sys, nullptr);
    EXPECT_EQ(entries(sys.get()),
              (std::vector<std::string>{"514/1 kova-syslog 1", "0/1 kova-sms 1", "5005/1 kova-webdav 1",
                                        "5006/1 kova-webdav-ssl 1", "514/2 kova-syslog 1"}));
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{"port_conflict_helper.cpp:N Failed on parse port: "}));

    clear_log();
    std::remove(path("/etc/kovainfo.conf").c_str());
    kova::DListPtr none(SysConfListFetch());
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(entries(none.get()).size(), 5u);
    EXPECT_EQ(entries(none.get()).front(), "0/1 kova-syslog 1");
    const auto lines = log_normalized();
    ASSERT_EQ(lines.size(), 6u);
    const std::string missing =
        "port_conflict_conf_helper.cpp:N Failed to get syslogport from " + path("/etc/kovainfo.conf") + ", errno=0x";
    EXPECT_EQ(lines[0].rfind(missing, 0), 0u) << lines[0];
    EXPECT_EQ(lines[1], "port_conflict_helper.cpp:N Failed on parse port: ");
    EXPECT_EQ(lines[2].rfind("port_conflict_conf_helper.cpp:N Failed to get smsport from ", 0), 0u) << lines[2];
    EXPECT_EQ(lines[4].rfind(missing, 0), 0u) << lines[4];
}

TEST_F(ConfCheckTest, CatalogueRangesAreWalkedAndBadPortTextsSkipped) {
    // The FTP ports are taken from the settings as they are: a reversed passive range and a
    // control port that is no number are logged and left out.
    write("/etc/kovainfo.conf", "syslogport=514\nsmsport=465\nftpport=zz\nftplowport=60000\nftphighport=55000\n");
    kova::DListPtr bad(PkgConfListFetch());
    ASSERT_NE(bad, nullptr);
    for (const std::string &e : entries(bad.get())) EXPECT_EQ(e.find(" ftp "), std::string::npos) << e;
    EXPECT_TRUE(logged("port_conflict_conf_helper.cpp:N Failed to fetch port from service: ftp"));
    EXPECT_TRUE(logged("port_conflict_conf_helper.cpp:N Illegal port range: 60000~55000"));

    write("/etc/kovainfo.conf", "ftpport=2121\nftplowport=65533\nftphighport=65535\n");
    kova::DListPtr good(PkgConfListFetch());
    ASSERT_NE(good, nullptr);
    std::vector<std::string> ftp;
    for (const std::string &e : entries(good.get()))
        if (e.find(" ftp ") != std::string::npos) ftp.push_back(e);
    EXPECT_EQ(ftp, (std::vector<std::string>{"2121/1 ftp 1", "65533/1 ftp 1", "65534/1 ftp 1", "65535/1 ftp 1"}));
}

TEST_F(ConfCheckTest, FixedWebdavPortAndNfsExamples) {
    EXPECT_EQ(check({"5005"}, 1), (std::vector<std::string>{"5005/1 kova-webdav 1"}));
    EXPECT_EQ(check({"5005"}, 2), (std::vector<std::string>{"5005/2 (null) 0"}));
    // nfs is declared for both protocols and enters the inventory as UDP only.
    EXPECT_EQ(check({"2049"}, 3), (std::vector<std::string>{"2049/1 (null) 0", "2049/2 nfs 1"}));
    // Two services declaring one port: both, in catalogue order; ports follow the list order.
    EXPECT_EQ(check({"8080", "514"}, 3), (std::vector<std::string>{"8080/1 alpha 1", "8080/1 beta 1", "8080/2 (null) 0",
                                                                   "514/1 kova-syslog 1", "514/2 kova-syslog 1"}));
}

TEST_F(ConfCheckTest, IllegalPortsAreSkippedAndIllegalProtocolsFail) {
    EXPECT_EQ(check({"0", "", "abc"}, 3), std::vector<std::string>{});
    EXPECT_TRUE(logged("port_conflict_conf_check.cpp:N Illegal port: 0"));
    EXPECT_TRUE(logged("port_conflict_conf_check.cpp:N Illegal port: "));
    EXPECT_TRUE(logged("port_conflict_conf_check.cpp:N Illegal port: abc"));
    EXPECT_EQ(check({}, 3), std::vector<std::string>{});

    clear_log();
    auto ports = port_list({"5005"});
    kova::DListPtr results(KOVAConfPortConflictResultListAlloc());
    EXPECT_EQ(KOVAConfPortConflictCheck(ports.get(), 0, results.get()), -1);
    EXPECT_EQ(KOVAConfPortConflictCheck(ports.get(), 4, results.get()), -1);
    EXPECT_EQ(KOVAConfPortConflictCheck(nullptr, 1, results.get()), -1);
    EXPECT_EQ(KOVAConfPortConflictCheck(ports.get(), 1, nullptr), -1);
    EXPECT_EQ(results->pHead, nullptr);
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{"port_conflict_conf_check.cpp:N Illegal protocol: 0",
                                                          "port_conflict_conf_check.cpp:N Illegal protocol: 4",
                                                          "port_conflict_conf_check.cpp:N pPortList is undefined",
                                                          "port_conflict_conf_check.cpp:N ppResultList is undefined"}));
}

TEST_F(ConfCheckTest, AllocAndCheck) {
    auto ports = port_list({"5006"});
    kova::DListPtr results(KOVAConfPortConflictResultListAllocAndCheck(ports.get(), 1));
    ASSERT_NE(results, nullptr);
    EXPECT_EQ(entries(results.get()), (std::vector<std::string>{"5006/1 kova-webdav-ssl 1"}));
    clear_log();
    EXPECT_EQ(KOVAConfPortConflictResultListAllocAndCheck(nullptr, 1), nullptr);
    EXPECT_EQ(KOVAConfPortConflictResultListAllocAndCheck(ports.get(), 0), nullptr);
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{"port_conflict_conf_check.cpp:N pPortList is undefined",
                                                          "port_conflict_conf_check.cpp:N Illegal protocol: 0",
                                                          "port_conflict_conf_check.cpp:N Failed to "
                                                          "KOVAConfPortConflictCheck"}));
}

TEST_F(ConfCheckTest, YesNoQueries) {
    EXPECT_EQ(KOVAConfIsConflictPort(5005, 1), 1);
    EXPECT_EQ(KOVAConfIsConflictPort(5005, 2), 0);
    EXPECT_EQ(KOVAConfIsConflictPort(0, 3), 0);
    EXPECT_EQ(KOVAConfIsConflictPortRange(5000, 5010, 1), 1);
    EXPECT_EQ(KOVAConfIsConflictPortRange(65530, 65535, 1), 1);
    EXPECT_EQ(KOVAConfIsConflictPortRange(65100, 65535, 2), 0);  // walks to the last port and ends
    EXPECT_EQ(KOVAConfIsConflictPortRange(65535, 65535, 1), 1);
    auto ports = port_list({"1", "2049"});
    EXPECT_EQ(KOVAConfIsConflictPorts(ports.get(), 1), 0);
    EXPECT_EQ(KOVAConfIsConflictPorts(ports.get(), 3), 1);

    clear_log();
    EXPECT_EQ(KOVAConfIsConflictPortRange(10, 5, 3), 0);
    EXPECT_EQ(KOVAConfIsConflictPorts(ports.get(), 7), 0);
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{"port_conflict_conf_comparer.cpp:N Illegal port range: 10~5",
                                                          "port_conflict_conf_check.cpp:N Illegal protocol: 7",
                                                          "port_conflict_conf_comparer.cpp:N Failed to "
                                                          "KOVAConfPortConflictCheck"}));
}

// Result lists made by hand: the list and verify queries read only the records.
class ConfQueryTest : public kova::test::RootTest {
protected:
    void add(uint16_t port, uint16_t protocol, const char *name, int conflict) {
        KOVA_CONF_PORT_CONFLICT_RESULT r{port, protocol, const_cast<char *>(name), conflict};
        ASSERT_EQ(KVLIBCDListAppend(list_.get(), &r), 0);
    }
    kova::DListPtr list_{KOVAConfPortConflictResultListAlloc()};
};

TEST_F(ConfQueryTest, ConflictPortsAreDistinctAndFollowTheCallersItems) {
    add(80, 1, "web", 1);
    add(80, 2, "web", 1);
    add(443, 1, nullptr, 0);
    add(8443, 2, "alt", 1);
    add(21, 1, "ftp", 1);
    auto both = port_list({"21"});
    ASSERT_EQ(KOVAConfListConflictPorts(list_.get(), 3, both.get()), 0);
    EXPECT_EQ(items(both.get()), (std::vector<std::string>{"21", "80", "8443"}));
    auto tcp = port_list({});
    ASSERT_EQ(KOVAConfListConflictPorts(list_.get(), 1, tcp.get()), 0);
    EXPECT_EQ(items(tcp.get()), (std::vector<std::string>{"80", "21"}));
    EXPECT_EQ(KOVAConfListConflictPorts(nullptr, 3, tcp.get()), -1);
    EXPECT_EQ(KOVAConfListConflictPorts(list_.get(), 3, nullptr), -1);
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{"port_conflict_conf_comparer.cpp:N pResultList is undefined",
                                                          "port_conflict_conf_comparer.cpp:N pConflictPortList is "
                                                          "undefined"}));
}

TEST_F(ConfQueryTest, VerifyTellsNoRecordFromNoConflict) {
    EXPECT_EQ(KOVAConfVerifyConflictPort(list_.get(), 80, 1), -2);
    add(80, 1, nullptr, 0);
    EXPECT_EQ(KOVAConfVerifyConflictPort(list_.get(), 80, 1), 0);
    EXPECT_EQ(KOVAConfVerifyConflictPort(list_.get(), 80, 2), -2);
    EXPECT_EQ(KOVAConfVerifyConflictPort(list_.get(), 81, 3), -2);
    add(80, 2, "web", 1);
    EXPECT_EQ(KOVAConfVerifyConflictPort(list_.get(), 80, 3), 1);
    EXPECT_EQ(KOVAConfVerifyConflictPort(list_.get(), 80, 1), 0);
    EXPECT_EQ(KOVAConfVerifyConflictPort(nullptr, 80, 1), -1);
    EXPECT_TRUE(logged("port_conflict_conf_comparer.cpp:N pResultList is undefined"));
}

TEST_F(ConfQueryTest, FilterAndNoConflictAppend) {
    add(80, 1, "a", 1);
    add(80, 2, "b", 1);
    add(80, 1, "c", 1);
    kova::DListPtr out(KOVAConfPortConflictResultListAlloc());
    EXPECT_EQ(ConfResultListFilter(list_.get(), 80, 1, out.get()), 2);
    EXPECT_EQ(ConfResultListFilter(list_.get(), 81, 1, out.get()), 0);
    EXPECT_EQ(ConfNotConflictResultAppend(out.get(), 81, 2), 0);
    EXPECT_EQ(entries(out.get()), (std::vector<std::string>{"80/1 a 1", "80/1 c 1", "81/2 (null) 0"}));
    EXPECT_EQ(ConfResultListFilter(nullptr, 80, 1, out.get()), -1);
    EXPECT_EQ(ConfResultListFilter(list_.get(), 80, 1, nullptr), -1);
    EXPECT_EQ(ConfNotConflictResultAppend(nullptr, 80, 1), -1);
    EXPECT_EQ(log_normalized(),
              (std::vector<std::string>{"port_conflict_conf_helper.cpp:N pSourceResultList is undefined",
                                        "port_conflict_conf_helper.cpp:N pFilteredResultList is undefined",
                                        "port_conflict_conf_helper.cpp:N pResultList is undefined"}));
}

}  // namespace
