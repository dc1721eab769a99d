// The recording media library. Output arguments are written on success only, as the interface says.
#include "tests/fakes/fakemedia.h"

#include "tests/fakes/allocfault.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>

struct CZemIo::State {
    WString clientId;
};

struct CZemChannelIo::ChannelState {
    DWORD number = 0;
    std::atomic<ULONGLONG> realTimeIoMsgs{0}, failedRealTimeIoMsgs{0}, droppedReadFrames{0},
        droppedWriteFrames{0};
};

struct CZemMemAllocator::State {
    size_t size = 0;
};

namespace {

constexpr HRESULT kPending = HRESULT_FROM_WIN32(ERROR_IO_PENDING);

WString Text(const WCHAR* text) {
    const CAllocationFaultPause pause;
    return text ? WString(text) : WString();
}

MediaCall Call(const char* op, const void* self) {
    const CAllocationFaultPause pause;
    MediaCall call;
    call.op = op;
    call.self = self;
    return call;
}

MediaCall NameCall(const char* op, const void* self, const WCHAR* name, const WCHAR* auxName,
                   LONG type, DWORD flags) {
    MediaCall call = Call(op, self);
    call.name = Text(name);
    call.name2 = Text(auxName);
    call.type = type;
    call.flags = flags;
    return call;
}

MediaCall TokenCall(const char* op, const void* self, ULONGLONG token) {
    MediaCall call = Call(op, self);
    call.token = token;
    return call;
}

void CopyFrameDescs(DWORD position, LONG count, ZemFrameDesc* descs) {
    for (LONG i = 0; i < count; ++i) {
        const size_t index = size_t{position} + static_cast<size_t>(i);
        const auto& known = FakeMedia().frameDescs;
        descs[i] = index < known.size() ? known[index] : ZemFrameDesc{};
    }
}

void SetStatuses(ZemIoDesc& desc, HRESULT status) {
    desc.status = status;
    for (uint32_t i = 0; i < desc.streamData->entryCount; ++i)
        desc.streamData->entries[i].status = status;
}

void FillRead(ZemIoDesc& desc, HRESULT status) {
    SetStatuses(desc, status);
    if (FAILED(status)) return;
    for (uint32_t i = 0; i < desc.streamData->entryCount; ++i) {
        ElemStrmEntry& entry = desc.streamData->entries[i];
        if (IsSpecialToken(entry.token)) continue;
        entry.bufferCount = 1;
        entry.buffers[0] = {FakeMedia().frameData.data(), FakeMedia().frameData.size()};
    }
}

}  // namespace

CFakeMedia& FakeMedia() {
    static CFakeMedia media;
    return media;
}

void CFakeMedia::Reset() {
    const std::lock_guard lock(m_lock);
    results.clear();
    onCall = nullptr;
    token = 0x1122334455667788ull;
    esDesc = {};
    frameDescs.clear();
    firstMark = secondMark = attributes = 0;
    fileSize = totalSpace = freeSpace = 0;
    pendReads = pendWrites = false;
    frameStatus = S_OK;
    frameData = "frame";
    onReadFrame = onWriteFrame = onGetWriteFrameBuffers = nullptr;
    writeBuffer.clear();
    m_calls.clear();
    m_pending.clear();
}

HRESULT CFakeMedia::Record(const MediaCall& call) {
    if (onCall) onCall(call);
    const CAllocationFaultPause pause;
    const std::lock_guard lock(m_lock);
    const auto result = results.find(call.op);
    m_calls.push_back(call);
    return result == results.end() ? S_OK : result->second;
}

void CFakeMedia::Forget() {
    const std::lock_guard lock(m_lock);
    m_calls.clear();
}

std::vector<MediaCall> CFakeMedia::Calls() const {
    const std::lock_guard lock(m_lock);
    return m_calls;
}

std::vector<MediaCall> CFakeMedia::Calls(const std::string& op) const {
    std::vector<MediaCall> found;
    for (const MediaCall& call : Calls())
        if (call.op == op) found.push_back(call);
    return found;
}

int CFakeMedia::LiveChannels() const {
    const std::lock_guard lock(m_lock);
    return m_liveChannels;
}

int CFakeMedia::LiveAllocators() const {
    const std::lock_guard lock(m_lock);
    return m_liveAllocators;
}

