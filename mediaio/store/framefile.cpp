// What every kind of frame file does in the same way.
#include "mediaio/store/framefile.h"

#include "mediaio/store/crc32c.h"
#include "mediaio/store/timecode.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace zemstore {

HRESULT CFrameFile::Look(PinnedFrame&, const void*, size_t) {
    return E_UNEXPECTED;
}

HRESULT CFrameFile::LookNow(PinnedFrame& frame) {
    std::vector<uint8_t> bytes;
    while (frame.lookSize != 0) {
        bytes.resize(frame.lookSize);
        size_t done = 0;
        HRESULT hr =
            SourceOf(frame).file->ReadAt(bytes.data(), bytes.size(), frame.lookOffset, done);
        if (SUCCEEDED(hr)) hr = Look(frame, bytes.data(), done);
        if (FAILED(hr)) return hr;
    }
    return S_OK;
}

HRESULT CFrameFile::ReadNow(const PinnedFrame& frame, void* buffer) {
    auto* const bytes = static_cast<uint8_t*>(buffer);
    for (uint32_t at = 0; at < frame.dataSize;) {
        uint64_t offset = 0;
        uint32_t size = 0;
        PieceOf(frame, at, offset, size);
        size_t done = 0;
        const HRESULT hr = SourceOf(frame).file->ReadAt(bytes + at, size, offset, done);
        if (FAILED(hr)) return hr;
        if (done != size) return HRESULT_FROM_WIN32(ERROR_CRC);
        at += size;
    }
    if (frame.verified) return S_OK;
    const bool good = Crc32c(0, bytes, frame.dataSize) == frame.dataCrc;
    ReportVerified(frame, good);
    return good ? S_OK : HRESULT_FROM_WIN32(ERROR_CRC);
}

bool CFrameFile::CheckNow(PinnedFrame& frame) {
    char piece[64 << 10];  // small enough for the checksum to find it in the nearest caches
    IStoreFile& file = *SourceOf(frame).file;
    uint32_t crc = 0;
    for (uint32_t at = 0; at < frame.dataSize;) {
        uint64_t offset = 0;
        uint32_t size = 0;
        PieceOf(frame, at, offset, size);
        size = std::min<uint32_t>(size, sizeof piece);
        if (file.ReadCached(piece, size, offset) != size) return false;
        crc = Crc32c(crc, piece, size);
        at += size;
    }
    if (crc != frame.dataCrc) return false;
    ReportVerified(frame, true);
    return frame.verified = true;
}

void FillFrameTimes(uint32_t position, const ZemEsDesc& stream, const vdrTimecode_s& start,
                    bool dropFrame, ZemFrameDesc& desc) {
    const FrameRate rate{stream.rateNumerator, stream.rateDenominator};
    const uint64_t time = PresentationTime(position, rate);
    desc.position = position;
    desc.presentationTimeLow = static_cast<uint32_t>(time);
    desc.presentationTimeHigh = static_cast<uint32_t>(time >> 32);
    const vdrTimecode_s none{};
    uint32_t first = 0;
    if (memcmp(&desc.timecode, &none, sizeof none) == 0 &&
        TimecodeToCount(start, rate, dropFrame, first)) {
        desc.timecode = CountToTimecode(uint64_t{first} + position, rate, dropFrame);
    }
}

}  // namespace zemstore
