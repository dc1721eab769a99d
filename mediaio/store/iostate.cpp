// Names to open streams: volume, shared file, stream kind, write access.
#include "mediaio/store/iostate.h"

#include "mediaio/errorlog.h"
#include "mediaio/foreign/foreign.h"
#include "mediaio/store/filetable.h"
#include "mediaio/store/log.h"

#include <cstring>
#include <map>
#include <thread>

namespace zemstore {
namespace {

constexpr const WCHAR* kSource = TEXT("iostate.cpp");

std::string ReadVolumeRoot() {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, TEXT("Software\\Quorvane Group\\RUD\\vfs"), 0, KEY_READ,
                      &key) != ERROR_SUCCESS) {
        return {};
    }
    WCHAR value[kNameRoom] = {};
    DWORD type = 0;
    DWORD size = sizeof value - sizeof value[0];
    const LSTATUS status =
        RegQueryValueExW(key, TEXT("0"), nullptr, &type, reinterpret_cast<BYTE*>(value), &size);
    RegCloseKey(key);
    std::string root;
    const bool text = status == ERROR_SUCCESS && (type == REG_SZ || type == REG_EXPAND_SZ);
    if (!text || !ToStrictUtf8(WStringView(value), root)) return {};
    return root;
}

uint32_t KindOf(int32_t mediaType) {
    switch (mediaType) {
        case kMediaFileVideo:
            return kTokenKindVideo;
        case kMediaFileAudio:
            return kTokenKindAudio;
        case kMediaFileTimecode:
            return kTokenKindTimecode;
        default:
            return kTokenKindData;
    }
}

// Which stream of a native file, which has one of its own and lends its timecode and marks.
HRESULT ChooseKind(int32_t mediaType, const StreamName& name, MediaFileType type, uint32_t& kind) {
    const HRESULT none = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
    int32_t wanted = mediaType;
    switch (name.kind) {
        case StreamKind::kFirst:
            break;
        case StreamKind::kVideo:
            wanted = kMediaFileVideo;
            break;
        case StreamKind::kAudio:
            wanted = kMediaFileAudio;
            break;
        case StreamKind::kData:
            wanted = kMediaFileData;
            break;
        case StreamKind::kTimecode:
            if (type != kMediaFileAny && type != kMediaFileTimecode) return none;
            kind = kTokenKindTimecode;
            return S_OK;
        case StreamKind::kMarkers:
            if (type != kMediaFileAny && type != kMediaFileData) return none;
            kind = kTokenKindMarker;
            return S_OK;
    }
    if (wanted != mediaType || name.index != 0) return none;
    if (type != kMediaFileAny && type != mediaType) return none;
    kind = KindOf(mediaType);
    return S_OK;
}

HRESULT CheckEsDesc(const ZemEsDesc& desc) {
    const bool known = desc.mediaType >= kMediaFileVideo && desc.mediaType <= kMediaFileData;
    const bool half = (desc.rateNumerator == 0) != (desc.rateDenominator == 0);
    if (desc.sizeVersion != kEsDescVersion1 || !known || half) return E_INVALIDARG;
    return desc.reserved[0] == 0 && desc.reserved[1] == 0 ? S_OK : E_INVALIDARG;
}

// What a file is, its content says, never its name. Not even the first byte of a native one may
// make the system read ahead: it would go on doing so, into pieces that several frames have in
// common (CMediaFile::JoinsBatch).
bool IsNative(IStoreFile& file) {
    uint64_t magic = 0;
    size_t done = 0;
    file.StopReadAhead();
    const HRESULT hr = file.ReadAt(&magic, sizeof magic, 0, done);
    if (SUCCEEDED(hr) && done == sizeof magic && magic == kHeaderMagic) return true;
    file.ResumeReadAhead();
    return false;
}

HRESULT OpenForeign(const NamedFile& named, std::unique_ptr<IStoreFile> file,
                    const StreamName& name, MediaFileType type, OpenStream& stream) {
    const OpenForeignFunction open = ForeignReader();
    if (open == nullptr) return HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);
    stream.writer = false;
    return open({named.volume, named.path, std::move(file)}, name, type, stream.file, stream.kind);
}

void LogRecovery(const LoadReport& report, const std::string& path) {
    if (report.tornRecords == 0 && !report.otherRoot && !report.rebuilt) return;
    LogStoreOf(path, kErrorLogLevelWarning, S_OK, kSource,
               "recovered; unfinished writes dropped: " + std::to_string(report.tornRecords) +
                   (report.rebuilt     ? ", index rebuilt"
                    : report.otherRoot ? ", older index"
                                       : ""));
}

}  // namespace

