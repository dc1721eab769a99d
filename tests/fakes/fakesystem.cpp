// The wrapped calls; without a CFakeSystem they reach the platform.
#include "tests/fakes/fakesystem.h"

#include "tests/fakes/allocfault.h"
#include "tests/fakes/fakeerrorlog.h"
#include "zemhttpd/server/httpcmdhdlr.h"

#include <algorithm>
#include <atomic>

namespace {

std::atomic<CFakeSystem*> g_system{nullptr};
const HANDLE kQueue = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7171));
const HANDLE kPort = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7272));

}  // namespace

extern "C" {

ULONG __real_HttpInitialize(HTTPAPI_VERSION, ULONG, PVOID);
ULONG __wrap_HttpInitialize(HTTPAPI_VERSION version, ULONG flags, PVOID reserved) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) return __real_HttpInitialize(version, flags, reserved);
    const bool usual = version.HttpApiMajorVersion == 1 && version.HttpApiMinorVersion == 0 &&
                       flags == HTTP_INITIALIZE_SERVER && !reserved;
    return system->Note(usual ? "HttpInitialize" : "HttpInitialize otherwise");
}

ULONG __real_HttpTerminate(ULONG, PVOID);
ULONG __wrap_HttpTerminate(ULONG flags, PVOID reserved) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) return __real_HttpTerminate(flags, reserved);
    return system->Note("HttpTerminate");
}

ULONG __real_HttpCreateHttpHandle(PHANDLE, ULONG);
ULONG __wrap_HttpCreateHttpHandle(PHANDLE queue, ULONG options) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) return __real_HttpCreateHttpHandle(queue, options);
    const ULONG error = system->Note("HttpCreateHttpHandle");
    if (error == NO_ERROR) *queue = kQueue;
    return error;
}

ULONG __real_HttpAddUrl(HANDLE, PCWSTR, PVOID);
ULONG __wrap_HttpAddUrl(HANDLE queue, PCWSTR url, PVOID reserved) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) return __real_HttpAddUrl(queue, url, reserved);
    return system->Note("HttpAddUrl " + Utf8(url));
}

ULONG __real_HttpRemoveUrl(HANDLE, PCWSTR);
ULONG __wrap_HttpRemoveUrl(HANDLE queue, PCWSTR url) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) return __real_HttpRemoveUrl(queue, url);
    return system->Note("HttpRemoveUrl " + Utf8(url));
}

ULONG __real_HttpReceiveHttpRequest(HANDLE, HTTP_REQUEST_ID, ULONG, PHTTP_REQUEST, ULONG, PULONG,
                                    LPOVERLAPPED);
ULONG __wrap_HttpReceiveHttpRequest(HANDLE queue, HTTP_REQUEST_ID requestId, ULONG flags,
                                    PHTTP_REQUEST buffer, ULONG size, PULONG received,
                                    LPOVERLAPPED overlapped) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) {
        return __real_HttpReceiveHttpRequest(queue, requestId, flags, buffer, size, received,
                                             overlapped);
    }
    const auto error = system->errors.find("HttpReceiveHttpRequest");
    const ULONG answer = error == system->errors.end() ? ULONG{ERROR_IO_PENDING} : error->second;
    if (answer != ERROR_IO_PENDING && answer != NO_ERROR) {
        system->Note("HttpReceiveHttpRequest");
        return answer;
    }
    system->AddReceive({requestId, flags, buffer, size, overlapped});
    return answer;
}

HANDLE __real_CreateIoCompletionPort(HANDLE, HANDLE, ULONG_PTR, DWORD);
HANDLE __wrap_CreateIoCompletionPort(HANDLE file, HANDLE existing, ULONG_PTR key,
                                     DWORD concurrency) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) return __real_CreateIoCompletionPort(file, existing, key, concurrency);
    if (const ULONG error = system->Note("CreateIoCompletionPort")) {
        SetLastError(error);
        return nullptr;
    }
    system->concurrency = concurrency;
    system->portKey = key;
    return kPort;
}

BOOL __real_GetQueuedCompletionStatus(HANDLE, LPDWORD, PULONG_PTR, LPOVERLAPPED*, DWORD);
BOOL __wrap_GetQueuedCompletionStatus(HANDLE port, LPDWORD bytes, PULONG_PTR key,
                                      LPOVERLAPPED* overlapped, DWORD timeout_ms) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) return __real_GetQueuedCompletionStatus(port, bytes, key, overlapped, timeout_ms);
    // Who does not wait for ever waits for what a closed queue leaves, and that is there already.
    if (timeout_ms != INFINITE && system->Empty()) {
        *overlapped = nullptr;
        SetLastError(WAIT_TIMEOUT);
        return FALSE;
    }
    const CFakeSystem::Packet packet = system->Take();
    *bytes = packet.overlapped ? kRequestBuffer_bytes : 0;  // a receive that filled its buffer
    *key = packet.key;
    *overlapped = packet.overlapped;
    if (packet.error == NO_ERROR) return TRUE;
    SetLastError(packet.error);
    return FALSE;
}

