// Kernel socket tables as a hostile file: the bytes become /proc/net/tcp (and the other tables)
// under a private root and go through ParseToRawSocketInfo and RawSocketInfoListFetch. The
// records must be exactly what the table's scanf format reads from each line, in file order,
// without duplicates.
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

constexpr const char *kHeader =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

struct Socket {
    uint16_t port;
    uint32_t state;
    uint64_t inode;
    uint16_t protocol;
    bool operator==(const Socket &) const = default;
};

std::string show(const std::vector<Socket> &list) {
    std::string out;
    for (const Socket &s : list) {
        char buf[80];
        std::snprintf(buf, sizeof buf, "[p%u port %u st %u ino %lu]", s.protocol, s.port, s.state,
                      static_cast<unsigned long>(s.inode));
        out += buf;
    }
    return out.empty() ? "(none)" : out;
}

// The lines as the platform reads them ("\n" ends a line, a "\r" before it belongs to the
// ending, a text ends at its first NUL), scanned with the table's format.
void model_table(const std::string &bytes, uint16_t protocol, std::vector<Socket> &out) {
    size_t pos = 0;
    while (pos < bytes.size()) {
        const size_t nl = bytes.find('\n', pos);
        const size_t end = nl == std::string::npos ? bytes.size() : nl;
        const size_t content_end = end > pos && bytes[end - 1] == '\r' ? end - 1 : end;
        const std::string line = bytes.substr(pos, content_end - pos);
        pos = nl == std::string::npos ? bytes.size() : nl + 1;

        unsigned short port = 0;
        unsigned int state = 0;
        unsigned long inode = 0;
        if (std::sscanf(line.c_str(),
                        "%*d: %*64[0-9A-Fa-f]:%hx %*64[0-9A-Fa-f]:%*X %X %*X:%*X %*X:%*X %*X %*d %*d %lu ", &port,
                        &state, &inode) < 3)
            continue;
        const Socket s{port, state, inode, protocol};
        bool seen = false;
        for (const Socket &o : out) seen = seen || o == s;
        if (!seen) out.push_back(s);
    }
}

void *copy_socket(const void *p) {
    return RawSocketInfoCopy(static_cast<const RawSocketInfo *>(p));
}

void free_socket(void *p) {
    RawSocketInfoFree(static_cast<RawSocketInfo *>(p));
}

std::vector<Socket> records(const KVLIB_DLIST *list) {
    std::vector<Socket> out;
    for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext) {
        const auto *r = static_cast<const RawSocketInfo *>(n->pData);
        FUZZ_CHECK(r != nullptr);
        out.push_back({r->port, r->state, r->inode, r->protocol});
        FUZZ_CHECK(ContainRawSocketInfo(list, r) == 1);
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 65536) return 0;
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    const std::string path = under_root("/proc/net/tcp");
    write_file("/proc/net/tcp", bytes);

    std::vector<Socket> expected;
    model_table(bytes, KOVA_PROTO_TCP, expected);

    KVLIB_DLIST *list = KVLIBCDListAlloc(copy_socket, free_socket);
    FUZZ_CHECK(list != nullptr);
    FUZZ_CHECK(ParseToRawSocketInfo(path.c_str(), KOVA_PROTO_TCP, list) == 0);
    std::vector<Socket> got = records(list);
    FUZZ_CHECKF(got == expected, "parsed %s, expected %s", show(got).c_str(), show(expected).c_str());

    // A second pass over the same table adds nothing: every line is a duplicate now.
    FUZZ_CHECK(ParseToRawSocketInfo(path.c_str(), KOVA_PROTO_TCP, list) == 0);
    FUZZ_CHECK(records(list) == expected);
    KVLIBCDListFree(list);

    // All four tables: TCP (IPv4, then IPv6) before UDP, duplicates dropped per protocol.
    write_file("/proc/net/tcp6", kHeader);
    write_file("/proc/net/udp", kHeader);
    write_file("/proc/net/udp6", bytes);
    std::vector<Socket> all = expected;
    model_table(bytes, KOVA_PROTO_UDP, all);
    list = RawSocketInfoListFetch(KOVA_PROTO_BOTH);
    FUZZ_CHECK(list != nullptr);
    got = records(list);
    KVLIBCDListFree(list);
    FUZZ_CHECKF(got == all, "fetched %s, expected %s", show(got).c_str(), show(all).c_str());

    // One protocol only.
    list = RawSocketInfoListFetch(KOVA_PROTO_UDP);
    FUZZ_CHECK(list != nullptr);
    got = records(list);
    KVLIBCDListFree(list);
    FUZZ_CHECKF(got == std::vector<Socket>(all.begin() + static_cast<long>(expected.size()), all.end()), "UDP fetch %s",
                show(got).c_str());
    return 0;
}
