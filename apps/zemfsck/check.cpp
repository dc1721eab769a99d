// Header, roots, index and log as the loader finds them; then every frame's bytes, their records,
// and whether two things claim one place.
#include "apps/zemfsck/check.h"

#include "mediaio/store/crc32c.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <new>

using namespace zemstore;

namespace zemfsck {
namespace {

struct Extent {
    uint64_t offset;
    uint64_t size;
    int64_t position;  // -1: an index page
};

struct Entry {
    uint32_t position;
    IndexEntry entry;
};

// A reference for as long as the check runs.
struct MediaFile {
    explicit MediaFile(std::unique_ptr<IStoreFile> file)
        : object(new CMediaFile(std::move(file), nullptr)) {}
    MediaFile(const MediaFile&) = delete;
    MediaFile& operator=(const MediaFile&) = delete;
    ~MediaFile() { object->Release(); }
    CMediaFile* operator->() const { return object; }
    CMediaFile* object;
};

std::string Hex(uint64_t value) {
    char text[20];
    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

class CCheck {
public:
    CCheck(std::unique_ptr<IStoreFile> file, Report& report)
        : m_disk(*file), m_file(std::move(file)), m_report(report) {}

    HRESULT Run() {
        // Kept until the end: nobody writes meanwhile. Not every file system has locks.
        HRESULT hr = m_disk.LockForWriting();
        if (hr == HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION)) return hr;
        hr = m_disk.Size(m_report.size_bytes);
        if (SUCCEEDED(hr)) hr = Header();
        if (FAILED(hr) || m_report.damages != 0) return hr;
        hr = m_file->Load();
        if (FAILED(hr)) return hr;
        m_report.loaded = true;
        m_report.load = m_file->OpenReport();
        Roots();
        Index();
        Log();
        Extents();
        return Frames();
    }

private:
    void Damage(const char* part, int64_t position, uint64_t offset, std::string text) {
        m_report.Add({true, part, position, static_cast<int64_t>(offset), std::move(text)});
    }
    void Remark(const char* part, int64_t position, uint64_t offset, std::string text) {
        m_report.Add({false, part, position, static_cast<int64_t>(offset), std::move(text)});
    }

    HRESULT Header() {
        size_t done = 0;
        FileHeader& header = m_report.header;
        const HRESULT hr = m_disk.ReadAt(&header, sizeof header, 0, done);
        if (FAILED(hr)) return hr;
        if (done < sizeof header.magic || header.magic != kHeaderMagic)
            return HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);
        const char* fault = CMediaFile::HeaderFault(header);
        if (done != sizeof header) fault = "cut off";
        if (fault != nullptr)
            Damage("header", -1, 0, std::string(fault) + "; the file does not open");
        else if (header.compatible != 0)
            Remark("header", -1, 0, "features that this version does not know: it only reads");
        return S_OK;
    }

    void Roots() {
        using State = LoadReport::RootState;
        const LoadReport& load = m_report.load;
        // A crash may have cut a root off while it was written. Then the other one is whole, and so
        // is its index; in a file that was closed there is no such root.
        const bool crashed = load.fault.what == nullptr && !load.rebuilt && load.tailBytes != 0;
        for (int i = 0; i < 2; ++i) {
            const LoadReport::Root& other = load.roots[1 - i];
            if (load.roots[i].state == State::kInvalid && crashed) {
                Remark("root", -1, kRootOffset[i], "a checkpoint that was cut off");
            } else if (load.roots[i].state == State::kInvalid) {
                Damage("root", -1, kRootOffset[i], "not valid");
            } else if (load.roots[i].state == State::kBlank &&
                       (other.state != State::kValid || other.generation != 0)) {
                Damage("root", -1, kRootOffset[i], "blank where there must be one");
            }
        }
        uint8_t page[kPageSize];
        size_t done = 0;
        constexpr uint64_t kReserved = kLogOffset - kPageSize;
        if (FAILED(m_disk.ReadAt(page, sizeof page, kReserved, done))) return;
        if (done != sizeof page)
            Damage("root", -1, kReserved, "the file ends before its log begins");
        else if (std::any_of(page, page + sizeof page, [](uint8_t byte) { return byte != 0; }))
            Damage("root", -1, kReserved, "the reserved page is not blank");
    }

