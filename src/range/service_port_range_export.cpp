// Port range sets: the set as text, "21,80,443,8000:8010".
#include <kovaserviceconf.h>

#include <charconv>
#include <cstdint>
#include <new>
#include <string>

#include "foundation/log.h"

namespace {

// Ports are written as "%d" writes them.
void append_port(std::string &out, uint32_t port) {
    char buf[16];
    auto res = std::to_chars(buf, buf + sizeof buf, static_cast<int32_t>(port));
    out.append(buf, res.ptr);
}

}  // namespace

extern "C" {

char *KVLIBPortRangeExport(const KVLIB_PORT_RANGE *pRange) {
    if (pRange == nullptr) {
        KOVA_LOG("Bad parameters.");
        return nullptr;
    }
    if (pRange->head == nullptr) return nullptr;

    // One growing buffer, then one text for the caller (KVLIBCStrPut releases it).
    char *text = nullptr;
    try {
        std::string out;
        for (const KOVA_SERVICE_CONF_PORT *n = pRange->head; n != nullptr; n = n->next) {
            if (n != pRange->head) out += ',';
            append_port(out, n->beginPort);
            if (n->beginPort != n->endPort) {
                out += ':';
                append_port(out, n->endPort);
            }
        }
        text = KVLIBCStrGet("%s", out.c_str());
    } catch (const std::bad_alloc &) {
        text = nullptr;
    }
    if (text == nullptr) KOVA_LOG("Failed to KVLIBCStrGet().");
    return text;
}

}  // extern "C"
