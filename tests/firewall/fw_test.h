// Shared helpers of the firewall catalogue tests.
#pragma once

#include <kovaserviceconf.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kova_test.h"

namespace kova::fw::test {

inline std::vector<std::string> items(const KVLIB_SZLIST *list) {
    std::vector<std::string> out;
    if (list == nullptr) return out;
    for (int i = 0; i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
    return out;
}

// A getter's list as texts; the list is freed. Fails the test when the getter fails.
template <class Getter>
std::vector<std::string> ports_of(Getter getter) {
    KVLIB_SZLIST *list = nullptr;
    const int ret = getter(&list);
    EXPECT_EQ(ret, 0);
    EXPECT_NE(list, nullptr);
    std::vector<std::string> out = items(list);
    KVLIBCSzListFree(list);
    return out;
}

// The "errno=0x%X" suffix of a log line as the current error state gives it.
inline std::string err_hex() {
    char buf[32];
    std::snprintf(buf, sizeof buf, "errno=0x%X", KVLIBCErrGet());
    return buf;
}

// The "[0x%04X file:N]" form of the current error state, normalized like the log.
inline std::string err_state() {
    char buf[256];
    std::snprintf(buf, sizeof buf, "[0x%04X %s:%d]", KVLIBCErrGet(), KVLIBCErrorGetFile(), KVLIBCErrorGetLine());
    return kova::test::normalize(buf);
}

class FwTest : public kova::test::RootTest {
protected:
    static constexpr const char *kInfo = "/etc/kovainfo.conf";
    static constexpr const char *kDefaults = "/etc.defaults/kovainfo.conf";
    static constexpr const char *kNfs = "/etc/nfs/kova_nfs_conf";
    static constexpr const char *kSysDir = "/usr/kova/etc/services.d";
    static constexpr const char *kPkgDir = "/usr/local/etc/services.d";

    // A settings tree in which every getter succeeds and both services.d directories exist.
    void write_settings() {
        write(kInfo, "ftpport=21\nftplowport=55536\nftphighport=55899\n");
        write(kDefaults, "supportmysql=yes\n");
        write(kNfs, "nfs_custom_port_enable=no\n");
        mkdir(kSysDir);
        mkdir(kPkgDir);
    }
    // Makes a settings file unreadable whoever runs the test: a directory in its place.
    void make_unreadable(const std::string &rel) {
        std::remove(path(rel).c_str());
        mkdir(rel);
    }
};

}  // namespace kova::fw::test
