// The settings that zemhost itself looks at: it puts the command line over the registry, where the
// server reads them, and reads back what is in force. Main thread only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/zemhost/options.h"

enum class SettingSource { kDefault, kRegistry, kOption };

struct HostSettings {
    uint32_t port = 80;
    SettingSource portSource = SettingSource::kDefault;
    std::vector<std::string> addresses;  // empty: every address
    SettingSource addressesSource = SettingSource::kDefault;
    std::string volume;  // UTF-8; empty: none
    SettingSource volumeSource = SettingSource::kDefault;
    std::string logFormat = "text";  // or "json"
    SettingSource logFormatSource = SettingSource::kDefault;
};

// What the sentences about a wrong setting advise: "give another with ...".
struct SettingAdvice {
    const char* port;
    const char* listen;
    const char* volume;
    const char* permission;
};
extern const SettingAdvice kSettingAdvice;

// Names the registry file and lays the options over it, for this process.
void ApplyOptions(const HostOptions& options);

HostSettings ReadSettings(const HostOptions& options);

// "http://127.0.0.1:8080": how a client on this machine reaches the server.
std::string LocalUrl(const HostSettings& settings);

// Behind that URL: " on every address", or the other ones: " and http://[::1]:8080".
std::string Elsewhere(const HostSettings& settings);

// One line per setting: name, value, and default, registry or option.
std::string SettingsText(const HostSettings& settings);