CIoState::CIoState() : m_root(ReadVolumeRoot()) {}

CIoState::~CIoState() {
    // Closing waits for I/O, which an I/O thread must not do: there a thread of its own takes over.
    std::vector<OpenStream> open;
    for (OpenStream stream; tokens.RemoveAny(stream);)
        open.push_back(stream);
    const auto close = [](std::vector<OpenStream>& streams) {
        for (OpenStream& stream : streams)
            CloseStream(stream);
    };
    if (!open.empty() && IAsyncIo::OnOwnThread()) {
        std::thread([close, open]() mutable {
            NameThisThread(TEXT("zem-closer"));
            close(open);
        }).detach();
    } else {
        close(open);
    }
}

HRESULT CIoState::Volume(std::shared_ptr<IVolume>& volume) const {
    static std::mutex lock;
    static auto* volumes = new std::map<std::string, std::weak_ptr<IVolume>>;
    if (m_root.empty()) return HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
    std::lock_guard hold(lock);
    std::weak_ptr<IVolume>& known = (*volumes)[m_root];
    volume = known.lock();
    if (volume != nullptr) return S_OK;
    const HRESULT hr = OpenVolume(m_root, volume);
    if (SUCCEEDED(hr)) known = volume;
    return hr;
}

HRESULT CIoState::FindDirectory(const WCHAR* name, NamedFile& found) const {
    const HRESULT hr = ParseName(name, m_root, found.path);
    return FAILED(hr) ? hr : Volume(found.volume);
}

HRESULT CIoState::FindFile(const WCHAR* name, NamedFile& found) const {
    const HRESULT hr = ParseFileName(name, m_root, found.path);
    return FAILED(hr) ? hr : Volume(found.volume);
}

HRESULT CIoState::OpenStreamOf(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                               OpenStream& stream) const {
    if (type < kMediaFileAny || type > kMediaFileData) return E_INVALIDARG;
    StreamName streamName;
    NamedFile named;
    HRESULT hr = ParseStreamName(auxName, streamName);
    if (SUCCEEDED(hr)) hr = FindFile(fileName, named);
    std::unique_ptr<IStoreFile> file;
    if (SUCCEEDED(hr)) hr = named.volume->Open(named.path, OpenFor::kReadIfPossibleWrite, file);
    if (FAILED(hr)) return hr;
    if (!IsNative(*file)) return OpenForeign(named, std::move(file), streamName, type, stream);
    CMediaFile* shared = nullptr;
    hr = ShareMediaFile(std::move(file), IAsyncIo::Shared(), named.path, shared);
    if (FAILED(hr)) return hr;
    LogRecovery(shared->OpenReport(), named.path);
    hr = ChooseKind(shared->EsDescAtCreation().mediaType, streamName, type, stream.kind);
    if (FAILED(hr)) {
        shared->Release();
        return hr;
    }
    stream.file = shared;
    stream.writer = false;
    return S_OK;
}

HRESULT CIoState::CreateMediaFile(const NamedFile& named, const ZemEsDesc& esDesc, bool replace,
                                  OpenStream& stream) const {
    std::unique_ptr<IStoreFile> file;
    std::string temporary;
    HRESULT hr = named.volume->CreateUnpublished(named.path, file, temporary);
    if (FAILED(hr)) return hr;
    hr = CMediaFile::Format(*file, esDesc);
    CMediaFile* shared = nullptr;
    if (SUCCEEDED(hr)) hr = ShareMediaFile(std::move(file), IAsyncIo::Shared(), named.path, shared);
    // Before the file has a name nobody else can become its writer.
    if (SUCCEEDED(hr)) hr = shared->BeginWriting();
    if (FAILED(hr)) {
        named.volume->Discard(temporary);
        if (shared != nullptr) shared->Release();
        return hr;
    }
    hr = named.volume->Publish(temporary, named.path, replace);
    if (SUCCEEDED(hr)) hr = named.volume->SyncDirectoryOf(named.path);
    if (FAILED(hr)) {
        shared->EndWriting();
        shared->Release();
        return hr;
    }
    stream.file = shared;
    stream.kind = KindOf(esDesc.mediaType);
    stream.writer = true;
    return S_OK;
}

