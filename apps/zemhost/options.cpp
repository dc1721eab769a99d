// options.cpp: the command line as a table: one row per option.
#include "apps/zemhost/options.h"

#include <algorithm>
#include <charconv>

namespace {

struct Option {
    const char* name;
    const char* value;  // what --help calls the value; null: a switch
    const char* meaning;
    // Takes the value; returns a sentence when it is wrong.
    std::string (*set)(HostOptions& options, const std::string& value);
};

std::string SetPort(HostOptions& options, const std::string& value) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), port);
    if (error != std::errc() || end != value.data() + value.size() || port == 0)
        return "'" + value + "' is not a port; give a number from 1 to 65535 with --port";
    options.port = port;
    return {};
}

constexpr Option kOptions[] = {
    {"--registry", "FILE", "settings, in the registry editor's export format",
     [](HostOptions& options, const std::string& value) {
         options.registry = value;
         return std::string();
     }},
    {"--listen", "ADDRESS", "IP address to listen on, or several with commas between them",
     [](HostOptions& options, const std::string& value) {
         options.listen = value;
         return std::string();
     }},
    {"--port", "N", "TCP port", SetPort},
    {"--volume", "DIR", "directory that holds the media",
     [](HostOptions& options, const std::string& value) {
         options.volume = value;
         return std::string();
     }},
    {"--log", "FILE", "error log, instead of standard error; renamed to FILE.1 at 16 MiB",
     [](HostOptions& options, const std::string& value) {
         options.log = value;
         return std::string();
     }},
    {"--settings", nullptr, "print the settings in force and where they come from, and end",
     [](HostOptions& options, const std::string&) {
         options.settings = true;
         return std::string();
     }},
    {"--version", nullptr, "print the version and end",
     [](HostOptions& options, const std::string&) {
         options.version = true;
         return std::string();
     }},
    {"--help", nullptr, "print this text and end",
     [](HostOptions& options, const std::string&) {
         options.help = true;
         return std::string();
     }},
};

}  // namespace

std::string ParseOptions(const std::vector<std::string>& arguments, HostOptions& options) {
    for (size_t i = 0; i < arguments.size(); ++i) {
        const size_t equals = arguments[i].find('=');
        const std::string name = arguments[i].substr(0, equals);
        const auto* const option =
            std::find_if(std::begin(kOptions), std::end(kOptions),
                         [&](const Option& row) { return name == row.name; });
        if (option == std::end(kOptions))
            return "there is no option '" + arguments[i] + "'; see zemhost --help";
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
    std::string text =
        "zemhost [OPTION...]\n"
        "Makes the media of a volume reachable over HTTP, until SIGINT or SIGTERM; a second signal "
        "ends it at once.\n\n";
    for (const Option& option : kOptions) {
        std::string left = std::string("  ") + option.name;
        if (option.value) left += std::string(" ") + option.value;
        left.resize(std::max<size_t>(left.size() + 1, 22), ' ');
        text += left + option.meaning + "\n";
    }
    return text +
           "\n"
           "Options come before the registry file. Without --registry the file is the one that the "
           "environment variable\n"
           "ZEM_REGISTRY names, else /etc/zemhttpd/zemhttpd.reg. Without any setting the port is "
           "80 on every address.\n\n"
           "Exit codes: 0 stopped as asked; 2 wrong command line; 3 a setting cannot be used "
           "(registry file, volume, log\n"
           "file, address); 4 the server could not start, for example because the port is taken; 5 "
           "it did not stop in\n"
           "order.\n";
}
