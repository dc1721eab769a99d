// Settings, looked at before and after the start.
#include "apps/zemhost/checks.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>

#include "apps/zemhost/hostsystem.h"
#include "apps/zemhost/widetext.h"
#include "platform/platform.h"

namespace {

// In characters. Of a file that GET and DELETE reach: the volume root, a separator, the URL's path.
constexpr size_t kLongestPath = 259;
constexpr size_t kShortestName = 9;  // of a file, with the separator: that of /media/x
constexpr size_t kUsualName = 100;   // what a root should leave

std::filesystem::path PathOf(const std::string& utf8) {
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

std::string Hex(int32_t number) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%08x", static_cast<unsigned>(number));
    return text.data();
}

// The first characters of either export format, whatever the encoding: 16-bit text loses its zero
// bytes here.
bool HasExportTitle(std::istream& file) {
    std::array<char, 128> start{};
    file.read(start.data(), start.size());
    std::string title;
    for (const char c : start)
        if (c > 0) title += c;
    return title.starts_with("Windows Registry Editor Version 5.00") ||
           title.starts_with("REGEDIT4");
}

}  // namespace

std::string CheckRegistryFile(const std::string& path, bool mustExist) {
    std::error_code error;
    const std::string named = "the registry file '" + path + "' ";
    const std::filesystem::file_status status = std::filesystem::status(PathOf(path), error);
    if (status.type() == std::filesystem::file_type::not_found)
        return mustExist ? named + "does not exist; give one that does with --registry FILE" : "";
    if (!error && status.type() != std::filesystem::file_type::regular)
        return named + "is not a file; give a file with --registry FILE";
    std::ifstream file(PathOf(path), std::ios::binary);
    if (error || !file)
        return named + "cannot be read; change its rights or give another with --registry FILE";
    if (!HasExportTitle(file)) {
        return named +
               "is not a registry export; its first line must be: Windows Registry Editor Version "
               "5.00";
    }
    return {};
}

std::string CheckLogFormat(const HostSettings& settings) {
    if (settings.logFormat == "text" || settings.logFormat == "json") return {};
    return "the registry value LogFormat is '" + settings.logFormat + "'; give it text or json";
}

// --port takes ports only: what is none stands in the registry.
std::string CheckPort(const HostSettings& settings) {
    if (settings.port != 0 && settings.port <= 65535) return {};
    return "the registry value HttpPort is " + std::to_string(settings.port) +
           "; give it a number from 1 to 65535";
}

std::string CheckAddresses(const HostSettings& settings) {
    const std::string where = settings.addressesSource == SettingSource::kRegistry
                                  ? "the registry value ListenOnlyList: "
                                  : "";
    std::set<std::string> seen;
    for (const std::string& address : settings.addresses) {
        const AddressKind kind = KindOfAddress(address);
        if (kind == AddressKind::kNone) {
            return where + "'" + address +
                   "' is not an IP address; give one, such as 127.0.0.1, with " +
                   kSettingAdvice.listen;
        }
        if (kind == AddressKind::kUnfit) {
            return where + address +
                   " is a multicast, broadcast, link-local or IPv4-mapped address, on which no "
                   "server can listen here; give another with " +
                   kSettingAdvice.listen;
        }
        if (!seen.insert(address).second) {
            return where + "the address " + address + " is given twice; give each once with " +
                   kSettingAdvice.listen;
        }
    }
    return {};
}

std::string CheckVolume(const HostSettings& settings) {
    if (settings.volume.empty()) {
        return std::string("no volume root is set; give the directory that holds the media with ") +
               kSettingAdvice.volume;
    }
    std::error_code error;
    const std::string named = "the volume root '" + settings.volume + "' ";
    const size_t length = WidenText(settings.volume).size();
    if (length + kShortestName > kLongestPath) {
        return named + "has " + std::to_string(length) +
               " characters, and with the name of a file there may be " +
               std::to_string(kLongestPath) + "; give a shorter one with " + kSettingAdvice.volume;
    }
    const std::string advice = std::string(" or give another with ") + kSettingAdvice.volume;
    const std::filesystem::file_status status =
        std::filesystem::status(PathOf(settings.volume), error);
    if (status.type() == std::filesystem::file_type::not_found)
        return named + "does not exist; create it" + advice;
    if (error)
        return named + "cannot be reached (" + error.message() + "); change its rights" + advice;
    if (status.type() != std::filesystem::file_type::directory)
        return named + "is not a directory; give one with " + kSettingAdvice.volume;
    const std::filesystem::directory_iterator list(PathOf(settings.volume), error);
    if (error)
        return named + "cannot be listed (" + error.message() + "); change its rights" + advice;
    return {};
}

std::string WarnOfVolume(const HostSettings& settings) {
    const std::string named = "the volume root '" + settings.volume + "' ";
    if (!CanWriteTo(settings.volume)) {
        return named +
               "cannot be written to by this user: clients can only read; change its rights or "
               "give another with " +
               kSettingAdvice.volume;
    }
    const size_t length = WidenText(settings.volume).size();
    if (length + kUsualName <= kLongestPath) return {};
    return named +
           "is so long that GET and DELETE reach no file whose name, with /media/ or /zem/, has "
           "more than " +
           std::to_string(kLongestPath - length - 1) + " characters; a shorter one is given with " +
           kSettingAdvice.volume;
}

std::string ExplainStartFailure(const HostSettings& settings, int32_t hr) {
    std::vector<std::string> addresses = settings.addresses;
    if (addresses.empty()) addresses = {"0.0.0.0"};
    const std::string port = "port " + std::to_string(settings.port);
    for (const std::string& address : addresses) {
        const std::string place = port + " of " + (address == "0.0.0.0" ? "this machine" : address);
        switch (TryListening(address, static_cast<uint16_t>(settings.port))) {
            case ListenTrial::kTaken:
                return place +
                       " is taken by another program; stop that, or give another port with " +
                       kSettingAdvice.port;
            case ListenTrial::kForbidden:
                return place + " may not be opened by this user; " + kSettingAdvice.permission;
            case ListenTrial::kNoSuchAddress:
                return address + " is not an address of this machine; give one that is with " +
                       kSettingAdvice.listen;
            case ListenTrial::kWorks:
                break;
        }
    }
    if (addresses.size() > 1 && hr == HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION)) {
        return "one of the addresses is part of another, and " + port +
               " cannot be opened on both; give one of them with " + kSettingAdvice.listen;
    }
    return "the server could not be started (" + Hex(hr) + "); the error log says why";
}
