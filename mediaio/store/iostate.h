// What one client's I/O object holds: where its files are and which it has open. Shared
// by the base class and the channel class; any thread.
#pragma once

#include "mediaio/store/asyncio.h"
#include "mediaio/store/names.h"
#include "mediaio/store/tokens.h"
#include "mediaio/zemio.h"

#include <string>

#pragma GCC visibility push(default)

namespace zemstore {

// What a name leads to.
struct NamedFile {
    std::shared_ptr<IVolume> volume;
    std::string path;
};

class CIoState {
public:
    CIoState();
    ~CIoState();  // closes what is open

    HRESULT FindFile(const WCHAR* name, NamedFile& found) const;
    HRESULT FindDirectory(const WCHAR* name, NamedFile& found) const;  // the root too
    // Opens a stream; the caller owns its reference.
    HRESULT OpenStreamOf(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                         OpenStream& stream) const;
    HRESULT CreateStream(const WCHAR* fileName, const WCHAR* auxName, const ZemEsDesc& esDesc,
                         DWORD createFlags, OpenStream& stream) const;
    static HRESULT CloseStream(OpenStream& stream);

    WString clientId;
    CTokenTable tokens;
    std::atomic<bool> realTime{false};

private:
    HRESULT Volume(std::shared_ptr<IVolume>& volume) const;
    HRESULT CreateMediaFile(const NamedFile& named, const ZemEsDesc& esDesc, bool replace,
                            OpenStream& stream) const;

    std::string m_root;
};

// The stream's frames are 24-byte descriptions.
inline bool IsSpecialKind(uint32_t kind) {
    return kind == kTokenKindTimecode || kind == kTokenKindData || kind == kTokenKindMarker;
}

// A foreign file is read where it lies and never written: says so in the log.
HRESULT RefuseForeignWrite(const OpenStream& stream);

// A special stream's frame as it is read: stored descriptions, the running timecode of another
// file, or its two marks.
HRESULT ReadDescription(const OpenStream& stream, uint32_t position,
                        uint8_t (&description)[kDescriptionSize]);
// Sets one of the two marks (0, 1) of a marker stream, durably.
HRESULT WriteMark(const OpenStream& stream, uint32_t index, const uint8_t* description);

}  // namespace zemstore

struct CZemIo::State : zemstore::CIoState {};

#pragma GCC visibility pop
