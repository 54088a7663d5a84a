#include "fuzz_support.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#ifndef KOVA_FUZZ_TMPDIR
#define KOVA_FUZZ_TMPDIR "/tmp"
#endif

namespace kova::fuzz {

void fail(const char *file, int line, const char *cond, const std::string &message) {
    std::fprintf(stderr, "%s:%d: invariant failed: %s\n  %s\n", file, line, cond, message.c_str());
    std::abort();
}

std::string format(const char *fmt, ...) {
    va_list ap, again;
    va_start(ap, fmt);
    va_copy(again, ap);
    std::string out(static_cast<size_t>(std::vsnprintf(nullptr, 0, fmt, ap)), '\0');
    std::vsnprintf(out.data(), out.size() + 1, fmt, again);
    va_end(again);
    va_end(ap);
    return out;
}

std::string cut(std::string_view s, size_t capacity) {
    return std::string(s.substr(0, std::min(s.find('\0'), capacity - 1)));
}

static std::string g_root;  // made on first use

std::string under_root(std::string_view rel) {
    if (g_root.empty()) {
        const char *base = std::getenv("KOVA_FUZZ_TMPDIR");
        std::string tmpl = base != nullptr && *base != '\0' ? base : KOVA_FUZZ_TMPDIR;
        std::filesystem::create_directories(tmpl);
        tmpl += "/fuzzroot.XXXXXX";
        FUZZ_CHECKF(::mkdtemp(tmpl.data()) != nullptr, "cannot create %s", tmpl.c_str());
        g_root = tmpl;
        ::setenv("KOVA_ROOT", g_root.c_str(), 1);
        ::unsetenv("KOVA_LOG_FILE");
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(g_root, ec);
        });
    }
    return g_root + std::string(rel);
}

void write_file(std::string_view rel, std::string_view content, bool missing_if_empty) {
    const std::string path = under_root(rel);
    std::remove(path.c_str());  // a new file: rewriting one in place makes the file system flush it
    std::filesystem::create_directories(path.substr(0, path.rfind('/')));
    if (content.empty() && missing_if_empty) return;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    FUZZ_CHECKF(out.good(), "cannot write %s", path.c_str());
}

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool word_of(std::string_view s, std::string_view extra) {
    return !s.empty() && s.find_first_not_of(std::string(extra) + "0123456789abcdefghijklmnopqrstuvwxyz" +
                                             "ABCDEFGHIJKLMNOPQRSTUVWXYZ") == std::string_view::npos;
}

