// kova-svc validate: a .sc file read as the library reads it, every problem reported.
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>

#include "catalogue.h"
#include "commands.h"
#include "holders.h"
#include "json.h"
#include "ports_text.h"
#include "session.h"
#include "status.h"

namespace kovasvc {

namespace {

constexpr size_t kTextField = sizeof(KOVA_SERVICE_STRING{}.text);
constexpr size_t kCatalogueName = sizeof(KOVA_FW_SERVICE{}.name);

struct Finding {
    std::string section;  // empty: the file as a whole
    std::string severity;
    std::string message;
    std::string key;  // the key the finding is about, if any
};

struct Collision {
    std::string section;
    std::vector<PortRun> runs;
    HolderReport named;
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
    void error(const std::string &section, const std::string &message, const std::string &key = "") {
        add(section, "error", message, key);
    }
    void warning(const std::string &section, const std::string &message, const std::string &key = "") {
        add(section, "warning", message, key);
    }
    void add(const std::string &section, const char *severity, const std::string &message, const std::string &key) {
        findings_.push_back({section, severity, message, key});
    }
    void read_lines();
    size_t line_of(const std::string &section, const std::string &key) const;

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
    std::map<std::string, size_t> section_lines_;                      // first "[name]" line
    std::map<std::pair<std::string, std::string>, size_t> key_lines_;  // last "key=" line of a section
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

std::vector<PortRun> list_runs(const KOVA_SERVICE_CONF_PORT *list) {
    std::vector<PortRun> runs;
    for (const auto *p : text_order(list))
        runs.push_back(p->type == 1 ? PortRun{std::min(p->beginPort, p->endPort), std::max(p->beginPort, p->endPort)}
                                    : PortRun{p->beginPort, p->beginPort});
    return runs;
}

void ports_json(Json &json, const KOVA_SERVICE_CONF_PORT *list) {
    if (list == nullptr)
        json.null();
    else
        port_list_json(json, list->protocol, list_runs(list));
}

std::string trimmed(const std::string &text) {
    size_t b = text.find_first_not_of(" \t\r"), e = text.find_last_not_of(" \t\r");
    return b == std::string::npos ? "" : text.substr(b, e - b + 1);
}

}  // namespace

void Validation::read_lines() {
    std::ifstream in(file_);
    std::string line, section;
    for (size_t n = 1; std::getline(in, line); ++n) {
        std::string t = trimmed(line);
        if (t.empty() || t[0] == '#' || t[0] == ';') continue;
        if (t.front() == '[' && t.back() == ']') {
            section = t.substr(1, t.size() - 2);
            section_lines_.emplace(section, n);
        } else if (size_t eq = t.find('='); eq != std::string::npos) {
            key_lines_[{section, trimmed(t.substr(0, eq))}] = n;
        }
    }
}

size_t Validation::line_of(const std::string &section, const std::string &key) const {
    if (!key.empty())
        if (auto it = key_lines_.find({section, key}); it != key_lines_.end()) return it->second;
    if (auto it = section_lines_.find(section); it != section_lines_.end()) return it->second;
    return 1;
}

std::vector<std::string> Validation::section_names() {
    SzListPtr names(KVLIBCSzListAlloc(1024));
    if (!names) fail_with_library_error("cannot allocate a list");
    KVLIB_SZLIST *raw = names.get();
    clear_library_error();
    int n = KVLIBCFileEnumSection(file_.c_str(), &raw);
    if (n < 0) fail_with_library_error("cannot read " + file_, file_);
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
            error(
                name,
                std::string("\"") + key + "\" value '" + value + "' is not a port list: " + error_words(KVLIBCErrGet()),
                key);
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
            warning(
                name,
                std::string("\"") + key + "\" is longer than " + std::to_string(kTextField - 1) + " bytes and is cut",
                key);
    }
    const char *dst = hash_value(keys, "dst.ports");
    if (dst != nullptr && std::strchr(dst, '/') == nullptr)
        warning(name, "\"dst.ports\" names no protocol: the install-time conflict check does not compare it",
                "dst.ports");
    if (parsed == nullptr) return;
    for (const auto *list : {parsed->dstPort, parsed->srcPort}) {
        for (const auto *p : text_order(list))
            if (p->type == 1 && p->beginPort > p->endPort)
                warning(name,
                        std::string("\"") + (p->direction == 1 ? "dst" : "src") + ".ports\" has the backwards range " +
                            std::to_string(p->beginPort) + ":" + std::to_string(p->endPort),
                        p->direction == 1 ? "dst.ports" : "src.ports");
    }
}

void Validation::check_name_in_use(const std::string &name) {
    if (!catalogue_) return;
    std::string cut = name.substr(0, kCatalogueName - 1);
    for (const auto &e : catalogue_->entries()) {
        if (cut != e.name) continue;
        std::string file(e.file);
        if (!file.empty() && base_name(file) == base_name(file_)) continue;  // this file, installed
        std::string where = file.empty() ? std::string() : " (" + file + ")";
        warning(name, std::string("a ") + origin_name(e.origin) + " service of this name exists" + where +
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
        warning(section.name, "the ports cannot be compared: " + std::string(error_words(KVLIBCErrGet())), "dst.ports");
        return;
    }
    ConflictList colliding;
    clear_library_error();
    int verdict = KVLIBIsPortConflict(section.name.c_str(), ports.data(), protocol.data(),
                                      KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED, colliding.out());
    if (verdict < 0) {
        warning(section.name, "the conflict check failed: " + std::string(error_words(KVLIBCErrGet())), "dst.ports");
        return;
    }
    if (verdict == 0) return;
    Collision c;
    c.section = section.name;
    c.runs = merged(conflict_runs(colliding.head()));
    HolderQuery q;
    q.runs = c.runs;
    q.protocols = s->dstPort->protocol;
    q.sources = KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED;
    q.skip = {section.name};
    c.named = find_holders(q);
    collisions_.push_back(std::move(c));
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
    if (::stat(file_.c_str(), &st) != 0) throw Failure("cannot read " + file_ + ": file not found", file_);
    if (!S_ISREG(st.st_mode)) throw Failure("cannot read " + file_ + ": not a regular file", file_);
    read_lines();

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
        std::cout << file_ << ':' << line_of(f.section, f.key) << ": "
                  << (f.section.empty() ? "" : "[" + f.section + "] ") << f.severity << ": " << f.message << '\n';
    };
    auto print_collision = [&](const Collision &c) {
        std::cout << file_ << ':' << line_of(c.section, "dst.ports") << ": [" << c.section << "] collision: ";
        if (c.runs.empty()) {
            std::cout << "the ports collide with a port that the check does not name\n";
            return;
        }
        std::cout << "ports " << runs_text(c.runs) << " collide with ";
        std::string names;
        for (const auto &h : c.named.holders)
            names += (names.empty() ? "" : ", ") + std::string(h.source == HolderSource::Reserved ? "reserved " : "") +
                     h.name + " (" + run_text(h.run) + ")";
        std::cout << (names.empty() ? "reserved ports" : names) << '\n';
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
    bool errors =
        std::any_of(findings_.begin(), findings_.end(), [](const Finding &f) { return f.severity == "error"; });
    Json json(std::cout);
    json.begin_object();
    json.key("file").string(file_);
    json.key("accepted").boolean(conf_ != nullptr && !errors);
    json.key("version");
    if (conf_ && conf_->version != 0)
        json.number(conf_->version);
    else
        json.null();
    json.key("support_key");
    if (conf_ && conf_->supportKey[0] != '\0')
        json.string(conf_->supportKey);
    else
        json.null();
    json.key("sections").begin_array();
    for (const auto &s : sections_) {
        json.begin_object().key("name").string(s.name).key("line").number(static_cast<int64_t>(line_of(s.name, "")));
        json.key("accepted").boolean(s.accepted);
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
        json.key("line").number(static_cast<int64_t>(line_of(f.section, f.key)));
        json.key("severity").string(f.severity).key("message").string(f.message).end_object();
    }
    json.end_array();
    json.key("collisions").begin_array();
    for (const auto &c : collisions_) {
        json.begin_object().key("section").string(c.section);
        json.key("line").number(static_cast<int64_t>(line_of(c.section, "dst.ports")));
        json.key("ports");
        runs_json(json, c.runs);
        holders_json(json, c.named);
        json.end_object();
    }
    json.end_array();
    warnings_json(json);
    json.end_object().finish();
}

int run_validate(const Args &args) {
    Validation v(args.operands()[0]);
    return v.run(args.json());
}

}  // namespace kovasvc
