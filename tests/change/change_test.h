// Fixture for the changing operations: recording stand-ins for the firewall and router tools,
// a recording plug-in receiver, and a relay daemon that counts the SIGHUPs it gets.
#pragma once

#include <kovaserviceconf.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kova_test.h"

namespace kova::test {

// One delivered plug-in event: its name and the plug-in arguments that were set.
struct PluginEvent {
    std::string name;
    std::map<std::string, std::string> args;
};

// A child process named by ROOT/run/kovarelayd.pid. It records every SIGHUP until stopped.
class RelayDaemon {
public:
    explicit RelayDaemon(const std::string &pid_file);
    RelayDaemon(const RelayDaemon &) = delete;
    RelayDaemon &operator=(const RelayDaemon &) = delete;
    ~RelayDaemon();
    // Stops the daemon; the number of SIGHUPs that reached it before.
    int stop();
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int read_fd_ = -1;
    int hups_ = -1;
};

class ChangeTest : public RootTest {
protected:
    void SetUp() override;

    // The resolved location of a fixed system path.
    std::string sys(const std::string &rel) const { return path(rel); }

    void remove_all(const std::string &rel) const;

    // Stand-in tools: each call appends its arguments as one line to a record file.
    void install_firewall_tool(int exit_status = 0) const;
    void install_router_tool(int exit_status = 0) const;
    std::vector<std::string> firewall_calls() const;
    std::vector<std::string> router_calls() const;
    // The content of the router copy (its second argument) when the router tool ran.
    std::string router_old_content() const;

    // A receiver in ROOT/usr/kova/etc/plugin.d/port_config recording every event.
    void install_plugin_receiver() const;
    std::vector<PluginEvent> plugin_events() const;

    std::unique_ptr<RelayDaemon> start_relay_daemon() const;

    // Temporary names left behind in ROOT/tmp and next to the configuration trees.
    std::vector<std::string> leftovers() const;

    static KVLIB_SERVICE_CONF_REQUEST request(uint32_t mode, uint32_t restartMask, uint32_t action, uint32_t scope,
                                              const std::string &file, const std::string &section, uint32_t location);

    static std::string sc_section(const std::string &name, const std::string &dst_ports, const std::string &extra = "");
};

}  // namespace kova::test
