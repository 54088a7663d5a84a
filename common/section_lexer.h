// The line syntax of sectioned and key-value files: the one lexer of it, compiled into both the
// platform's sectioned-file and key-value layer and the library's .sc reader.
//
//   [name]          starts a section (name trimmed)
//   key = value     key and value trimmed; one pair of double quotes around the value is not
//                   part of it; keys may contain spaces
//   # ... or ; ...  comment; blank lines are ignored too
//
// Lines end at "\n"; a "\r" before it belongs to the line ending. Any other line is kept as it
// is and means nothing. The text may hold any bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kova::ini {

enum class Kind { kBlank, kComment, kSection, kKey, kOther };

struct Line {
    size_t begin = 0;  // first byte of the line in the text
    size_t end = 0;    // end of its content (before "\r\n" or "\n")
    size_t next = 0;   // first byte of the next line (past the line ending)
    Kind kind = Kind::kOther;
    std::string_view name;    // section name or key
    std::string_view value;   // value, trimmed and without its quotes
    size_t value_offset = 0;  // where the raw value starts, from `begin`
};

inline bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f' || c == '\n';
}

inline std::string_view trim(std::string_view s) {
    size_t b = 0;
    while (b < s.size() && is_space(s[b])) ++b;
    size_t e = s.size();
    while (e > b && is_space(s[e - 1])) --e;
    return s.substr(b, e - b);
}

inline std::string_view unquote(std::string_view v) {
    if (v.size() >= 2 && v.front() == '"' && v.back() == '"') return v.substr(1, v.size() - 2);
    return v;
}

// Parses the line that starts at `pos` (pos < text.size()).
inline Line parse_line(std::string_view text, size_t pos) {
    Line line;
    line.begin = pos;
    size_t nl = text.find('\n', pos);
    line.next = nl == std::string_view::npos ? text.size() : nl + 1;
    line.end = nl == std::string_view::npos ? text.size() : nl;
    if (line.end > pos && text[line.end - 1] == '\r') --line.end;
    std::string_view raw = text.substr(pos, line.end - pos);
    std::string_view t = trim(raw);
    if (t.empty()) {
        line.kind = Kind::kBlank;
    } else if (t.front() == '#' || t.front() == ';') {
        line.kind = Kind::kComment;
    } else if (t.front() == '[' && t.back() == ']') {
        line.kind = Kind::kSection;
        line.name = trim(t.substr(1, t.size() - 2));
    } else if (size_t eq = raw.find('='); eq != std::string_view::npos) {
        line.kind = Kind::kKey;
        line.name = trim(raw.substr(0, eq));
        size_t v = eq + 1;
        while (v < raw.size() && is_space(raw[v])) ++v;
        line.value_offset = v;
        line.value = unquote(trim(raw.substr(v)));
    }
    return line;
}

// Calls fn(const Line &) for every line of the text, in order, until it returns false.
template <class Fn>
void for_each_line(std::string_view text, Fn &&fn) {
    for (size_t pos = 0; pos < text.size();) {
        Line line = parse_line(text, pos);
        if (!fn(line)) return;
        pos = line.next;
    }
}

}  // namespace kova::ini
