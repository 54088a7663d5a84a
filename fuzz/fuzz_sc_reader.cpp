// .sc files as hostile input: the bytes become a file of the system services.d directory under a
// private root and go through KOVAServiceConfGet and KOVAServiceConfSectionGet (enumeration
// reads files with the same reader).
//
// Oracle: a model of the file format written from its description, sharing no code with the
// library or the platform (the [global] settings, which sections count, the display-string split
// and the port_forward flag here; line syntax and port lists from fuzz_support). Every record the
// library returns must equal the model's, field by field, and a file the model refuses must be
// refused. The first line also goes through KOVAServiceConfServiceStringGet as a display-string key.
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

struct ModelSection {
    bool any_key = false;                      // a key line, NUL bytes and all
    std::map<std::string, std::string> value;  // key and value as C texts; the last line wins
};

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
            current->any_key = true;
            current->value[before_nul(l.name)] = before_nul(l.value);
        }
    }
    return file;
}

MODEL const char *get(const ModelSection &s, const char *key) {
    const auto it = s.value.find(key);
    return it == s.value.end() ? nullptr : it->second.c_str();
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
    if (it == file.sections.end() || !it->second.any_key) return std::nullopt;
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
            if (it == file.sections.end() || !it->second.any_key) continue;
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

// The five fields of a display string (prefix, section, key, text, extra text) and their sizes.
std::array<std::pair<const char *, size_t>, 5> fields(const KOVA_SERVICE_STRING &s) {
    return {{{s.prefix, sizeof s.prefix},
             {s.section, sizeof s.section},
             {s.key, sizeof s.key},
             {s.text, sizeof s.text},
             {s.extraText, sizeof s.extraText}}};
}

MODEL void check_field(const std::pair<const char *, size_t> &f, const std::string &model, const char *what) {
    FUZZ_CHECKF(std::memchr(f.first, 0, f.second) != nullptr && model == f.first, "%s: \"%.*s\", model \"%s\"", what,
                static_cast<int>(f.second), f.first, model.c_str());
}

MODEL void check_string(const KOVA_SERVICE_STRING &s, const std::string (&m)[5], const char *what) {
    for (size_t i = 0; i < 5; ++i) check_field(fields(s)[i], m[i], what);
}

// The key split of a display-string key: the fields it writes are the model's, every other
// byte of the record stays as it was.
MODEL void check_string_key(const std::string &key) {
    KOVA_SERVICE_STRING s;
    std::memset(&s, 0xA5, sizeof s);
    FUZZ_CHECKF(KOVAServiceConfServiceStringGet(key.c_str(), &s) == (key.empty() ? -1 : 0), "key \"%s\"", key.c_str());
    FUZZ_CHECK(KOVAServiceConfServiceStringGet(key.c_str(), nullptr) == -1);
    std::string m[5];
    set_string(m, key.c_str(), key.c_str());
    const bool split = key.find(':') != std::string::npos;
    for (size_t i = 0; i < 5; ++i) {
        const auto f = fields(s)[i];
        if (split ? i < 3 : i == 3 && !key.empty())
            check_field(f, m[i], "key field");
        else
            FUZZ_CHECKF(std::count(f.first, f.first + f.second, '\xA5') == static_cast<long>(f.second),
                        "key \"%s\" changed field %zu", key.c_str(), i);
    }
}

MODEL void check_section(const KOVA_SERVICE_CONF_SECTION &s, const ModelRecord &m) {
    FUZZ_CHECK(terminated(s.name));
    FUZZ_CHECKF(m.name == s.name, "section \"%s\", model \"%s\"", s.name, m.name.c_str());
    check_string(s.title, m.title, "title");
    check_string(s.desc, m.desc, "desc");
    FUZZ_CHECKF(s.portForward == m.port_forward, "port_forward %d in [%s]", s.portForward, s.name);
    FUZZ_CHECK(m.src ? to_vector(s.srcPort) == *m.src : s.srcPort == nullptr);
    FUZZ_CHECKF(to_vector(s.dstPort) == *m.dst, "dst.ports %s, model %s", describe(to_vector(s.dstPort)).c_str(),
                describe(*m.dst).c_str());
}

MODEL void check_conf(const KOVA_SERVICE_CONF &c, const ModelConf &m) {
    FUZZ_CHECK(terminated(c.supportKey) && terminated(c.runKey));
    FUZZ_CHECKF(c.version == m.version && m.support == c.supportKey && m.run == c.runKey, "global v%d \"%s\" \"%s\"",
                c.version, c.supportKey, c.runKey);
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
    FUZZ_CHECKF(rc == (model ? 0 : -1), "read gave %d, the model %s the file", rc, model ? "accepts" : "refuses");
    FUZZ_CHECK(rc == 0 ? list != &held && list->next == &held : list == &held);
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
