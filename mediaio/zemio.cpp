// The base I/O class: every operation that answers when it is done. Runs on the caller's thread,
// usually a worker of the server.
#include "mediaio/zemio.h"

#include "mediaio/foreign/foreign.h"
#include "mediaio/store/iostate.h"
#include "mediaio/store/mediafile.h"
#include "mediaio/store/timecode.h"

#include <cstring>
#include <new>

using namespace zemstore;

namespace {

constexpr DWORD kOpenFlags = kFileRead | kFileWrite | kFileShare;

// A stream that is closed at the end of the call, however that ends, unless a token takes it over.
class CBriefStream {
public:
    CBriefStream() = default;
    CBriefStream(const CBriefStream&) = delete;
    CBriefStream& operator=(const CBriefStream&) = delete;
    ~CBriefStream() { CIoState::CloseStream(m_stream); }
    HRESULT Open(const CIoState& io, const WCHAR* fileName, const WCHAR* auxName,
                 MediaFileType type, DWORD openFlags) {
        if ((openFlags & ~kOpenFlags) != 0) return E_INVALIDARG;
        return io.OpenStreamOf(fileName, auxName, type, m_stream);
    }
    OpenStream* operator->() { return &m_stream; }
    OpenStream& operator*() { return m_stream; }
    HRESULT GiveTo(CTokenTable& tokens, ULONGLONG& token) {
        const HRESULT hr = tokens.Add(m_stream, token);
        if (SUCCEEDED(hr)) m_stream = {};
        return hr;
    }

private:
    OpenStream m_stream;
};

FrameRate RateOfFile(const CFrameFile& file) {
    return {file.EsDescAtCreation().rateNumerator, file.EsDescAtCreation().rateDenominator};
}

// A position counted at `rate`, in the file's own frames.
HRESULT OwnPosition(const CFrameFile& file, VioFrameRate_t rate, uint64_t position, uint32_t& own) {
    if (position > kLastPosition) return HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
    own = static_cast<uint32_t>(position);
    if (rate == kFrameRateFile) return S_OK;
    FrameRate asked;
    const FrameRate has = RateOfFile(file);
    if (!RateOf(rate, asked) || !has.Valid()) return E_INVALIDARG;
    if (!MapPosition(own, asked, has, own)) return HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
    return S_OK;
}

ZemEsDesc InfoOf(const OpenStream& stream) {
    ZemEsDesc desc = stream.file->EsDescNow();
    if (stream.kind == kTokenKindTimecode) desc.mediaType = kMediaFileTimecode;
    if (stream.kind == kTokenKindMarker) {
        desc.mediaType = kMediaFileData;
        desc.frameCount = 2;
    }
    return desc;
}

HRESULT FrameDescs(const OpenStream& stream, DWORD position, LONG count, VioFrameRate_t rate,
                   ZemFrameDesc* descs) {
    if (count < 0 || (count > 0 && descs == nullptr)) return E_INVALIDARG;
    for (LONG i = 0; i < count; ++i) {
        uint32_t own = 0;
        descs[i] = {};
        const HRESULT hr =
            OwnPosition(*stream.file, rate, uint64_t{position} + static_cast<uint32_t>(i), own);
        if (hr == E_INVALIDARG) return hr;
        if (SUCCEEDED(hr)) stream.file->FrameDesc(own, descs[i]);
    }
    return S_OK;
}

void MarksOf(const OpenStream& stream, DWORD& first, DWORD& second) {
    const Settings settings = stream.file->CurrentSettings();
    first = settings.firstMark == kMarkUnset ? 0 : settings.firstMark;
    second = settings.secondMark == kMarkUnset ? stream.file->FrameCount() : settings.secondMark;
}

HRESULT ReadWholeFrame(CFrameFile& file, uint32_t position, DWORD& size_bytes, void* buffer) {
    PinnedFrame frame{};
    HRESULT hr = file.Pin(position, true, frame);
    if (FAILED(hr)) return hr;
    const bool pinned = frame.dataSize != 0 || frame.lookSize != 0;
    hr = file.LookNow(frame);
    const DWORD room = size_bytes;
    if (SUCCEEDED(hr)) {
        size_bytes = frame.dataSize;
        if (frame.dataSize != 0) {
            hr = frame.dataSize > room || buffer == nullptr
                     ? HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER)
                     : file.ReadNow(frame, buffer);
        }
    }
    if (pinned) file.Unpin(frame.epoch);
    return hr;
}

