// kova-svc show: one service of the catalogue in full.
#include <cstring>
#include <iostream>

#include "catalogue.h"
#include "commands.h"
#include "holders.h"
#include "json.h"
#include "session.h"
#include "ports_text.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

// "Text [string key]", "-" for neither.
std::string display_string(const DisplayText &s) {
    std::string out = s.text().empty() ? "-" : std::string(s.text());
    std::string key = string_key(s);
    if (!key.empty()) out += " [" + key + "]";
    return out;
}

void print_field(const std::string &label, const std::string &value) {
    print_labelled(std::cout, label + ":", value, 14);
}

// A name that the catalogue does not have but the system reserves ports for.
int show_reserved(const Args &args, const std::string &name) {
    std::vector<Holder> ports = reserved_ports_named(name);
    if (ports.empty())
        throw Failure("no service named '" + name + "' in the catalogue", "",
                      "'kova-svc list --names' lists the services");
    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("service").null();
        json.key("reserved").begin_array();
        for (const auto &h : ports) holder_json(json, h);
        json.end_array();
        json.key("hidden").begin_array().end_array();
        warnings_json(json);
        json.end_object().finish();
        return kExitOk;
    }
    print_field("Name", name);
    print_field("Kind", "reserved port, not a service: the system keeps it for its own use");
    for (const auto &h : ports)
        print_field("Reserved", run_text(h.run) + "/" + protocol_names(h.protocols) + " (" + h.setting +
                                    (h.file.empty() ? "" : " in " + h.file) + ")");
    return kExitOk;
}

}  // namespace

int run_show(const Args &args) {
    const std::string &name = args.operands()[0];
    Catalogue cat = Catalogue::load(Catalogue::Detail::kTexts);
    const CatalogueEntry *entry = cat.find(name);
    if (entry == nullptr) return show_reserved(args, name);

    std::vector<const CatalogueEntry *> hidden;
    for (const auto &e : cat.entries())
        if (&e != entry && std::strcmp(e.name, entry->name) == 0) hidden.push_back(&e);

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("service");
        service_json(json, *entry);
        json.key("reserved").begin_array().end_array();
        json.key("hidden").begin_array();
        for (const auto *h : hidden) {
            json.begin_object().key("origin").string(origin_name(h->origin)).key("file");
            if (h->file.empty())
                json.null();
            else
                json.string(h->file);
            json.end_object();
        }
        json.end_array();
        warnings_json(json);
        json.end_object().finish();
        return kExitOk;
    }

    const CatalogueEntry &s = *entry;
    print_field("Name", s.name);
    print_field("Origin", origin_name(s.origin));
    print_field("File", s.file.empty() ? "-" : std::string(s.file));
    print_field("Support key", s.support_key.empty() ? "-" : std::string(s.support_key));
    print_field("Supported", s.supported ? "yes" : "no");
    print_field("Port forward", s.port_forward ? "yes" : "no");
    print_field("Title", display_string(s.title));
    print_field("Description", display_string(s.desc));
    if (!s.desc.extra_text().empty()) print_field("Extra text", std::string(s.desc.extra_text()));
    print_field("Destination", ports_with_protocol(s.dst, s.dst_protocol));
    print_field("Source", ports_with_protocol(s.src, s.src_protocol));
    for (const auto *h : hidden)
        print_field("Hides", std::string(origin_name(h->origin)) + (h->file.empty() ? "" : " ") + std::string(h->file));
    return kExitOk;
}

}  // namespace kovasvc
