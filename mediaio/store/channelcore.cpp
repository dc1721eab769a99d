// Frame I/O of a channel. A read of frames whose checksums are known and whose pages are in memory
// is answered on the caller's thread, without an allocation; everything else becomes a job that the
// I/O threads carry from step to step.
#include "mediaio/store/channelcore.h"

#include "mediaio/errorlog.h"
#include "mediaio/store/crc32c.h"
#include "mediaio/store/log.h"
#include "mediaio/store/timecode.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>
#include <new>

namespace zemstore {
namespace {

constexpr const WCHAR* kSource = TEXT("channelcore.cpp");

// Pages that were seen in memory are taken to be there for this long; a wrong guess costs the
// sender of the frame a wait, nothing else.
constexpr uint32_t kCachedFor_ms = 20;

// What an entry holds for the client until ReadFrameComplete. It lives in the entry's last buffer
// slot, which no one else uses: a frame arrives in one buffer.
constexpr int kHoldSlot = kMaxBuffersPerEntry - 1;
constexpr uint64_t kHoldsView = 0x5A4D5649454B0000ull;  // lowest bit: the epoch
constexpr uint64_t kHoldsRun = 0x5A4D52554E4B0000ull;

thread_local CChannelCore* t_completing = nullptr;

uint32_t Now_ms() {
    using namespace std::chrono;
    const auto now = steady_clock::now().time_since_epoch();
    return static_cast<uint32_t>(duration_cast<milliseconds>(now).count());
}

void ClearBuffers(ElemStrmEntry& entry) {
    entry.bufferCount = 0;
    entry.buffers[0] = {nullptr, 0};
    entry.buffers[kHoldSlot] = {nullptr, 0};
}

bool IsSane(const ZemIoDesc& desc) {
    const ZemElemStrmIoData* streams = desc.streamData;
    return streams != nullptr && streams->entries != nullptr && streams->entryCount >= 1 &&
           streams->entryCount <= kMaxStreamEntries;
}

HRESULT FirstFailure(const ZemElemStrmIoData& streams) {
    for (uint32_t i = 0; i < streams.entryCount; ++i)
        if (FAILED(streams.entries[i].status)) return streams.entries[i].status;
    return S_OK;
}

HRESULT MapForReading(const CFrameFile& file, VioFrameRate_t code, uint32_t& position) {
    if (code == kFrameRateFile) return S_OK;
    const ZemEsDesc& desc = file.EsDescAtCreation();
    FrameRate asked;
    // A file without a rate counts in frames whatever the channel is set to.
    if (desc.rateNumerator == 0 || !RateOf(code, asked)) return S_OK;
    return MapPosition(position, asked, {desc.rateNumerator, desc.rateDenominator}, position)
               ? S_OK
               : HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
}

uint64_t LengthOf(const ElemStrmEntry& entry) {
    uint64_t total = 0;
    for (int32_t i = 0; i < entry.bufferCount; ++i)
        total += entry.buffers[i].length_bytes;
    return total;
}

bool CountIsSane(const ElemStrmEntry& entry) {
    return entry.bufferCount >= 0 && entry.bufferCount <= kMaxBuffersPerEntry;
}

}  // namespace

// A read of which some frames have to come from the device first, one after another.
struct CChannelCore::ReadJob {
    std::shared_ptr<CChannelCore> core;
    ZemIoDesc* desc = nullptr;
    bool realTime = false;
    uint32_t pending = 0;  // bit per entry
    uint32_t current = 0;
    uint32_t at = 0;
    uint32_t crc = 0;
    char* run = nullptr;  // where the frame goes when there is no view of it
    IZemMemAllocator* allocator = nullptr;
    CFrameFile* files[kMaxStreamEntries];
    PinnedFrame frames[kMaxStreamEntries];
    std::shared_ptr<CReadAhead> aheads[kMaxStreamEntries];
    IoRequest request;

