// Index files: header, then for each stream a record and its tables. Little-endian, as everywhere
// in the store.
#include "mediaio/foreign/indexcache.h"

#include "mediaio/foreign/foreign.h"
#include "mediaio/store/crc32c.h"
#include "mediaio/store/format.h"

#include <cstring>

namespace zemstore {
namespace {

constexpr uint64_t kIndexMagic = 0x3158444E494D455Aull;  // "ZEMINDX1"
constexpr uint32_t kIndexVersion = 1;
constexpr uint64_t kMostBytes = uint64_t{8} << 30;

struct IndexHeader {
    uint64_t magic;
    uint32_t version;
    uint32_t streamCount;
    uint64_t sourceSize;      // of the file that is indexed
    uint64_t sourceModified;  // its time of last change, nanoseconds since 1970
    uint64_t payloadSize;     // bytes behind this header
    uint32_t payloadCrc;      // CRC-32C of them
    uint32_t crc;             // CRC-32C of the bytes before it
};
static_assert(sizeof(IndexHeader) == 48 && offsetof(IndexHeader, crc) == 44);

struct StreamRecord {
    ZemEsDesc desc;
    int32_t avIndex;
    uint32_t kind;
    uint32_t sampleSize;  // 0: frames; else runs
    uint32_t cutNumerator;
    uint32_t cutDenominator;
    uint32_t reserved;
    uint64_t pcmBytes;
    uint64_t frameCount;  // FramePlace records behind this one
    uint64_t runCount;    // PcmRun records behind those
};
static_assert(sizeof(StreamRecord) == 104 && offsetof(StreamRecord, pcmBytes) == 80);

class CReader {
public:
    explicit CReader(const std::vector<uint8_t>& bytes) : m_bytes(bytes) {}
    bool Take(void* to, size_t size) {
        if (size > m_bytes.size() - m_at) return false;
        if (size != 0) memcpy(to, m_bytes.data() + m_at, size);
        m_at += size;
        return true;
    }
    template <typename T>
    bool TakeTable(std::vector<T>& table, uint64_t count) {
        if (count > (m_bytes.size() - m_at) / sizeof(T)) return false;
        table.resize(count);
        return Take(table.data(), count * sizeof(T));
    }
    bool AtEnd() const { return m_at == m_bytes.size(); }

private:
    const std::vector<uint8_t>& m_bytes;
    size_t m_at = 0;
};

bool IsSane(const StreamIndex& stream, uint64_t sourceSize) {
    const bool kind = stream.kind == kTokenKindVideo || stream.kind == kTokenKindAudio ||
                      stream.kind == kTokenKindData;
    if (!kind || stream.avIndex < 0 || stream.frames.size() > kMostFrames) return false;
    for (const FramePlace& place : stream.frames)
        if (place.offset > sourceSize) return false;
    if (!stream.IsPcm()) return true;
    if (!stream.cut.Valid() || stream.desc.sampleRate == 0 || stream.pcmBytes > sourceSize)
        return false;
    uint64_t first = 0;
    for (const PcmRun& run : stream.runs) {
        const bool begins = &run == &stream.runs.front();
        if (run.offset > sourceSize || run.first >= stream.pcmBytes) return false;
        if (begins ? run.first != 0 : run.first <= first) return false;
        first = run.first;
    }
    return stream.runs.empty() == (stream.pcmBytes == 0);
}

bool Parse(const std::vector<uint8_t>& bytes, uint32_t streamCount, uint64_t sourceSize,
           ClipIndex& index) {
    CReader reader(bytes);
    for (uint32_t i = 0; i < streamCount; ++i) {
        StreamRecord record;
        StreamIndex stream;
        if (!reader.Take(&record, sizeof record)) return false;
        stream.desc = record.desc;
        stream.avIndex = record.avIndex;
        stream.kind = record.kind;
        stream.sampleSize = record.sampleSize;
        stream.cut = {record.cutNumerator, record.cutDenominator};
        stream.pcmBytes = record.pcmBytes;
        if (!reader.TakeTable(stream.frames, record.frameCount)) return false;
        if (!reader.TakeTable(stream.runs, record.runCount)) return false;
        if (!IsSane(stream, sourceSize)) return false;
        index.streams.push_back(std::move(stream));
    }
    if (!reader.AtEnd() || index.streams.empty()) return false;
    FinishIndex(index);  // counts and rates follow from the tables
    return true;
}

template <typename T>
void Append(std::vector<uint8_t>& bytes, const T* items, size_t count) {
    const auto* from = reinterpret_cast<const uint8_t*>(items);
    bytes.insert(bytes.end(), from, from + count * sizeof(T));
}

}  // namespace

bool LoadIndex(IVolume& volume, const std::string& path, const SourceStamp& stamp,
               ClipIndex& index) {
    const std::string name = ForeignIndexPath(path);
    std::unique_ptr<IStoreFile> file;
    uint64_t size = 0;
    if (name.empty() || FAILED(volume.Open(name, OpenFor::kRead, file)) || FAILED(file->Size(size)))
        return false;
    IndexHeader header;
    size_t done = 0;
    if (FAILED(file->ReadAt(&header, sizeof header, 0, done)) || done != sizeof header)
        return false;
    if (header.magic != kIndexMagic || header.version != kIndexVersion ||
        header.crc != Crc32c(0, &header, offsetof(IndexHeader, crc))) {
        return false;
    }
    if (stamp != SourceStamp{header.sourceSize, header.sourceModified}) return false;
    if (header.payloadSize > kMostBytes || header.payloadSize != size - sizeof header) return false;
    std::vector<uint8_t> bytes(header.payloadSize);
    if (FAILED(file->ReadAt(bytes.data(), bytes.size(), sizeof header, done)) ||
        done != bytes.size() || Crc32c(0, bytes.data(), bytes.size()) != header.payloadCrc) {
        return false;
    }
    ClipIndex loaded;
    if (!Parse(bytes, header.streamCount, stamp.size_bytes, loaded)) return false;
    index = std::move(loaded);
    return true;
}

HRESULT SaveIndex(IVolume& volume, const std::string& path, const SourceStamp& stamp,
                  const ClipIndex& index) {
    const std::string name = ForeignIndexPath(path);
    if (name.empty()) return HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE);
    std::vector<uint8_t> bytes;
    for (const StreamIndex& stream : index.streams) {
        StreamRecord record{};
        record.desc = stream.desc;
        record.avIndex = stream.avIndex;
        record.kind = stream.kind;
        record.sampleSize = stream.sampleSize;
        record.cutNumerator = stream.cut.numerator;
        record.cutDenominator = stream.cut.denominator;
        record.pcmBytes = stream.pcmBytes;
        record.frameCount = stream.frames.size();
        record.runCount = stream.runs.size();
        Append(bytes, &record, 1);
        Append(bytes, stream.frames.data(), stream.frames.size());
        Append(bytes, stream.runs.data(), stream.runs.size());
    }
    IndexHeader header{};
    header.magic = kIndexMagic;
    header.version = kIndexVersion;
    header.streamCount = static_cast<uint32_t>(index.streams.size());
    header.sourceSize = stamp.size_bytes;
    header.sourceModified = stamp.modified;
    header.payloadSize = bytes.size();
    header.payloadCrc = Crc32c(0, bytes.data(), bytes.size());
    header.crc = Crc32c(0, &header, offsetof(IndexHeader, crc));

    std::unique_ptr<IStoreFile> file;
    std::string temporary;
    HRESULT hr = volume.CreateUnpublished(name, file, temporary);
    if (FAILED(hr)) return hr;
    const IoSpan spans[] = {{&header, sizeof header}, {bytes.data(), bytes.size()}};
    size_t done = 0;
    hr = file->WriteAt(spans, 2, 0, done);
    if (FAILED(hr)) {
        volume.Discard(temporary);
        return hr;
    }
    return volume.Publish(temporary, name, true);
}

}  // namespace zemstore
