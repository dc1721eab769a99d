// optiontable.h: the command line as rows. Some options only one system has: options_posix.cpp and
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
};

// The rows that come before those of every system.
std::span<const Option> SystemOptions();

// What --help says of this system.
struct SystemHelp {
    const char* whatItDoes;
    const char* whereSettingsAre;
};
extern const SystemHelp kSystemHelp;
