// Where each setting stands in the registry.
#include "apps/zemhost/settings.h"

#include <algorithm>

#include "apps/zemhost/registryplaces.h"
#include "apps/zemhost/widetext.h"

namespace {

// The value's bytes when it exists and has one of two types.
bool ReadValue(const RegistryPlace& place, DWORD type, DWORD otherType, std::string& bytes) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, place.key, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    DWORD found = 0;
    DWORD size = 0;
    bool read =
        RegQueryValueExW(key, place.value, nullptr, &found, nullptr, &size) == ERROR_SUCCESS &&
        (found == type || found == otherType);
    if (read) {
        bytes.resize(size);
        read = RegQueryValueExW(key, place.value, nullptr, &found,
                                reinterpret_cast<LPBYTE>(bytes.data()), &size) == ERROR_SUCCESS;
        bytes.resize(read ? size : 0);
    }
    RegCloseKey(key);
    return read;
}

// The texts of a REG_SZ or REG_MULTI_SZ value, as UTF-8.
std::vector<std::string> Texts(const std::string& bytes) {
    std::vector<std::string> texts;
    WString text;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const auto unit = static_cast<WCHAR>(static_cast<unsigned char>(bytes[i]) |
                                             static_cast<unsigned char>(bytes[i + 1]) << 8);
        if (unit != 0) {
            text += unit;
            continue;
        }
        if (!text.empty()) texts.push_back(NarrowText(text));
        text.clear();
    }
    if (!text.empty()) texts.push_back(NarrowText(text));
    return texts;
}

const char* SourceName(SettingSource source) {
    switch (source) {
        case SettingSource::kOption:
            return "option";
        case SettingSource::kRegistry:
            return "registry";
        default:
            return "default";
    }
}

std::string Joined(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts)
        joined += (joined.empty() ? "" : ",") + text;
    return joined;
}

}  // namespace

HostSettings ReadSettings(const HostOptions& options) {
    const auto source = [](bool option) {
        return option ? SettingSource::kOption : SettingSource::kRegistry;
    };
    HostSettings settings;
    std::string bytes;
    if (ReadValue(kPortPlace, REG_DWORD, REG_DWORD, bytes) && bytes.size() == sizeof(DWORD)) {
std::string Everywhere(const HostSettings& settings) {
    const std::vector<std::string>& addresses = settings.addresses;
    const bool all = addresses.empty() ||
                     std::any_of(addresses.begin(), addresses.end(),
                                 [](const auto& one) { return one == "0.0.0.0" || one == "::"; });
    return all ? " on every address" : "";
}

        settings.port = 0;
        for (size_t i = sizeof(DWORD); i-- > 0;)
            settings.port = settings.port << 8 | static_cast<unsigned char>(bytes[i]);
        settings.portSource = source(options.port.has_value());
    }
    if (ReadValue(kListenPlace, REG_MULTI_SZ, REG_MULTI_SZ, bytes)) {
        settings.addresses = Texts(bytes);
        if (!settings.addresses.empty())
            settings.addressesSource = source(options.listen.has_value());
    }
    if (ReadValue(kVolumePlace, REG_SZ, REG_EXPAND_SZ, bytes)) {
        const std::vector<std::string> texts = Texts(bytes);
        if (!texts.empty()) {
            settings.volume = texts.front();
            settings.volumeSource = source(options.volume.has_value());
        }
    }
    if (ReadValue(kLogFormatPlace, REG_SZ, REG_EXPAND_SZ, bytes)) {
        const std::vector<std::string> texts = Texts(bytes);
        settings.logFormat = texts.empty() ? "" : texts.front();
        settings.logFormatSource = SettingSource::kRegistry;
    }
    return settings;
}

std::string LocalUrl(const HostSettings& settings) {
    std::string host = settings.addresses.empty() ? "127.0.0.1" : settings.addresses.front();
    if (host == "0.0.0.0") host = "127.0.0.1";
    if (host == "::") host = "::1";
    if (host.find(':') != std::string::npos) host = "[" + host + "]";
    return "http://" + host + ":" + std::to_string(settings.port);
}

std::string SettingsText(const HostSettings& settings) {
    const auto line = [](const char* name, const std::string& value, SettingSource source) {
        return std::string(name) + " " + value + " " + SourceName(source) + "\n";
    };
    return line("port", std::to_string(settings.port), settings.portSource) +
           line("listen", settings.addresses.empty() ? "all" : Joined(settings.addresses),
                settings.addressesSource) +
           line("volume", settings.volume.empty() ? "none" : settings.volume,
                settings.volumeSource) +
           line("log-format", settings.logFormat, settings.logFormatSource) + "address " +
           LocalUrl(settings) + Everywhere(settings) + "\n";
}
