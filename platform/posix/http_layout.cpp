// Measures and writes a delivered request. Both go over the same fields in the same order.
#include "platform/posix/http_layout.h"

#include <arpa/inet.h>
#include <stdio.h>

#include <charconv>
#include <cstring>
#include <new>

#include "platform/posix/http_names.h"

namespace posix {
namespace {

constexpr size_t Align(size_t n, size_t to) {
    return (n + to - 1) & ~(to - 1);
}

size_t AddressRoom(const CSocketAddress* address) {
    return Align(address->Size(), 8);
}

// The text of an address, as a URL has it.
std::string_view WriteAddress(const CSocketAddress& address, char (&to)[80]) {
    char text[INET6_ADDRSTRLEN] = "";
    const bool six = address.any.sa_family == AF_INET6;
    inet_ntop(address.any.sa_family,
              six ? static_cast<const void*>(&address.v6.sin6_addr)
                  : static_cast<const void*>(&address.v4.sin_addr),
              text, sizeof text);
    snprintf(to, sizeof to, six ? "[%s]" : "%s", text);
    return to;
}

void SetHost(const CRequestView& view, CHostText& text) {
    text.host = view.target->authority.empty() ? view.head->host : view.target->authority;
    if (text.host.empty()) text.host = WriteAddress(*view.local, text.made);
    text.port_length = 0;
    const size_t colon = text.host.rfind(':');
    if (colon != std::string_view::npos && text.host.back() != ']') return;
    text.port[0] = ':';
    char* const end =
        std::to_chars(text.port + 1, text.port + sizeof text.port, unsigned{view.local->Port()})
            .ptr;
    text.port_length = static_cast<size_t>(end - text.port);
}

constexpr std::string_view kScheme = "http://";

size_t FullUrlChars(const CRequestView& view) {
    return kScheme.size() + view.host.Length() + view.path->length + view.target->query.size();
}

class CRequestWriter {
public:
    CRequestWriter(const CRequestView& view, void* buffer)
        : m_view(view),
          m_base(static_cast<char*>(buffer)),
          m_request(*new (buffer) HTTP_REQUEST()),
          m_at(m_base + sizeof(HTTP_REQUEST)) {}

    char* Write();

private:
    std::string_view Name(const HeaderField& f) const {
        return {m_view.base + f.name, f.name_length};
    }
    std::string_view Value(const HeaderField& f) const {
        return {m_view.base + f.value, f.value_length};
    }
    PCSTR PutText(std::string_view text) {
        char* at = m_at;
        memcpy(at, text.data(), text.size());
        at[text.size()] = '\0';
        m_at += text.size() + 1;
        return at;
    }
    PSOCKADDR PutAddress(const CSocketAddress* address) {
        char* at = m_at;
        const size_t room = AddressRoom(address);
        memset(at, 0, room);
        memcpy(at, address, address->Size());
        m_at += room;
        return reinterpret_cast<PSOCKADDR>(at);
    }
    PCWSTR PutWide(std::string_view text) {
        auto* at = reinterpret_cast<WCHAR*>(m_at);
        for (size_t i = 0; i < text.size(); ++i)
            at[i] = static_cast<uint8_t>(text[i]);
        m_at += text.size() * sizeof(WCHAR);
        return at;
    }
    void WriteFields();
    void WriteRepeated(const HeaderField& field, HTTP_KNOWN_HEADER& known);
    void WriteUrl();

