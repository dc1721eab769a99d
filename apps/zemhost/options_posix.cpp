// The options that lay settings over the registry file, where the registry is the platform layer's
// own.
#include <charconv>
#include <cstdlib>

#include "apps/zemhost/checks.h"
#include "apps/zemhost/optiontable.h"
#include "apps/zemhost/registryplaces.h"
#include "apps/zemhost/settings.h"
#include "apps/zemhost/widetext.h"

namespace {

std::string SetPort(HostOptions& options, const std::string& value) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), port);
    if (error != std::errc() || end != value.data() + value.size() || port == 0)
        return "'" + value + "' is not a port; give a number from 1 to 65535 with --port";
    options.port = port;
    return {};
}

// An empty text would end the list where the server reads it, and no address at all means every
// one.
std::string SetListen(HostOptions& options, const std::string& value) {
    if (("," + value + ",").find(",,") != std::string::npos) {
        return "'" + value +
               "' has an empty address; give one, or several with commas between them, with "
               "--listen";
    }
    options.listen = value;
    return {};
}

constexpr Option kOptions[] = {
    {"--registry", "FILE", "settings, in the registry editor's export format",
     Keep<&HostOptions::registry>},
    {"--listen", "ADDRESS", "IP address to listen on, or several with commas between them",
     SetListen},
    {"--port", "N", "TCP port", SetPort},
    {"--volume", "DIR", "directory that holds the media", Keep<&HostOptions::volume>},
    {"--user", "NAME", "user to become once the port is open; only for root",
     Keep<&HostOptions::user>},
};

void Override(const RegistryPlace& place, DWORD type, const void* data, size_t bytes) {
    const WString key = WString(TEXT("HKEY_LOCAL_MACHINE\\")) + place.key;
    OverrideRegistryValue(key.c_str(), place.value, type, data, static_cast<DWORD>(bytes));
}

}  // namespace

std::span<const Option> SystemOptions() {
    return kOptions;
}

const SystemHelp kSystemHelp = {
    "Makes the media of a volume reachable over HTTP, until SIGINT, SIGTERM or SIGHUP; a second\n"
    "signal ends it at once. SIGUSR1 opens the log file again.\n",
    "An option overrides the registry file. Without --registry the file is the one that the\n"
    "environment variable ZEM_REGISTRY names, else /etc/zemhttpd/zemhttpd.reg. Without any\n"
    "setting the port is 80 on every address.\n"};

const SettingAdvice kSettingAdvice = {
    "--port N", "--listen ADDRESS", "--volume DIR",
    "give a port above 1023 with --port N, or run zemhost as root with --user NAME"};

std::string CheckRegistry(const HostOptions& options) {
    char path[4096];
    RegistryFileInUse(path, sizeof path);
    const char* const environment = std::getenv("ZEM_REGISTRY");
    const bool named =
        !options.registry.empty() || (environment != nullptr && *environment != '\0');
    std::string problem = CheckRegistryFile(path, named);
    // Nobody knows what they were to set, and without it the server could be open to everybody.
    if (problem.empty() && SkippedRegistryLines() != 0) {
        problem = std::string("the registry file '") + path +
                  "' has lines that are not understood, named above; mend them, or put a ; before "
                  "each";
    }
    return problem;
}

void ApplyOptions(const HostOptions& options) {
    SetRegistryFile(options.registry.c_str());
    if (options.port) {
        const DWORD port = *options.port;
        Override(kPortPlace, REG_DWORD, &port, sizeof port);
    }
    if (options.volume) {
        const WString volume = WidenText(*options.volume);
        Override(kVolumePlace, REG_SZ, volume.c_str(), (volume.size() + 1) * sizeof(WCHAR));
    }
    if (options.listen) {
        // A list of texts, each with its NUL, and one NUL more.
        WString list = WidenText(*options.listen);
        for (WCHAR& unit : list)
            if (unit == u',') unit = 0;
        list.append(2, 0);
        Override(kListenPlace, REG_MULTI_SZ, list.data(), list.size() * sizeof(WCHAR));
    }
}
