// Removing one service section from its .sc file under backup, with roll-back on failure.
#include <kovaserviceconf.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "change/change_internal.h"
#include "conf/sc_reader.h"
#include "foundation/door.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

bool location_ok(uint32_t location) {
    const uint32_t where = location & 0x03;
    return where == KOVA_CONF_LOCATION_SYSTEM || where == KOVA_CONF_LOCATION_PACKAGE;
}

// File and section names: not empty, terminated; the file name a plain name inside services.d.
bool names_ok(const KVLIB_SERVICE_CONF_REQUEST &request) {
    return kova::change::terminated(request.fileName) && kova::change::terminated(request.sectionName) &&
           kova::change::is_plain_file_name(request.fileName) && request.sectionName[0] != '\0';
}

// The failures of one removal, in order: the error state as the last of them that names an
// error leaves it. Log lines show the state as it would be; the edge records it.
class Trail {
public:
    // Notes a step's outcome; whether it succeeded.
    template <class T>
    bool ok(const kova::Result<T> &result) {
        if (!result && result.failure().code != 0) last_ = result.failure();
        return result.ok();
    }
    void note(const kova::Failure &f) {
        if (f.code != 0) last_ = f;
    }
    const kova::Failure &last() const { return last_; }

private:
    kova::Failure last_{};
};

kova::Failure roll_back(const KVLIB_SERVICE_CONF_REQUEST &request, Trail &trail) {
    if (!trail.ok(kova::change::restore(request)))
        KOVA_LOG("Restore configure fail!" KOVA_ERRFMT, KOVA_PENDING_ARGS(trail.last()));
    return trail.last();
}

// The section names a file keeps once every section of `removed` is gone (one name, as the
// file lists each name once), or all of them when nothing is removed.
std::vector<std::string> names_left(const kova::conf::ScFile &file, const char *removed) {
    std::vector<std::string> names = file.names();
    if (removed != nullptr) {
        const auto it = std::find(names.begin(), names.end(), removed);
        if (it != names.end()) names.erase(it);
    }
    return names;
}

kova::Result<void> remove_from_file(const KVLIB_SERVICE_CONF_REQUEST &request) {
    const std::string path = kova::change::request_services_dir(request.location) + "/" + request.fileName;
    if (KVLIBCFileExist(path.c_str()) == 0) {
        KOVA_LOG("Configure file (%s) does not exist!" KOVA_ERRFMT, path.c_str(), KOVA_ERRARGS);
        return {};
    }
    // The file is read once: the section to remove, and the sections that stay.
    const kova::Result<kova::conf::ScFile> file = kova::conf::read_sc_file(path.c_str());
    if (!file) {
        KOVA_LOG("Failed to get section(%s) from file(%s)", request.sectionName, path.c_str());
        return file.failure();
    }
    const kova::conf::ScSection *section = file->find(request.sectionName);
    const bool found = section != nullptr && section->key_count() > 0;
    if (!found) {
        KOVA_LOG("Section (%s) not found!" KOVA_ERRFMT, request.sectionName, KOVA_ERRARGS);
    } else if (KVLIBCFileRemoveSection(path.c_str(), request.sectionName) < 0) {
        KOVA_LOG("Remove section (%s) fail!" KOVA_ERRFMT, request.sectionName, KOVA_ERRARGS);
        return KOVA_FAILURE_KEEP;
    }

    // A file left without a service section has no reason to stay.
    const std::vector<std::string> left = names_left(*file, found ? request.sectionName : nullptr);
    const bool only_global = left.size() == 1 && left.front() == "global";
    if ((left.empty() || only_global) && kova::sys().unlink(path.c_str()) != 0)
        KOVA_LOG("remove file %s fail!" KOVA_ERRFMT, path.c_str(), KOVA_ERRARGS);
    return {};
}

// The steps of a removal once the trees are backed up; a failure after rolling back. On
// success, what the clean-up left.
kova::Result<kova::change::Done> remove_backed_up(const KVLIB_SERVICE_CONF_REQUEST &request, Trail &trail) {
    if ((request.scope & 0x01) != 0 && !trail.ok(kova::change::firewall_remove_record(request.sectionName))) {
        KOVA_LOG("Remove service record in firewall rule fail!" KOVA_ERRFMT, KOVA_PENDING_ARGS(trail.last()));
        return roll_back(request, trail);
    }
    if ((request.scope & 0x04) != 0 && !trail.ok(kova::change::section_remove_from_file(request))) {
        KOVA_LOG("Remove service configure section fail!" KOVA_ERRFMT, KOVA_PENDING_ARGS(trail.last()));
        return roll_back(request, trail);
    }
    if (request.mode == 2 && !trail.ok(kova::change::restart(request.restartMask))) {
        KOVA_LOG("Restart service fail" KOVA_ERRFMT, KOVA_PENDING_ARGS(trail.last()));
        if (!trail.ok(kova::change::restore(request)))
            KOVA_LOG("Restore configure fail!" KOVA_ERRFMT, KOVA_PENDING_ARGS(trail.last()));
        // Let the components pick up the restored configuration.
        if (!trail.ok(kova::change::restart(request.restartMask)))
            KOVA_LOG("Restart service fail" KOVA_ERRFMT, KOVA_PENDING_ARGS(trail.last()));
        return trail.last();
    }
    if (!trail.ok(kova::change::delete_backup(request)))
        KOVA_LOG("Delete tmp configure fail!" KOVA_ERRFMT, KOVA_PENDING_ARGS(trail.last()));
    return kova::change::Done{trail.last()};
}

kova::Result<kova::change::Done> section_remove(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    if (pRequest == nullptr) return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    const KVLIB_SERVICE_CONF_REQUEST &request = *pRequest;
    const bool request_ok = (request.mode == 1 || request.mode == 2) &&
                            (request.mode != 2 || (request.restartMask & 0x0F) != 0) && request.action == 3 &&
                            (request.scope & 0x0F) != 0 && (request.scope & 0x04) != 0 && location_ok(request.location);
    if (!request_ok || !names_ok(request)) return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);

    if (const kova::Result<void> backed_up = kova::change::backup(request); !backed_up) {
        KOVA_LOG("Backup configure fail!" KOVA_ERRFMT, KOVA_PENDING_ARGS(backed_up.failure()));
        return backed_up.failure();
    }
    // From here on every failure rolls back, running out of memory on the way included.
    Trail trail;
    bool threw = true;
    kova::Result<kova::change::Done> removed = KOVA_GUARDED_RESULT(kova::Result<kova::change::Done>, [&] {
        kova::Result<kova::change::Done> r = remove_backed_up(request, trail);
        threw = false;
        return r;
    });
    if (!threw) return removed;
    trail.note(removed.failure());
    return roll_back(request, trail);
}

}  // namespace

kova::Result<void> kova::change::section_remove_from_file(const KVLIB_SERVICE_CONF_REQUEST &request) {
    if (request.action != 3 || (request.scope & 0x04) == 0 || !location_ok(request.location) || !names_ok(request)) {
        return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    }
    try {
        return remove_from_file(request);
    } catch (const std::bad_alloc &) {
        const kova::Failure f = KOVA_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
        KOVA_LOG("Failed to alloc memory");
        return f;
    }
}

extern "C" int KVLIBServiceConfSectionRemove(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    return KOVA_GUARDED(-1, [&] { return kova::change::to_c(section_remove(pRequest)); });
}
