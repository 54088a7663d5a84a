// kova-svc: the command-line front end of libkovaserviceconf for administrators and package
// scripts.
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "commands.h"
#include "json.h"
#include "session.h"
#include "status.h"

#ifndef KOVA_SVC_VERSION
#define KOVA_SVC_VERSION "unknown"
#endif

namespace kovasvc {
namespace {

const std::vector<OptionSpec> kCommonOptions = {{"--root", true},       {"--json", false}, {"--verbose", false},
                                                {"--no-header", false}, {"--help", false}, {"-h", false}};

bool is_global_flag(const std::string &w) {
    return w == "--json" || w == "--verbose" || w == "--no-header";
}

// Points the library at the tree under --root: it reads KOVA_ROOT at its first call.
void apply_root(const Args &args) {
    Session &s = session();
    s.json = args.json();
    s.verbose = args.has("--verbose");
    s.no_header = args.has("--no-header");
    auto root = args.value("--root");
    if (!root) {
        const char *env = secure_getenv("KOVA_ROOT");
        char resolved[PATH_MAX];
        if (env != nullptr && *env != '\0' && ::realpath(env, resolved) != nullptr) s.root = resolved;
        if (s.root == "/") s.root.clear();
        return;
    }
    struct stat st;
    if (root->empty() || ::stat(root->c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw UsageError("--root: '" + *root + "' is not a directory");
    char resolved[PATH_MAX];
    if (::realpath(root->c_str(), resolved) == nullptr) throw UsageError("--root: cannot resolve '" + *root + "'");
    ::setenv("KOVA_ROOT", resolved, 1);
    s.root = std::string(resolved) == "/" ? "" : resolved;
}

bool asks_for_help(const std::vector<std::string> &words) {
    for (const auto &w : words) {
        if (w == "--") return false;
        if (w == "--help" || w == "-h") return true;
    }
    return false;
}

int run(const std::vector<std::string> &words, std::string &context) {
    std::vector<std::string> globals;
    size_t i = 0;
    for (; i < words.size() && words[i].size() > 1 && words[i][0] == '-'; ++i) {
        const std::string &w = words[i];
        if (w == "--help" || w == "-h") {
            std::cout << tool_help();
            return kExitOk;
        }
        if (w == "--version" || w == "-V") {
            std::cout << "kova-svc " KOVA_SVC_VERSION "\n";
            return kExitOk;
        }
        if (w == "--root") {
            if (i + 1 >= words.size()) throw UsageError("option '--root' needs a value");
            globals.push_back(w);
            globals.push_back(words[++i]);
        } else if (w.rfind("--root=", 0) == 0 || is_global_flag(w)) {
            globals.push_back(w);
        } else {
            throw UsageError("unknown option '" + w + "'");
        }
    }
    if (i >= words.size()) throw UsageError("no command given");

    std::string name = words[i++];
    if (name == "help") {
        if (i >= words.size()) {
            std::cout << tool_help();
            return kExitOk;
        }
        name = words[i];
        const Command *c = find_command(name);
        if (c == nullptr) throw UsageError("unknown command '" + name + "'");
        std::cout << command_help(*c);
        return kExitOk;
    }
    const Command *command = find_command(name);
    if (command == nullptr) throw UsageError("unknown command '" + name + "'");
    context = name;

    std::vector<std::string> rest = globals;
    rest.insert(rest.end(), words.begin() + static_cast<long>(i), words.end());
    if (asks_for_help(rest)) {
        std::cout << command_help(*command);
        return kExitOk;
    }
    std::vector<OptionSpec> options = command->options;
    options.insert(options.end(), kCommonOptions.begin(), kCommonOptions.end());
    Args args = Args::parse(rest, options);
    size_t n = args.operands().size();
    if (n < command->min_operands || n > command->max_operands)
        throw UsageError(std::string("expected ") + command->usage);
    apply_root(args);
    return command->run(args);
}

}  // namespace
}  // namespace kovasvc

namespace {

bool wants_json(const std::vector<std::string> &words) {
    for (const auto &w : words) {
        if (w == "--") return false;
        if (w == "--json") return true;
    }
    return false;
}

void print_error_json(const std::string &message, const kovasvc::Failure *f, int status) {
    using namespace kovasvc;
    std::cout.clear();
    Json json(std::cout);
    json.begin_object().key("error").begin_object();
    json.key("message").string(message);
    json.key("status").number(status);
    json.key("file");
    if (f != nullptr && !f->file.empty())
        json.string(f->file);
    else
        json.null();
    json.key("hint");
    if (f != nullptr && !f->hint.empty())
        json.string(f->hint);
    else
        json.null();
    json.key("code");
    if (f != nullptr && f->code != 0)
        json.string(code_text(f->code));
    else
        json.null();
    json.key("location");
    if (f != nullptr && !f->location.empty() && session().verbose)
        json.string(f->location);
    else
        json.null();
    json.end_object();
    warnings_json(json);
    json.end_object().finish();
    std::cout.flush();
}

}  // namespace

int main(int argc, char **argv) {
    using namespace kovasvc;
    std::vector<std::string> words(argv + 1, argv + argc);
    bool json = wants_json(words);
    capture_library_log();
    std::string context;
    auto prefix = [&] { return "kova-svc: " + (context.empty() ? std::string() : context + ": "); };
    int status = kExitFailed;
    try {
        status = run(words, context);
        if (!std::cout.flush()) throw Failure("cannot write the output");
    } catch (const UsageError &e) {
        std::string hint = context.empty() ? "kova-svc --help" : "kova-svc " + context + " --help";
        std::cerr << prefix() << e.what() << " (see '" << hint << "')\n";
        if (json) print_error_json(e.what(), nullptr, kExitUsage);
        status = kExitUsage;
    } catch (const Failure &e) {
        std::string text = e.what();
        if (session().verbose && e.code != 0)
            text += " [" + code_text(e.code) + (e.location.empty() ? "" : " at " + e.location) + "]";
        if (!e.hint.empty()) text += "; " + e.hint;
        std::cerr << prefix() << text << '\n';
        if (json) print_error_json(e.what(), &e, e.status);
        status = e.status;
    } catch (const std::bad_alloc &) {
        std::cerr << prefix() << "out of memory\n";
        if (json) print_error_json("out of memory", nullptr, kExitFailed);
        status = kExitFailed;
    } catch (const std::exception &e) {
        std::cerr << prefix() << e.what() << '\n';
        if (json) print_error_json(e.what(), nullptr, kExitFailed);
        status = kExitFailed;
    }
    take_library_log();  // hands the remaining lines on to the user's log file
    return status;
}
