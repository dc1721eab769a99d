// The receive loop: one issuer thread keeps a receive outstanding for every free transaction block,
// and a fixed number of workers take the completed ones off the port and process them where they
// are.
#include "platform/atomicwait.h"
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/httpcmdhdlr.h"

#include <algorithm>
#include <new>

namespace {

constexpr LONG kLineWorkerThread = 234;
constexpr LONG kCatchLineInitPool = 242;
constexpr LONG kCatchLineClosePool = 268;
constexpr LONG kCatchLineIssuer = 302;
constexpr LONG kCatchLineHandler = 355;
constexpr LONG kLineIssueReceive = 373;
constexpr LONG kCatchLineIssue = 377;

constexpr int kFileServerWorkers = 12;
constexpr int kOrdinaryWorkers = 4;
static_assert(kFileServerWorkers <= MAXIMUM_WAIT_OBJECTS);

// In which writes may stand, in their clients' lines and at the gate, of so many blocks.
constexpr int PlacesToWait(int blocks) {
    return blocks * 3 / 4;
}

// ProcessRequest's word that the request went on asynchronously and gives its block back itself.
constexpr HRESULT kKeepsBlock = S_FALSE;

}  // namespace

DWORD CHttpCommandHandler::ConcurrentWorkers() const {
    return FileServerMode() ? kFileServerWorkers : kOrdinaryWorkers;
}

