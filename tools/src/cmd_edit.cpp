// kova-svc remove-section and set-ports: in-place changes of an installed .sc file.
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <optional>

#include "commands.h"
#include "json.h"
#include "session.h"
#include "ports_text.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

constexpr unsigned int kModeChangeOnly = 1;
constexpr unsigned int kModeChangeAndRestart = 2;
constexpr unsigned int kRestartFirewall = 0x01;
constexpr unsigned int kActionWrite = 1;
constexpr unsigned int kActionRemove = 3;
constexpr unsigned int kScopeFirewall = 0x01;
constexpr unsigned int kScopeFiles = 0x04;

std::string section_operand(const std::string &text) {
    if (text.empty()) throw UsageError("SECTION must not be empty");
    if (text.size() > 255) throw UsageError("SECTION is longer than 255 bytes");
    return text;
}

KVLIB_SERVICE_CONF_REQUEST request(const std::string &file, const std::string &section, unsigned int location) {
    KVLIB_SERVICE_CONF_REQUEST req;
    std::memset(&req, 0, sizeof req);
    std::strncpy(req.fileName, file.c_str(), sizeof req.fileName - 1);
    std::strncpy(req.sectionName, section.c_str(), sizeof req.sectionName - 1);
    req.location = location;
    req.restartMask = kRestartFirewall;
    return req;
}

bool file_exists(const std::string &path) {
    return KVLIBCFileExist(path.c_str()) == 1;
}

// Whether the file has a section of that name (false when it cannot be read).
bool has_section(const std::string &path, const std::string &section) {
    SzListPtr names(KVLIBCSzListAlloc(1024));
    if (!names) return false;
    KVLIB_SZLIST *raw = names.get();
    if (KVLIBCFileEnumSection(path.c_str(), &raw) < 0) return false;
    for (const auto &n : list_items(raw))
        if (n == section) return true;
    return false;
}

// The library's failure, explained first by a missing file or section, which it reports
// without an error code of its own.
[[noreturn]] void fail_edit(const std::string &what, const std::string &path, const std::string &section,
                            const std::string &error) {
    if (!file_exists(path))
        throw Failure(what + ": the file is not installed", path, "'kova-svc list' shows the files");
    if (!has_section(path, section))
        throw Failure(what + ": the file has no such section", path, "'kova-svc list' shows the sections");
    throw Failure(what + (error.empty() ? "" : ": " + error), path);
}

void reverse(KOVA_SERVICE_CONF_PORT *&head) {
    KOVA_SERVICE_CONF_PORT *done = nullptr;
    while (head != nullptr) {
        KOVA_SERVICE_CONF_PORT *next = head->next;
        head->next = done;
        done = head;
        head = next;
    }
    head = done;
}

}  // namespace

int run_remove_section(const Args &args) {
    std::string file = base_name_operand(args.operands()[0], "FILE");
    std::string section = section_operand(args.operands()[1]);
    unsigned int location = location_option(args);
    std::string path = installed_path(file, location);
    bool files_only = args.has("--files-only");
    bool reload = !args.has("--no-reload");
    bool found = file_exists(path) && has_section(path, section);

    std::string firewall = session().path("/usr/kova/bin/kovafirewall");
    if (found && !files_only && ::access(firewall.c_str(), X_OK) != 0) {
        if (!session().offline())
            throw Failure("cannot remove section [" + section + "] from " + path + ": the firewall tool " + firewall +
                              " is missing",
                          path, "'--files-only' edits only the file, without the firewall record and reload");
        session().note_offline();
        files_only = true;
    }
    if (session().offline() && reload) {
        session().note_offline();
        reload = false;
    }

    bool file_removed = false;
    if (found) {
        KVLIB_SERVICE_CONF_REQUEST req = request(file, section, location);
        req.mode = files_only || !reload ? kModeChangeOnly : kModeChangeAndRestart;
        req.action = kActionRemove;
        req.scope = files_only ? kScopeFiles : kScopeFiles | kScopeFirewall;
        lock_for_change();
        clear_library_error();
        if (KVLIBServiceConfSectionRemove(&req) != 0)
            fail_with_library_error("cannot remove section [" + section + "] from " + path, path);
        warn_failed_follow_ups();
        file_removed = !file_exists(path);
    }

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("path").string(path).key("section").string(section);
        json.key("removed").boolean(found).key("file_removed").boolean(file_removed);
        warnings_json(json);
        json.end_object().finish();
        return kExitOk;
    }
    if (!found)
        std::cout << "nothing removed: " << path
                  << (file_exists(path) ? " has no section [" + section + "]" : " is not installed") << '\n';
    else
        std::cout << "removed section [" << section << "] from " << path << '\n';
    if (file_removed) std::cout << "deleted " << path << ": it had no other service section\n";
    return kExitOk;
}