    void Index() {
        const LoadReport& load = m_report.load;
        if (load.fault.what != nullptr) {
            Damage("index", load.fault.firstPosition, load.fault.offset_bytes,
                   "page of level " + std::to_string(load.fault.level) + ": " + load.fault.what);
        }
        if (load.rebuilt) {
            Damage("index", -1, load.logStart_bytes,
                   "no index can be read; what follows is what the records tell");
        }
        if (load.otherRoot) {
            Damage("index", -1, load.logStart_bytes,
                   "the older index is used, and the records since");
        }
        m_report.frameCount = m_file->FrameCount();
        m_nextSequence = m_file->NextSequence();
        uint64_t end = 0;
        m_file->VisitIndex(
            [&](uint32_t position, const IndexEntry& entry) {
                end = uint64_t{position} + 1;
                Take(position, entry);
            },
            [&](uint64_t offset, uint32_t) {
                ++m_report.indexNodes;
                m_extents.push_back({offset, kPageSize, -1});
            });
        m_report.holes =
            m_report.frameCount -
            std::min<uint64_t>(m_report.frameCount, m_report.present + m_report.erased);
        if (end != m_report.frameCount) {
            Damage("index", -1, kRootOffset[0],
                   "the file says that it has " + std::to_string(m_report.frameCount) +
                       " frames, the index ends at " + std::to_string(end));
        }
    }

    void Take(uint32_t position, const IndexEntry& entry) {
        if ((entry.flags & kFrameFlagErased) != 0) {
            ++m_report.erased;
        } else if ((entry.flags & kFrameFlagPresent) != 0) {
            ++m_report.present;
            m_report.dataBytes += entry.dataSize;
            if (entry.dataSize != 0) {
                m_frames.push_back({position, entry});
                m_extents.push_back({entry.slotOffset, SlotSize(entry.dataSize), position});
            }
        }
        if (entry.sequence >= m_nextSequence)
            Damage("index", position, entry.slotOffset, "a sequence number of the future");
    }

    void Log() {
        const LoadReport& load = m_report.load;
        if (load.tailRecords != 0) {
            Remark("log", -1, load.logStart_bytes,
                   std::to_string(load.tailRecords) +
                       (load.tailRecords == 1 ? " record" : " records") +
                       " since the last checkpoint: the file was not closed, or only its timecode "
                       "or marks were changed");
        }
        for (const LoadReport::Torn& torn : load.torn) {
            Remark("log", torn.position, torn.slotOffset_bytes,
                   "a write of " + std::to_string(torn.dataSize_bytes) +
                       " bytes that was cut off; it does not count");
        }
    }

    // In the order of the file, which is how the device reads it best.
    HRESULT Frames() {
        std::sort(m_frames.begin(), m_frames.end(), [](const Entry& a, const Entry& b) {
            return a.entry.slotOffset < b.entry.slotOffset;
        });
        std::vector<uint8_t> bytes;
        uint64_t end = 0;
        for (const Entry& frame : m_frames) {
            // One that lies in another's place is reported as such. So no byte is read twice,
            // however many frames claim it.
            if (frame.entry.slotOffset < end) continue;
            end = frame.entry.slotOffset + frame.entry.dataSize;
            bytes.resize(std::max<size_t>(bytes.size(), frame.entry.dataSize));
            PinnedFrame pinned{};
            HRESULT hr = m_file->Pin(frame.position, true, pinned);
            if (SUCCEEDED(hr)) {
                hr = m_file->ReadNow(pinned, bytes.data());
                m_file->Unpin(pinned.epoch);
            }
            if (hr == HRESULT_FROM_WIN32(ERROR_CRC)) {
                ++m_report.damagedFrames;
                Damage("frame", frame.position, frame.entry.slotOffset,
                       std::to_string(frame.entry.dataSize) + " bytes: wrong checksum");
            } else if (hr == HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA)) {
                Unreachable(frame);
            } else if (FAILED(hr)) {
                return hr;
            }
            hr = Record(frame);
            if (FAILED(hr)) return hr;
        }
        return S_OK;
    }

