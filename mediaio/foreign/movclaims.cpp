// Boxes are nested in ways that depend on who reads them. So nothing is nested here: whatever looks
// like a table, anywhere but in the media data, counts as one.
#include "mediaio/foreign/movclaims.h"

#include "mediaio/foreign/bigendian.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace zemstore {
namespace {

constexpr size_t kPiece = 64 << 10;
constexpr size_t kReach = 20;         // from a box's type to the last byte that is looked at
constexpr uint32_t kPcmEntry = 1024;  // samples of PCM in an entry of libavformat's index

constexpr uint32_t Code(const char (&text)[5]) {
    return static_cast<uint32_t>(text[0]) << 24 | static_cast<uint32_t>(text[1]) << 16 |
           static_cast<uint32_t>(text[2]) << 8 | static_cast<uint32_t>(text[3]);
}

class CClaims {
public:
    CClaims(IStoreFile& file, uint64_t most) : m_file(file), m_most(most) {}

    // The bytes of one box of the top level.
    void Scan(uint64_t from, uint64_t end) {
        m_buffer.resize(kPiece + kReach);
        for (uint64_t at = from; at < end && !TooMuch(); at += kPiece) {
            size_t done = 0;
            const auto want = static_cast<size_t>(std::min<uint64_t>(m_buffer.size(), end - at));
            if (FAILED(m_file.ReadAt(m_buffer.data(), want, at, done))) return;
            memset(m_buffer.data() + done, 0, m_buffer.size() - done);
            for (size_t i = 0; i < std::min(done, kPiece); ++i)
                Look(m_buffer.data() + i, at + i);
        }
    }
    // Adds what was said of the last track.
    void EndTrack() {
        const bool pcm = m_track.sound && m_track.steady && m_track.oneByOne;
        m_total += pcm ? InChunks() : m_track.samples;
        m_track = {};
    }
    bool TooMuch() const { return m_hidden || m_total > m_most; }

private:
    struct Track {
        bool sound = false;
        bool steady = false;    // all samples have one size
        bool oneByOne = false;  // and one duration, 1
        uint64_t samples = 0;
        uint64_t chunks = 0;
        uint64_t inChunk = 0;  // where the table of samples in each chunk has its entries
        uint32_t inChunkEntries = 0;
    };

    // `bytes` begin with what may be a box's type, at `offset` of the file.
    void Look(const uint8_t* bytes, uint64_t offset) {
        switch (BigEndian32(bytes)) {
            case Code("trak"):
                EndTrack();
                break;
            case Code("hdlr"):
                m_track.sound = m_track.sound || BigEndian32(bytes + 12) == Code("soun");
                break;
            case Code("stts"):
                m_track.oneByOne = BigEndian32(bytes + 8) == 1 && BigEndian32(bytes + 16) == 1;
                break;
            case Code("stsz"):
                m_track.steady = BigEndian32(bytes + 8) != 0;
                m_track.samples += BigEndian32(bytes + 12);
                break;
            case Code("stz2"):
                m_track.samples += BigEndian32(bytes + 12);
                break;
            case Code("stsc"):
                m_track.inChunkEntries = BigEndian32(bytes + 8);
                m_track.inChunk = offset + 12;
                break;
            case Code("stco"):
            case Code("co64"):
                m_track.chunks += BigEndian32(bytes + 8);
                break;
            case Code("trun"):
                m_total += BigEndian32(bytes + 8);
                break;
            case Code("cmov"):
                m_hidden = true;
                break;
            default:
                break;
        }
    }

    // PCM is indexed by chunks, in pieces.
    uint64_t InChunks() {
        uint64_t entries = 0;
        uint64_t first = 1;
        uint64_t pieces = 0;
        std::vector<uint8_t> rows(kPiece / 12 * 12);
        for (uint32_t row = 0; row < m_track.inChunkEntries && entries <= m_most;) {
            const uint64_t left = uint64_t{m_track.inChunkEntries - row} * 12;
            const auto want = static_cast<size_t>(std::min<uint64_t>(rows.size(), left));
            size_t done = 0;
            const uint64_t at = m_track.inChunk + uint64_t{row} * 12;
            if (FAILED(m_file.ReadAt(rows.data(), want, at, done)) || done < 12) break;
            for (size_t i = 0; i + 12 <= done; i += 12, ++row) {
                const uint64_t next = std::max<uint64_t>(first, BigEndian32(&rows[i]));
                entries += (std::min(next, m_track.chunks + 1) - std::min(first, next)) * pieces;
                first = std::min(next, m_track.chunks + 1);
                pieces = BigEndian32(&rows[i + 4]) / kPcmEntry + 1;
                if (entries > m_most) break;
            }
        }
        return entries + (m_track.chunks + 1 - first) * pieces;
    }

    IStoreFile& m_file;
    const uint64_t m_most;
    std::vector<uint8_t> m_buffer;
    Track m_track;
    uint64_t m_total = 0;
    bool m_hidden = false;
};

}  // namespace

bool MovClaimsTooMuch(IStoreFile& file, uint64_t size_bytes, uint64_t most) {
    CClaims claims(file, most);
    uint64_t at = 0;
    while (at + 8 <= size_bytes && !claims.TooMuch()) {
        uint8_t head[16] = {};
        size_t done = 0;
        if (FAILED(file.ReadAt(head, sizeof head, at, done)) || done < 8) break;
        uint64_t box = BigEndian32(head);
        if (box == 1) box = uint64_t{BigEndian32(head + 8)} << 32 | BigEndian32(head + 12);
        if (box < 8 || box > size_bytes - at) box = size_bytes - at;  // to the end of the file
        const uint32_t type = BigEndian32(head + 4);
        // A free box may be one that was a movie's once, and is read as such.
        const bool padding = type == Code("skip") || type == Code("wide") ||
                             (type == Code("free") && BigEndian32(head + 12) != Code("moov"));
        if (type != Code("mdat") && !padding) claims.Scan(at + 4, at + box);
        at += box;
    }
    claims.EndTrack();
    return claims.TooMuch();
}

}  // namespace zemstore
