// Plug-in events: every executable regular file of the category's receiver directory is run,
// in name order, with the event name as its argument and the plug-in arguments in its
// environment.
#include <dirent.h>
#include <kovasdk.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/plat_log.h"
#include "core/spawn.h"
#include "kova_root.h"

struct KVLIB_PLUGIN {
    std::string category;
    std::string event;
    std::vector<std::pair<std::string, std::string>> args;  // in the order first set
};

namespace {

// An environment variable name: not empty, no "=".
bool valid_name(const char *name) {
    return *name != '\0' && std::strchr(name, '=') == nullptr;
}

// A category is one directory name.
bool valid_category(const char *category) {
    return *category != '\0' && std::strchr(category, '/') == nullptr && std::strcmp(category, ".") != 0 &&
           std::strcmp(category, "..") != 0;
}

struct DirCloser {
    void operator()(DIR *d) const noexcept { closedir(d); }
};

// Executable regular files of `dir` (links followed), hidden names excluded, sorted by name.
// False when the directory exists but cannot be read.
bool list_receivers(const std::string &dir, std::vector<std::string> &names) {
    std::unique_ptr<DIR, DirCloser> d(opendir(dir.c_str()));
    if (!d) return errno == ENOENT || errno == ENOTDIR;
    while (const dirent *e = readdir(d.get())) {
        if (e->d_name[0] == '.') continue;
        std::string path = dir + "/" + e->d_name;
        struct stat st;
        if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || access(path.c_str(), X_OK) != 0) continue;
        names.emplace_back(e->d_name);
    }
    std::sort(names.begin(), names.end());
    return true;
}

// The caller's environment with the plug-in arguments set (replacing variables of the same name).
std::vector<std::string> receiver_environment(const KVLIB_PLUGIN &plugin) {
    std::vector<std::string> env;
    for (char **e = environ; e != nullptr && *e != nullptr; ++e) {
        const char *eq = std::strchr(*e, '=');
        std::string_view name(*e, eq != nullptr ? static_cast<size_t>(eq - *e) : std::strlen(*e));
        bool overridden =
            std::any_of(plugin.args.begin(), plugin.args.end(), [&](const auto &arg) { return arg.first == name; });
        if (!overridden) env.emplace_back(*e);
    }
    for (const auto &[name, value] : plugin.args) env.push_back(name + "=" + value);
    return env;
}

int run_receivers(const KVLIB_PLUGIN &plugin) {
    const std::string dir = kova::resolve(kova::paths::kPluginDir) + "/" + plugin.category;
    std::vector<std::string> names;
    if (!list_receivers(dir, names)) {
        PLAT_SET_ERR(KOVA_ERR_SCAN_DIR);
        PLAT_LOG("cannot read plug-in directory %s: %m", dir.c_str());
        return -1;
    }
    if (names.empty()) return 0;

    std::vector<std::string> env = receiver_environment(plugin);
    std::vector<char *> envp;
    envp.reserve(env.size() + 1);
    for (auto &entry : env) envp.push_back(entry.data());
    envp.push_back(nullptr);

    std::string event = plugin.event;
    for (const auto &name : names) {
        std::string path = dir + "/" + name;
        char *argv[] = {path.data(), event.data(), nullptr};
        kova::platform::RunResult r = kova::platform::run_program(path.c_str(), argv, envp.data());
        if (r.kind == kova::platform::RunResult::kNotStarted)
            PLAT_LOG("plug-in %s for %s could not be started: %s", path.c_str(), event.c_str(), std::strerror(r.value));
        else if (r.kind == kova::platform::RunResult::kSignaled)
            PLAT_LOG("plug-in %s for %s ended by signal %d", path.c_str(), event.c_str(), r.value);
        else if (r.value != 0)
            PLAT_LOG("plug-in %s for %s failed with status %d", path.c_str(), event.c_str(), r.value);
    }
    return 0;
}

}  // namespace

extern "C" {

int KVLIBPluginSDKInit(const char *szCategory, const char *szEvent, KVLIB_PLUGIN **ppPlugin) {
    if (szCategory == nullptr || szEvent == nullptr || ppPlugin == nullptr || !valid_category(szCategory)) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        *ppPlugin = new KVLIB_PLUGIN{szCategory, szEvent, {}};
        return 0;
    } catch (...) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

// Sets an argument; setting a name again replaces its value and keeps its place.
int KVLIBPluginSetArg(KVLIB_PLUGIN *pPlugin, const char *szName, const char *szValue) {
    if (pPlugin == nullptr || szName == nullptr || szValue == nullptr || !valid_name(szName)) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        for (auto &arg : pPlugin->args) {
            if (arg.first == szName) {
                arg.second = szValue;
                return 0;
            }
        }
        pPlugin->args.emplace_back(szName, szValue);
        return 0;
    } catch (...) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

// Delivers the event to every receiver and waits for each. A receiver that fails is logged and
// does not stop the others; no receiver directory means nothing to run. The action code is
// accepted for compatibility: every action runs the receivers synchronously.
int KVLIBPluginAction(int action, KVLIB_PLUGIN *pPlugin) {
    (void)action;
    if (pPlugin == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        return run_receivers(*pPlugin);
    } catch (...) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

void KVLIBPluginExit(KVLIB_PLUGIN *pPlugin) {
    delete pPlugin;
}

}  // extern "C"
