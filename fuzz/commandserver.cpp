// The server without sockets, and the calls of the HTTP interface that it makes.
#include "fuzz/commandserver.h"

#include <arpa/inet.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <mutex>

#include "fuzz/fuzz.h"
#include "mediaio/errorlog.h"
#include "mediaio/store/filetable.h"
#include "platform/posix/http_layout.h"
#include "zemhttpd/server/httpcmdhdlr.h"

using fuzz::Require;

// The server's private parts, by reference.
struct ServerTestAccess {
    CHttpCommandHandler& server;
    HANDLE& RequestQueue() { return server.m_requestQueue; }
    CHttpXactionPool*& XactionPool() { return server.m_xactionPool; }
    IZemMemAllocator*& Allocator() { return server.m_allocator; }
    CFrameIoXactionPool& FramePool() { return *server.m_framePool; }
    WCHAR* VolumeRoot() { return server.m_volumeRoot; }
    void DeleteClients() { server.DeleteRemainingClients(); }
};

namespace {

constexpr int kBlocks = 4;
constexpr size_t kAllocator_bytes = 125829120;  // as the server has

// What the network does with the running request.
struct CNetwork {
    std::mutex lock;  // frame reads are answered on the library's threads
    uint64_t id = 0;
    std::string_view rest;  // of the body
    bool gone = false;
    bool refuse = false;
    int answers = 0;
    fuzz::Answer answer;
};
CNetwork g_network;

CHttpCommandHandler* g_server;

uint64_t Touch(const void* data, size_t size) {
    const auto* bytes = static_cast<const volatile uint8_t*>(data);
    uint64_t sum = 0;
    for (size_t i = 0; i < size; ++i)
        sum += bytes[i];
    return sum;
}

size_t Length(const WCHAR* text) {
    return text ? std::char_traits<WCHAR>::length(text) : 0;
}

void CheckHeader(const HTTP_KNOWN_HEADER& header) {
    if (header.pRawValue) Touch(header.pRawValue, header.RawValueLength);
}

}  // namespace