    ElemStrmEntry& Entry() { return desc->streamData->entries[current]; }
    HRESULT Prepare();
    bool NextFrame();
    void ReadPiece();
    void LookDone();
    void PieceDone();
    void Step(HRESULT hr);
    void FrameDone(HRESULT hr);
    static void OnPiece(IoRequest& done) { static_cast<ReadJob*>(done.context)->PieceDone(); }
};

// Makes room for the current frame's bytes; those that have a view are only read once to be known.
HRESULT CChannelCore::ReadJob::Prepare() {
    at = crc = 0;
    run = nullptr;
    const PinnedFrame& frame = frames[current];
    if (frame.lookSize != 0 || frame.view != nullptr) return S_OK;
    allocator = core->reads.load();
    run = allocator == nullptr ? nullptr : static_cast<char*>(allocator->Allocate(frame.dataSize));
    if (run != nullptr) return S_OK;
    return desc->status = HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES);
}

// Turns to the next frame that has to be read; false when there is none left.
bool CChannelCore::ReadJob::NextFrame() {
    while (pending != 0) {
        current = static_cast<uint32_t>(std::countr_zero(pending));
        const HRESULT hr = Prepare();
        if (SUCCEEDED(hr)) return true;
        FrameDone(hr);
    }
    return false;
}

void CChannelCore::ReadJob::ReadPiece() {
    const PinnedFrame& frame = frames[current];
    const FrameSource source = files[current]->SourceOf(frame);
    request = {};
    request.op = IoOp::kRead;
    request.realTime = realTime;
    request.file = source.file;
    if (frame.lookSize != 0) {
        request.offset_bytes = frame.lookOffset;
        request.size_bytes = frame.lookSize;
    } else {
        uint32_t size = 0;
        files[current]->PieceOf(frame, at, request.offset_bytes, size);
        request.size_bytes = std::min<size_t>(kScratchSize, size);
        request.data = run == nullptr ? nullptr : run + at;
    }
    request.completed = OnPiece;
    request.context = this;
    (source.engine != nullptr ? *source.engine : *core->async).Submit(request);
}

// The bytes that a container has in place of an index entry are there.
void CChannelCore::ReadJob::LookDone() {
    PinnedFrame& frame = frames[current];
    HRESULT hr = request.result;
    if (SUCCEEDED(hr)) hr = files[current]->Look(frame, request.data, request.done_bytes);
    if (SUCCEEDED(hr) && frame.lookSize == 0 && frame.dataSize != 0) hr = Prepare();
    if (SUCCEEDED(hr) && (frame.lookSize != 0 || frame.dataSize != 0)) return ReadPiece();
    Step(hr);
}

void CChannelCore::ReadJob::PieceDone() {
    const PinnedFrame& frame = frames[current];
    if (frame.lookSize != 0) return LookDone();
    HRESULT hr = request.result;
    // A frame that is no longer whole in the file is as bad as a changed one.
    if (SUCCEEDED(hr) && request.done_bytes != request.size_bytes)
        hr = HRESULT_FROM_WIN32(ERROR_CRC);
    if (SUCCEEDED(hr)) {
        if (!frame.verified) crc = Crc32c(crc, request.data, request.size_bytes);
        at += static_cast<uint32_t>(request.size_bytes);
        if (at < frame.dataSize) return ReadPiece();
        if (!frame.verified) {
            const bool good = crc == frame.dataCrc;
            files[current]->ReportVerified(frame, good);
            if (!good) hr = HRESULT_FROM_WIN32(ERROR_CRC);
        }
    }
    Step(hr);
}

// Ends the current frame and goes on with the next, or completes the read.
void CChannelCore::ReadJob::Step(HRESULT hr) {
    if (hr == HRESULT_FROM_WIN32(ERROR_CRC))
        LogStore(kErrorLogLevelError, hr, kSource,
                 "a stored frame is damaged, position " + std::to_string(frames[current].position));
    FrameDone(hr);
    if (NextFrame()) return ReadPiece();
    if (realTime) core->async->EndRealTimeRead();
    ZemIoDesc& finished = *desc;
    const std::shared_ptr<CChannelCore> keep = core;
    delete this;
    Complete(keep, finished);
}