    const CRequestView& m_view;
    char* const m_base;
    HTTP_REQUEST& m_request;
    char* m_at;
};

size_t UnknownCount(const CRequestView& view) {
    size_t count = 0;
    for (size_t i = 0; i < view.head->header_count; ++i)
        count += view.head->headers[i].id == kUnknownHeader;
    return count;
}

// A known field that came more than once is one value with the pieces joined, at most this big.
constexpr size_t kJoinBytes = 2;

char* CRequestWriter::Write() {
    const RequestHead& head = *m_view.head;
    m_request.ConnectionId = m_view.connection_id;
    m_request.RequestId = m_view.request_id;
    m_request.RawConnectionId = m_view.connection_id;
    m_request.Version = {1, head.minor_version};
    m_request.Verb = head.verb;
    m_request.Headers.UnknownHeaderCount = static_cast<USHORT>(UnknownCount(m_view));
    m_at += sizeof(HTTP_DATA_CHUNK);
    if (m_request.Headers.UnknownHeaderCount > 0) {
        m_request.Headers.pUnknownHeaders = reinterpret_cast<PHTTP_UNKNOWN_HEADER>(m_at);
        m_at += m_request.Headers.UnknownHeaderCount * sizeof(HTTP_UNKNOWN_HEADER);
    }
    m_request.Address.pRemoteAddress = PutAddress(m_view.remote);
    m_request.Address.pLocalAddress = PutAddress(m_view.local);
    WriteUrl();
    m_request.pRawUrl = PutText(head.target);
    m_request.RawUrlLength = static_cast<USHORT>(head.target.size());
    if (head.verb == HttpVerbUnknown) {
        m_request.pUnknownVerb = PutText(head.method);
        m_request.UnknownVerbLength = static_cast<USHORT>(head.method.size());
    }
    WriteFields();
    char* end = m_base + Align(static_cast<size_t>(m_at - m_base), 8);
    memset(m_at, 0, static_cast<size_t>(end - m_at));
    return end;
}

void CRequestWriter::WriteUrl() {
    const CHostText& host = m_view.host;
    HTTP_COOKED_URL& url = m_request.CookedUrl;
    const auto bytes = [](size_t chars) { return static_cast<USHORT>(chars * sizeof(WCHAR)); };
    url.pFullUrl = PutWide(kScheme);
    url.pHost = PutWide(host.host);
    PutWide({host.port, host.port_length});
    url.HostLength = bytes(host.Length());
    url.pAbsPath = reinterpret_cast<PCWSTR>(m_at);
    memcpy(m_at, m_view.path->text, m_view.path->length * sizeof(WCHAR));
    m_at += m_view.path->length * sizeof(WCHAR);
    url.AbsPathLength = bytes(m_view.path->length);
    if (!m_view.target->query.empty()) {
        url.pQueryString = PutWide(m_view.target->query);
        url.QueryStringLength = bytes(m_view.target->query.size());
    }
    url.FullUrlLength = bytes(FullUrlChars(m_view));
    memset(m_at, 0, sizeof(WCHAR));
    m_at += sizeof(WCHAR);
}

void CRequestWriter::WriteFields() {
    HTTP_UNKNOWN_HEADER* unknown = m_request.Headers.pUnknownHeaders;
    for (size_t i = 0; i < m_view.head->header_count; ++i) {
        const HeaderField& field = m_view.head->headers[i];
        if (field.id == kUnknownHeader) {
            *unknown = {};
            unknown->NameLength = field.name_length;
            unknown->RawValueLength = field.value_length;
            unknown->pName = PutText(Name(field));
            unknown->pRawValue = PutText(Value(field));
            ++unknown;
            continue;
        }
        HTTP_KNOWN_HEADER& known = m_request.Headers.KnownHeaders[field.id];
        if (known.pRawValue) {
            WriteRepeated(field, known);
        } else {
            known.pRawValue = PutText(Value(field));
            known.RawValueLength = field.value_length;
        }
    }
}

// The joined value is written anew behind the last string when the first one is not the last, which
// Measure allows for.
void CRequestWriter::WriteRepeated(const HeaderField& field, HTTP_KNOWN_HEADER& known) {
    char* joined = m_at;
    memcpy(joined, known.pRawValue, known.RawValueLength);
    size_t length = known.RawValueLength;
    memcpy(joined + length, field.id == HttpHeaderCookie ? "; " : ", ", kJoinBytes);
    length += kJoinBytes;
    memcpy(joined + length, m_view.base + field.value, field.value_length);
    length += field.value_length;
    joined[length] = '\0';
    m_at += length + 1;
    known.pRawValue = joined;
    known.RawValueLength = static_cast<USHORT>(length);
}

size_t FieldBytes(const CRequestView& view) {
    size_t bytes = 0;
    size_t known_length[HttpHeaderRequestMaximum];
    uint64_t seen = 0;
    for (size_t i = 0; i < view.head->header_count; ++i) {
        const HeaderField& field = view.head->headers[i];
        if (field.id == kUnknownHeader) {
            bytes += sizeof(HTTP_UNKNOWN_HEADER) + field.name_length + field.value_length + 2u;
            continue;
        }
        const auto id = static_cast<size_t>(field.id);
        const bool repeated = (seen >> id & 1) != 0;
        known_length[id] =
            repeated ? known_length[id] + kJoinBytes + field.value_length : field.value_length;
        bytes += known_length[id] + 1;
        seen |= 1ull << id;
    }
    return bytes;
}

}  // namespace

uint16_t CSocketAddress::Port() const {
    return ntohs(any.sa_family == AF_INET6 ? v6.sin6_port : v4.sin_port);
}

void CSocketAddress::Unmap() {
    if (any.sa_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr)) return;
    sockaddr_in plain{};
    plain.sin_family = AF_INET;
    plain.sin_port = v6.sin6_port;
    memcpy(&plain.sin_addr, v6.sin6_addr.s6_addr + 12, 4);
    v4 = plain;
}

void Measure(CRequestView& view) {
    SetHost(view, view.host);
    const RequestHead& head = *view.head;
    size_t bytes = sizeof(HTTP_REQUEST) + sizeof(HTTP_DATA_CHUNK) + AddressRoom(view.remote) +
                   AddressRoom(view.local) + (FullUrlChars(view) + 1) * sizeof(WCHAR) +
                   head.target.size() + 1 + FieldBytes(view);
    if (head.verb == HttpVerbUnknown) bytes += head.method.size() + 1;
    view.layout_bytes = Align(bytes, 8);
}

size_t LayOut(const CRequestView& view, ULONG flags, void* buffer, size_t size, size_t* copied) {
    CRequestWriter writer(view, buffer);
    char* const base = static_cast<char*>(buffer);
    char* end = writer.Write();
    auto& request = *static_cast<HTTP_REQUEST*>(buffer);
    auto* chunk = new (base + sizeof(HTTP_REQUEST)) HTTP_DATA_CHUNK();
    size_t used = static_cast<size_t>(end - base);
    *copied = 0;
    if ((flags & HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY) && view.body_bytes > 0 && used < size) {
        *copied = view.body_bytes < size - used ? view.body_bytes : size - used;
        memcpy(end, view.body, *copied);
        chunk->DataChunkType = HttpDataChunkFromMemory;
        chunk->FromMemory.pBuffer = end;
        chunk->FromMemory.BufferLength = static_cast<ULONG>(*copied);
        request.EntityChunkCount = 1;
        request.pEntityChunks = chunk;
        used += *copied;
    }
    if (*copied < view.body_bytes || !view.body_done)
        request.Flags = HTTP_REQUEST_FLAG_MORE_ENTITY_BODY_EXISTS;
    request.BytesReceived = view.head->bytes + view.body_bytes;
    return used;
}

void LayOutIds(const CRequestView& view, void* buffer, size_t size) {
    memset(buffer, 0, size);
    auto& request = *new (buffer) HTTP_REQUEST();
    request.ConnectionId = view.connection_id;
    request.RawConnectionId = view.connection_id;
    request.RequestId = view.request_id;
}

}  // namespace posix
