// .sc files as hostile input, in the system services.d directory under a private root, read by
// KOVAServiceConfGet and KOVAServiceConfSectionGet (enumeration uses the same reader); the first
// line is also a display-string key for KOVAServiceConfServiceStringGet. The model is written from
// the file format and shares no code with the library: every record must equal the model's field
// by field, and a file the model refuses must be refused.
#include <array>
#include <cstdlib>

#include "fuzz_support.h"

// The model and the comparisons are not what the fuzzer should explore: uninstrumented, they
// add no features and each run costs less.
#if defined(__clang__)
#define MODEL __attribute__((no_sanitize("coverage")))
#else
#define MODEL
#endif

namespace {

using namespace kova::fuzz;

constexpr const char *kScFile = "/usr/kova/etc/services.d/fuzz.sc";

MODEL std::string before_nul(const std::string &s) {
    return s.substr(0, s.find('\0'));
}

// A section's keys and values as C texts (the last line wins); it counts when it has a key.
using ModelSection = std::map<std::string, std::string>;

struct ModelFile {
    std::vector<std::string> names;                // listed: first of each full name, as a C text
    std::map<std::string, ModelSection> sections;  // by full name; keys of the first section only
};

MODEL ModelFile model_file(const std::string &text) {
    ModelFile file;
    ModelSection *current = nullptr;
    for (const IniLine &l : ini_lines(text)) {
        if (l.kind == Ini::kSection) {
            const bool first = file.sections.count(l.name) == 0;
            current = first ? &file.sections[l.name] : nullptr;
            if (first) file.names.push_back(before_nul(l.name));
        } else if (l.kind == Ini::kKey && current != nullptr && !l.name.empty()) {
            (*current)[before_nul(l.name)] = before_nul(l.value);
        }
    }
    return file;
}

MODEL const char *get(const ModelSection &s, const char *key) {
    const auto it = s.find(key);
    return it == s.end() ? nullptr : it->second.c_str();
}

struct ModelRecord {
    std::string name, title[5], desc[5];  // prefix, section, key, text, extra text
    int port_forward = 0;
    std::optional<std::vector<Port>> src, dst;
};

// A display-string key: "prefix:section:key" (the key keeps any further ":"), "section:key", or
// without ":" nothing but the text.
MODEL void set_string(std::string (&out)[5], const char *key, const char *text) {
    const std::string k = key != nullptr ? key : "";
    const size_t one = k.find(':'), two = k.find(':', one + 1);
    if (one != std::string::npos) {
        const bool three = two != std::string::npos;
        if (three) out[0] = cut(trim(k.substr(0, one)), 256);
        out[1] = cut(trim(three ? k.substr(one + 1, two - one - 1) : k.substr(0, one)), 64);
        out[2] = cut(trim(k.substr((three ? two : one) + 1)), 128);
    }
    out[3] = cut(text, 128);
}

MODEL std::optional<ModelRecord> model_section(const ModelFile &file, const std::string &name) {
    const auto it = file.sections.find(name);
    if (it == file.sections.end() || it->second.empty()) return std::nullopt;
    const ModelSection &s = it->second;
    const char *title = get(s, "title"), *desc = get(s, "desc"), *dst = get(s, "dst.ports");
    if (title == nullptr || desc == nullptr || dst == nullptr) return std::nullopt;
    ModelRecord r;
    r.name = cut(name, 256);
    set_string(r.title, get(s, "title_key"), title);
    set_string(r.desc, get(s, "desc_key"), desc);
    if (const char *extra = get(s, "desc_extra")) r.desc[4] = cut(extra, 128);
    if (const char *pf = get(s, "port_forward")) r.port_forward = trim(lower(cut(pf, 32))) == "yes";
    const char *src = get(s, "src.ports");
    if (src != nullptr) r.src = model_ports_get(src, 0);
    r.dst = model_ports_get(dst, 1);
    if (!r.dst || (src != nullptr && !r.src)) return std::nullopt;
    return r;
}

struct ModelConf {
    int version = 0;
    std::string support, run;
    std::vector<ModelRecord> sections;  // in list order: the reverse of the file's
};

MODEL std::optional<ModelConf> model_conf(const ModelFile &file) {
    ModelConf conf;
    for (const std::string &name : file.names) {
        if (!word_of(name, "-._")) continue;
        if (name == "global") {
            const auto it = file.sections.find(name);
            if (it == file.sections.end() || it->second.empty()) continue;
            const char *version = get(it->second, "version");
            conf.version = version != nullptr ? static_cast<int>(std::strtol(version, nullptr, 10)) : 1;
            if (const char *v = get(it->second, "support_key")) conf.support = cut(v, 128);
            if (const char *v = get(it->second, "run_key")) conf.run = cut(v, 128);
        } else if (auto r = model_section(file, name)) {
            conf.sections.insert(conf.sections.begin(), std::move(*r));
        }
    }
    if (conf.sections.empty()) return std::nullopt;
    return conf;
}

// The five fields of a display string (prefix, section, key, text, extra text), whole.
std::array<std::string_view, 5> fields(const KOVA_SERVICE_STRING &s) {
    return {std::string_view(s.prefix, sizeof s.prefix), std::string_view(s.section, sizeof s.section),
            std::string_view(s.key, sizeof s.key), std::string_view(s.text, sizeof s.text),
            std::string_view(s.extraText, sizeof s.extraText)};
}

// Field i holds the model's text, terminated, where bit i of `written` is set; elsewhere every
// byte stays as it was (0xA5).
MODEL void check_string(const KOVA_SERVICE_STRING &s, const std::string (&m)[5], const std::string &what,
                        unsigned written = 31) {
    for (size_t i = 0; i < 5; ++i) {
        const std::string_view f = fields(s)[i];
        const bool ok = (written >> i & 1) != 0 ? f.find('\0') != f.npos && f.substr(0, f.find('\0')) == m[i]
                                                : f.find_first_not_of('\xA5') == f.npos;
        FUZZ_CHECKF(ok, "%s field %zu: \"%.*s\", model \"%s\"", what.c_str(), i, static_cast<int>(f.size()), f.data(),
                    (written >> i & 1) != 0 ? m[i].c_str() : "(untouched)");
    }
}

// A display-string key on its own: the fields the split writes are the model's, the others untouched.
MODEL void check_string_key(const std::string &key) {
    KOVA_SERVICE_STRING s;
    std::memset(&s, 0xA5, sizeof s);
    FUZZ_CHECKF(KOVAServiceConfServiceStringGet(key.c_str(), &s) == (key.empty() ? -1 : 0), "key \"%s\"", key.c_str());
    FUZZ_CHECK(KOVAServiceConfServiceStringGet(key.c_str(), nullptr) == -1);
    std::string m[5];
    set_string(m, key.c_str(), key.c_str());
    check_string(s, m, "key \"" + key + "\"", key.find(':') != std::string::npos ? 7u : key.empty() ? 0u : 8u);
}

MODEL void check_section(const KOVA_SERVICE_CONF_SECTION &s, const ModelRecord &m) {
    FUZZ_CHECKF(terminated(s.name) && m.name == s.name, "section \"%.*s\", model \"%s\"",
                static_cast<int>(sizeof s.name), s.name, m.name.c_str());
    check_string(s.title, m.title, "title");
    check_string(s.desc, m.desc, "desc");
    FUZZ_CHECKF(s.portForward == m.port_forward && to_vector(s.dstPort) == *m.dst &&
                    (m.src ? to_vector(s.srcPort) == *m.src : s.srcPort == nullptr),
                "[%s] port_forward %d, src %s, dst %s", m.name.c_str(), s.portForward,
                describe(to_vector(s.srcPort)).c_str(), describe(to_vector(s.dstPort)).c_str());
}

MODEL void check_conf(const KOVA_SERVICE_CONF &c, const ModelConf &m) {
    FUZZ_CHECKF(terminated(c.supportKey) && terminated(c.runKey) && c.version == m.version &&
                    m.support == c.supportKey && m.run == c.runKey,
                "global v%d, model v%d \"%s\" \"%s\"", c.version, m.version, m.support.c_str(), m.run.c_str());
    size_t i = 0;
    for (const KOVA_SERVICE_CONF_SECTION *s = c.sections; s != nullptr; s = s->next, ++i) {
        FUZZ_CHECKF(i < m.sections.size(), "more sections than the model's %zu", m.sections.size());
        check_section(*s, m.sections[i]);
    }
    FUZZ_CHECKF(i == m.sections.size(), "%zu sections, model %zu", i, m.sections.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 65536) return 0;
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::string path = under_root(kScFile);
    write_file(kScFile, text);
    const ModelFile file = model_file(text);
    const std::optional<ModelConf> model = model_conf(file);
    check_string_key(before_nul(text.substr(0, text.find('\n'))));

    // A list that already holds a record: a new record goes in front, a failure leaves it.
    KOVA_SERVICE_CONF held{};
    KOVA_SERVICE_CONF *list = &held;
    const int rc = KOVAServiceConfGet(path.c_str(), &list);
    FUZZ_CHECKF(rc == (model ? 0 : -1) && (rc == 0 ? list != &held && list->next == &held : list == &held),
                "read gave %d, the model %s the file", rc, model ? "accepts" : "refuses");
    if (rc == 0) {
        check_conf(*list, *model);
        list->next = nullptr;
        KOVAServiceConfFree(list);
    }

    // One section read by name, the first that the file lists.
    if (!file.names.empty()) {
        const std::string &name = file.names[0];
        KOVA_SERVICE_CONF_SECTION *section = nullptr;
        const std::optional<ModelRecord> expected = model_section(file, name);
        const int got = KOVAServiceConfSectionGet(path.c_str(), name.c_str(), &section);
        FUZZ_CHECKF(got == (expected ? 0 : -1), "section [%s] read gave %d", name.c_str(), got);
        if (got == 0 && expected) check_section(*section, *expected);
        KOVAServiceConfSectionFree(section);
    }
    return 0;
}
