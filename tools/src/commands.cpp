#include "commands.h"

#include <cstring>

#include "table.h"

namespace kovasvc {

namespace {

const OptionSpec kLocation[] = {{"--system", false}, {"--package", false}};

std::vector<OptionSpec> with_location(std::vector<OptionSpec> options) {
    options.insert(options.end(), std::begin(kLocation), std::end(kLocation));
    return options;
}

const char kListHelp[] = R"(Lists every service of the firewall catalogue: the built-in services and the
service sections of the .sc files in the system and package services.d
directories. Columns: NAME; ORIGIN (built-in, system or package; a "*" marks a
service that an earlier one of the same name hides from lookups); SUP (the
system supports it); FWD (its ports may be forwarded); DESTINATION and SOURCE
ports with their protocols. Rows are sorted by name, ports ascending.

Options:
  --names      print only the service names, one a line
  --json       print {"services": [SERVICE, ...]} in the library's order

SERVICE: {"name", "origin": "built-in"|"system"|"package", "file": path or
  null, "support_key", "supported": bool, "port_forward": bool,
  "shadowed": bool, "title": STRING, "desc": STRING, "dst": PORTS,
  "src": PORTS or null}
STRING: {"text", "string_key", "prefix", "section", "key"}; "desc" also has
  "extra_text"
PORTS: {"protocol": "tcp"|"udp"|"tcp,udp", "ports": ["445", "55536-55899"]}
)";

const char kShowHelp[] = R"(Shows one service of the catalogue in full: where it comes from (the built-in
table or a .sc file), its support key, its flags, its title and description
with their string keys, and its ports. NAME is looked up as the library does:
a .sc service hides a built-in service of the same name.

Options:
  --json   print {"service": SERVICE, "hidden": [{"origin", "file"}, ...]};
           SERVICE as in "kova-svc list --help"; "hidden" lists the other
           records of the same name, which lookups do not find

Exit status 3 when no service has that name.
)";

const char kCheckHelp[] = R"(Runs the library's service-wide conflict check for a port list such as
"80,443,8000:8010/tcp" (without /PROTO: tcp and udp) and prints the verdict,
the colliding ports that the sources name, and for every port asked for the
services that declare it and the processes that hold it (ranges are looked at
port by port).

Options:
  --skip NAME,...   services whose own ports do not count
  --sources LIST    what to compare with, any of: forward (port-forwarding
                    rules), services (the firewall catalogue), reserved (ports
                    reserved by system settings), in-use (ports in use);
                    default: all four
  --json            print one JSON object:
    {"ports": "80,8000:8010", "protocol": "tcp", "skip": [NAME, ...],
     "sources": [NAME, ...], "conflict": bool,
     "colliding": [{"first": N, "last": N}, ...],
     "configured": [{"port", "protocol", "service", "conflict"}, ...] or null,
     "runtime": [{"port", "protocol", "pid", "state", "state_name",
                  "program", "conflict"}, ...] or null}
    "colliding" is the library's conflict list in its order; "configured"
    and "runtime" are its reports in its order: for each port and protocol
    asked for, every record that holds it, or one record with "conflict":
    false; null when a report could not be built.

Exit status: 0 no conflict, 1 conflict.
)";

const char kWhoHelp[] = R"(Shows the configured services that declare a port and the running processes
that hold it (pid, socket state, executable), from the library's structured
reports. Without /PROTO both tcp and udp are looked at.

Options:
  --json   print {"port": N, "protocol": "tcp,udp", "configured": [...],
           "runtime": [...]}, the records as in "kova-svc check --help"

Exit status: 0 nobody declares or holds the port, 1 somebody does.
)";

const char kSocketsHelp[] = R"(Prints the runtime inventory: every local port of the kernel's socket tables
with the process that holds it, one line per port, protocol, pid and program,
ports ascending. Only processes whose descriptors this user may read are seen.
STATE is the socket state; UNCONN is a UDP socket without a peer.

Options:
  --listening   only listening TCP sockets and unconnected UDP sockets
  --json        print {"sockets": [{"port", "protocol", "pid", "state",
                "state_name", "program", "conflict"}, ...]} in the library's
                order ("program" is null when it could not be read)
)";

