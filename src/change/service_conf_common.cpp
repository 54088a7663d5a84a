// The protocol name table and its accessors, and the backup and restore of the configuration
// trees that a change touches.
#include <kovaserviceconf.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "change/change_internal.h"
#include "foundation/door.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "kova_root.h"

namespace {

constexpr int kProtoCount = 2;

}  // namespace

extern "C" {

const KOVA_PROTO_TYPE_MAPPING gProtoTypeMapping[kProtoCount] = {
    {KOVA_PROTO_TCP, "tcp"},
    {KOVA_PROTO_UDP, "udp"},
};

int KVLIBServiceProtoMapSizeGet(void) {
    return kProtoCount;
}

int KVLIBServiceProtoIndexGet(int index, int *pType) {
    if (pType == nullptr || index < 0 || index >= kProtoCount) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    *pType = gProtoTypeMapping[index].type;
    return 0;
}

int KVLIBServiceProtoStrGet(int index, char *szBuf, int cbBuf) {
    if (index < 0 || index >= kProtoCount || szBuf == nullptr || cbBuf < 1) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    const char *name = gProtoTypeMapping[index].szName;
    if (std::strlen(name) > static_cast<size_t>(cbBuf) - 1) {
        KOVA_SET_ERR(KOVA_ERR_BUFFER_TOO_SMALL);
        KOVA_LOG("input array too small" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    std::snprintf(szBuf, static_cast<size_t>(cbBuf), "%s", name);
    return 0;
}

}  // extern "C"

// ---- removing, copying and moving paths ------------------------------------------------------

namespace kova::change {

Result<void> remove_path(const char *szPath, const Failure &pending) {
    if (szPath == nullptr || *szPath == '\0') return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    struct stat st {};
    if (kova::sys().stat(szPath, &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return {};
        KOVA_LOG("Failed to stat %s: %m", szPath);
        return KOVA_FAILURE_KEEP;
    }
    // Device nodes, FIFOs and sockets are left where they are.
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) return {};
    if (kova::sys().run("/bin/rm", "-rf", szPath, nullptr, nullptr) != 0) {
        KOVA_LOG("Failed to rm -rf %s" KOVA_ERRFMT, szPath, KOVA_PENDING_ARGS(pending));
        return KOVA_FAILURE_KEEP;
    }
    return {};
}

Result<void> copy_path(const char *szSource, const char *szTarget, int move) {
    if (szSource == nullptr || *szSource == '\0' || szTarget == nullptr || *szTarget == '\0') {
        return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    }
    kova::CStrPtr source(::strdup(szSource));
    kova::CStrPtr target(::strdup(szTarget));
    if (!source || !target) return KOVA_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
    if (KVLIBCStrTrimSpace(source.get(), 0) < 0 || KVLIBCStrTrimSpace(target.get(), 0) < 0) {
        KOVA_LOG("KVLIBCStrTrimSpace() failed!" KOVA_ERRFMT, KOVA_ERRARGS);
        return KOVA_FAILURE_KEEP;
    }
    if (*source == '\0' || *target == '\0') return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    struct stat st {};
    if (kova::sys().stat(source.get(), &st) != 0 || (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode))) {
        const Failure f = KOVA_FAILURE(KOVA_ERR_INVALID_SOURCE);
        KOVA_LOG("Source path is not valid (src path: %s)" KOVA_ERRFMT, source.get(), KOVA_FAILURE_ARGS(f));
        return f;
    }
    const size_t target_len = std::strlen(target.get());
    if (S_ISREG(st.st_mode) && target.get()[target_len - 1] == '/') {
        KOVA_LOG("source/target must both be folder or file" KOVA_ERRFMT, KOVA_ERRARGS);
        return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    }
    // Removing the target first makes a directory copy land at the target's name, not inside
    // an older directory of that name.
    if (Result<void> removed = remove_path(target.get()); !removed) {
        KOVA_LOG("Failed to rm -rf %s" KOVA_ERRFMT, target.get(), KOVA_PENDING_ARGS(removed.failure()));
        return removed;
    }
    if (move != 0) {
        if (kova::sys().run("/bin/mv", "-f", source.get(), target.get(), nullptr) != 0) {
            KOVA_LOG("Failed to mv -f %s %s" KOVA_ERRFMT, source.get(), target.get(), KOVA_ERRARGS);
            return KOVA_FAILURE_KEEP;
        }
    } else if (kova::sys().run("/bin/cp", "-rf", source.get(), target.get(), nullptr) != 0) {
        KOVA_LOG("Failed to cp -rf %s %s" KOVA_ERRFMT, source.get(), target.get(), KOVA_ERRARGS);
        return KOVA_FAILURE_KEEP;
    }
    return {};
}

// ---- backup set --------------------------------------------------------------------------------

namespace {

struct BackupItem {
    std::string live;
    std::string copy;
};

// A request must select at least one of the trees (0x01 firewall, 0x02 port forwarding, 0x04
// service files); 0x08 and 0x10 are check flags of the edits and select nothing here.
bool request_ok(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    if (pRequest == nullptr || (pRequest->scope & 0x07) == 0) return false;
    if ((pRequest->scope & 0x04) != 0 && (pRequest->location & 0x03) == 0) return false;
    return true;
}

// The items that the request selects, in their fixed order, with the names of their copies.
std::vector<BackupItem> backup_items(const KVLIB_SERVICE_CONF_REQUEST &request) {
    const std::string suffix = ".tmp." + std::to_string(kova::sys().getpid());
    std::vector<BackupItem> items;
    auto add = [&](std::string live) {
        std::string copy = live + suffix;
        items.push_back({std::move(live), std::move(copy)});
    };
    if ((request.scope & 0x04) != 0 && request.location == KOVA_CONF_LOCATION_SYSTEM)
        add(kova::resolve(kova::paths::kSystemServicesDir));
    if ((request.scope & 0x04) != 0 && request.location == KOVA_CONF_LOCATION_PACKAGE)
        add(kova::resolve(kova::paths::kPackageServicesDir));
    if ((request.scope & 0x01) != 0) add(kova::resolve(kova::paths::kFirewallDir));
    if ((request.scope & 0x02) != 0) {
        // Without a rule file path there is nothing of port forwarding to keep.
        if (const char *rules = KOVAPFRuleConfPathGet(); rules != nullptr && *rules != '\0') add(rules);
    }
    return items;
}

bool path_exists(const std::string &path) {
    return kova::sys().access(path.c_str(), F_OK) == 0;
}

// Runs one of the three operations on a request that selects something; out of memory is a
// failure 0x0200 naming this module.
template <class Body>
Result<void> on_backup_set(const KVLIB_SERVICE_CONF_REQUEST &request, Body body) noexcept {
    return KOVA_GUARDED_RESULT(Result<void>, [&]() -> Result<void> {
        if (!request_ok(&request)) return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
        return body(backup_items(request));
    });
}

}  // namespace

Result<void> backup(const KVLIB_SERVICE_CONF_REQUEST &request) noexcept {
    return on_backup_set(request, [](const std::vector<BackupItem> &items) -> Result<void> {
        for (size_t i = 0; i < items.size(); ++i) {
            if (!path_exists(items[i].live)) continue;
            if (Result<void> copied = copy_path(items[i].live.c_str(), items[i].copy.c_str(), 0); !copied) {
                // Leave no partial backup behind; the error state stays that of the failure.
                for (size_t j = 0; j <= i; ++j) (void)remove_path(items[j].copy.c_str(), copied.failure());
                return copied;
            }
        }
        return {};
    });
}

Result<void> restore(const KVLIB_SERVICE_CONF_REQUEST &request) noexcept {
    return on_backup_set(request, [](const std::vector<BackupItem> &items) -> Result<void> {
        for (const BackupItem &item : items) {
            if (!path_exists(item.copy)) continue;
            if (Result<void> moved = copy_path(item.copy.c_str(), item.live.c_str(), 1); !moved) return moved;
        }
        return {};
    });
}

Result<void> delete_backup(const KVLIB_SERVICE_CONF_REQUEST &request) noexcept {
    return on_backup_set(request, [](const std::vector<BackupItem> &items) -> Result<void> {
        // Every copy is removed that can be; the error state is that of the last failure that
        // names one.
        Result<void> result;
        Failure last{};
        for (const BackupItem &item : items) {
            if (Result<void> removed = remove_path(item.copy.c_str(), last); !removed) {
                if (removed.failure().code != 0) last = removed.failure();
                result = last.code != 0 ? last : removed.failure();
            }
        }
        return result;
    });
}

}  // namespace kova::change

extern "C" {

int KVLIBServiceConfBackup(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    return KOVA_WITH_RECORD(pRequest, [](const KVLIB_SERVICE_CONF_REQUEST &request) {
        return kova::change::to_c(kova::change::backup(request));
    });
}

int KVLIBServiceConfRestore(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    return KOVA_WITH_RECORD(pRequest, [](const KVLIB_SERVICE_CONF_REQUEST &request) {
        return kova::change::to_c(kova::change::restore(request));
    });
}

int KVLIBServiceBackupConfDelete(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    return KOVA_WITH_RECORD(pRequest, [](const KVLIB_SERVICE_CONF_REQUEST &request) {
        return kova::change::to_c(kova::change::delete_backup(request));
    });
}

}  // extern "C"
