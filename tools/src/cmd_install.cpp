// kova-svc install and update: a .sc file copied into a services.d directory.
#include <iostream>

#include "catalogue.h"
#include "commands.h"
#include "json.h"
#include "ports_text.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

std::string base_name(const std::string &path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string installed_path(const std::string &name, unsigned int location) {
    char path[4096];
    if (GetInstallPath(name.c_str(), static_cast<int>(location), path, sizeof path) != 0) return name;
    return path;
}

// What install and update print: the installed path and the ports that collide.
int report(const Args &args, const char *verb, const std::string &path, const std::string &source, int result,
           const ConflictList &colliding) {
    std::vector<PortRun> runs = conflict_runs(colliding.head());
    if (args.json()) {
        Json json(std::cout);
        json.begin_object();
        json.key("path").string(path);
        json.key("source").string(source);
        json.key("conflict").boolean(result == 1);
        json.key("colliding").begin_array();
        for (const auto &r : runs)
            json.begin_object().key("first").number(r.first).key("last").number(r.last).end_object();
        json.end_array();
        json.end_object().finish();
    } else {
        std::cout << verb << ' ' << path << " from " << source << '\n';
        if (result == 1) {
            std::string text;
            for (const auto &r : merged(runs)) text += (text.empty() ? "" : ", ") + run_text(r);
            print_labelled(std::cout, "Colliding ports:", text.empty() ? "not named by the check" : text, 17);
        }
    }
    return result == 1 ? kExitConflict : kExitOk;
}

}  // namespace

int run_install(const Args &args) {
    const std::string &source = args.operands()[0];
    unsigned int location = location_option(args);
    std::string name = base_name_operand(args.value("--as").value_or(base_name(source)), "the installed name");

    ConflictList colliding;
    clear_library_error();
    int result = KOVAServiceConfInstallBaseName(name.c_str(), source.c_str(), location, colliding.out());
    if (result < 0) fail_with_library_error("cannot install " + source);
    return report(args, "installed", installed_path(name, location), source, result, colliding);
}

int run_update(const Args &args) {
    std::string name = base_name_operand(args.operands()[0], "NAME");
    const std::string &source = args.operands()[1];
    unsigned int location = location_option(args);
    std::string path = installed_path(name, location);
    // The update goes on to notify even when the new file cannot be copied in: refuse a source
    // that is not there.
    if (KVLIBCFileExist(source.c_str()) != 1)
        throw Failure("cannot update " + path + " from " + source + ": file not found");

    ConflictList colliding;
    warn_without_temp_dir();
    clear_library_error();
    int result = KOVAServiceConfUpdateBaseName(name.c_str(), source.c_str(), location, colliding.out());
    if (result < 0) {
        if (KVLIBCFileExist(path.c_str()) != 1)
            throw Failure("cannot update " + name + ": it is not installed (no " + path + ")");
        fail_with_library_error("cannot update " + path + " from " + source);
    }
    return report(args, "updated", path, source, result, colliding);
}

int run_remove(const Args &args) {
    std::string name = base_name_operand(args.operands()[0], "NAME");
    unsigned int location = location_option(args);
    std::string path = installed_path(name, location);

    warn_without_temp_dir();
    clear_library_error();
    if (KOVAServiceConfRemoveBaseName(name.c_str(), location) != 0) fail_with_library_error("cannot remove " + path);
    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("path").string(path).end_object().finish();
    } else {
        std::cout << "removed " << path << '\n';
    }
    return kExitOk;
}

}  // namespace kovasvc
