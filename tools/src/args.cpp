#include "args.h"

#include <cerrno>
#include <cstdlib>

#include "status.h"

namespace kovasvc {

Args Args::parse(const std::vector<std::string> &words, const std::vector<OptionSpec> &options) {
    Args args;
    bool options_done = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &w = words[i];
        if (options_done || w.size() < 2 || w[0] != '-') {
            args.operands_.push_back(w);
            continue;
        }
        if (w == "--") {
            options_done = true;
            continue;
        }
        std::string name = w, value;
        bool inline_value = false;
        if (size_t eq = w.find('='); eq != std::string::npos && w.rfind("--", 0) == 0) {
            name = w.substr(0, eq);
            value = w.substr(eq + 1);
            inline_value = true;
        }
        const OptionSpec *spec = nullptr;
        for (const auto &o : options)
            if (o.name == name) spec = &o;
        if (spec == nullptr) throw UsageError("unknown option '" + name + "'");
        if (spec->takes_value) {
            if (!inline_value) {
                if (i + 1 >= words.size()) throw UsageError("option '" + name + "' needs a value");
                value = words[++i];
            }
            args.values_[name] = value;
        } else if (inline_value) {
            throw UsageError("option '" + name + "' takes no value");
        }
        args.flags_.insert(name);
    }
    return args;
}

std::optional<std::string> Args::value(std::string_view option) const {
    auto it = values_.find(std::string(option));
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

unsigned long parse_number(const std::string &text, unsigned long min, unsigned long max, const std::string &what) {
    bool digits = !text.empty() && text.size() <= 10;
    for (char c : text) digits = digits && c >= '0' && c <= '9';
    unsigned long v = digits ? std::strtoul(text.c_str(), nullptr, 10) : 0;
    if (!digits || v < min || v > max)
        throw UsageError(what + " must be a number from " + std::to_string(min) + " to " + std::to_string(max) +
                         ", not '" + text + "'");
    return v;
}

std::vector<std::string> split_list(const std::string &text) {
    std::vector<std::string> items;
    std::string cur;
    for (char c : text) {
        if (c == ',' || c == ' ' || c == '\t') {
            if (!cur.empty()) items.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) items.push_back(cur);
    return items;
}

}  // namespace kovasvc
