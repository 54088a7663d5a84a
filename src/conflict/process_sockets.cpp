// Walking the processes under /proc: which process holds which socket, and what it runs.
#include <cerrno>
#include <cstdio>
#include <new>

#include "conflict/runtime_inventory.h"
#include "kova_root.h"

namespace kova::conflict {

namespace {

// Reads a link's target, at most 1023 bytes; "" when it yields nothing.
std::string read_link(const Door &door, const std::string &path) {
    char target[1024];
    const ssize_t n = door->readlink(path.c_str(), target, sizeof target - 1);
    if (n <= 0) return {};
    return std::string(target, static_cast<size_t>(n));
}

// The names in a directory; none when it cannot be read (gone, or not ours to read). Running out
// of memory is not taken for an empty directory.
std::vector<std::string> names_in(const Door &door, const std::string &dir) {
    std::vector<std::string> names;
    if (door->list_dir(dir.c_str(), names) != 0) {
        if (errno == ENOMEM) throw std::bad_alloc();
        names.clear();
    }
    return names;
}

}  // namespace

std::vector<int> list_pids(const Door &door) {
    std::vector<int> pids;
    for (const std::string &name : names_in(door, door.path(paths::kProcDir))) {
        if (name[0] == '.') continue;
        int pid = 0;
        if (std::sscanf(name.c_str(), "%d", &pid) != 1) break;
        pids.push_back(pid);
    }
    return pids;
}

std::vector<uint64_t> socket_inodes(const Door &door, const std::string &pid) {
    std::vector<uint64_t> inodes;
    const std::string dir = door.path(paths::kProcDir) + "/" + pid + "/fd";
    uint64_t inode = 0;
    for (const std::string &fd : names_in(door, dir)) {
        if (fd[0] == '.') continue;
        const std::string target = read_link(door, dir + "/" + fd);
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
    return read_link(door, door.path(paths::kProcDir) + "/" + std::to_string(pid) + "/exe");
}

}  // namespace kova::conflict
