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
#include <cstring>
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

// Parses the line that starts at `pos` (pos < text.size()). One search finds the line's end and,
// for a line that is not blank, a comment or a section, one more its "="; the pieces are cut
// from the line's trimmed ends.
inline Line parse_line(std::string_view text, size_t pos) {
    Line line;
    line.begin = pos;
    const char *const base = text.data();
    const char *const p = base + pos;
    const char *const stop = base + text.size();
    const auto *nl = static_cast<const char *>(std::memchr(p, '\n', static_cast<size_t>(stop - p)));
    const char *end = nl != nullptr ? nl : stop;
    line.next = nl != nullptr ? static_cast<size_t>(nl - base) + 1 : text.size();
    if (end > p && end[-1] == '\r') --end;
    line.end = static_cast<size_t>(end - base);
    const char *b = p;
    while (b < end && is_space(*b)) ++b;
    if (b == end) {
        line.kind = Kind::kBlank;
        return line;
    }
    const char *e = end;
    while (is_space(e[-1])) --e;  // stops at *b at the latest
    auto piece = [](const char *from, const char *to) {
        while (from < to && is_space(*from)) ++from;
        while (to > from && is_space(to[-1])) --to;
        return std::string_view(from, static_cast<size_t>(to - from));
    };
    if (*b == '#' || *b == ';') {
        line.kind = Kind::kComment;
    } else if (*b == '[' && e[-1] == ']') {  // two bytes at least: *b is not "]"
        line.kind = Kind::kSection;
        line.name = piece(b + 1, e - 1);
    } else if (const auto *eq = static_cast<const char *>(std::memchr(b, '=', static_cast<size_t>(e - b)));
               eq != nullptr) {
        line.kind = Kind::kKey;
        line.name = piece(b, eq);
        const char *v = eq + 1;
        while (v < end && is_space(*v)) ++v;
        line.value_offset = static_cast<size_t>(v - p);
        line.value = unquote(std::string_view(v, v < e ? static_cast<size_t>(e - v) : 0));
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
