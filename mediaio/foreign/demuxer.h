// libavformat over an open file of the volume: it sees that file's bytes and nothing
// else, no name, no other file, no network. One thread at a time.
#pragma once

#include "mediaio/store/fileio.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

#include <atomic>
#include <memory>
#include <string>

#pragma GCC visibility push(default)

namespace zemstore {

class CDemuxer {
public:
    // `file` outlives the demuxer. ERROR_BAD_FORMAT: no container that libavformat knows, or one
    // that only points at other files.
    static HRESULT Open(IStoreFile& file, uint64_t size_bytes, std::unique_ptr<CDemuxer>& demuxer);
    // The process ends: nothing more is read. Any thread.
    static void StopAll() { s_stopped.store(true); }
    static bool Stopped() { return s_stopped.load(); }
    ~CDemuxer();
    CDemuxer(const CDemuxer&) = delete;
    CDemuxer& operator=(const CDemuxer&) = delete;

    // Looks into the streams themselves for what the container does not say; packets read
    // afterwards are the same as those of a program that did so too.
    void FindStreamInfo();
    // The next packet of any stream that is not discarded; null at the end or at a failure. Valid
    // until the next call.
    const AVPacket* Next();
    // Goes back to the first packet.
    HRESULT Rewind();
    bool SeekToByte(uint64_t offset_bytes);
    bool SeekToTime(int stream, int64_t time);
    void DiscardAllBut(int stream);

    AVFormatContext& Format() { return *m_format; }
    bool Is(const char* name) const;  // a short name of the container, "mov" for one

private:
    CDemuxer(IStoreFile& file, uint64_t size_bytes) : m_file(file), m_size(size_bytes) {}
    HRESULT OpenFormat();
    void CloseFormat();
    static int OnRead(void* opaque, uint8_t* to, int size);
    static int64_t OnSeek(void* opaque, int64_t offset, int whence);

    static std::atomic<bool> s_stopped;
    IStoreFile& m_file;
    const uint64_t m_size;
    uint64_t m_at = 0;
    size_t m_step = 0;      // bytes of the next read
    uint64_t m_budget = 0;  // bytes that may still be read: a damaged file must not go in circles
    AVFormatContext* m_format = nullptr;
    AVIOContext* m_io = nullptr;
    AVPacket* m_packet = nullptr;
    bool m_streamInfo = false;
    bool m_counted = false;  // what the file claims has been looked at
};

}  // namespace zemstore

#pragma GCC visibility pop