void CFakeMedia::CountLive(int channels, int allocators) {
    const std::lock_guard lock(m_lock);
    m_liveChannels += channels;
    m_liveAllocators += allocators;
}

void CFakeMedia::AddPending(const CZemChannelIo* channel, ZemIoDesc* desc) {
    const std::lock_guard lock(m_lock);
    m_pending.push_back({channel, desc});
}

size_t CFakeMedia::PendingCount() const {
    const std::lock_guard lock(m_lock);
    return m_pending.size();
}

size_t CFakeMedia::CompletePending(HRESULT status) {
    std::vector<Pending> pending;
    {
        const std::lock_guard lock(m_lock);
        pending.swap(m_pending);
    }
    for (const Pending& io : pending) {
        FillRead(*io.desc, status);
        io.desc->completionRoutine(io.desc->completionContext);
    }
    return pending.size();
}

void CFakeMedia::CancelPending(const CZemChannelIo* channel) {
    std::vector<Pending> cancelled;
    {
        const std::lock_guard lock(m_lock);
        for (const Pending& io : m_pending)
            if (io.channel == channel) cancelled.push_back(io);
        std::erase_if(m_pending, [&](const Pending& io) { return io.channel == channel; });
    }
    for (const Pending& io : cancelled) {
        SetStatuses(*io.desc, HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED));
        io.desc->completionRoutine(io.desc->completionContext);
    }
}

CZemIo::CZemIo() : m_io(new State) {}
CZemIo::~CZemIo() {
    delete m_io;
}

void CZemIo::SetClientId(const WCHAR* clientId) {
    MediaCall call = Call("SetClientId", this);
    call.name = Text(clientId);
    FakeMedia().Record(call);
    m_io->clientId = call.name.substr(0, 259);
}
// Asked too often to be recorded; a failure that is set for it is thrown.
const WCHAR* CZemIo::GetClientId() const {
    const auto result = FakeMedia().results.find("GetClientId");
    if (result != FakeMedia().results.end() && FAILED(result->second)) throw result->second;
    return m_io->clientId.c_str();
}

HRESULT CZemIo::CreateFileW(const WCHAR* fileName, const WCHAR* auxName, const ZemEsDesc& esDesc,
                            DWORD createFlags, void* security, ULONGLONG& token, bool exclusive) {
    MediaCall call = NameCall("CreateFile", this, fileName, auxName, 0, createFlags);
    call.esDesc = esDesc;
    call.pointer = security;
    call.boolean = exclusive;
    const HRESULT hr = FakeMedia().Record(call);
    if (SUCCEEDED(hr)) token = FakeMedia().token;
    return hr;
}

HRESULT CZemIo::OpenFile(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                         DWORD openFlags, bool openBool, ULONGLONG& token) {
    MediaCall call = NameCall("OpenFile", this, fileName, auxName, type, openFlags);
    call.boolean = openBool;
    const HRESULT hr = FakeMedia().Record(call);
    if (SUCCEEDED(hr)) token = FakeMedia().token;
    return hr;
}

HRESULT CZemIo::ReadFrame(ULONGLONG, DWORD, VioFrameRate_t, DWORD&, void*) {
    return E_NOTIMPL;
}
HRESULT CZemIo::ReadFrame(ZemIoDesc&) {
    return E_NOTIMPL;
}
HRESULT CZemIo::ReadFrameComplete(ZemElemStrmIoData&) {
    return E_NOTIMPL;
}
HRESULT CZemIo::GetWriteFrameBuffers(ZemIoDesc&) {
    return E_NOTIMPL;
}
HRESULT CZemIo::WriteFrame(ZemIoDesc&) {
    return E_NOTIMPL;
}

HRESULT CZemIo::CloseFile(ULONGLONG token) {
    return FakeMedia().Record(TokenCall("CloseFile", this, token));
}

HRESULT CZemIo::GetFileInfo(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                            DWORD openFlags, ZemEsDesc& esDesc) {
    const HRESULT hr =
        FakeMedia().Record(NameCall("GetFileInfo/name", this, fileName, auxName, type, openFlags));
    if (SUCCEEDED(hr)) esDesc = FakeMedia().esDesc;
    return hr;
}

