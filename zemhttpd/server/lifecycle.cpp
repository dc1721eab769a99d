// Start and stop of the server, on the host's thread: the request queue with its URLs, the
// completion port, the memory allocator, the pools and the threads. Stopping takes it down in the
// order of who uses what, from any state.
#include "platform/atomicwait.h"
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/httpcmdhdlr.h"
#include "zemhttpd/server/narrowtext.h"
#include "zemhttpd/server/registrykey.h"

#include <algorithm>
#include <new>

namespace {

constexpr LONG kCatchLineDestructor = 90;
constexpr LONG kLineHttpInit = 113;
constexpr LONG kLineCreateQueue = 118;
constexpr LONG kLineCreatePort = 142;
constexpr LONG kLineAllocator = 150;
constexpr LONG kLineAddUrl = 163;
constexpr LONG kLineIssuerThread = 202;
constexpr LONG kLineSnifferThread = 207;
constexpr LONG kCatchLineInitialize = 211;
constexpr LONG kLineInitializeFailed = 214;
constexpr LONG kCatchLineShutdown = 293;

constexpr DWORD kDefaultPort = 80;
constexpr WCHAR kDefaultVersion[] = TEXT("x.x.x.x");

constexpr DWORD kFileServerAllocator_bytes = 0xF000000;
constexpr DWORD kOrdinaryAllocator_bytes = 0x7800000;
constexpr int kFileServerXactions = 1500;
constexpr int kOrdinaryXactions = 300;

constexpr WCHAR kStock[] =
    TEXT("Blocks at the end: HTTP %d of %d, %d kept; frames %d of %d, %d kept");

constexpr DWORD kTakeBack_ms = 5000;  // from one aborted receive to the next

HRESULT LastErrorAsHresult() {
    return HRESULT_FROM_WIN32(GetLastError());
}

void NTAPI EndAlertableWait(ULONG_PTR) {}

}  // namespace

// There is no scope yet that could log: whatever member cannot be had, the caller gets the HRESULT.
CHttpCommandHandler::CHttpCommandHandler() try
    : m_framePool(std::make_unique<CFrameIoXactionPool>()), m_urlWords{TEXT("zem"), TEXT("media")} {
} catch (const std::bad_alloc&) {
    throw static_cast<HRESULT>(E_OUTOFMEMORY);
}

CHttpCommandHandler::~CHttpCommandHandler() {
    CZemEntry scope(TEXT("CHttpCommandHandler::~CHttpCommandHandler"));
    try {
        Shutdown();
        m_framePool.reset();
    } catch (...) {  // Not reached in tests: Shutdown has caught what there was
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDestructor);
    }
}

HRESULT CHttpCommandHandler::GetBaseUrl(const WString& word, WString& url) {
    DWORD port = kDefaultPort;
    CRegistryKey(kZemKeyPath).ReadDword(TEXT("HttpPort"), port);
    WCHAR text[kNameUnits];
    _snwprintf_s(text, kNameUnits, _TRUNCATE, TEXT("http://*:%u/%s/"), port, word.c_str());
    url = text;
    return S_OK;
}

HRESULT CHttpCommandHandler::Initialize() {
    CZemEntry scope(TEXT("CHttpCommandHandler::Initialize"));
    try {
        CreateRequestQueue(scope);
        ReadMode();
        CreatePortAndAllocator(scope);
        m_framePool->Initialize(this);
        RegisterUrls(scope);
        ReadIdentity();
        m_xactionPool = new (std::nothrow) CHttpXactionPool;
        if (!m_xactionPool) scope = E_OUTOFMEMORY;
        scope = m_xactionPool->Init(this, XactionCount());
        scope = InitRequestThreadPool();
        StartThreads(scope);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineInitialize);
    }
    if (scope.Failed()) {
        scope.LogError(scope.GetResult(), kSourceCmdHdlr, kLineInitializeFailed,
                       TEXT("Error initializing ZEM HTTP server: remote video IO with this system "
                            "will fail."));
    }
    return scope.GetResult();
}

void CHttpCommandHandler::CreateRequestQueue(CZemEntry& scope) {
    HTTPAPI_VERSION version = HTTPAPI_VERSION_1;
    ULONG error = HttpInitialize(version, HTTP_INITIALIZE_SERVER, nullptr);
    if (error != NO_ERROR) {
        ThrowError(scope, HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineHttpInit,
                   TEXT("Unable to init HTTP server API"));
    }
    m_httpInitialized = true;
    error = HttpCreateHttpHandle(&m_requestQueue, 0);
    if (error != NO_ERROR) {
        ThrowError(scope, HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineCreateQueue,
                   TEXT("Unable create HTTP server queue"));
    }
}

