// Port range sets: the set as text, "21,80,443,8000:8010".
#include <kovaserviceconf.h>

#include <new>
#include <string>

#include "foundation/log.h"
#include "foundation/ports.h"

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
            kova::ports::append_span(out, {n->beginPort, n->endPort}, ':');
        }
        text = KVLIBCStrGet("%s", out.c_str());
    } catch (const std::bad_alloc &) {
        text = nullptr;
    }
    if (text == nullptr) KOVA_LOG("Failed to KVLIBCStrGet().");
    return text;
}

}  // extern "C"
