// A channel's frame writes: the memory that a frame is received into, and a job for each frame I/O,
// with a record of every stream in the queue of its file.
#include "mediaio/errorlog.h"
#include "mediaio/store/channelcore.h"
#include "mediaio/store/channelentries.h"
#include "mediaio/store/crc32c.h"
#include "mediaio/store/log.h"

#include <atomic>
#include <cstring>
#include <new>
#include <string>

namespace zemstore {
namespace {

uint64_t LengthOf(const ElemStrmEntry& entry) {
    uint64_t total = 0;
    for (int32_t i = 0; i < entry.bufferCount; ++i)
        total += entry.buffers[i].length_bytes;
    return total;
}

// The server drops the frame without a word, as it does whenever memory is short; without this line
// nobody would know why a frame is missing.
void SayThatMemoryIsOut(uint64_t wanted_bytes, uint32_t position) {
    static CSparseLine line;
    uint64_t leftOut = 0;
    if (!line.Due(CSparseLine::Clock::now(), leftOut)) return;
    LogStore(kErrorLogLevelError, HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES), kSourceChannel,
             "no frame memory for " + std::to_string(wanted_bytes) +
                 " bytes, the frame is dropped; position " + std::to_string(position) + "; " +
                 std::to_string(leftOut) + " more since the last such line");
}

bool CountIsSane(const ElemStrmEntry& entry) {
    return entry.bufferCount >= 0 && entry.bufferCount <= kMaxBuffersPerEntry;
}

}  // namespace

HRESULT CChannelCore::GetWriteFrameBuffers(ZemIoDesc& desc) {
    desc.reserved = 0;
    if (!IsSane(desc)) return E_INVALIDARG;
    const ZemElemStrmIoData& streams = *desc.streamData;
    uint64_t total = 0;
    for (uint32_t i = 0; i < streams.entryCount; ++i) {
        ElemStrmEntry& entry = streams.entries[i];
        entry.status = S_OK;
        if (IsSpecialToken(entry.token)) continue;
        if (!CountIsSane(entry)) return E_INVALIDARG;
        for (int32_t k = 0; k < entry.bufferCount; ++k) {
            const uint64_t length = entry.buffers[k].length_bytes;
            if (length > kMaxFrameSize || total + length > kMaxFrameSize) return E_INVALIDARG;
            total += length;
        }
    }
    if (total == 0) return S_OK;
    IZemMemAllocator* allocator = frames.load();
    char* run = allocator == nullptr ? nullptr : static_cast<char*>(allocator->Allocate(total));
    if (run == nullptr) {
        SayThatMemoryIsOut(total, streams.entries[0].position);
        return HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES);
    }
    desc.reserved = reinterpret_cast<uint64_t>(run);
    for (uint32_t i = 0; i < streams.entryCount; ++i) {
        ElemStrmEntry& entry = streams.entries[i];
        if (IsSpecialToken(entry.token)) continue;
        for (int32_t k = 0; k < entry.bufferCount; ++k) {
            entry.buffers[k].data = run;
            run += entry.buffers[k].length_bytes;
        }
    }
    return S_OK;
}

void CChannelCore::ReleaseRun(ZemIoDesc& desc) {
    if (desc.reserved != 0) frames.load()->Free(reinterpret_cast<void*>(desc.reserved));
    desc.reserved = 0;
}

HRESULT CChannelCore::ReleaseWriteFrameBuffers(ZemIoDesc& desc) {
    ReleaseRun(desc);
    if (!IsSane(desc)) return E_INVALIDARG;
    for (uint32_t i = 0; i < desc.streamData->entryCount; ++i) {
        ElemStrmEntry& entry = desc.streamData->entries[i];
        if (IsSpecialToken(entry.token)) continue;
        for (ZemIoBuffer& buffer : entry.buffers)
            buffer = {nullptr, 0};
        entry.bufferCount = 0;
    }
    return S_OK;
}

// A write of up to 22 frames, each a record in its own file; done when all of them are.
struct CChannelCore::WriteJob {
    std::shared_ptr<CChannelCore> core;
    ZemIoDesc* desc = nullptr;
    std::atomic<uint32_t> open{1};  // one for the thread that still adds frames
    CMediaFile* files[kMaxStreamEntries] = {};
    WriteItem items[kMaxStreamEntries];

    // True for the caller that finds nothing left to wait for.
    bool CloseOne() { return open.fetch_sub(1) == 1; }
    void Finish();
    static void OnItem(WriteItem& item);
};

