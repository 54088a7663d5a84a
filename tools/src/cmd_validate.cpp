// kova-svc validate: a .sc file read as the library reads it, every problem reported.
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iostream>
#include <map>
#include <optional>
#include <set>

#include "catalogue.h"
#include "commands.h"
#include "json.h"
#include "ports_text.h"
#include "status.h"

namespace kovasvc {

namespace {

constexpr size_t kTextField = sizeof(KOVA_SERVICE_STRING{}.text);
constexpr size_t kCatalogueName = sizeof(KOVA_FW_SERVICE{}.name);
constexpr size_t kMaxNamedPorts = 4096;  // ports per section looked up by name in a collision

struct Finding {
    std::string section;  // empty: the file as a whole
    std::string severity;
    std::string message;
};

struct Collision {
    std::string section;
    PortRun run;
    std::vector<std::string> services;
};

struct SectionResult {
    std::string name;
    bool accepted = false;
    SectionsPtr parsed;  // null when the section reader refuses it
};

class Validation {
public:
    explicit Validation(std::string file) : file_(std::move(file)) {}
    int run(bool json);

private:
    void error(const std::string &section, const std::string &message) { add(section, "error", message); }
    void warning(const std::string &section, const std::string &message) { add(section, "warning", message); }
    void add(const std::string &section, const char *severity, const std::string &message) {
        findings_.push_back({section, severity, message});
    }

    std::vector<std::string> section_names();
    void read_whole_file();
    void check_section(SectionResult &section);
    void diagnose(const std::string &name, const KVLIB_SZHASH *keys);
    void warn_about(const std::string &name, const KVLIB_SZHASH *keys, const KOVA_SERVICE_CONF_SECTION *parsed);
    void check_collisions(const SectionResult &section);
    void check_name_in_use(const std::string &name);
    void print_text() const;
    void print_json() const;

