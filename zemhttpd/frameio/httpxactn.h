// The blocks in which requests live, their pools, and the stage timer. A CHttpXaction carries one
// request from the posted receive until its reply has gone out; a CFrameIoXaction carries one frame
// read or write while the media library works on it. The issuer takes HTTP blocks, workers and the
// media library's threads give them back; frame blocks are taken by workers. Each pool has its own
// lock and no code holds two of them.
#pragma once

#include "mediaio/zemiotypes.h"
#include "platform/platform.h"
#include "zemhttpd/commands/command.h"
#include "zemhttpd/server/binmap.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

class CHttpCommandHandler;
class CZemChannelIo;
struct ZemClient;

// The stages that a transaction passes, as its timer records them.
enum XactionStage : DWORD {
    kStageTimerStart = 0,
    kStageAcquiringIoContext = 1,
    kStageReadingReqData = 2,
    kStageIssuingZemRequest = 3,
    kStageBeginIoCompletion = 4,
    kStagePreparingReply = 5,
    kStageSendingZemReplyHdr = 6,
    kStageZemReplyHdrSendError = 7,
    kStageZemReplyHdrSent = 8,
    kStageSendingFrameData = 9,
    kStageFrameDataSendError = 10,
    kStageFrameDataSent = 11,
    kStageIssuingZemIoCompletion = 12,
    kStageZemIoCompletionEnd = 13,
    kStageIoContextReleased = 14,
};
inline constexpr DWORD kStageCount = 15;

// Collects stage marks and, when it is destroyed late, writes them to the error log. Marks may come
// from several threads; Start, SetName and the dump run when nobody marks.
class CZemTimer {
public:
    CZemTimer() = default;
    virtual ~CZemTimer();  // DumpIfSlow
    CZemTimer(const CZemTimer&) = delete;
    CZemTimer& operator=(const CZemTimer&) = delete;

    void Start();                            // stage 0, now
    void SetName(const WCHAR* format, ...);  // at most 259 characters are kept
    void MarkStage(DWORD stage);             // counted always, stored while there is room
    void DumpIfSlow();  // older than the threshold: one record and one per stage
    void Discard() { m_count.store(0, std::memory_order_relaxed); }  // nothing to dump any more

    static constexpr LONG kMaxStages = 25;
    LONG Count() const { return m_count.load(std::memory_order_relaxed); }
    ULONGLONG StageAt(LONG index) const { return m_stages[index]; }
    const WCHAR* Name() const { return m_name; }

protected:
    const WCHAR* StageName(DWORD stage) const;

    ULONGLONG m_stages[kMaxStages];  // low half: tick in ms, high half: stage
    std::atomic<LONG> m_count{0};    // may run past kMaxStages
    DWORD m_threshold_ms = 0xFFFFFFFFu;
    WCHAR m_name[kNameUnits] = {};
    const WCHAR* const* m_stageNames = nullptr;
};

class CZemHttpdXactionTimer final : public CZemTimer {
public:
    CZemHttpdXactionTimer();
    // Begins a command: "ZemHttpdXaction <client>: <description>, transId <n>".
    void StartXaction(const WCHAR* client, const WCHAR* description, DWORD transId);
};

inline constexpr ULONG kRequestBuffer_bytes = 4096;

// One HTTP transaction. The OVERLAPPED of its receive is the first member: a completion packet's
// pointer is the block.
class CHttpXaction {
public:
    CHttpXaction() { Reset(); }
    CHttpXaction(const CHttpXaction&) = delete;
    CHttpXaction& operator=(const CHttpXaction&) = delete;

