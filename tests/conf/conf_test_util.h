// Helpers for the configuration file tests: records as texts, expected lines, a fixture that frees what it read.
#pragma once

#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "kova_test.h"

namespace kova::test {

using Strings = std::vector<std::string>;
inline const std::string kPkgDir = "/usr/local/etc/services.d/", kPoison = "[0xEEEE poison:7]",
                         kPortsErr = "[0x0D00 service_conf_ports_get.cpp:N]";

// Entries as "d<direction> t<type> p<protocol> <begin>[-<end>]", e.g. "d1 t1 p3 8000-8010".
inline Strings port_texts(const KOVA_SERVICE_CONF_PORT *p) {
    Strings out;
    for (; p != nullptr; p = p->next)
        out.push_back(str("d", p->direction, " t", p->type, " p", p->protocol, " ", p->beginPort,
                          p->type == 1 || p->endPort != 0 ? str("-", p->endPort) : ""));
    return out;
}

inline Strings section_names(const KOVA_SERVICE_CONF_SECTION *s) {
    Strings out;
    for (; s != nullptr; s = s->next) out.emplace_back(s->name);
    return out;
}

inline std::string parts(const KOVA_SERVICE_STRING &s) {
    return std::string(s.prefix) + "|" + s.section + "|" + s.key + "|" + s.text + "|" + s.extraText;
}

inline std::string sc_section(const std::string &name, const std::string &dst = "80/tcp") {
    return "[" + name + "]\ntitle=\"" + name + " title\"\ndesc=\"" + name + " desc\"\ndst.ports=\"" + dst + "\"\n";
}

inline std::string illegal(const std::string &port) {
    return "service_conf_ports_get.cpp:N illegal ports number, port=" + port + ", kovaerr=" + kPortsErr;
}

inline std::string proto_error(const std::string &text) {
    return "service_conf_ports_get.cpp:N protocol format error (" + text +
           ")! It should be \"tcp\" or \"udp\" or \"tcp,udp\", kovaerr=" + kPortsErr;
}

class ConfTest : public RootTest {
protected:
    void TearDown() override {
        KOVAServiceConfFree(confs_);
        KOVAServiceConfPortsFree(ports_);
        RootTest::TearDown();
    }
    // Reads `content` as a package file into a fresh list, with a fresh log.
    int get(const std::string &content) {
        write(kPkgDir + "test.sc", content);
        KOVAServiceConfFree(confs_);
        confs_ = nullptr;
        clear_log();
        file_ = path(kPkgDir + "test.sc");
        return KOVAServiceConfGet(file_.c_str(), &confs_);
    }
    // The entries parsed from `text`, or {"fail"} (leaving no list). The text is left as it was.
    Strings parse(const std::string &text, unsigned int direction = 1) {
        KOVAServiceConfPortsFree(ports_);
        ports_ = nullptr;
        const std::string copy = text;
        const int rc = KOVAServiceConfPortsGet(copy.c_str(), direction, &ports_);
        EXPECT_EQ(copy + std::to_string(rc == 0), text + std::to_string(ports_ != nullptr));
        return rc == 0 ? port_texts(ports_) : Strings{"fail"};
    }
    Strings first_sections() const {  // of every file record, in list order
        Strings out;
        for (const KOVA_SERVICE_CONF *c = confs_; c != nullptr; c = c->next) out.emplace_back(c->sections->name);
        return out;
    }
    std::string enum_failed(int ret, const std::string &err) const {
        return "service_conf_get.cpp:N Failed to KVLIBCFileEnumSection " + file_ + "(ret: " + std::to_string(ret) +
               ") or 0 section, kovaerr=" + err;
    }
    std::string no_section(const std::string &module, const std::string &name, int n, const std::string &err) const {
        return module + ".cpp:N Failed to KVLIBCFileGetSection, file: " + file_ + ", section name: " + name +
               ", nHashRecords: " + std::to_string(n) + ", kovaerr=" + err;
    }
    KOVA_SERVICE_CONF *confs_ = nullptr;
    KOVA_SERVICE_CONF_PORT *ports_ = nullptr;
    std::string file_;
};

}  // namespace kova::test