int run_set_ports(const Args &args) {
    std::string file = base_name_operand(args.operands()[0], "FILE");
    std::string section = section_operand(args.operands()[1]);
    const std::string &text = args.operands()[2];
    unsigned int location = location_option(args);
    std::string path = installed_path(file, location);
    bool source_ports = args.has("--src");
    int checks = sources_option(args, KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED | KOVA_PORT_CHECK_IN_USE);

    if (session().offline() && (checks & (KOVA_PORT_CHECK_IN_USE | KOVA_PORT_CHECK_PORT_FORWARD)) != 0) {
        session().note_offline();
        checks &= ~(KOVA_PORT_CHECK_IN_USE | KOVA_PORT_CHECK_PORT_FORWARD);
    }
    bool reload = !args.has("--no-reload");
    if (session().offline() && reload) {
        session().note_offline();
        reload = false;
    }

    KOVA_SERVICE_CONF_PORT *head = nullptr;
    clear_library_error();
    if (KOVAServiceConfPortsGet(library_port_text(text).c_str(), source_ports ? 0 : 1, &head) != 0)
        throw UsageError("'" + text + "' is not a valid port list (ports 1 to 65535, ranges as 8000:8010 or " +
                         "8000-8010, then /tcp, /udp or /tcp,udp)");
    reverse(head);  // the parser lists the ports backwards; the writer keeps list order
    PortsPtr ports(head);

    std::vector<char> port_text(65536), protocol(64);
    clear_library_error();
    if (KVLIBServiceConfPortsToStr(ports.get(), port_text.data(), static_cast<int>(port_text.size()), protocol.data(),
                                   static_cast<int>(protocol.size())) != 0)
        throw UsageError("'" + text + "' cannot be written as a port list");
    std::string value = std::string(port_text.data()) + "/" + protocol.data();
    const char *key = source_ports ? "src.ports" : "dst.ports";

    KVLIB_SERVICE_CONF_REQUEST req = request(file, section, location);
    req.mode = reload ? kModeChangeAndRestart : kModeChangeOnly;
    req.action = kActionWrite;
    req.scope = static_cast<unsigned int>(checks) | kScopeFiles;

    lock_for_change();
    clear_library_error();
    int result = KVLIBServiceConfPortsSet(&req, ports.get());
    std::vector<PortRun> runs;
    if (result == 0) warn_failed_follow_ups();
    if (result != 0) {
        unsigned int code = KVLIBCErrGet();
        std::string error = code != 0 ? error_words(code) : "";
        // A refusal for a conflict leaves no error code: ask the same check what collides.
        ConflictList colliding;
        int verdict = KVLIBIsPortConflict(section.c_str(), port_text.data(), protocol.data(),
                                          static_cast<int>(req.scope), colliding.out());
        if (verdict != 1)
            fail_edit("cannot set " + std::string(key) + " of [" + section + "] in " + path, path, section, error);
        runs = conflict_runs(colliding.head());
    }

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("path").string(path).key("section").string(section).key("key").string(key);
        json.key("value").string(value).key("changed").boolean(result == 0).key("conflict").boolean(result != 0);
        json.key("colliding");
        runs_json(json, merged(runs));
        warnings_json(json);
        json.end_object().finish();
    } else if (result == 0) {
        std::cout << "set " << key << " of [" << section << "] in " << path << " to " << value << '\n';
    } else {
        std::string collide = runs_text(merged(runs));
        std::cout << "not changed: " << value << " collides with other services\n";
        print_labelled(std::cout, "Colliding:", collide.empty() ? "not named by the check" : collide, 15);
    }
    return result == 0 ? kExitOk : kExitConflict;
}

}  // namespace kovasvc
