// Reading MXF structure.
#include "mediaio/foreign/mxf.h"

#include "mediaio/foreign/bigendian.h"

#include <algorithm>
#include <cstring>
#include <set>

namespace zemstore {
namespace {

constexpr uint64_t kMostIndexBytes = uint64_t{256} << 20;
constexpr size_t kMostPartitions = size_t{1} << 18;

constexpr uint8_t kUlPrefix[4] = {0x06, 0x0E, 0x2B, 0x34};
// Byte 7 of a key is a version, which differs between writers.
constexpr uint8_t kPartitionKey[13] = {6, 0xE, 0x2B, 0x34, 2, 5, 1, 1, 0xD, 1, 2, 1, 1};
constexpr uint8_t kRandomIndexKey[15] = {6, 0xE, 0x2B, 0x34, 2, 5, 1, 1, 0xD, 1, 2, 1, 1, 0x11, 1};
constexpr uint8_t kSegmentKey[15] = {6, 0xE, 0x2B, 0x34, 2, 0x53, 1, 1, 0xD, 1, 2, 1, 1, 0x10, 1};
constexpr uint8_t kFillKey[11] = {6, 0xE, 0x2B, 0x34, 1, 1, 1, 1, 3, 1, 2};
constexpr uint8_t kEssenceKey[12] = {6, 0xE, 0x2B, 0x34, 1, 2, 1, 1, 0xD, 1, 3, 1};

template <size_t N>
bool Begins(const uint8_t* key, const uint8_t (&wanted)[N]) {
    for (size_t i = 0; i < N; ++i)
        if (i != 7 && key[i] != wanted[i]) return false;
    return true;
}

bool ReadAll(IStoreFile& file, uint64_t offset, uint8_t* to, size_t size) {
    size_t done = 0;
    return SUCCEEDED(file.ReadAt(to, size, offset, done)) && done == size;
}

bool ReadKlv(IStoreFile& file, uint64_t offset, Klv& klv) {
    uint8_t head[25];
    size_t done = 0;
    return SUCCEEDED(file.ReadAt(head, sizeof head, offset, done)) && ParseKlv(head, done, klv);
}

// Steps over fill items; at most a few follow one another.
uint64_t AfterFill(IStoreFile& file, uint64_t offset) {
    Klv klv;
    for (int i = 0; i < 8 && ReadKlv(file, offset, klv) && IsFill(klv.key); ++i)
        offset += klv.headSize + klv.length;
    return offset;
}

}  // namespace

bool ParseKlv(const uint8_t* bytes, size_t size, Klv& klv) {
    if (size < 17 || memcmp(bytes, kUlPrefix, sizeof kUlPrefix) != 0) return false;
    memcpy(klv.key.data(), bytes, klv.key.size());
    const uint8_t first = bytes[16];
    klv.headSize = 17;
    klv.length = first;
    if (first >= 0x80) {
        const size_t count = first & 0x7F;
        if (count == 0 || count > 8 || size < 17 + count) return false;
        klv.length = BigEndian(bytes + 17, count);
        klv.headSize = static_cast<uint32_t>(17 + count);
    }
    return klv.length < uint64_t{1} << 62;
}

bool IsFill(const MxfKey& key) {
    return Begins(key.data(), kFillKey);
}
bool IsEssence(const MxfKey& key) {
    return Begins(key.data(), kEssenceKey);
}

ElementSearch FindElement(const MxfKey& key, uint64_t at, const uint8_t* bytes, size_t size,
                          uint64_t end) {
    uint64_t cursor = at;
    for (int items = 0; items < 256 && cursor < end; ++items) {
        Klv klv;
        if (cursor >= at + size || !ParseKlv(bytes + (cursor - at), size - (cursor - at), klv)) {
            // Either the bytes end here, or this is no triplet.
            if (cursor == at || size < kLookSize) return {};
            return {ElementSearch::kReadOn, cursor, 0};
        }
        const uint64_t value = cursor + klv.headSize;
        if (klv.key == key) {
            if (value > end || klv.length > end - value) return {};
            return {ElementSearch::kFound, value, klv.length};
        }
        if (klv.length > end) return {};
        cursor = value + klv.length;
    }
    return {};
}

struct MxfMap::Partition {
    uint64_t offset = 0;
    uint64_t previous = 0;
    uint64_t footer = 0;
    uint64_t headerBytes = 0;
    uint64_t indexBytes = 0;
    uint64_t bodyOffset = 0;
    uint32_t bodySid = 0;
    uint64_t packEnd = 0;

