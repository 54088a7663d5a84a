// Lookup of a firewall service by name in a catalogue list.
#include <kovaserviceconf.h>

#include <cstring>

#include "foundation/log.h"

extern "C" KOVA_FW_SERVICE *KOVAFWServiceFind(const KOVA_FW_SERVICE *pServiceList, const char *szName) {
    if (pServiceList == nullptr || szName == nullptr) {
        KOVA_LOG("Bad parameters");
        return nullptr;
    }
    for (const KOVA_FW_SERVICE *s = pServiceList; s != nullptr; s = s->next) {
        if (std::strcmp(s->name, szName) == 0) return const_cast<KOVA_FW_SERVICE *>(s);
    }
    return nullptr;
}
