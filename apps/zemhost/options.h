// The command line of zemhost. Main thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What the system's service control is asked for, where there is one.
enum class ServiceAction { kNone, kInstall, kRemove, kRun };

struct HostOptions {
    bool help = false;
    bool version = false;
    bool settings = false;
    ServiceAction serviceAction = ServiceAction::kNone;
    std::string registry;
    std::string log;
    std::string user;
    std::optional<std::string> volume;
    std::optional<std::string> listen;
    std::optional<uint16_t> port;
};

// Reads the arguments (without the program's name), as --name VALUE or --name=VALUE. Returns a
// sentence that says what is wrong, or nothing.
std::string ParseOptions(const std::vector<std::string>& arguments, HostOptions& options);

// The text of --help.
std::string HelpText();
