// Helpers of the conflict tests: result lists as texts, port lists, and a fabricated process
// table under the test root (descriptor links, executable links).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "foundation/raii.h"
#include "kova_test.h"

namespace kova::test {

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
inline Lines owned_items(KVLIB_SZLIST *list) {
    return items(SzListPtr(list).get());
}

inline SzListPtr port_list(std::initializer_list<const char *> ports) {
    SzListPtr list(KVLIBCSzListAlloc(512));
    KVLIB_SZLIST *handle = list.get();
    for (const char *p : ports) KVLIBCSzListPush(&handle, p);
    return list;
}

class ProcTableTest : public RootTest {
protected:
    // A process directory with descriptor links (`fds` from descriptor `first` on) and, unless
    // empty, its executable.
    void process(const std::string &pid, const std::string &exe, int first, const Lines &fds) const {
        mkdir("/proc/" + pid + "/fd");
        for (const std::string &target : fds) symlink(target, "/proc/" + pid + "/fd/" + std::to_string(first++));
        if (!exe.empty()) symlink(exe, "/proc/" + pid + "/exe");
    }
};

}  // namespace kova::test
