// What the library does for each request, piece by piece: with stand-ins for the media library and
// the error log, and nothing is sent.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>

#include "platform/posix/http_response.h"
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/frameio/httpxactn.h"

// Blocks are used again without their pool.
struct XactionTestAccess {
    static void Reset(CHttpXaction& xaction) {
        xaction.Reset();
        xaction.m_inUse = 1;
    }
};

namespace {

constexpr DWORD kKeepAlive = 17;

class CMicro : public CServerFixture {
public:
    CMicro() {
        http.rawSend = [](HTTP_RESPONSE&) { return ULONG{NO_ERROR}; };
        log.written = [](const LogRecord&) { return TRUE; };
        Join();
    }
    CZemChannelIo* Joined() { return Channel(); }
    CHttpXaction& Block() { return Take(); }
    void GiveBack(CHttpXaction& xaction) { Pool().Release(&xaction); }
    CFakeHttp& Http() { return http; }
    CHttpCommandHandler& Server() { return server; }
    void LayKeepAlive(CHttpXaction& xaction) {
        RequestSpec given;
        given.userAgent = "Edit (Suite/1.2.3.4)";
        given.contentLength = "12";
        given.entity = Command(1, kKeepAlive);
        Lay(xaction, given);
    }
    void TestBody() override {}
};

// From the request in its block to the response that is handed on, and the block reset: KEEP_ALIVE.
// The bytes of the request are put back each time.
void Dispatch(benchmark::State& state) {
    CMicro micro;
    CHttpXaction& xaction = micro.Block();
    micro.LayKeepAlive(xaction);
    const size_t used = static_cast<size_t>(xaction.Request()->BytesReceived);
    const std::string request(reinterpret_cast<const char*>(xaction.RequestBuffer()), used);
    for (auto _ : state) {
        std::memcpy(xaction.RequestBuffer(), request.data(), used);
        xaction.NoteReceived(used);
        xaction.SetStartTick(GetTickCount());
        if (micro.Server().ProcessRequest(xaction) != S_OK) state.SkipWithError("failed");
        XactionTestAccess::Reset(xaction);
    }
    micro.GiveBack(xaction);
}
BENCHMARK(Dispatch);

// From the buffers of a frame that was read to the pieces that go to the system, header included.
void BuildReply(benchmark::State& state) {
    CMicro micro;
    size_t pieces = 0;
    micro.Http().rawSend = [&](HTTP_RESPONSE& response) {
        posix::CResponseWire wire;
        const ULONG error = wire.Build(response, false, false);
        pieces = wire.Cursor().Count();
        return error;
    };
    CHttpXaction& xaction = micro.Block();
    micro.LayKeepAlive(xaction);
    const auto frame = std::make_unique<CFrameIoXaction>();
    std::memset(static_cast<void*>(frame.get()), 0, sizeof(*frame));
    frame->channel = micro.Joined();
    frame->httpXaction = &xaction;
    frame->owner = &micro.Server();
    frame->streamData.entries = frame->entries;
    frame->ioDesc.streamData = &frame->streamData;
    BYTE data[1024] = {};
    const auto buffers = static_cast<DWORD>(state.range(0));
    for (DWORD i = 0; i < buffers; ++i) {
        ElemStrmEntry& entry = frame->entries[i / kMaxBuffersPerEntry];
        entry.token = 0x0000000001000042;
        entry.buffers[entry.bufferCount++] = {data, sizeof(data)};
        frame->streamData.entryCount = i / kMaxBuffersPerEntry + 1;
    }
    for (auto _ : state) {
        xaction.SetStartTick(GetTickCount());
        if (micro.Server().SendReadFrameReply(*frame) != S_OK) state.SkipWithError("failed");
    }
    if (pieces != buffers + 2) state.SkipWithError("not the pieces");  // header and table
    micro.GiveBack(xaction);
}
BENCHMARK(BuildReply)
    ->Arg(1)
    ->Arg(2)
    ->Arg(6)
    ->Arg(22)
    ->Arg(44)
    ->Arg(66)
    ->Arg(88)
    ->Arg(110)
    ->Arg(131);

// A transaction block from its pool and back to it.
void TakeAndGiveBlock(benchmark::State& state) {
    static std::unique_ptr<CHttpXactionPool> pool;
    if (state.thread_index() == 0) {
        pool = std::make_unique<CHttpXactionPool>();
        pool->Init(nullptr, 300);
    }
    for (auto _ : state) {
        CHttpXaction* xaction = nullptr;
        if (pool->Acquire(xaction) != S_OK) {
            state.SkipWithError("failed");
            break;
        }
        xaction->NoteReceived(1000);
        pool->Release(xaction);
    }
    if (state.thread_index() == 0) pool.reset();
}
BENCHMARK(TakeAndGiveBlock)->Threads(1)->Threads(2)->UseRealTime();

// A frame block, with its place among those that are found by their request.
void TakeAndGiveFrameBlock(benchmark::State& state) {
    CMicro micro;
    CFrameIoXactionPool& pool = micro.Server().FramePool();
    CHttpXaction& xaction = micro.Block();
    micro.LayKeepAlive(xaction);
    for (auto _ : state) {
        CFrameIoXaction* const block = pool.AcquireBlock();
        block->httpXaction = &xaction;
        pool.RegisterBlock(block);
        pool.ReleaseBlock(block);
        pool.EndIo();
    }
    micro.GiveBack(xaction);
}
BENCHMARK(TakeAndGiveFrameBlock);

void FindClient(benchmark::State& state) {
    CClientTable table;
    const auto id = [](int64_t number) {
        const std::string text = "edit-suite-" + std::to_string(number);
        return WString(text.begin(), text.end());
    };
    {
        const CClientTable::CLock lock(table);
        for (int64_t i = 0; i < state.range(0); ++i)
            table.Insert(id(i), new ZemClient(TEXT("(x)"), nullptr, 100));
    }
    const WString wanted = id(state.range(0) / 2);
    for (auto _ : state) {
        const CZemClientRef client = table.Find(wanted);
        if (!client) state.SkipWithError("not found");
    }
    const CClientTable::CLock lock(table);
    table.UnlinkIf([](const WString&, ZemClient* client) {
        client->Release();
        return true;
    });
}
BENCHMARK(FindClient)->Arg(1)->Arg(100)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
