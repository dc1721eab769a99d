// The command line as a table: one row per option.
#include "apps/zemhost/options.h"

#include <algorithm>

#include "apps/zemhost/optiontable.h"

namespace {

constexpr Option kOptions[] = {
    {"--log", "FILE", "error log, instead of standard error; renamed to FILE.1 at 16 MiB",
     Keep<&HostOptions::log>},
    {"--settings", nullptr, "print address, port, volume, form of the log and where they come from",
     Set<&HostOptions::settings, true>},
    {"--version", nullptr, "print the version and end", Set<&HostOptions::version, true>},
    {"--help", nullptr, "print this text and end", Set<&HostOptions::help, true>, "-h"},
};

const Option* FindOption(const std::string& name) {
    for (const std::span<const Option> rows :
         {SystemOptions(), std::span<const Option>(kOptions)}) {
        for (const Option& row : rows)
            if (name == row.name || (row.shortName && name == row.shortName)) return &row;
    }
    return nullptr;
}

}  // namespace

std::string ParseOptions(const std::vector<std::string>& arguments, HostOptions& options) {
    for (size_t i = 0; i < arguments.size(); ++i) {
        const size_t equals = arguments[i].find('=');
        const std::string name = arguments[i].substr(0, equals);
        const Option* const option = FindOption(name);
        if (!option) return "there is no option '" + arguments[i] + "'; see zemhost --help";
        std::string value;
        if (!option->value) {
            if (equals != std::string::npos) return name + " takes no value; see zemhost --help";
        } else if (equals != std::string::npos) {
            value = arguments[i].substr(equals + 1);
        } else if (i + 1 < arguments.size()) {
            value = arguments[++i];
        }
        if (option->value && value.empty()) return name + " needs a value; see zemhost --help";
        std::string problem = option->set(options, value);
        if (!problem.empty()) return problem;
    }
    return {};
}

std::string HelpText() {
    std::string text = std::string("zemhost [OPTION...]\n") + kSystemHelp.whatItDoes + "\n";
    for (const std::span<const Option> rows :
         {SystemOptions(), std::span<const Option>(kOptions)}) {
        for (const Option& option : rows) {
            std::string left = "  ";
            if (option.shortName) left += std::string(option.shortName) + ", ";
            left += option.name;
            if (option.value) left += std::string(" ") + option.value;
            left.resize(std::max<size_t>(left.size() + 1, 22), ' ');
            text += left + option.meaning + "\n";
        }
    }
    return text + "\n" + kSystemHelp.whereSettingsAre +
           "\n"
           "Exit codes:\n"
           "  0  stopped as asked\n"
           "  2  wrong command line\n"
           "  3  a setting cannot be used (registry file, port, volume, user, log, address)\n"
           "  4  the server could not start, for example because the port is taken\n"
           "  5  it did not stop in order\n";
}
