// A channel's frame reads. Frames whose checksums are known and whose pages are in memory are
// answered on the caller's thread, without an allocation; everything else becomes a job that the
// I/O threads carry from step to step.
#include "mediaio/errorlog.h"
#include "mediaio/store/channelcore.h"
#include "mediaio/store/channelentries.h"
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

// Pages that were seen in memory are taken to be there for this long; a wrong guess costs the
// sender of the frame a wait, nothing else.
constexpr uint32_t kCachedFor_ms = 20;

// What an entry holds for the client until ReadFrameComplete. It lives in the entry's last buffer
// slot, which no one else uses: a frame arrives in one buffer.
constexpr int kHoldSlot = kMaxBuffersPerEntry - 1;
constexpr uint64_t kHoldsView = 0x5A4D5649454B0000ull;  // lowest bit: the epoch
constexpr uint64_t kHoldsRun = 0x5A4D52554E4B0000ull;

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
    if (hr == HRESULT_FROM_WIN32(ERROR_CRC)) {
        LogStoreOf(
            files[current]->OpenedAs(), kErrorLogLevelError, hr, kSourceChannel,
            "a stored frame is damaged, position " + std::to_string(frames[current].position));
    }
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
    if (SUCCEEDED(hr) && aheads[current] != nullptr) {
        CReadAhead::Note(aheads[current], {core->Config().readAhead, realTime, core->async}, *file,
                         frame);
    }
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
    if (special)
        memset(entry.special, 0, sizeof entry.special);
    else
        ClearBuffers(entry);
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
    if (config.readAhead != 0) {
        CReadAhead::Note(stream->ahead, {config.readAhead, io.realTime.load(), async}, *file,
                         frame);
    }
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
        if ((hold.length_bytes & ~uint64_t{1}) == kHoldsView)
            static_cast<CFrameFile*>(hold.data)->Unpin(hold.length_bytes & 1);
        else if (hold.length_bytes == kHoldsRun)
            static_cast<IZemMemAllocator*>(hold.data)->Free(run);
    }
    return S_OK;
}

}  // namespace zemstore
