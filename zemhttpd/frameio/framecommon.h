// What frame reads and frame writes share. Worker threads.
#pragma once

#include "zemhttpd/commands/wire.h"
#include "zemhttpd/frameio/httpxactn.h"
#include "zemhttpd/server/httpcmdhdlr.h"

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

    // False when one of the fields that the command reads would lie beyond the posted buffer.
    bool ReadFrom(const ZemCommand& command) {
        if (!CopyFromBody(command, 0, head) || !CopyNumber(command, 24, token) ||
            !CopyNumber(command, 32, position)) {
            return false;
        }
        return !CountAllowed() ||
               BodyHas(command, kFirstEntryOffset, head.entryCount * sizeof(WireFrameEntry));
    }
    bool CountAllowed() const {
        return head.entryCount >= 1 && head.entryCount <= kMaxStreamEntries;
    }
};

// Gives a block that is not handed to the library back to its pool, and with a channel its write
// buffers to that. The block may be null.
class CFrameBlockGuard {
public:
    explicit CFrameBlockGuard(CFrameIoXactionPool& pool) : m_pool(pool) {}
    CFrameBlockGuard(const CFrameBlockGuard&) = delete;
    CFrameBlockGuard& operator=(const CFrameBlockGuard&) = delete;
    ~CFrameBlockGuard() {
        if (!m_block) return;
        if (m_channel) m_channel->ReleaseWriteFrameBuffers(m_block->ioDesc);
        m_block->ioDesc.inUse = 0;
        m_pool.ReleaseBlock(m_block);
        m_pool.EndIo();
    }
    void Guard(CFrameIoXaction* block, CZemChannelIo* channel = nullptr) {
        m_block = block;
        m_channel = channel;
    }
    void Dismiss() { m_block = nullptr; }

private:
    CFrameIoXactionPool& m_pool;
    CFrameIoXaction* m_block = nullptr;
    CZemChannelIo* m_channel = nullptr;
};
