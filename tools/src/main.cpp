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
#include "status.h"

#ifndef KOVA_SVC_VERSION
#define KOVA_SVC_VERSION "unknown"
#endif

namespace kovasvc {
namespace {

const std::vector<OptionSpec> kCommonOptions = {{"--root", true}, {"--json", false}, {"--help", false}, {"-h", false}};

// Points the library at the tree under --root: it reads KOVA_ROOT at its first call.
void apply_root(const Args &args) {
    auto root = args.value("--root");
    if (!root) return;
    struct stat st;
    if (root->empty() || ::stat(root->c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw UsageError("--root: '" + *root + "' is not a directory");
    char resolved[PATH_MAX];
    if (::realpath(root->c_str(), resolved) == nullptr) throw UsageError("--root: cannot resolve '" + *root + "'");
    ::setenv("KOVA_ROOT", resolved, 1);
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
        if (w == "--version") {
            std::cout << "kova-svc " KOVA_SVC_VERSION "\n";
            return kExitOk;
        }
        if (w == "--root") {
            if (i + 1 >= words.size()) throw UsageError("option '--root' needs a value");
            globals.push_back(w);
            globals.push_back(words[++i]);
        } else if (w.rfind("--root=", 0) == 0 || w == "--json") {
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

int main(int argc, char **argv) {
    using namespace kovasvc;
    std::vector<std::string> words(argv + 1, argv + argc);
    std::string context;
    auto prefix = [&] { return "kova-svc: " + (context.empty() ? std::string() : context + ": "); };
    try {
        int status = run(words, context);
        if (!std::cout.flush()) throw Failure("cannot write the output");
        return status;
    } catch (const UsageError &e) {
        std::string hint = context.empty() ? "kova-svc --help" : "kova-svc " + context + " --help";
        std::cerr << prefix() << e.what() << " (see '" << hint << "')\n";
        return kExitUsage;
    } catch (const Failure &e) {
        std::cerr << prefix() << e.what() << '\n';
        return kExitFailed;
    } catch (const std::bad_alloc &) {
        std::cerr << prefix() << "out of memory\n";
        return kExitFailed;
    } catch (const std::exception &e) {
        std::cerr << prefix() << e.what() << '\n';
        return kExitFailed;
    }
}
