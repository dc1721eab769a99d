// What the library exports under the names of the platform's usual compiler, looked at while it
// runs: exports_run NAME..., the names of the virtual operations in slot order.
#include <cstdio>
#include <cstring>

#include "platform/platform.h"
#include "tests/windows/hostclass.h"
#include "zemhttpd/entry/zemhttpd.h"

namespace {

constexpr size_t kObject_bytes = 376, kNameAt = 8;
constexpr int kLastRecords = 500;
constexpr int kStarts = 20;

int Fail(const char* what) {
    std::printf("%s\n", what);
    return 1;
}

template <typename Call>
Call Find(HMODULE library, const char* name) {
    return reinterpret_cast<Call>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

bool Named(const void* object, const WCHAR* name) {
    return wcscmp(reinterpret_cast<const WCHAR*>(static_cast<const char*>(object) + kNameAt),
                  name) == 0;
}

// Stopped before its threads have begun: a call that is queued for a thread so early runs before
// the thread's routine, and ends no wait.
bool StartsAndStopsAtOnce() {
    for (int i = 0; i < kStarts; ++i) {
        CHttpCommandHandler* server = nullptr;
        const HRESULT started = CreateZemHttpSvr(&server);
        if (started != S_OK || DestroyZemHttpSvr(server) != S_OK) {
            std::printf("start %d: 0x%lx\n", i, static_cast<unsigned long>(started));
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    CHostScope::CheckLayout();
    const HMODULE library = GetModuleHandleW(TEXT("zemhttpd.dll"));
    if (!library) return Fail("zemhttpd.dll is not loaded");
    using Construct = void* (*)(void*);
    using ConstructNamed = void* (*)(void*, const WCHAR*, ...);
    using ConstructCopy = void* (*)(void*, const void*);
    const auto construct = Find<Construct>(library, "??0CEntryPoint@@QEAA@XZ");
    const auto constructNamed = Find<ConstructNamed>(library, "??0CEntryPoint@@QEAA@PEB_WZZ");
    const auto constructCopy = Find<ConstructCopy>(library, "??0CEntryPoint@@QEAA@AEBV0@@Z");
    if (!construct || !constructNamed || !constructCopy) return Fail("a constructor is missing");

    alignas(8) char first[kObject_bytes], second[kObject_bytes], third[kObject_bytes];
    if (construct(first) != first || !Named(first, TEXT("")))
        return Fail("the first constructor does not return its object");
    if (constructNamed(second, TEXT("%s %d%%"), TEXT("name"), 42) != second ||
        !Named(second, TEXT("name 42%"))) {
        return Fail("the constructor with a name does not");
    }
    if (constructCopy(third, second) != third || !Named(third, TEXT("name 42%")))
        return Fail("the copy constructor does not");

    if (argc != 8) return Fail("seven names are needed");
    void* const* table = nullptr;
    std::memcpy(&table, first, sizeof table);
    for (int slot = 0; slot < 7; ++slot) {
        if (table[slot] != reinterpret_cast<void*>(GetProcAddress(library, argv[slot + 1]))) {
            std::printf("slot %d is not %s\n", slot, argv[slot + 1]);
            return 1;
        }
    }

    const int line = UseAsHost();
    if (line != 0) {
        std::printf("hostclass.cpp:%d does not hold\n", line);
        return 1;
    }
    if (!StartsAndStopsAtOnce()) return Fail("starting and stopping at once does not work");
    // The queue is written when the process ends, whose end ends the log's own thread first.
    CEntryPoint scope(TEXT("main"));
    for (int i = 0; i < kLastRecords; ++i)
        scope.LogMsg(TEXT("last words %d"), i);
    std::printf("7 slots, 3 constructors and a host's use of the class agree\n");
    return 0;
}