const char kFreeHelp[] = R"(Suggests ports that no service of the catalogue declares, no system setting
reserves, no port-forwarding rule names and no process uses, free for both tcp
and udp unless --proto names one. Without --count it prints the first five
free ports at or above the --near port, one a line; with --count N the first
run of N consecutive free ports. When too few are left above, the search goes
on below. Every answer passes "kova-svc check" with all sources.

Options:
  --near PORT       where to start looking (default 1024)
  --count N         a run of N consecutive ports
  --proto tcp|udp   free for this protocol only
  --json            print {"near": N, "protocol": "tcp,udp", "count": N or
                    null, "ports": [N, ...], "in_use_checked": bool}
                    ("in_use_checked" is false when the socket tables could
                    not be read, as on an offline image)

Exit status 3 when no such ports are left.
)";

const char kValidateHelp[] = R"(Reads a .sc file as the library does, without installing it, and reports every
problem: sections that the reader rejects and why (section names, missing
"title", "desc" or "dst.ports", port lists that do not parse), warnings (texts
that the library cuts, backwards ranges, a "dst.ports" without a protocol,
which the install-time check does not compare, a name already used by another
service) and the ports of each section that collide with the installed
catalogue or with reserved ports (the section's own name is skipped, as on
install). One line per finding: FILE: [SECTION] error|warning|collision: TEXT

Options:
  --json   print {"file", "accepted": bool, "version": N or null,
           "support_key", "sections": [{"name", "accepted": bool,
           "dst": PORTS or null, "src": PORTS or null}, ...],
           "problems": [{"section": NAME or null, "severity": "error"|
           "warning", "message"}, ...], "collisions": [{"section", "first",
           "last", "services": [NAME, ...]}, ...]}; PORTS as in
           "kova-svc list --help"

Exit status: 0 no problem, 1 errors or collisions, 3 the file cannot be read.
)";

const char kInstallHelp[] = R"(Installs a .sc file into the package (default) or the system services.d
directory, replacing a file of the same name. The library first checks the
file's ports against the installed services, reserved ports and ports in use;
a collision does not stop the install, but it is reported, with exit status 1.

Options:
  --system, --package   the directory (default: --package)
  --as NAME             install under this file name (default: FILE's own)
  --json                print {"path": installed path, "source": FILE,
                        "conflict": bool, "colliding": [{"first", "last"}]}
)";

const char kUpdateHelp[] = R"(Replaces the installed file NAME by FILE and sends "port_config/update" with
the old and the new content, so that the firewall and port forwarding follow.
Collisions are reported as by install, with exit status 1.

Options:
  --system, --package   the directory (default: --package)
  --json                print {"path", "source", "conflict", "colliding"} as
                        install does
)";

const char kRemoveHelp[] = R"(Removes the installed file NAME and sends "port_config/remove", so that the
firewall and port forwarding drop its ports.

Options:
  --system, --package   the directory (default: --package)
  --json                print {"path": the removed file}
)";

const char kRemoveSectionHelp[] = R"(Removes the service section SECTION from the installed file FILE, deleting the
file when no service section is left, and drops the service's record from the
firewall rules, under a backup that is put back if a step fails; then reloads
the firewall.

Options:
  --system, --package   the directory (default: --package)
  --files-only          only edit the file: no firewall record, no reload
  --no-reload           do not reload the firewall afterwards
  --json                print {"path", "section", "found": bool,
                        "file_removed": bool}
)";

const char kSetPortsHelp[] = R"(Replaces the destination ports (with --src the source ports) of the section
SECTION of the installed file FILE, after a conflict check that skips the
section itself, then reloads the firewall. The ports are written in the order
given, as "PORTS/PROTO" (without /PROTO: tcp and udp).

Options:
  --src                 set "src.ports" instead of "dst.ports"
  --sources LIST        what to check against, as for check (default:
                        services,reserved,in-use; the catalogue is always
                        compared); forward also updates the router's port
                        forwarding
  --no-reload           do not reload the firewall afterwards
  --system, --package   the directory (default: --package)
  --json                print {"path", "section", "key", "value",
                        "conflict": bool, "colliding": [{"first", "last"}]}

