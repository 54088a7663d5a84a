#include "catalogue.h"

#include <cstring>
#include <string_view>
#include <unordered_set>

#include "firewall/firewall_service_enum.h"
#include "json.h"
#include "ports_text.h"
#include "status.h"

namespace kovasvc {

namespace {

ServiceSource builtin_source(const char *name) {
    for (const KOVA_FW_SERVICE_ENTRY *row = rgServices; row->name != nullptr; ++row)
        if (std::strcmp(row->name, name) == 0)
            return {Origin::BuiltIn, "", row->supportKey != nullptr ? row->supportKey : ""};
    return {};
}

void text_or_null(Json &json, const std::string &text) {
    if (text.empty())
        json.null();
    else
        json.string(text);
}

void string_json(Json &json, const KOVA_SERVICE_STRING &s, bool with_extra) {
    json.begin_object();
    json.key("text").string(s.text);
    if (with_extra) {
        json.key("extra_text");
        text_or_null(json, s.extraText);
    }
    json.key("key");
    text_or_null(json, string_key(s));
    json.end_object();
}

void ports_json(Json &json, unsigned int flags, const KVLIB_SZLIST *items) {
    if (items == nullptr || items->nItem == 0) {
        json.null();
        return;
    }
    port_list_json(json, flags, item_runs(sorted_items(items)));
}

}  // namespace

const char *origin_name(Origin origin) {
    switch (origin) {
        case Origin::BuiltIn:
            return "built-in";
        case Origin::System:
            return "system";
        case Origin::Package:
            return "package";
        default:
            return "unknown";
    }
}

std::string services_dir(unsigned int location) {
    // The library forms an installed path as the directory, "/" and the name.
    char path[4096];
    if (GetInstallPath("x", static_cast<int>(location), path, sizeof path) != 0) return "";
    std::string p = path;
    return p.size() >= 2 ? p.substr(0, p.size() - 2) : "";
}

std::string string_key(const KOVA_SERVICE_STRING &s) {
    if (s.section[0] == '\0' && s.key[0] == '\0') return "";
    std::string key = std::string(s.section) + ":" + s.key;
    return s.prefix[0] != '\0' ? std::string(s.prefix) + ":" + key : key;
}

Catalogue Catalogue::load() {
    Catalogue cat;
    clear_library_error();
    // One enumeration gives the records and the file of each record made from a .sc section.
    kova::fw::Origins origins;
    kova::Result<kova::fw::Catalogue> built = kova::fw::build_catalogue(&origins);
    if (!built) {
        kova::set_error(built.failure());
        fail_with_library_error("cannot build the firewall service catalogue");
    }
    cat.list_.reset(built->head.release());

    std::unordered_set<std::string_view> seen;
    cat.entries_.reserve(static_cast<size_t>(built->count));
    size_t index = 0;
    for (const KOVA_FW_SERVICE *s = cat.list_.get(); s != nullptr; s = s->next, ++index) {
        CatalogueEntry entry;
        entry.service = s;
        if (index < origins.file_of.size()) {
            const kova::fw::OriginFile &file = origins.files[origins.file_of[index]];
            entry.source.origin = file.location == KOVA_CONF_LOCATION_SYSTEM ? Origin::System : Origin::Package;
            entry.source.file = file.path;
            entry.source.support_key = file.support_key;
        } else {
            entry.source = builtin_source(s->name);
        }
        entry.shadowed = !seen.insert(s->name).second;
        cat.entries_.push_back(std::move(entry));
    }
    return cat;
}

const CatalogueEntry *Catalogue::find(const std::string &name) const {
    const KOVA_FW_SERVICE *found = KOVAFWServiceFind(list_.get(), name.c_str());
    if (found == nullptr) return nullptr;
    for (const auto &e : entries_)
        if (e.service == found) return &e;
    return nullptr;
}

void service_json(Json &json, const CatalogueEntry &entry) {
    const KOVA_FW_SERVICE &s = *entry.service;
    json.begin_object();
    json.key("name").string(s.name);
    json.key("origin").string(origin_name(entry.source.origin));
    json.key("file");
    text_or_null(json, entry.source.file);
    json.key("support_key");
    text_or_null(json, entry.source.support_key);
    json.key("supported").boolean(s.supported != 0);
    json.key("port_forward").boolean(s.portForward != 0);
    json.key("shadowed").boolean(entry.shadowed);
    json.key("title");
    string_json(json, s.title, false);
    json.key("desc");
    string_json(json, s.desc, true);
    json.key("dst");
    ports_json(json, static_cast<unsigned int>(s.dstProtocol), s.dstPorts);
    json.key("src");
    ports_json(json, static_cast<unsigned int>(s.srcProtocol), s.srcPorts);
    json.end_object();
}

}  // namespace kovasvc
