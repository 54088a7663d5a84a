// Fixture for the conflict checks: a root with settings, an empty port-forwarding setup, empty
// socket tables, and helpers to add services, rules, sockets and to read conflict lists.
#pragma once

#include <kovaserviceconf.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "kova_test.h"

namespace kova::test {

// type, protocol, beginPort, endPort (direction is checked to be 0 separately).
using Entry = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;

inline std::vector<Entry> entries_of(const KOVA_SERVICE_CONF_PORT *n) {
    std::vector<Entry> out;
    for (; n != nullptr; n = n->next) {
        EXPECT_EQ(n->direction, 0u);
        out.emplace_back(n->type, n->protocol, n->beginPort, n->endPort);
    }
    return out;
}

class ConflictTest : public RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        info("");
        write("/etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=no\n");
        write("/etc/ssh/sshd_config", "Port 22\n");
        sockets("tcp", {});
        sockets("tcp6", {});
        sockets("udp", {});
        sockets("udp6", {});
    }
    void TearDown() override {
        KOVAServiceConfPortsFree(list);
        RootTest::TearDown();
    }

    // The system information file.
    void info(const std::string &content) const { write("/etc/kovainfo.conf", content); }

    // A package .sc file with one service section per (name, dst.ports).
    void service(const std::string &file, const std::vector<std::pair<std::string, std::string>> &sections) const {
        std::string text = "[global]\nversion=1\n";
        for (const auto &[name, ports] : sections)
            text += "[" + name + "]\ntitle=" + name + "\ndesc=" + name + "\ndst.ports=" + ports + "\n";
        write("/usr/local/etc/services.d/" + file + ".sc", text);
    }

    void rules(const std::string &content) const { write("/etc/portforward/rule.conf", content); }

    // A socket table of /proc/net with one socket per (port, state); 0x0A is listening.
    void sockets(const std::string &table, const std::vector<std::pair<int, int>> &socks) const {
        std::string text =
            "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
        int slot = 0;
        for (auto [port, state] : socks) {
            char line[256];
            std::snprintf(line, sizeof line,
                          "%4d: 00000000:%04X 00000000:0000 %02X 00000000:00000000 00:00000000 00000000     0        "
                          "0 %d 1 0000000000000000 100 0 0 10 0\n",
                          slot, port, state, 1000 + slot);
            text += line;
            ++slot;
        }
        write("/proc/net/" + table, text);
    }

    int check(const char *skip, const char *ports, const char *protocol, int flags) {
        return KVLIBIsPortConflict(skip, ports, protocol, flags, &list);
    }

    std::vector<Entry> entries() const { return entries_of(list); }

    // Log lines of the check's own module.
    std::vector<std::string> mine() const {
        std::vector<std::string> out;
        for (const auto &l : log_normalized())
            if (l.rfind("service_is_port_conflict.cpp:", 0) == 0) out.push_back(l);
        return out;
    }

    KOVA_SERVICE_CONF_PORT *list = nullptr;
};

}  // namespace kova::test
