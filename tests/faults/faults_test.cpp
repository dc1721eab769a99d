// Every command, every page and every way of a frame, with one call after the other failing: the
// Nth of the system, of the media library, of the error log and of the allocator, for every N until
// a run meets no failure. Whatever fails, the request is answered once, every block, buffer, handle
// and lock is back (but for the frame block that a failed write request keeps), and the next
// requests are served, by another thread.
#include "platform/posix/object.h"
#include "tests/fakes/allocfault.h"
#include "tests/faults/callfaults.h"
#include "tests/frameio/frametest.h"
#include "tests/tempfolder.h"
#include "zemhttpd/commands/commandtable.h"
#include "zemhttpd/commands/wire.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <ostream>
#include <set>
#include <stdexcept>
#include <thread>

namespace {

constexpr ULONGLONG kVideo = 0x0000000101000042ull;

// What fails, and how.
enum class Fault {
    MediaFails,     // E_FAIL
    MediaThrowsHr,  // an HRESULT
    MediaThrows,    // what a host's module throws
    SystemFails,    // the call's own error
    SendFails,      // the interface refuses a response: no memory
    ClientGone,     // sends and body reads meet a connection that is gone
    LogRefuses,     // FALSE
    LogThrows,
    NoMemory,  // an allocation of the library
};
constexpr std::array kFaults = {
    std::pair(Fault::MediaFails, "media fails"),
    std::pair(Fault::MediaThrowsHr, "media throws an HRESULT"),
    std::pair(Fault::MediaThrows, "media throws"),
    std::pair(Fault::SystemFails, "system fails"),
    std::pair(Fault::SendFails, "send fails"),
    std::pair(Fault::ClientGone, "client gone"),
    std::pair(Fault::LogRefuses, "log refuses"),
    std::pair(Fault::LogThrows, "log throws"),
    std::pair(Fault::NoMemory, "no memory"),
};

struct Case {
    const char* name;
    RequestSpec request;
    std::vector<std::string> pieces = {};  // of the body that the network brings later
    bool pending = false;                  // the library completes it, on a thread of its own
    bool write = false;                    // may keep its frame block
    bool joined = true;                    // the sender is a client
    bool stays = true;                     // the sender is a client afterwards
};

void PrintTo(const Case& one, std::ostream* out) {
    *out << one.name;
}

Case Plain(const char* name, DWORD code, const std::string& body) {
    Case one{name, {}};
    one.request.entity = Command(4711, code, body);
    return one;
}

// The same, of which `with` bytes come with the request and the rest in two pieces.
Case InPieces(const char* name, DWORD code, const std::string& body, size_t with) {
    Case one = Plain(name, code, body);
    const std::string whole = one.request.entity;
    one.request.entity = whole.substr(0, with);
    const size_t half = with + (whole.size() - with) / 2;
    one.pieces = {whole.substr(with, half - with), whole.substr(half)};
    return one;
}

Case Write(const char* name, const std::string& payload, size_t with) {
    FrameEntrySpec entry;
    entry.token = kVideo;
    entry.lengths = {static_cast<DWORD>(payload.size())};
    const std::string command = Command(4711, 4, FrameBody({entry}));
    Case one{name, {}};
    one.request.entity = command + payload.substr(0, with);
    one.request.contentLength = std::to_string(command.size() + payload.size());
    if (with < payload.size()) {
        const size_t half = with + (payload.size() - with) / 2;
        one.pieces = {payload.substr(with, half - with), payload.substr(half)};
    }
    one.write = true;
    return one;
}

Case Read(const char* name) {
    FrameEntrySpec video, mark;
    video.token = kVideo;
    mark.token = ULONGLONG{kTokenKindMarker} << 24;
    return Plain(name, 3, FrameBody({video, mark}));
}

Case Page(const char* name, HTTP_VERB verb, const WCHAR* path) {
    Case one{name, {}};
    one.request.verb = verb;
    one.request.withClientId = false;
    one.request.chunkCount = 0;
    one.request.absPath = path;
    return one;
}

Case Pending(Case one, const char* name) {
    one.name = name;
    one.pending = true;
    return one;
}

std::vector<Case> Cases() {
    const std::string token = Bytes(kVideo);
    const std::string block = NameBlock(TEXT("a/clip"));
    const std::string name = NameField(TEXT("a/clip"));
    const WString xml = TEXT("<channel><attribute name='read-ahead' value='4'/></channel>");
    const std::string document(reinterpret_cast<const char*>(xml.data()), xml.size() * 2);
    std::vector<Case> cases = {
        Plain("CREATE_FILE", 1, name + NameField(TEXT("v0")) + std::string(56, 1) + Bytes(3u)),
        Plain("OPEN_FILE", 2, block + Bytes(BYTE{0}, BYTE{1})),
        InPieces("OPEN_FILE_in_pieces", 2, block + Bytes(BYTE{0}, BYTE{1}), 100),
        Read("READ_FRAME"),
        Pending(Read("READ_FRAME"), "READ_FRAME_pending"),
        Write("WRITE_FRAME", "twelve bytes", 12),
        Write("WRITE_FRAME_in_pieces", "twelve bytes", 3),
        Pending(Write("WRITE_FRAME", "twelve bytes", 3), "WRITE_FRAME_pending"),
        Plain("CLOSE_FILE", 5, token),
        Plain("GET_FILE_INFO", 6, token),
        Plain("GET_FILE_INFO2", 7, block),
        Plain("GET_FRAME_DESC", 8, token + Bytes(0u, LONG{40}, LONG{0})),
        Plain("GET_FRAME_DESC2", 9, block + Bytes(0u, LONG{5})),
        Plain("FLUSH_BUFFERS", 10, token),
        Plain("GET_FILE_MARKS", 11, token),
        Plain("GET_FILE_MARKS2", 12, block),
        Plain("STRIPE_TIMECODE", 13, block + Bytes(0u, 0u)),
        Plain("UPDATE_CFG", 14, document),
        InPieces("UPDATE_CFG_in_pieces", 14, document, 30),
        Plain("JOIN", 15, Bytes(7u)),
        Plain("LEAVE", 16, ""),
        Plain("KEEP_ALIVE", 17, ""),
        Plain("SET_IO_REAL_TIME", 18, ""),
        Plain("QUERY_FILESYSTEM_SPACE", 19, name),
        Plain("GET_FILE_ATTRIBS", 20, name),
        Plain("DELETE_FILE", 21, name),
        Plain("GET_FILESIZE", 22, name),
        Plain("CREATE_DIRECTORY", 23, name),
        Plain("MOVE_FILE", 24, name + NameField(TEXT("b"))),
        Plain("ERASE_SEGMENT", 25, token + Bytes(0u, 3u, LONG{1})),
        Plain("UPDATE_CFG_ATTR_STR", 26, name + NameField(TEXT("value"), 6)),
        Plain("unknown_command", kCommandCount + 1, ""),
        Page("GET_status", HttpVerbGET, TEXT("/media/status")),
        Page("GET_clients", HttpVerbGET, TEXT("/media/clients")),
        Page("GET_file", HttpVerbGET, TEXT("/media/clip.txt")),
        Page("DELETE_file", HttpVerbDELETE, TEXT("/media/clip.txt")),
        Page("PUT", HttpVerbPUT, TEXT("/media/clip.txt")),
    };
    for (Case& one : cases) {
        if (one.name == std::string("JOIN")) one.joined = false;
        if (one.name == std::string("LEAVE")) one.stays = false;
    }
    return cases;
}

class Faults : public CFrameTest, public ::testing::WithParamInterface<Case> {
protected:
    Faults() {
        std::filesystem::create_directory(folder.Path() / "media");
        wcscpy_s(access.VolumeRoot(), kNameUnits,
                 (folder.Path().string<WCHAR>() + TEXT("\\")).c_str());
        SetTracing(true);
        EXPECT_GE(CoInitializeEx(nullptr, COINIT_MULTITHREADED), 0);
        Disarm();
    }
    ~Faults() override {
        SetTracing(false);
        CoUninitialize();
    }

