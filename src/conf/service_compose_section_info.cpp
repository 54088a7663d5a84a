// Adding a deep copy of a service section in front of a section list.
#include <kovaserviceconf.h>

#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

// Copies the list `src` in its order into a new list stored in *ppCopy. On failure nothing
// of the copy survives and the source is untouched.
int ports_copy(const KOVA_SERVICE_CONF_PORT *src, KOVA_SERVICE_CONF_PORT **ppCopy) {
    if (src == nullptr || ppCopy == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    kova::PortsPtr head;
    KOVA_SERVICE_CONF_PORT **tail = nullptr;
    for (const KOVA_SERVICE_CONF_PORT *p = src; p != nullptr; p = p->next) {
        KOVA_SERVICE_CONF_PORT *entry = kova::calloc_record<KOVA_SERVICE_CONF_PORT>();
        if (entry == nullptr) {
            KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
            KOVA_LOG("Failed to allocate for service, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
            return -1;
        }
        entry->direction = p->direction;
        entry->type = p->type;
        entry->protocol = p->protocol;
        entry->beginPort = p->beginPort;
        entry->endPort = p->endPort;
        if (tail == nullptr) {
            head.reset(entry);
        } else {
            *tail = entry;
        }
        tail = &entry->next;
    }
    *ppCopy = head.release();
    return 0;
}

void copy_string_key(KOVA_SERVICE_STRING &dst, const KOVA_SERVICE_STRING &src) {
    kova::copy_field(dst.text, src.text);
    kova::copy_field(dst.prefix, src.prefix);
    kova::copy_field(dst.section, src.section);
    kova::copy_field(dst.key, src.key);
}

}  // namespace

extern "C" {

int KOVAServiceComposeSectionInfo(const KOVA_SERVICE_CONF_SECTION *pTemplate, KOVA_SERVICE_CONF_SECTION **ppSections) {
    if (pTemplate == nullptr || ppSections == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    kova::SectionPtr section(kova::calloc_record<KOVA_SERVICE_CONF_SECTION>());
    if (!section) {
        KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        KOVA_LOG("Failed to allocate KOVA_SERVICE_CONF_SECTION! " KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    kova::copy_field(section->name, pTemplate->name);
    copy_string_key(section->desc, pTemplate->desc);
    copy_string_key(section->title, pTemplate->title);
    section->portForward = pTemplate->portForward;
    if (pTemplate->srcPort != nullptr && ports_copy(pTemplate->srcPort, &section->srcPort) < 0) return -1;
    if (pTemplate->dstPort != nullptr && ports_copy(pTemplate->dstPort, &section->dstPort) < 0) return -1;
    section->next = *ppSections;
    *ppSections = section.release();
    return 0;
}

}  // extern "C"
