// Lays requests out as the HTTP interface does: the structure first, then what it points to.
#include "tests/fakes/serverfixture.h"

#include <algorithm>
#include <cstring>

namespace {

// A queue that nothing opens: the calls that would use it are wrapped.
const HANDLE kFakeQueue = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x5151));

class CLayout {
public:
    CLayout(BYTE* buffer, size_t size) : m_buffer(buffer), m_size(size) {}
    BYTE* Put(const void* bytes, size_t length, size_t align = 1) {
        m_used = (m_used + align - 1) / align * align;
        EXPECT_LE(m_used + length, m_size) << "the request does not fit its block";
        BYTE* place = m_buffer + m_used;
        if (m_used + length <= m_size) std::memcpy(place, bytes, length);
        m_used += length;
        return place;
    }
    const char* PutText(const std::string& text) {
        return reinterpret_cast<const char*>(Put(text.c_str(), text.size() + 1));
    }
    const WCHAR* PutText(const WString& text) {
        return reinterpret_cast<const WCHAR*>(
            Put(text.c_str(), (text.size() + 1) * sizeof(WCHAR), sizeof(WCHAR)));
    }
    size_t Used() const { return m_used; }

private:
    BYTE* m_buffer;
    size_t m_size;
    size_t m_used = 0;
};

void PutKnown(CLayout& layout, HTTP_REQUEST& request, HTTP_HEADER_ID id,
              const std::optional<std::string>& value) {
    if (!value) return;
    request.Headers.KnownHeaders[id].pRawValue = layout.PutText(*value);
    request.Headers.KnownHeaders[id].RawValueLength = static_cast<USHORT>(value->size());
}

void PutUnknown(CLayout& layout, HTTP_REQUEST& request, const RequestSpec& given) {
    auto headers = given.headersBefore;
    if (given.withClientId) headers.emplace_back(given.clientIdHeader, given.clientId);
    headers.insert(headers.end(), given.headersAfter.begin(), given.headersAfter.end());
    if (headers.empty()) return;
    std::vector<HTTP_UNKNOWN_HEADER> table;
    for (const auto& [name, value] : headers) {
        const char* namePlace = layout.PutText(name);
        table.push_back({static_cast<USHORT>(name.size()), static_cast<USHORT>(value.size()),
                         namePlace, layout.PutText(value)});
    }
    request.Headers.UnknownHeaderCount = static_cast<USHORT>(table.size());
    request.Headers.pUnknownHeaders = reinterpret_cast<HTTP_UNKNOWN_HEADER*>(
        layout.Put(table.data(), table.size() * sizeof(table[0]), 8));
}

void PutUrl(CLayout& layout, HTTP_REQUEST& request, const RequestSpec& given) {
    const WString prefix = TEXT("http://");
    const WCHAR* url = layout.PutText(prefix + given.host + given.absPath);
    HTTP_COOKED_URL& cooked = request.CookedUrl;
    cooked.pFullUrl = url;
    cooked.FullUrlLength =
        static_cast<USHORT>((prefix.size() + given.host.size() + given.absPath.size()) * 2);
    cooked.pHost = url + prefix.size();
    cooked.HostLength = static_cast<USHORT>(given.host.size() * 2);
    cooked.pAbsPath = cooked.pHost + given.host.size();
    cooked.AbsPathLength = static_cast<USHORT>(given.absPath.size() * 2);
}

}  // namespace

CServerFixture::CServerFixture()
    : ownedServer(new CHttpCommandHandler),
      server(*ownedServer),
      access{*ownedServer},
      log(FakeErrorLog()),
      media(FakeMedia()) {
    log.Reset();
    media.Reset();
    access.RequestQueue() = kFakeQueue;
    access.Allocator() = new CZemMemAllocator;
    access.FramePool()->Initialize(&server);
    access.XactionPool() = new CHttpXactionPool;
    EXPECT_EQ(Pool().Init(&server, kBlocks), S_OK);
    strcpy_s(access.ServerName(), kNameUnits, "Quorvane ZEM /1.2.3.4");
    wcscpy_s(access.Version(), kNameUnits, TEXT("1.2.3.4"));
    strcpy_s(access.ComputerName(), kNameUnits, "BOX");
}

