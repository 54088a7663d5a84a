// Adding a copy of one port entry in front of a port list.
#include <kovaserviceconf.h>

#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

bool valid_template(const KOVA_SERVICE_CONF_PORT &t) {
    if (t.type > 1 || t.direction > 1 || (t.protocol & KOVA_PROTO_BOTH) == 0) return false;
    return t.type == 0 || t.beginPort <= t.endPort;
}

}  // namespace

extern "C" {

int KOVAServiceComposePortInfo(const KOVA_SERVICE_CONF_PORT *pTemplate, KOVA_SERVICE_CONF_PORT **ppPorts) {
    if (pTemplate == nullptr || ppPorts == nullptr || !valid_template(*pTemplate)) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        KOVA_LOG("Bad Parameters!" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    KOVA_SERVICE_CONF_PORT *entry = kova::calloc_record<KOVA_SERVICE_CONF_PORT>();
    if (entry == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        KOVA_LOG("Failed to allocate KOVA_SERVICE_CONF_PORT! " KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    entry->direction = pTemplate->direction;
    entry->type = pTemplate->type;
    entry->protocol = pTemplate->protocol;
    entry->beginPort = pTemplate->beginPort;
    entry->endPort = pTemplate->endPort;
    entry->next = *ppPorts;
    *ppPorts = entry;
    return 0;
}

}  // extern "C"
