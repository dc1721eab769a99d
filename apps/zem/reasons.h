// Why a server probably said no. Most of its answers do not tell, so what can be asked is asked
// afterwards. A text begins with ": ", or is empty where nothing was found out; nothing here throws
// but OpenNamed. Main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "apps/zem/client/zemclient.h"

namespace zem {

// Opens a file; a refusal says why.
uint64_t OpenNamed(CZemClient& client, const FileRef& file);

// Why a file could not be created; `replace`: one that exists was to be replaced.
std::string WhyNotCreated(CZemClient& client, const std::string& name, bool replace);
// Why there is still nothing of this name, which a directory or a moved file was to have.
std::string WhyNotNamed(CZemClient& client, const std::string& name);
// Why a file is still there. `attributes` are those that it had.
std::string WhyNotRemoved(uint32_t attributes);
// Why an open file, of which this is known, could not be changed.
std::string WhyNotChanged(const ZemEsDesc& info);

// ": its volume is full (1.2 MiB free)" if it is.
std::string IfVolumeIsFull(CZemClient& client);

}  // namespace zem
