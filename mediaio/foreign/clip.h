// One foreign file that is open, shared by all channels that read it: its index, the views
// of its pages, and the demuxers of the streams that need one. Any thread; one short lock, never
// held across a system call of the read path.
#pragma once

#include "mediaio/foreign/clipindex.h"
#include "mediaio/foreign/demuxfile.h"
#include "mediaio/foreign/foreign.h"
#include "mediaio/foreign/indexcache.h"
#include "mediaio/store/framefile.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#pragma GCC visibility push(default)

namespace zemstore {

class CForeignClip {
public:
    // The clip of an open file: one that is open already, as long as the file has not changed, or
    // a new one. It is opened by a thread of its own, which goes on when the callers have been sent
    // away with ERROR_BUSY; only an index that is kept beside the file is read by the caller.
    static HRESULT Share(ForeignSource source, std::shared_ptr<CForeignClip>& clip);
    // How long after its beginning callers wait for an opening: 5 s; and those for whom there is no
    // place among the few that may wait for a pass: 500 ms.
    static std::atomic<std::chrono::milliseconds> s_patience;
    static std::atomic<std::chrono::milliseconds> s_brief;
    static int LongWaits();     // for tests: how many callers wait for a pass
    static void AwaitPasses();  // for tests: until no file is being opened

    CForeignClip(std::unique_ptr<IStoreFile> file, const SourceStamp& stamp);
    ~CForeignClip();

    // Which stream a name means; false when there is none. A timecode is lent by the pictures, or
    // by the first stream where there are none.
    bool Find(const StreamName& name, MediaFileType type, size_t& stream, uint32_t& kind) const;

    HRESULT Pin(size_t stream, uint32_t position, bool withView, PinnedFrame& frame);
    HRESULT Look(size_t stream, PinnedFrame& frame, bool withView, const void* bytes, size_t size);
    FrameSource SourceOf(size_t stream, const PinnedFrame& frame);
    void PieceOf(size_t stream, const PinnedFrame& frame, uint32_t at, uint64_t& offset,
                 uint32_t& size_bytes) const;
    void ReportVerified(size_t stream, const PinnedFrame& frame, bool good);
    void ReportCached(size_t stream, const PinnedFrame& frame, uint32_t stamp);
    // Flags of a frame that was looked up.
    uint32_t FlagsOf(size_t stream, uint32_t position) const;
    const ZemEsDesc& Desc(size_t stream) const { return m_index.streams[stream].desc; }

private:
    HRESULT LoadKept(IVolume& volume, const std::string& path);  // S_FALSE: none is kept
    HRESULT Open(IVolume& volume, const std::string& path, const std::function<void()>& passBegins);
    HRESULT LoadTables();  // S_FALSE: Pass is needed
    HRESULT Pass(IVolume& volume, const std::string& path);
    HRESULT Prepare();
    HRESULT PinPcm(const StreamIndex& stream, uint32_t position, bool withView, PinnedFrame& frame);
    HRESULT Complete(StreamIndex& stream, const FramePlace& place, bool withView,
                     PinnedFrame& frame);
    const void* ViewOf(uint64_t offset, uint32_t size_bytes);

    std::unique_ptr<IStoreFile> m_file;
    const SourceStamp m_stamp;
    std::shared_ptr<IAsyncIo> m_engine;  // for what a demuxer reads; null when nothing needs one
    ClipIndex m_index;                   // its tables do not change; its flags and `located` do
    std::vector<std::unique_ptr<CDemuxFile>> m_demuxed;  // by stream; null where none is needed

    mutable std::mutex m_lock;  // guards the parts of m_index that change, and:
    std::vector<void*> m_views;
};

}  // namespace zemstore

#pragma GCC visibility pop
