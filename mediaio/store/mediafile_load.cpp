// Opening a media file: header, newest root whose index is whole, and what the log holds behind it.
// Nothing is written; a file that was not closed reads the same way each time until a writer puts
// its next checkpoint. Runs on the thread that opens the file, before anyone else sees it.
#include "mediaio/store/crc32c.h"
#include "mediaio/store/mediafile.h"

#include <algorithm>
#include <cstring>

namespace zemstore {
namespace {

uint64_t RoundUp(uint64_t size) {
    return (size + kPageSize - 1) / kPageSize * kPageSize;
}

}  // namespace

// The log in large pieces, holes left out.
class CMediaFile::CTailReader {
public:
    CTailReader(IStoreFile& file, uint64_t start, uint64_t limit)
        : m_file(file),
          m_limit(limit),
          m_budget(kMaxFrameSize + 2 * (std::max(start, limit) - start)) {}

    // The next page at or after `offset` that is not in a hole; null at the end or on a failure.
    const uint8_t* Page(uint64_t& offset, HRESULT& hr) {
        hr = S_OK;
        if (offset < m_begin || offset + kPageSize > m_begin + m_filled) {
            offset = std::max(offset, m_file.NextData(offset) / kPageSize * kPageSize);
            if (offset >= m_limit) return nullptr;
            m_begin = offset;
            const auto want = static_cast<size_t>(std::min<uint64_t>(kPiece, m_limit - offset));
            if (m_buffer.size() < want) m_buffer.resize(want);
            hr = m_file.ReadAt(m_buffer.data(), want, offset, m_filled);
            if (FAILED(hr) || m_filled < kPageSize) return nullptr;
        }
        return m_buffer.data() + (offset - m_begin);
    }

    HRESULT Checksum(uint64_t offset, uint32_t size, uint32_t& crc) {
        if (m_data.size() < std::min<size_t>(kPiece, size))
            m_data.resize(std::min<size_t>(kPiece, size));
        crc = 0;
        // Slots do not overlap, so their data is no more than the log. Records that claim more were
        // not written by a store.
        if (size > m_budget) return HRESULT_FROM_WIN32(ERROR_CRC);
        m_budget -= size;
        for (uint32_t at = 0; at < size;) {
            const size_t want = std::min<size_t>(kPiece, size - at);
            size_t done = 0;
            const HRESULT hr = m_file.ReadAt(m_data.data(), want, offset + at, done);
            if (FAILED(hr)) return hr;
            if (done != want) return HRESULT_FROM_WIN32(ERROR_HANDLE_EOF);
            crc = Crc32c(crc, m_data.data(), want);
            at += static_cast<uint32_t>(want);
        }
        return S_OK;
    }

private:
    static constexpr size_t kPiece = size_t{1} << 20;
    IStoreFile& m_file;
    uint64_t m_limit;
    uint64_t m_budget;
    std::vector<uint8_t> m_buffer;
    std::vector<uint8_t> m_data;
    uint64_t m_begin = 0;
    size_t m_filled = 0;
};

const char* CMediaFile::HeaderFault(const FileHeader& header) {
    if (header.magic != kHeaderMagic) return "not a native media file";
    if (header.version != kFormatVersion) return "unknown version";
    if (header.size != sizeof header) return "wrong size";
    if (Crc32c(0, &header, offsetof(FileHeader, crc)) != header.crc) return "wrong checksum";
    if (header.incompatible != 0) return "features that this version does not know";
    const int32_t type = header.esDesc.mediaType;
    return type < kMediaFileVideo || type > kMediaFileData ? "unknown media type" : nullptr;
}

HRESULT CMediaFile::ReadHeader() {
    size_t done = 0;
    const HRESULT hr = m_file->ReadAt(&m_header, sizeof m_header, 0, done);
    if (FAILED(hr)) return hr;
    if (done != sizeof m_header || HeaderFault(m_header) != nullptr)
        return HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);
    m_readOnly = !m_file->Writable() || m_header.compatible != 0;
    return S_OK;
}

// A root that the device does not give is no reason to take the other: that one may be older, and
// would bring back what was erased or overwritten since.
HRESULT CMediaFile::ReadRoot(int which, Root& root) {
    root = {};
    size_t done = 0;
    const HRESULT hr = m_file->ReadAt(&root, sizeof root, kRootOffset[which], done);
    const Root blank{};
    const bool valid =
        SUCCEEDED(hr) && done == sizeof root && root.magic == kRootMagic &&
        root.fileId == m_header.fileId && Crc32c(0, &root, offsetof(Root, crc)) == root.crc &&
        (root.generation & 1) == static_cast<uint64_t>(which) && root.logStart >= kLogOffset &&
        root.logStart % kPageSize == 0 && root.nextSequence != 0 && root.generation < kCountLimit &&
        root.logStart < kCountLimit && root.nextSequence < kCountLimit;
    using State = LoadReport::RootState;
    m_report.roots[which].generation = valid ? root.generation : 0;
    m_report.roots[which].state = valid                                     ? State::kValid
                                  : memcmp(&root, &blank, sizeof root) == 0 ? State::kBlank
                                                                            : State::kInvalid;
    return hr;
}

HRESULT CMediaFile::LoadIndex(const Root& root) {
    uint64_t size = 0;
    HRESULT hr = m_file->Size(size);
    if (SUCCEEDED(hr)) hr = m_index.Load(*m_file, root, size, m_report.fault);
    if (FAILED(hr)) return hr;
    m_generation = root.generation;
    m_logStart = root.logStart;
    m_sequence = root.nextSequence;
    m_frameCount = root.frameCount;
    m_settings = root.settings;
    m_compactOffset = root.compactOffset;
    m_compactEnd = root.compactEnd;
    m_scattered = root.compactEnd == 0 ? m_index.Nodes() : 0;
    return S_OK;
}

