// The configured-ports inventory, its check and queries, with the system information file, the
// NFS settings and a package .sc file under the test root.
#include "conflict_test.h"

namespace {

using namespace kova::test;
using Conf = KOVA_CONF_PORT_CONFLICT_RESULT;
const std::string kCheck = "port_conflict_conf_check.cpp:N ";
const std::string kComparer = "port_conflict_conf_comparer.cpp:N ";
const std::string kHelper = "port_conflict_conf_helper.cpp:N ";

class ConfCheckTest : public RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        write("/etc/kovainfo.conf", "syslogport=514\nsmsport=\"465\"\n");
        write("/etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=no\n");
        write("/usr/local/etc/services.d/pkg.sc",
              "[alpha]\ntitle=\"Alpha\"\ndesc=\"Alpha service\"\ndst.ports=\"8080/tcp\"\n"
              "[beta]\ntitle=\"Beta\"\ndesc=\"Beta service\"\ndst.ports=\"8080/tcp\"\n"
              "[wide]\ntitle=\"Wide\"\ndesc=\"Up to the last port\"\ndst.ports=\"65530:65535/tcp\"\n"
              "[outer]\ntitle=\"Outer\"\ndesc=\"Around wide\"\ndst.ports=\"65000:65535,65532/tcp\"\n");
    }

    Lines check(std::initializer_list<const char *> ports, uint16_t protocol) {
        auto list = port_list(ports);
        kova::DListPtr results(KOVAConfPortConflictResultListAlloc());
        EXPECT_EQ(KOVAConfPortConflictCheck(list.get(), protocol, results.get()), 0);
        return texts<Conf>(results.get());
    }
};

TEST_F(ConfCheckTest, InventoryIsSystemPortsThenCatalogueInOrder) {
    const Lines all = owned_texts<Conf>(ServiceConfListFetch());
    ASSERT_GT(all.size(), 13u);
    // The system ports in their fixed order, the package sections, then the built-in rows; a
    // range is walked up to and including 65535.
    EXPECT_EQ(Lines(all.begin(), all.begin() + 13),
              (Lines{"514/1 kova-syslog 1", "465/1 kova-sms 1", "5005/1 kova-webdav 1", "5006/1 kova-webdav-ssl 1",
                     "514/2 kova-syslog 1", "8080/1 alpha 1", "8080/1 beta 1", "65530/1 wide 1", "65531/1 wide 1",
                     "65532/1 wide 1", "65533/1 wide 1", "65534/1 wide 1", "65535/1 wide 1"}));
    EXPECT_EQ(all.back(), "23/1 telnet 1");
}

TEST_F(ConfCheckTest, MissingSettingsGivePortZeroAndTheirLines) {
    write("/etc/kovainfo.conf", "syslogport=514\n");
    EXPECT_EQ(owned_texts<Conf>(SysConfListFetch()).at(1), "0/1 kova-sms 1");
    EXPECT_EQ(log_normalized(), (Lines{"port_conflict_helper.cpp:N Failed on parse port: "}));
    clear_log();
    std::remove(path("/etc/kovainfo.conf").c_str());
    EXPECT_EQ(owned_texts<Conf>(SysConfListFetch()).at(0), "0/1 kova-syslog 1");
    const std::string missing = kHelper + "Failed to get syslogport from " + path("/etc/kovainfo.conf") + ", errno=0x";
    EXPECT_EQ(log_normalized().at(0).rfind(missing, 0), 0u) << log_normalized().at(0);

    // FTP ports come from the settings: a control port that is no number and a reversed
    // passive range are logged and left out; a good range is walked to 65535.
    auto ftp = [&](const std::string &settings) {
        write("/etc/kovainfo.conf", settings);
        Lines out;
        for (const std::string &e : owned_texts<Conf>(PkgConfListFetch()))
            if (e.find(" ftp ") != std::string::npos || e == "no list") out.push_back(e);
        return out;
    };
    EXPECT_EQ(ftp("ftpport=zz\nftplowport=60000\nftphighport=55000\n"), Lines{});
    EXPECT_TRUE(logged(kHelper + "Failed to fetch port from service: ftp"));
    EXPECT_TRUE(logged(kHelper + "Illegal port range: 60000~55000"));
    EXPECT_EQ(ftp("ftpport=2121\nftplowport=65534\nftphighport=65535\n"),
              (Lines{"2121/1 ftp 1", "65534/1 ftp 1", "65535/1 ftp 1"}));
}