    // --- faults ---
    void Arm(Fault fault, uint64_t skipped) {
        m_fault = fault;
        if (fault == Fault::NoMemory)
            FailAllocationAfter(skipped);
        else
            CCallFaults::FailAfter(skipped);
    }
    bool Disarm() {
        const bool memory = AllocationFailed();
        const bool call = CCallFaults::Failed();
        return memory || call;
    }
    bool Hits(Fault fault, const char* name) { return m_fault == fault && CCallFaults::Hit(name); }
    void Install() {
        media.onCall = [this](const MediaCall& call) { OnMediaCall(call); };
        log.written = [this](const LogRecord&) -> BOOL {
            if (Hits(Fault::LogThrows, "log")) throw std::runtime_error("a host's error log");
            return !Hits(Fault::LogRefuses, "log");
        };
        log.chainId = [this](HRESULT hr) -> DWORD {
            if (Hits(Fault::LogThrows, "chain id")) throw std::runtime_error("a host's error log");
            return static_cast<DWORD>(hr);
        };
        http.onSend = [this](const SentResponse&) {
            const CAllocationFaultPause pause;
            const bool gone = Hits(Fault::ClientGone, "HttpSendHttpResponse");
            const bool refused = Hits(Fault::SendFails, "HttpSendHttpResponse");
            http.sendError = gone      ? ERROR_NETNAME_DELETED
                             : refused ? ERROR_NOT_ENOUGH_MEMORY
                                       : NO_ERROR;
            ++(http.sendError == NO_ERROR ? m_answered : m_refused);
        };
        http.onReadBody = [this]() -> ULONG {
            return Hits(Fault::ClientGone, "HttpReceiveRequestEntityBody") ? ERROR_NETNAME_DELETED
                                                                           : NO_ERROR;
        };
    }
    void OnMediaCall(const MediaCall& call) {
        const CAllocationFaultPause pause;
        media.results.clear();
        // What is destroyed cannot fail; counters are announced for tests alone.
        if (call.op.starts_with("~") || call.op.starts_with("Bump")) return;
        if (call.op == "GetWriteFrameBuffers") ++m_buffersOut;
        if (call.op == "WriteFrame" || call.op == "ReleaseWriteFrameBuffers") --m_buffersOut;
        if (call.op == "ReadFrame") ++m_readsOut;
        if (call.op == "ReadFrameComplete") --m_readsOut;
        // Its name lives as long as the test.
        static std::map<std::string, int> s_names;
        const char* name = s_names.emplace(call.op, 0).first->first.c_str();
        const bool fails = Hits(Fault::MediaFails, name);
        const bool throwsHr = !fails && Hits(Fault::MediaThrowsHr, name);
        const bool throwsOther = !fails && !throwsHr && Hits(Fault::MediaThrows, name);
        if (call.op == "GetWriteFrameBuffers" && (fails || throwsHr || throwsOther))
            --m_buffersOut;  // none were handed out
        if (fails) media.results[call.op] = E_FAIL;
        if (throwsHr) throw static_cast<HRESULT>(E_ACCESSDENIED);
        if (throwsOther) throw std::runtime_error("a host's module");
    }

