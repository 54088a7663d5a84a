// Resolution of the system's fixed paths under KOVA_ROOT.
//
// Every absolute path that the library or the platform layer forms from its fixed locations
// goes through kova::resolve(). When KOVA_ROOT is set and not empty (read with secure_getenv,
// so a set-id process ignores it), the path is placed under that directory; otherwise it is
// returned as it is. Paths that callers pass in never go through here.
#pragma once

#include <string>
#include <string_view>

namespace kova {

// KOVA_ROOT as set, or the empty text.
std::string root_dir();

// The fixed absolute path `path` as seen under KOVA_ROOT.
std::string resolve(std::string_view path);

namespace paths {
inline constexpr std::string_view kSystemServicesDir = "/usr/kova/etc/services.d";
inline constexpr std::string_view kPackageServicesDir = "/usr/local/etc/services.d";
inline constexpr std::string_view kFirewallDir = "/usr/kova/etc/firewall.d";
inline constexpr std::string_view kInfoConf = "/etc/kovainfo.conf";
inline constexpr std::string_view kInfoConfDefaults = "/etc.defaults/kovainfo.conf";
inline constexpr std::string_view kNfsConf = "/etc/nfs/kova_nfs_conf";
inline constexpr std::string_view kSshdConfig = "/etc/ssh/sshd_config";
inline constexpr std::string_view kPortForwardRules = "/etc/portforward/rule.conf";
inline constexpr std::string_view kPluginDir = "/usr/kova/etc/plugin.d";
inline constexpr std::string_view kRunDir = "/run";
inline constexpr std::string_view kProcDir = "/proc";
inline constexpr std::string_view kTmpDir = "/tmp";
inline constexpr std::string_view kFirewallTool = "/usr/kova/bin/kovafirewall";
inline constexpr std::string_view kRouterTool = "/usr/kova/sbin/kovaroutertool";
}  // namespace paths

}  // namespace kova