HRESULT CZemIo::GetFileInfo(ULONGLONG token, ZemEsDesc& esDesc) {
    const HRESULT hr = FakeMedia().Record(TokenCall("GetFileInfo/token", this, token));
    if (SUCCEEDED(hr)) esDesc = FakeMedia().esDesc;
    return hr;
}

HRESULT CZemIo::GetFrameDesc(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                             DWORD openFlags, DWORD position, LONG count, ZemFrameDesc* descs) {
    MediaCall call = NameCall("GetFrameDesc/name", this, fileName, auxName, type, openFlags);
    call.position = position;
    call.count = count;
    const HRESULT hr = FakeMedia().Record(call);
    if (SUCCEEDED(hr)) CopyFrameDescs(position, count, descs);
    return hr;
}

HRESULT CZemIo::GetFrameDesc(ULONGLONG token, DWORD position, LONG count, ZemFrameDesc* descs,
                             VioFrameRate_t rate) {
    MediaCall call = TokenCall("GetFrameDesc/token", this, token);
    call.position = position;
    call.count = count;
    call.rate = rate;
    const HRESULT hr = FakeMedia().Record(call);
    if (SUCCEEDED(hr)) CopyFrameDescs(position, count, descs);
    return hr;
}

HRESULT CZemIo::FlushBuffers(ULONGLONG token) {
    return FakeMedia().Record(TokenCall("FlushBuffers", this, token));
}

HRESULT CZemIo::GetFileMarks(ULONGLONG token, DWORD& firstMark, DWORD& secondMark) {
    const HRESULT hr = FakeMedia().Record(TokenCall("GetFileMarks/token", this, token));
    if (FAILED(hr)) return hr;
    firstMark = FakeMedia().firstMark;
    secondMark = FakeMedia().secondMark;
    return hr;
}

HRESULT CZemIo::GetFileMarks(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                             DWORD openFlags, DWORD& firstMark, DWORD& secondMark) {
    const HRESULT hr =
        FakeMedia().Record(NameCall("GetFileMarks/name", this, fileName, auxName, type, openFlags));
    if (FAILED(hr)) return hr;
    firstMark = FakeMedia().firstMark;
    secondMark = FakeMedia().secondMark;
    return hr;
}

HRESULT CZemIo::StripeTimecode(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                               DWORD openFlags, const vdrTimecode_s& start, DWORD stripeFlags) {
    MediaCall call = NameCall("StripeTimecode", this, fileName, auxName, type, openFlags);
    call.timecode = start;
    call.stripeFlags = stripeFlags;
    return FakeMedia().Record(call);
}

HRESULT CZemIo::Connect(const WCHAR* serverName) {
    return FakeMedia().Record(NameCall("Connect", this, serverName, nullptr, 0, 0));
}
HRESULT CZemIo::Disconnect() {
    return FakeMedia().Record(Call("Disconnect", this));
}
HRESULT CZemIo::SetRemoteIoRealTime(BOOL on) {
    MediaCall call = Call("SetRemoteIoRealTime", this);
    call.boolean = on != FALSE;
    return FakeMedia().Record(call);
}
HRESULT CZemIo::SetIoRealTime(BOOL) {
    return E_NOTIMPL;
}

HRESULT CZemIo::EraseSegment(ULONGLONG token, DWORD segmentA, DWORD segmentB, MediaFileType type) {
    MediaCall call = TokenCall("EraseSegment", this, token);
    call.segmentA = segmentA;
    call.segmentB = segmentB;
    call.type = type;
    return FakeMedia().Record(call);
}

HRESULT CZemIo::QueryFileSystemSpace(const WCHAR* volumeName, ULARGE_INTEGER& total,
                                     ULARGE_INTEGER& free) {
    const HRESULT hr =
        FakeMedia().Record(NameCall("QueryFileSystemSpace", this, volumeName, nullptr, 0, 0));
    if (FAILED(hr)) return hr;
    total.QuadPart = FakeMedia().totalSpace;
    free.QuadPart = FakeMedia().freeSpace;
    return hr;
}