    OVERLAPPED* Overlapped() { return &m_overlapped; }
    CHttpCommandHandler* Owner() const { return m_owner; }
    HTTP_REQUEST* Request() const { return m_request; }
    HTTP_REQUEST_ID RequestId() const { return m_request ? m_request->RequestId : HTTP_NULL_ID; }
    BYTE* RequestBuffer() { return m_requestBuffer; }
    static constexpr ULONG RequestBufferSize() { return kRequestBuffer_bytes; }
    HTTP_RESPONSE& Response() { return m_response; }
    HTTP_DATA_CHUNK& DataChunk() { return m_dataChunk; }
    DWORD TransId() const { return m_transId; }
    void SetTransId(DWORD transId) { m_transId = transId; }
    bool ReplySent() const { return m_replySent != 0; }
    void SetReplySent() { m_replySent = 1; }
    CZemHttpdXactionTimer& Timer() { return m_timer; }
    DWORD StartTick() const { return m_startTick; }
    void SetStartTick(DWORD tick) { m_startTick = tick; }
    LONG SendCount() const { return m_sendCount; }
    void BumpSendCount() { ++m_sendCount; }
    ULONG SendError() const { return m_sendError; }  // of the last command reply that was refused
    void SetSendError(ULONG error) { m_sendError = error; }
    LONG ReceiveCount() const { return m_receiveCount; }
    void BumpReceiveCount() { ++m_receiveCount; }
    bool InUse() const { return m_inUse != 0; }
    // A frame write that stands in its client's line, or whose turn has come: the record, with a
    // reference of its own. Else null.
    ZemClient* InLine() const { return m_inLine; }
    void SetInLine(ZemClient* client) { m_inLine = client; }
    // A frame write that stood at the write gate and may try again; true once.
    void SetLetIn() { m_letIn = true; }
    bool TakeLetIn() { return std::exchange(m_letIn, false); }
    // Of a write at the gate: it is the real-time client's.
    bool Ahead() const { return m_ahead; }
    void SetAhead(bool ahead) { m_ahead = ahead; }
    // What of a frame write the media library was given; given once.
    ULONGLONG TakeHandedOver_bytes() { return std::exchange(m_handedOver_bytes, 0); }
    void SetHandedOver(ULONGLONG size_bytes) { m_handedOver_bytes = size_bytes; }
    // How much of the request buffer a reset has to clear: all of it, unless the completion of the
    // receive told what it wrote; then whoever writes further says so.
    void NoteReceived(size_t bytes) { m_written_bytes = Bounded(bytes); }
    void NoteWritten(size_t end_bytes) {
        m_written_bytes = std::max(m_written_bytes, Bounded(end_bytes));
    }

private:
    friend class CHttpXactionPool;
    friend struct XactionTestAccess;  // tests look at offsets and build blocks outside a pool

    void Reset();  // all but owner, request and timer
    static ULONG Bounded(size_t bytes) {
        return static_cast<ULONG>(std::min<size_t>(bytes, kRequestBuffer_bytes));
    }

    OVERLAPPED m_overlapped;
    CHttpCommandHandler* m_owner = nullptr;
    BYTE m_requestBuffer[kRequestBuffer_bytes];  // HTTP_REQUEST and what it points to
    HTTP_REQUEST* m_request = nullptr;           // start of m_requestBuffer
    HTTP_RESPONSE m_response;
    ULONGLONG m_reserved1;
    LONG m_inUse;
    HTTP_DATA_CHUNK m_dataChunk;
    DWORD m_transId;
    LONG m_replySent;
    CZemHttpdXactionTimer m_timer;
    DWORD m_startTick;  // ms; "slow" is measured from here
    DWORD m_reserved2;
    LONG m_sendCount;
    LONG m_receiveCount;
    ULONG m_sendError;
    ULONG m_written_bytes = kRequestBuffer_bytes;  // of the request buffer; the rest is zero
    ZemClient* m_inLine = nullptr;
    bool m_letIn = false;
    bool m_ahead = false;
    ULONGLONG m_handedOver_bytes = 0;

public:
    CHttpXaction* nextInLine = nullptr;  // the line's link, guarded by its lock
};

// The HTTP transaction blocks: first in, first out, bounded by a semaphore.
//
// Waking the issuer costs a system call and a switch. Once receives are reported (ReceivePosted),
// Release keeps its semaphore counts back while at least half of the pool's receives are posted,
// and hands them over in one call when pick-ups bring the number below that. Unreported pools
// release at once.
class CHttpXactionPool {
public:
    CHttpXactionPool();
    ~CHttpXactionPool();
    CHttpXactionPool(const CHttpXactionPool&) = delete;
    CHttpXactionPool& operator=(const CHttpXactionPool&) = delete;

    HRESULT Init(CHttpCommandHandler* handler, int count);
    // Waits alertably, as long as it takes. The converted wait result when an APC ended the wait
    // (0x800700C0).
    HRESULT Acquire(CHttpXaction*& xaction);
    void Release(CHttpXaction* xaction);  // a block that is not in use is left alone
    // The block of a receive that failed, or that could not be posted: it stays out of the pool and
    // is counted.
    void KeepBlock() { m_kept.fetch_add(1, std::memory_order_relaxed); }