bool CMediaFile::RecordIsValid(const LogRecord& record, uint64_t pageOffset,
                               uint64_t scanned) const {
    if (record.magic != kRecordMagic || record.size != sizeof record) return false;
    if (record.fileId != m_header.fileId || record.sequence < m_sequence) return false;
    if (Crc32c(0, &record, offsetof(LogRecord, crc)) != record.crc) return false;
    if (record.kind < static_cast<uint16_t>(RecordKind::kFrame) ||
        record.kind > static_cast<uint16_t>(RecordKind::kSettings)) {
        return false;
    }
    return record.sequence < kCountLimit && record.dataSize <= kMaxFrameSize &&
           record.slotOffset % kPageSize == 0 && record.slotOffset >= scanned &&
           record.slotOffset <= pageOffset &&
           record.slotOffset + SlotSize(record.dataSize) == pageOffset + kPageSize &&
           (record.flags & ~kFrameFlagKey) == 0 && record.position <= kLastPosition;
}

HRESULT CMediaFile::TakeRecord(CTailReader& reader, const LogRecord& record) {
    uint32_t crc = 0;
    const HRESULT hr = reader.Checksum(record.slotOffset, record.dataSize, crc);
    if (FAILED(hr)) return hr;
    if (crc != record.dataCrc) return HRESULT_FROM_WIN32(ERROR_CRC);
    IndexEntry entry;
    entry.slotOffset = record.slotOffset;
    entry.sequence = record.sequence;
    entry.dataSize = record.dataSize;
    entry.dataCrc = record.dataCrc;
    entry.flags = record.flags | kFrameFlagPresent;
    entry.timecode = record.timecode;
    Apply(static_cast<RecordKind>(record.kind), record.position, record.count, entry,
          record.description, record.settings);
    m_sequence = record.sequence + 1;
    return S_OK;
}

HRESULT CMediaFile::ScanTail(uint64_t start, uint64_t limit) {
    CTailReader reader(*m_file, start, limit);
    m_report.logStart_bytes = start;
    m_report.tailRecords = m_report.tornRecords = 0;
    m_report.torn.clear();
    uint64_t offset = start;
    uint64_t good = start;  // everything before is a slot that was taken, or known to be dead
    const auto bury = [&](uint64_t end) {
        if (end > good) m_dead.push_back({good, end - good});
    };
    for (;;) {
        HRESULT hr;
        const uint8_t* page = reader.Page(offset, hr);
        if (FAILED(hr)) return hr;
        if (page == nullptr) break;
        LogRecord record;
        memcpy(&record, page + kPageSize - sizeof record, sizeof record);
        const uint64_t end = offset + kPageSize;
        if (RecordIsValid(record, offset, good)) {
            ++m_report.tailRecords;
            hr = TakeRecord(reader, record);
            if (SUCCEEDED(hr)) {
                bury(record.slotOffset);
                good = end;
                m_tailRecords = m_report.tailRecords;
            } else if (hr == HRESULT_FROM_WIN32(ERROR_CRC) ||
                       hr == HRESULT_FROM_WIN32(ERROR_HANDLE_EOF)) {
                ++m_report.tornRecords;
                if (m_report.torn.size() < LoadReport::kTornListed)
                    m_report.torn.push_back({record.slotOffset, record.position, record.dataSize});
            } else {
                return hr;
            }
        }
        offset = end;
    }
    m_report.tailBytes = limit > start ? limit - start : 0;
    m_logEnd = std::max(start, RoundUp(limit));
    bury(m_logEnd);
    return S_OK;
}

HRESULT CMediaFile::Load() {
    HRESULT hr = ReadHeader();
    if (FAILED(hr)) return hr;
    uint64_t size = 0;
    hr = m_file->Size(size);
    if (FAILED(hr)) return hr;
    Root roots[2];
    bool valid[2];
    for (const int which : {0, 1}) {
        hr = ReadRoot(which, roots[which]);
        if (FAILED(hr)) return hr;
        valid[which] = m_report.roots[which].state == LoadReport::RootState::kValid;
    }
    const int newest = valid[1] && (!valid[0] || roots[1].generation > roots[0].generation) ? 1 : 0;
    std::unique_lock hold(m_lock);
    m_knownSize = size;
    for (const int which : {newest, 1 - newest}) {
        if (!valid[which]) continue;
        m_report.otherRoot = which != newest;
        m_dead.clear();
        hr = LoadIndex(roots[which]);
        if (SUCCEEDED(hr)) hr = ScanTail(m_logStart, size);
        if (SUCCEEDED(hr)) {
            // After falling back the next root replaces the bad one, not the one that was good.
            if (which != newest) m_generation = roots[newest].generation + 1;
            return S_OK;
        }
        if (hr != HRESULT_FROM_WIN32(ERROR_INVALID_DATA)) return hr;
    }
    // No root leads anywhere: the records themselves still tell what is there.
    m_report.otherRoot = false;
    m_report.rebuilt = true;
    m_dead.clear();
    Root none{};
    none.generation = valid[newest] ? roots[newest].generation : 0;
    none.logStart = kLogOffset;
    none.nextSequence = 1;
    none.settings =
        valid[newest] ? roots[newest].settings : Settings{kMarkUnset, kMarkUnset, {}, 0};
    hr = LoadIndex(none);
    if (SUCCEEDED(hr)) hr = ScanTail(kLogOffset, size);
    return hr;
}

}  // namespace zemstore
