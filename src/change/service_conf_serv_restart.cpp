// Telling the rest of the system about a changed service configuration: the firewall reload,
// the relay daemon, and the "port_config" plug-in events with the file contents.
#include <kovaserviceconf.h>

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "change/change_internal.h"
#include "foundation/door.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

constexpr const char *kRelayDaemon = "kovarelayd";
constexpr const char *kCategory = "port_config";
constexpr int kInvokeAction = 5;

using PluginPtr = std::unique_ptr<KVLIB_PLUGIN, kova::FnDeleter<KVLIBPluginExit>>;

PluginPtr plugin_open(const char *event) {
    KVLIB_PLUGIN *handle = nullptr;
    if (KVLIBPluginSDKInit(kCategory, event, &handle) != 0) {
        // A handle handed out despite the failure is still released.
        PluginPtr stray(handle);
        KOVA_LOG("FAILED to init plugin sdk");
        return nullptr;
    }
    return PluginPtr(handle);
}

}  // namespace

namespace kova::change {

int plugin_arg_from_file(KVLIB_PLUGIN *pPlugin, const char *szName, const char *szPath) {
    if (szPath == nullptr || szName == nullptr || KVLIBCFileExist(szPath) == 0) return -1;
    kova::System &sys = kova::sys();
    const kova::FileHandle fd(sys, sys.open(szPath, O_RDONLY | O_CLOEXEC, 0));
    if (fd.get() < 0) {
        KOVA_LOG("FAILED to open %s", szPath);
        return -1;
    }
    const auto size = static_cast<int32_t>(sys.lseek(fd.get(), 0, SEEK_END));
    if (size < 0) {
        KOVA_LOG("FAILED to lseek to SEEK_END err=%s", std::strerror(errno));
        return -1;
    }
    if (sys.lseek(fd.get(), 0, SEEK_SET) < 0) {
        KOVA_LOG("FAILED to lseek to begining");
        return -1;
    }
    const size_t capacity = static_cast<size_t>(size) + 1;
    kova::CStrPtr content(static_cast<char *>(std::calloc(capacity, 1)));
    if (!content) {
        KOVA_LOG("FAILED to malloc %d, err=%s", static_cast<int>(capacity), std::strerror(errno));
        return -1;
    }
    size_t have = 0;
    for (;;) {
        const ssize_t got = sys.read(fd.get(), content.get() + have, static_cast<size_t>(size) - have);
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            KOVA_LOG("FAILED to read content from %s nRead=%zd err=%s", szPath, got, std::strerror(errno));
            return -1;
        }
        have += static_cast<size_t>(got);
    }
    if (KVLIBPluginSetArg(pPlugin, szName, content.get()) < 0) {
        KOVA_LOG("FAILED to set OLD_TMP_PORT_CONFIG");
        return -1;
    }
    return 0;
}

namespace {

// The "port_config/update" event once its receivers are reached: the missing path it reports
// (the error state notes it before the event goes on) and the contents it carries.
struct UpdateEvent {
    PluginPtr plugin;
    Failure missing_path{};
};

UpdateEvent open_update_event(const KVLIB_SERVICE_CONF_UPDATE_NOTICE &notice) {
    UpdateEvent event{plugin_open("port_config/update")};
    if (!event.plugin || notice.notifyPortForward == 0) return event;
    if (notice.oldConfPath == nullptr) {
        event.missing_path = KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
        KOVA_LOG("FAILED to notify portforward, old sc file is NULL");
    } else if (notice.newConfPath == nullptr) {
        event.missing_path = KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
        KOVA_LOG("FAILED to notify portforward, new sc file is NULL");
    }
    return event;
}

void send_update_event(const UpdateEvent &event, const KVLIB_SERVICE_CONF_UPDATE_NOTICE &notice) {
    KVLIB_PLUGIN *plugin = event.plugin.get();
    bool pf_missing = false;
    if (notice.notifyPortForward != 0) {
        bool contents_set = false;
        if (event.missing_path.code == 0) {
            if (plugin_arg_from_file(plugin, "OLD_PORT_CONFIG_CONTENT", notice.oldConfPath) != 0) {
                KOVA_LOG("FAILED to set content for OLD_PORT_CONFIG_CONTENTwith file=%s", notice.oldConfPath);
            } else if (plugin_arg_from_file(plugin, "NEW_PORT_CONFIG_CONTENT", notice.newConfPath) != 0) {
                KOVA_LOG("FAILED to set content for NEW_PORT_CONFIG_CONTENTwith file=%s", notice.newConfPath);
            } else {
                contents_set = true;
            }
        }
        if (!contents_set) {
            KVLIBPluginSetArg(plugin, "OLD_PORT_CONFIG_CONTENT", "");
            KVLIBPluginSetArg(plugin, "NEW_PORT_CONFIG_CONTENT", "");
            KOVA_LOG("FAILED to set common arg for update");
        }
        if (KVLIBPluginSetArg(plugin, "NOTIFY_PF", "1") < 0) {
            KOVA_LOG("FAILED to set NOTIFY_PF");
            KOVA_LOG("FAILED to set update pf arg");
            pf_missing = true;
        }
    }
    if (notice.notifyFirewall != 0 && KVLIBPluginSetArg(plugin, "NOTIFY_FW", "1") < 0) {
        KOVA_LOG("FAILED to set NOTIFY_FW");
        KOVA_LOG("FAILED to set update fw arg");
        if (pf_missing) return;
    }
    if (KVLIBPluginAction(kInvokeAction, plugin) < 0) {
        KOVA_LOG("FAILED to invoke plugins");
        return;
    }
    if (KVLIBServiceIsRunning(kRelayDaemon) == 1 && KVLIBServiceReload(kRelayDaemon) < 0)
        KOVA_LOG("FAILED to notify kovarelayd for update conf");
}

}  // namespace

