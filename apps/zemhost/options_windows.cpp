// The options of a program that can be a service. Settings are the registry's own.
#include "apps/zemhost/checks.h"
#include "apps/zemhost/optiontable.h"
#include "apps/zemhost/settings.h"
#include "apps/zemhost/wrongvalues.h"

namespace {

constexpr Option kOptions[] = {
    {"--install", nullptr,
     "install the service 'zemhost', started with the system; --log becomes the service's",
     Set<&HostOptions::serviceAction, ServiceAction::kInstall>},
    {"--remove", nullptr, "stop and remove the service",
     Set<&HostOptions::serviceAction, ServiceAction::kRemove>},
    {"--service", nullptr, "run as the service; only the system's service control does this",
     Set<&HostOptions::serviceAction, ServiceAction::kRun>},
};

}  // namespace

std::span<const Option> SystemOptions() {
    return kOptions;
}

const SystemHelp kSystemHelp = {
    "Makes the media of a volume reachable over HTTP, until Ctrl-C; a second one ends it at\n"
    "once.\n",
    "Settings stand in the registry (zemhttpd.reg lists them). Without any setting the port is 80\n"
    "on every address. Exit code 6: the service control did not do what was asked.\n"};

const SettingAdvice kSettingAdvice = {
    "the registry value HttpPort", "the registry value ListenOnlyList",
    "the registry value 0 of RUD\\vfs",
    "reserve its URLs for this user with netsh http add urlacl, or run zemhost as administrator"};

std::string CheckRegistry(const HostOptions&) {
    return {};
}

std::vector<std::string> FindStrayValues() {
    return {};
}

void ApplyOptions(const HostOptions&) {}
