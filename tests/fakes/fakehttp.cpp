// The wrapped calls and what they reach.
#include "tests/fakes/fakehttp.h"

#include "tests/fakes/allocfault.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>

namespace {

std::atomic<CFakeHttp*> g_installed{nullptr};
std::atomic<bool> g_tickSet{false};
std::atomic<DWORD> g_tick{0};
std::atomic<bool> g_timeSet{false};
std::atomic<LONGLONG> g_time{0};

}  // namespace

extern "C" {

ULONG __real_HttpSendHttpResponse(HANDLE, HTTP_REQUEST_ID, ULONG, PHTTP_RESPONSE, PVOID, PULONG,
                                  PVOID, ULONG, LPOVERLAPPED, PVOID);
ULONG __wrap_HttpSendHttpResponse(HANDLE queue, HTTP_REQUEST_ID requestId, ULONG flags,
                                  PHTTP_RESPONSE response, PVOID reserved1, PULONG sent_bytes,
                                  PVOID reserved2, ULONG reserved3, LPOVERLAPPED overlapped,
                                  PVOID reserved4) {
    const CAllocationFaultPause pause;
    if (CFakeHttp* fake = CFakeHttp::Installed(); fake && fake->rawSend)
        return fake->rawSend(*response);
    if (CFakeHttp* fake = CFakeHttp::Installed())
        return fake->Send(queue, requestId, flags, *response, sent_bytes);
    return __real_HttpSendHttpResponse(queue, requestId, flags, response, reserved1, sent_bytes,
                                       reserved2, reserved3, overlapped, reserved4);
}

ULONG __real_HttpReceiveRequestEntityBody(HANDLE, HTTP_REQUEST_ID, ULONG, PVOID, ULONG, PULONG,
                                          LPOVERLAPPED);
ULONG __wrap_HttpReceiveRequestEntityBody(HANDLE queue, HTTP_REQUEST_ID requestId, ULONG flags,
                                          PVOID buffer, ULONG length, PULONG read_bytes,
                                          LPOVERLAPPED overlapped) {
    const CAllocationFaultPause pause;
    if (CFakeHttp* fake = CFakeHttp::Installed())
        return fake->ReadBody(requestId, flags, buffer, length, read_bytes);
    return __real_HttpReceiveRequestEntityBody(queue, requestId, flags, buffer, length, read_bytes,
                                               overlapped);
}

DWORD __real_GetTickCount();
DWORD __wrap_GetTickCount() {
    return g_tickSet ? g_tick.load() : __real_GetTickCount();
}

time_t __real_time(time_t* out);
time_t __wrap_time(time_t* out) {
    if (!g_timeSet) return __real_time(out);
    if (out) *out = g_time;
    return g_time;
}

}  // extern "C"

CFakeClock::~CFakeClock() {
    g_tickSet = false;
    g_timeSet = false;
}
void CFakeClock::SetTick(DWORD tick_ms) {
    g_tick = tick_ms;
    g_tickSet = true;
}
void CFakeClock::AdvanceTick(DWORD milliseconds) {
    g_tick += milliseconds;
}
void CFakeClock::SetTime(LONGLONG seconds) {
    g_time = seconds;
    g_timeSet = true;
}

CFakeHttp::CFakeHttp() : m_outer(g_installed.exchange(this)) {}
CFakeHttp::~CFakeHttp() {
    g_installed = m_outer;
}
CFakeHttp* CFakeHttp::Installed() {
    return g_installed;
}

std::vector<SentResponse> CFakeHttp::Sent() const {
    const std::lock_guard lock(m_lock);
    return m_sent;
}

SentResponse CFakeHttp::Last() const {
    return Sent().back();
}

std::vector<CFakeHttp::BodyRead> CFakeHttp::BodyReads() const {
    const std::lock_guard lock(m_lock);
    return m_bodyReads;
}

void CFakeHttp::FeedBody(std::string bytes) {
    const std::lock_guard lock(m_lock);
    m_body.push_back({NO_ERROR, std::move(bytes)});
}

void CFakeHttp::FeedBodyError(ULONG error) {
    const std::lock_guard lock(m_lock);
    m_body.push_back({error, {}});
}

void CFakeHttp::DropBody() {
    const std::lock_guard lock(m_lock);
    m_body.clear();
}

void CFakeHttp::Forget() {
    const std::lock_guard lock(m_lock);
    m_sent.clear();
    m_bodyReads.clear();
}

