// Walking the processes under /proc: which process holds which socket, and what it runs.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "conflict/runtime_inventory.h"
#include "kova_root.h"

namespace kova::conflict {

namespace {

// Reads a link's target, at most 1023 bytes; "" when it yields nothing. `dir` is a descriptor of
// the link's directory (then `name` is its name there) or AT_FDCWD.
std::string read_link(const Door &door, int dir, const std::string &name) {
    char target[1024];
    const ssize_t n = door->readlinkat(dir, name.c_str(), target, sizeof target - 1);
    if (n <= 0) return {};
    return std::string(target, static_cast<size_t>(n));
}

// Fails as an empty listing, unless memory ran out.
void unlisted() {
    if (errno == ENOMEM) throw std::bad_alloc();
}

}  // namespace

std::vector<int> list_pids(const Door &door) {
    std::vector<int> pids;
    std::vector<std::string> names;
    if (door->list_dir(door.path(paths::kProcDir).c_str(), names) != 0) unlisted();
    for (const std::string &name : names) {
        if (name[0] == '.') continue;
        int pid = 0;
        if (std::sscanf(name.c_str(), "%d", &pid) != 1) break;
        pids.push_back(pid);
    }
    return pids;
}

// The descriptors are read through their directory, opened once: a process with thousands of
// sockets costs no path walk per descriptor.
std::vector<uint64_t> socket_inodes(const Door &door, const std::string &pid) {
    std::vector<uint64_t> inodes;
    std::vector<DirEntry> fds;
    const FileHandle dir(door.sys(), door->open_dir((door.path(paths::kProcDir) + "/" + pid + "/fd").c_str(), fds));
    if (!dir) {
        unlisted();
        return inodes;
    }
    uint64_t inode = 0;
    for (const DirEntry &fd : fds) {
        if (fd.name[0] == '.') continue;
        const std::string target = read_link(door, dir.get(), fd.name);
        if (!target.empty() && scan_socket_link(target.c_str(), inode)) inodes.push_back(inode);
    }
    return inodes;
}

void SocketOwners::add(uint64_t inode, int pid) {
    auto [it, fresh] = pids.try_emplace(inode);
    if (fresh) order.push_back(inode);
    it->second.push_back(pid);
}

SocketOwners collect_owners(const Door &door) {
    SocketOwners owners;
    for (int pid : list_pids(door))
        for (uint64_t inode : socket_inodes(door, std::to_string(pid))) owners.add(inode, pid);
    return owners;
}

std::string program_of(const Door &door, uint32_t pid) {
    return read_link(door, AT_FDCWD, door.path(paths::kProcDir) + "/" + std::to_string(pid) + "/exe");
}

}  // namespace kova::conflict
