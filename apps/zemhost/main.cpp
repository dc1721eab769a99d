// zemhost: the service. Puts the command line over the registry, checks what can be checked, opens
// the port, gives up the rights that this took, starts the server, says that it is ready, waits for
// a signal, and stops the server. One thread of its own; the rest are the server's.
#include <cstdio>
#include <exception>
#include <functional>

#include "apps/generated/version.h"
#include "apps/zemhost/checks.h"
#include "apps/zemhost/hostsystem.h"
#include "apps/zemhost/options.h"
#include "apps/zemhost/settings.h"
#include "apps/zemhost/wrongvalues.h"
#include "mediaio/errorlog/sink.h"
#include "platform/platform.h"
#include "zemhttpd/entry/zemhttpd.h"

namespace {

constexpr uint32_t kLogFlush_ms = 1000, kLogStop_ms = 2000;

void Say(const std::string& sentence) {
    std::fprintf(stderr, "zemhost: %s.\n", sentence.c_str());
}

// Last on the terminal, after what the server wrote to its error log.
int Fail(ExitCode code, const std::string& sentence) {
    ErrorLogFlush(kLogFlush_ms);
    Say(sentence);
    TellFailure(sentence);
    return code;
}

std::string UseLog(const HostOptions& options, const HostSettings& settings) {
    ErrorLogSettings log;
    log.path = options.log;
    log.toStderr = options.log.empty();
    log.format = settings.logFormat == "json" ? ErrorLogFormat::kJson : ErrorLogFormat::kText;
    std::string problem;
    ErrorLogConfigure(log, &problem);
    return problem;
}

// Names each value that is not read for its type; the last one by what is returned, if the server
// must not start with one of them.
std::string CheckTypes(const HostOptions& options) {
    std::string problem;
    for (const WrongValue& wrong : FindWrongValues()) {
        if (!wrong.decides && !options.settings) {
            Say(wrong.sentence);
            continue;
        }
        if (!problem.empty()) Say(problem);
        problem = wrong.sentence;
    }
    return problem;
}

// What is wrong on every machine: --settings looks at it, too.
std::string CheckValues(const HostOptions& options, const HostSettings& settings) {
    std::string problem = CheckTypes(options);
    if (problem.empty()) problem = CheckPort(settings);
    if (problem.empty()) problem = CheckAddresses(settings);
    if (problem.empty()) problem = CheckLogFormat(settings);
    return problem;
}

// What any rights can look at, before anything is opened.
std::string CheckBefore(const HostOptions& options, const HostSettings& settings) {
    std::string problem = CheckUser(options.user);
    if (problem.empty() && options.user.empty()) problem = CheckVolume(settings);
    return problem;
}

// What must hold for the user that serves. The server reads the registry file again and again: one
// that only root may read would look empty to it.
std::string CheckAfter(const HostOptions& options, const HostSettings& settings) {
    std::string problem = CheckRegistry(options);
    if (problem.empty()) problem = CheckVolume(settings);
    if (problem.empty()) {
        problem = UseLog(options, settings);
        if (!problem.empty()) problem += "; give another with --log FILE";
    }
    return problem;
}

// What the server says is not enough here: "ready" must mean that a client gets through.
bool Listens(const HostSettings& settings) {
    const auto port = static_cast<uint16_t>(settings.port);
    if (settings.addresses.empty()) return CanConnect("127.0.0.1", port);
    for (const std::string& address : settings.addresses)
        if (!CanConnect(address, port)) return false;
    return true;
}

// Asked for after a tool has renamed the file.
void ReopenLog(const HostOptions& options, const HostSettings& settings) {
    const std::string problem = UseLog(options, settings);
    if (!problem.empty())
        Say(problem + "; the log goes on in the file that it was in: mend that, and signal again");
}

int Serve(const HostOptions& options, const HostSettings& settings) {
    CHttpCommandHandler* server = nullptr;
    const HRESULT hr = CreateZemHttpSvr(&server);
    if (hr != S_OK || !server) return Fail(kExitStartFailed, ExplainStartFailure(settings, hr));
    if (!Listens(settings)) {
        DestroyZemHttpSvr(server);
        return Fail(kExitStartFailed, "the server started but nobody answers at " +
                                          LocalUrl(settings) + "; the error log says why");
    }
    std::printf("zemhost ready: %s/%s (volume root %s)\n", LocalUrl(settings).c_str(),
                Elsewhere(settings).c_str(), settings.volume.c_str());
    std::fflush(stdout);
    const std::string warning = WarnOfVolume(settings);
    if (!warning.empty()) Say(warning);
    TellReady();

    const std::string name = WaitForStopSignal([&] { ReopenLog(options, settings); });
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
    std::string problem = CheckRegistry(options);
    if (!problem.empty()) return Fail(kExitWrongSetting, problem);
    const HostSettings settings = ReadSettings(options);
    problem = CheckValues(options, settings);
    if (!problem.empty()) return Fail(kExitWrongSetting, problem);
    if (options.settings) {
        std::fputs(SettingsText(settings).c_str(), stdout);
        for (const std::string& stray : FindStrayValues())
            std::printf("note %s\n", stray.c_str());
        return kExitStopped;
    }
    problem = CheckBefore(options, settings);
    if (!problem.empty()) return Fail(kExitWrongSetting, problem);
    const HRESULT hr = OpenPort(static_cast<uint16_t>(settings.port));
    if (FAILED(hr)) return Fail(kExitStartFailed, ExplainStartFailure(settings, hr));
    problem = GiveUpRights(options.user);
    if (!problem.empty()) return Fail(kExitStartFailed, problem);
    problem = CheckAfter(options, settings);
    if (!problem.empty()) return Fail(kExitWrongSetting, problem);
    return Serve(options, settings);
}

// A failure that nobody expected is one to start.
int Guarded(const std::function<int()>& run) {
    try {
        return run();
    } catch (const std::exception& error) {
        return Fail(kExitStartFailed, error.what());
    }
}

int Run(const std::vector<std::string>& arguments) {
    HostOptions options;
    const std::string problem = ParseOptions(arguments, options);
    if (!problem.empty()) return Fail(kExitWrongCommandLine, problem);
    if (options.help) {
        std::fputs(HelpText().c_str(), stdout);
        return kExitStopped;
    }
    if (options.version) {
        std::printf("zemhost %s\n", kZemVersion);
        return kExitStopped;
    }
    const auto serve = [&] {
        const int code = Guarded([&] { return ServeAs(options); });
        ErrorLogStop(kLogStop_ms);  // a service that says it has stopped may be ended at any time
        return code;
    };
    const std::optional<int> code = RunUnderSystem(options, serve);
    return code ? *code : serve();
}

}  // namespace

int main(int argc, char** argv) {
    const int code = Guarded([&] { return Run(ProgramArguments(argc, argv)); });
    // Where a process' end ends its threads first, nobody would be left to write the log.
    ErrorLogStop(kLogStop_ms);
    return code;
}
