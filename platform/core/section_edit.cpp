// Text edits of sectioned files.
#include "core/section_edit.h"

#include <optional>
#include <unordered_map>

#include "section_lexer.h"

namespace kova::platform::ini {

using namespace ::kova::ini;

namespace {

bool has_line_break(std::string_view s) {
    return s.find_first_of("\r\n") != std::string_view::npos;
}

// The line ending used for lines we add: the file's first one, "\n" for a file without any.
std::string_view eol_of(std::string_view text) {
    size_t nl = text.find('\n');
    return nl != std::string_view::npos && nl > 0 && text[nl - 1] == '\r' ? "\r\n" : "\n";
}

// The line ending that follows a line's content ("" for a last line without one).
std::string_view ending(std::string_view text, const Line &line) {
    return text.substr(line.end, line.next - line.end);
}

void append_key(std::string &out, std::string_view key, std::string_view value, std::string_view eol) {
    out.append(key).append("=").append(value).append(eol);
}

// Appends a new section at the end of `out` (which holds the whole text so far), after a
// blank line.
void append_section(std::string &out, std::string_view name, const Entries &entries, std::string_view eol) {
    if (!out.empty()) {
        if (out.back() != '\n') out.append(eol);
        std::string_view body(out.data(), out.size() - 1);
        size_t nl = body.rfind('\n');
        if (!trim(nl == std::string_view::npos ? body : body.substr(nl + 1)).empty()) out.append(eol);
    }
    out.append("[").append(name).append("]").append(eol);
    for (const auto &[k, v] : entries) append_key(out, k, v, eol);
}

struct SectionSpan {
    bool found = false;
    Line header;
    size_t last_key_end = 0;  // `next` of the last key line, or of the header
    size_t end = 0;           // where the next section starts, or the end of the text
};

SectionSpan find_section(std::string_view text, std::string_view name) {
    SectionSpan span;
    span.end = text.size();
    for_each_line(text, [&](const Line &line) {
        if (line.kind == Kind::kSection) {
            if (span.found) {
                span.end = line.begin;
                return false;
            }
            if (line.name == name) {
                span.found = true;
                span.header = line;
                span.last_key_end = line.next;
            }
        } else if (span.found && line.kind == Kind::kKey) {
            span.last_key_end = line.next;
        }
        return true;
    });
    return span;
}

// Appends `line` as it is, with its line ending.
void copy_line(std::string &out, std::string_view text, const Line &line) {
    out.append(text.substr(line.begin, line.next - line.begin));
}

}  // namespace

bool valid_section_name(std::string_view name) {
    return !name.empty() && !has_line_break(name) && name.find(']') == std::string_view::npos && trim(name) == name;
}

bool valid_key(std::string_view key) {
    return !key.empty() && !has_line_break(key) && key.find('=') == std::string_view::npos && trim(key) == key &&
           key.front() != '[' && key.front() != '#' && key.front() != ';';
}

bool valid_value(std::string_view value) {
    return !has_line_break(value);
}

std::string set_section(std::string_view text, std::string_view name, std::string_view rename, const Entries &entries) {
    const std::string_view eol = eol_of(text);
    SectionSpan span = find_section(text, name);
    std::string out;
    out.reserve(text.size() + 256);
    if (!span.found) {
        out.append(text);
        append_section(out, rename.empty() ? name : rename, entries, eol);
        return out;
    }

    std::unordered_map<std::string_view, size_t> wanted;  // key -> index in entries
    for (size_t i = 0; i < entries.size(); ++i) wanted.emplace(entries[i].first, i);
    std::vector<bool> written(entries.size(), false);
    // A key written more than once keeps its last line (the one readers take); the others go.
    std::unordered_map<std::string_view, size_t> last_line;  // key -> begin of its last line
    for (size_t pos = span.header.next; pos < span.end;) {
        const Line line = parse_line(text, pos);
        if (line.kind == Kind::kKey) last_line[line.name] = line.begin;
        pos = line.next;
    }

    out.append(text.substr(0, span.header.begin));
    if (rename.empty()) {
        copy_line(out, text, span.header);
    } else {
        out.append("[").append(rename).append("]");
        out.append(span.header.next > span.header.end ? ending(text, span.header) : eol);
    }
    auto add_missing = [&] {
        if (!out.empty() && out.back() != '\n') out.append(eol);
        for (size_t i = 0; i < entries.size(); ++i)
            if (!written[i]) append_key(out, entries[i].first, entries[i].second, eol);
    };
    if (span.last_key_end == span.header.next) add_missing();
    for (size_t pos = span.header.next; pos < span.end;) {
        Line line = parse_line(text, pos);
        pos = line.next;
        if (line.kind == Kind::kKey && !line.name.empty()) {
            auto it = wanted.find(line.name);
            if (it != wanted.end() && last_line[line.name] == line.begin) {
                written[it->second] = true;
                out.append(text.substr(line.begin, line.value_offset)).append(entries[it->second].second);
                out.append(line.next > line.end ? ending(text, line) : eol);
            }
        } else {
            copy_line(out, text, line);
        }
        if (line.next == span.last_key_end) add_missing();
    }
    out.append(text.substr(span.end));
    return out;
}

std::string set_value(std::string_view text, std::string_view name, std::string_view key, std::string_view value) {
    const std::string_view eol = eol_of(text);
    SectionSpan span = find_section(text, name);
    std::string out;
    out.reserve(text.size() + key.size() + value.size() + 16);
    if (!span.found) {
        out.append(text);
        append_section(out, name, Entries{{std::string(key), std::string(value)}}, eol);
        return out;
    }
    // A key written more than once: its last line is the one readers take.
    std::optional<Line> last;
    for (size_t pos = span.header.next; pos < span.end;) {
        Line line = parse_line(text, pos);
        if (line.kind == Kind::kKey && line.name == key) last = line;
        pos = line.next;
    }
    if (last) {
        out.append(text.substr(0, last->begin + last->value_offset)).append(value);
        out.append(last->next > last->end ? ending(text, *last) : eol);
        out.append(text.substr(last->next));
        return out;
    }
    out.append(text.substr(0, span.last_key_end));
    if (!out.empty() && out.back() != '\n') out.append(eol);
    append_key(out, key, value, eol);
    out.append(text.substr(span.last_key_end));
    return out;
}

std::string remove_section(std::string_view text, std::string_view name, bool &found) {
    found = false;
    std::string out;
    out.reserve(text.size());
    bool inside = false;
    size_t keep_from = 0;  // start of the trailing blank and comment lines of a removed section
    for_each_line(text, [&](const Line &line) {
        if (line.kind == Kind::kSection) {
            if (inside) out.append(text.substr(keep_from, line.begin - keep_from));
            inside = line.name == name;
            if (inside) {
                found = true;
                keep_from = line.next;
                return true;
            }
        } else if (inside) {
            if (line.kind != Kind::kBlank && line.kind != Kind::kComment) keep_from = line.next;
            return true;
        }
        copy_line(out, text, line);
        return true;
    });
    if (inside) out.append(text.substr(keep_from));
    return out;
}

}  // namespace kova::platform::ini
