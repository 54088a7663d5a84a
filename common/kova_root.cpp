#include "kova_root.h"

#include <cstdlib>

namespace kova {

std::string root_dir() {
    const char *root = secure_getenv("KOVA_ROOT");
    if (root == nullptr) return {};
    std::string dir(root);
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    if (dir == "/") return {};
    return dir;
}

std::string resolve(std::string_view path) {
    std::string resolved = root_dir();
    resolved.append(path);
    return resolved;
}

}  // namespace kova
