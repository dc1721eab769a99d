// A media file's life, its readers and what it says about itself.
#include "mediaio/store/mediafile.h"

#include "mediaio/store/crc32c.h"

#include <chrono>
#include <cstring>

namespace zemstore {
namespace {

constexpr uint64_t kEpochOffset100ns = 116444736000000000ull;  // 1601 to 1970

uint64_t Now100ns() {
    using namespace std::chrono;
    const auto since = system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(duration_cast<nanoseconds>(since).count()) / 100 +
           kEpochOffset100ns;
}

}  // namespace

HRESULT CMediaFile::Format(IStoreFile& file, const ZemEsDesc& esDesc) {
    std::vector<uint8_t> pages(kLogOffset);
    FileHeader header{};
    HRESULT hr = RandomBytes(header.fileId.bytes, sizeof header.fileId.bytes);
    if (FAILED(hr)) return hr;
    header.magic = kHeaderMagic;
    header.version = kFormatVersion;
    header.size = sizeof header;
    header.esDesc = esDesc;
    header.esDesc.frameCount = 0;
    header.esDesc.flags &= kEsFlagDropFrame;
    header.created = Now100ns();
    header.crc = Crc32c(0, &header, offsetof(FileHeader, crc));
    memcpy(pages.data(), &header, sizeof header);
    Root root{};
    root.magic = kRootMagic;
    root.fileId = header.fileId;
    root.logStart = kLogOffset;
    root.nextSequence = 1;
    root.settings = {kMarkUnset, kMarkUnset, {}, 0};
    root.crc = Crc32c(0, &root, offsetof(Root, crc));
    memcpy(pages.data() + kRootOffset[0], &root, sizeof root);
    const IoSpan span{pages.data(), pages.size()};
    size_t done = 0;
    hr = file.WriteAt(&span, 1, 0, done);
    return FAILED(hr) ? hr : file.Sync();
}

CMediaFile::CMediaFile(std::unique_ptr<IStoreFile> file, std::shared_ptr<IAsyncIo> async,
                       std::string openedAs)
    : CFrameFile(std::move(openedAs)),
      m_file(std::move(file)),
      m_async(std::move(async)),
      m_identity(m_file->Identity()) {
    // What is read ahead waits in the same queue as everything else (readahead.h).
    m_file->StopReadAhead();
}

CMediaFile::~CMediaFile() {
    for (void* view : m_views)
        if (view != nullptr) m_file->UnmapView(view);
}

void CMediaFile::LastRelease() {
    if (m_forget != nullptr) m_forget(*this);
    delete this;
}

HRESULT CMediaFile::Pin(uint32_t position, bool pin, PinnedFrame& frame) {
    std::lock_guard hold(m_lock);
    if (position >= m_frameCount) return HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
    const IndexEntry* entry = m_index.Find(position);
    if (entry == nullptr || entry->sequence == 0) return kErrorFrameHole;
    if ((entry->flags & kFrameFlagErased) != 0) return kErrorFrameErased;
    if ((entry->flags & kEntryCorrupt) != 0) return HRESULT_FROM_WIN32(ERROR_CRC);
    frame.position = position;
    frame.slotOffset = entry->slotOffset;
    frame.sequence = entry->sequence;
    frame.dataSize = entry->dataSize;
    frame.dataCrc = entry->dataCrc;
    frame.verified = (entry->flags & kEntryVerified) != 0;
    frame.cachedStamp = entry->cachedStamp;
    frame.view = nullptr;
    frame.lookSize = 0;
    if (!pin || frame.dataSize == 0) return S_OK;
    // A window is longer than its step by more than any frame: every frame lies whole in the window
    // that its first byte falls into, so no view is ever moved or made again.
    static_assert(kWindowOverlap >= kMaxFrameSize);
    const auto window = static_cast<size_t>(frame.slotOffset / kWindow);
    if (window >= m_views.size()) m_views.resize(window + 1);
    if (m_views[window] == nullptr)
        m_views[window] = m_file->MapView(window * kWindow, kWindow + kWindowOverlap);
    if (m_views[window] != nullptr)
        frame.view = static_cast<const char*>(m_views[window]) + frame.slotOffset % kWindow;
    frame.epoch = m_epoch;
    ++m_pins[m_epoch];
    AddRef();
    return S_OK;
}

void CMediaFile::Unpin(unsigned epoch) {
    {
        std::unique_lock hold(m_lock);
        --m_pins[epoch & 1];
        // What was only kept for this reader can go now.
        if (m_phase == Phase::kIdle && NextPunch()) {
            m_phase = Phase::kPunch;
            AddRef();  // until the last range is punched
            ContinueCheckpoint(hold);
        }
    }
    Release();
}

void CMediaFile::ReportVerified(const PinnedFrame& frame, bool good) {
    std::lock_guard hold(m_lock);
    IndexEntry* entry = m_index.Find(frame.position);
    // Overwritten meanwhile: what was found out is about the older version.
    if (entry == nullptr || entry->sequence != frame.sequence) return;
    entry->flags |= good ? kEntryVerified : kEntryCorrupt;
}

void CMediaFile::ReportCached(const PinnedFrame& frame, uint32_t stamp) {
    std::lock_guard hold(m_lock);
    IndexEntry* entry = m_index.Find(frame.position);
    if (entry != nullptr && entry->sequence == frame.sequence) entry->cachedStamp = stamp;
}

HRESULT CMediaFile::Description(uint32_t position, uint8_t (&description)[kDescriptionSize]) {
    std::lock_guard hold(m_lock);
    if (position >= m_frameCount) return HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
    const IndexEntry* entry = m_index.Find(position);
    if (entry == nullptr || entry->sequence == 0) return kErrorFrameHole;
    if ((entry->flags & kFrameFlagErased) != 0) return kErrorFrameErased;
    const uint8_t* bytes = m_index.Description(position);
    if (bytes != nullptr)
        memcpy(description, bytes, kDescriptionSize);
    else
        memset(description, 0, kDescriptionSize);
    return S_OK;
}

bool CMediaFile::HasWriter() const {
    std::lock_guard hold(m_lock);
    return m_writer;
}

Settings CMediaFile::CurrentSettings() const {
    std::lock_guard hold(m_lock);
    return m_settings;
}

uint32_t CMediaFile::FrameCount() const {
    std::lock_guard hold(m_lock);
    return m_frameCount;
}

uint64_t CMediaFile::LogEnd() const {
    std::lock_guard hold(m_lock);
    return m_logEnd;
}

uint64_t CMediaFile::NextSequence() const {
    std::lock_guard hold(m_lock);
    return m_sequence;
}

void CMediaFile::VisitIndex(const std::function<void(uint32_t, const IndexEntry&)>& entry,
                            const std::function<void(uint64_t, uint32_t)>& node) {
    std::lock_guard hold(m_lock);
    m_index.ForEach(0, uint64_t{kLastPosition} + 1, [&](uint32_t position, IndexEntry& found) {
        entry(position, found);
        return false;
    });
    m_index.ForEachNode(node);
}

size_t CMediaFile::IndexNodes() const {
    std::lock_guard hold(m_lock);
    return m_index.Nodes();
}

vdrTimecode_s CMediaFile::StartTimecode(bool& dropFrame) const {
    std::lock_guard hold(m_lock);
    if ((m_settings.flags & kSettingStriped) != 0) {
        dropFrame = (m_settings.flags & kSettingDropFrame) != 0;
        return m_settings.stripeStart;
    }
    dropFrame = (m_header.esDesc.flags & kEsFlagDropFrame) != 0;
    return m_header.esDesc.startTimecode;
}

ZemEsDesc CMediaFile::EsDescNow() const {
    ZemEsDesc desc = m_header.esDesc;
    bool dropFrame = false;
    desc.startTimecode = StartTimecode(dropFrame);
    std::lock_guard hold(m_lock);
    desc.frameCount = m_frameCount;
    desc.flags = (dropFrame ? kEsFlagDropFrame : 0) |
                 ((m_settings.flags & kSettingStriped) != 0 ? kEsFlagStriped : 0) |
                 (m_writer ? kEsFlagGrowing : 0);
    return desc;
}

void CMediaFile::FrameDesc(uint32_t position, ZemFrameDesc& desc) const {
    desc = {};
    bool dropFrame = false;
    const vdrTimecode_s start = StartTimecode(dropFrame);
    {
        std::lock_guard hold(m_lock);
        if (position >= m_frameCount) return;
        IndexEntry* entry = const_cast<CFrameIndex&>(m_index).Find(position);
        if (entry != nullptr && entry->sequence != 0) {
            desc.dataSize = entry->dataSize;
            desc.flags = entry->flags & ~kEntryRuntimeBits;
            if ((entry->flags & kEntryCorrupt) != 0) desc.flags |= kFrameFlagCorrupt;
            desc.timecode = entry->timecode;
        }
    }
    FillFrameTimes(position, m_header.esDesc, start, dropFrame, desc);
}

}  // namespace zemstore
