// Shared pieces of the fuzz harnesses: invariant checks that abort with a message, a private
// KOVA_ROOT per process, and models of the port list and sectioned-file syntaxes used as oracles.
#pragma once

#include <kovaserviceconf.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kova::fuzz {

[[noreturn]] void fail(const char *file, int line, const char *cond, const std::string &message);
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));  // printf into a string

// Aborts (so that the fuzzer or the replay driver reports the input) when `cond` is false.
#define FUZZ_CHECKF(cond, ...)                                                                         \
    do {                                                                                               \
        if (!(cond)) ::kova::fuzz::fail(__FILE__, __LINE__, #cond, ::kova::fuzz::format(__VA_ARGS__)); \
    } while (0)
#define FUZZ_CHECK(cond) FUZZ_CHECKF(cond, "%s", "")

constexpr unsigned int kPoison = 0x7E57;  // an error code that no operation sets
inline void poison() {
    KVLIBCErrSetEx(kPoison, "fuzz", 0);
}

// True when the fixed text field holds its terminating NUL inside its capacity.
template <size_t N>
bool terminated(const char (&field)[N]) {
    return std::memchr(field, '\0', N) != nullptr;
}
// The text `s` cut the way a fixed field of capacity N keeps it (a NUL byte ends it too).
std::string cut(std::string_view s, size_t capacity);

// `rel` (an absolute system path) under a temporary directory made once per process and removed
// at exit; KOVA_ROOT points at it and KOVA_LOG_FILE is unset (log lines go to the system log only).
std::string under_root(std::string_view rel);
// Writes a new file under the root, in new directories if needed (none if empty and `missing_if_empty`).
void write_file(std::string_view rel, std::string_view content, bool missing_if_empty = false);

bool is_space(char c);  // as the platform trims
// Not empty, and nothing but ASCII letters, digits and the characters of `extra`.
bool word_of(std::string_view s, std::string_view extra);
std::string trim(std::string_view s);
std::string lower(std::string_view s);
// Pieces between separators, empty pieces included (strsep); `trimmed`: each piece trimmed.
std::vector<std::string> split_all(std::string_view s, char sep, bool trimmed = false);

struct Port {
    uint32_t direction, type, protocol, begin, end;
    bool operator==(const Port &) const = default;
};
std::vector<Port> to_vector(const KOVA_SERVICE_CONF_PORT *list);
std::string describe(const std::vector<Port> &ports);

// KOVAServiceConfPortsCheck: digits only, not empty, at most 65535.
bool model_port_check(std::string_view text);
// KVLIBServiceConfProtocolParse of a text (null: std::nullopt); -1 on failure.
int model_protocol(const std::optional<std::string> &text);
// KOVAServiceConfPortsGet: the entries in list order, or std::nullopt when the text is refused.
std::optional<std::vector<Port>> model_ports_get(std::string_view text, uint32_t direction);

struct Span {
    uint64_t b, e;
    bool operator==(const Span &) const = default;
};
std::vector<Span> normalize_spans(std::vector<Span> spans);  // sorted, merged where they overlap or touch

// "[name]" starts a section, "key = value" sets a key (both trimmed, one pair of quotes around
// the value dropped), blank lines and lines starting with "#" or ";" are comments.
enum class Ini { kBlank, kComment, kSection, kKey, kOther };
struct IniLine {
    std::string text;  // as in the file, with its "\n" if it has one
    Ini kind;
    std::string name, value;
};
std::vector<IniLine> ini_lines(std::string_view text);
std::string ini_value(std::string_view written);  // what a reader returns for a written value

// One section as it stands in the file (a name may stand more than once; readers take the
// first). The first entry holds what comes before any header (`top`).
struct IniSection {
    bool top = false;
    std::string name;
    std::map<std::string, std::string> keys;  // a key given twice: its last line
    std::vector<size_t> lines;                // the lines from its header to the next
};
std::vector<IniSection> ini_sections(const std::vector<IniLine> &lines);

// KVLIBCFileEnumSection and KVLIBCFileGetSection of `path` give exactly what the model reads.
void check_section_reader(const std::string &path, const std::vector<IniSection> &model);

}  // namespace kova::fuzz