HRESULT CZemIo::GetFileAttributesW(const WCHAR* fileName, DWORD& attributes) {
    const HRESULT hr =
        FakeMedia().Record(NameCall("GetFileAttributes", this, fileName, nullptr, 0, 0));
    if (SUCCEEDED(hr)) attributes = FakeMedia().attributes;
    return hr;
}

HRESULT CZemIo::DeleteFileW(const WCHAR* fileName) {
    return FakeMedia().Record(NameCall("DeleteFile", this, fileName, nullptr, 0, 0));
}

HRESULT CZemIo::GetFileSize(const WCHAR* fileName, ULONGLONG& size_bytes) {
    const HRESULT hr = FakeMedia().Record(NameCall("GetFileSize", this, fileName, nullptr, 0, 0));
    if (SUCCEEDED(hr)) size_bytes = FakeMedia().fileSize;
    return hr;
}

HRESULT CZemIo::CreateDirectoryW(const WCHAR* directoryName) {
    return FakeMedia().Record(NameCall("CreateDirectory", this, directoryName, nullptr, 0, 0));
}

HRESULT CZemIo::MoveFileW(const WCHAR* fromName, const WCHAR* toName) {
    return FakeMedia().Record(NameCall("MoveFile", this, fromName, toName, 0, 0));
}

CZemChannelIo::CZemChannelIo(DWORD channelNumber) : m_channel(nullptr) {
    auto channel = std::make_unique<ChannelState>();
    channel->number = channelNumber;
    MediaCall call = Call("CZemChannelIo", static_cast<CZemIo*>(this));
    call.size = channelNumber;
    FakeMedia().Record(call);  // may throw what the test says
    m_channel = channel.release();
    FakeMedia().CountLive(1, 0);
}

CZemChannelIo::~CZemChannelIo() {
    FakeMedia().CancelPending(this);
    FakeMedia().Record(Call("~CZemChannelIo", static_cast<CZemIo*>(this)));
    FakeMedia().CountLive(-1, 0);
    delete m_channel;
}

HRESULT CZemChannelIo::SetAllocators(IZemMemAllocator* frames, IZemMemAllocator* other) {
    MediaCall call = Call("SetAllocators", static_cast<CZemIo*>(this));
    call.pointer = frames;
    call.boolean = other != nullptr;
    return FakeMedia().Record(call);
}

HRESULT CZemChannelIo::SetReadAllocator(IZemMemAllocator* reads) {
    MediaCall call = Call("SetReadAllocator", static_cast<CZemIo*>(this));
    call.pointer = reads;
    return FakeMedia().Record(call);
}

HRESULT CZemChannelIo::UpdateChannelConfigInt(const VARIANT& document, DWORD flags) {
    MediaCall call = Call("UpdateChannelConfigInt", static_cast<CZemIo*>(this));
    call.variantType = document.vt;
    call.pointer = document.pdispVal;
    call.flags = flags;
    return FakeMedia().Record(call);
}

HRESULT CZemChannelIo::UpdateChannelConfigAttr(const WCHAR* valueText, const WCHAR* attributeName,
                                               const VARIANT& value) {
    MediaCall call = Call("UpdateChannelConfigAttr", static_cast<CZemIo*>(this));
    call.name = Text(attributeName);
    call.name2 = Text(valueText);
    call.variantType = value.vt;
    if (value.vt == VT_BSTR) call.variantText = Text(value.bstrVal);
    return FakeMedia().Record(call);
}

HRESULT CZemChannelIo::ReadFrame(ZemIoDesc& desc) {
    MediaCall call = Call("ReadFrame", static_cast<CZemIo*>(this));
    call.pointer = &desc;
    const HRESULT hr = FakeMedia().Record(call);
    if (FakeMedia().onReadFrame) return FakeMedia().onReadFrame(*this, desc);
    if (FakeMedia().pendReads) {
        FakeMedia().AddPending(this, &desc);
        return kPending;
    }
    FillRead(desc, FAILED(hr) ? hr : FakeMedia().frameStatus);
    return hr;
}

HRESULT CZemChannelIo::ReadFrameComplete(ZemElemStrmIoData& streams) {
    MediaCall call = Call("ReadFrameComplete", static_cast<CZemIo*>(this));
    call.pointer = &streams;
    return FakeMedia().Record(call);
}