BOOL __real_PostQueuedCompletionStatus(HANDLE, DWORD, ULONG_PTR, LPOVERLAPPED);
BOOL __wrap_PostQueuedCompletionStatus(HANDLE port, DWORD bytes, ULONG_PTR key,
                                       LPOVERLAPPED overlapped) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) return __real_PostQueuedCompletionStatus(port, bytes, key, overlapped);
    if (system->failPosts > 0) {
        --system->failPosts;
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    system->Note("Post key " + std::to_string(key));
    system->Complete(overlapped, key);
    return TRUE;
}

BOOL __real_CloseHandle(HANDLE);
BOOL __wrap_CloseHandle(HANDLE handle) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (!system) return __real_CloseHandle(handle);
    if (handle == kQueue || handle == kPort) {
        system->Note(handle == kQueue ? "CloseHandle queue" : "CloseHandle port");
        if (handle == kQueue) system->AbortReceives();
        return TRUE;
    }
    system->Note("CloseHandle");
    return __real_CloseHandle(handle);
}

uintptr_t __real__beginthreadex(void*, unsigned, ThreadStart, void*, unsigned, unsigned*);
uintptr_t __wrap__beginthreadex(void* security, unsigned stack, ThreadStart start, void* argument,
                                unsigned flags, unsigned* id) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (system) {
        std::string event = "start sniffer";
        if (start == &CHttpCommandHandler::HttpRequestIssuer)
            event = "start issuer";
        else if (start == &CHttpCommandHandler::HttpRequestHandler)
            event = "start worker " + std::to_string(system->workersStarted++);
        if (const ULONG error = system->Note(event)) {
            SetLastError(error);
            return 0;
        }
    }
    return __real__beginthreadex(security, stack, start, argument, flags, id);
}

HRESULT __real_CoInitializeEx(LPVOID, DWORD);
HRESULT __wrap_CoInitializeEx(LPVOID reserved, DWORD model) {
    const CAllocationFaultPause pause;
    CFakeSystem* system = g_system;
    if (system && system->coInitialize.count("")) return system->coInitialize[""];
    return __real_CoInitializeEx(reserved, model);
}

}  // extern "C"

CFakeSystem::CFakeSystem() {
    g_system = this;
}
CFakeSystem::~CFakeSystem() {
    g_system = nullptr;
}

ULONG CFakeSystem::Note(const std::string& event) {
    const std::lock_guard lock(m_lock);
    m_events.push_back(event);
    const auto error = errors.find(event);
    return error == errors.end() ? static_cast<ULONG>(NO_ERROR) : error->second;
}

std::vector<std::string> CFakeSystem::Events() const {
    const std::lock_guard lock(m_lock);
    return m_events;
}

size_t CFakeSystem::IndexOf(const std::string& event) const {
    const auto events = Events();
    return static_cast<size_t>(std::find(events.begin(), events.end(), event) - events.begin());
}

bool CFakeSystem::Happened(const std::string& event) const {
    return IndexOf(event) < Events().size();
}

void CFakeSystem::AddReceive(const Receive& receive) {
    const std::lock_guard lock(m_lock);
    m_receives.push_back(receive);
    m_pending.insert(receive.overlapped);
    m_changed.notify_all();
}

void CFakeSystem::AbortReceives() {
    const std::lock_guard lock(m_lock);
    for (OVERLAPPED* overlapped : m_pending)
        m_packets.push_back({overlapped, portKey, ERROR_OPERATION_ABORTED});
    m_pending.clear();
    m_changed.notify_all();
}

std::vector<CFakeSystem::Receive> CFakeSystem::WaitForReceives(size_t count) {
    std::unique_lock lock(m_lock);
    m_changed.wait(lock, [&] { return m_receives.size() >= count; });
    return m_receives;
}

size_t CFakeSystem::ReceiveCount() const {
    const std::lock_guard lock(m_lock);
    return m_receives.size();
}

void CFakeSystem::Complete(OVERLAPPED* overlapped, ULONG_PTR key, DWORD error) {
    const std::lock_guard lock(m_lock);
    m_pending.erase(overlapped);
    m_packets.push_back({overlapped, key, error});
    m_changed.notify_all();
}

CFakeSystem::Packet CFakeSystem::Take() {
    std::unique_lock lock(m_lock);
    ++m_waiting;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return !m_packets.empty(); });
    --m_waiting;
    const Packet packet = m_packets.front();
    m_packets.pop_front();
    m_changed.notify_all();
    return packet;
}

bool CFakeSystem::Empty() const {
    const std::lock_guard lock(m_lock);
    return m_packets.empty();
}

void CFakeSystem::WaitUntilIdle(int workers) {
    std::unique_lock lock(m_lock);
    m_changed.wait(lock, [&] { return m_packets.empty() && m_waiting == workers; });
}
