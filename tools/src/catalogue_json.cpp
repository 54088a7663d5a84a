// The catalogue's records as people and scripts see them: origin names, string keys, JSON.
#include "catalogue.h"
#include "json.h"
#include "ports_text.h"

namespace kovasvc {

namespace {

void text_or_null(Json &json, std::string_view text) {
    if (text.empty())
        json.null();
    else
        json.string(text);
}

void string_json(Json &json, const DisplayText &s, bool with_extra) {
    json.begin_object();
    json.key("text").string(s.text());
    if (with_extra) {
        json.key("extra_text");
        text_or_null(json, s.extra_text());
    }
    json.key("key");
    text_or_null(json, string_key(s));
    json.end_object();
}

void ports_json(Json &json, unsigned int flags, std::span<const PortRun> runs) {
    if (runs.empty()) {
        json.null();
        return;
    }
    port_list_json(json, flags, sorted_runs(runs));
}

}  // namespace

const char *origin_name(Origin origin) {
    switch (origin) {
        case Origin::BuiltIn:
            return "built-in";
        case Origin::System:
            return "system";
        default:
            return "package";
    }
}

std::string string_key(const DisplayText &s) {
    if (s.section().empty() && s.key().empty()) return "";
    std::string key;
    if (!s.prefix().empty()) key.append(s.prefix()).append(":");
    return key.append(s.section()).append(":").append(s.key());
}

void service_json(Json &json, const CatalogueEntry &entry) {
    json.begin_object();
    json.key("name").string(entry.name);
    json.key("origin").string(origin_name(entry.origin));
    json.key("file");
    text_or_null(json, entry.file);
    json.key("support_key");
    text_or_null(json, entry.support_key);
    json.key("supported").boolean(entry.supported);
    json.key("port_forward").boolean(entry.port_forward);
    json.key("shadowed").boolean(entry.shadowed);
    json.key("title");
    string_json(json, entry.title, false);
    json.key("desc");
    string_json(json, entry.desc, true);
    json.key("dst");
    ports_json(json, entry.dst_protocol, entry.dst);
    json.key("src");
    ports_json(json, entry.src_protocol, entry.src);
    json.end_object();
}

}  // namespace kovasvc