extern "C" {

ULONG __wrap_HttpSendHttpResponse(HANDLE, HTTP_REQUEST_ID requestId, ULONG, PHTTP_RESPONSE response,
                                  PVOID, PULONG sent_bytes, PVOID, ULONG, LPOVERLAPPED, PVOID) {
    const std::lock_guard hold(g_network.lock);
    Require(requestId == g_network.id, "an answer is the running request's");
    Require(++g_network.answers == 1, "there is one answer");
    g_network.answer.status = response->StatusCode;
    Touch(response->pReason, response->ReasonLength);
    for (const HTTP_KNOWN_HEADER& header : response->Headers.KnownHeaders)
        CheckHeader(header);
    for (USHORT i = 0; i < response->Headers.UnknownHeaderCount; ++i) {
        Touch(response->Headers.pUnknownHeaders[i].pName,
              response->Headers.pUnknownHeaders[i].NameLength);
        Touch(response->Headers.pUnknownHeaders[i].pRawValue,
              response->Headers.pUnknownHeaders[i].RawValueLength);
    }
    ULONGLONG total = 0;
    bool known = true;  // the length of a file's chunk may be told by the file
    for (USHORT i = 0; i < response->EntityChunkCount; ++i) {
        const HTTP_DATA_CHUNK& chunk = response->pEntityChunks[i];
        if (chunk.DataChunkType == HttpDataChunkFromMemory) {
            Touch(chunk.FromMemory.pBuffer, chunk.FromMemory.BufferLength);
            total += chunk.FromMemory.BufferLength;
            g_network.answer.body.append(static_cast<const char*>(chunk.FromMemory.pBuffer),
                                         chunk.FromMemory.BufferLength);
        } else {
            known = false;
        }
    }
    const HTTP_KNOWN_HEADER& length = response->Headers.KnownHeaders[HttpHeaderContentLength];
    if (length.pRawValue && known) {
        const std::string text(length.pRawValue, length.RawValueLength);
        Require(std::strtoull(text.c_str(), nullptr, 10) == total,
                "an answer is as long as it says");
    }
    if (sent_bytes) *sent_bytes = static_cast<ULONG>(total);
    return g_network.refuse ? ERROR_CONNECTION_INVALID : NO_ERROR;
}

ULONG __wrap_HttpReceiveRequestEntityBody(HANDLE, HTTP_REQUEST_ID requestId, ULONG flags,
                                          PVOID buffer, ULONG length, PULONG read_bytes,
                                          LPOVERLAPPED) {
    Require(requestId == g_network.id, "a body read is the running request's");
    const bool fill = (flags & HTTP_RECEIVE_REQUEST_ENTITY_BODY_FLAG_FILL_BUFFER) != 0;
    const size_t most =
        fill ? g_network.rest.size() : std::min<size_t>(g_network.rest.size(), 1500);
    const size_t n = std::min<size_t>(length, most);
    if (n > 0) std::memcpy(buffer, g_network.rest.data(), n);
    // All of it may be written to, and is as soon as a client sends that much.
    if (length > n) std::memset(static_cast<char*>(buffer) + n, 0, length - n);
    g_network.rest.remove_prefix(n);
    if (read_bytes) *read_bytes = static_cast<ULONG>(n);
    if (n > 0 || length == 0) return NO_ERROR;
    return g_network.gone ? ERROR_NETNAME_DELETED : ERROR_HANDLE_EOF;
}

DWORD ErrorLogCreateChainId(HRESULT hr) {
    return static_cast<DWORD>(hr);
}
BOOL ErrorLogWriteEntryPointW(DWORD, const SYSTEMTIME*, const WCHAR* functionName) {
    Require(Length(functionName) < 4096, "a function's name is short");
    return TRUE;
}
BOOL ErrorLogWriteExW(HRESULT, const SYSTEMTIME*, DWORD, DWORD, const WCHAR* file, LONG, DWORD,
                      const WCHAR* text, DWORD) {
    Require(Length(file) < 4096 && Length(text) < 65536, "a record is bounded");
    return TRUE;
}
BOOL ErrorLogWriteOwnerInfoW(LONG, const SYSTEMTIME*, const WCHAR* a, const WCHAR* b,
                             const WCHAR* c, const WCHAR* d, LONG) {
    return Length(a) + Length(b) + Length(c) + Length(d) < 65536;
}

}  // extern "C"

namespace fuzz {
namespace {

void SetValue(const WCHAR* key, const WCHAR* name, DWORD type, const void* data, size_t size) {
    Require(OverrideRegistryValue(key, name, type, data, static_cast<DWORD>(size)),
            "a registry value is set");
}

ServerTestAccess Access() {
    return {*g_server};
}

std::string g_root;

void RemoveRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(g_root, ignored);
}

constexpr const char* kVolume = "zem-fuzz-";

// Volumes of processes that have ended without cleaning up, as fuzzers do.
void RemoveLeftBehind(const std::string& folder) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        const std::string name = entry.path().filename();
        if (!name.starts_with(kVolume)) continue;
        const int pid = std::atoi(name.c_str() + std::strlen(kVolume));
        if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH)
            std::filesystem::remove_all(entry.path(), error);
    }
}

}  // namespace

CCommandServer& CCommandServer::Instance() {
    static auto* server = new CCommandServer;
    return *server;
}

