// checks.h: what can be found wrong before the server is started, each as one sentence that says
// what to do; an empty text means that nothing is wrong. Main thread only.
#pragma once

#include <string>

#include "apps/zemhost/settings.h"

// The file that --registry names: it must be there, be readable and look like a registry export.
std::string CheckRegistryFile(const std::string& path);

std::string CheckAddresses(const HostSettings& settings);

// The volume root must be a directory that can be listed.
std::string CheckVolume(const HostSettings& settings);

// Why the server could not be started with the result hr (an HRESULT).
std::string ExplainStartFailure(const HostSettings& settings, int32_t hr);
