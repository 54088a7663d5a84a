// Small helpers for the configuration file tests: port lists and section lists as texts.
#pragma once

#include <kovaserviceconf.h>

#include <string>
#include <vector>

namespace kova::test {

// One entry as "d<direction> t<type> p<protocol> <begin>[-<end>]", e.g. "d1 t1 p3 8000-8010".
inline std::string port_text(const KOVA_SERVICE_CONF_PORT &p) {
    std::string s = "d" + std::to_string(p.direction) + " t" + std::to_string(p.type) + " p" +
                    std::to_string(p.protocol) + " " + std::to_string(p.beginPort);
    if (p.type == 1 || p.endPort != 0) s += "-" + std::to_string(p.endPort);
    return s;
}

inline std::vector<std::string> port_texts(const KOVA_SERVICE_CONF_PORT *list) {
    std::vector<std::string> out;
    for (; list != nullptr; list = list->next) out.push_back(port_text(*list));
    return out;
}

inline std::vector<std::string> section_names(const KOVA_SERVICE_CONF_SECTION *list) {
    std::vector<std::string> out;
    for (; list != nullptr; list = list->next) out.emplace_back(list->name);
    return out;
}

// The first section's name of every file record, in list order.
inline std::vector<std::string> conf_first_sections(const KOVA_SERVICE_CONF *list) {
    std::vector<std::string> out;
    for (; list != nullptr; list = list->next) out.emplace_back(list->sections != nullptr ? list->sections->name : "");
    return out;
}

inline std::string error_text() {
    char buf[64];
    std::snprintf(buf, sizeof buf, "0x%04X", KVLIBCErrGet());
    return buf;
}

// A valid service section.
inline std::string sc_section(const std::string &name, const std::string &dst = "80/tcp",
                              const std::string &extra = "") {
    return "[" + name + "]\ntitle=\"" + name + " title\"\ndesc=\"" + name + " desc\"\ndst.ports=\"" + dst + "\"\n" +
           extra;
}

}  // namespace kova::test
