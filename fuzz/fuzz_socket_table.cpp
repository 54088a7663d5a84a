// Kernel socket tables built from the input: each entry is a socket line as the kernel writes
// it (with varying spaces, digit case, address lengths and line endings), the same line cut
// short, a header or a line of garbage. The model knows from the construction which sockets a
// table holds; the tables go under a private root through ParseToRawSocketInfo and
// RawSocketInfoListFetch, which must give exactly those, in table order, without duplicates.
#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

constexpr const char *kHeader =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode";

struct Socket {
    uint16_t port;
    uint32_t state;
    uint64_t inode;
    uint16_t protocol;
    bool operator==(const Socket &) const = default;
};

std::string show(const std::vector<Socket> &list) {
    std::string out;
    for (const Socket &s : list)
        out += format("[p%u port %u st %u ino %lu]", s.protocol, s.port, s.state, static_cast<unsigned long>(s.inode));
    return out.empty() ? "(none)" : out;
}

struct Input {  // the fuzzer's bytes, read in order; zeros once they run out
    const uint8_t *p;
    size_t n;
    uint8_t byte() { return n == 0 ? 0 : (--n, *p++); }
    uint64_t number(int bytes) {
        uint64_t v = 0;
        for (int i = 0; i < bytes; ++i) v = v << 8 | byte();
        return v;
    }
};

std::string hex(uint64_t value, int digits, bool upper) {
    if (digits < 16) value &= (uint64_t{1} << 4 * digits) - 1;
    return format(upper ? "%0*lX" : "%0*lx", digits, static_cast<unsigned long>(value));
}

// One socket line; `inode_at` is where the inode's digits begin.
std::string kernel_line(Input &in, const Socket &s, size_t &inode_at) {
    const uint8_t style = in.byte();
    const bool upper = (style & 1) != 0;
    const int address = (style & 2) != 0 ? 32 : 8;  // IPv6 or IPv4
    const std::string gap(1 + (style >> 2 & 3), ' ');
    std::string line = std::string(style >> 4 & 3, ' ') + std::to_string(in.byte()) + ":" + gap;
    line += hex(in.number(8), address, upper) + ":" + hex(s.port, 4, upper) + gap;
    line += hex(in.number(8), address, upper) + ":" + hex(in.number(2), 4, upper) + gap;
    line += hex(s.state, 2, upper) + gap + hex(in.number(4), 8, upper) + ":" + hex(in.number(4), 8, upper) + gap;
    line += hex(in.byte(), 2, upper) + ":" + hex(in.number(4), 8, upper) + gap + hex(in.number(4), 8, upper) + gap;
    line += std::to_string(in.number(2)) + gap + std::to_string(in.byte()) + gap;
    inode_at = line.size();
    line += std::to_string(s.inode);
    if ((style & 0x40) != 0) line += " 1 0000000000000000 100 0 0 10 0";
    return line;
}

// A table from the input, and the sockets it holds in order (duplicates included).
std::string build_table(Input &in, uint16_t protocol, std::vector<Socket> &sockets) {
    std::string table;
    for (int entries = in.byte() % 24; entries > 0 && in.n != 0; --entries) {
        const uint8_t kind = in.byte();
        std::string line;
        if (kind % 8 < 5 || kind % 8 == 7) {  // a socket line, whole or cut short
            Socket s{static_cast<uint16_t>(in.number(2)), in.byte(), in.number(kind & 0x80 ? 8 : 3), protocol};
            size_t inode_at = 0;
            line = kernel_line(in, s, inode_at);
            if (kind % 8 == 7) line.resize(in.number(2) % (line.size() + 1));
            if (line.size() > inode_at) {  // cut before its inode, a line is not a socket
                s.inode = std::stoull(line.substr(inode_at, line.find(' ', inode_at) - inode_at));
                sockets.push_back(s);
            }
        } else if (kind % 8 == 5) {
            line = kHeader;
        } else {  // garbage: a letter first, then anything but a line end
            line = std::string(1, static_cast<char>('g' + in.byte() % 20));
            for (int k = in.byte() % 40; k > 0; --k)
                if (const char c = static_cast<char>(in.byte()); c != '\n' && c != '\0') line += c;
        }
        table += line + ((kind & 0x40) != 0 ? "\r\n" : "\n");
    }
    return table;
}

std::vector<Socket> distinct(const std::vector<Socket> &sockets) {
    std::vector<Socket> out;
    for (const Socket &s : sockets)
        if (std::find(out.begin(), out.end(), s) == out.end()) out.push_back(s);
    return out;
}

// The sockets of a list, each of which the list says it contains.
std::vector<Socket> records(const KVLIB_DLIST *list) {
    std::vector<Socket> out;
    for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext) {
        const auto *r = static_cast<const RawSocketInfo *>(n->pData);
        FUZZ_CHECK(r != nullptr && ContainRawSocketInfo(list, r) == 1);
        out.push_back({r->port, r->state, r->inode, r->protocol});
    }
    return out;
}

std::vector<Socket> fetch(uint16_t protocol) {
    KVLIB_DLIST *list = RawSocketInfoListFetch(protocol);
    FUZZ_CHECK(list != nullptr);
    const std::vector<Socket> out = records(list);
    KVLIBCDListFree(list);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 65536) return 0;
    Input in{data, size};
    std::vector<Socket> tcp, udp6;
    const std::string tcp_table = build_table(in, KOVA_PROTO_TCP, tcp);
    const std::string udp6_table = build_table(in, KOVA_PROTO_UDP, udp6);
    const std::vector<Socket> expected = distinct(tcp), udp = distinct(udp6);
    const std::string path = under_root("/proc/net/tcp");
    write_file("/proc/net/tcp", tcp_table);

    KVLIB_DLIST *list = KVLIBCDListAlloc(
        [](const void *p) -> void * { return RawSocketInfoCopy(static_cast<const RawSocketInfo *>(p)); },
        [](void *p) { RawSocketInfoFree(static_cast<RawSocketInfo *>(p)); });
    FUZZ_CHECK(list != nullptr);
    // A second pass over the same table adds nothing: every line is a duplicate then.
    for (int pass = 0; pass < 2; ++pass) {
        FUZZ_CHECK(ParseToRawSocketInfo(path.c_str(), KOVA_PROTO_TCP, list) == 0);
        const std::vector<Socket> got = records(list);
        FUZZ_CHECKF(got == expected, "pass %d parsed %s, expected %s", pass, show(got).c_str(), show(expected).c_str());
    }
    KVLIBCDListFree(list);

    // All four tables: TCP (IPv4, then IPv6) before UDP, duplicates dropped per protocol.
    write_file("/proc/net/tcp6", tcp_table);
    write_file("/proc/net/udp", "");
    write_file("/proc/net/udp6", udp6_table);
    std::vector<Socket> all = expected;
    all.insert(all.end(), udp.begin(), udp.end());
    const std::vector<Socket> both = fetch(KOVA_PROTO_BOTH), only_udp = fetch(KOVA_PROTO_UDP);
    FUZZ_CHECKF(both == all && only_udp == udp, "fetched %s, UDP %s; expected %s, UDP %s", show(both).c_str(),
                show(only_udp).c_str(), show(all).c_str(), show(udp).c_str());
    return 0;
}
