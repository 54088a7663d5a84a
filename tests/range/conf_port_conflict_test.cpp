// The check of a whole .sc file, section by section.
#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "conflict_support.h"

namespace kova::test {
namespace {

class ConfPortConflictTest : public ConflictTest {
protected:
    int check_file(const std::string &content) {
        write("/pkg/new.sc", content);
        return KVLIBIsConfPortConflict(path("/pkg/new.sc").c_str(), &list);
    }
};

TEST_F(ConfPortConflictTest, ASectionCollidingWithTheCatalogue) {
    EXPECT_EQ(check_file("[svc]\ntitle=t\ndesc=d\ndst.ports=445/tcp\n"), 1);
    EXPECT_EQ(mine(), std::vector<std::string>{"service_is_port_conflict.cpp:N szTmpString=445/tcp conflict"});
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, 0, 445, 445}}));
}

TEST_F(ConfPortConflictTest, ASectionDoesNotCollideWithItself) {
    // Installed already under the same section name: neither its catalogue entry nor its ports
    // in use count.
    service("svc", {{"svc", "8445/tcp"}});
    sockets("tcp", {{8445, 0x0A}});
    EXPECT_EQ(check_file("[svc]\ndst.ports=8445/tcp\n"), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(check_file("[svc2]\ndst.ports=8445/tcp\n"), 1);
}

TEST_F(ConfPortConflictTest, GlobalIsPassedOverAndTheFirstCollisionDecides) {
    sockets("udp", {{7000, 0x07}});
    EXPECT_EQ(check_file("[global]\nversion=1\n[a]\ndst.ports=6000/udp\n[b]\ndst.ports=7000/udp\n"
                         "[c]\ndst.ports=445/tcp\n"),
              1);
    EXPECT_EQ(mine(), std::vector<std::string>{"service_is_port_conflict.cpp:N szTmpString=7000/udp conflict"});
    EXPECT_EQ(list, nullptr);  // the ports in use name no port
}

TEST_F(ConfPortConflictTest, MissingOrEmptyProtocolPart) {
    // No "/": the check refuses the missing protocol, the failure is logged and the walk goes on.
    EXPECT_EQ(check_file("[a]\ndst.ports=80\n[b]\ndst.ports=8081 / TCP \n"), 0);
    EXPECT_EQ(mine(), (std::vector<std::string>{
                          "service_is_port_conflict.cpp:N Invalid Argument!!",
                          "service_is_port_conflict.cpp:N KVLIBIsPortConflict FAILED=-1, port=80, protocol= "
                          "kovaerr=[0x0D00 service_is_port_conflict.cpp:N]",
                      }));
    // An empty protocol part is both protocols for the catalogue.
    clear_log();
    EXPECT_EQ(check_file("[a]\ndst.ports= 445 /\n"), 1);
    EXPECT_EQ(mine(), std::vector<std::string>{"service_is_port_conflict.cpp:N szTmpString=445 / conflict"});
}

TEST_F(ConfPortConflictTest, AFailedSectionCheckIsPassedOver) {
    EXPECT_EQ(check_file("[a]\ndst.ports=80 443/tcp\n[b]\ndst.ports=139/tcp\n"), 1);
    EXPECT_TRUE(
        logged("service_is_port_conflict.cpp:N KVLIBIsPortConflict FAILED=-1, port=80 443, protocol=tcp "
               "kovaerr=[0x0D00 service_conf_ports_get.cpp:N]"));
    EXPECT_TRUE(logged("service_is_port_conflict.cpp:N szTmpString=139/tcp conflict"));
}

TEST_F(ConfPortConflictTest, SectionsWithoutPortsOrKeys) {
    poison_error();
    EXPECT_EQ(check_file("[a]\ntitle=x\n[b]\ndst.ports=445/tcp\n"), -1);
    EXPECT_EQ(mine(), std::vector<std::string>{"service_is_port_conflict.cpp:N szTmpString is NULL[0xEEEE poison:7]"});
    EXPECT_EQ(list, nullptr);

    // Each section is read with its own keys only.
    clear_log();
    EXPECT_EQ(check_file("[a]\ndst.ports=6000/tcp\n[b]\ntitle=x\n"), -1);
    EXPECT_EQ(mine().size(), 1u);

    clear_log();
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(check_file("[a]\n[b]\ndst.ports=445/tcp\n"), -1);
    EXPECT_EQ(mine(), std::vector<std::string>{"service_is_port_conflict.cpp:N Failed to KVLIBCFileGetSection, file: " +
                                               path("/pkg/new.sc") +
                                               ", section name: a, nHashRecords: 0, kovaerr=[0x0000 :0]"});
}

TEST_F(ConfPortConflictTest, UnreadableOrEmptyFiles) {
    EXPECT_EQ(KVLIBIsConfPortConflict(path("/pkg/none.sc").c_str(), &list), 0);
    EXPECT_EQ(KVLIBIsConfPortConflict(nullptr, &list), 0);
    EXPECT_EQ(check_file("# nothing\n"), 0);
    EXPECT_EQ(check_file("[global]\nversion=1\n"), 0);
    // Without a conflict list every section's check fails, is logged and passed over.
    EXPECT_EQ(KVLIBIsConfPortConflict(path("/pkg/new.sc").c_str(), nullptr), 0);
    EXPECT_TRUE(mine().empty());
    EXPECT_EQ(check_file("[a]\ndst.ports=445/tcp\n"), 1);
    clear_log();
    EXPECT_EQ(KVLIBIsConfPortConflict(path("/pkg/new.sc").c_str(), nullptr), 0);
    EXPECT_EQ(mine(), (std::vector<std::string>{
                          "service_is_port_conflict.cpp:N Invalid Argument!!",
                          "service_is_port_conflict.cpp:N KVLIBIsPortConflict FAILED=-1, port=445, protocol=tcp "
                          "kovaerr=[0x0D00 service_is_port_conflict.cpp:N]",
                      }));
}

TEST_F(ConfPortConflictTest, TheConflictListGathersEverySectionChecked) {
    info("ftpport=21\n");
    EXPECT_EQ(check_file("[a]\ndst.ports=6000/tcp\n[b]\ndst.ports=21,139/tcp\n"), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, 0, 21, 21}, {0, 0, 139, 139}}));
}

}  // namespace
}  // namespace kova::test
