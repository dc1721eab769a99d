// Formats responses. Field values go out as the application gave them.
#include "platform/posix/http_response.h"

#include <sys/stat.h>

#include <bit>
#include <charconv>
#include <cstring>
#include <new>

#include "platform/posix/filesinternal.h"
#include "platform/posix/http_clock.h"
#include "platform/posix/http_names.h"
#include "platform/posix/http_tuning.h"
#include "platform/posix/views.h"

namespace posix {
namespace {

class CText {
public:
    explicit CText(char* to) : m_to(to) {}
    CText& operator<<(std::string_view text) {
        if (!text.empty()) memcpy(m_to, text.data(), text.size());
        m_to += text.size();
        return *this;
    }
    CText& operator<<(uint64_t number) {
        m_to = std::to_chars(m_to, m_to + 20, number).ptr;
        return *this;
    }
    char* End() const { return m_to; }

private:
    char* m_to;
};

std::string_view Value(const HTTP_KNOWN_HEADER& header) {
    return {header.pRawValue, header.RawValueLength};
}

// The file holds the bytes now; what happens to it later is found when they are sent.
bool FileHolds(int fd, uint64_t offset, uint64_t bytes) {
    struct stat info;
    if (fstat(fd, &info) != 0) return false;
    const auto size = static_cast<uint64_t>(info.st_size);
    return offset <= size && bytes <= size - offset;
}

constexpr size_t kSmallBody = 256;
constexpr size_t kOwnFieldsRoom = 160;  // Content-Length, Date, Connection and the empty line

}  // namespace

ULONG CResponseWire::Build(const HTTP_RESPONSE& response, bool head_only, bool close) {
    if (response.StatusCode < 100 || response.StatusCode > 999) return ERROR_INVALID_PARAMETER;
    if (response.EntityChunkCount > 0 && !response.pEntityChunks) return ERROR_INVALID_PARAMETER;
    m_close = close;
    m_pieces = m_stack_pieces;
    if (response.EntityChunkCount + 1u > kStackPieces) {
        m_heap_pieces.reset(new (std::nothrow) CSendPiece[response.EntityChunkCount + 1u]);
        if (!m_heap_pieces) return ERROR_NOT_ENOUGH_MEMORY;
        m_pieces = m_heap_pieces.get();
    }
    m_count = 1;
    for (USHORT i = 0; i < response.EntityChunkCount; ++i)
        if (const ULONG error = AddChunk(response.pEntityChunks[i])) return error;
    const USHORT status = response.StatusCode;
    m_bodyless = status < 200 || status == 204 || status == 304;
    Look(response);
    if (head_only || m_bodyless) m_count = 1;

    char* header = m_stack_header;
    const size_t room = HeaderRoom(response);
    if (room > kStackHeader) {
        m_heap_header.reset(new (std::nothrow) char[room]);
        if (!m_heap_header) return ERROR_NOT_ENOUGH_MEMORY;
        header = m_heap_header.get();
    }
    char* end = WriteHeader(response, header);
    if (m_count > 1 && room + kSmallBody <= kStackHeader && FitsBehindHeader()) {
        for (size_t i = 1; i < m_count; ++i) {
            memcpy(end, m_pieces[i].data, m_pieces[i].bytes);
            end += m_pieces[i].bytes;
        }
        m_count = 1;
    }
    m_pieces[0] = {header, static_cast<uint64_t>(end - header), -1, 0, false};
    return NO_ERROR;
}

// One run of memory costs the system less than two. The pages of a file may be gone, which only the
// system can find out without harm.
bool CResponseWire::FitsBehindHeader() const {
    if (m_body_bytes > kSmallBody) return false;
    int fd;
    uint64_t offset;
    for (size_t i = 1; i < m_count; ++i)
        if (!m_pieces[i].data || FindFileView(m_pieces[i].data, 1, &fd, &offset)) return false;
    return true;
}

ULONG CResponseWire::AddChunk(const HTTP_DATA_CHUNK& chunk) {
    if (chunk.DataChunkType == HttpDataChunkFromFileHandle) return AddFile(chunk);
    if (chunk.DataChunkType != HttpDataChunkFromMemory) return ERROR_INVALID_PARAMETER;
    const auto& memory = chunk.FromMemory;
    if (memory.BufferLength == 0) return NO_ERROR;
    if (!memory.pBuffer) return ERROR_INVALID_PARAMETER;
    CSendPiece piece{static_cast<const char*>(memory.pBuffer), memory.BufferLength, -1, 0, false};
    if (piece.bytes >= HttpTune()->view_send_bytes &&
        FindFileView(piece.data, static_cast<size_t>(piece.bytes), &piece.fd, &piece.offset)) {
        // Before anything is sent the application can still answer otherwise.
        if (!FileHolds(piece.fd, piece.offset, piece.bytes)) return ERROR_HANDLE_EOF;
        piece.data = nullptr;
        piece.is_view = true;
    }
    m_body_bytes += piece.bytes;
    m_pieces[m_count++] = piece;
    return NO_ERROR;
}

ULONG CResponseWire::AddFile(const HTTP_DATA_CHUNK& chunk) {
    const int fd = FileDescriptorOf(chunk.FromFileHandle.FileHandle);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) return ERROR_INVALID_HANDLE;
    const auto size = static_cast<uint64_t>(info.st_size);
    const uint64_t offset = chunk.FromFileHandle.ByteRange.StartingOffset.QuadPart;
    uint64_t bytes = chunk.FromFileHandle.ByteRange.Length.QuadPart;
    if (offset > size) return ERROR_HANDLE_EOF;
    if (bytes == HTTP_BYTE_RANGE_TO_EOF) bytes = size - offset;
    if (bytes > size - offset) return ERROR_HANDLE_EOF;
    if (bytes == 0) return NO_ERROR;
    m_body_bytes += bytes;
    m_pieces[m_count++] = {nullptr, bytes, fd, offset, false};
    return NO_ERROR;
}

