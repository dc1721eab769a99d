// hostsystem.h: what zemhost needs of the operating system beside the platform layer: signals, the
// limit of open files, and a trial of an address. One file per system implements it. Main thread
// only.
#pragma once

#include <cstdint>
#include <string>

// Before any thread exists: holds back the stop signals for WaitForStopSignal, makes a closed
// output pipe an error instead of the process' end, and allows as many open files as the system
// lets us.
void PrepareProcess();

// Waits for SIGINT, SIGTERM or SIGHUP; returns its name. From then on the next one ends the process
// at once.
std::string WaitForStopSignal();

bool IsIpAddress(const std::string& text);

enum class ListenTrial { kWorks, kTaken, kForbidden, kNoSuchAddress };

// Opens the address for a moment. Only to explain why the server could not.
ListenTrial TryListening(const std::string& address, uint16_t port);

// Whether something listens there.
bool CanConnect(const std::string& address, uint16_t port);