HRESULT CZemChannelIo::GetWriteFrameBuffers(ZemIoDesc& desc) {
    MediaCall call = Call("GetWriteFrameBuffers", static_cast<CZemIo*>(this));
    call.pointer = &desc;
    const HRESULT hr = FakeMedia().Record(call);
    if (FakeMedia().onGetWriteFrameBuffers) return FakeMedia().onGetWriteFrameBuffers(*this, desc);
    if (FAILED(hr)) return hr;
    size_t total = 0;
    const auto forEachBuffer = [&](auto visit) {
        for (uint32_t i = 0; i < desc.streamData->entryCount; ++i) {
            ElemStrmEntry& entry = desc.streamData->entries[i];
            if (IsSpecialToken(entry.token)) continue;
            for (int32_t k = 0; k < entry.bufferCount; ++k)
                visit(entry.buffers[k]);
        }
    };
    forEachBuffer([&](ZemIoBuffer& buffer) { total += buffer.length_bytes; });
    FakeMedia().writeBuffer.assign(std::max<size_t>(total, 1), 0xEE);
    BYTE* next = FakeMedia().writeBuffer.data();
    forEachBuffer([&](ZemIoBuffer& buffer) {
        buffer.data = next;
        next += buffer.length_bytes;
    });
    return hr;
}

HRESULT CZemChannelIo::WriteFrame(ZemIoDesc& desc) {
    MediaCall call = Call("WriteFrame", static_cast<CZemIo*>(this));
    call.pointer = &desc;
    const HRESULT hr = FakeMedia().Record(call);
    if (FakeMedia().onWriteFrame) return FakeMedia().onWriteFrame(*this, desc);
    if (FakeMedia().pendWrites) {
        FakeMedia().AddPending(this, &desc);
        return kPending;
    }
    SetStatuses(desc, FAILED(hr) ? hr : FakeMedia().frameStatus);
    return hr;
}

HRESULT CZemChannelIo::SetIoRealTime(BOOL on) {
    MediaCall call = Call("SetIoRealTime", static_cast<CZemIo*>(this));
    call.boolean = on != FALSE;
    return FakeMedia().Record(call);
}

HRESULT CZemChannelIo::ReleaseWriteFrameBuffers(ZemIoDesc& desc) {
    MediaCall call = Call("ReleaseWriteFrameBuffers", static_cast<CZemIo*>(this));
    call.pointer = &desc;
    return FakeMedia().Record(call);
}

void CZemChannelIo::BumpRealTimeIoMsgs() {
    ++m_channel->realTimeIoMsgs;
}
void CZemChannelIo::BumpFailedRealTimeIoMsgs() {
    const auto& onCall = FakeMedia().onCall;  // announced, not recorded
    if (onCall) onCall(Call("BumpFailedRealTimeIoMsgs", static_cast<CZemIo*>(this)));
    ++m_channel->failedRealTimeIoMsgs;
}
void CZemChannelIo::BumpDroppedReadFrames() {
    ++m_channel->droppedReadFrames;
}
void CZemChannelIo::BumpDroppedWriteFrames() {
    ++m_channel->droppedWriteFrames;
}
DWORD CZemChannelIo::ChannelNumber() const {
    return m_channel->number;
}
ZemChannelCounters CZemChannelIo::Counters() const {
    return {m_channel->realTimeIoMsgs, m_channel->failedRealTimeIoMsgs,
            m_channel->droppedReadFrames, m_channel->droppedWriteFrames};
}

CZemMemAllocator::CZemMemAllocator() : m_state(new State) {
    FakeMedia().Record(Call("CZemMemAllocator", this));
    FakeMedia().CountLive(0, 1);
}
CZemMemAllocator::~CZemMemAllocator() {
    FakeMedia().Record(Call("~CZemMemAllocator", this));
    FakeMedia().CountLive(0, -1);
    delete m_state;
}
HRESULT CZemMemAllocator::Initialize(size_t size_bytes, void* reserved) {
    MediaCall call = Call("Initialize", this);
    call.size = size_bytes;
    call.pointer = reserved;
    return FakeMedia().Record(call);
}
void* CZemMemAllocator::Allocate(size_t) {
    return nullptr;
}
void CZemMemAllocator::Free(void*) {}
size_t CZemMemAllocator::BytesInUse() const {
    return 0;
}
