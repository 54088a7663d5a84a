// The port getters over the settings files under the test root.
#include <kovaserviceconf.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fw_test.h"

namespace {

using kova::fw::test::err_hex;
using kova::fw::test::err_state;
using kova::fw::test::ports_of;
using Ports = std::vector<std::string>;

class FwGetters : public kova::fw::test::FwTest {
protected:
    // Calls a getter that must fail: -1, nothing stored, exactly `line` logged.
    template <class Getter>
    void expect_failure(Getter getter, const std::string &line) {
        KVLIB_SZLIST sentinel{};
        KVLIB_SZLIST *list = &sentinel;
        clear_log();
        EXPECT_EQ(getter(&list), -1);
        EXPECT_EQ(list, &sentinel);
        EXPECT_EQ(log_normalized(), std::vector<std::string>{line});
    }
};

TEST_F(FwGetters, NullOutPointerIsBadParameters) {
    for (KOVA_FW_PORTS_GETTER g :
         {KOVAFwPortsFTP, KOVAFwPortsNFS, KOVAFwPortsSSH, KOVAFwPortsSurveillanceCamSearch, KOVAFwPortsMFP}) {
        clear_log();
        EXPECT_EQ(g(nullptr), -1);
        EXPECT_EQ(log_normalized(), std::vector<std::string>{"firewall_service_register.cpp:N Bad parameters"});
    }
}

TEST_F(FwGetters, FtpControlPortAndPassiveRange) {
    write(kInfo, "hostname=box\n");
    EXPECT_EQ(ports_of(KOVAFwPortsFTP), Ports{"21"});
    write(kInfo, "ftpport=\n");
    EXPECT_EQ(ports_of(KOVAFwPortsFTP), Ports{"21"});
    write(kInfo, "ftpport=990\nftplowport=600\nftphighport=700\n");
    EXPECT_EQ(ports_of(KOVAFwPortsFTP), (Ports{"990", "600-700"}));
    // Neither converted nor compared.
    write(kInfo, "ftpport=abc\nftplowport=900\nftphighport=x\n");
    EXPECT_EQ(ports_of(KOVAFwPortsFTP), (Ports{"abc", "900-x"}));
    EXPECT_TRUE(log().empty());
}

TEST_F(FwGetters, FtpZeroBoundTakesDefaultPassiveRange) {
    KOVA_FTP_PASSIVE_PORT def{};
    KOVAFTPDefaultPassivePortGet(&def);
    const std::string range = std::to_string(def.lowPort) + "-" + std::to_string(def.highPort);
    write(kInfo, "ftpport=2121\nftplowport=0\nftphighport=700\n");
    EXPECT_EQ(ports_of(KOVAFwPortsFTP), (Ports{"2121", range}));
    write(kInfo, "ftplowport=600\nftphighport=0\n");
    EXPECT_EQ(ports_of(KOVAFwPortsFTP), (Ports{"21", range}));
}

TEST_F(FwGetters, FtpIncompleteRangeKeepsControlPortOnly) {
    write(kInfo, "ftpport=990\nftplowport=600\n");
    EXPECT_EQ(ports_of(KOVAFwPortsFTP), Ports{"990"});
    write(kInfo, "ftpport=990\nftplowport=\nftphighport=700\n");
    EXPECT_EQ(ports_of(KOVAFwPortsFTP), Ports{"990"});
}

TEST_F(FwGetters, FtpUnreadableSettingsFail) {
    make_unreadable(kInfo);
    KVLIB_SZLIST *list = nullptr;
    EXPECT_EQ(KOVAFwPortsFTP(&list), -1);  // sets the platform's error state for err_hex()
    expect_failure(KOVAFwPortsFTP, "firewall_service_register.cpp:N Failed to get val of 'ftpport', " + err_hex());
}

TEST_F(FwGetters, NfsFixedPorts) {
    for (const char *conf : {"", "nfs_custom_port_enable=no\n", "nfs_custom_port_enable=YES\nstatd_port=662\n"}) {
        write(kNfs, conf);
        EXPECT_EQ(ports_of(KOVAFwPortsNFS), (Ports{"111", "892", "2049"})) << conf;
    }
}

TEST_F(FwGetters, NfsCustomPorts) {
    write(kNfs, "nfs_custom_port_enable=yes\nstatd_port=662\nnlm_port=875\n");
    EXPECT_EQ(ports_of(KOVAFwPortsNFS), (Ports{"111", "892", "2049", "662", "875"}));
    EXPECT_TRUE(log().empty());
}

TEST_F(FwGetters, NfsCustomPortsMissing) {
    write(kNfs, "nfs_custom_port_enable=yes\nnlm_port=875\n");
    expect_failure(KOVAFwPortsNFS,
                   "firewall_service_register.cpp:N Failed to get val of 'NFS statd port', " + err_hex());
    write(kNfs, "nfs_custom_port_enable=yes\nstatd_port=662\nnlm_port=\n");
    expect_failure(KOVAFwPortsNFS, "firewall_service_register.cpp:N Failed to get val of 'NFS nlm port', " + err_hex());
}

TEST_F(FwGetters, NfsUnreadableSettingsFail) {
    make_unreadable(kNfs);
    KVLIB_SZLIST *list = nullptr;
    EXPECT_EQ(KOVAFwPortsNFS(&list), -1);
    expect_failure(KOVAFwPortsNFS,
                   "firewall_service_register.cpp:N Failed to get val of 'nfs_custom_port_enable', " + err_hex());
}

TEST_F(FwGetters, SshPortsWithoutRepetition) {
    write(kInfo, "ftpport=21\n");
    EXPECT_EQ(ports_of(KOVAFwPortsSSH), Ports{"22"});

    write("/etc/ssh/sshd_config", "Port 822\n");
    write(kInfo, "sftpPort=22\nrsync_sshd_port=22\n");
    EXPECT_EQ(ports_of(KOVAFwPortsSSH), (Ports{"822", "22"}));

    write(kInfo, "sftpPort=2222\nrsync_sshd_port=873\n");
    EXPECT_EQ(ports_of(KOVAFwPortsSSH), (Ports{"822", "2222", "873"}));

    write(kInfo, "sftpPort=2222\nrsync_sshd_port=822\n");
    EXPECT_EQ(ports_of(KOVAFwPortsSSH), (Ports{"822", "2222"}));
}

TEST_F(FwGetters, SshOddSettingsFallBackTo22) {
    write("/etc/ssh/sshd_config", "Port 822\n");
    for (const char *sftp : {"65536", "70000", "0", "-5", "abc", ""}) {
        write(kInfo, std::string("sftpPort=") + sftp + "\nrsync_sshd_port=65535\n");
        EXPECT_EQ(ports_of(KOVAFwPortsSSH), (Ports{"822", "22", "65535"})) << sftp;
    }
    write(kInfo, "sftpPort=1\nrsync_sshd_port=99999\n");
    EXPECT_EQ(ports_of(KOVAFwPortsSSH), (Ports{"822", "1", "22"}));
    // The value counts as a 32-bit integer: 2^32 + 23 is 23.
    write(kInfo, "sftpPort=4294967319\n");
    EXPECT_EQ(ports_of(KOVAFwPortsSSH), (Ports{"822", "23", "22"}));
}

TEST_F(FwGetters, SshUnreadableSettingsFail) {
    make_unreadable(kInfo);
    KVLIB_SZLIST *list = nullptr;
    EXPECT_EQ(KOVAFwPortsSSH(&list), -1);
    expect_failure(KOVAFwPortsSSH,
                   "firewall_service_register.cpp:N Failed to get sftpPort of kovainfo.conf. " + err_state());
}

TEST_F(FwGetters, FixedRanges) {
    EXPECT_EQ(ports_of(KOVAFwPortsSurveillanceCamSearch), Ports{"55900-55910"});
    EXPECT_EQ(ports_of(KOVAFwPortsMFP), Ports{"3240-3259"});
    EXPECT_TRUE(log().empty());
}

TEST_F(FwGetters, SuccessLeavesErrorStateAlone) {
    write(kInfo, "ftpport=990\nftplowport=0\nftphighport=700\nsftpPort=2222\n");
    write(kNfs, "nfs_custom_port_enable=yes\nstatd_port=662\nnlm_port=875\n");
    poison_error();
    ports_of(KOVAFwPortsFTP);
    ports_of(KOVAFwPortsNFS);
    ports_of(KOVAFwPortsSSH);
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);
}

}  // namespace