    // --- one request ---
    void PutFile() { std::ofstream(folder.Path() / "media" / "clip.txt") << "text"; }
    void Uninstall() {
        media.onCall = nullptr;
        log.written = nullptr;
        log.chainId = nullptr;
        http.onSend = nullptr;
        http.onReadBody = nullptr;
        http.sendError = NO_ERROR;
    }
    // Runs the case with the call that comes after `skipped` others failing; whether one did.
    bool RunWith(Fault fault, uint64_t skipped) {
        const Case& given = GetParam();
        {
            const CAllocationFaultPause pause;
            PutFile();
            log.Reset();
            if (given.joined) Join();
            for (const std::string& piece : given.pieces)
                http.FeedBody(piece);
            media.pendReads = media.pendWrites = given.pending;
            m_answered = m_refused = 0;
            m_buffersOut = m_readsOut = 0;
            m_keptBefore = FramePool().KeptCount();
            m_handlesBefore = posix::OpenHandleCount();
            Install();
        }
        CHttpXaction& xaction = Take();
        Lay(xaction, given.request);
        xaction.SetStartTick(GetTickCount());
        Arm(fault, skipped);
        const HRESULT hr = server.ProcessRequest(xaction);
        if (given.pending) media.CompletePending();
        const bool failed = Disarm();
        if (hr != S_FALSE) Pool().Release(&xaction);
        http.DropBody();
        return failed;
    }

