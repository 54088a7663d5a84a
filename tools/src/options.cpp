// Options that several commands share.
#include <kovaserviceconf.h>
#include <sys/stat.h>

#include <cstdlib>

#include "commands.h"
#include "status.h"

namespace kovasvc {

namespace {

struct SourceName {
    const char *name;
    int flag;
};

// In the order in which the check runs them.
const SourceName kSources[] = {
    {"forward", KOVA_PORT_CHECK_PORT_FORWARD},
    {"services", KOVA_PORT_CHECK_SERVICES},
    {"reserved", KOVA_PORT_CHECK_RESERVED},
    {"in-use", KOVA_PORT_CHECK_IN_USE},
};

}  // namespace

unsigned int location_option(const Args &args) {
    if (args.has("--system") && args.has("--package")) throw UsageError("give --system or --package, not both");
    return args.has("--system") ? KOVA_CONF_LOCATION_SYSTEM : KOVA_CONF_LOCATION_PACKAGE;
}

int sources_option(const Args &args, int fallback) {
    auto value = args.value("--sources");
    if (!value) return fallback;
    int flags = 0;
    for (const auto &item : split_list(*value)) {
        bool known = false;
        for (const auto &s : kSources) {
            if (item == s.name) {
                flags |= s.flag;
                known = true;
            }
        }
        if (!known) throw UsageError("--sources: unknown source '" + item + "' (forward, services, reserved, in-use)");
    }
    if (flags == 0) throw UsageError("--sources: name at least one source (forward, services, reserved, in-use)");
    return flags;
}

std::vector<std::string> source_names(int flags) {
    std::vector<std::string> names;
    for (const auto &s : kSources)
        if ((flags & s.flag) != 0) names.emplace_back(s.name);
    return names;
}

std::string base_name_operand(const std::string &text, const std::string &what) {
    if (text.empty() || text.find('/') != std::string::npos || text == "." || text == "..")
        throw UsageError(what + " must be a file name without '/', not '" + text + "'");
    if (text.size() > 255) throw UsageError(what + " is longer than 255 bytes");
    return text;
}

}  // namespace kovasvc