void CChannelCore::ReadJob::FrameDone(HRESULT hr) {
    pending &= pending - 1;
    ElemStrmEntry& entry = Entry();
    const PinnedFrame& frame = frames[current];
    CFrameFile* file = files[current];
    entry.status = hr;
    // Now that the reader has what it waited for.
    if (SUCCEEDED(hr) && aheads[current] != nullptr)
        CReadAhead::Note(aheads[current], {core->Config().readAhead, realTime, core->async}, *file,
                         frame);
    if (SUCCEEDED(hr) && frame.dataSize == 0) {  // found by looking
        file->Unpin(frame.epoch);
        return;
    }
    if (SUCCEEDED(hr) && run == nullptr) {
        file->ReportCached(frame, Now_ms());
        Deliver(entry, frame, file);
        return;
    }
    if (SUCCEEDED(hr)) {
        entry.bufferCount = 1;
        entry.buffers[0] = {run, frame.dataSize};
        entry.buffers[kHoldSlot] = {allocator, kHoldsRun};
    } else if (run != nullptr) {
        allocator->Free(run);
    }
    file->Unpin(frame.epoch);
}

void CChannelCore::Deliver(ElemStrmEntry& entry, const PinnedFrame& frame, CFrameFile* file) {
    entry.bufferCount = 1;
    entry.buffers[0] = {const_cast<void*>(frame.view), frame.dataSize};
    entry.buffers[kHoldSlot] = {file, kHoldsView | frame.epoch};
}

// Answers an entry as far as that needs no waiting. kMustLoad: `frame` is pinned and not yet fit to
// be handed out.
CChannelCore::Found CChannelCore::FindFrame(CIoState& io, const ChannelConfig& config,
                                            ElemStrmEntry& entry, PinnedFrame& frame,
                                            CFrameFile*& file, std::shared_ptr<CReadAhead>& ahead) {
    const bool special = IsSpecialToken(entry.token);
    if (special) {
        memset(entry.special, 0, sizeof entry.special);
    } else {
        ClearBuffers(entry);
    }
    CTokenTable::CUse stream;
    uint32_t position = entry.position;
    entry.status = io.tokens.Use(entry.token, stream);
    if (SUCCEEDED(entry.status))
        entry.status = MapForReading(*stream->file, config.frameRate, position);
    if (FAILED(entry.status)) return Found::kDone;
    if (special) {
        entry.status = ReadDescription(*stream, position, entry.special);
        return Found::kDone;
    }
    file = stream->file;
    const bool wantsData = (entry.streamFlags & kStreamFlagNoData) == 0;
    entry.status = file->Pin(position, wantsData, frame);
    if (SUCCEEDED(entry.status) && !wantsData) entry.status = file->LookNow(frame);
    if (FAILED(entry.status) || (frame.dataSize == 0 && frame.lookSize == 0)) return Found::kDone;
    if (!wantsData) {
        entry.bufferCount = 1;
        entry.buffers[0] = {nullptr, frame.dataSize};
        return Found::kDone;
    }
    bool ready = frame.lookSize == 0 && frame.view != nullptr;
    const uint32_t now = Now_ms();
    if (ready &&
        (!frame.verified || frame.cachedStamp == 0 || now - frame.cachedStamp >= kCachedFor_ms)) {
        ready = file->Cached(frame) && (frame.verified || file->CheckNow(frame));
        if (ready) file->ReportCached(frame, now);
    }
    if (!ready) {
        if (config.readAhead != 0) ahead = stream->ahead;
        return Found::kMustLoad;
    }
    if (config.readAhead != 0)
        CReadAhead::Note(stream->ahead, {config.readAhead, io.realTime.load(), async}, *file,
                         frame);
    Deliver(entry, frame, file);
    return Found::kDone;
}

// Also of what never reaches the device: the next one may.
void CChannelCore::NoteRealTime(const CIoState& io) const {
    if (io.realTime.load(std::memory_order_relaxed) && async != nullptr) async->RealTimeSeen();
}