std::string trim(std::string_view s) {
    while (!s.empty() && is_space(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_space(s.back())) s.remove_suffix(1);
    return std::string(s);
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (char &c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

std::vector<std::string> split_all(std::string_view s, char sep, bool trimmed) {
    std::vector<std::string> out;
    for (;;) {
        const size_t at = s.find(sep);
        out.emplace_back(trimmed ? trim(s.substr(0, at)) : s.substr(0, at));
        if (at == std::string_view::npos) return out;
        s.remove_prefix(at + 1);
    }
}

std::vector<Port> to_vector(const KOVA_SERVICE_CONF_PORT *list) {
    std::vector<Port> out;
    for (; list != nullptr; list = list->next)
        out.push_back({list->direction, list->type, list->protocol, list->beginPort, list->endPort});
    return out;
}

std::string describe(const std::vector<Port> &ports) {
    std::string out;
    for (const Port &p : ports) out += format("[d%u t%u p%u %u-%u]", p.direction, p.type, p.protocol, p.begin, p.end);
    return out.empty() ? "(none)" : out;
}

bool model_port_check(std::string_view text) {
    const std::string_view digits = text.substr(std::min(text.find_first_not_of('0'), text.size()));
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos && digits.size() <= 5 &&
           (digits.empty() || std::stoul(std::string(digits)) <= 65535);
}

int model_protocol(const std::optional<std::string> &text) {
    if (!text || text->empty()) return KOVA_PROTO_BOTH;
    int flags = 0;
    for (const std::string &w : split_all(lower(trim(*text)), ',', true)) {
        if (w != "tcp" && w != "udp") return -1;
        flags |= w == "tcp" ? KOVA_PROTO_TCP : KOVA_PROTO_UDP;
    }
    return flags;
}

std::optional<std::vector<Port>> model_ports_get(std::string_view text, uint32_t direction) {
    const size_t slash = text.find('/');
    std::optional<std::string> protocol;
    if (slash != std::string_view::npos) protocol = trim(text.substr(slash + 1));
    const int flags = model_protocol(protocol);
    if (flags <= 0) return std::nullopt;

    std::vector<Port> out;  // in list order: the reverse of the text's
    for (const std::string &item : split_all(text.substr(0, slash), ',', true)) {
        const size_t colon = item.find(':');
        const bool range = colon != std::string::npos;
        const std::string first = item.substr(0, colon), last = range ? item.substr(colon + 1) : "0";
        if (!model_port_check(first) || !model_port_check(last)) return std::nullopt;
        out.insert(out.begin(),
                   Port{direction, range ? 1u : 0u, static_cast<uint32_t>(flags),
                        static_cast<uint32_t>(std::stoul(first)), static_cast<uint32_t>(std::stoul(last))});
    }
    return out;
}

std::string ini_value(std::string_view written) {
    std::string v = trim(written);
    return v.size() >= 2 && v.front() == '"' && v.back() == '"' ? v.substr(1, v.size() - 2) : v;
}

std::vector<IniLine> ini_lines(std::string_view text) {
    std::vector<IniLine> out;
    while (!text.empty()) {
        const size_t nl = text.find('\n');
        IniLine line{std::string(text.substr(0, nl == std::string_view::npos ? text.size() : nl + 1)), Ini::kOther, "",
                     ""};
        text.remove_prefix(line.text.size());
        const std::string t = trim(line.text);
        const size_t eq = line.text.find('=');
        const bool section = t.size() >= 2 && t.front() == '[' && t.back() == ']';
        line.kind = t.empty()                    ? Ini::kBlank
                    : t[0] == '#' || t[0] == ';' ? Ini::kComment
                    : section                    ? Ini::kSection
                    : eq != std::string::npos    ? Ini::kKey
                                                 : Ini::kOther;
        if (section) line.name = trim(t.substr(1, t.size() - 2));
        if (line.kind == Ini::kKey) line.name = trim(line.text.substr(0, eq));
        if (line.kind == Ini::kKey) line.value = ini_value(line.text.substr(eq + 1));
        out.push_back(std::move(line));
    }
    return out;
}

std::vector<IniSection> ini_sections(const std::vector<IniLine> &lines) {
    std::vector<IniSection> out(1);
    out[0].top = true;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].kind == Ini::kSection) out.push_back({false, lines[i].name, {}, {}});
        out.back().lines.push_back(i);
        if (lines[i].kind == Ini::kKey && !lines[i].name.empty()) out.back().keys[lines[i].name] = lines[i].value;
    }
    return out;
}

void check_section_reader(const std::string &path, const std::vector<IniSection> &model) {
    std::vector<const IniSection *> first;
    for (const IniSection &s : model)
        if (!s.top && std::none_of(first.begin(), first.end(), [&](const IniSection *f) { return f->name == s.name; }))
            first.push_back(&s);
    KVLIB_SZLIST *names = KVLIBCSzListAlloc(128);
    const int count = KVLIBCFileEnumSection(path.c_str(), &names);
    FUZZ_CHECKF(count == static_cast<int>(first.size()) && names->nItem == count, "%d sections listed, model %zu",
                count, first.size());
    for (int i = 0; i < count; ++i) {
        const IniSection &s = *first[static_cast<size_t>(i)];
        FUZZ_CHECKF(s.name == KVLIBCSzListGet(names, i), "section %d is [%s], model [%s]", i, KVLIBCSzListGet(names, i),
                    s.name.c_str());
        KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(512);
        const int keys = KVLIBCFileGetSection(path.c_str(), s.name.c_str(), &hash);
        FUZZ_CHECKF(keys == static_cast<int>(s.keys.size()), "[%s]: %d keys, model %zu", s.name.c_str(), keys,
                    s.keys.size());
        for (const auto &[key, value] : s.keys) {
            const char *got = KVLIBCSzHashGetValue(hash, key.c_str());
            FUZZ_CHECKF(got != nullptr && value == got, "[%s] %s = \"%s\", model \"%s\"", s.name.c_str(), key.c_str(),
                        got ? got : "(none)", value.c_str());
        }
        KVLIBCSzHashFree(hash);
    }
    KVLIBCSzListFree(names);
}

std::vector<Span> normalize_spans(std::vector<Span> spans) {
    std::sort(spans.begin(), spans.end(), [](const Span &x, const Span &y) { return x.b < y.b; });
    std::vector<Span> out;
    for (const Span &s : spans) {
        if (!out.empty() && s.b <= out.back().e + 1)
            out.back().e = std::max(out.back().e, s.e);
        else
            out.push_back(s);
    }
    return out;
}

}  // namespace kova::fuzz