// The stream's file as one that is written to, or why it cannot be.
HRESULT ForWriting(const OpenStream& stream, CMediaFile*& file) {
    file = stream.file->Native();
    return file != nullptr ? S_OK : RefuseForeignWrite(stream);
}

// Runs a body in which memory may run out; nothing ever leaves the library as an exception.
template <typename Body>
HRESULT Guarded(Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
}

}  // namespace

CZemIo::CZemIo() : m_io(new State) {}
CZemIo::~CZemIo() {
    delete m_io;
}

HRESULT CZemIo::CreateFileW(const WCHAR* fileName, const WCHAR* auxName, const ZemEsDesc& esDesc,
                            DWORD createFlags, void* security, ULONGLONG& token, bool) {
    if (security != nullptr) return E_INVALIDARG;
    const ZemEsDesc desc = esDesc;
    return Guarded([&] {
        CBriefStream stream;
        const HRESULT hr = m_io->CreateStream(fileName, auxName, desc, createFlags, *stream);
        return FAILED(hr) ? hr : stream.GiveTo(m_io->tokens, token);
    });
}

HRESULT CZemIo::OpenFile(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                         DWORD openFlags, bool, ULONGLONG& token) {
    if ((openFlags & ~kOpenFlags) != 0) return E_INVALIDARG;
    return Guarded([&] {
        CBriefStream stream;
        HRESULT hr = stream.Open(*m_io, fileName, auxName, type, openFlags);
        // Marks are set beside a writer; a borrowed timecode is never written.
        if (SUCCEEDED(hr) && (openFlags & kFileWrite) != 0 && stream->kind != kTokenKindMarker) {
            const bool borrowed = stream->kind == kTokenKindTimecode &&
                                  stream->file->EsDescAtCreation().mediaType != kMediaFileTimecode;
            CMediaFile* file = nullptr;
            hr = ForWriting(*stream, file);
            if (SUCCEEDED(hr)) hr = borrowed ? E_ACCESSDENIED : file->BeginWriting();
            stream->writer = SUCCEEDED(hr);
        }
        return FAILED(hr) ? hr : stream.GiveTo(m_io->tokens, token);
    });
}

HRESULT CZemIo::ReadFrame(ULONGLONG token, DWORD position, VioFrameRate_t rate, DWORD& size_bytes,
                          void* buffer) {
    CTokenTable::CUse stream;
    HRESULT hr = m_io->tokens.Use(token, stream);
    uint32_t own = 0;
    if (SUCCEEDED(hr)) hr = OwnPosition(*stream->file, rate, position, own);
    if (FAILED(hr)) return hr;
    if (!IsSpecialKind(stream->kind)) return ReadWholeFrame(*stream->file, own, size_bytes, buffer);
    uint8_t description[kDescriptionSize];
    hr = ReadDescription(*stream, own, description);
    if (FAILED(hr)) return hr;
    const DWORD room = size_bytes;
    size_bytes = kDescriptionSize;
    if (room < kDescriptionSize || buffer == nullptr)
        return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    memcpy(buffer, description, kDescriptionSize);
    return S_OK;
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
    OpenStream stream;
    const HRESULT hr = m_io->tokens.Remove(token, stream);
    return FAILED(hr) ? hr : Guarded([&] { return CIoState::CloseStream(stream); });
}

HRESULT CZemIo::GetFileInfo(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                            DWORD openFlags, ZemEsDesc& esDesc) {
    return Guarded([&] {
        CBriefStream stream;
        const HRESULT hr = stream.Open(*m_io, fileName, auxName, type, openFlags);
        if (SUCCEEDED(hr)) esDesc = InfoOf(*stream);
        return hr;
    });
}

HRESULT CZemIo::GetFileInfo(ULONGLONG token, ZemEsDesc& esDesc) {
    CTokenTable::CUse stream;
    const HRESULT hr = m_io->tokens.Use(token, stream);
    if (SUCCEEDED(hr)) esDesc = InfoOf(*stream);
    return hr;
}