void CChannelCore::WriteJob::Finish() {
    const ZemElemStrmIoData& streams = *desc->streamData;
    for (uint32_t i = 0; i < streams.entryCount; ++i) {
        ElemStrmEntry& entry = streams.entries[i];
        if (files[i] != nullptr) {
            entry.status = items[i].result;
            if (FAILED(entry.status)) {
                LogStoreOf(files[i]->OpenedAs(), kErrorLogLevelError, entry.status, kSourceChannel,
                           "the device did not take the frame at position " +
                               std::to_string(entry.position));
            }
            files[i]->Release();
        }
        if (IsSpecialToken(entry.token)) continue;
        for (int32_t k = 0; k < entry.bufferCount; ++k)
            entry.buffers[k].data = nullptr;
    }
    core->ReleaseRun(*desc);
    desc->status = FirstFailure(streams);
}

void CChannelCore::WriteJob::OnItem(WriteItem& item) {
    auto* job = static_cast<WriteJob*>(item.context);
    if (!job->CloseOne()) return;
    job->Finish();
    ZemIoDesc& finished = *job->desc;
    const std::shared_ptr<CChannelCore> keep = job->core;
    delete job;
    Complete(keep, finished);
}

// Makes the record of one entry. `cursor` walks through the run in entry order. A success with no
// file means that there is nothing to write (any more).
HRESULT CChannelCore::PrepareWrite(CIoState& io, ElemStrmEntry& entry, char*& cursor,
                                   WriteItem& item, CMediaFile*& file) {
    const bool special = IsSpecialToken(entry.token);
    if (!special) {
        if (!CountIsSane(entry)) return E_INVALIDARG;
        const uint64_t length = LengthOf(entry);
        const char* expected = cursor;
        for (int32_t k = 0; k < entry.bufferCount; ++k) {
            const ZemIoBuffer& buffer = entry.buffers[k];
            if (buffer.length_bytes != 0 && buffer.data != expected) return E_INVALIDARG;
            expected += buffer.length_bytes;
        }
        item.data = cursor;
        item.dataSize = static_cast<uint32_t>(length);
        cursor += length;
    }
    CTokenTable::CUse stream;
    const HRESULT hr = io.tokens.Use(entry.token, stream);
    if (FAILED(hr)) return hr;
    if (entry.position > kLastPosition) return E_INVALIDARG;
    if (stream->kind == kTokenKindMarker) return WriteMark(*stream, entry.position, entry.special);
    if (stream->file->Native() == nullptr) return RefuseForeignWrite(*stream);
    if (!stream->writer) return E_ACCESSDENIED;
    if (special) {
        item.hasDescription = true;
        memcpy(item.description, entry.special, sizeof item.description);
    } else {
        item.dataCrc = Crc32c(0, item.data, item.dataSize);
    }
    item.kind = RecordKind::kFrame;
    item.realTime = io.realTime.load();
    item.position = entry.position;
    item.flags = (entry.streamFlags & kStreamFlagKeyFrame) != 0 ? kFrameFlagKey : 0;
    file = stream->file->Native();
    file->AddRef();
    // The token's user is counted until the record is queued: closing then waits for the record.
    item.completed = WriteJob::OnItem;
    file->Append(item);
    return S_OK;
}

HRESULT CChannelCore::WriteFrame(const std::shared_ptr<CChannelCore>& self, CIoState& io,
                                 ZemIoDesc& desc) {
    if (!IsSane(desc)) {
        ReleaseRun(desc);
        return desc.status = E_INVALIDARG;
    }
    auto* job = new (std::nothrow) WriteJob;
    if (job == nullptr) {
        ReleaseWriteFrameBuffers(desc);
        for (uint32_t i = 0; i < desc.streamData->entryCount; ++i)
            desc.streamData->entries[i].status = E_OUTOFMEMORY;
        return desc.status = E_OUTOFMEMORY;
    }
    job->core = self;
    job->desc = &desc;
    BeginIo();
    char* cursor = reinterpret_cast<char*>(desc.reserved);
    const ZemElemStrmIoData& streams = *desc.streamData;
    for (uint32_t i = 0; i < streams.entryCount; ++i) {
        job->items[i].context = job;
        job->open.fetch_add(1);
        streams.entries[i].status =
            PrepareWrite(io, streams.entries[i], cursor, job->items[i], job->files[i]);
        if (job->files[i] == nullptr) job->CloseOne();
    }
    if (!job->CloseOne()) return HRESULT_FROM_WIN32(ERROR_IO_PENDING);
    job->Finish();
    const HRESULT hr = desc.status;
    delete job;
    EndIo();
    return hr;
}

}  // namespace zemstore
