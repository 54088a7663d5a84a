// Reading sectioned files once, into sections and keys.
#include "conf/sc_reader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <unordered_set>

#include "foundation/door.h"
#include "section_lexer.h"

namespace kova::conf {

namespace {

// A text as the platform's C-string containers keep it: up to the first NUL byte.
std::string_view c_text(std::string_view s) {
    return s.substr(0, std::min(s.size(), s.find('\0')));
}

// The whole content of a regular file; false when it cannot be opened or read, or is not a
// regular file.
bool read_regular_file(const char *path, std::string &text) {
    System &sys = kova::sys();
    const FileHandle file(sys, sys.open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0));
    const int fd = file.get();
    if (fd < 0) return false;
    struct stat st;
    if (sys.fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    text.reserve(static_cast<size_t>(st.st_size));
    char buf[64 * 1024];
    for (;;) {
        const ssize_t n = sys.read(fd, buf, sizeof buf);
        if (n == 0) return true;
        if (n > 0) {
            text.append(buf, static_cast<size_t>(n));
        } else if (errno != EINTR) {
            return false;
        }
    }
}

}  // namespace

class ScParser {
public:
    static ScFile parse(std::string_view text) {
        ScFile file;
        ScSection *current = nullptr;
        std::unordered_set<std::string_view> keys;  // full names of the current section's keys
        kova::ini::for_each_line(text, [&](const kova::ini::Line &line) {
            if (line.kind == kova::ini::Kind::kSection) {
                auto [it, inserted] = file.sections_.try_emplace(std::string(line.name));
                current = inserted ? &it->second : nullptr;  // a later section of a name is never read
                if (inserted) file.names_.emplace_back(c_text(line.name));
                keys.clear();
            } else if (line.kind == kova::ini::Kind::kKey && current != nullptr && !line.name.empty()) {
                if (keys.insert(line.name).second) ++current->key_count_;
                set(*current, std::string(c_text(line.name)), c_text(line.value));
            }
            return true;
        });
        return file;
    }

private:
    static void set(ScSection &section, std::string key, std::string_view value) {
        auto [it, inserted] = section.index_.try_emplace(key, section.entries_.size());
        if (inserted) {
            section.entries_.emplace_back(std::move(key), value);
        } else {
            section.entries_[it->second].second.assign(value);
        }
    }
};

const char *ScSection::value(std::string_view key) const {
    const auto it = index_.find(std::string(key));
    return it == index_.end() ? nullptr : entries_[it->second].second.c_str();
}

const ScSection *ScFile::find(std::string_view name) const {
    const auto it = sections_.find(std::string(name));
    return it == sections_.end() ? nullptr : &it->second;
}

ScFile parse_sc_text(std::string_view text) {
    return ScParser::parse(text);
}

Result<ScFile> read_sc_file(const char *path) {
    std::string text;
    if (!read_regular_file(path, text)) return KOVA_FAILURE(KOVA_ERR_FILE_OPEN);
    return ScParser::parse(text);
}

}  // namespace kova::conf