Result<void> remove_notify(const KVLIB_SERVICE_CONF_REMOVE_NOTICE &notice) noexcept {
    return KOVA_GUARDED_RESULT(Result<void>, [&]() -> Result<void> {
        const PluginPtr plugin = plugin_open("port_config/remove");
        if (!plugin) return {};

        bool content_missing = false;
        if (plugin_arg_from_file(plugin.get(), "PORT_CONFIG_CONTENT", notice.confPath) != 0) {
            KOVA_LOG("FAILED to set arg for PORT_CONFIG_CONTENT for removed service config notify");
            KVLIBPluginSetArg(plugin.get(), "PORT_CONFIG_CONTENT", "");
            content_missing = true;
        }
        bool pf_failed = false;
        if (notice.notifyPortForward != 0) {
            if (KVLIBPluginSetArg(plugin.get(), "NOTIFY_PF", "1") < 0) {
                KOVA_LOG("FAILED to set NOTIFY_PF");
                KOVA_LOG("FAILED to set update pf arg");
                pf_failed = true;
            } else {
                content_missing = false;
            }
        }
        if (notice.notifyFirewall != 0 && KVLIBPluginSetArg(plugin.get(), "NOTIFY_FW", "1") < 0) {
            KOVA_LOG("FAILED to set NOTIFY_FW");
            KOVA_LOG("FAILED to set update fw arg");
            if (content_missing && pf_failed) return {};
        }
        if (KVLIBPluginAction(kInvokeAction, plugin.get()) < 0) {
            KOVA_LOG("FAILED to invoke plugins");
            return {};
        }
        if (KVLIBServiceIsRunning(kRelayDaemon) == 1 && KVLIBServiceReload(kRelayDaemon) < 0)
            KOVA_LOG("FAILED to notify kovarelayd for remove conf");
        return {};
    });
}

Result<void> restart(unsigned int restartMask) noexcept {
    return KOVA_GUARDED_RESULT(Result<void>, [&]() -> Result<void> {
        if (restartMask == 0 || restartMask > 31) return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
        if ((restartMask & 0x01) != 0) {
            if (Result<void> reloaded = firewall_reload(); !reloaded) return reloaded;
        }
        if ((restartMask & 0x03) != 0 && KVLIBServiceIsRunning(kRelayDaemon) == 1) KVLIBServiceReload(kRelayDaemon);
        return {};
    });
}

int notify_update(const KVLIB_SERVICE_CONF_UPDATE_NOTICE &notice) noexcept {
    return KOVA_GUARDED(-1, [&] {
        const UpdateEvent event = open_update_event(notice);
        if (!event.plugin) return 0;
        // A missing path is recorded before the event goes on; what the platform records on the
        // way replaces it.
        set_error(event.missing_path);
        send_update_event(event, notice);
        return 0;
    });
}

}  // namespace kova::change

extern "C" {

int KVLIBServiceConfServRestart(unsigned int restartMask) {
    return kova::change::to_c(kova::change::restart(restartMask));
}

int KVLIBServiceConfUpdateServNotify(const KVLIB_SERVICE_CONF_UPDATE_NOTICE *pNotice) {
    return KOVA_WITH_RECORD(pNotice, kova::change::notify_update);
}

int KVLIBServiceConfServNotify(const KVLIB_SERVICE_CONF_UPDATE_NOTICE *pNotice) {
    return KOVA_WITH_RECORD(pNotice, kova::change::notify_update);
}

int KVLIBServiceConfRemoveServNotify(const KVLIB_SERVICE_CONF_REMOVE_NOTICE *pNotice) {
    return KOVA_WITH_RECORD(pNotice, [](const KVLIB_SERVICE_CONF_REMOVE_NOTICE &notice) {
        return kova::change::to_c(kova::change::remove_notify(notice));
    });
}

}  // extern "C"
