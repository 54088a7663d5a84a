// One-pass reading of a whole .sc file.
//
// Reading a file section by section through the platform (KVLIBCFileEnumSection, then
// KVLIBCFileGetSection per section) reads the whole file once per section. The file reader
// reads it once instead and keeps, per section, what those two operations would have given:
//
//   - the section names as the enumeration lists them: in file order, a name repeated later
//     listed once, each name up to its first NUL byte;
//   - per name, the keys of the first section of that name: whether it has any key, and the
//     values of the keys that a .sc reader looks at (a repeated key keeps its last value).
//
// The line syntax is the platform's sectioned-file syntax ("[name]", "key = value" with one
// pair of quotes dropped, "#" and ";" comments, lines ending at "\n"). Memory stays bounded by
// the values kept: comments, other keys and overlong lines that cannot be a key of interest
// are skipped as they stream by.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/door.h"

namespace kova::conf {

// The keys of .sc sections whose values the readers use.
inline constexpr std::string_view kScKeys[] = {
    "version",    "support_key", "run_key",      "title_key", "title",     "desc_key",
    "desc_extra", "desc",        "port_forward", "src.ports", "dst.ports",
};
inline constexpr size_t kScKeyMaxLength = [] {
    size_t longest = 0;
    for (std::string_view k : kScKeys) longest = std::max(longest, k.size());
    return longest;
}();

struct ScSection {
    bool hasKeys = false;                                 // at least one "key=value" line
    std::unordered_map<std::string, std::string> values;  // keys of kScKeys only

    const char *value(const char *key) const {
        auto it = values.find(key);
        return it == values.end() ? nullptr : it->second.c_str();
    }
};

struct ScFile {
    std::vector<std::string> names;                       // as the enumeration lists them
    std::unordered_map<std::string, ScSection> sections;  // first section of each full name

    // The section that a lookup of `name` finds, or null when there is none.
    const ScSection *find(const std::string &name) const {
        auto it = sections.find(name);
        return it == sections.end() ? nullptr : &it->second;
    }
};

namespace sc_detail {

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

// A text as the platform's C-string containers keep it: up to the first NUL byte.
inline std::string_view c_text(std::string_view s) {
    return s.substr(0, std::min(s.size(), s.find('\0')));
}

inline bool wanted_key(std::string_view key) {
    for (std::string_view k : kScKeys)
        if (k == key) return true;
    return false;
}

// Streams the text line by line. A line is held only while it may still matter: leading
// white space and comments are never stored, and a long line that can be neither a section
// header nor a key of interest is dropped (noting only whether it is a key line).
class Parser {
public:
    explicit Parser(ScFile &file) : file_(file) {}

    void feed(std::string_view data) {
        while (!data.empty()) {
            const size_t nl = data.find('\n');
            take(data.substr(0, nl));
            if (nl == std::string_view::npos) return;
            end_line();
            data.remove_prefix(nl + 1);
        }
    }

    void finish() { end_line(); }

private:
    enum class Mode { kStart, kKeep, kSkip, kSkipToEquals };
    static constexpr size_t kLongLine = 64 * 1024;

    void take(std::string_view seg) {
        switch (mode_) {
            case Mode::kStart:
                while (!seg.empty() && is_space(seg.front())) seg.remove_prefix(1);
                if (seg.empty()) return;
                if (seg.front() == '#' || seg.front() == ';') {
                    mode_ = Mode::kSkip;
                    return;
                }
                mode_ = Mode::kKeep;
                [[fallthrough]];
            case Mode::kKeep:
                line_.append(seg);
                if (!keep_whole_ && line_.size() > kLongLine) shorten();
                return;
            case Mode::kSkip:
                return;
            case Mode::kSkipToEquals:
                if (seg.find('=') != std::string_view::npos) {
                    note_key();
                    mode_ = Mode::kSkip;
                }
                return;
        }
    }

