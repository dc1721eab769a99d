// What frame reads and frame writes share: the request, and how a frame block changes hands.
// Worker threads; CFrameIoEnd also on the media library's.
#pragma once

#include "zemhttpd/commands/wire.h"
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/frameio/httpxactn.h"
#include "zemhttpd/server/httpcmdhdlr.h"

#include <algorithm>
#include <cstring>

inline constexpr HRESULT kEndOfMedia = HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
inline constexpr HRESULT kNoResources = HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES);
inline constexpr HRESULT kIoPending = HRESULT_FROM_WIN32(ERROR_IO_PENDING);
static_assert(kEndOfMedia == static_cast<HRESULT>(0x8007044C));
static_assert(kNoResources == static_cast<HRESULT>(0x800705AA));
static_assert(kIoPending == static_cast<HRESULT>(0x800703E5));

// Head and first entry of a frame request, as far as logs and checks need them, copied out before
// the request is overwritten or out of reach.
struct FrameRequest {
    WireFrameHead head = {};
    ULONGLONG token = 0;  // of entry 0
    DWORD position = 0;   // of entry 0

    // False when a field that the command reads would lie beyond the posted buffer. Of the last
    // entry it reads `lastEntry_bytes`. A count that is not allowed asks for no entries: it is
    // refused later, in the command's own way.
    bool ReadFrom(const ZemCommand& command, size_t lastEntry_bytes) {
        constexpr size_t kToken = kFirstEntryOffset + offsetof(WireFrameEntry, token);
        constexpr size_t kPosition = kFirstEntryOffset + offsetof(WireFrameEntry, position);
        if (!CopyFromBody(command, 0, head) || !CopyNumber(command, kToken, token) ||
            !CopyNumber(command, kPosition, position)) {
            return false;
        }
        return !CountAllowed() ||
               BodyHas(command, kFirstEntryOffset,
                       (head.entryCount - 1) * sizeof(WireFrameEntry) + lastEntry_bytes);
    }
    bool CountAllowed() const {
        return head.entryCount >= 1 && head.entryCount <= kMaxStreamEntries;
    }
};

// Entry `index` of a request that ReadFrom accepted. Its unread end may lie beyond the posted
// buffer and is zero then.
inline WireFrameEntry CopyEntry(const ZemCommand& command, DWORD index) {
    WireFrameEntry entry = {};
    const size_t offset = kFirstEntryOffset + index * sizeof(WireFrameEntry);
    std::memcpy(&entry, command.body + offset,
                std::min(sizeof(entry), command.bodyRoom_bytes - offset));
    return entry;
}

// What dispatch is told: S_FALSE when, and only when, the completion has the transaction. Any other
// result may be a number of the error log's own, a 1 too.
inline HRESULT HandlerResult(const CZemEntry& scope, bool handedOver) {
    if (handedOver) return S_FALSE;
    return scope.GetResult() == S_FALSE ? E_FAIL : scope.GetResult();
}

// Gives a block that is not handed to the library back to its pool, and with a channel its write
// buffers to that. The block may be null.
class CFrameBlockGuard {
public:
    explicit CFrameBlockGuard(CFrameIoXactionPool& pool) : m_pool(pool) {}
    CFrameBlockGuard(const CFrameBlockGuard&) = delete;
    CFrameBlockGuard& operator=(const CFrameBlockGuard&) = delete;
    ~CFrameBlockGuard() {
        if (!m_block) return;
        try {
            if (m_channel) m_channel->ReleaseWriteFrameBuffers(m_block->ioDesc);
        } catch (...) {  // the block goes home whatever the library does
            CZemEntry scope(TEXT("CFrameBlockGuard"));
            LogCaught(scope, kSourceCmdHdlr, kCatchLineRelease);
        }
        m_pool.ReleaseBlock(m_block);
        m_pool.EndIo();
    }
    void Guard(CFrameIoXaction* block, CZemChannelIo* channel = nullptr) {
        m_block = block;
        m_channel = channel;
    }
    void Dismiss() { m_block = nullptr; }

private:
    static constexpr LONG kCatchLineRelease = 2604;

    CFrameIoXactionPool& m_pool;
    CFrameIoXaction* m_block = nullptr;
    CZemChannelIo* m_channel = nullptr;
};

// Ends a frame I/O however its completion routine is left: first the frame block goes back, then
// the HTTP block, then the I/O is counted as ended, which is its last use of the server.
class CFrameIoEnd {
public:
    CFrameIoEnd(CFrameIoXaction& frame, CFrameIoXactionPool& framePool,
                CHttpXactionPool& xactionPool)
        : m_frame(frame),
          m_xaction(*frame.httpXaction),
          m_framePool(framePool),
          m_xactionPool(xactionPool) {}
    CFrameIoEnd(const CFrameIoEnd&) = delete;
    CFrameIoEnd& operator=(const CFrameIoEnd&) = delete;
    ~CFrameIoEnd() {
        m_framePool.ReleaseBlock(&m_frame);
        m_xaction.Timer().MarkStage(kStageIoContextReleased);
        m_xactionPool.Release(&m_xaction);
        m_framePool.EndIo();
    }

private:
    CFrameIoXaction& m_frame;
    CHttpXaction& m_xaction;
    CFrameIoXactionPool& m_framePool;
    CHttpXactionPool& m_xactionPool;
};

// Hands the block to the library with issue(channel, ioDesc) and completes it at once unless it is
// pending. From this call on block and HTTP transaction are the completion's, so nothing escapes:
// a library that throws has not taken the frame, which then fails as a whole.
template <class Issue>
void HandOver(CZemEntry& scope, LONG catchLine, CFrameIoXaction* frame, Issue issue) {
    CZemChannelIo& channel = *frame->channel;
    HRESULT hr = E_FAIL;
    try {
        hr = issue(channel, frame->ioDesc);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, catchLine);
        frame->ioDesc.status = hr;
        for (DWORD i = 0; i < frame->streamData.entryCount; ++i)
            frame->entries[i].status = hr;
    }
    // A pending frame may be finished and its blocks reused by now: neither is touched again.
    if (hr == kIoPending) return;
    frame->ioDesc.completionRoutine(frame);
    if (SUCCEEDED(hr) || hr == kEndOfMedia) return;
    try {
        channel.BumpFailedRealTimeIoMsgs();
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, catchLine);
    }
}
