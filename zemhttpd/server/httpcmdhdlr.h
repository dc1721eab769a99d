// CHttpCommandHandler: the server object. It owns the request queue, the completion port, the
// threads and the parts that the rooms bring (client table, pools, real-time client, capacity
// cache), and has the handlers of all commands as members, so that On_CMD_X and DoCmdX are found by
// name. Start and stop run on the host's thread, handlers on the workers, completions on the media
// library's threads.
#pragma once

#include "mediaio/zemchannelio.h"
#include "platform/platform.h"
#include "zemhttpd/clients/clienttable.h"
#include "zemhttpd/clients/realtimeclient.h"
#include "zemhttpd/clients/writegate.h"
#include "zemhttpd/commands/command.h"
#include "zemhttpd/frameio/httpxactn.h"
#include "zemhttpd/webfiles/capacitycache.h"

#include <atomic>
#include <list>
#include <memory>
#include <string>

class CZemEntry;
struct CommandRow;
struct FrameRequest;
struct WireCreateFile;
struct WireErase;
struct WireFileNames;
struct WireNameBlock;
struct WireOpenFile;
struct WireStripe;

class CHttpCommandHandler {
public:
    CHttpCommandHandler();  // throws HRESULT E_OUTOFMEMORY
    ~CHttpCommandHandler();
    CHttpCommandHandler(const CHttpCommandHandler&) = delete;
    CHttpCommandHandler& operator=(const CHttpCommandHandler&) = delete;

    // --- lifecycle (server/lifecycle.cpp), host thread ---
    HRESULT Initialize();
    void Shutdown();  // any number of times
    HRESULT GetBaseUrl(const WString& word, WString& url);

    // --- receive loop (server/receiveloop.cpp) ---
    HRESULT InitRequestThreadPool();
    HRESULT CloseRequestThreadPool();
    HRESULT IssueHttpRequest(CHttpXaction& xaction, bool& posted);
    static unsigned WINAPI HttpRequestIssuer(void* server);
    static unsigned WINAPI HttpRequestHandler(void* server);
    // Processes the request and, unless it went on asynchronously, gives its block back.
    void FinishRequest(CHttpXaction& xaction);
    // Writes stand in their clients' lines in at most half of the transaction blocks, in these and
    // at the gate in three quarters, and a sixth is of writes that are answered and not yet
    // written: the rest is for everybody.
    ZemClient::ETurn TakeWriteTurn(ZemClient& client, CHttpXaction& xaction);
    void PassWriteTurn(ZemClient& client);
    // Of a write that has its client's turn. InLine: it stands at the gate and is somebody else's
    // by now. Mine: it goes on, and what becomes of it ends with LeaveWriteGate.
    ZemClient::ETurn EnterWriteGate(ZemClient& client, const WCHAR* clientId,
                                    CHttpXaction& xaction);
    void HandOverWrite(CHttpXaction& xaction, ULONGLONG size_bytes);  // right before it is issued
    void LeaveWriteGate();

    // --- request assembly and dispatch (server/dispatch.cpp), worker threads ---
    // S_FALSE exactly when the handler went asynchronous: the block is its completion's then.
    HRESULT ProcessRequest(CHttpXaction& xaction);
    HRESULT GetCompleteRequest(ZemCommand& command);

    // --- replies (server/reply.cpp), worker and completion threads ---
    HRESULT GetZemReplyMsg(CHttpXaction& xaction, DWORD bodySize_bytes, DWORD replyCode,
                           BYTE** body);
    HRESULT SendZemHttpResponse(CHttpXaction& xaction, HRESULT hr, ULONGLONG contentLength_bytes,
                                const WCHAR* clientId);
    HRESULT SendGenericZemFailureResponse(HRESULT hr, const WCHAR* clientId, CHttpXaction& xaction);
    // 500 "Error 0x...".
    HRESULT SendStatusOnlyError(HRESULT hr, const WCHAR* clientId, CHttpXaction& xaction);
    HRESULT SendHttpResponse(const WCHAR* clientId, CHttpXaction& xaction, USHORT status,
                             const char* reason);

    // --- clients (clients/*.cpp) ---
    // Finds a joined client; with `touch` its last request time and request count advance. The
    // reference keeps record, record lock and channel alive until it goes. Empty for an unknown
    // client.
    CZemClientRef LookupClient(const WCHAR* clientId, bool touch);
    HRESULT DoCmdJoin(const ZemCommand& command, DWORD channelId);
    HRESULT On_CMD_JOIN(const ZemCommand& command);
    HRESULT DoCmdLeave(const ZemCommand& command);
    HRESULT On_CMD_LEAVE(const ZemCommand& command);
    HRESULT On_CMD_KEEP_ALIVE(const ZemCommand& command);
    HRESULT DeleteZemClient(ZemClient* client);  // a record already taken out of the table
    static unsigned WINAPI SniffDeadClients(void* server);
    HRESULT FindDeadClients(CDeadClients& dead);
    HRESULT PurgeDeadClients(CDeadClients& dead);
    // Copies the real-time client's ID out; false, and an empty text, when there is none.
    bool GetRealTimeIoClient(WCHAR (&clientId)[kNameUnits]) const;
    HRESULT SetRealTimeIoClient(const WCHAR* clientId);  // empty: none
    HRESULT DoCmdSetIoRealTime(const ZemCommand& command);
    HRESULT On_CMD_SET_IO_REAL_TIME(const ZemCommand& command);