void CHttpCommandHandler::ReadMode() {
    const CRegistryKey key(kZemKeyPath);
    if (!key.IsOpen()) return;
    m_fileServerMode = 0;
    key.ReadDword(TEXT("HttpFileServer"), m_fileServerMode);
    key.ReadDword(TEXT("ReportBlocks"), m_reportBlocks);
    if (FileServerMode() && Tracing()) {
        CZemEntry scope(TEXT("CHttpCommandHandler::Initialize"));
        scope.Trace(TEXT("ZEM HTTP file server mode %d"), m_fileServerMode);
    }
}

int CHttpCommandHandler::XactionCount() const {
    return FileServerMode() ? kFileServerXactions : kOrdinaryXactions;
}

void CHttpCommandHandler::CreatePortAndAllocator(CZemEntry& scope) {
    m_completionPort = CreateIoCompletionPort(
        m_requestQueue, nullptr, reinterpret_cast<ULONG_PTR>(this), ConcurrentWorkers());
    if (!m_completionPort) {
        ThrowError(scope, LastErrorAsHresult(), kSourceCmdHdlr, kLineCreatePort,
                   TEXT("Unable to create HTTP request completion port"));
    }
    m_allocator = new (std::nothrow) CZemMemAllocator;
    if (!m_allocator) scope = E_OUTOFMEMORY;
    const DWORD size_bytes =
        FileServerMode() ? kFileServerAllocator_bytes : kOrdinaryAllocator_bytes;
    scope.SetResult(m_allocator->Initialize(size_bytes, nullptr));
    if (scope.Failed()) {
        ThrowError(scope, scope.GetResult(), kSourceCmdHdlr, kLineAllocator,
                   TEXT("Error initializing ZEM IO memory allocator (size requested %u bytes)"),
                   size_bytes);
    }
    m_writeGate.SetLimits(size_bytes / 2, XactionCount() / 6);
}

void CHttpCommandHandler::RegisterUrls(CZemEntry& scope) {
    for (const WString& word : m_urlWords) {
        WString url;
        GetBaseUrl(word, url);
        const ULONG error = HttpAddUrl(m_requestQueue, url.c_str(), nullptr);
        if (error != NO_ERROR) {
            ThrowError(scope, HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineAddUrl,
                       TEXT("Unable to register base URL '%s' with HTTP server API"), word.c_str());
        }
    }
}

void CHttpCommandHandler::ReadIdentity() {
    std::copy_n(kDefaultVersion, std::size(kDefaultVersion), m_version);
    m_versionLength = kNameUnits;
    CRegistryKey(kProductKeyPath).ReadString(TEXT("version"), m_version, m_versionLength);
    _snprintf_s(m_serverName, sizeof(m_serverName), _TRUNCATE, "Quorvane ZEM /%S", m_version);

    m_volumeRoot[0] = 0;
    const CRegistryKey volume(kVolumeKeyPath);
    WCHAR root[kNameUnits];
    DWORD rootLength = kNameUnits;
    // An empty value is no root: a lone separator would serve the machine's own.
    if (volume.ReadString(TEXT("0"), root, rootLength) && root[0] != 0)
        _snwprintf_s(m_volumeRoot, kNameUnits, _TRUNCATE, TEXT("%s\\"), root);

    WCHAR computer[kNameUnits] = {};
    DWORD computerLength = kNameUnits;
    if (!GetComputerNameW(computer, &computerLength)) computer[0] = 0;
    NarrowText(computer, m_computerName, sizeof(m_computerName));
}

void CHttpCommandHandler::StartThreads(CZemEntry& scope) {
    // A failed start passes on the result of the last HTTP call, which succeeded: creation then
    // reports success.
    constexpr HRESULT kLastHttpResult = S_OK;
    unsigned threadId = 0;
    m_issuerThread =
        reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, HttpRequestIssuer, this, 0, &threadId));
    if (!m_issuerThread) {
        ThrowError(scope, kLastHttpResult, kSourceCmdHdlr, kLineIssuerThread,
                   TEXT("Unable to create HTTP request issuer"));
    }
    m_snifferThread =
        reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, SniffDeadClients, this, 0, &threadId));
    if (!m_snifferThread) {
        ThrowError(scope, kLastHttpResult, kSourceCmdHdlr, kLineSnifferThread,
                   TEXT("Unable to create dead-client sniffer thread"));
    }
}

