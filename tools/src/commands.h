// The commands of kova-svc.
#pragma once

#include <string>
#include <vector>

#include "args.h"

namespace kovasvc {

struct Command {
    const char *name;
    const char *usage;                // the synopsis after "kova-svc "
    const char *summary;              // one line for the command list
    const char *help;                 // the rest of "kova-svc NAME --help"
    std::vector<OptionSpec> options;  // besides --root, --json and --help
    size_t min_operands;
    size_t max_operands;
    int (*run)(const Args &args);
};

// All commands, in the order of the manual page.
const std::vector<Command> &commands();
const Command *find_command(const std::string &name);

// The tool's own help text.
std::string tool_help();
std::string command_help(const Command &command);

int run_list(const Args &args);
int run_show(const Args &args);
int run_check(const Args &args);
int run_who(const Args &args);
int run_sockets(const Args &args);
int run_free(const Args &args);
int run_validate(const Args &args);
int run_audit(const Args &args);
int run_install(const Args &args);
int run_update(const Args &args);
int run_remove(const Args &args);
int run_remove_section(const Args &args);
int run_set_ports(const Args &args);

// The location chosen by --system / --package (package by default); UsageError for both.
unsigned int location_option(const Args &args);

// The check flags named by --sources ("forward,services,reserved,in-use"); `fallback` when the
// option is absent. UsageError for an unknown name.
int sources_option(const Args &args, int fallback);
// The names of the sources set in `flags`, in the order of the check.
std::vector<std::string> source_names(int flags);

// The path of an installed file, as the library forms it.
std::string installed_path(const std::string &name, unsigned int location);

// A file name inside a services.d directory: not empty, no "/", at most 255 bytes.
std::string base_name_operand(const std::string &text, const std::string &what);

}  // namespace kovasvc