    // --- file commands (commands/*.cpp), worker threads ---
    HRESULT DoCmdOpenFile(const ZemCommand& command, const WireOpenFile& request, ULONGLONG& token);
    HRESULT On_CMD_OPEN_FILE(const ZemCommand& command);
    HRESULT DoCmdCreateFile(const ZemCommand& command, const WireCreateFile& request,
                            ULONGLONG& token);
    HRESULT On_CMD_CREATE_FILE(const ZemCommand& command);
    HRESULT DoCmdCloseFile(const ZemCommand& command, ULONGLONG token);
    HRESULT On_CMD_CLOSE_FILE(const ZemCommand& command);
    HRESULT DoCmdGetFileInfo(const ZemCommand& command, ULONGLONG token, ZemEsDesc& esDesc);
    HRESULT On_CMD_GET_FILE_INFO(const ZemCommand& command);
    HRESULT DoCmdGetFileInfo2(const ZemCommand& command, const WireNameBlock& block,
                              ZemEsDesc& esDesc);
    HRESULT On_CMD_GET_FILE_INFO2(const ZemCommand& command);
    HRESULT DoCmdGetFrameDesc(const ZemCommand& command, ULONGLONG token, DWORD position,
                              VioFrameRate_t rate, LONG count, ZemFrameDesc* descs);
    HRESULT On_CMD_GET_FRAME_DESC(const ZemCommand& command);
    HRESULT DoCmdGetFrameDesc2(const ZemCommand& command, LONG count, ZemFrameDesc* descs);
    HRESULT On_CMD_GET_FRAME_DESC2(const ZemCommand& command);
    HRESULT DoCmdGetFileMarks(const ZemCommand& command, ULONGLONG token, DWORD& first,
                              DWORD& second);
    HRESULT On_CMD_GET_FILE_MARKS(const ZemCommand& command);
    HRESULT DoCmdGetFileMarks2(const ZemCommand& command, const WireNameBlock& block, DWORD& first,
                               DWORD& second);
    HRESULT On_CMD_GET_FILE_MARKS2(const ZemCommand& command);
    HRESULT DoCmdFlushBuffers(const ZemCommand& command, ULONGLONG token);
    HRESULT On_CMD_FLUSH_BUFFERS(const ZemCommand& command);
    HRESULT DoCmdStripeTimecode(const ZemCommand& command, const WireStripe& request);
    HRESULT On_CMD_STRIPE_TIMECODE(const ZemCommand& command);
    HRESULT DoCmdEraseSegment(const ZemCommand& command, const WireErase& request);
    HRESULT On_CMD_ERASE_SEGMENT(const ZemCommand& command);
    HRESULT DoCmdQueryFilesystemSpace(const ZemCommand& command, const WCHAR* volumeName,
                                      ULONGLONG& totalBytes, ULONGLONG& freeBytes);
    HRESULT On_CMD_QUERY_FILESYSTEM_SPACE(const ZemCommand& command);
    HRESULT DoCmdGetFileAttribs(const ZemCommand& command, const WCHAR* fileName,
                                DWORD& attributes);
    HRESULT On_CMD_GET_FILE_ATTRIBS(const ZemCommand& command);
    HRESULT DoCmdDeleteFile(const ZemCommand& command, const WCHAR* fileName);
    HRESULT On_CMD_DELETE_FILE(const ZemCommand& command);
    HRESULT DoCmdGetFileSize(const ZemCommand& command, const WCHAR* fileName, ULONGLONG& fileSize);
    HRESULT On_CMD_GET_FILESIZE(const ZemCommand& command);
    HRESULT DoCmdCreateDir(const ZemCommand& command, const WCHAR* directoryName);
    HRESULT On_CMD_CREATE_DIRECTORY(const ZemCommand& command);
    HRESULT DoCmdMoveFile(const ZemCommand& command, const WireFileNames& names);
    HRESULT On_CMD_MOVE_FILE(const ZemCommand& command);

