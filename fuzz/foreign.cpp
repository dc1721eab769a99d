// Foreign media. By the input's first byte: the index that is kept beside a file, its checksums
// made right, or as it is; MXF structure; or a container, read as a client reads it, through the
// FFmpeg libraries (which are not instrumented: it is our readers that are tried). What is checked:
// opening ends, no frame lies outside of the file, and what is read says so.
#include <memory>

#include "fuzz/fuzz.h"
#include "fuzz/memoryvolume.h"
#include "mediaio/errorlog.h"
#include "mediaio/foreign/clip.h"
#include "mediaio/foreign/mxf.h"
#include "mediaio/foreign/stream.h"
#include "mediaio/store/crc32c.h"
#include "mediaio/store/tokens.h"

extern "C" {
#include <libavutil/log.h>
}

using namespace zemstore;
using fuzz::Require;

extern "C" {
DWORD ErrorLogCreateChainId(HRESULT hr) {
    return static_cast<DWORD>(hr);
}
BOOL ErrorLogWriteEntryPointW(DWORD, const SYSTEMTIME*, const WCHAR*) {
    return TRUE;
}
BOOL ErrorLogWriteExW(HRESULT, const SYSTEMTIME*, DWORD, DWORD, const WCHAR*, LONG, DWORD,
                      const WCHAR* text, DWORD) {
    Require(std::char_traits<WCHAR>::length(text) < 65536, "a record is bounded");
    return TRUE;
}
BOOL ErrorLogWriteOwnerInfoW(LONG, const SYSTEMTIME*, const WCHAR*, const WCHAR*, const WCHAR*,
                             const WCHAR*, LONG) {
    return TRUE;
}
}

namespace {

constexpr size_t kHeaderBytes = 48;
constexpr size_t kSourceBytes = 4096;

// An index file's header, as docs/media.md has it, for the bytes behind it.
std::vector<uint8_t> WithHeader(std::string_view payload, uint32_t streams) {
    std::vector<uint8_t> bytes(kHeaderBytes + payload.size());
    const auto put = [&](size_t at, auto value) { std::memcpy(&bytes[at], &value, sizeof value); };
    std::memcpy(bytes.data(), "ZEMINDX1", 8);
    put(8, uint32_t{1});
    put(12, streams);
    put(16, uint64_t{kSourceBytes});
    put(24, uint64_t{1});
    put(32, uint64_t{payload.size()});
    if (!payload.empty()) std::memcpy(&bytes[kHeaderBytes], payload.data(), payload.size());
    put(40, Crc32c(0, bytes.data() + kHeaderBytes, payload.size()));
    put(44, Crc32c(0, bytes.data(), 44));
    return bytes;
}

void ReadFrame(CForeignStream& stream, uint32_t position, uint64_t size) {
    ZemFrameDesc desc;
    stream.FrameDesc(position, desc);
    uint8_t description[kDescriptionSize];
    stream.Description(position, description);
    PinnedFrame frame{};
    if (FAILED(stream.Pin(position, true, frame))) return;
    const bool pinned = frame.dataSize != 0 || frame.lookSize != 0;
    if (SUCCEEDED(stream.LookNow(frame))) {
        Require(frame.dataSize <= kMaxFrameSize, "a frame fits into frame memory");
        if (stream.SourceOf(frame).engine == nullptr) {
            for (uint32_t at = 0, piece = 0; at < frame.dataSize; at += piece) {
                uint64_t offset = 0;
                stream.PieceOf(frame, at, offset, piece);
                Require(piece > 0 && offset <= size && piece <= size - offset,
                        "its pieces lie in the file");
            }
        }
        if (frame.dataSize <= 16u << 20) {
            std::vector<uint8_t> bytes(frame.dataSize);
            stream.ReadNow(frame, bytes.data());
        }
    }
    if (pinned) stream.Unpin(frame.epoch);
}

void ReadStreams(const std::shared_ptr<CForeignClip>& clip, uint64_t size) {
    for (const StreamKind kind : {StreamKind::kFirst, StreamKind::kVideo, StreamKind::kAudio,
                                  StreamKind::kData, StreamKind::kTimecode, StreamKind::kMarkers}) {
        for (uint32_t index = 0; index < 3; ++index) {
            size_t which = 0;
            uint32_t token = 0;
            if (!clip->Find({kind, index}, kMediaFileAny, which, token)) continue;
            auto* stream = new CForeignStream(clip, which, "clip");
            const uint32_t count = stream->FrameCount();
            Require(count <= kMostFrames, "frames are bounded");
            for (uint32_t i = 0; i < std::min(count, 12u); ++i)
                ReadFrame(*stream, i, size);
            for (const uint32_t i : {count / 2, count - 1, count, 0xFFFFFFFFu})
                ReadFrame(*stream, i, size);
            stream->Release();
        }
    }
}

void OpenClip(const std::shared_ptr<fuzz::CMemoryVolume>& volume, uint64_t size) {
    ForeignSource source{volume, "clip", nullptr};
    Require(volume->Open("clip", OpenFor::kRead, source.file) == S_OK, "the file is there");
    std::shared_ptr<CForeignClip> clip;
    if (SUCCEEDED(CForeignClip::Share(std::move(source), clip))) ReadStreams(clip, size);
    clip.reset();
    CForeignClip::AwaitPasses();
}

void TryIndex(std::vector<uint8_t> index) {
    const auto volume = std::make_shared<fuzz::CMemoryVolume>();
    volume->Put("clip", std::vector<uint8_t>(kSourceBytes, 0x41));
    volume->Put(".clip.zemindex", std::move(index));
    OpenClip(volume, kSourceBytes);
}

void TryContainer(std::string_view bytes) {
    const auto volume = std::make_shared<fuzz::CMemoryVolume>();
    volume->Put("clip", {bytes.begin(), bytes.end()});
    OpenClip(volume, bytes.size());
    OpenClip(volume, bytes.size());  // with the index that the first one left
}

void TryMxf(const std::string_view bytes) {
    auto held = std::make_shared<fuzz::MemoryFile>();
    held->bytes.assign(bytes.begin(), bytes.end());
    fuzz::CMemoryFile file(held);
    MxfMap map;
    if (!map.Load(file, bytes.size())) return;
    Require(map.essenceEnd <= bytes.size(), "essence ends in the file");
    uint8_t look[kLookSize];
    for (size_t i = 0; i < std::min<size_t>(map.units.size(), 64); ++i) {
        const uint64_t offset = map.FileOffset(map.units[i].streamOffset);
        size_t done = 0;
        file.ReadAt(look, sizeof look, offset, done);
        Klv klv;
        if (!ParseKlv(look, done, klv)) continue;
        const ElementSearch found = FindElement(klv.key, offset, look, done, map.essenceEnd);
        Require(
            found.outcome != ElementSearch::kFound ||
                (found.offset <= map.essenceEnd && found.length <= map.essenceEnd - found.offset),
            "an element lies in the essence");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    av_log_set_level(AV_LOG_QUIET);
    CForeignClip::s_patience = std::chrono::hours(24);  // a slow machine finds what a fast one does
    fuzz::CReader reader(data, size);
    const auto choice = reader.Take<uint8_t>();
    if (choice == 'i') {
        const auto streams = reader.Take<uint8_t>();
        TryIndex(WithHeader(reader.TakeRest(), streams));
    } else if (choice == 'r') {
        const std::string_view rest = reader.TakeRest();
        TryIndex({rest.begin(), rest.end()});
    } else if (choice == 'm') {
        TryMxf(reader.TakeRest());
    } else {
        TryContainer(reader.TakeRest());
    }
    return 0;
}
