// What can be found wrong before the server is started, each as one sentence that says what to do;
// an empty text means that nothing is wrong. Main thread only.
#pragma once

#include <string>

#include "apps/zemhost/settings.h"

// A registry file must be readable and look like a registry export. One that nobody named need not
// be there.
std::string CheckRegistryFile(const std::string& path, bool mustExist = true);

// The same of the file in use, after ApplyOptions. Nothing where the registry is the system's.
std::string CheckRegistry(const HostOptions& options);

std::string CheckPort(const HostSettings& settings);

std::string CheckLogFormat(const HostSettings& settings);

std::string CheckAddresses(const HostSettings& settings);

// The volume root must be a directory that can be listed.
std::string CheckVolume(const HostSettings& settings);

// What is wrong with a volume root that can only be read, or is so long that it leaves names little
// room. The server runs with it.
std::string WarnOfVolume(const HostSettings& settings);

// Why the server could not be started with the result hr (an HRESULT), where CheckPort found
// nothing.
std::string ExplainStartFailure(const HostSettings& settings, int32_t hr);