CServerFixture::~CServerFixture() {
    if (ownedServer && access.RequestQueue() == kFakeQueue) access.RequestQueue() = nullptr;
    ownedServer.reset();
    EXPECT_EQ(media.LiveChannels(), 0);
    EXPECT_EQ(media.LiveAllocators(), 0);
    media.Reset();
    log.Reset();
}

void CServerFixture::Lay(CHttpXaction& xaction, const RequestSpec& given) {
    CLayout layout(xaction.RequestBuffer(), CHttpXaction::RequestBufferSize());
    const HTTP_REQUEST empty{};
    layout.Put(&empty, sizeof(empty));
    HTTP_REQUEST& request = *xaction.Request();
    request.RequestId = ++m_lastRequestId;
    request.ConnectionId = 1;
    request.Version = {1, 1};
    request.Verb = given.verb;
    PutUrl(layout, request, given);
    PutUnknown(layout, request, given);
    PutKnown(layout, request, HttpHeaderUserAgent, given.userAgent);
    PutKnown(layout, request, HttpHeaderContentLength, given.contentLength);
    if (given.chunkCount > 0) {
        HTTP_DATA_CHUNK chunk{};
        chunk.DataChunkType = HttpDataChunkFromMemory;
        chunk.FromMemory.BufferLength = static_cast<ULONG>(given.entity.size());
        BYTE* const place = layout.Put(&chunk, sizeof(chunk), 8);
        request.EntityChunkCount = given.chunkCount;
        request.pEntityChunks = reinterpret_cast<HTTP_DATA_CHUNK*>(place);
        void* data = given.entityElsewhere;
        if (data) {
            std::memcpy(data, given.entity.data(), given.entity.size());
        } else if (given.entityOffset) {
            EXPECT_GE(*given.entityOffset, layout.Used());
            EXPECT_LE(*given.entityOffset + given.entity.size(), CHttpXaction::RequestBufferSize());
            data = xaction.RequestBuffer() + *given.entityOffset;
            std::memcpy(data, given.entity.data(), given.entity.size());
        } else {
            data = layout.Put(given.entity.data(), given.entity.size());
        }
        request.pEntityChunks[0].FromMemory.pBuffer = data;
    }
    request.BytesReceived = given.received_bytes.value_or(layout.Used());
}

CHttpXaction& CServerFixture::Take() {
    CHttpXaction* xaction = nullptr;
    EXPECT_EQ(Pool().Acquire(xaction), S_OK);
    return *xaction;
}

HRESULT CServerFixture::Process(const RequestSpec& given) {
    CHttpXaction& xaction = Take();
    Lay(xaction, given);
    xaction.SetStartTick(GetTickCount());
    const HRESULT hr = server.ProcessRequest(xaction);
    if (hr != S_FALSE) Pool().Release(&xaction);
    return hr;
}

HRESULT CServerFixture::Post(const std::string& entity, const std::string& clientId) {
    RequestSpec given;
    given.entity = entity;
    given.clientId = clientId;
    return Process(given);
}

HRESULT CServerFixture::Join(const std::string& clientId, DWORD channelId) {
    RequestSpec given;
    given.clientId = clientId;
    given.entity = Command(1, 15, Bytes(channelId));
    given.userAgent = "Edit (Suite/1.2.3.4)";
    return Process(given);
}

CZemChannelIo* CServerFixture::Channel(const WCHAR* clientId) {
    return server.LookupClient(clientId, false).Channel();
}

CRegistryValue::CRegistryValue(const WCHAR* key, const WCHAR* name, DWORD type, const void* data,
                               DWORD size)
    : m_key(key), m_name(name) {
    EXPECT_TRUE(OverrideRegistryValue(key, name, type, data, size));
}
CRegistryValue::CRegistryValue(const WCHAR* key, const WCHAR* name, DWORD value)
    : CRegistryValue(key, name, REG_DWORD, &value, sizeof(value)) {}
CRegistryValue::CRegistryValue(const WCHAR* key, const WCHAR* name, const WCHAR* value, DWORD type)
    : CRegistryValue(key, name, type, value,
                     static_cast<DWORD>((wcslen(value) + 1) * sizeof(WCHAR))) {}
CRegistryValue::~CRegistryValue() {
    OverrideRegistryValue(m_key.c_str(), m_name.c_str(), REG_NONE, nullptr, 0);
}
