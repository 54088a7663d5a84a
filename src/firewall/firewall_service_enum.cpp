// The firewall service catalogue: a record for every usable row of the built-in table, then
// one for every service section of every .sc file, each linked in front of the ones before.
#include "firewall/firewall_service_enum.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>

#include "firewall/port_texts.h"
#include "foundation/ports.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "kova_root.h"

namespace kova::fw {

int ports_text_to_list(const char *text, KVLIB_SZLIST **ppList) {
    if (text == nullptr || *text == '\0' || ppList == nullptr) {
        KOVA_LOG("Bad parameters");
        return -1;
    }
    Texts texts;
    for (std::string_view item : kova::ports::words(text, ",")) {
        for (const char c : item) {
            if (c < '0' || c > '9') {
                KOVA_LOG("illegal ports number, port=%.*s", static_cast<int>(item.size()), item.data());
                return -1;
            }
        }
        texts.emplace_back(item);
    }
    KVLIB_SZLIST *list = to_list(texts);
    if (list == nullptr) {
        KOVA_LOG("Failed to allocate for ports number, errno=0x%X", KVLIBCErrGet());
        return -1;
    }
    *ppList = list;
    return 0;
}

int port_entries_to_list(const KOVA_SERVICE_CONF_PORT *ports, int32_t *pProtocol, KVLIB_SZLIST **ppList) {
    if (pProtocol == nullptr || ppList == nullptr) {
        KOVA_LOG("Bad parameters, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    if (ports == nullptr) return -1;
    Texts texts;
    int32_t protocol = 0;
    for (const KOVA_SERVICE_CONF_PORT *p = ports; p != nullptr; p = p->next) {
        protocol = KOVAProtocolMapping(static_cast<int>(p->protocol));
        if (p->type > 1) continue;
        std::string &text = texts.emplace_back();
        kova::ports::append_port(text, p->beginPort);
        if (p->type == 0) continue;
        text += '-';
        kova::ports::append_port(text, p->endPort);
    }
    KVLIB_SZLIST *list = to_list(texts);
    if (list == nullptr) {
        KOVA_LOG("Failed to allocate for ports number, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    *pProtocol = protocol;
    *ppList = list;
    return 0;
}

}  // namespace kova::fw

namespace {

using kova::fw::port_entries_to_list;
using kova::fw::ports_text_to_list;

// The localisation key of a table string; its texts stay empty.
void copy_string_key(KOVA_SERVICE_STRING &dst, const KOVA_SERVICE_STRING &src) {
    kova::copy_field(dst.prefix, src.prefix);
    kova::copy_field(dst.section, src.section);
    kova::copy_field(dst.key, src.key);
}

void copy_string(KOVA_SERVICE_STRING &dst, const KOVA_SERVICE_STRING &src) {
    copy_string_key(dst, src);
    kova::copy_field(dst.text, src.text);
    kova::copy_field(dst.extraText, src.extraText);
}

// Builds the list front to back: every record added becomes the new head.
class Builder {
public:
    void add(kova::FwServicePtr record) {
        record->next = head_.release();
        head_.reset(record.release());
        ++count_;
    }
    int count() const { return count_; }
    KOVA_FW_SERVICE *release() { return head_.release(); }

private:
    kova::FwServicePtr head_;
    int count_ = 0;
};

// The ports of one direction of a table row; false when the row is to be left out.
bool row_ports(const KOVA_FW_SERVICE_ENTRY &row, const KOVA_FW_PORT_SPEC &spec, const char *direction,
               int32_t &protocol, KVLIB_SZLIST *&list) {
    protocol = spec.protocol;
    if (spec.ports != nullptr) {
        if (ports_text_to_list(spec.ports, &list) != 0) {
            KOVA_LOG("Failed to parse %s ports in firewall services: %s", direction, row.name);
            return false;
        }
        return true;
    }
    if (spec.getter == nullptr) {
        KOVA_LOG("No specified %s ports in firewall services: %s", direction, row.name);
        return false;
    }
    const int ret = spec.getter(&list);
    if (ret < 0) {
        KOVA_LOG("Failed to enum %s ports in firewall services: %s", direction, row.name);
        return false;
    }
    return ret > 0 || (list != nullptr && list->nItem > 0);
}

void add_table_rows(Builder &catalogue, const std::string &defaults) {
    for (const KOVA_FW_SERVICE_ENTRY *row = rgServices; row->name != nullptr; ++row) {
        kova::FwServicePtr record(kova::calloc_record<KOVA_FW_SERVICE>());
        if (!record) {
            KOVA_LOG("Failed to allocate for service, errno=0x%X", KVLIBCErrGet());
            continue;
        }
        kova::copy_field(record->name, row->name);
        record->supported = row->supportKey == nullptr
                                ? row->defaultSupported
                                : KVLIBCFileCheckKeyValue(defaults.c_str(), row->supportKey, "yes", 0);
        record->portForward = row->portForward;
        copy_string_key(record->title, row->title);
        copy_string_key(record->desc, row->desc);
        if (row->src.enabled != 0 && !row_ports(*row, row->src, "src", record->srcProtocol, record->srcPorts)) {
            continue;
        }
        if (row->dst.enabled != 0 && !row_ports(*row, row->dst, "dst", record->dstProtocol, record->dstPorts)) {
            continue;
        }
        catalogue.add(std::move(record));
    }
}

// The support test of .sc files, made once per distinct key within one enumeration.
class SupportKeys {
public:
    explicit SupportKeys(const std::string &defaults) : defaults_(defaults) {}

    int supported(const char *key) {
        if (*key == '\0') return 1;
        auto [it, inserted] = results_.try_emplace(key, 0);
        if (inserted) it->second = KVLIBCFileCheckKeyValue(defaults_.c_str(), key, "yes", 1);
        return it->second;
    }

private:
    const std::string &defaults_;
    std::unordered_map<std::string, int> results_;
};

void add_section(Builder &catalogue, const KOVA_SERVICE_CONF_SECTION &section, int supported) {
    kova::FwServicePtr record(kova::calloc_record<KOVA_FW_SERVICE>());
    if (!record) {
        KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        KOVA_LOG("Failed to allocate for service, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
        return;
    }
    kova::copy_field(record->name, section.name);
    record->supported = supported;
    record->portForward = section.portForward;
    copy_string_key(record->title, section.title);
    kova::copy_field(record->title.text, section.title.text);
    copy_string(record->desc, section.desc);
    if (section.srcPort != nullptr &&
        port_entries_to_list(section.srcPort, &record->srcProtocol, &record->srcPorts) != 0) {
        KOVA_LOG("Failed to parse section [%s] src ports for firewall services, kovaerr=" KOVA_ERRFMT, section.name,
                 KOVA_ERRARGS);
        return;
    }
    if (port_entries_to_list(section.dstPort, &record->dstProtocol, &record->dstPorts) != 0) {
        KOVA_LOG("Failed to parse section [%s] dst ports for firewall services, kovaerr=" KOVA_ERRFMT, section.name,
                 KOVA_ERRARGS);
        return;
    }
    catalogue.add(std::move(record));
}

void add_conf_sections(Builder &catalogue, const std::string &defaults) {
    KOVA_SERVICE_CONF *raw = nullptr;
    const int files = KOVAServiceConfEnum(&raw, KOVA_CONF_LOCATION_SYSTEM | KOVA_CONF_LOCATION_PACKAGE);
    kova::ConfPtr confs(raw);
    if (files <= 0) return;
    if (!confs) {
        KOVA_LOG("Bad parameters, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
        return;
    }
    SupportKeys support(defaults);
    for (const KOVA_SERVICE_CONF *conf = confs.get(); conf != nullptr; conf = conf->next) {
        if (conf->sections == nullptr) continue;
        const int supported = support.supported(conf->supportKey);
        for (const KOVA_SERVICE_CONF_SECTION *s = conf->sections; s != nullptr; s = s->next) {
            add_section(catalogue, *s, supported);
        }
    }
}

}  // namespace

namespace kova::fw {

Result<Catalogue> build_catalogue() noexcept {
    try {
        const std::string defaults = kova::resolve(kova::paths::kInfoConfDefaults);
        Builder builder;
        add_table_rows(builder, defaults);
        add_conf_sections(builder, defaults);
        const int count = builder.count();
        return Catalogue{FwServicePtr(builder.release()), count};
    } catch (const std::bad_alloc &) {
        return KOVA_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
    }
}

}  // namespace kova::fw

extern "C" {

int KOVAFwServiceEnum(KOVA_FW_SERVICE **ppServiceList) {
    if (ppServiceList == nullptr) {
        KOVA_LOG("Bad parameters");
        return -1;
    }
    kova::Result<kova::fw::Catalogue> catalogue = kova::fw::build_catalogue();
    if (!catalogue) {
        kova::set_error(catalogue.failure());
        return -1;
    }
    *ppServiceList = catalogue->head.release();
    return catalogue->count;
}

void KOVAFwServiceFree(KOVA_FW_SERVICE *pServiceList) {
    while (pServiceList != nullptr) {
        KOVA_FW_SERVICE *next = pServiceList->next;
        if (pServiceList->srcPorts != nullptr) KVLIBCSzListFree(pServiceList->srcPorts);
        if (pServiceList->dstPorts != nullptr) KVLIBCSzListFree(pServiceList->dstPorts);
        std::free(pServiceList);
        pServiceList = next;
    }
}

}  // extern "C"
