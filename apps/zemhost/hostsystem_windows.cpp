// hostsystem.h on Windows. Console events and the service's stop control arrive on threads of the
// system, which only set an event; the thread that serves waits for it.
#include "apps/zemhost/hostsystem.h"

#include <atomic>

#include "apps/zemhost/service.h"
#include "apps/zemhost/widetext.h"
#include "platform/platform.h"

#include <shellapi.h>
#include <ws2tcpip.h>

namespace {

HANDLE g_stop = nullptr;
std::atomic<const char*> g_stopName{nullptr};

const char* ConsoleEventName(DWORD event) {
    switch (event) {
        case CTRL_C_EVENT:
            return "Ctrl-C";
        case CTRL_BREAK_EVENT:
            return "Ctrl-Break";
        case CTRL_CLOSE_EVENT:
            return "console closed";
        case CTRL_SHUTDOWN_EVENT:
            return "shutdown";
        default:
            return nullptr;  // logging off does not end a service
    }
}

// The second event is the system's to handle: it ends the process.
BOOL WINAPI OnConsoleEvent(DWORD event) {
    const char* const name = ConsoleEventName(event);
    if (!name || !RequestStop(name)) return FALSE;
    // The process is ended when this returns; the other thread ends it earlier, in order.
    if (event == CTRL_CLOSE_EVENT || event == CTRL_SHUTDOWN_EVENT) Sleep(INFINITE);
    return TRUE;
}

union SocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

int MakeAddress(const std::string& text, uint16_t port, SocketAddress& address) {
    address = {};
    if (inet_pton(AF_INET, text.c_str(), &address.v4.sin_addr) == 1) {
        address.v4.sin_family = AF_INET;
        address.v4.sin_port = htons(port);
        return sizeof address.v4;
    }
    if (inet_pton(AF_INET6, text.c_str(), &address.v6.sin6_addr) == 1) {
        address.v6.sin6_family = AF_INET6;
        address.v6.sin6_port = htons(port);
        return sizeof address.v6;
    }
    return 0;
}

ULONG TryUrl(HANDLE queue, uint16_t port, const WCHAR* word) {
    WCHAR url[64];
    _snwprintf_s(url, std::size(url), _TRUNCATE, TEXT("http://*:%u/%s/"), unsigned{port}, word);
    return HttpAddUrl(queue, url, nullptr);  // goes with the queue
}

}  // namespace

bool RequestStop(const char* name) {
    const char* none = nullptr;
    if (!g_stopName.compare_exchange_strong(none, name)) return false;
    SetEvent(g_stop);
    return true;
}

std::vector<std::string> ProgramArguments(int, char**) {
    std::vector<std::string> arguments;
    int count = 0;
    LPWSTR* const texts = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 1; texts && i < count; ++i)
        arguments.push_back(NarrowText(texts[i]));
    LocalFree(texts);
    return arguments;
}

void PrepareProcess() {
    SetConsoleOutputCP(CP_UTF8);
    WSADATA sockets;
    WSAStartup(MAKEWORD(2, 2), &sockets);
    g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
}

int32_t OpenPort(uint16_t) {
    return S_OK;
}

std::string CheckUser(const std::string&) {
    return {};
}

std::string GiveUpRights(const std::string&) {
    return {};
}

bool CanWriteTo(const std::string& directory) {
    const HANDLE handle = CreateFileW(WidenText(directory).c_str(), FILE_ADD_FILE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return false;
    CloseHandle(handle);
    return true;
}

std::string WaitForStopSignal(const std::function<void()>&) {
    WaitForSingleObject(g_stop, INFINITE);
    return g_stopName.load();
}

// What the system's own interface refuses among addresses, it tells itself.
AddressKind KindOfAddress(const std::string& text) {
    SocketAddress address;
    return MakeAddress(text, 0, address) != 0 ? AddressKind::kUsual : AddressKind::kNone;
}

// The system's HTTP interface shares ports: what counts is whether the URLs can be had.
ListenTrial TryListening(const std::string&, uint16_t port) {
    const HTTPAPI_VERSION version = HTTPAPI_VERSION_1;
    if (HttpInitialize(version, HTTP_INITIALIZE_SERVER, nullptr) != NO_ERROR)
        return ListenTrial::kWorks;
    ListenTrial trial = ListenTrial::kWorks;
    HANDLE queue = nullptr;
    if (HttpCreateHttpHandle(&queue, 0) == NO_ERROR) {
        for (const WCHAR* const word : {TEXT("zem"), TEXT("media")}) {
            const ULONG error = TryUrl(queue, port, word);
            if (error == ERROR_ALREADY_EXISTS || error == ERROR_SHARING_VIOLATION)
                trial = ListenTrial::kTaken;
            else if (error == ERROR_ACCESS_DENIED)
                trial = ListenTrial::kForbidden;
        }
        CloseHandle(queue);
    }
    HttpTerminate(HTTP_INITIALIZE_SERVER, nullptr);
    return trial;
}

bool CanConnect(const std::string& text, uint16_t port) {
    SocketAddress address;
    const int bytes = MakeAddress(text, port, address);
    if (bytes == 0) return false;
    const SOCKET connection = socket(address.any.sa_family, SOCK_STREAM, 0);
    const bool connected = connect(connection, &address.any, bytes) == 0;
    closesocket(connection);
    return connected;
}
