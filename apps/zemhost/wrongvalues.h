// Values of the registry that nobody reads: of another type than they are read as, or under a name
// that nobody asks for. The server takes them as ones that are not there, without a word. Main
// thread only.
#pragma once

#include <string>
#include <vector>

#include "apps/zemhost/registryplaces.h"

struct WrongValue {
    std::string sentence;  // that says how its line must be
    bool decides;          // RegistryPlace::decides
};

// After ApplyOptions: what an option is laid over is not looked at.
std::vector<WrongValue> FindWrongValues();

// A line of the settings file: "HttpPort"=dword:00001f90 for the text 8080. A text that is no
// number where one is read gives the example's line.
std::string RegistryLine(const RegistryPlace& place, const std::string& text);

// A remark for each value of the file that nobody asks for. None where the registry is the
// system's, which has others' values too.
std::vector<std::string> FindStrayValues();
