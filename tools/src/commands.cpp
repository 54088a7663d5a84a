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
  --names   print only the service names, one a line
  --json    print {"services": [SERVICE, ...], "warnings": [...]} in the
            library's order (SERVICE: see JSON OUTPUT in kova-svc(1))
)";

const char kShowHelp[] = R"(Shows one service of the catalogue in full: where it comes from (the built-in
table or a .sc file), its support key, its flags, its title and description
with their string keys, and its ports. NAME is looked up as the library does:
a .sc service hides a built-in service of the same name. A name of a port that
the system reserves for itself (kova-webdav, kova-syslog, ...) is explained:
it is a reserved port, not a service.

Options:
  --json   print {"service": SERVICE or null, "reserved": [HOLDER, ...],
           "hidden": [{"origin", "file"}, ...], "warnings": [...]}

Exit status: 0 shown, 3 no service or reserved port has that name.
)";

const char kAuditHelp[] = R"(Joins what listens with what is declared. Undeclared listeners: listening TCP
and bound UDP sockets whose port no service, reserved port or port-forwarding
rule declares (ADDRESS "loopback" when bound to loopback only). Silent
declarations: supported services none of whose ports has a listener. Double
declarations: a port and protocol declared by two or more services. Shared
ports: a port declared by a service and held by a process. On an offline root
only the declared side is audited.

Options:
  --html FILE   also write the audit as one self-contained HTML page: the
                summary, a map of the port space 0-65535 and the tables
  --json   print {"summary": {"undeclared", "silent" (null offline), "double",
           "shared"}, "undeclared": [LISTENER, ...], "silent": [{"name",
           "dst": PORTS}], "double": [{"ports", "protocols", "services"}],
           "shared": [LISTENER with "service"], "in_use_known", "warnings"}
           LISTENER: {"port", "protocols", "pid": N or null, "program",
           "state", "visible": bool, "loopback_only": bool or null}

Exit status: 0 no undeclared listener and no double declaration, 1 otherwise,
3 the audit cannot run.
)";

const char kCheckHelp[] = R"(Runs the library's service-wide conflict check for a port list such as
"80,443,8000:8010/tcp" (ranges as 8000:8010 or 8000-8010; without /PROTO: tcp
and udp), prints the verdict and names every source of a collision: services
of the catalogue, reserved ports, port-forwarding rules and processes (a
socket whose owner this user may not inspect is shown as not visible).

Options:
  --skip NAME,...   services whose own ports do not count
  --sources LIST    what to compare with, any of: forward (port-forwarding
                    rules), services (the firewall catalogue), reserved (ports
                    reserved by system settings), in-use (ports in use);
                    default: all four
  --json            print {"ports": PORTS, "skip": [...], "sources": [...],
                    "conflict": bool, "colliding": [RANGE, ...],
                    "holders": [HOLDER, ...], "in_use_known": bool,
                    "warnings": [...]}

Exit status: 0 no conflict, 1 conflict.
)";

const char kWhoHelp[] = R"(Shows who declares or holds a port: services of the catalogue, reserved
ports, port-forwarding rules, and processes (pid, socket state, executable; a
socket whose owner this user may not inspect is shown as not visible to this
user). Without /PROTO both tcp and udp are looked at.

Options:
  --json   print {"port": N, "protocols": [...], "holders": [HOLDER, ...],
           "in_use_known": bool, "warnings": [...]}

Exit status: 0 somebody declares or holds the port, 1 nobody does.
)";

const char kSocketsHelp[] = R"(Prints the ports in use: every local port of the kernel's socket tables with
the process that holds it, ports ascending. A listening socket whose owner this
user may not inspect is shown with PID "-" as not visible to this user. STATE
is the socket state; UNCONN is a UDP socket without a peer.

Options:
  --listening   only listening TCP sockets and bound UDP sockets
  --json        print {"sockets": [{"port", "protocols", "pid", "program",
                "state", "visible"}, ...], "in_use_known": bool,
                "warnings": [...]}
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
  --json            print {"near": N, "protocols": [...], "count": N or null,
                    "ports": [RANGE, ...], "in_use_known": bool,
                    "warnings": [...]}

Exit status 3 when no such ports are left.
)";

const char kValidateHelp[] = R"(Reads a .sc file as the library does, without installing it, and reports every
problem: sections that the reader rejects and why, warnings (texts that the
library cuts, backwards ranges, a "dst.ports" without a protocol, a name
already used by another service) and the ports of each section that collide
with the installed catalogue or with reserved ports. One line per finding:
FILE:LINE: [SECTION] error|warning|collision: TEXT

