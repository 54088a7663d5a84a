#include "catalogue.h"

#include <dirent.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "json.h"
#include "ports_text.h"
#include "status.h"

namespace kovasvc {

namespace {

constexpr size_t kNameField = sizeof(KOVA_FW_SERVICE{}.name);

struct ScSection {
    std::string name;  // as the catalogue holds it (cut to its name field)
    ServiceSource source;
};

// The names of a directory's entries in the order in which the library reads them.
std::vector<std::string> directory_names(const std::string &dir) {
    std::vector<std::string> names;
    struct dirent **entries = nullptr;
    int n = scandir(dir.c_str(), &entries, nullptr, alphasort);
    if (n < 0) return names;
    for (int i = 0; i < n; ++i) {
        std::string name = entries[i]->d_name;
        std::free(entries[i]);
        if (name != "." && name != "..") names.push_back(name);
    }
    std::free(entries);
    return names;
}

// The .sc service sections in the order of their records in the catalogue: system files before
// package files, files by name, sections in file order.
std::vector<ScSection> sc_sections() {
    std::vector<ScSection> out;
    for (unsigned int location : {KOVA_CONF_LOCATION_SYSTEM, KOVA_CONF_LOCATION_PACKAGE}) {
        std::string dir = services_dir(location);
        if (dir.empty()) continue;
        for (const auto &name : directory_names(dir)) {
            std::string path = dir + "/" + name;
            KOVA_SERVICE_CONF *head = nullptr;
            if (KOVAServiceConfGet(path.c_str(), &head) != 0) continue;
            ConfsPtr conf(head);
            // The reader links each section in front: walk them back into file order.
            std::vector<const KOVA_SERVICE_CONF_SECTION *> sections;
            for (const auto *s = conf->sections; s != nullptr; s = s->next) sections.push_back(s);
            for (auto it = sections.rbegin(); it != sections.rend(); ++it) {
                ScSection sc;
                sc.name = std::string((*it)->name).substr(0, kNameField - 1);
                sc.source.origin = location == KOVA_CONF_LOCATION_SYSTEM ? Origin::System : Origin::Package;
                sc.source.file = path;
                sc.source.support_key = conf->supportKey;
                out.push_back(std::move(sc));
            }
        }
    }
    return out;
}

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
    KOVA_FW_SERVICE *head = nullptr;
    if (KOVAFwServiceEnum(&head) < 0) {
        KOVAFwServiceFree(head);
        fail_with_library_error("cannot build the firewall service catalogue");
    }
    cat.list_.reset(head);

    std::vector<ScSection> expected = sc_sections();
    std::set<std::string> seen;
    size_t next = 0;
    for (const KOVA_FW_SERVICE *s = head; s != nullptr; s = s->next) {
        CatalogueEntry entry;
        entry.service = s;
        // The .sc records come first, in the order of `expected`; a section the catalogue left
        // out is stepped over.
        size_t k = next;
        while (k < expected.size() && expected[k].name != s->name) ++k;
        if (k < expected.size()) {
            entry.source = expected[k].source;
            next = k + 1;
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