HRESULT CIoState::CreateStream(const WCHAR* fileName, const WCHAR* auxName, const ZemEsDesc& esDesc,
                               DWORD createFlags, OpenStream& stream) const {
    constexpr DWORD kKnown = kFileRead | kFileWrite | kFileShare | kFileCreateNew | kFileTruncate;
    if ((createFlags & ~kKnown) != 0) return E_INVALIDARG;
    HRESULT hr = CheckEsDesc(esDesc);
    StreamName streamName;
    if (SUCCEEDED(hr)) hr = ParseStreamName(auxName, streamName);
    uint32_t kind = 0;
    if (SUCCEEDED(hr)) hr = ChooseKind(esDesc.mediaType, streamName, kMediaFileAny, kind);
    NamedFile named;
    if (SUCCEEDED(hr)) hr = FindFile(fileName, named);
    if (FAILED(hr)) return hr;
    if (kind != KindOf(esDesc.mediaType)) return E_INVALIDARG;

    // A second round is for the case that the file appears or goes between two looks.
    for (int round = 0; round < 2; ++round) {
        std::unique_ptr<IStoreFile> existing;
        hr = named.volume->Open(named.path, OpenFor::kReadIfPossibleWrite, existing);
        const bool missing = hr == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) ||
                             hr == HRESULT_FROM_WIN32(ERROR_DIRECTORY);
        if (FAILED(hr) && !missing) return hr;
        const bool exists = SUCCEEDED(hr);
        if (exists && (createFlags & kFileCreateNew) != 0)
            return HRESULT_FROM_WIN32(ERROR_FILE_EXISTS);
        if (exists && (createFlags & kFileTruncate) == 0) {
            hr = OpenStreamOf(fileName, auxName, static_cast<MediaFileType>(esDesc.mediaType),
                              stream);
            if (FAILED(hr)) return hr == HRESULT_FROM_WIN32(ERROR_NOT_FOUND) ? E_INVALIDARG : hr;
            CMediaFile* const file = stream.file->Native();
            hr = file != nullptr ? file->BeginWriting() : RefuseForeignWrite(stream);
            stream.writer = SUCCEEDED(hr);
            if (FAILED(hr)) CloseStream(stream);
            return hr;
        }
        if (exists) {
            hr = existing->LockForWriting();  // kept until it has been replaced
            if (FAILED(hr)) return hr;
        }
        hr = CreateMediaFile(named, esDesc, exists, stream);
        if (hr != HRESULT_FROM_WIN32(ERROR_FILE_EXISTS)) return hr;
    }
    return hr;
}

HRESULT CIoState::CloseStream(OpenStream& stream) {
    HRESULT hr = S_OK;
    if (stream.file == nullptr) return hr;
    if (stream.writer) hr = stream.file->Native()->EndWriting();
    stream.file->Release();
    stream = {};
    return hr;
}

HRESULT RefuseForeignWrite(const OpenStream& stream) {
    const HRESULT hr = HRESULT_FROM_WIN32(ERROR_WRITE_PROTECT);
    LogStoreOf(stream.file->OpenedAs(), kErrorLogLevelError, hr, kSource,
               "a file of a foreign format is only read; import it to change it");
    return hr;
}

HRESULT ReadDescription(const OpenStream& stream, uint32_t position,
                        uint8_t (&description)[kDescriptionSize]) {
    const int32_t own = stream.file->EsDescAtCreation().mediaType;
    if (stream.kind != kTokenKindMarker && stream.kind == KindOf(own))
        return stream.file->Description(position, description);
    uint32_t frame = position;
    if (stream.kind == kTokenKindMarker) {
        if (position > 1) return HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
        const Settings settings = stream.file->CurrentSettings();
        frame = position == 0 ? settings.firstMark : settings.secondMark;
        if (frame == kMarkUnset) return kErrorFrameHole;
    } else if (frame >= stream.file->FrameCount()) {
        return HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
    }
    ZemFrameDesc desc{};
    stream.file->FrameDesc(frame, desc);
    desc.position = frame;
    memcpy(description, &desc, sizeof desc);
    return S_OK;
}

HRESULT WriteMark(const OpenStream& stream, uint32_t index, const uint8_t* description) {
    if (index > 1) return E_INVALIDARG;
    CMediaFile* const file = stream.file->Native();
    if (file == nullptr) return RefuseForeignWrite(stream);
    ZemFrameDesc desc;
    memcpy(&desc, description, sizeof desc);
    Settings settings = stream.file->CurrentSettings();
    (index == 0 ? settings.firstMark : settings.secondMark) = desc.position;
    return file->AppendSettings(settings);
}

}  // namespace zemstore
