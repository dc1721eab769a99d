// The HTTP interface and the clocks as a test sees them. The calls that a server test wraps come
// here; while no CFakeHttp is installed they reach the platform. Any thread.
#pragma once

#include "platform/platform.h"

#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// One response as it was when HttpSendHttpResponse was called, everything copied out.
struct SentResponse {
    struct Chunk {
        HTTP_DATA_CHUNK_TYPE type;
        const void* address = nullptr;  // memory
        std::string data;               // memory
        HANDLE file = nullptr;          // file
        ULONGLONG offset = 0, length = 0;
    };
    HANDLE queue = nullptr;
    HTTP_REQUEST_ID requestId = 0;
    ULONG flags = 0;
    USHORT status = 0;
    std::string reason;
    std::vector<std::pair<HTTP_HEADER_ID, std::string>> known;  // those that are set, by number
    std::vector<std::pair<std::string, std::string>> unknown;   // in order
    std::vector<Chunk> chunks;

    std::string Body() const;  // all memory chunks
    std::optional<std::string> Header(HTTP_HEADER_ID id) const;
    LONG Word(size_t offset) const;  // 32 bits of Body()
};

class CFakeHttp {
public:
    CFakeHttp();  // installs itself; until it goes, the one before hears nothing
    ~CFakeHttp();
    CFakeHttp(const CFakeHttp&) = delete;
    CFakeHttp& operator=(const CFakeHttp&) = delete;

    // --- sending ---
    std::vector<SentResponse> Sent() const;
    SentResponse Last() const;  // REQUIRES: something was sent
    size_t SentCount() const { return Sent().size(); }
    ULONG sendError = NO_ERROR;
    std::function<void(const SentResponse&)> onSend;  // on the sending thread, before the result
    std::function<ULONG(HTTP_RESPONSE&)> rawSend;     // instead of all this: nothing is kept

    // --- request bodies: pieces of what the network brings, then ERROR_HANDLE_EOF ---
    void FeedBody(std::string bytes);   // one or more reads take it
    void FeedBodyError(ULONG error);    // one read fails; NO_ERROR: one read succeeds with nothing
    std::function<ULONG()> onReadBody;  // before each read, which fails with its error
    void DropBody();                    // what no read has taken
    struct BodyRead {
        HTTP_REQUEST_ID requestId;
        ULONG flags;
        const void* destination;
        ULONG asked_bytes;
    };
    std::vector<BodyRead> BodyReads() const;

    void Forget();  // what was sent and read so far

    // --- for the wraps ---
    ULONG Send(HANDLE queue, HTTP_REQUEST_ID requestId, ULONG flags, const HTTP_RESPONSE& response,
               PULONG sent_bytes);
    ULONG ReadBody(HTTP_REQUEST_ID requestId, ULONG flags, void* buffer, ULONG length,
                   PULONG read_bytes);
    static CFakeHttp* Installed();

private:
    struct Piece {
        ULONG error;
        std::string bytes;
    };
    CFakeHttp* const m_outer;
    mutable std::mutex m_lock;
    std::vector<SentResponse> m_sent;
    std::deque<Piece> m_body;
    std::vector<BodyRead> m_bodyReads;
};

// Clocks: GetTickCount and time() with an offset, or standing still at a value. Back to real when
// it goes.
class CFakeClock {
public:
    CFakeClock() = default;
    ~CFakeClock();
    CFakeClock(const CFakeClock&) = delete;
    CFakeClock& operator=(const CFakeClock&) = delete;

    void SetTick(DWORD tick_ms);           // GetTickCount stands still here
    void AdvanceTick(DWORD milliseconds);  // REQUIRES: SetTick
    void SetTime(LONGLONG seconds);        // time() stands still here
};

// Bytes of a command's entity: header and body. The declared size is the body's, unless given.
std::string Command(DWORD transId, DWORD code, const std::string& body = {},
                    std::optional<DWORD> dataSize_bytes = std::nullopt);
// The little-endian bytes of plain values, one after the other.
template <class... Values>
std::string Bytes(Values... values) {
    std::string bytes;
    (bytes.append(reinterpret_cast<const char*>(&values), sizeof(values)), ...);
    return bytes;
}
// A name field: UTF-16 units, zero to `units`.
std::string NameField(WStringView name, size_t units = 260);