    // --- frame I/O (frameio/*.cpp): workers, completions on the media library's threads ---
    HRESULT DoCmdReadFrame(const ZemCommand& command, const FrameRequest& request, bool& issued);
    HRESULT On_CMD_READ_FRAME(const ZemCommand& command);
    static void ReadFrameDoneApc(void* frameXaction);
    HRESULT SendReadFrameReply(CFrameIoXaction& frame);
    HRESULT DoCmdWriteFrame(const ZemCommand& command, const FrameRequest& request, bool& release);
    HRESULT On_CMD_WRITE_FRAME(const ZemCommand& command);
    HRESULT GetZemWriteFrameRequestFromHttp(const ZemCommand& command, const FrameRequest& request,
                                            CZemChannelIo& channel, CFrameIoXaction*& frame);
    HRESULT GetWriteFrameBuffer(CZemChannelIo& channel, ZemIoDesc& desc, BYTE*& firstBuffer,
                                ULONGLONG& allocated_bytes);
    HRESULT ReadFrameDataIntoBuffer(const ZemCommand& command, BYTE* destination, bool& complete);
    static void WriteFrameDoneApc(void* frameXaction);
    HRESULT DoCmdUpdateCfg(const ZemCommand& command, const WCHAR* xml);
    HRESULT On_CMD_UPDATE_CFG(const ZemCommand& command);
    HRESULT DoCmdUpdateCfgStrAttr(const ZemCommand& command, const WCHAR* name, const WCHAR* value);
    HRESULT On_CMD_UPDATE_CFG_ATTR_STR(const ZemCommand& command);

    // --- plain HTTP (webfiles/*.cpp), worker threads ---
    HRESULT SendHttpGetResponse(CHttpXaction& xaction, USHORT status, const char* reason);
    HRESULT SendHttpDeleteResponse(CHttpXaction& xaction, USHORT status, const char* reason);
    void GetCapacityString(const WCHAR* label, char* out, int size_bytes);
    void GetClientsInfo(const WCHAR* label, char* out, int size_bytes);

    // --- what the rooms share ---
    bool Tracing() const { return m_rsDbg.load(std::memory_order_relaxed) != 0; }
    bool FileServerMode() const { return m_fileServerMode != 0; }
    CHttpXactionPool* XactionPool() const { return m_xactionPool; }
    CFrameIoXactionPool& FramePool() const { return *m_framePool; }
    CClientTable& Clients() { return m_clients; }

private:
    friend struct ServerTestAccess;  // tests build a server piece by piece

    // Steps of Initialize and Shutdown; the former throw through Initialize's scope.
    void CreateRequestQueue(CZemEntry& scope);
    void ReadMode();
    int XactionCount() const;
    void CreatePortAndAllocator(CZemEntry& scope);
    void RegisterUrls(CZemEntry& scope);
    void ReadIdentity();
    void StartThreads(CZemEntry& scope);
    void StopLongThreads();
    void CloseHttp();
    bool TakeBackReceives();
    void ForgetWritesInLine();
    void TakeStock(CZemEntry& scope);
    void ContinueWrite(CHttpXaction& xaction);
    void DeleteRemainingClients();
    DWORD ConcurrentWorkers() const;
    LONGLONG ServiceRequests();  // a worker's loop; the number of requests when told to stop,
                                 // throws on a failed receive

    // Steps of ProcessRequest, which throw through its scope.
    HRESULT ProcessCommand(CZemEntry& scope, WCHAR (&clientId)[kNameUnits], CHttpXaction& xaction,
                           bool& keepsBlock);
    void CheckSize(CZemEntry& scope, const CommandRow& row, ZemCommand& command);
    bool FitsInPlace(CZemEntry& scope, const ZemCommand& command) const;  // else traces why not
    static constexpr int kStatusUnits = 640;  // of the real-time words in a join's trace
    void DecideRealTime(CZemEntry& scope, const WCHAR* clientId, CZemChannelIo& channel,
                        WCHAR (&status)[kStatusUnits]);
    ULONG SendResponse(CHttpXaction& xaction);
    ULONG SendCommandReply(CHttpXaction& xaction, ULONGLONG contentLength_bytes,
                           DWORD zemHeader_bytes);

    HANDLE m_issuerThread = nullptr;
    HANDLE m_snifferThread = nullptr;
    std::atomic<bool> m_issuerBegun{false};
    HANDLE* m_workerThreads = nullptr;
    int m_workerCount = 0;
    bool m_httpInitialized = false;
    HANDLE m_requestQueue = nullptr;
    HANDLE m_completionPort = nullptr;
    CHttpXactionPool* m_xactionPool = nullptr;
    char m_serverName[kNameUnits] = {};  // value of the Server header
    WCHAR m_version[kNameUnits] = {};    // ours, compared with a joining client's
    IZemMemAllocator* m_allocator = nullptr;
    std::unique_ptr<CFrameIoXactionPool> m_framePool;
    CClientTable m_clients;
    std::atomic<DWORD> m_rsDbg{0};  // the trace flag: registry "RsDbg", re-read at every join
    DWORD m_fileServerMode = 0;
    DWORD m_reportBlocks = 0;  // registry: the pools' figures are logged at the end
    std::list<WString> m_urlWords;
    DWORD m_versionLength = 0;  // with its NUL, as read: shows in a dump if the registry gave it
    WCHAR m_volumeRoot[kNameUnits] = {};   // ends in one backslash; empty: none
    char m_computerName[kNameUnits] = {};  // value of X-ServerName
    CCapacityCache m_capacity;
    CRealTimeClient m_realTimeClient;
    std::atomic<bool> m_dropping{false};  // reads and writes share it
    std::atomic<int> m_writesInLine{0};
    CWriteGate m_writeGate;
};