    bool Read(IStoreFile& file, uint64_t at) {
        uint8_t bytes[25 + 64];
        Klv klv;
        if (!ReadAll(file, at, bytes, sizeof bytes) || !ParseKlv(bytes, sizeof bytes, klv))
            return false;
        if (!Begins(klv.key.data(), kPartitionKey) || klv.length < 64) return false;
        if (klv.key[13] < 2 || klv.key[13] > 4) return false;
        const uint8_t* value = bytes + klv.headSize;
        offset = at;
        packEnd = at + klv.headSize + klv.length;
        previous = BigEndian(value + 16, 8);
        footer = BigEndian(value + 24, 8);
        headerBytes = BigEndian(value + 32, 8);
        indexBytes = BigEndian(value + 40, 8);
        bodyOffset = BigEndian(value + 52, 8);
        bodySid = static_cast<uint32_t>(BigEndian(value + 60, 4));
        return BigEndian(value + 8, 8) == at;
    }
    uint64_t IndexStart(IStoreFile& file) const {
        // Fill behind the pack counts to nothing unless there is nothing else.
        return headerBytes == 0 && indexBytes == 0 ? packEnd
                                                   : AfterFill(file, packEnd) + headerBytes;
    }
};

// The random index pack at the file's end lists the partitions; without one they are chained back
// from the footer.
bool MxfMap::ReadPartitions(IStoreFile& file, uint64_t size_bytes,
                            std::vector<Partition>& partitions) {
    Partition header;
    if (size_bytes < 256 || !header.Read(file, 0)) return false;
    std::set<uint64_t> offsets{0};
    uint8_t tail[4];
    if (!ReadAll(file, size_bytes - 4, tail, 4)) return false;
    const uint64_t packSize = BigEndian(tail, 4);
    Klv klv;
    const bool listed = packSize >= 21 && packSize <= kMostPartitions * 12 &&
                        packSize < size_bytes && ReadKlv(file, size_bytes - packSize, klv) &&
                        Begins(klv.key.data(), kRandomIndexKey) &&
                        klv.headSize + klv.length == packSize;
    if (listed) {
        std::vector<uint8_t> bytes(packSize);
        if (!ReadAll(file, size_bytes - packSize, bytes.data(), bytes.size())) return false;
        for (size_t at = klv.headSize; at + 12 <= bytes.size() - 4; at += 12)
            offsets.insert(BigEndian(&bytes[at + 4], 8));
    } else {
        Partition partition;
        for (uint64_t at = header.footer; at != 0; at = partition.previous) {
            if (!offsets.insert(at).second || offsets.size() > kMostPartitions) return false;
            if (at >= size_bytes || !partition.Read(file, at)) return false;
        }
        if (offsets.size() == 1) return false;
    }
    for (const uint64_t at : offsets) {
        Partition partition;
        if (at >= size_bytes || !partition.Read(file, at)) return false;
        partitions.push_back(partition);
    }
    return true;
}

bool MxfMap::TakeSegment(const uint8_t* bytes, size_t size, uint32_t wantedSid) {
    int64_t start = 0;
    uint64_t duration = 0;
    uint32_t fixedSize = 0;
    std::vector<Unit> entries;
    for (size_t at = 0; at + 4 <= size;) {
        const auto tag = static_cast<uint32_t>(BigEndian(bytes + at, 2));
        const size_t length = BigEndian(bytes + at + 2, 2);
        const uint8_t* const value = bytes + at + 4;
        if (length > size - at - 4) return false;
        at += 4 + length;
        if (tag == 0x3F0C && length == 8) start = static_cast<int64_t>(BigEndian(value, 8));
        if (tag == 0x3F0D && length == 8) duration = BigEndian(value, 8);
        if (tag == 0x3F05 && length == 4) fixedSize = static_cast<uint32_t>(BigEndian(value, 4));
        if (tag == 0x3F07 && length == 4) {
            const uint64_t sid = BigEndian(value, 4);
            if (sid != 0 && sid != wantedSid) return false;
        }
        if (tag == 0x3F0A && length >= 8) {
            const uint64_t count = BigEndian(value, 4);
            const uint64_t each = BigEndian(value + 4, 4);
            if (each < 11 || count > (length - 8) / each) return false;
            for (uint64_t i = 0; i < count; ++i) {
                const uint8_t* entry = value + 8 + i * each;
                entries.push_back({BigEndian(entry + 3, 8), (entry[2] & 0x80) != 0});
            }
        }
    }
    if (start < 0) return false;
    if (fixedSize != 0) {
        // Segments of one fixed size say the same of all units.
        if ((unitSize != 0 && unitSize != fixedSize) || !m_segments.empty()) return false;
        unitSize = fixedSize;
        unitCount = std::max(unitCount, static_cast<uint64_t>(start) + duration);
        return true;
    }
    if (unitSize != 0) return false;
    m_segments.emplace_back(start, std::move(entries));
    return true;
}

bool MxfMap::ReadSegments(IStoreFile& file, const Partition& partition, uint32_t bodySid) {
    if (partition.indexBytes == 0) return true;
    if (partition.indexBytes > kMostIndexBytes) return false;
    const uint64_t start = partition.IndexStart(file);
    std::vector<uint8_t> bytes(partition.indexBytes);
    if (!ReadAll(file, start, bytes.data(), bytes.size())) return false;
    for (size_t at = 0; at < bytes.size();) {
        Klv klv;
        if (!ParseKlv(&bytes[at], bytes.size() - at, klv)) return false;
        if (klv.length > bytes.size() - at - klv.headSize) return false;
        if (Begins(klv.key.data(), kSegmentKey) &&
            !TakeSegment(&bytes[at + klv.headSize], klv.length, bodySid)) {
            return false;
        }
        at += klv.headSize + klv.length;
    }
    return true;
}

bool MxfMap::Load(IStoreFile& file, uint64_t size_bytes) {
    std::vector<Partition> partitions;
    if (!ReadPartitions(file, size_bytes, partitions)) return false;
    uint32_t bodySid = 0;
    uint64_t indexBytes = 0;
    essenceEnd = size_bytes;
    for (const Partition& partition : partitions) {
        // Tables lie side by side: partitions that share them would make them be read again and
        // again.
        if (partition.indexBytes > size_bytes - indexBytes) return false;
        indexBytes += partition.indexBytes;
        if (partition.bodySid == 0) continue;
        if (bodySid != 0 && bodySid != partition.bodySid) return false;
        bodySid = partition.bodySid;
        const uint64_t start = AfterFill(file, partition.IndexStart(file) + partition.indexBytes);
        m_pieces.push_back({partition.bodyOffset, start});
    }
    if (m_pieces.empty()) return false;
    std::sort(m_pieces.begin(), m_pieces.end(), [](const Piece& one, const Piece& other) {
        return one.streamOffset < other.streamOffset;
    });
    essenceOffset = m_pieces.front().fileOffset;
    if (partitions.back().bodySid == 0) essenceEnd = partitions.back().offset;
    for (const Partition& partition : partitions)
        if (!ReadSegments(file, partition, bodySid)) return false;
    if (unitSize != 0) return true;
    // Tables may be repeated: what continues the list is taken, what is there already is not.
    std::stable_sort(m_segments.begin(), m_segments.end(), [](const auto& one, const auto& other) {
        return one.first < other.first ||
               (one.first == other.first && one.second.size() > other.second.size());
    });
    for (const auto& [start, entries] : m_segments) {
        if (static_cast<uint64_t>(start) > units.size()) return false;
        const size_t known = units.size() - static_cast<size_t>(start);
        if (known < entries.size()) {
            units.insert(units.end(), entries.begin() + static_cast<std::ptrdiff_t>(known),
                         entries.end());
        }
    }
    m_segments.clear();
    unitCount = units.size();
    return !units.empty();
}

uint64_t MxfMap::FileOffset(uint64_t streamOffset) const {
    auto piece = std::upper_bound(
        m_pieces.begin(), m_pieces.end(), streamOffset,
        [](uint64_t at, const Piece& candidate) { return at < candidate.streamOffset; });
    if (piece != m_pieces.begin()) --piece;
    return piece->fileOffset + (streamOffset - piece->streamOffset);
}

}  // namespace zemstore