TEST_F(ConfCheckTest, CheckExamplesAndBadInput) {
    EXPECT_EQ(check({"5005"}, 1), (Lines{"5005/1 kova-webdav 1"}));
    EXPECT_EQ(check({"5005"}, 2), (Lines{"5005/2 - 0"}));
    // nfs is declared for both protocols and enters the inventory as UDP only.
    EXPECT_EQ(check({"2049"}, 3), (Lines{"2049/1 - 0", "2049/2 nfs 1"}));
    // Two services on one port: both, in catalogue order; ports follow the caller's order.
    EXPECT_EQ(check({"8080", "514"}, 3),
              (Lines{"8080/1 alpha 1", "8080/1 beta 1", "8080/2 - 0", "514/1 kova-syslog 1", "514/2 kova-syslog 1"}));
    // Spans that nest and overlap: every one holding the port, in inventory order.
    EXPECT_EQ(check({"65532", "65001"}, 1),
              (Lines{"65532/1 wide 1", "65532/1 outer 1", "65532/1 outer 1", "65001/1 outer 1"}));
    clear_log();
    EXPECT_EQ(check({"0", "abc"}, 3), Lines{});
    EXPECT_EQ(log_normalized(),
              (Lines{kCheck + "Illegal port: 0", "port_conflict_helper.cpp:N Failed on parse port: abc",
                     kCheck + "Illegal port: abc"}));

    clear_log();
    auto ports = port_list({"5006"});
    kova::DListPtr results(KOVAConfPortConflictResultListAlloc());
    for (int rc :
         {KOVAConfPortConflictCheck(ports.get(), 4, results.get()),
          KOVAConfPortConflictCheck(nullptr, 1, results.get()), KOVAConfPortConflictCheck(ports.get(), 1, nullptr)})
        EXPECT_EQ(rc, -1);
    EXPECT_EQ(results->pHead, nullptr);
    EXPECT_TRUE(KOVAConfPortConflictResultListAllocAndCheck(nullptr, 1) == nullptr &&
                KOVAConfPortConflictResultListAllocAndCheck(ports.get(), 0) == nullptr);
    EXPECT_EQ(log_normalized(),
              (Lines{kCheck + "Illegal protocol: 4", kCheck + "pPortList is undefined",
                     kCheck + "ppResultList is undefined", kCheck + "pPortList is undefined",
                     kCheck + "Illegal protocol: 0", kCheck + "Failed to KOVAConfPortConflictCheck"}));
    EXPECT_EQ(owned_texts<Conf>(KOVAConfPortConflictResultListAllocAndCheck(ports.get(), 1)),
              (Lines{"5006/1 kova-webdav-ssl 1"}));
}

// The yes/no queries over the inventory; then lists made by hand: listing, verifying and filtering
// read only the records. The lists own deep copies: a shallow one would free the texts twice.
TEST_F(ConfCheckTest, Queries) {
    auto ports = port_list({"1", "2049"});
    EXPECT_EQ(
        (std::vector<int>{KOVAConfIsConflictPort(5005, 1), KOVAConfIsConflictPort(5005, 2),
                          KOVAConfIsConflictPortRange(5000, 5010, 1), KOVAConfIsConflictPortRange(65535, 65535, 1),
                          KOVAConfIsConflictPortRange(65100, 65535, 2),  // walks to the last port and ends
                          KOVAConfIsConflictPorts(ports.get(), 1), KOVAConfIsConflictPorts(ports.get(), 3)}),
        (std::vector<int>{1, 0, 1, 1, 0, 0, 1}));
    clear_log();
    EXPECT_EQ(KOVAConfIsConflictPortRange(10, 5, 3) + KOVAConfIsConflictPorts(ports.get(), 7), 0);
    EXPECT_EQ(log_normalized(), (Lines{kComparer + "Illegal port range: 10~5", kCheck + "Illegal protocol: 7",
                                       kComparer + "Failed to KOVAConfPortConflictCheck"}));
    kova::DListPtr list(KOVAConfPortConflictResultListAlloc());
    EXPECT_EQ(KOVAConfVerifyConflictPort(list.get(), 80, 1), -2);
    for (Conf r : {Conf{8443, 2, (char *)"alt", 1}, Conf{80, 1, nullptr, 0}, Conf{21, 1, (char *)"ftp", 1},
                   Conf{80, 2, (char *)"web", 1}})
        ASSERT_EQ(KVLIBCDListAppend(list.get(), &r), 0);  // copies, names included
    EXPECT_EQ(owned_texts<Conf>(KOVAConfPortConflictResultListCopy(list.get())), texts<Conf>(list.get()));
    // Distinct ports in first-seen order, after the ones the caller's list holds already.
    auto both = port_list({"80"});
    ASSERT_EQ(KOVAConfListConflictPorts(list.get(), 3, both.get()), 0);
    EXPECT_EQ(items(both.get()), (Lines{"80", "8443", "21"}));
    auto tcp = port_list({});
    ASSERT_EQ(KOVAConfListConflictPorts(list.get(), 1, tcp.get()), 0);
    EXPECT_EQ(items(tcp.get()), (Lines{"21"}));
    kova::DListPtr out(KOVAConfPortConflictResultListAlloc());
    EXPECT_EQ((std::vector<int>{
                  KOVAConfVerifyConflictPort(list.get(), 80, 1), KOVAConfVerifyConflictPort(list.get(), 80, 3),
                  KOVAConfVerifyConflictPort(list.get(), 21, 2), ConfResultListFilter(list.get(), 80, 2, out.get()),
                  ConfResultListFilter(list.get(), 81, 1, out.get()), ConfNotConflictResultAppend(out.get(), 81, 2)}),
              (std::vector<int>{0, 1, -2, 1, 0, 0}));
    EXPECT_EQ(texts<Conf>(out.get()), (Lines{"80/2 web 1", "81/2 - 0"}));
    clear_log();
    for (int rc : {KOVAConfListConflictPorts(nullptr, 3, tcp.get()), KOVAConfListConflictPorts(list.get(), 3, nullptr),
                   KOVAConfVerifyConflictPort(nullptr, 80, 1), ConfResultListFilter(nullptr, 80, 1, out.get()),
                   ConfResultListFilter(list.get(), 80, 1, nullptr), ConfNotConflictResultAppend(nullptr, 80, 1)})
        EXPECT_EQ(rc, -1);
    EXPECT_EQ(log_normalized(),
              (Lines{kComparer + "pResultList is undefined", kComparer + "pConflictPortList is undefined",
                     kComparer + "pResultList is undefined", kHelper + "pSourceResultList is undefined",
                     kHelper + "pFilteredResultList is undefined", kHelper + "pResultList is undefined"}));
}

}  // namespace