    // A line grown past kLongLine: keep it only when its content can still matter.
    void shorten() {
        if (line_.front() == '[') {  // may be a section header: its name matters whole
            keep_whole_ = true;
            return;
        }
        if (const size_t eq = line_.find('='); eq != std::string::npos) {
            const std::string_view key = c_text(trim(std::string_view(line_).substr(0, eq)));
            if (current_ != nullptr && wanted_key(key)) {  // its value is needed
                keep_whole_ = true;
                return;
            }
            if (!trim(std::string_view(line_).substr(0, eq)).empty()) note_key();
            line_.clear();
            mode_ = Mode::kSkip;
            return;
        }
        // No "=" yet: what is held is the key, should one come.
        const std::string_view held = trim(line_);
        if (c_text(held).size() > kScKeyMaxLength) {
            line_.clear();
            mode_ = Mode::kSkipToEquals;
            return;
        }
        if (held.size() > kScKeyMaxLength) {  // a NUL byte early in a long word: rare, kept whole
            keep_whole_ = true;
            return;
        }
        // A short word followed by much white space: one space stands for the run.
        line_.resize(held.size());
        line_ += ' ';
    }

    void note_key() {
        if (current_ != nullptr) current_->hasKeys = true;
    }

    void end_line() {
        if (mode_ == Mode::kKeep) on_line(line_);
        line_.clear();
        mode_ = Mode::kStart;
        keep_whole_ = false;
    }

    void on_line(std::string_view raw) {
        const std::string_view t = trim(raw);
        if (t.empty()) return;
        if (t.front() == '[' && t.back() == ']') {
            on_section(trim(t.substr(1, t.size() - 2)));
        } else if (const size_t eq = raw.find('='); eq != std::string_view::npos) {
            on_key(trim(raw.substr(0, eq)), unquote(trim(raw.substr(eq + 1))));
        }
    }

    void on_section(std::string_view name) {
        auto [it, inserted] = file_.sections.try_emplace(std::string(name));
        if (inserted) {
            file_.names.emplace_back(c_text(name));
            current_ = &it->second;
        } else {
            current_ = nullptr;  // a later section of the same name is never read
        }
    }

    void on_key(std::string_view key, std::string_view value) {
        if (current_ == nullptr || key.empty()) return;
        current_->hasKeys = true;
        const std::string_view name = c_text(key);
        if (wanted_key(name)) current_->values[std::string(name)] = std::string(c_text(value));
    }

    ScFile &file_;
    ScSection *current_ = nullptr;
    std::string line_;
    Mode mode_ = Mode::kStart;
    bool keep_whole_ = false;
};

}  // namespace sc_detail

enum class ScRead {
    kOk,          // read; `file` holds what was found (possibly no section)
    kUnreadable,  // missing, a directory, or a read error: the platform's reader decides
    kNotRegular,  // a device, a pipe or a socket: not read at all
};

// Parses text already in memory.
inline void parse_sc_text(std::string_view text, ScFile &file) {
    sc_detail::Parser parser(file);
    parser.feed(text);
    parser.finish();
}

// Reads the file once, streaming. Only regular files are read: a device or a pipe could
// block or never end.
inline ScRead read_sc_file(const char *path, ScFile &file) {
    System &sys = kova::sys();
    const FileHandle file_fd(sys, sys.open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0));
    const int fd = file_fd.get();
    if (fd < 0) return ScRead::kUnreadable;
    struct stat st;
    if (sys.fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) return ScRead::kUnreadable;
    if (!S_ISREG(st.st_mode)) return ScRead::kNotRegular;

    sc_detail::Parser parser(file);
    std::string buf(64 * 1024, '\0');
    for (;;) {
        const ssize_t n = sys.read(fd, buf.data(), buf.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return ScRead::kUnreadable;
        }
        if (n == 0) break;
        parser.feed(std::string_view(buf.data(), static_cast<size_t>(n)));
    }
    parser.finish();
    return ScRead::kOk;
}

}  // namespace kova::conf
