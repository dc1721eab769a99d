// The command line as rows. Some options only one system has: options_posix.cpp and
// options_windows.cpp bring theirs.
#pragma once

#include <span>
#include <string>

#include "apps/zemhost/options.h"

struct Option {
    const char* name;
    const char* value;  // what --help calls the value; null: a switch
    const char* meaning;
    // Takes the value; returns a sentence when it is wrong.
    std::string (*set)(HostOptions& options, const std::string& value);
    const char* shortName = nullptr;
};

// What most rows do: keep the value, or set a member to what the switch means.
template <auto member>
std::string Keep(HostOptions& options, const std::string& value) {
    options.*member = value;
    return {};
}
template <auto member, auto meaning>
std::string Set(HostOptions& options, const std::string&) {
    options.*member = meaning;
    return {};
}

// The rows that come before those of every system.
std::span<const Option> SystemOptions();

// What --help says of this system.
struct SystemHelp {
    const char* whatItDoes;
    const char* whereSettingsAre;
};
extern const SystemHelp kSystemHelp;