    std::string file_;
    ConfsPtr conf_;  // the file as KOVAServiceConfGet reads it; null when it refuses the file
    std::set<std::string> accepted_;
    std::vector<SectionResult> sections_;
    std::vector<Finding> findings_;
    std::vector<Collision> collisions_;
    std::optional<Catalogue> catalogue_;
};

std::string base_name(const std::string &path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool valid_section_name(const std::string &name) {
    if (name.empty()) return false;
    for (unsigned char c : name)
        if (!std::isalnum(c) && c != '-' && c != '.' && c != '_') return false;
    return true;
}

const char *hash_value(const KVLIB_SZHASH *keys, const char *key) {
    return keys != nullptr ? KVLIBCSzHashGetValue(keys, key) : nullptr;
}

// The entries of a parsed port list in the order of the file's text.
std::vector<const KOVA_SERVICE_CONF_PORT *> text_order(const KOVA_SERVICE_CONF_PORT *list) {
    std::vector<const KOVA_SERVICE_CONF_PORT *> entries;
    for (const auto *p = list; p != nullptr; p = p->next) entries.push_back(p);
    std::reverse(entries.begin(), entries.end());
    return entries;
}

void ports_json(Json &json, const KOVA_SERVICE_CONF_PORT *list) {
    if (list == nullptr) {
        json.null();
        return;
    }
    json.begin_object().key("protocol").string(protocol_names(list->protocol)).key("ports").begin_array();
    for (const auto *p : text_order(list))
        json.string(p->type == 1 ? std::to_string(p->beginPort) + "-" + std::to_string(p->endPort)
                                 : std::to_string(p->beginPort));
    json.end_array().end_object();
}

}  // namespace

std::vector<std::string> Validation::section_names() {
    SzListPtr names(KVLIBCSzListAlloc(1024));
    if (!names) fail_with_library_error("cannot allocate a list");
    KVLIB_SZLIST *raw = names.get();
    clear_library_error();
    int n = KVLIBCFileEnumSection(file_.c_str(), &raw);
    if (n < 0) fail_with_library_error("cannot read " + file_);
    return list_items(raw);
}

void Validation::read_whole_file() {
    KOVA_SERVICE_CONF *head = nullptr;
    clear_library_error();
    if (KOVAServiceConfGet(file_.c_str(), &head) != 0) {
        KOVAServiceConfFree(head);
        return;
    }
    conf_.reset(head);
    for (const auto *s = head->sections; s != nullptr; s = s->next) accepted_.insert(s->name);
}

void Validation::diagnose(const std::string &name, const KVLIB_SZHASH *keys) {
    size_t before = findings_.size();
    if (!valid_section_name(name)) error(name, "the section name may hold only letters, digits, '-', '.' and '_'");
    if (keys == nullptr) {
        error(name, "the section has no keys");
        return;
    }
    for (const char *key : {"title", "desc", "dst.ports"})
        if (hash_value(keys, key) == nullptr) error(name, std::string("missing key \"") + key + "\"");
    for (const char *key : {"src.ports", "dst.ports"}) {
        const char *value = hash_value(keys, key);
        if (value == nullptr) continue;
        KOVA_SERVICE_CONF_PORT *ports = nullptr;
        clear_library_error();
        if (KOVAServiceConfPortsGet(value, 0, &ports) != 0)
            error(name, std::string("\"") + key + "\" value '" + value + "' is not a port list: " + library_error());
        KOVAServiceConfPortsFree(ports);
    }
    if (findings_.size() == before) error(name, "the reader refuses the section (see the system log)");
}

void Validation::warn_about(const std::string &name, const KVLIB_SZHASH *keys,
                            const KOVA_SERVICE_CONF_SECTION *parsed) {
    if (name.size() >= kCatalogueName)
        warning(name, "the firewall catalogue cuts the name to " + std::to_string(kCatalogueName - 1) + " characters");
    for (const char *key : {"title", "desc", "desc_extra"}) {
        const char *value = hash_value(keys, key);
        if (value != nullptr && std::strlen(value) >= kTextField)
            warning(name, std::string("\"") + key + "\" is longer than " + std::to_string(kTextField - 1) +
                              " bytes and is cut");
    }
    const char *dst = hash_value(keys, "dst.ports");
    if (dst != nullptr && std::strchr(dst, '/') == nullptr)
        warning(name, "\"dst.ports\" names no protocol: the install-time conflict check does not compare it");
    if (parsed == nullptr) return;
    for (const auto *list : {parsed->dstPort, parsed->srcPort}) {
        for (const auto *p : text_order(list))
            if (p->type == 1 && p->beginPort > p->endPort)
                warning(name, std::string("\"") + (p->direction == 1 ? "dst" : "src") +
                                  ".ports\" has the backwards range " + std::to_string(p->beginPort) + ":" +
                                  std::to_string(p->endPort));
    }
}

void Validation::check_name_in_use(const std::string &name) {
    if (!catalogue_) return;
    std::string cut = name.substr(0, kCatalogueName - 1);
    for (const auto &e : catalogue_->entries()) {
        if (cut != e.service->name) continue;
        if (!e.source.file.empty() && base_name(e.source.file) == base_name(file_)) continue;  // this file, installed
        std::string where = e.source.file.empty() ? std::string() : " (" + e.source.file + ")";
        warning(name, std::string("a ") + origin_name(e.source.origin) + " service of this name exists" + where +
                          ": lookups find only one of them");
        return;
    }
}

void Validation::check_collisions(const SectionResult &section) {
    const KOVA_SERVICE_CONF_SECTION *s = section.parsed.get();
    if (s == nullptr || s->dstPort == nullptr) return;
    std::vector<char> ports(65536), protocol(64);
    clear_library_error();
    if (KVLIBServiceConfPortsToStr(s->dstPort, ports.data(), static_cast<int>(ports.size()), protocol.data(),
                                   static_cast<int>(protocol.size())) != 0) {
        warning(section.name, "the ports cannot be compared: " + library_error());
        return;
    }
    ConflictList colliding;
    clear_library_error();
    int verdict = KVLIBIsPortConflict(section.name.c_str(), ports.data(), protocol.data(),
                                      KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED, colliding.out());
    if (verdict < 0) {
        warning(section.name, "the conflict check failed: " + library_error());
        return;
    }
    if (verdict == 0) return;
    std::vector<PortRun> runs = merged(conflict_runs(colliding.head()));
    if (runs.empty()) {
        collisions_.push_back({section.name, {0, 0}, {}});
        return;
    }

    // Who declares the colliding ports, from the configured-ports report.
    std::vector<unsigned int> named = expand(runs);
    if (named.size() > kMaxNamedPorts) named.resize(kMaxNamedPorts);
    std::map<unsigned int, std::set<std::string>> holders;
    SzListPtr list = port_text_list(named);
    ConfResultsPtr report(
        KOVAConfPortConflictResultListAllocAndCheck(list.get(), static_cast<uint16_t>(s->dstPort->protocol)));
    for (const auto &r : DListRecords<KOVA_CONF_PORT_CONFLICT_RESULT>(report.get()))
        if (r.isConflict == 1 && r.serviceName != nullptr && section.name != r.serviceName)
            holders[r.port].insert(r.serviceName);
    for (const auto &run : runs) {
        std::set<std::string> names;
        for (auto it = holders.lower_bound(run.first); it != holders.end() && it->first <= run.last; ++it)
            names.insert(it->second.begin(), it->second.end());
        collisions_.push_back({section.name, run, std::vector<std::string>(names.begin(), names.end())});
    }
}

void Validation::check_section(SectionResult &section) {
    const std::string &name = section.name;
    section.accepted = accepted_.count(name) != 0;

    SzHashPtr keys(KVLIBCSzHashAlloc(1024));
    if (!keys) fail_with_library_error("cannot allocate a hash");
    KVLIB_SZHASH *raw = keys.get();
    bool has_keys = KVLIBCFileGetSection(file_.c_str(), name.c_str(), &raw) > 0;
    if (raw != keys.get()) {
        (void)keys.release();  // the reader replaced the hash
        keys.reset(raw);
    }

    KOVA_SERVICE_CONF_SECTION *head = nullptr;
    clear_library_error();
    if (KOVAServiceConfSectionGet(file_.c_str(), name.c_str(), &head) == 0)
        section.parsed.reset(head);
    else
        KOVAServiceConfSectionFree(head);

    if (!section.accepted) diagnose(name, has_keys ? keys.get() : nullptr);
    warn_about(name, has_keys ? keys.get() : nullptr, section.parsed.get());
    check_name_in_use(name);
    check_collisions(section);
}

int Validation::run(bool json) {
    struct stat st;
    if (::stat(file_.c_str(), &st) != 0) throw Failure("cannot read " + file_ + ": file not found");
    if (!S_ISREG(st.st_mode)) throw Failure("cannot read " + file_ + ": not a regular file");

    std::vector<std::string> names = section_names();
    read_whole_file();
    catalogue_.emplace(Catalogue::load());

    std::set<std::string> seen;
    size_t services = 0;
    for (const auto &name : names) {
        if (!seen.insert(name).second) {
            warning(name, "the section appears more than once; the reader takes one of them");
            continue;
        }
        if (name == "global") continue;
        ++services;
        SectionResult section;
        section.name = name;
        check_section(section);
        sections_.push_back(std::move(section));
    }
    if (services == 0)
        error("", "the file has no service section");
    else if (!conf_)
        error("", "the library does not accept the file: none of its service sections can be read");

    if (json)
        print_json();
    else
        print_text();
    bool errors =
        std::any_of(findings_.begin(), findings_.end(), [](const Finding &f) { return f.severity == "error"; });
    return errors || !collisions_.empty() ? kExitConflict : kExitOk;
}

void Validation::print_text() const {
    auto print_finding = [&](const Finding &f) {
        std::cout << file_ << ": " << (f.section.empty() ? "" : "[" + f.section + "] ") << f.severity << ": "
                  << f.message << '\n';
    };
    auto print_collision = [&](const Collision &c) {
        std::cout << file_ << ": [" << c.section << "] collision: ";
        if (c.run.first == 0) {
            std::cout << "the ports collide with a port that the check does not name\n";
            return;
        }
        bool one = c.run.first == c.run.last;
        std::cout << (one ? "port " : "ports ") << run_text(c.run) << (one ? " collides with " : " collide with ");
        if (c.services.empty()) std::cout << "reserved ports";
        for (size_t i = 0; i < c.services.size(); ++i) std::cout << (i == 0 ? "" : ", ") << c.services[i];
        std::cout << '\n';
    };
    // The file's own findings first, then section by section in file order.
    std::set<std::string> listed;
    for (const auto &s : sections_) listed.insert(s.name);
    for (const auto &f : findings_)
        if (listed.count(f.section) == 0) print_finding(f);
    for (const auto &s : sections_) {
        for (const auto &f : findings_)
            if (f.section == s.name) print_finding(f);
        for (const auto &c : collisions_)
            if (c.section == s.name) print_collision(c);
    }

    size_t accepted = static_cast<size_t>(
        std::count_if(sections_.begin(), sections_.end(), [](const SectionResult &s) { return s.accepted; }));
    size_t errors = 0, warnings = 0;
    for (const auto &f : findings_) (f.severity == "error" ? errors : warnings)++;
    auto counted = [](size_t n, const char *what) { return std::to_string(n) + " " + what + (n == 1 ? "" : "s"); };
    std::cout << file_ << ": " << counted(sections_.size(), "service section") << ", " << accepted << " accepted; "
              << counted(errors, "error") << ", " << counted(warnings, "warning") << ", "
              << counted(collisions_.size(), "collision") << '\n';
}

void Validation::print_json() const {
    Json json(std::cout);
    json.begin_object();
    json.key("file").string(file_);
    json.key("accepted").boolean(conf_ != nullptr);
    json.key("version");
    if (conf_)
        json.number(conf_->version);
    else
        json.null();
    json.key("support_key").string(conf_ ? conf_->supportKey : "");
    json.key("sections").begin_array();
    for (const auto &s : sections_) {
        json.begin_object().key("name").string(s.name).key("accepted").boolean(s.accepted);
        json.key("dst");
        ports_json(json, s.parsed ? s.parsed->dstPort : nullptr);
        json.key("src");
        ports_json(json, s.parsed ? s.parsed->srcPort : nullptr);
        json.end_object();
    }
    json.end_array();
    json.key("problems").begin_array();
    for (const auto &f : findings_) {
        json.begin_object().key("section");
        if (f.section.empty())
            json.null();
        else
            json.string(f.section);
        json.key("severity").string(f.severity).key("message").string(f.message).end_object();
    }
    json.end_array();
    json.key("collisions").begin_array();
    for (const auto &c : collisions_) {
        json.begin_object().key("section").string(c.section);
        json.key("first").number(c.run.first).key("last").number(c.run.last);
        json.key("services").begin_array();
        for (const auto &n : c.services) json.string(n);
        json.end_array().end_object();
    }
    json.end_array();
    json.end_object().finish();
}

int run_validate(const Args &args) {
    Validation v(args.operands()[0]);
    return v.run(args.json());
}

}  // namespace kovasvc
