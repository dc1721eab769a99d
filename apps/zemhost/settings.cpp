// Where each setting stands in the registry.
#include "apps/zemhost/settings.h"

#include <algorithm>

#include "apps/zemhost/registryvalue.h"

namespace {

// The value when it is of the type that the server reads.
std::optional<RegistryValue> ReadValue(const RegistryPlace& place) {
    std::optional<RegistryValue> value = ReadRegistryValue(place);
    if (value && !IsRead(place, *value)) value.reset();
    return value;
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
    if (const auto port = ReadValue(kPortPlace)) {
        settings.port = RegistryNumber(*port);
        settings.portSource = source(options.port.has_value());
    }
    if (const auto list = ReadValue(kListenPlace)) {
        settings.addresses = RegistryTexts(*list);
        if (!settings.addresses.empty())
            settings.addressesSource = source(options.listen.has_value());
    }
    if (const auto volume = ReadValue(kVolumePlace)) {
        const std::vector<std::string> texts = RegistryTexts(*volume);
        if (!texts.empty()) {
            settings.volume = texts.front();
            settings.volumeSource = source(options.volume.has_value());
        }
    }
    if (const auto format = ReadValue(kLogFormatPlace)) {
        const std::vector<std::string> texts = RegistryTexts(*format);
        settings.logFormat = texts.empty() ? "" : texts.front();
        settings.logFormatSource = SettingSource::kRegistry;
    }
    return settings;
}

namespace {

std::string UrlAt(std::string host, uint32_t port) {
    if (host.find(':') != std::string::npos) host = "[" + host + "]";
    return "http://" + host + ":" + std::to_string(port);
}

}  // namespace

std::string LocalUrl(const HostSettings& settings) {
    std::string host = settings.addresses.empty() ? "127.0.0.1" : settings.addresses.front();
    if (host == "0.0.0.0") host = "127.0.0.1";
    if (host == "::") host = "::1";
    return UrlAt(host, settings.port);
}

std::string Elsewhere(const HostSettings& settings) {
    const std::vector<std::string>& addresses = settings.addresses;
    const bool all = addresses.empty() ||
                     std::any_of(addresses.begin(), addresses.end(),
                                 [](const auto& one) { return one == "0.0.0.0" || one == "::"; });
    if (all) return " on every address";
    std::string others;
    for (size_t i = 1; i < addresses.size(); ++i)
        others += " and " + UrlAt(addresses[i], settings.port);
    return others;
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
           LocalUrl(settings) + Elsewhere(settings) + "\n";
}
