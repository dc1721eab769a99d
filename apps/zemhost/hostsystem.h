// hostsystem.h: what zemhost needs of the operating system beside the platform layer: its command
// line, stop signals, the limit of open files, a trial of an address, and being a service.
// Implemented by hostsystem_posix.cpp, or hostsystem_windows.cpp and service_windows.cpp. The
// thread that serves only.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "apps/zemhost/options.h"

enum ExitCode {
    kExitStopped = 0,
    kExitWrongCommandLine = 2,
    kExitWrongSetting = 3,
    kExitStartFailed = 4,
    kExitStopFailed = 5,
    kExitServiceControl = 6,
};

// The arguments without the program's name, UTF-8.
std::vector<std::string> ProgramArguments(int argc, char** argv);

// Does what the options ask the system's service control for, of which running `serve` may be a
// part; the exit code. Nothing: they ask for no such thing.
std::optional<int> RunUnderSystem(const HostOptions& options, const std::function<int()>& serve);

// Tells whoever started the service that it is ready, or why it is not. Nothing for a console.
void TellReady();
void TellFailure(const std::string& sentence);

// Before any thread exists: holds back the stop signals for WaitForStopSignal, makes a closed
// output pipe an error instead of the process' end, and allows as many open files as the system
// lets us.
void PrepareProcess();

// Waits for SIGINT, SIGTERM or SIGHUP (Windows: a console event or the service's stop); returns its
// name. From then on the next one ends the process
// at once.
std::string WaitForStopSignal();

bool IsIpAddress(const std::string& text);

enum class ListenTrial { kWorks, kTaken, kForbidden, kNoSuchAddress };

// Opens the address for a moment. Only to explain why the server could not.
ListenTrial TryListening(const std::string& address, uint16_t port);

// Whether something listens there.
bool CanConnect(const std::string& address, uint16_t port);
