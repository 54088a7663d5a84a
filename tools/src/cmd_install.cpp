// kova-svc install, update and remove: .sc files copied into or out of a services.d directory.
#include <iostream>
#include <set>

#include "catalogue.h"
#include "commands.h"
#include "holders.h"
#include "json.h"
#include "ports_text.h"
#include "session.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

std::string base_name(const std::string &path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The service sections of a .sc file: the file check skips each one's own name.
std::set<std::string> section_names(const std::string &path) {
    std::set<std::string> names;
    SzListPtr list(KVLIBCSzListAlloc(1024));
    KVLIB_SZLIST *raw = list.get();
    if (raw != nullptr && KVLIBCFileEnumSection(path.c_str(), &raw) >= 0)
        for (const auto &n : list_items(raw)) names.insert(n);
    return names;
}

struct Collisions {
    bool conflict = false;
    std::vector<PortRun> runs;
    HolderReport named;
};

// Who the colliding ports of a file collide with.
Collisions name_collisions(const std::string &file, int result, const ConflictList &list) {
    Collisions c;
    c.conflict = result == 1;
    c.runs = merged(conflict_runs(list.head()));
    if (!c.conflict || c.runs.empty()) return c;
    HolderQuery q;
    q.runs = c.runs;
    q.sources = KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED;
    if (!session().offline()) q.sources |= KOVA_PORT_CHECK_IN_USE;
    q.listening_only = true;
    q.skip = section_names(file);
    c.named = find_holders(q);
    return c;
}

std::string collision_text(const Collisions &c) {
    std::string text = "ports " + (c.runs.empty() ? std::string("not named by the check") : runs_text(c.runs)) +
                       " collide with other services, reserved ports or ports in use";
    std::string names;
    for (const auto &h : c.named.holders)
        names += (names.empty() ? "" : ", ") + run_text(h.run) + "/" + protocol_names(h.protocols) + " " +
                 source_name(h.source) + " " +
                 (h.source != HolderSource::InUse ? h.name
                  : h.visible                     ? "pid " + std::to_string(h.pid)
                                                  : "owner not visible to this user");
    return names.empty() ? text : text + " (" + names + ")";
}

// Refuses a colliding file before anything is touched (--strict).
void refuse_if_colliding(const Args &args, const std::string &source) {
    if (!args.has("--strict")) return;
    ConflictList list;
    clear_library_error();
    int result = KVLIBIsConfPortConflict(source.c_str(), list.out());
    if (result < 0) fail_with_library_error("cannot check the ports of " + source, source);
    if (result == 0) return;
    Failure f("not changed (--strict): " + collision_text(name_collisions(source, result, list)), source,
              "'kova-svc validate " + source + "' shows the collisions");
    f.status = kExitConflict;
    throw f;
}

int report(const Args &args, const char *verb, const std::string &path, const std::string &source,
           const Collisions &c) {
    if (c.conflict) warn(collision_text(c));
    warn_failed_follow_ups();
    if (args.json()) {
        Json json(std::cout);
        json.begin_object();
        json.key("path").string(path);
        json.key("source").string(source);
        json.key("conflict").boolean(c.conflict);
        json.key("colliding");
        runs_json(json, c.runs);
        holders_json(json, c.named);
        warnings_json(json);
        json.end_object().finish();
    } else {
        std::cout << verb << ' ' << path << " from " << source << '\n';
    }
    return kExitOk;
}

void prepare_change() {
    lock_for_change();
}

}  // namespace

std::string installed_path(const std::string &name, unsigned int location) {
    char path[4096];
    if (GetInstallPath(name.c_str(), static_cast<int>(location), path, sizeof path) != 0) return name;
    return path;
}

int run_install(const Args &args) {
    const std::string &source = args.operands()[0];
    unsigned int location = location_option(args);
    std::string name = base_name_operand(args.value("--as").value_or(base_name(source)), "the installed name");
    if (KVLIBCFileExist(source.c_str()) != 1)
        throw Failure("cannot install " + source + ": file not found", source, "give the path of a .sc file");
    prepare_change();
    refuse_if_colliding(args, source);

    ConflictList colliding;
    clear_library_error();
    int result = KOVAServiceConfInstallBaseName(name.c_str(), source.c_str(), location, colliding.out());
    std::string target = installed_path(name, location);
    if (result < 0)
        fail_with_library_error("cannot install " + source + " as " + target, target,
                                "check that this user may write to " + services_dir(location));
    return report(args, "installed", target, source, name_collisions(source, result, colliding));
}

int run_update(const Args &args) {
    std::string name = base_name_operand(args.operands()[0], "NAME");
    const std::string &source = args.operands()[1];
    unsigned int location = location_option(args);
    std::string path = installed_path(name, location);
    // The update goes on to notify even when the new file cannot be copied in: refuse a source
    // that is not there.
    if (KVLIBCFileExist(source.c_str()) != 1)
        throw Failure("cannot update " + path + " from " + source + ": file not found", source,
                      "give the path of the new .sc file");
    if (KVLIBCFileExist(path.c_str()) != 1)
        throw Failure("cannot update " + name + ": it is not installed (no " + path + ")", path,
                      "install it with 'kova-svc install " + source + "'");
    prepare_change();
    refuse_if_colliding(args, source);

    ConflictList colliding;
    clear_library_error();
    int result = KOVAServiceConfUpdateBaseName(name.c_str(), source.c_str(), location, colliding.out());
    if (result < 0) fail_with_library_error("cannot update " + path + " from " + source, path);
    return report(args, "updated", path, source, name_collisions(source, result, colliding));
}

int run_remove(const Args &args) {
    std::string name = base_name_operand(args.operands()[0], "NAME");
    unsigned int location = location_option(args);
    std::string path = installed_path(name, location);
    bool found = KVLIBCFileExist(path.c_str()) == 1;
    if (found) {
        prepare_change();
        clear_library_error();
        if (KOVAServiceConfRemoveBaseName(name.c_str(), location) != 0)
            fail_with_library_error("cannot remove " + path, path);
        warn_failed_follow_ups();
    }
    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("path").string(path).key("removed").boolean(found);
        warnings_json(json);
        json.end_object().finish();
    } else if (found) {
        std::cout << "removed " << path << '\n';
    } else {
        std::cout << "nothing removed: " << path << " is not installed\n";
    }
    return kExitOk;
}

}  // namespace kovasvc
