// A server for tests, built piece by piece without sockets or threads of its own: requests are laid
// into a transaction block as the HTTP interface would, ProcessRequest runs on the test's thread,
// and replies are caught by CFakeHttp.
#pragma once

#include "tests/fakes/fakeerrorlog.h"
#include "tests/fakes/fakehttp.h"
#include "tests/fakes/fakemedia.h"
#include "zemhttpd/server/httpcmdhdlr.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The server's private parts, by reference.
struct ServerTestAccess {
    CHttpCommandHandler& server;
    HANDLE& IssuerThread() { return server.m_issuerThread; }
    HANDLE& SnifferThread() { return server.m_snifferThread; }
    HANDLE*& WorkerThreads() { return server.m_workerThreads; }
    int& WorkerCount() { return server.m_workerCount; }
    bool& HttpInitialized() { return server.m_httpInitialized; }
    HANDLE& RequestQueue() { return server.m_requestQueue; }
    HANDLE& CompletionPort() { return server.m_completionPort; }
    CHttpXactionPool*& XactionPool() { return server.m_xactionPool; }
    char* ServerName() { return server.m_serverName; }
    WCHAR* Version() { return server.m_version; }
    DWORD& VersionLength() { return server.m_versionLength; }
    IZemMemAllocator*& Allocator() { return server.m_allocator; }
    std::unique_ptr<CFrameIoXactionPool>& FramePool() { return server.m_framePool; }
    CClientTable& Clients() { return server.m_clients; }
    std::atomic<DWORD>& RsDbg() { return server.m_rsDbg; }
    DWORD& FileServerMode() { return server.m_fileServerMode; }
    std::list<WString>& UrlWords() { return server.m_urlWords; }
    WCHAR* VolumeRoot() { return server.m_volumeRoot; }
    char* ComputerName() { return server.m_computerName; }
    CCapacityCache& Capacity() { return server.m_capacity; }
    CRealTimeClient& RealTimeClient() { return server.m_realTimeClient; }
    std::atomic<bool>& Dropping() { return server.m_dropping; }
    CWriteGate& WriteGate() { return server.m_writeGate; }
    std::atomic<int>& WritesInLine() { return server.m_writesInLine; }
};

// A request as it is laid into a block's buffer.
struct RequestSpec {
    HTTP_VERB verb = HttpVerbPOST;
    std::string clientId = "client";
    bool withClientId = true;
    std::string clientIdHeader = "Zem-Id";
    std::vector<std::pair<std::string, std::string>>
        headersBefore;  // non-standard, before the client ID
    std::vector<std::pair<std::string, std::string>> headersAfter;
    std::optional<std::string> userAgent;
    std::optional<std::string> contentLength;
    WString host = TEXT("host");
    WString absPath = TEXT("/zem/");
    std::string entity;                       // bytes received with the request
    std::optional<size_t> entityOffset;       // where in the buffer; default: behind the headers
    void* entityElsewhere = nullptr;          // the chunk lies here instead, entity.size() bytes
    USHORT chunkCount = 1;                    // reported; 0 for none
    std::optional<ULONGLONG> received_bytes;  // reported total; default: the bytes laid out
};

class CServerFixture : public ::testing::Test {
protected:
    CServerFixture();
    ~CServerFixture() override;

    // Lays the request into the block, with a request id of its own.
    void Lay(CHttpXaction& xaction, const RequestSpec& given);
    // Takes a block, lays the request, runs ProcessRequest and, unless it went asynchronous, gives
    // the block back.
    HRESULT Process(const RequestSpec& given);
    // The same with a command's entity.
    HRESULT Post(const std::string& entity, const std::string& clientId = "client");
    HRESULT Join(const std::string& clientId = "client", DWORD channelId = 7);
    // A new block of the pool; the caller gives it back with pool.Release.
    CHttpXaction& Take();
    // The channel of a joined client, or null.
    CZemChannelIo* Channel(const WCHAR* clientId = TEXT("client"));
    void SetTracing(bool on) { access.RsDbg() = on ? 1 : 0; }

    static constexpr int kBlocks = 8;
    CFakeHttp http;
    CFakeClock clock;
    std::unique_ptr<CHttpCommandHandler> ownedServer;
    CHttpCommandHandler& server;
    ServerTestAccess access;
    CFakeErrorLog& log;
    CFakeMedia& media;
    CHttpXactionPool& Pool() { return *access.XactionPool(); }

private:
    HTTP_REQUEST_ID m_lastRequestId = 1000;
};

// A registry value for the length of a test (64-bit view unless `key` names WOW6432Node).
class CRegistryValue {
public:
    CRegistryValue(const WCHAR* key, const WCHAR* name, DWORD value);
    CRegistryValue(const WCHAR* key, const WCHAR* name, const WCHAR* value, DWORD type = REG_SZ);
    CRegistryValue(const WCHAR* key, const WCHAR* name, DWORD type, const void* data, DWORD size);
    ~CRegistryValue();
    CRegistryValue(const CRegistryValue&) = delete;
    CRegistryValue& operator=(const CRegistryValue&) = delete;

private:
    WString m_key, m_name;
};
inline constexpr const WCHAR* kTestZemKey =
    TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM");
inline constexpr const WCHAR* kTestZemKey32 =
    TEXT("HKEY_LOCAL_MACHINE\\Software\\WOW6432Node\\Quorvane Group\\ZEM");
inline constexpr const WCHAR* kTestProductKey =
    TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group");
inline constexpr const WCHAR* kTestVolumeKey =
    TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs");
