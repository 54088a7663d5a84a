// What one run of kova-svc shares between its parts: the global options, the root it works on,
// the warnings it collects for the output, and the library's log lines of this run.
#pragma once

#include <string>
#include <vector>

namespace kovasvc {

class Json;

struct Session {
    bool json = false;
    bool verbose = false;    // library codes and source locations in messages
    bool no_header = false;  // tables without their header line
    std::string root;        // the resolved --root or KOVA_ROOT; empty for the running system

    // Warnings of this run, in order; each is also printed on standard error at once.
    std::vector<std::string> warnings;

    // The path of a fixed system location (such as "/proc") under the root.
    std::string path(const std::string &system_path) const;

    // An offline root: a system tree without process and socket tables (no proc/), such as an
    // image or a plain copy. The in-use source and the follow-ups that need the running
    // system are left out there.
    bool offline() const;
    // Says once that the in-use source and the follow-ups are skipped on an offline root.
    void note_offline();
};

Session &session();

// One warning: on standard error now, and in the JSON document's "warnings".
void warn(const std::string &message);

// Writes the collected warnings as the "warnings" member of the current JSON object.
void warnings_json(Json &json);

// Points the library's log copy (KOVA_LOG_FILE) at a file of the tool's own, before the first
// library call, so that a command can see the lines of its own calls; every line still reaches
// the file the user named in KOVA_LOG_FILE.
void capture_library_log();
// The library's log lines written since the last call (copied on to the user's file).
std::vector<std::string> take_library_log();
// Turns the log lines of failed follow-ups (firewall reload, router tool, restart,
// notification) since the last take into warnings.
void warn_failed_follow_ups();

// Creates the root's tmp/ when a change needs it there (offline roots and copies lack one).
void ensure_temp_dir();

// Holds an exclusive lock for the rest of the run, so that kova-svc edits take turns: the
// library keeps its temporary copies under fixed names in tmp/.
void lock_for_change();

}  // namespace kovasvc
