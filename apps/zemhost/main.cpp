// zemhost: the service. Puts the command line over the registry, checks what can be checked, starts
// the server, says that it is ready, waits for a signal, and stops the server. One thread of its
// own; the rest are the server's.
#include <cstdio>
#include <exception>

#include "apps/generated/version.h"
#include "apps/zemhost/checks.h"
#include "apps/zemhost/hostsystem.h"
#include "apps/zemhost/options.h"
#include "apps/zemhost/settings.h"
#include "mediaio/errorlog/sink.h"
#include "platform/platform.h"
#include "zemhttpd/entry/zemhttpd.h"

namespace {

enum ExitCode {
    kStopped = 0,
    kWrongCommandLine = 2,
    kWrongSetting = 3,
    kStartFailed = 4,
    kStopFailed = 5,
};

constexpr uint32_t kLogFlush_ms = 1000;

// Last on the terminal, after what the server wrote to its error log.
int Fail(ExitCode code, const std::string& sentence) {
    ErrorLogFlush(kLogFlush_ms);
    std::fprintf(stderr, "zemhost: %s.\n", sentence.c_str());
    return code;
}

std::string CheckSettings(const HostSettings& settings) {
    const std::string problem = CheckAddresses(settings);
    return problem.empty() ? CheckVolume(settings) : problem;
}

std::string UseLogFile(const std::string& path) {
    ErrorLogSettings log;
    log.path = path;
    log.toStderr = false;
    std::string problem;
    if (ErrorLogConfigure(log, &problem)) return {};
    return problem + "; give another with --log FILE";
}

// What the server says is not enough here: "ready" must mean that a client gets through.
bool Listens(const HostSettings& settings) {
    const auto port = static_cast<uint16_t>(settings.port);
    if (settings.addresses.empty()) return CanConnect("127.0.0.1", port);
    for (const std::string& address : settings.addresses)
        if (!CanConnect(address, port)) return false;
    return true;
}

int Serve(const HostSettings& settings) {
    CHttpCommandHandler* server = nullptr;
    const HRESULT hr = CreateZemHttpSvr(&server);
    if (hr != S_OK || !server) return Fail(kStartFailed, ExplainStartFailure(settings, hr));
    if (!Listens(settings)) {
        DestroyZemHttpSvr(server);
        return Fail(kStartFailed, "the server started but nobody answers at " + LocalUrl(settings) +
                                      "; the error log says why");
    }
    std::printf("zemhost ready: %s/ (volume root %s)\n", LocalUrl(settings).c_str(),
                settings.volume.c_str());
    std::fflush(stdout);

    const std::string name = WaitForStopSignal();
    std::printf("zemhost stops: %s\n", name.c_str());
    std::fflush(stdout);
    const HRESULT stopped = DestroyZemHttpSvr(server);
    if (FAILED(stopped))
        return Fail(kStopFailed, "the server did not stop in order; see the error log");
    return kStopped;
}

int Run(const std::vector<std::string>& arguments) {
    HostOptions options;
    std::string problem = ParseOptions(arguments, options);
    if (!problem.empty()) return Fail(kWrongCommandLine, problem);
    if (options.help) {
        std::fputs(HelpText().c_str(), stdout);
        return kStopped;
    }
    if (options.version) {
        std::printf("zemhost %s\n", kZemVersion);
        return kStopped;
    }

    if (!options.registry.empty()) problem = CheckRegistryFile(options.registry);
    if (!problem.empty()) return Fail(kWrongSetting, problem);
    PrepareProcess();
    ApplyOptions(options);
    const HostSettings settings = ReadSettings(options);
    if (options.settings) {
        std::fputs(SettingsText(settings).c_str(), stdout);
        return kStopped;
    }
    problem = CheckSettings(settings);
    if (problem.empty() && !options.log.empty()) problem = UseLogFile(options.log);
    if (!problem.empty()) return Fail(kWrongSetting, problem);
    return Serve(settings);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception& error) {
        return Fail(kStartFailed, error.what());
    }
}