HRESULT CZemIo::GetFrameDesc(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                             DWORD openFlags, DWORD position, LONG count, ZemFrameDesc* descs) {
    return Guarded([&] {
        CBriefStream stream;
        const HRESULT hr = stream.Open(*m_io, fileName, auxName, type, openFlags);
        if (FAILED(hr)) return hr;
        return FrameDescs(*stream, position, count, kFrameRateFile, descs);
    });
}

HRESULT CZemIo::GetFrameDesc(ULONGLONG token, DWORD position, LONG count, ZemFrameDesc* descs,
                             VioFrameRate_t rate) {
    CTokenTable::CUse stream;
    const HRESULT hr = m_io->tokens.Use(token, stream);
    if (FAILED(hr)) return hr;
    return FrameDescs(*stream, position, count, rate, descs);
}

HRESULT CZemIo::FlushBuffers(ULONGLONG token) {
    CTokenTable::CUse stream;
    const HRESULT hr = m_io->tokens.Use(token, stream);
    if (FAILED(hr)) return hr;
    CMediaFile* const file = stream->file->Native();
    return file != nullptr ? file->Flush() : S_OK;  // what nobody writes is on the device
}

HRESULT CZemIo::GetFileMarks(ULONGLONG token, DWORD& firstMark, DWORD& secondMark) {
    CTokenTable::CUse stream;
    const HRESULT hr = m_io->tokens.Use(token, stream);
    if (SUCCEEDED(hr)) MarksOf(*stream, firstMark, secondMark);
    return hr;
}

HRESULT CZemIo::GetFileMarks(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                             DWORD openFlags, DWORD& firstMark, DWORD& secondMark) {
    return Guarded([&] {
        CBriefStream stream;
        const HRESULT hr = stream.Open(*m_io, fileName, auxName, type, openFlags);
        if (SUCCEEDED(hr)) MarksOf(*stream, firstMark, secondMark);
        return hr;
    });
}

HRESULT CZemIo::StripeTimecode(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                               DWORD openFlags, const vdrTimecode_s& start, DWORD stripeFlags) {
    if ((stripeFlags & ~kStripeDropFrame) != 0) return E_INVALIDARG;
    const vdrTimecode_s first = start;
    return Guarded([&] {
        CBriefStream stream;
        HRESULT hr = stream.Open(*m_io, fileName, auxName, type, openFlags);
        CMediaFile* file = nullptr;
        if (SUCCEEDED(hr)) hr = ForWriting(*stream, file);
        if (FAILED(hr)) return hr;
        const bool dropFrame =
            (stripeFlags & kStripeDropFrame) != 0 || (first.frames & kTimecodeDropFrameBit) != 0;
        uint32_t count = 0;
        if (!TimecodeToCount(first, RateOfFile(*stream->file), dropFrame, count))
            return E_INVALIDARG;
        // One record stripes all frames, those to come included: there is no half of it.
        Settings settings = file->CurrentSettings();
        settings.stripeStart = first;
        settings.flags = kSettingStriped | (dropFrame ? kSettingDropFrame : 0);
        return file->AppendSettings(settings);
    });
}

HRESULT CZemIo::EraseSegment(ULONGLONG token, DWORD segmentA, DWORD segmentB, MediaFileType type) {
    CTokenTable::CUse stream;
    HRESULT hr = m_io->tokens.Use(token, stream);
    if (FAILED(hr)) return hr;
    const int32_t own = stream->file->EsDescAtCreation().mediaType;
    if (type != kMediaFileAny && type != own) return E_INVALIDARG;
    CMediaFile* file = nullptr;
    hr = ForWriting(*stream, file);
    if (FAILED(hr)) return hr;
    if (!stream->writer) return E_ACCESSDENIED;
    const DWORD count = stream->file->FrameCount();
    const DWORD end = segmentB < count ? segmentB : count;
    if (segmentA >= segmentB) return E_INVALIDARG;
    if (segmentA >= end) return HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
    return Guarded([&] { return file->Erase(segmentA, end); });
}