Options:
  --json   print {"file", "accepted": bool, "version": N or null,
           "support_key": TEXT or null, "sections": [{"name", "line",
           "accepted", "dst": PORTS or null, "src": PORTS or null}, ...],
           "problems": [{"section", "line", "severity", "message"}, ...],
           "collisions": [{"section", "line", "ports": [RANGE, ...],
           "holders": [HOLDER, ...], "in_use_known"}, ...], "warnings": [...]}

Exit status: 0 no problem, 1 errors or collisions, 3 the file cannot be read.
)";

const char kInstallHelp[] = R"(Installs a .sc file into the package (default) or the system services.d
directory, replacing a file of the same name. The library checks the file's
ports against the installed services, reserved ports and ports in use; a
collision does not stop the install: it is named in a warning on standard
error, and the exit status is 0. With --strict a colliding file is refused
before anything is touched (exit status 1).

Options:
  --system, --package   the directory (default: --package)
  --as NAME             install under this file name (default: FILE's own)
  --strict              refuse a file whose ports collide
  --json                print {"path", "source", "conflict": bool,
                        "colliding": [RANGE, ...], "holders": [HOLDER, ...],
                        "in_use_known": bool, "warnings": [...]}
)";

const char kUpdateHelp[] = R"(Replaces the installed file NAME by FILE and sends "port_config/update" with
the old and the new content, so that the firewall and port forwarding follow.
Collisions are handled as by install (a warning, or with --strict a refusal
with exit status 1); a follow-up that fails is a warning.

Options:
  --system, --package   the directory (default: --package)
  --strict              refuse a file whose ports collide
  --json                print the object of install
)";

const char kRemoveHelp[] = R"(Removes the installed file NAME and sends "port_config/remove", so that the
firewall and port forwarding drop its ports. A file that is not installed is
not an error: nothing is removed, and the exit status is 0.

Options:
  --system, --package   the directory (default: --package)
  --json                print {"path", "removed": bool, "warnings": [...]}
)";

const char kRemoveSectionHelp[] = R"(Removes the service section SECTION from the installed file FILE, deleting the
file when no service section is left, and drops the service's record from the
firewall rules, under a backup that is put back if a step fails; then reloads
the firewall. A missing file or section is not an error: nothing is removed,
and the exit status is 0. When the firewall tool is missing the command refuses
and suggests --files-only; on an offline root it edits the file only.

Options:
  --system, --package   the directory (default: --package)
  --files-only          only edit the file: no firewall record, no reload
  --no-reload           do not reload the firewall afterwards
  --json                print {"path", "section", "removed": bool,
                        "file_removed": bool, "warnings": [...]}
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
  --json                print {"path", "section", "key", "value", "changed":
                        bool, "conflict": bool, "colliding": [RANGE, ...],
                        "warnings": [...]}

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
        {"audit",
         "audit [--html FILE]",
         "what listens against what is declared",
         kAuditHelp,
         {{"--html", true}},
         0,
         0,
         run_audit},
        {"validate", "validate FILE", "check a .sc file without installing it", kValidateHelp, {}, 1, 1, run_validate},
        {"install", "install FILE [--system|--package] [--as NAME] [--strict]", "install a .sc file", kInstallHelp,
         with_location({{"--as", true}, {"--strict", false}}), 1, 1, run_install},
        {"update", "update NAME FILE [--system|--package] [--strict]", "replace an installed .sc file", kUpdateHelp,
         with_location({{"--strict", false}}), 2, 2, run_update},
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
        "Usage: kova-svc [--root DIR] [--json] [--no-header] [--verbose] COMMAND [ARGUMENTS]\n"
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
        "  --root DIR      work on the system tree under DIR (an image or a copy; without\n"
        "                  proc/ under DIR, ports in use and follow-ups are skipped)\n"
        "  --json          print one JSON document, also for errors (see kova-svc(1))\n"
        "  --no-header     print tables without their header line\n"
        "  --verbose       add the library's error code and source location to errors\n"
        "  --help, -h      describe the tool or the command\n"
        "  --version, -V   print the version\n"
        "\n"
        "Ports: 80,443,8000:8010/tcp; a range is a:b or a-b; without /PROTO tcp and udp.\n"
        "\n"
        "Exit status: 0 success (who: the port is declared or held); 1 the answer is\n"
        "no (check: conflict; who: nobody; validate: problems; --strict or set-ports:\n"
        "refused for a collision); 2 usage error; 3 operation failed. Errors go to\n"
        "standard error, one line each (with --json also as {\"error\": ...} on\n"
        "standard output); warnings, such as a failed firewall reload after a change,\n"
        "go to standard error and into the JSON document's \"warnings\".\n"
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