// What the application's own fields say about the framing.
void CResponseWire::Look(const HTTP_RESPONSE& response) {
    const HTTP_KNOWN_HEADER* known = response.Headers.KnownHeaders;
    const std::string_view connection = Value(known[HttpHeaderConnection]);
    if (EqualsNoCase(connection, "close")) m_close = m_says_close = true;
    const bool coded = known[HttpHeaderTransferEncoding].RawValueLength > 0;
    const std::string_view length = Value(known[HttpHeaderContentLength]);
    m_adds_length = length.empty() && !coded && !m_bodyless;
    if (length.empty() || m_bodyless) return;
    uint64_t said = 0;
    const auto result = std::from_chars(length.data(), length.data() + length.size(), said);
    if (result.ptr != length.data() + length.size() || said != m_body_bytes) m_close = true;
}

size_t CResponseWire::HeaderRoom(const HTTP_RESPONSE& response) {
    static_assert(HttpHeaderResponseMaximum <= 32);
    size_t room = 32u + response.ReasonLength + kOwnFieldsRoom;
    m_known = m_adds_length ? 1u << HttpHeaderContentLength : 0;
    for (int id = 0; id < HttpHeaderResponseMaximum; ++id) {
        const HTTP_KNOWN_HEADER& header = response.Headers.KnownHeaders[id];
        if (header.RawValueLength == 0 || id == HttpHeaderDate) continue;
        room += ResponseHeaderName(id).size() + header.RawValueLength + 4;
        m_known |= 1u << id;
    }
    for (USHORT i = 0; i < response.Headers.UnknownHeaderCount; ++i) {
        const HTTP_UNKNOWN_HEADER& header = response.Headers.pUnknownHeaders[i];
        room += header.NameLength + header.RawValueLength + 4u;
    }
    return room;
}

char* CResponseWire::WriteHeader(const HTTP_RESPONSE& response, char* to) {
    CText text(to);
    text << "HTTP/1.1 " << response.StatusCode << " "
         << std::string_view(response.pReason, response.pReason ? response.ReasonLength : 0u)
         << "\r\n";
    for (uint32_t left = m_known; left != 0; left &= left - 1) {
        const int id = std::countr_zero(left);
        if (id == HttpHeaderContentLength && m_adds_length) {
            text << "Content-Length: " << m_body_bytes << "\r\n";
        } else {
            text << ResponseHeaderName(id) << ": " << Value(response.Headers.KnownHeaders[id])
                 << "\r\n";
        }
    }
    for (USHORT i = 0; i < response.Headers.UnknownHeaderCount; ++i) {
        const HTTP_UNKNOWN_HEADER& header = response.Headers.pUnknownHeaders[i];
        text << std::string_view(header.pName, header.NameLength) << ": "
             << std::string_view(header.pRawValue, header.RawValueLength) << "\r\n";
    }
    text << "Date: " << DateText() << "\r\n";
    if (m_close && !m_says_close) text << "Connection: close\r\n";
    text << "\r\n";
    return text.End();
}

size_t WriteOwnAnswer(int status, bool head_only, bool close, char* to, size_t room) {
    const std::string_view reason = ReasonOf(status);
    char body[256];
    CText html(body);
    html << "<!DOCTYPE html><html><head><title>" << reason << "</title></head><body><h1>"
         << static_cast<uint64_t>(status) << " " << reason << "</h1></body></html>\r\n";
    const std::string_view entity(body, static_cast<size_t>(html.End() - body));
    CText text(to);
    text << "HTTP/1.1 " << static_cast<uint64_t>(status) << " " << reason
         << "\r\nContent-Length: " << entity.size()
         << "\r\nContent-Type: text/html; charset=us-ascii\r\nDate: " << DateText() << "\r\n";
    if (close) text << "Connection: close\r\n";
    text << "\r\n";
    if (!head_only) text << entity;
    const auto length = static_cast<size_t>(text.End() - to);
    return length <= room ? length : 0;
}

}  // namespace posix