const WCHAR* CZemIo::GetClientId() const {
    return m_io->clientId.c_str();
}

void CZemIo::SetClientId(const WCHAR* clientId) {
    size_t length = 0;
    while (clientId != nullptr && length < kNameRoom - 1 && clientId[length] != 0)
        ++length;
    m_io->clientId.assign(clientId == nullptr ? TEXT("") : clientId, length);
}

// There is one store, in this process: connecting says whether the name could mean it.
HRESULT CZemIo::Connect(const WCHAR* serverName) {
    if (serverName == nullptr || serverName[0] == 0) return S_OK;
    WCHAR own[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    if (GetComputerNameW(own, &size) && _wcsicmp(serverName, own) == 0) return S_OK;
    return _wcsicmp(serverName, TEXT("localhost")) == 0 ? S_OK
                                                        : HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
}

HRESULT CZemIo::Disconnect() {
    return S_OK;
}
HRESULT CZemIo::SetRemoteIoRealTime(BOOL on) {
    return SetIoRealTime(on);
}

HRESULT CZemIo::SetIoRealTime(BOOL on) {
    m_io->realTime.store(on != FALSE);
    return S_OK;
}

HRESULT CZemIo::QueryFileSystemSpace(const WCHAR* volumeName, ULARGE_INTEGER& total,
                                     ULARGE_INTEGER& free) {
    return Guarded([&] {
        NamedFile named;
        uint64_t totalBytes = 0;
        uint64_t freeBytes = 0;
        HRESULT hr = m_io->FindDirectory(volumeName, named);
        if (SUCCEEDED(hr)) hr = named.volume->Space(named.path, totalBytes, freeBytes);
        if (FAILED(hr)) return hr;
        total.QuadPart = totalBytes;
        free.QuadPart = freeBytes;
        return hr;
    });
}

HRESULT CZemIo::GetFileAttributesW(const WCHAR* fileName, DWORD& attributes) {
    return Guarded([&] {
        NamedFile named;
        const HRESULT hr = m_io->FindDirectory(fileName, named);
        return FAILED(hr) ? hr : named.volume->Attributes(named.path, attributes);
    });
}

HRESULT CZemIo::DeleteFileW(const WCHAR* fileName) {
    return Guarded([&] {
        NamedFile named;
        HRESULT hr = m_io->FindFile(fileName, named);
        if (FAILED(hr)) return hr;
        // Readers keep what they have open; what is being recorded stays.
        std::unique_ptr<IStoreFile> file;
        hr = named.volume->Open(named.path, OpenFor::kReadIfPossibleWrite, file);
        if (SUCCEEDED(hr)) hr = file->LockForWriting();
        if (SUCCEEDED(hr)) hr = named.volume->Delete(named.path);
        if (SUCCEEDED(hr)) DropForeignIndex(*named.volume, named.path);
        return hr;
    });
}

HRESULT CZemIo::GetFileSize(const WCHAR* fileName, ULONGLONG& size_bytes) {
    return Guarded([&] {
        NamedFile named;
        uint64_t size = 0;
        HRESULT hr = m_io->FindFile(fileName, named);
        if (SUCCEEDED(hr)) hr = named.volume->FileSize(named.path, size);
        if (SUCCEEDED(hr)) size_bytes = size;
        return hr;
    });
}

HRESULT CZemIo::CreateDirectoryW(const WCHAR* directoryName) {
    return Guarded([&] {
        NamedFile named;
        const HRESULT hr = m_io->FindFile(directoryName, named);
        return FAILED(hr) ? hr : named.volume->MakeDirectory(named.path);
    });
}

HRESULT CZemIo::MoveFileW(const WCHAR* fromName, const WCHAR* toName) {
    return Guarded([&] {
        NamedFile from;
        NamedFile to;
        HRESULT hr = m_io->FindFile(fromName, from);
        if (SUCCEEDED(hr)) hr = m_io->FindFile(toName, to);
        if (SUCCEEDED(hr)) hr = from.volume->Move(from.path, to.path);
        if (SUCCEEDED(hr)) MoveForeignIndex(*from.volume, from.path, to.path);
        return hr;
    });
}
