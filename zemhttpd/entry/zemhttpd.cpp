// The exported entry points, called on the host's thread.
#include "zemhttpd/entry/zemhttpd.h"

#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/httpcmdhdlr.h"

#include <new>

namespace {

constexpr LONG kCatchLineCreate = 47;
constexpr LONG kCatchLineDestroy = 67;

}  // namespace

HRESULT CreateZemHttpSvr(CHttpCommandHandler** server) {
    CZemEntry scope(TEXT("CreateZemHttpSvr"));
    CHttpCommandHandler* created = nullptr;
    try {
        if (!server) scope = E_INVALIDARG;
        *server = nullptr;
        created = new (std::nothrow) CHttpCommandHandler;
        if (!created) scope = E_OUTOFMEMORY;
        scope = created->Initialize();
    } catch (...) {
        LogCaught(scope, kSourceEntry, kCatchLineCreate);
    }
    // Only exactly S_OK hands the server out; a positive result neither does nor frees it.
    if (scope.GetResult() == S_OK)
        *server = created;
    else if (scope.Failed())
        delete created;
    return scope.GetResult();
}

HRESULT DestroyZemHttpSvr(CHttpCommandHandler* server) {
    CZemEntry scope(TEXT("DestroyZemHttpSvr"));
    try {
        if (!server) scope = E_INVALIDARG;
        server->Shutdown();
        delete server;
    } catch (...) {
        LogCaught(scope, kSourceEntry, kCatchLineDestroy);
    }
    return scope.GetResult();
}