    // Behind the frame count; told once.
    void Unreachable(const Entry& frame) {
        if (!m_unreachable)
            Damage("frame", frame.position, frame.entry.slotOffset, "cannot be reached");
        m_unreachable = true;
    }

    // A frame is read without its record, but without that it could not be found again if the index
    // were lost.
    HRESULT Record(const Entry& frame) {
        LogRecord record{};
        const uint64_t slot = frame.entry.slotOffset;
        const uint64_t at = slot + SlotSize(frame.entry.dataSize) - sizeof record;
        size_t done = 0;
        const HRESULT hr = m_disk.ReadAt(&record, sizeof record, at, done);
        if (FAILED(hr)) return hr;
        const bool whole = done == sizeof record && record.magic == kRecordMagic &&
                           Crc32c(0, &record, offsetof(LogRecord, crc)) == record.crc;
        const bool fits =
            record.fileId == m_report.header.fileId && record.slotOffset == slot &&
            record.kind == static_cast<uint16_t>(RecordKind::kFrame) &&
            record.sequence == frame.entry.sequence && record.position == frame.position &&
            record.dataSize == frame.entry.dataSize && record.dataCrc == frame.entry.dataCrc;
        if (!whole)
            Damage("frame", frame.position, at, "its record is damaged");
        else if (!fits)
            Damage("frame", frame.position, at, "its record is another frame's");
        return S_OK;
    }

    void Extents() {
        std::sort(m_extents.begin(), m_extents.end(),
                  [](const Extent& a, const Extent& b) { return a.offset < b.offset; });
        uint64_t end = kLogOffset;
        uint64_t pieces = 0;
        const auto bury = [&](uint64_t from, uint64_t to) {
            const uint64_t data = std::max(from, m_disk.NextData(from));
            if (data >= to) return;
            m_report.deadBytes += to - data;
            ++pieces;
        };
        const auto name = [](const Extent& extent) {
            return extent.position < 0 ? "an index page at " + Hex(extent.offset)
                                       : "frame " + std::to_string(extent.position);
        };
        const Extent* last = nullptr;
        for (const Extent& extent : m_extents) {
            if (extent.offset < end) {
                Damage("extent", extent.position, extent.offset,
                       name(extent) + " lies in the place of " +
                           (last == nullptr ? "the header" : name(*last)));
            }
            if (extent.offset > end) bury(end, extent.offset);
            if (extent.offset + extent.size > end) {
                end = extent.offset + extent.size;
                last = &extent;
            }
        }
        if (last != nullptr && end > RoundedSize())
            Damage("extent", last->position, last->offset, name(*last) + " ends behind the file");
        if (end < m_report.size_bytes) bury(end, m_report.size_bytes);
        if (m_report.deadBytes != 0) {
            Remark("space", -1, kLogOffset,
                   std::to_string(m_report.deadBytes) + " bytes in " + std::to_string(pieces) +
                       " places belong to nothing any more and were not given back");
        }
    }
    uint64_t RoundedSize() const {
        return (m_report.size_bytes + kPageSize - 1) / kPageSize * kPageSize;
    }

    IStoreFile& m_disk;
    MediaFile m_file;
    Report& m_report;
    uint64_t m_nextSequence = 0;
    bool m_unreachable = false;
    std::vector<Entry> m_frames;
    std::vector<Extent> m_extents;
};

}  // namespace

void Report::Add(Finding finding) {
    ++(finding.damage ? damages : remarks);
    if (findings.size() < kListed) findings.push_back(std::move(finding));
}

HRESULT Check(std::unique_ptr<IStoreFile> file, Report& report) {
    try {
        return CCheck(std::move(file), report).Run();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

}  // namespace zemfsck
