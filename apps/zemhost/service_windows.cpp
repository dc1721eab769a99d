// Install, remove and run as a service. The service control starts ServiceMain on a thread of its
// own and delivers controls on another; what serves is the same as on a console.
#include "apps/zemhost/service.h"

#include <algorithm>
#include <cstdio>

#include "apps/zemhost/hostsystem.h"
#include "apps/zemhost/widetext.h"
#include "platform/platform.h"

namespace {

constexpr const WCHAR* kServiceName = TEXT("zemhost");
constexpr DWORD kStart_ms = 30000, kStop_ms = 120000;
constexpr DWORD kRestartAfter_ms = 5000;
constexpr DWORD kCountAgainAfter_s = 86400;

SERVICE_STATUS_HANDLE g_control = nullptr;
const std::function<int()>* g_serve = nullptr;

class CServiceHandle {
public:
    explicit CServiceHandle(SC_HANDLE handle) : m_handle(handle) {}
    CServiceHandle(const CServiceHandle&) = delete;
    CServiceHandle& operator=(const CServiceHandle&) = delete;
    ~CServiceHandle() {
        if (m_handle) CloseServiceHandle(m_handle);
    }
    SC_HANDLE Get() const { return m_handle; }
    explicit operator bool() const { return m_handle != nullptr; }

private:
    SC_HANDLE m_handle;
};

int Failed(const char* what) {
    const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
    std::fprintf(stderr, "zemhost: the service could not be %s: %s.\n", what,
                 NarrowText(_com_error(hr).ErrorMessage()).c_str());
    return kExitServiceControl;
}

void Report(DWORD state, DWORD wait_ms, int code = 0) {
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    if (state == SERVICE_RUNNING)
        status.dwControlsAccepted = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
    if (code != 0) {
        status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
        status.dwServiceSpecificExitCode = static_cast<DWORD>(code);
    }
    status.dwWaitHint = wait_ms;
    SetServiceStatus(g_control, &status);
}

DWORD WINAPI OnControl(DWORD control, DWORD, void*, void*) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
        case SERVICE_CONTROL_SHUTDOWN:
            Report(SERVICE_STOP_PENDING, kStop_ms);
            RequestStop(control == SERVICE_CONTROL_STOP ? "service stop" : "shutdown");
            return NO_ERROR;
        case SERVICE_CONTROL_INTERROGATE:
            return NO_ERROR;
        default:
            return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
    g_control = RegisterServiceCtrlHandlerExW(kServiceName, OnControl, nullptr);
    if (!g_control) return;
    Report(SERVICE_START_PENDING, kStart_ms);
    Report(SERVICE_STOPPED, 0, (*g_serve)());
}

// What a call writes that takes a buffer and its size, and gives the length or the size it wants.
template <typename Call>
WString TextOf(Call call) {
    WString text(MAX_PATH, 0);
    for (;;) {
        const DWORD length = call(text.data(), static_cast<DWORD>(text.size()));
        if (length < text.size()) return text.substr(0, length);
        text.resize(std::max<size_t>(length, text.size() * 2));
    }
}

// A service begins in the system's folder, so nothing in its command line is relative.
WString CommandLine(const HostOptions& options) {
    const WString program =
        TextOf([](WCHAR* to, DWORD units) { return GetModuleFileNameW(nullptr, to, units); });
    WString line = TEXT("\"") + program + TEXT("\" --service");
    if (options.log.empty()) return line;
    const WString given = WidenText(options.log);
    const WString log = TextOf([&](WCHAR* to, DWORD units) {
        return GetFullPathNameW(given.c_str(), units, to, nullptr);
    });
    return line + TEXT(" --log \"") + log + TEXT("\"");
}

int Install(const HostOptions& options) {
    const CServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    if (!manager) return Failed("installed");
    const WString line = CommandLine(options);
    // Its requests come from the system's HTTP interface: that is to be there first.
    const CServiceHandle service(
        CreateServiceW(manager.Get(), kServiceName, TEXT("ZEM HTTP server"), SERVICE_ALL_ACCESS,
                       SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                       line.c_str(), nullptr, nullptr, TEXT("HTTP\0"), nullptr, nullptr));
    if (!service) return Failed("installed");
    WCHAR text[] = TEXT("Makes the media of a volume reachable over HTTP.");
    SERVICE_DESCRIPTIONW description = {text};
    ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_DESCRIPTION, &description);
    SC_ACTION restart = {SC_ACTION_RESTART, kRestartAfter_ms};
    SERVICE_FAILURE_ACTIONSW failure{};
    failure.dwResetPeriod = kCountAgainAfter_s;
    failure.cActions = 1;
    failure.lpsaActions = &restart;
    ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_FAILURE_ACTIONS, &failure);
    std::printf("The service zemhost is installed; start it with: sc start zemhost\n");
    if (options.log.empty())
        std::printf("What it says is lost; for a log, --remove it and repeat with --log FILE\n");
    return 0;
}

bool WaitUntilStopped(SC_HANDLE service) {
    SERVICE_STATUS status{};
    const ULONGLONG end = GetTickCount64() + kStop_ms;
    while (QueryServiceStatus(service, &status) && status.dwCurrentState != SERVICE_STOPPED) {
        if (GetTickCount64() > end) return false;
        Sleep(100);
    }
    return true;
}

int Remove() {
    const CServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) return Failed("removed");
    const CServiceHandle service(
        OpenServiceW(manager.Get(), kServiceName, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS));
    if (!service) return Failed("removed");
    SERVICE_STATUS status{};
    if (ControlService(service.Get(), SERVICE_CONTROL_STOP, &status) &&
        !WaitUntilStopped(service.Get())) {
        SetLastError(ERROR_SERVICE_REQUEST_TIMEOUT);
        return Failed("stopped");
    }
    if (!DeleteService(service.Get())) return Failed("removed");
    std::printf("The service zemhost is removed\n");
    return 0;
}

int RunAsService(const std::function<int()>& serve) {
    g_serve = &serve;
    WCHAR name[] = TEXT("zemhost");
    const SERVICE_TABLE_ENTRYW table[] = {{name, ServiceMain}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : Failed("run");
}

}  // namespace

std::optional<int> RunUnderSystem(const HostOptions& options, const std::function<int()>& serve) {
    switch (options.serviceAction) {
        case ServiceAction::kInstall:
            return Install(options);
        case ServiceAction::kRemove:
            return Remove();
        case ServiceAction::kRun:
            return RunAsService(serve);
        default:
            return std::nullopt;
    }
}

void TellReady() {
    if (g_control) Report(SERVICE_RUNNING, 0);
}

// A service has no terminal: why it does not run stands in the event log.
void TellFailure(const std::string& sentence) {
    if (!g_control) return;
    const HANDLE log = RegisterEventSourceW(nullptr, kServiceName);
    if (!log) return;
    const WString wide = WidenText(sentence);
    LPCWSTR text = wide.c_str();
    ReportEventW(log, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, 1, 0, &text, nullptr);
    DeregisterEventSource(log);
}
