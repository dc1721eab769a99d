// The service with a library that stops, but not in order: linked in place of DestroyZemHttpSvr.
#include "zemhttpd/entry/zemhttpd.h"

extern "C" {

HRESULT __real_DestroyZemHttpSvr(CHttpCommandHandler* server);
HRESULT __wrap_DestroyZemHttpSvr(CHttpCommandHandler* server) {
    __real_DestroyZemHttpSvr(server);
    return E_UNEXPECTED;
}

}  // extern "C"
