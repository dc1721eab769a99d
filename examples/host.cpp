// A host program: host REGISTRY_FILE serves with the settings of that file until the end of its
// standard input.
//
//   c++ -std=c++20 host.cpp $(pkg-config --cflags --libs zemhttpd) -o host && ./host zemhttpd.reg
#include <cstdio>
#include <fstream>

#include "mediaio/errorlog/sink.h"
#include "zemhttpd/entry/zemhttpd.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "host REGISTRY_FILE\n");
        return 2;
    }
    if (!std::ifstream(argv[1])) {  // to the server it would be empty: port 80 of every address
        std::fprintf(stderr, "host: cannot read %s\n", argv[1]);
        return 1;
    }
    SetRegistryFile(argv[1]);  // on Windows the registry is the system's

    ErrorLogSettings log;
    log.verbosity = ErrorLogVerbosity::kWarnings;  // to standard error
    ErrorLogConfigure(log, nullptr);

    CHttpCommandHandler* server = nullptr;
    const HRESULT started = CreateZemHttpSvr(&server);
    if (started != S_OK) {
        std::fprintf(stderr, "host: not started, 0x%08x\n", static_cast<unsigned>(started));
        return 1;
    }
    std::printf("host: ready\n");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return DestroyZemHttpSvr(server) == S_OK ? 0 : 1;
}