HRESULT CHttpCommandHandler::InitRequestThreadPool() {
    CZemEntry scope(TEXT("CHttpCommandHandler::InitRequestThreadPool"));
    try {
        const int wanted = static_cast<int>(ConcurrentWorkers());
        m_workerThreads = new (std::nothrow) HANDLE[static_cast<size_t>(wanted)];
        if (!m_workerThreads) scope = E_OUTOFMEMORY;
        // The count is of threads that run, so that closing after a failed start waits for exactly
        // these.
        for (m_workerCount = 0; m_workerCount < wanted; ++m_workerCount) {
            unsigned threadId = 0;
            const HANDLE thread = reinterpret_cast<HANDLE>(
                _beginthreadex(nullptr, 0, HttpRequestHandler, this, 0, &threadId));
            if (!thread) {
                ThrowError(scope, HRESULT_FROM_WIN32(GetLastError()), kSourceCmdHdlr,
                           kLineWorkerThread,
                           TEXT("Unable to create completion-port thread-pool thread #%d."),
                           m_workerCount);
            }
            m_workerThreads[m_workerCount] = thread;
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineInitPool);
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::CloseRequestThreadPool() {
    CZemEntry scope(TEXT("CHttpCommandHandler::CloseRequestThreadPool"));
    try {
        if (m_workerCount != 0) {
            // On Linux there is always a place. Where the system finds no memory for a packet there
            // is some as soon as a worker has taken another.
            for (int i = 0; i < m_workerCount; ++i) {
                while (!PostQueuedCompletionStatus(m_completionPort, 0, 0, nullptr) &&
                       GetLastError() != ERROR_INVALID_HANDLE) {
                    SleepEx(1, FALSE);
                }
            }
            WaitForMultipleObjects(static_cast<DWORD>(m_workerCount), m_workerThreads, TRUE,
                                   INFINITE);
            for (int i = 0; i < m_workerCount; ++i)
                CloseHandle(m_workerThreads[i]);
        }
        delete[] m_workerThreads;
        m_workerThreads = nullptr;
        m_workerCount = 0;
    } catch (...) {  // Not reached in tests: the calls of the system do not throw
        LogCaught(scope, kSourceCmdHdlr, kCatchLineClosePool);
    }
    return scope.GetResult();
}

// `posted` tells what became of it; the result of a failure is whatever chain id the error log
// gave.
HRESULT CHttpCommandHandler::IssueHttpRequest(CHttpXaction& xaction, bool& posted) {
    CZemEntry scope(TEXT("CHttpCommandHandler::IssueHttpRequest"));
    posted = false;
    try {
        const ULONG error = HttpReceiveHttpRequest(
            m_requestQueue, xaction.RequestId(), HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY,
            xaction.Request(), CHttpXaction::RequestBufferSize(), nullptr, xaction.Overlapped());
        if (error != NO_ERROR && error != ERROR_IO_PENDING) {
            ThrowError(scope, HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineIssueReceive,
                       TEXT("Error issuing HTTP receive request"));
        }
        m_xactionPool->ReceivePosted();
        posted = true;
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineIssue);
    }
    return scope.GetResult();
}

unsigned WINAPI CHttpCommandHandler::HttpRequestIssuer(void* server) {
    CZemEntry scope(TEXT("CHttpCommandHandler::HttpRequestIssuer"));
    try {
        NameThisThread(TEXT("zem-issuer"));
        CHttpCommandHandler& self = *static_cast<CHttpCommandHandler*>(server);
        self.m_issuerBegun = true;
        WakeWaiters(self.m_issuerBegun);
        CHttpXaction* xaction = nullptr;
        bool posted = true;
        // The stop APC ends the wait inside; a block whose receive failed is not given back.
        while (posted && self.m_xactionPool->Acquire(xaction) == S_OK) {
            const HRESULT hr = self.IssueHttpRequest(*xaction, posted);
            if (!posted) self.m_xactionPool->KeepBlock();
            scope = hr;
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineIssuer);
    }
    return static_cast<unsigned>(scope.GetResult());
}

unsigned WINAPI CHttpCommandHandler::HttpRequestHandler(void* server) {
    CZemEntry scope(TEXT("CHttpCommandHandler::HttpRequestHandler"));
    bool inApartment = false;
    try {
        NameThisThread(TEXT("zem-worker"));
        CHttpCommandHandler& self = *static_cast<CHttpCommandHandler*>(server);
        scope = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        inApartment = true;
        const LONGLONG serviced = self.ServiceRequests();
        if (self.Tracing()) {
            scope.Trace(TEXT("%I64d HTTP requests serviced on ZEM HTTP command handler thread ID "
                             "0x%x"),
                        serviced, GetCurrentThreadId());
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineHandler);
    }
    if (inApartment) CoUninitialize();
    return static_cast<unsigned>(scope.GetResult());
}

LONGLONG CHttpCommandHandler::ServiceRequests() {
    LONGLONG serviced = 0;
    for (;;) {
        DWORD moved_bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* overlapped = nullptr;
        const BOOL ok =
            GetQueuedCompletionStatus(m_completionPort, &moved_bytes, &key, &overlapped, INFINITE);
        const DWORD error = ok ? NO_ERROR : GetLastError();
        CHttpXaction* xaction = nullptr;
        if (overlapped) {
            // Calls that were made without an OVERLAPPED of ours may leave packets too: not ours,
            // whatever they say.
            xaction = m_xactionPool->Owns(overlapped);
            if (!xaction) continue;
            if (ok && xaction->InLine()) {  // a frame write whose turn has come
                FinishRequest(*xaction);
                continue;
            }
            m_xactionPool->ReceivePickedUp();
            // Even a receive that failed may have left the fixed part.
            xaction->NoteReceived(std::max<size_t>(moved_bytes, sizeof(HTTP_REQUEST)));
        }
        // Any error ends the worker, a request head that did not fit (ERROR_MORE_DATA) like a queue
        // that was closed. Thrown without an entry-point record, so that the worker's catch writes
        // the one record of it, "Unknown error" with the code.
        if (!ok) {
            if (xaction) m_xactionPool->KeepBlock();
            throw HRESULT_FROM_WIN32(error);
        }
        if (!xaction) {
            if (key == 0) return serviced;
            continue;
        }
        ++serviced;
        xaction->SetStartTick(GetTickCount());
        FinishRequest(*xaction);
    }
}

void CHttpCommandHandler::FinishRequest(CHttpXaction& xaction) {
    if (ProcessRequest(xaction) != kKeepsBlock) m_xactionPool->Release(&xaction);
}

ZemClient::ETurn CHttpCommandHandler::TakeWriteTurn(ZemClient& client, CHttpXaction& xaction) {
    const int count = m_xactionPool->Count();
    const int inLine = m_writesInLine.fetch_add(1);
    const bool room = inLine < count / 2 && inLine + m_writeGate.InLine() < PlacesToWait(count);
    const ZemClient::ETurn turn = client.TakeTurn(xaction, room);
    if (turn != ZemClient::ETurn::InLine) m_writesInLine.fetch_sub(1);
    return turn;
}

void CHttpCommandHandler::PassWriteTurn(ZemClient& client) {
    CHttpXaction* const next = client.PassTurn();
    if (!next) return;
    m_writesInLine.fetch_sub(1);
    ContinueWrite(*next);
}

// Lets a write that stood in line be processed, by whichever worker is free.
void CHttpCommandHandler::ContinueWrite(CHttpXaction& xaction) {
    const BOOL posted = PostQueuedCompletionStatus(
        m_completionPort, 0, reinterpret_cast<ULONG_PTR>(this), xaction.Overlapped());
    if (!posted) FinishRequest(xaction);  // without memory for the packet: here and now
}

ZemClient::ETurn CHttpCommandHandler::EnterWriteGate(ZemClient& client, const WCHAR* clientId,
                                                     CHttpXaction& xaction) {
    const bool again = xaction.TakeLetIn();
    if (!m_writeGate.IsOpen(again)) {
        const bool realTime = m_realTimeClient.Is(clientId);
        if (!m_writeGate.IsOpen(realTime)) {
            const int places = PlacesToWait(m_xactionPool->Count()) - m_writesInLine.load();
            const ZemClient::ETurn turn =
                m_writeGate.StandInLine(xaction, client, places, realTime, again);
            if (turn != ZemClient::ETurn::Mine) return turn;
        }
    }
    if (again && m_writeGate.IsOpen()) LeaveWriteGate();
    return ZemClient::ETurn::Mine;
}

void CHttpCommandHandler::HandOverWrite(CHttpXaction& xaction, ULONGLONG size_bytes) {
    xaction.SetHandedOver(size_bytes);
    m_writeGate.HandedOver(size_bytes);
}

void CHttpCommandHandler::LeaveWriteGate() {
    CHttpXaction* next = m_writeGate.Ended();
    while (next) {
        CHttpXaction& xaction = *next;
        next = xaction.nextInLine;  // before it is somebody else's
        ContinueWrite(xaction);
    }
}