void CHttpCommandHandler::Shutdown() {
    CZemEntry scope(TEXT("CHttpCommandHandler::Shutdown"));
    try {
        StopLongThreads();
        CloseRequestThreadPool();
        // Completions that are still on the media library's threads use both pools, the queue and
        // their channel.
        m_framePool->WaitUntilIdle();
        CloseHttp();
        const bool allBack = TakeBackReceives();
        if (m_completionPort) {
            CloseHandle(m_completionPort);
            m_completionPort = nullptr;
        }
        ForgetWritesInLine();
        TakeStock(scope);
        if (allBack) delete m_xactionPool;  // else the system may still write into a block
        m_xactionPool = nullptr;
        DeleteRemainingClients();
        delete m_allocator;
        m_allocator = nullptr;
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineShutdown);
    }
}

// The sniffer waits on the issuer's handle, so that handle stays open until the sniffer has ended
// too.
void CHttpCommandHandler::StopLongThreads() {
    // A call that is queued before its thread has begun may run ahead of the thread's routine, and
    // would end no wait.
    if (m_issuerThread) WaitWhile(m_issuerBegun, false);
    for (const HANDLE thread : {m_issuerThread, m_snifferThread}) {
        if (!thread) continue;
        QueueUserAPC(EndAlertableWait, thread, 0);
        WaitForSingleObject(thread, INFINITE);
    }
    for (HANDLE* thread : {&m_issuerThread, &m_snifferThread}) {
        if (!*thread) continue;
        CloseHandle(*thread);
        *thread = nullptr;
    }
}

void CHttpCommandHandler::CloseHttp() {
    if (m_requestQueue) {
        for (const WString& word : m_urlWords) {
            WString url;
            GetBaseUrl(word, url);
            HttpRemoveUrl(m_requestQueue, url.c_str());
        }
        CloseHandle(m_requestQueue);
        m_requestQueue = nullptr;
    }
    if (m_httpInitialized) {
        HttpTerminate(HTTP_INITIALIZE_SERVER, nullptr);
        m_httpInitialized = false;
    }
}

// The system owns a block until its receive has completed, be it aborted by the closed queue.
// False: one does not come back.
bool CHttpCommandHandler::TakeBackReceives() {
    while (m_completionPort && m_xactionPool && m_xactionPool->AnyPosted()) {
        DWORD moved_bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* overlapped = nullptr;
        const BOOL ok = GetQueuedCompletionStatus(m_completionPort, &moved_bytes, &key, &overlapped,
                                                  kTakeBack_ms);
        if (!ok && !overlapped) return false;
        CHttpXaction* const xaction = overlapped ? m_xactionPool->Owns(overlapped) : nullptr;
        // The packet of a write whose turn has come is none of a receive.
        if (!xaction || xaction->InLine()) continue;
        m_xactionPool->ReceivePickedUp();
        m_xactionPool->Release(xaction);
    }
    return true;
}

// Writes whose turn did not come before the workers ended: their clients are gone with the queue,
// their records are not.
void CHttpCommandHandler::ForgetWritesInLine() {
    m_writeGate.Forget();
    for (int i = 0; m_xactionPool && i < m_xactionPool->Count(); ++i) {
        CHttpXaction& xaction = m_xactionPool->At(i);
        if (!xaction.InLine()) continue;
        const CZemClientRef client = CZemClientRef::Adopt(xaction.InLine());
        xaction.SetInLine(nullptr);
        m_xactionPool->Release(&xaction);
    }
}

// Nothing is at work any more: each block is in its pool or counted as kept. Said when one is
// missing, and to who wants to know.
void CHttpCommandHandler::TakeStock(CZemEntry& scope) {
    if (!m_xactionPool) return;
    const int http = m_xactionPool->Count(), httpFree = m_xactionPool->FreeCount(),
              httpKept = m_xactionPool->KeptCount();
    constexpr int kFrames = CFrameIoXactionPool::kBlocks;
    const int framesFree = m_framePool->FreeCount(), framesKept = m_framePool->KeptCount();
    if (httpFree + httpKept != http || framesFree + framesKept != kFrames)
        scope.LogWarning(kStock, httpFree, http, httpKept, framesFree, kFrames, framesKept);
    else if (m_reportBlocks)
        scope.LogMsg(kStock, httpFree, http, httpKept, framesFree, kFrames, framesKept);
}

void CHttpCommandHandler::DeleteRemainingClients() {
    const CClientTable::CLock lock(m_clients);
    m_clients.UnlinkIf([this](const WString&, ZemClient* client) {
        if (client) DeleteZemClient(client);
        return true;
    });
}
