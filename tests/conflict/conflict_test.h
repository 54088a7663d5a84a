// Helpers of the conflict tests: result lists as texts, port lists, and a fabricated process
// table under the test root (socket tables, descriptor links, executable links).
#pragma once

#include <kovaserviceconf.h>

#include <cstdio>
#include <string>
#include <vector>

#include "foundation/raii.h"
#include "kova_test.h"

namespace kova::test {

using Lines = std::vector<std::string>;

// Records as texts: "port/protocol" then name and isConflict (configured), pid, state, program
// and isConflict (runtime), or state and inode (socket table line).
inline std::string head(unsigned port, unsigned protocol) {
    return std::to_string(port) + "/" + std::to_string(protocol) + " ";
}
inline std::string text_of(const KOVA_CONF_PORT_CONFLICT_RESULT &r) {
    return head(r.port, r.protocol) + (r.serviceName ? r.serviceName : "-") + " " + std::to_string(r.isConflict);
}
inline std::string text_of(const KOVA_RUNTIME_PORT_CONFLICT_RESULT &r) {
    return head(r.port, r.protocol) + std::to_string(r.pid) + " " + std::to_string(r.state) + " " +
           (r.program ? r.program : "-") + " " + std::to_string(r.isConflict);
}
inline std::string text_of(const RawSocketInfo &r) {
    return head(r.port, r.protocol) + std::to_string(r.state) + " " + std::to_string(r.inode);
}

// The records of a list as texts, first node first; {"no list"} for none.
template <class R>
Lines texts(const KVLIB_DLIST *list) {
    if (list == nullptr) return {"no list"};
    Lines out;
    for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext)
        out.push_back(text_of(*static_cast<const R *>(n->pData)));
    return out;
}
// The same for a list handed over by the call under test, which is freed here.
template <class R>
Lines owned_texts(KVLIB_DLIST *list) {
    return texts<R>(DListPtr(list).get());
}

inline Lines items(const KVLIB_SZLIST *list) {
    if (list == nullptr) return {"no list"};
    Lines out;
    for (int i = 0; i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
    return out;
}
inline Lines owned_items(KVLIB_SZLIST *list) {
    return items(SzListPtr(list).get());
}

inline SzListPtr port_list(std::initializer_list<const char *> ports) {
    SzListPtr list(KVLIBCSzListAlloc(512));
    KVLIB_SZLIST *handle = list.get();
    for (const char *p : ports) KVLIBCSzListPush(&handle, p);
    return list;
}

// One socket table line as the kernel writes it, IPv4 or IPv6.
inline std::string sock_line(unsigned port, unsigned state, unsigned long inode, bool v6 = false) {
    const std::string any(v6 ? 32 : 8, '0'), local = v6 ? any.substr(8) + "01000000" : "0100007F";
    char text[320];
    std::snprintf(text, sizeof text,
                  "   0: %s:%04X %s:0000 %02X 00000000:00000000 00:00000000 00000000     0        0 %lu 1 "
                  "0000000000000000 100 0 0 10 0\n",
                  local.c_str(), port, any.c_str(), state, inode);
    return text;
}

class ProcTableTest : public RootTest {
protected:
    // The four socket tables, each with a header line.
    void tables(const std::string &tcp, const std::string &tcp6, const std::string &udp,
                const std::string &udp6) const {
        const std::string header = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt\n";
        write("/proc/net/tcp", header + tcp);
        write("/proc/net/tcp6", header + tcp6);
        write("/proc/net/udp", header + udp);
        write("/proc/net/udp6", header + udp6);
    }

    // A process directory with descriptor links ({fd, target}) and, unless empty, its executable.
    void process(const std::string &pid, const std::string &exe,
                 const std::vector<std::pair<int, std::string>> &fds) const {
        mkdir("/proc/" + pid + "/fd");
        for (const auto &[fd, target] : fds) symlink(target, "/proc/" + pid + "/fd/" + std::to_string(fd));
        if (!exe.empty()) symlink(exe, "/proc/" + pid + "/exe");
    }
};

}  // namespace kova::test
