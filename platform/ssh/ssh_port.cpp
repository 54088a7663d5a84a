// The SSH service's port: the first "Port" line of the daemon's configuration.
#include <kovassh.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "core/plat_log.h"
#include "core/read_file.h"
#include "kova_root.h"

namespace {

constexpr int32_t kDefaultPort = 22;

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

bool iequals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

// For a "Port" line (keyword case-insensitive, then blanks or one "="), its argument.
bool port_argument(std::string_view line, std::string_view &arg) {
    size_t i = 0;
    while (i < line.size() && is_blank(line[i])) ++i;
    size_t start = i;
    while (i < line.size() && !is_blank(line[i]) && line[i] != '=') ++i;
    if (!iequals(line.substr(start, i - start), "port")) return false;
    while (i < line.size() && is_blank(line[i])) ++i;
    if (i < line.size() && line[i] == '=') ++i;
    while (i < line.size() && is_blank(line[i])) ++i;
    size_t end = i;
    while (end < line.size() && !is_blank(line[end]) && line[end] != '#') ++end;
    arg = line.substr(i, end - i);
    return true;
}

}  // namespace

extern "C" int KOVAServiceSSHPortGet(int32_t *pPort) {
    if (pPort == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        // Read whole (a file that cannot be read has no Port line), then looked at line by line.
        std::string text;
        if (!kova::platform::read_file(kova::resolve(kova::paths::kSshdConfig).c_str(), text)) text.clear();
        std::optional<std::string> value;  // the argument of the first Port line
        kova::platform::each_line(text, [&](std::string_view line) {
            std::string_view arg;
            if (port_argument(line, arg)) value.emplace(arg);
            return !value;
        });
        if (!value) {
            *pPort = kDefaultPort;
            return 0;
        }
        char *stop = nullptr;
        errno = 0;
        long port = std::strtol(value->c_str(), &stop, 10);
        if (value->empty() || *stop != '\0' || errno != 0 || port < 1 || port > 65535) {
            PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            PLAT_LOG("bad Port line in sshd configuration: [%s]", value->c_str());
            return -1;
        }
        *pPort = static_cast<int32_t>(port);
        return 0;
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}