CCommandServer::CCommandServer() {
    Require(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)),
            "the worker has an apartment");
    std::error_code error;
    const bool memory = std::filesystem::is_directory("/dev/shm", error);
    const std::string folder = memory ? "/dev/shm" : "/tmp";
    RemoveLeftBehind(folder);
    m_root = folder + "/" + kVolume + std::to_string(getpid()) + "-XXXXXX";
    Require(mkdtemp(m_root.data()) != nullptr, "there is a volume");
    g_root = m_root;
    std::atexit(RemoveRoot);
    m_wideRoot.assign(m_root.begin(), m_root.end());
    SetValue(TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs"), TEXT("0"), REG_SZ,
             m_wideRoot.c_str(), (m_wideRoot.size() + 1) * sizeof(WCHAR));
    const DWORD on = 1;
    // Failed writes give their blocks back: after every input all of them can be counted.
    SetValue(TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM"), TEXT("ReclaimFrameBlocks"),
             REG_DWORD, &on, sizeof on);
    SetValue(TEXT("HKEY_LOCAL_MACHINE\\Software\\WOW6432Node\\Quorvane Group\\ZEM"), TEXT("RsDbg"),
             REG_DWORD, &on, sizeof on);

    g_server = new CHttpCommandHandler;
    ServerTestAccess access = Access();
    access.RequestQueue() = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x5151));
    access.Allocator() = new CZemMemAllocator;
    Require(access.Allocator()->Initialize(kAllocator_bytes, nullptr) == S_OK, "there is memory");
    access.FramePool().Initialize(g_server);
    access.XactionPool() = new CHttpXactionPool;
    Require(access.XactionPool()->Init(g_server, kBlocks) == S_OK, "there are blocks");
    const std::u16string wide = m_wideRoot + u'\\';
    std::memcpy(access.VolumeRoot(), wide.c_str(), (wide.size() + 1) * sizeof(WCHAR));
}

// As the HTTP interface delivers it.
bool CCommandServer::Lay(const Request& request, void* buffer, size_t& used) {
    static posix::RequestHead head;
    static posix::CookedPath path;
    posix::TargetParts target;
    if (posix::ParseHead(request.head.data(), request.head.size(), head) != posix::EParse::Done ||
        posix::SplitTarget(head.verb, head.target, target) != 0 ||
        posix::CookPath(target.path, path) != 0) {
        return false;
    }
    posix::CSocketAddress address{};
    address.v4.sin_family = AF_INET;
    address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    posix::CRequestView view{};
    view.head = &head;
    view.base = request.head.data();
    view.target = &target;
    view.path = &path;
    view.remote = view.local = &address;
    view.connection_id = 1;
    view.request_id = ++m_lastId;
    posix::Measure(view);
    if (view.layout_bytes > kRequestBuffer_bytes - posix::kReserveBytes) return false;  // 431
    view.body = request.body.data();
    view.body_bytes = std::min(request.received_bytes, request.body.size());
    view.body_done = view.body_bytes == request.body.size();
    size_t copied = 0;
    used = posix::LayOut(view, HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY, buffer, kRequestBuffer_bytes,
                         &copied);
    g_network.rest = std::string_view(request.body).substr(copied);
    return true;
}

bool CCommandServer::Run(const Request& request, Answer& answer) {
    ServerTestAccess access = Access();
    CHttpXaction* block = nullptr;
    Require(access.XactionPool()->Acquire(block) == S_OK, "there is a block");
    size_t used = 0;
    if (!Lay(request, block->RequestBuffer(), used)) {
        access.XactionPool()->Release(block);
        return false;
    }
    g_network.id = m_lastId;
    g_network.gone = request.gone;
    g_network.refuse = request.refuse;
    g_network.answers = 0;
    g_network.answer = {};
    block->NoteReceived(std::max(used, sizeof(HTTP_REQUEST)));
    block->SetStartTick(GetTickCount());
    if (g_server->ProcessRequest(*block) != S_FALSE) access.XactionPool()->Release(block);
    while (access.FramePool().ActiveCount() != 0)
        sched_yield();  // on one of the library's threads
    const std::lock_guard hold(g_network.lock);
    Require(g_network.answers == 1, "every request is answered");
    answer = g_network.answer;
    return true;
}

void CCommandServer::Reset() {
    ServerTestAccess access = Access();
    g_server->SetRealTimeIoClient(TEXT(""));
    access.DeleteClients();
    Require(access.XactionPool()->FreeCount() == kBlocks, "every HTTP block is back");
    Require(access.FramePool().FreeCount() == CFrameIoXactionPool::kBlocks,
            "every frame block is back");
    Require(access.Allocator()->BytesInUse() == 0, "all frame memory is back");
    zemstore::AwaitNoMediaFiles();
    for (const auto& entry : std::filesystem::directory_iterator(m_root))
        std::filesystem::remove_all(entry.path());
}

}  // namespace fuzz
