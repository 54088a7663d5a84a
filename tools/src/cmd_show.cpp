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
std::string display_string(const KOVA_SERVICE_STRING &s, const char *text) {
    std::string out = text[0] != '\0' ? text : "-";
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
    Catalogue cat = Catalogue::load();
    const CatalogueEntry *entry = cat.find(name);
    if (entry == nullptr) return show_reserved(args, name);

    std::vector<const CatalogueEntry *> hidden;
    for (const auto &e : cat.entries())
        if (&e != entry && std::strcmp(e.service->name, entry->service->name) == 0) hidden.push_back(&e);

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("service");
        service_json(json, *entry);
        json.key("reserved").begin_array().end_array();
        json.key("hidden").begin_array();
        for (const auto *h : hidden) {
            json.begin_object().key("origin").string(origin_name(h->source.origin)).key("file");
            if (h->source.file.empty())
                json.null();
            else
                json.string(h->source.file);
            json.end_object();
        }
        json.end_array();
        warnings_json(json);
        json.end_object().finish();
        return kExitOk;
    }

    const KOVA_FW_SERVICE &s = *entry->service;
    print_field("Name", s.name);
    print_field("Origin", origin_name(entry->source.origin));
    print_field("File", entry->source.file.empty() ? "-" : entry->source.file);
    print_field("Support key", entry->source.support_key.empty() ? "-" : entry->source.support_key);
    print_field("Supported", s.supported != 0 ? "yes" : "no");
    print_field("Port forward", s.portForward != 0 ? "yes" : "no");
    print_field("Title", display_string(s.title, s.title.text));
    print_field("Description", display_string(s.desc, s.desc.text));
    if (s.desc.extraText[0] != '\0') print_field("Extra text", s.desc.extraText);
    print_field("Destination", ports_with_protocol(sorted_items(s.dstPorts), static_cast<unsigned int>(s.dstProtocol)));
    print_field("Source", ports_with_protocol(sorted_items(s.srcPorts), static_cast<unsigned int>(s.srcProtocol)));
    for (const auto *h : hidden)
        print_field("Hides", std::string(origin_name(h->source.origin)) +
                                 (h->source.file.empty() ? std::string() : " " + h->source.file));
    return kExitOk;
}

}  // namespace kovasvc
