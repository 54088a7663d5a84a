// Command-line words of one command: its options and its operands.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kovasvc {

struct OptionSpec {
    std::string name;  // "--skip"
    bool takes_value = false;
};

class Args {
public:
    // Parses `words` against `options`; "--name value", "--name=value" and "--" (end of
    // options) are understood. Throws UsageError for an unknown option or a missing value.
    static Args parse(const std::vector<std::string> &words, const std::vector<OptionSpec> &options);

    bool has(std::string_view option) const { return flags_.count(std::string(option)) != 0; }
    std::optional<std::string> value(std::string_view option) const;
    const std::vector<std::string> &operands() const { return operands_; }

    bool json() const { return has("--json"); }

private:
    std::set<std::string> flags_;  // options given, with or without a value
    std::map<std::string, std::string> values_;
    std::vector<std::string> operands_;
};

// A decimal number from `min` to `max`; throws UsageError naming `what` otherwise.
unsigned long parse_number(const std::string &text, unsigned long min, unsigned long max, const std::string &what);

// "a,b c" -> {"a", "b", "c"}: items separated by commas or spaces, empty items dropped.
std::vector<std::string> split_list(const std::string &text);

}  // namespace kovasvc