ULONG CFakeHttp::Send(HANDLE queue, HTTP_REQUEST_ID requestId, ULONG flags,
                      const HTTP_RESPONSE& response, PULONG sent_bytes) {
    SentResponse sent;
    sent.queue = queue;
    sent.requestId = requestId;
    sent.flags = flags;
    sent.status = response.StatusCode;
    sent.reason.assign(response.pReason, response.ReasonLength);
    for (int id = 0; id < HttpHeaderResponseMaximum; ++id) {
        const HTTP_KNOWN_HEADER& header = response.Headers.KnownHeaders[id];
        if (header.pRawValue) {
            sent.known.emplace_back(static_cast<HTTP_HEADER_ID>(id),
                                    std::string(header.pRawValue, header.RawValueLength));
        }
    }
    for (USHORT i = 0; i < response.Headers.UnknownHeaderCount; ++i) {
        const HTTP_UNKNOWN_HEADER& header = response.Headers.pUnknownHeaders[i];
        sent.unknown.emplace_back(std::string(header.pName, header.NameLength),
                                  std::string(header.pRawValue, header.RawValueLength));
    }
    ULONG bytes = 0;
    for (USHORT i = 0; i < response.EntityChunkCount; ++i) {
        const HTTP_DATA_CHUNK& chunk = response.pEntityChunks[i];
        SentResponse::Chunk copy{chunk.DataChunkType, nullptr, {}, nullptr, 0, 0};
        if (chunk.DataChunkType == HttpDataChunkFromMemory) {
            copy.address = chunk.FromMemory.pBuffer;
            copy.data.assign(static_cast<const char*>(chunk.FromMemory.pBuffer),
                             chunk.FromMemory.BufferLength);
            bytes += chunk.FromMemory.BufferLength;
        } else {
            copy.file = chunk.FromFileHandle.FileHandle;
            copy.offset = chunk.FromFileHandle.ByteRange.StartingOffset.QuadPart;
            copy.length = chunk.FromFileHandle.ByteRange.Length.QuadPart;
        }
        sent.chunks.push_back(std::move(copy));
    }
    if (sent_bytes) *sent_bytes = bytes;
    {
        const std::lock_guard lock(m_lock);
        m_sent.push_back(sent);
    }
    if (onSend) onSend(sent);
    return sendError;
}

ULONG CFakeHttp::ReadBody(HTTP_REQUEST_ID requestId, ULONG flags, void* buffer, ULONG length,
                          PULONG read_bytes) {
    const std::lock_guard lock(m_lock);
    m_bodyReads.push_back({requestId, flags, buffer, length});
    if (read_bytes) *read_bytes = 0;
    if (const ULONG error = onReadBody ? onReadBody() : NO_ERROR) return error;
    if (m_body.empty()) return ERROR_HANDLE_EOF;
    Piece& piece = m_body.front();
    if (piece.bytes.empty()) {
        const ULONG error = piece.error;
        m_body.pop_front();
        return error;
    }
    const size_t bytes = std::min<size_t>(length, piece.bytes.size());
    std::memcpy(buffer, piece.bytes.data(), bytes);
    piece.bytes.erase(0, bytes);
    if (piece.bytes.empty()) m_body.pop_front();
    if (read_bytes) *read_bytes = static_cast<ULONG>(bytes);
    return NO_ERROR;
}

std::string SentResponse::Body() const {
    std::string body;
    for (const Chunk& chunk : chunks)
        body += chunk.data;
    return body;
}

std::optional<std::string> SentResponse::Header(HTTP_HEADER_ID id) const {
    for (const auto& [known_id, value] : known)
        if (known_id == id) return value;
    return std::nullopt;
}

LONG SentResponse::Word(size_t offset) const {
    const std::string body = Body();
    LONG word = 0;
    if (offset + sizeof(word) <= body.size())
        std::memcpy(&word, body.data() + offset, sizeof(word));
    return word;
}

std::string Command(DWORD transId, DWORD code, const std::string& body,
                    std::optional<DWORD> dataSize_bytes) {
    return Bytes(transId, code, dataSize_bytes.value_or(static_cast<DWORD>(body.size()))) + body;
}

std::string NameField(WStringView name, size_t units) {
    std::string field(units * sizeof(WCHAR), '\0');
    std::memcpy(field.data(), name.data(), std::min(name.size(), units) * sizeof(WCHAR));
    return field;
}
