// Module-internal operations of the changing operations, and small helpers they share.
// Nothing here is exported from the shared library.
//
// The steps below that log take the calling module's logger, a lambda over KOVA_LOG written in
// that module, so that their lines name the module that runs them:
//   constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };
#pragma once

#include <kovaserviceconf.h>

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "conf/conf_internal.h"
#include "foundation/door.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "foundation/result.h"
#include "kova_root.h"
#include "range/conflict_check.h"

namespace kova::change {

// The operations of the changing modules that other modules use. Each does the work of the
// exported operation of the same job once its arguments are tested, with its results, error
// state and log lines, running out of memory included.

// At the ABI edge: the core's result for the record the caller must pass, or error 0x0D00
// (naming the caller's module and line) when it passes none.
template <class T, class Core>
int with_record(const T *record, Core core, const char *module, int line) noexcept {
    if (record == nullptr) {
        KVLIBCErrSetEx(KOVA_ERR_BAD_PARAMETER, module, line);
        return -1;
    }
    return core(*record);
}
#define KOVA_WITH_RECORD(record, core) ::kova::change::with_record(record, core, __FILE_NAME__, __LINE__)

// What a step leaves in the error state when it succeeds: nothing, or a code (0 included)
// naming the step's module and line.
struct StateNote {
    bool set = false;
    Failure state{};
};
#define KOVA_STATE_NOTE(code) (::kova::change::StateNote{true, ::kova::Failure{(code), __FILE_NAME__, __LINE__}})

// At the ABI edge: records a note.
inline void record(const StateNote &note) noexcept {
    if (note.set) KVLIBCErrSetEx(note.state.code, note.state.module, note.state.line);
}

// A change that succeeded: the failure of a follow-up step that did not fail it, which the error
// state records after the change (code 0: none).
struct Done {
    Failure left{};
};

// At the ABI edge: a core step's result as the exported int (`value` on success, -1 once the
// error state records the failure).
template <class T>
int to_c(const Result<T> &result, int value = 0) noexcept {
    if (result) return value;
    set_error(result.failure());
    return -1;
}

// The same for a change: on success the error state records what the change left.
inline int to_c(const Result<Done> &result) noexcept {
    if (result) set_error(result->left);
    return to_c<Done>(result, 0);
}

// service_conf_common: removing, copying and moving paths ("/bin/rm -rf", "/bin/cp -rf",
// "/bin/mv -f"), and the backup set of a request.
// A failed removal logs the error state as it is once `pending` (a failure of the caller not yet
// recorded) is.
Result<void> remove_path(const char *szPath, const Failure &pending = {});
Result<void> copy_path(const char *szSource, const char *szTarget, int move);
Result<void> backup(const KVLIB_SERVICE_CONF_REQUEST &request) noexcept;
Result<void> restore(const KVLIB_SERVICE_CONF_REQUEST &request) noexcept;
Result<void> delete_backup(const KVLIB_SERVICE_CONF_REQUEST &request) noexcept;

// utils: the installed path of a base name; the firewall tool; the install step.
Result<std::string> install_path(const char *szBaseName, int location) noexcept;
Result<void> firewall_reload() noexcept;
Result<void> firewall_remove_record(const char *szServiceName) noexcept;
// The install runs in two steps: the test of its arguments and source, then the copy. Between
// them the error state records what the test leaves (a file installed already is replaced:
// the state is cleared), since the conflict check of the copy step records its own failures.
struct InstallPlan {
    std::string dir;
    StateNote left;
};
Result<InstallPlan> plan_install(const char *szBaseName, const char *szSourcePath, unsigned int location) noexcept;
// 1 when the file's ports collide with installed ones (the file is installed all the same), else 0.
Result<int> finish_install(const InstallPlan &plan, const char *szBaseName, const char *szSourcePath,
                           KOVA_SERVICE_CONF_PORT **ppConflictList) noexcept;
// At the ABI edge: both steps, the error state recording their outcome.
int install(const char *szBaseName, const char *szSourcePath, unsigned int location,
            KOVA_SERVICE_CONF_PORT **ppConflictList) noexcept;

// service_conf_serv_restart: the restart of the components and the plug-in events.
Result<void> restart(unsigned int restartMask) noexcept;
// At the ABI edge: the update event, the error state recording what it leaves on the way.
int notify_update(const KVLIB_SERVICE_CONF_UPDATE_NOTICE &notice) noexcept;
Result<void> remove_notify(const KVLIB_SERVICE_CONF_REMOVE_NOTICE &notice) noexcept;
// Sets the whole content of the file at `szPath` as the value of a plug-in argument.
int plugin_arg_from_file(KVLIB_PLUGIN *pPlugin, const char *szName, const char *szPath);

// service_conf_update, at the ABI edge: the update without its notification.
int update_without_notify(const char *szBaseName, const char *szSourcePath, unsigned int location,
                          KOVA_SERVICE_CONF_PORT **ppConflictList, KVLIB_SERVICE_CONF_UPDATE_NOTICE &notice) noexcept;

// service_conf_section_remove: removes the request's section from its file, read once; deletes
// a file left without service sections.
Result<void> section_remove_from_file(const KVLIB_SERVICE_CONF_REQUEST &request);

// The text of a fixed-size text field, never reading past its end.
template <size_t N>
std::string field(const char (&text)[N]) {
    return std::string(text, strnlen(text, N));
}

// Whether a fixed-size field holds a terminated text.
template <size_t N>
bool terminated(const char (&text)[N]) {
    return strnlen(text, N) < N;
}

// A path or name that a command could take for an option (a leading "-"), or that holds a
// control character (a line break would split a log line; others make files unusable).
inline bool is_hostile_name(const char *name) {
    if (name == nullptr || *name == '-') return true;
    for (const char *p = name; *p != '\0'; ++p)
        if (static_cast<unsigned char>(*p) < 0x20 || *p == 0x7F) return true;
    return false;
}

// A plain file name: not empty, no "/", not "." or "..", not hostile. Names that are not plain
// could reach outside the directory that a request names, or reach a command as an option.
inline bool is_plain_file_name(const char *name) {
    if (name == nullptr || *name == '\0' || is_hostile_name(name)) return false;
    if (std::strchr(name, '/') != nullptr) return false;
    return std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0;
}

// Every port of the list, and every range's end, is a port number (at most 65535).
inline bool ports_in_range(const KOVA_SERVICE_CONF_PORT *ports) {
    for (const KOVA_SERVICE_CONF_PORT *p = ports; p != nullptr; p = p->next)
        if (p->beginPort > 65535 || (p->type == 1 && p->endPort > 65535)) return false;
    return true;
}

inline bool has_line_break(std::string_view text) {
    return text.find_first_of("\r\n") != std::string_view::npos;
}

// A port list rendered as a .sc value: "ports/protocols".
struct PortValue {
    std::string ports;
    std::string protocols;
    std::string value;
};

// Renders a port list as KVLIBServiceConfPortsToStr does into texts of at most 1023 characters
// each and joins them; false when it cannot be rendered or the value would not fit either.
inline bool render_port_value(const KOVA_SERVICE_CONF_PORT *ports, PortValue &out) {
    constexpr int kSize = 1024;
    char port_text[kSize] = {};
    char proto_text[kSize] = {};
    if (conf::ports_to_text(ports, port_text, kSize, proto_text, kSize) < 0) return false;
    out.ports = port_text;
    out.protocols = proto_text;
    out.value = out.ports + "/" + out.protocols;
    return out.value.size() < static_cast<size_t>(kSize);
}

// The request test of the in-place edits: ranges of the numeric fields, a plain file name and
// a section name that is not empty and holds no line break.
inline bool edit_request_ok(const KVLIB_SERVICE_CONF_REQUEST &request) {
    if (request.mode != 1 && request.mode != 2) return false;
    if (request.restartMask < 1 || request.restartMask > 31) return false;
    if (request.action < 1 || request.action > 3) return false;
    if (request.scope < 1 || request.scope > 31) return false;
    if (request.location < 1 || request.location > 3) return false;
    if (!terminated(request.fileName) || !is_plain_file_name(request.fileName)) return false;
    if (!terminated(request.sectionName) || request.sectionName[0] == '\0') return false;
    return !has_line_break(request.sectionName);
}

// The services.d directory of a request's location: the system one when bit 0x01 is set,
// the package one otherwise.
inline std::string request_services_dir(uint32_t location) {
    return kova::resolve((location & KOVA_CONF_LOCATION_SYSTEM) != 0 ? kova::paths::kSystemServicesDir
                                                                     : kova::paths::kPackageServicesDir);
}

// Makes a fixed temporary name safe to copy into: whatever is there (a planted symbolic link
// included) is unlinked without being followed, and an empty file of our own is created in
// its place with O_EXCL, so that a copy into it can only write to that file. 0 or -1.
inline int claim_temp_file(const std::string &path) {
    System &sys = kova::sys();
    if (sys.unlink(path.c_str()) != 0 && errno != ENOENT) return -1;
    const FileHandle fd(sys, sys.open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return fd ? 0 : -1;
}

// A string hash handle for the operations that may move the hash as it grows: they take the
// address of the handle. The hash is freed when the handle goes out of scope.
class SzHashHandle {
public:
    explicit SzHashHandle(KVLIB_SZHASH *hash) : hash_(hash) {}
    SzHashHandle(const SzHashHandle &) = delete;
    SzHashHandle &operator=(const SzHashHandle &) = delete;
    ~SzHashHandle() { KVLIBCSzHashFree(hash_); }
    KVLIB_SZHASH *get() const { return hash_; }
    KVLIB_SZHASH **addr() { return &hash_; }
    explicit operator bool() const { return hash_ != nullptr; }

private:
    KVLIB_SZHASH *hash_;
};

// Unlinks a temporary file when it goes out of scope (the name, not what it may point to).
class TempFileGuard {
public:
    TempFileGuard() = default;
    explicit TempFileGuard(std::string path) : path_(std::move(path)) {}
    TempFileGuard(TempFileGuard &&other) noexcept : path_(std::exchange(other.path_, {})) {}
    TempFileGuard(const TempFileGuard &) = delete;
    TempFileGuard &operator=(const TempFileGuard &) = delete;
    ~TempFileGuard() {
        if (!path_.empty()) kova::sys().unlink(path_.c_str());
    }
    void reset(std::string path) { path_ = std::move(path); }

private:
    std::string path_;
};

// The port conflict check of an edit: whether the rendered ports are free for the request's
// section. A conflict is logged; a failed check is not (the check reports its own failures).
template <class Log>
bool ports_free(const KVLIB_SERVICE_CONF_REQUEST &request, const PortValue &ports, Log log) {
    KOVA_SERVICE_CONF_PORT *conflict_head = nullptr;
    const int conflict = check::is_port_conflict(request.sectionName, ports.ports.c_str(), ports.protocols.c_str(),
                                                 static_cast<int>(request.scope), &conflict_head);
    const PortsPtr conflicts(conflict_head);
    if (conflict < 0) return false;
    if (conflict > 0) {
        log("Port conflict with existing ports! (port: %s)" KOVA_ERRFMT, ports.value.c_str(), KOVA_ERRARGS);
        return false;
    }
    return true;
}

// The file as it was before an edit, copied to "/tmp/<file name>" for the router tool, which
// compares it with the edited file. The copy is never written through a planted link and is
// removed when this goes out of scope.
class RouterCopy {
public:
    RouterCopy() = default;
    RouterCopy(const RouterCopy &) = delete;
    RouterCopy &operator=(const RouterCopy &) = delete;

    template <class Log>
    bool take(const std::string &path, const char *file_name, Log log) {
        copy_ = kova::resolve(std::string("/tmp/") + file_name);
        guard_.reset(copy_);
        if (claim_temp_file(copy_) != 0 ||
            kova::sys().run("/bin/cp", "-f", path.c_str(), copy_.c_str(), nullptr) != 0) {
            log("FAILED to copy from file=%s to backup path=%s", path.c_str(), copy_.c_str());
            return false;
        }
        return true;
    }

    // Runs the router tool over the copy and the edited file when the request's scope asks
    // for it (0x02); a failure is logged and does not fail the edit.
    template <class Log>
    void update_router(const KVLIB_SERVICE_CONF_REQUEST &request, const std::string &path, Log log) const {
        if ((request.scope & 0x02) == 0) return;
        const std::string tool = kova::resolve(kova::paths::kRouterTool);
        if (kova::sys().run(tool.c_str(), "--update", copy_.c_str(), path.c_str(), nullptr) != 0)
            log("%s --udpate %s %s failed!" KOVA_ERRFMT, tool.c_str(), copy_.c_str(), path.c_str(), KOVA_ERRARGS);
    }

private:
    std::string copy_;
    TempFileGuard guard_;
};

// Restarts the components when the request's mode asks for it (2); a failure is logged and
// does not fail the edit. The failure that the error state must record after the edit (none:
// code 0).
template <class Log>
Failure restart_if_asked(const KVLIB_SERVICE_CONF_REQUEST &request, Log log) {
    if (request.mode != 2) return {};
    const Result<void> restarted = restart(request.restartMask);
    if (restarted) return {};
    log("Restart service fail" KOVA_ERRFMT, KOVA_PENDING_ARGS(restarted.failure()));
    return restarted.failure();
}

}  // namespace kova::change
