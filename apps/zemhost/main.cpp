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

constexpr uint32_t kLogFlush_ms = 1000, kLogStop_ms = 2000;

// Last on the terminal, after what the server wrote to its error log.
int Fail(ExitCode code, const std::string& sentence) {
    ErrorLogFlush(kLogFlush_ms);
    std::fprintf(stderr, "zemhost: %s.\n", sentence.c_str());
    TellFailure(sentence);
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
    if (hr != S_OK || !server) return Fail(kExitStartFailed, ExplainStartFailure(settings, hr));
    if (!Listens(settings)) {
        DestroyZemHttpSvr(server);
        return Fail(kExitStartFailed, "the server started but nobody answers at " +
                                          LocalUrl(settings) + "; the error log says why");
    }
    std::printf("zemhost ready: %s/ (volume root %s)\n", LocalUrl(settings).c_str(),
                settings.volume.c_str());
    std::fflush(stdout);
    TellReady();

    const std::string name = WaitForStopSignal();
    std::printf("zemhost stops: %s\n", name.c_str());
    std::fflush(stdout);
    const HRESULT stopped = DestroyZemHttpSvr(server);
    if (FAILED(stopped))
        return Fail(kExitStopFailed, "the server did not stop in order; see the error log");
    return kExitStopped;
}

int ServeAs(const HostOptions& options) {
    PrepareProcess();
    ApplyOptions(options);
    const HostSettings settings = ReadSettings(options);
    if (options.settings) {
        std::fputs(SettingsText(settings).c_str(), stdout);
        return kExitStopped;
    }
    std::string problem = CheckSettings(settings);
    if (problem.empty() && !options.log.empty()) problem = UseLogFile(options.log);
    if (!problem.empty()) return Fail(kExitWrongSetting, problem);
    return Serve(settings);
}

int Run(const std::vector<std::string>& arguments) {
    HostOptions options;
    std::string problem = ParseOptions(arguments, options);
    if (!problem.empty()) return Fail(kExitWrongCommandLine, problem);
    if (options.help) {
        std::fputs(HelpText().c_str(), stdout);
        return kExitStopped;
    }
    if (options.version) {
        std::printf("zemhost %s\n", kZemVersion);
        return kExitStopped;
    }
    if (!options.registry.empty()) problem = CheckRegistryFile(options.registry);
    if (!problem.empty()) return Fail(kExitWrongSetting, problem);
    const auto serve = [&] { return ServeAs(options); };
    const std::optional<int> code = RunUnderSystem(options, serve);
    return code ? *code : serve();
}

// A failure that nobody expected is one to start.
int RunGuarded(int argc, char** argv) {
    try {
        return Run(ProgramArguments(argc, argv));
    } catch (const std::exception& error) {
        return Fail(kExitStartFailed, error.what());
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int code = RunGuarded(argc, argv);
    // Where a process' end ends its threads first, nobody would be left to write the log.
    ErrorLogStop(kLogStop_ms);
    return code;
}
