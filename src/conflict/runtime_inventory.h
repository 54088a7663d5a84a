// Pieces of the runtime inventory shared with the tests: reading one line of a kernel socket
// table and one descriptor link. They do not log.
#pragma once

#include <kovaserviceconf.h>

#include <cstdint>

namespace kova::conflict {

// The local port, state and inode of one line of /proc/net/{tcp,tcp6,udp,udp6}, read as the
// scanf format "%*d: %*64[0-9A-Fa-f]:%hx %*64[0-9A-Fa-f]:%*X %X %*X:%*X %*X:%*X %*X %*d %*d %lu "
// reads them. False, and `info` untouched, when the line does not yield all three (a header,
// a malformed or a truncated line). The protocol field is left alone.
bool scan_socket_line(const char *line, RawSocketInfo &info);

// The socket inode of a descriptor link target: "socket:[N]", or "[0000]:N" as some kernels
// write it. False for anything else (files, pipes, other anonymous inodes).
bool scan_socket_link(const char *target, uint64_t &inode);

}  // namespace kova::conflict