Exit status 1 when the ports collide; nothing is written then.
)";

}  // namespace

const std::vector<Command> &commands() {
    static const std::vector<Command> table = {
        {"list", "list [--names]", "the firewall service catalogue", kListHelp, {{"--names", false}}, 0, 0, run_list},
        {"show", "show NAME", "one service in full", kShowHelp, {}, 1, 1, run_show},
        {"check",
         "check PORTS[/PROTO] [--skip NAME,...] [--sources LIST]",
         "the service-wide conflict check",
         kCheckHelp,
         {{"--skip", true}, {"--sources", true}},
         1,
         1,
         run_check},
        {"who", "who PORT[/PROTO]", "services and processes on a port", kWhoHelp, {}, 1, 1, run_who},
        {"sockets",
         "sockets [--listening]",
         "the ports in use and their processes",
         kSocketsHelp,
         {{"--listening", false}},
         0,
         0,
         run_sockets},
        {"free",
         "free [--near PORT] [--count N] [--proto tcp|udp]",
         "suggest free ports",
         kFreeHelp,
         {{"--near", true}, {"--count", true}, {"--proto", true}},
         0,
         0,
         run_free},
        {"validate", "validate FILE", "check a .sc file without installing it", kValidateHelp, {}, 1, 1, run_validate},
        {"install", "install FILE [--system|--package] [--as NAME]", "install a .sc file", kInstallHelp,
         with_location({{"--as", true}}), 1, 1, run_install},
        {"update", "update NAME FILE [--system|--package]", "replace an installed .sc file", kUpdateHelp,
         with_location({}), 2, 2, run_update},
        {"remove", "remove NAME [--system|--package]", "remove an installed .sc file", kRemoveHelp, with_location({}),
         1, 1, run_remove},
        {"remove-section", "remove-section FILE SECTION [--system|--package] [--files-only] [--no-reload]",
         "remove one service section", kRemoveSectionHelp,
         with_location({{"--files-only", false}, {"--no-reload", false}}), 2, 2, run_remove_section},
        {"set-ports", "set-ports FILE SECTION PORTS[/PROTO] [--src] [--sources LIST] [--no-reload]",
         "replace a section's port list", kSetPortsHelp,
         with_location({{"--src", false}, {"--sources", true}, {"--no-reload", false}}), 3, 3, run_set_ports},
    };
    return table;
}

const Command *find_command(const std::string &name) {
    for (const auto &c : commands())
        if (name == c.name) return &c;
    return nullptr;
}

std::string tool_help() {
    std::string text =
        "Usage: kova-svc [--root DIR] COMMAND [ARGUMENTS] [--json]\n"
        "\n"
        "The catalogue of network services and ports of the appliance: list, check\n"
        "and change the .sc service files.\n"
        "\n"
        "Commands:\n";
    for (const auto &c : commands()) {
        std::string name = c.name;
        text += "  " + name + std::string(name.size() < 16 ? 16 - name.size() : 1, ' ') + c.summary + "\n";
    }
    text +=
        "\n"
        "Options for every command:\n"
        "  --root DIR   work on the system tree under DIR (an offline image or a copy)\n"
        "  --json       print one JSON document (fields: kova-svc COMMAND --help)\n"
        "  --help, -h   describe the tool or the command\n"
        "  --version    print the version\n"
        "\n"
        "Exit status: 0 success and no conflict, 1 conflict found, 2 usage error,\n"
        "3 operation failed. Errors go to standard error, one line each.\n"
        "\n"
        "\"kova-svc help COMMAND\" or \"kova-svc COMMAND --help\" describes a command.\n";
    return text;
}

std::string command_help(const Command &command) {
    const std::string lead = "Usage: kova-svc ";
    std::string text;
    for (const auto &line : wrap(std::string(command.usage) + " [--json] [--root DIR]", 80 - lead.size(), false))
        text += (text.empty() ? lead : std::string(lead.size(), ' ')) + line + "\n";
    return text + "\n" + command.help;
}

}  // namespace kovasvc
