// What zemhost needs of the operating system beside the platform layer: its command line, stop
// signals, the limit of open files, a trial of an address, and being a service. Implemented by
// hostsystem_posix.cpp and rights_posix.cpp, or hostsystem_windows.cpp and service_windows.cpp. The
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

// Tells whoever started the service that it is ready, or why it is not (Linux: in the way of
// systemd's sd_notify(3)). Nothing for a console.
void TellReady();
void TellFailure(const std::string& sentence);

// Before any thread exists: holds back the stop signals for WaitForStopSignal, makes a closed
// output pipe an error instead of the process' end, and allows as many open files as the system
// lets us.
void PrepareProcess();

// Opens the port on the addresses of the settings while the process still may, for the server that
// comes to listen there. An HRESULT. Windows: the system's HTTP interface has it; nothing to do.
int32_t OpenPort(uint16_t port);

// Whether the process may become the user: nothing, or a sentence. An empty name is nobody else.
std::string CheckUser(const std::string& user);

// Becomes the user, with the user's groups, where one is named, and gives up every capability; root
// without a user keeps what it has. Before any other thread exists. Nothing, or why it could not.
std::string GiveUpRights(const std::string& user);

// By this process, as a directory to make files in. UTF-8.
bool CanWriteTo(const std::string& directory);

// Waits for SIGINT, SIGTERM or SIGHUP (Windows: a console event or the service's stop); returns its
// name. From then on the next one ends the process at once. Calls `reopenLog` at every SIGUSR1
// meanwhile.
std::string WaitForStopSignal(const std::function<void()>& reopenLog);

enum class AddressKind {
    kUsual,
    kNone,   // no IP address
    kUnfit,  // of no one machine, or not enough to listen on: multicast, link-local ...
};

AddressKind KindOfAddress(const std::string& text);

enum class ListenTrial { kWorks, kTaken, kForbidden, kNoSuchAddress };

// Opens the address for a moment. Only to explain why the server could not.
ListenTrial TryListening(const std::string& address, uint16_t port);

// Whether something listens there.
bool CanConnect(const std::string& address, uint16_t port);
