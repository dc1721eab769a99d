// libavformat behind a narrow door. The container is told from its content alone: what a file is
// must not change with its name.
#include "mediaio/foreign/demuxer.h"

#include "mediaio/foreign/movclaims.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cstring>
#include <mutex>

namespace zemstore {
namespace {

constexpr size_t kBuffer_bytes = 64 << 10;
// Tables lie all over some files: behind a jump a little is read first, then twice as much each
// time.
constexpr size_t kBehindJump_bytes = 4 << 10;
constexpr size_t kLargestRead_bytes = 16 << 20;
// A damaged count must not make a table that eats the machine; a day at 60 frames per second needs
// half of this.
constexpr size_t kLargestTable_bytes = size_t{256} << 20;

// Nothing outside of the file itself is ever opened.
int RefuseOpen(AVFormatContext*, AVIOContext** io, const char*, int, AVDictionary**) {
    *io = nullptr;
    return AVERROR(EACCES);
}

// The name is one of the format's short names.
bool IsOneOf(const AVInputFormat& format, const char* name) {
    const std::string names = std::string(",") + format.name + ",";
    return names.find(std::string(",") + name + ",") != std::string::npos;
}

// Formats that describe other files, and text that merely looks like a format.
bool IsRefused(const AVInputFormat& format) {
    if ((format.flags & AVFMT_NOFILE) != 0) return true;
    for (const char* refused : {"concat", "hls", "dash", "tty", "sdp", "rtsp", "imf", "ffmetadata",
                                "applehttp", "webm_dash_manifest"}) {
        if (IsOneOf(format, refused)) return true;
    }
    return false;
}

}  // namespace

std::atomic<bool> CDemuxer::s_stopped{false};

int CDemuxer::OnRead(void* opaque, uint8_t* to, int size) {
    auto& self = *static_cast<CDemuxer*>(opaque);
    if (size <= 0 || self.m_at >= self.m_size) return AVERROR_EOF;
    const auto asked = std::min(static_cast<size_t>(size), self.m_step);
    const auto want = static_cast<size_t>(std::min<uint64_t>(asked, self.m_size - self.m_at));
    self.m_step = std::min(self.m_step * 2, kLargestRead_bytes);
    if (want > self.m_budget || Stopped()) return AVERROR_EXIT;
    self.m_budget -= want;
    size_t done = 0;
    if (FAILED(self.m_file.ReadAt(to, want, self.m_at, done))) return AVERROR(EIO);
    self.m_at += done;
    return done == 0 ? AVERROR_EOF : static_cast<int>(done);
}

int64_t CDemuxer::OnSeek(void* opaque, int64_t offset, int whence) {
    auto& self = *static_cast<CDemuxer*>(opaque);
    const auto size = static_cast<int64_t>(self.m_size);
    if ((whence & AVSEEK_SIZE) != 0) return size;
    int64_t to = offset;
    if ((whence & ~AVSEEK_FORCE) == SEEK_CUR) to += static_cast<int64_t>(self.m_at);
    if ((whence & ~AVSEEK_FORCE) == SEEK_END) to += size;
    if (to < 0) return AVERROR(EINVAL);
    if (self.m_at != static_cast<uint64_t>(to)) self.m_step = kBehindJump_bytes;
    self.m_at = static_cast<uint64_t>(to);
    return to;
}

HRESULT CDemuxer::Open(IStoreFile& file, uint64_t size_bytes, std::unique_ptr<CDemuxer>& demuxer) {
    static std::once_flag once;
    std::call_once(once, [] {
        av_log_set_level(AV_LOG_QUIET);
        av_max_alloc(kLargestTable_bytes);
    });
    std::unique_ptr<CDemuxer> opening(new CDemuxer(file, size_bytes));
    const HRESULT hr = opening->OpenFormat();
    if (SUCCEEDED(hr)) demuxer = std::move(opening);
    return hr;
}

HRESULT CDemuxer::OpenFormat() {
    m_at = 0;
    m_step = kBehindJump_bytes;
    m_budget = m_size * 4 + (uint64_t{64} << 20);
    auto* const buffer = static_cast<uint8_t*>(av_malloc(kBuffer_bytes));
    if (buffer == nullptr) return E_OUTOFMEMORY;
    m_io = avio_alloc_context(buffer, kBuffer_bytes, 0, this, OnRead, nullptr, OnSeek);
    if (m_io == nullptr) {
        av_free(buffer);
        return E_OUTOFMEMORY;
    }
    const AVInputFormat* input = nullptr;
    const int score = av_probe_input_buffer2(m_io, &input, "", nullptr, 0, 0);
    if (score < AVPROBE_SCORE_RETRY || input == nullptr || IsRefused(*input))
        return HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);
    if (!m_counted && IsOneOf(*input, "mov") && MovClaimsTooMuch(m_file, m_size))
        return HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);
    m_counted = true;
    if (m_packet == nullptr) m_packet = av_packet_alloc();
    m_format = avformat_alloc_context();
    if (m_format == nullptr || m_packet == nullptr) return E_OUTOFMEMORY;
    m_format->pb = m_io;
    m_format->io_open = RefuseOpen;
    AVDictionary* options = nullptr;
    if (strcmp(input->name, "mpegts") == 0) av_dict_set(&options, "scan_all_pmts", "1", 0);
    const int result = avformat_open_input(&m_format, "", input, &options);  // frees it on failure
    av_dict_free(&options);
    return result < 0 ? HRESULT_FROM_WIN32(ERROR_BAD_FORMAT) : S_OK;
}

void CDemuxer::CloseFormat() {
    avformat_close_input(&m_format);
    if (m_io != nullptr) av_freep(&m_io->buffer);
    avio_context_free(&m_io);
}

CDemuxer::~CDemuxer() {
    CloseFormat();
    av_packet_free(&m_packet);
}

void CDemuxer::FindStreamInfo() {
    m_streamInfo = true;
    avformat_find_stream_info(m_format, nullptr);
}

const AVPacket* CDemuxer::Next() {
    av_packet_unref(m_packet);
    return av_read_frame(m_format, m_packet) < 0 ? nullptr : m_packet;
}

HRESULT CDemuxer::Rewind() {
    CloseFormat();
    const HRESULT hr = OpenFormat();
    if (SUCCEEDED(hr) && m_streamInfo) avformat_find_stream_info(m_format, nullptr);
    return hr;
}

bool CDemuxer::SeekToByte(uint64_t offset_bytes) {
    m_budget = m_size * 4 + (uint64_t{64} << 20);
    if ((m_format->iformat->flags & AVFMT_NO_BYTE_SEEK) != 0) return false;
    return av_seek_frame(m_format, -1, static_cast<int64_t>(offset_bytes), AVSEEK_FLAG_BYTE) >= 0;
}

bool CDemuxer::SeekToTime(int stream, int64_t time) {
    return av_seek_frame(m_format, stream, time, AVSEEK_FLAG_BACKWARD) >= 0;
}

void CDemuxer::DiscardAllBut(int stream) {
    for (unsigned i = 0; i < m_format->nb_streams; ++i)
        if (static_cast<int>(i) != stream) m_format->streams[i]->discard = AVDISCARD_ALL;
}

bool CDemuxer::Is(const char* name) const {
    return IsOneOf(*m_format->iformat, name);
}

}  // namespace zemstore