    // The block whose receive completed, or null for a pointer that is no block of this pool.
    CHttpXaction* Owns(const OVERLAPPED* overlapped) const;
    void ReceivePosted();    // issuer, after each receive that was taken
    void ReceivePickedUp();  // worker, for each completed receive
    bool AnyPosted() const { return m_posted.load() > 0; }

    int Count() const { return m_count; }
    int FreeCount();
    int KeptCount() const { return m_kept.load(std::memory_order_relaxed); }
    // The n-th block. REQUIRES: 0 <= n < Count().
    CHttpXaction& At(int n) { return m_blocks[n]; }

private:
    bool PlentyPosted(int posted) const;
    void HandOver(int more);  // to the semaphore: what is withheld, and `more`

    std::unique_ptr<CHttpXaction[]> m_blocks;
    int m_count = 0;
    std::unique_ptr<CHttpXaction*[]> m_free;  // ring of m_count places
    int m_freeHead = 0;
    int m_freeCount = 0;
    CRITICAL_SECTION m_lock;  // guards the ring
    HANDLE m_semaphore = nullptr;
    // Receives that no worker has picked up yet; below 0 for a moment when a worker is faster.
    // Where completions queue up in the port (Windows), those count as posted too, so that the
    // issuer may sleep longer than it should; the next pick-ups put that right.
    std::atomic<int> m_posted{0};
    std::atomic<int> m_withheld{0};  // blocks in the ring that the semaphore does not count yet
    std::atomic<int> m_kept{0};
};

// One frame I/O while the media library works on it.
struct CFrameIoXaction {
    // Alive until the completion routine has returned: the library sees to it.
    CZemChannelIo* channel;
    CHttpCommandHandler* owner;
    CHttpXaction* httpXaction;
    ElemStrmEntry entries[kMaxStreamEntries];
    ZemElemStrmIoData streamData;  // its entry pointer is set once
    ZemIoDesc ioDesc;              // its stream pointer is set once
};
static_assert(sizeof(CFrameIoXaction) == 24 + 3168 + 16 + 64);

// The frame I/O blocks: taken without waiting, found again by the id of the HTTP request that they
// serve. One allocation of about 22.5 MB, made with the server object.
class CFrameIoXactionPool {
public:
    static constexpr int kBlocks = 7200;

    CFrameIoXactionPool();
    ~CFrameIoXactionPool();
    CFrameIoXactionPool(const CFrameIoXactionPool&) = delete;
    CFrameIoXactionPool& operator=(const CFrameIoXactionPool&) = delete;

    // Once, before any other call; reads "ReclaimFrameBlocks" from the registry.
    void Initialize(CHttpCommandHandler* handler);

    CFrameIoXaction* AcquireBlock();  // null when all are out
    // Under the request id of its HTTP transaction. Throws HRESULT E_OUTOFMEMORY.
    void RegisterBlock(CFrameIoXaction* block);
    void ReleaseBlock(CFrameIoXaction* block);  // null is ignored
    // The block of a failed write request: it stays out of the pool and is counted, unless the
    // registry asks for it back.
    void KeepBlock(CFrameIoXaction* block);

    // Every block that was acquired is ended by exactly one EndIo, after the last use of it and of
    // its HTTP transaction.
    void EndIo() { m_active.fetch_sub(1, std::memory_order_release); }
    // Shut-down: returns when every frame I/O has ended, completions on the library's threads
    // included.
    void WaitUntilIdle() const;

    int FreeCount();
    int KeptCount() const { return m_kept.load(std::memory_order_relaxed); }
    int ActiveCount() const { return m_active.load(std::memory_order_acquire); }
    CFrameIoXaction* FindBlock(HTTP_REQUEST_ID requestId);  // null when none is registered

private:
    CFrameIoXaction m_blocks[kBlocks];
    CFrameIoXaction* m_free[kBlocks];  // ring
    int m_freeHead = 0;
    int m_freeCount = 0;
    CBinMap<HTTP_REQUEST_ID, CFrameIoXaction*, CNumberKeyTraits> m_byRequest;
    CRITICAL_SECTION m_lock;  // guards ring and map
    std::atomic<int> m_active{0};
    std::atomic<int> m_kept{0};
    bool m_reclaim = false;
};