HRESULT CChannelCore::ReadFrame(const std::shared_ptr<CChannelCore>& self, CIoState& io,
                                ZemIoDesc& desc) {
    if (!IsSane(desc)) return desc.status = E_INVALIDARG;
    desc.status = S_OK;
    const ZemElemStrmIoData& streams = *desc.streamData;
    const ChannelConfig config = Config();
    NoteRealTime(io);
    std::unique_ptr<ReadJob> job;
    for (uint32_t i = 0; i < streams.entryCount; ++i) {
        PinnedFrame frame;
        CFrameFile* file = nullptr;
        std::shared_ptr<CReadAhead> ahead;
        if (FindFrame(io, config, streams.entries[i], frame, file, ahead) == Found::kDone) continue;
        if (job == nullptr) job.reset(new (std::nothrow) ReadJob);
        if (job == nullptr || async == nullptr) {
            streams.entries[i].status = desc.status = E_OUTOFMEMORY;
            file->Unpin(frame.epoch);
            continue;
        }
        job->pending |= 1u << i;
        job->files[i] = file;
        job->frames[i] = frame;
        job->aheads[i] = std::move(ahead);
    }
    if (job != nullptr) {
        job->core = self;
        job->desc = &desc;
        job->realTime = io.realTime.load();
        if (job->NextFrame()) {
            BeginIo();
            if (job->realTime) async->BeginRealTimeRead();
            job.release()->ReadPiece();
            return HRESULT_FROM_WIN32(ERROR_IO_PENDING);
        }
    }
    return FirstFailure(streams);
}

HRESULT CChannelCore::ReadFrameComplete(ZemElemStrmIoData& streams) {
    if (streams.entries == nullptr || streams.entryCount > kMaxStreamEntries) return E_INVALIDARG;
    for (uint32_t i = 0; i < streams.entryCount; ++i) {
        ElemStrmEntry& entry = streams.entries[i];
        if (IsSpecialToken(entry.token)) continue;
        const ZemIoBuffer hold = entry.buffers[kHoldSlot];
        void* const run = entry.buffers[0].data;
        ClearBuffers(entry);
        if ((hold.length_bytes & ~uint64_t{1}) == kHoldsView) {
            static_cast<CFrameFile*>(hold.data)->Unpin(hold.length_bytes & 1);
        } else if (hold.length_bytes == kHoldsRun) {
            static_cast<IZemMemAllocator*>(hold.data)->Free(run);
        }
    }
    return S_OK;
}

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
    if (run == nullptr) return HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES);
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
            files[i]->Release();
            if (FAILED(entry.status))
                LogStore(kErrorLogLevelError, entry.status, kSource,
                         "the device did not take the frame at position " +
                             std::to_string(entry.position));
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

void CChannelCore::BeginIo() {
    std::lock_guard hold(m_lock);
    ++m_underWay;
}

void CChannelCore::EndIo() {
    std::lock_guard hold(m_lock);
    if (--m_underWay <= 1) m_idle.notify_all();
}

void CChannelCore::Complete(const std::shared_ptr<CChannelCore>& self, ZemIoDesc& desc) {
    CChannelCore* const outer = t_completing;
    t_completing = self.get();
    desc.completionRoutine(desc.completionContext);
    t_completing = outer;
    self->EndIo();
}

void CChannelCore::Drain() {
    std::unique_lock hold(m_lock);
    const size_t own = t_completing == this ? 1 : 0;
    m_idle.wait(hold, [&] { return m_underWay <= own; });
}

ChannelConfig CChannelCore::Config() const {
    return {static_cast<VioFrameRate_t>(m_frameRate.load(std::memory_order_relaxed)),
            m_readAhead.load(std::memory_order_relaxed)};
}

void CChannelCore::SetConfig(const ChannelConfig& config) {
    m_frameRate.store(static_cast<uint32_t>(config.frameRate), std::memory_order_relaxed);
    m_readAhead.store(config.readAhead, std::memory_order_relaxed);
}

}  // namespace zemstore