    // --- afterwards ---
    void ExpectWhole(Fault fault) {
        if (fault == Fault::ClientGone || fault == Fault::SendFails) {
            EXPECT_LE(m_answered, 1);
            EXPECT_LE(m_refused, 1);
            EXPECT_GE(m_answered + m_refused, 1);
        } else {
            EXPECT_EQ(m_answered, 1) << "a request is answered once";
        }
        EXPECT_EQ(m_buffersOut, 0) << "write buffers";
        EXPECT_EQ(m_readsOut, 0) << "frames in a reader's hands";
        EXPECT_EQ(media.PendingCount(), 0u);
        EXPECT_EQ(Pool().FreeCount(), kBlocks);
        EXPECT_EQ(FramePool().ActiveCount(), 0);
        const int kept = FramePool().KeptCount();
        EXPECT_EQ(FramePool().FreeCount() + kept, CFrameIoXactionPool::kBlocks);
        EXPECT_LE(kept, m_keptBefore + (GetParam().write ? 1 : 0));
        m_kept += kept - m_keptBefore;
        EXPECT_EQ(posix::OpenHandleCount(), m_handlesBefore);
    }
    // The client's next requests, from another thread: no lock is left behind.
    void ExpectServed() {
        Uninstall();
        media.pendReads = media.pendWrites = false;
        std::thread([&] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            Join();
            for (const Case& next :
                 {Write("", "abcd", 4), Read(""), Plain("", 5, Bytes(kVideo)), Plain("", 18, ""),
                  Plain("", 17, ""), Page("", HttpVerbGET, TEXT("/media/clients")),
                  Plain("", 16, "")}) {
                const size_t sent = http.SentCount();
                Process(next.request);
                EXPECT_EQ(http.SentCount(), sent + 1);
                EXPECT_EQ(http.Last().status, 200);
            }
            CoUninitialize();
        }).join();
        EXPECT_EQ(media.LiveChannels(), 0) << "the client has left";
        EXPECT_EQ(Pool().FreeCount(), kBlocks);
        EXPECT_EQ(FramePool().ActiveCount(), 0);
        http.Forget();
        media.Forget();
    }

    CTempFolder folder;
    Fault m_fault = Fault::NoMemory;
    int m_answered = 0, m_refused = 0;
    int m_buffersOut = 0, m_readsOut = 0;
    int m_keptBefore = 0, m_kept = 0;
    size_t m_handlesBefore = 0;
};

TEST_P(Faults, NothingIsLost) {
    Process(GetParam().request);  // what is made once and kept
    ExpectServed();
    uint64_t injected = 0;
    for (const auto& [fault, words] : kFaults) {
        for (uint64_t skipped = 0;; ++skipped) {
            ASSERT_LT(skipped, 1000u) << words;
            const bool failed = RunWith(fault, skipped);
            SCOPED_TRACE(std::string(words) + ", after " + std::to_string(skipped) + " (" +
                         CCallFaults::Name() + ")");
            if (!failed && fault != Fault::NoMemory) {
                EXPECT_EQ(m_answered, 1);
            }
            ExpectWhole(fault);
            ExpectServed();
            if (HasFailure() || !failed) break;
            ++injected;
        }
    }
    RecordProperty("injected", static_cast<int>(injected));
    std::cout << "[ FAULTS   ] " << GetParam().name << ": " << injected << " injected, " << m_kept
              << " frame blocks kept\n";
}

TEST(FaultCases, HaveEveryCommand) {
    std::set<DWORD> codes;
    for (const Case& one : Cases()) {
        if (one.request.entity.size() < kZemHeader_bytes) continue;
        DWORD code = 0;
        std::memcpy(&code, one.request.entity.data() + offsetof(ZemRequestHdr, code), sizeof code);
        codes.insert(code);
    }
    for (const CommandRow& command : kCommands)
        EXPECT_EQ(codes.count(command.code), 1u) << command.name;
}

INSTANTIATE_TEST_SUITE_P(Every, Faults, ::testing::ValuesIn(Cases()),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
