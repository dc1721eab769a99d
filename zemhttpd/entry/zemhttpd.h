// What a host program needs of the library: start and stop one HTTP command server. Called on the
// host's thread. Port and URLs come from the registry, so a second server on the same registry
// fails at its URLs.
#pragma once

#include "platform/platform.h"

class CHttpCommandHandler;

#pragma GCC visibility push(default)
extern "C" {

// Builds and starts a server from the registry settings. On success (exactly S_OK) *server is the
// running server, which the caller ends with DestroyZemHttpSvr; otherwise *server is null. A null
// `server` is E_INVALIDARG. The result is the error-log chain id of the failure, which the default
// error log makes the HRESULT itself.
HRESULT CreateZemHttpSvr(CHttpCommandHandler** server);

// Stops the server, waits for every request in work, and frees it. Null is E_INVALIDARG.
HRESULT DestroyZemHttpSvr(CHttpCommandHandler* server);

}  // extern "C"
#pragma GCC visibility pop
