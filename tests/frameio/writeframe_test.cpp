// CMD_WRITE_FRAME: where the bytes of the frame go, the immediate reply, drops, failures, blocks
// that are kept.
#include <algorithm>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>

#include "tests/fakes/allocfault.h"
#include "tests/frameio/frametest.h"

namespace {

constexpr HRESULT kNoResources = static_cast<HRESULT>(0x800705AA);
constexpr HRESULT kEndOfMedia = static_cast<HRESULT>(0x8007044C);
constexpr ULONGLONG kVideo = 0x0000000101000042ull;

class WriteFrame : public CFrameTest {
protected:
    FrameEntrySpec Entry(std::vector<DWORD> lengths, DWORD position = 5) {
        FrameEntrySpec entry;
        entry.token = kVideo;
        entry.position = position;
        entry.lengths = std::move(lengths);
        return entry;
    }
    // A write whose payload came with the request as far as `with`, of `payload` bytes in all.
    RequestSpec Spec(const std::vector<FrameEntrySpec>& entries, const std::string& with,
                     size_t payload_bytes) {
        RequestSpec given;
        const std::string command = Command(kTransId, 4, FrameBody(entries));
        given.entity = command + with;
        given.contentLength = std::to_string(command.size() + payload_bytes);
        return given;
    }
    HRESULT Write(const std::vector<FrameEntrySpec>& entries, const std::string& payload) {
        return Run(Spec(entries, payload, payload.size()));
    }
    void ExpectImmediateReply() {
        ASSERT_GE(http.SentCount(), 2u);
        EXPECT_EQ(http.Last().status, 200);
        EXPECT_EQ(http.Last().Body(), Bytes(kTransId, DWORD{4}, DWORD{4}, LONG{0}));
        EXPECT_EQ(http.Last().Header(HttpHeaderContentLength), "16");
    }
    std::string Written() const { return {media.writeBuffer.begin(), media.writeBuffer.end()}; }
    // Before the test ends: its blocks went out of the pool, as they must.
    void ExpectKept(int count) {
        EXPECT_EQ(FramePool().KeptCount(), count);
        EXPECT_EQ(FramePool().FreeCount(), CFrameIoXactionPool::kBlocks - count);
        EXPECT_EQ(FramePool().ActiveCount(), 0);
    }
};

TEST_F(WriteFrame, APayloadThatCameWholeIsCopiedIntoTheBuffer) {
    EXPECT_EQ(Write({Entry({4, 3})}, "abcdefg"), S_FALSE);
    EXPECT_EQ(Written(), "abcdefg");
    EXPECT_TRUE(http.BodyReads().empty());
    EXPECT_EQ(media.Count("WriteFrame"), 1u);
    ExpectImmediateReply();
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    EXPECT_EQ(FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
    EXPECT_EQ(Stages(), (std::vector<DWORD>{0, 1, 6, 8, 3, 4, 13, 14}));
    EXPECT_EQ(TimerName(),
              "ZemHttpdXaction client: WRITE_FRAME token 0x101000042 pos 5, transId 4711");
}

TEST_F(WriteFrame, IsOnItsWayFromItsAnswerUntilTheLibraryHasIt) {
    int answered = 0, handed = 0;
    const CZemClientRef client = server.LookupClient(TEXT("client"), false);
    http.onSend = [&](const SentResponse&) {
        if (media.Count("WriteFrame") == 0 && client.Record()->HandingOver()) ++answered;
    };
    media.onWriteFrame = [&](CZemChannelIo&, ZemIoDesc&) {
        if (client.Record()->HandingOver()) ++handed;
        return S_OK;
    };
    EXPECT_EQ(Write({Entry({3})}, "abc"), S_FALSE);
    EXPECT_EQ(answered, 1);
    EXPECT_EQ(handed, 1);
    EXPECT_FALSE(client.Record()->HandingOver());
}

TEST_F(WriteFrame, AFileCommandWaitsForAnAnsweredWrite) {
    const CZemClientRef client = server.LookupClient(TEXT("client"), false);
    std::atomic<bool> with_library{false};
    std::atomic<bool> closed_early{false};
    media.onCall = [&](const MediaCall& call) {
        if (call.op == "CloseFile" && !with_library) closed_early = true;
    };
    ZemCommand command{};
    command.clientId = TEXT("client");
    client.Record()->BeginHandOver();
    std::thread closer([&] { server.DoCmdCloseFile(command, kVideo); });
    with_library = true;
    client.Record()->EndHandOver();
    closer.join();
    EXPECT_FALSE(closed_early);
    EXPECT_EQ(media.Count("CloseFile"), 1u);
}

TEST_F(WriteFrame, HandsEveryFieldOfTheRequestToTheLibrary) {
    FrameEntrySpec ordinary = Entry({2, 0, 3}, 8);
    ordinary.streamFlags = 0x11;
    ordinary.userData64 = 0x2122232425262728;
    ordinary.userData32 = 0x31323334;
    FrameEntrySpec special;
    special.token = 0x0000000118000001ull;
    for (int i = 0; i < 24; ++i)
        special.special.push_back(static_cast<char>(0x40 + i));
    bool seen = false;
    media.onWriteFrame = [&](CZemChannelIo& channel, ZemIoDesc& desc) {
        seen = true;
        const auto* block = static_cast<CFrameIoXaction*>(desc.completionContext);
        EXPECT_EQ(&block->ioDesc, &desc);
        EXPECT_EQ(block->channel, &channel);
        EXPECT_EQ(FramePool().FindBlock(last->RequestId()), block);
        EXPECT_EQ(desc.completionRoutine, &CHttpCommandHandler::WriteFrameDoneApc);
        EXPECT_EQ(desc.requestWord, 0x77u);
        EXPECT_EQ(desc.inUse, 1);
        EXPECT_EQ(desc.streamData->entryCount, 2u);
        const ElemStrmEntry& a = desc.streamData->entries[0];
        EXPECT_EQ(a.status, S_OK);
        EXPECT_EQ(a.token, kVideo);
        EXPECT_EQ(a.position, 8u);
        EXPECT_EQ(a.streamFlags, 0x11u);
        EXPECT_EQ(a.bufferCount, 3);
        EXPECT_EQ(a.buffers[0].length_bytes, 2u);
        EXPECT_EQ(a.buffers[0].data, media.writeBuffer.data());
        EXPECT_EQ(a.buffers[1].length_bytes, 0u);
        EXPECT_EQ(a.buffers[1].data, nullptr) << "an empty buffer has no address";
        EXPECT_EQ(a.buffers[2].length_bytes, 3u);
        EXPECT_EQ(a.userData64, 0x2122232425262728u);
        EXPECT_EQ(a.userData32, 0x31323334u);
        const ElemStrmEntry& b = desc.streamData->entries[1];
        EXPECT_EQ(std::memcmp(b.special, special.special.data(), 24), 0);
        desc.status = S_OK;
        return S_OK;
    };
    EXPECT_EQ(Write({ordinary, special}, "12345"), S_FALSE);
    EXPECT_TRUE(seen);
    EXPECT_EQ(Written(), "12345");
}

TEST_F(WriteFrame, TheRestOfThePayloadIsReadIntoPlace) {
    http.FeedBody("def");
    http.FeedBody("ghij");
    LONG receives = -1;
    media.onWriteFrame = [&](CZemChannelIo&, ZemIoDesc& desc) {
        receives = last->ReceiveCount();
        return desc.status = S_OK;
    };
    EXPECT_EQ(Run(Spec({Entry({10})}, "abc", 10)), S_FALSE);
    EXPECT_EQ(Written(), "abcdefghij");
    EXPECT_EQ(receives, 2);
    const auto reads = http.BodyReads();
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[0].destination, media.writeBuffer.data() + 3);
    EXPECT_EQ(reads[0].asked_bytes, 7u);
    EXPECT_EQ(reads[0].flags, 0u);
    EXPECT_EQ(reads[1].destination, media.writeBuffer.data() + 6);
    EXPECT_EQ(reads[1].asked_bytes, 4u);
}

TEST_F(WriteFrame, APayloadThatComesLaterIsReadWhole) {
    http.FeedBody("abcdef");
    EXPECT_EQ(Run(Spec({Entry({6})}, "", 6)), S_FALSE);
    EXPECT_EQ(Written(), "abcdef");
}

TEST_F(WriteFrame, AnEmptyPayloadReadsNothing) {
    EXPECT_EQ(Write({Entry({})}, ""), S_FALSE);
    EXPECT_TRUE(http.BodyReads().empty());
    EXPECT_EQ(media.Count("WriteFrame"), 1u);
    ExpectImmediateReply();
}

TEST_F(WriteFrame, TheReplyGoesOutBeforeTheWriteIsIssued) {
    size_t sentAtIssue = 0;
    media.onWriteFrame = [&](CZemChannelIo&, ZemIoDesc& desc) {
        sentAtIssue = http.SentCount();
        return desc.status = S_OK;
    };
    Write({Entry({1})}, "x");
    EXPECT_EQ(sentAtIssue, 2u);
}

TEST_F(WriteFrame, APendingWriteKeepsItsBlocksUntilItsCompletion) {
    SetTracing(true);
    media.pendWrites = true;
    EXPECT_EQ(Write({Entry({1})}, "x"), S_FALSE);
    ExpectImmediateReply();
    EXPECT_EQ(Pool().FreeCount(), kBlocks - 1);
    EXPECT_EQ(FramePool().ActiveCount(), 1);
    std::thread library([&] { media.CompletePending(); });
    FramePool().WaitUntilIdle();
    library.join();
    EXPECT_EQ(http.SentCount(), 2u) << "the completion sends nothing";
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    EXPECT_EQ(FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
    EXPECT_EQ(Traces(), (std::vector<std::string>{
                            "client: handling CMD_WRITE_FRAME, transId 4711",
                            "client: handling write-frame complete apc, transId 4711"}));
}

TEST_F(WriteFrame, TheRecordLockIsHeldUntilTheWriteWasIssued) {
    CRITICAL_SECTION* lock = server.LookupClient(TEXT("client"), false).RecordLock();
    int tries = 0;
    const auto expectHeld = [&] {
        ++tries;
        std::thread other([&] {
            const BOOL entered = TryEnterCriticalSection(lock);
            EXPECT_FALSE(entered);
            if (entered) LeaveCriticalSection(lock);
        });
        other.join();
    };
    http.onSend = [&](const SentResponse&) { expectHeld(); };
    media.onCall = [&](const MediaCall& call) {
        if (call.op == "GetWriteFrameBuffers" || call.op == "WriteFrame") expectHeld();
    };
    Write({Entry({1})}, "x");
    http.onSend = nullptr;
    EXPECT_EQ(tries, 3);
    EXPECT_TRUE(TryEnterCriticalSection(lock));
    LeaveCriticalSection(lock);
}

TEST_F(WriteFrame, AWriteInLineIsContinuedWhenItsTurnComes) {
    SetTracing(true);
    const CZemClientRef client = server.LookupClient(TEXT("client"), false);
    std::vector<DWORD> positions;
    media.onWriteFrame = [&](CZemChannelIo&, ZemIoDesc& desc) -> HRESULT {
        positions.push_back(desc.streamData->entries[0].position);
        if (positions.size() > 1) return S_OK;
        // Another worker's request, while this one is at work.
        EXPECT_EQ(Run(Spec({Entry({2}, 6)}, "yz", 2)), S_FALSE);
        EXPECT_EQ(media.Count("WriteFrame"), 1u);
        EXPECT_EQ(http.SentCount(), 2u) << "the join and the first write";
        // Its client leaves before its turn comes: the record is kept for it.
        EXPECT_EQ(Post(Command(7, 16)), S_OK);
        return S_OK;
    };
    EXPECT_EQ(Write({Entry({1}, 5)}, "x"), S_FALSE);
    EXPECT_EQ(positions, (std::vector<DWORD>{5, 6}));
    EXPECT_EQ(Written(), "yz");
    EXPECT_EQ(http.SentCount(), 4u);
    ExpectImmediateReply();
    const std::vector<std::string> traces = Traces();
    EXPECT_EQ(
        std::count(traces.begin(), traces.end(), "client: handling CMD_WRITE_FRAME, transId 4711"),
        2);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    ExpectKept(0);
    media.onWriteFrame = nullptr;
}

TEST_F(WriteFrame, AWriteBehindAFullLineIsDropped) {
    const CZemClientRef client = server.LookupClient(TEXT("client"), false);
    std::vector<std::unique_ptr<CHttpXaction>> line;
    for (int i = 0; i <= ZemClient::kMaxInLine; ++i) {
        line.push_back(std::make_unique<CHttpXaction>());
        EXPECT_EQ(client.Record()->TakeTurn(*line.back()),
                  i == 0 ? ZemClient::ETurn::Mine : ZemClient::ETurn::InLine);
    }
    EXPECT_EQ(Write({Entry({1})}, "x"), S_OK);
    ExpectImmediateReply();
    const LogRecord error = log.Error(
        TEXT("client: Dropping WriteFrame, request pos 5; too many writes wait for their turn, "
             "transId 4711"));
    EXPECT_EQ(error.hr, kNoResources);
    EXPECT_EQ(error.line, 2695);
    EXPECT_EQ(Counters().droppedWriteFrames, 1u);
    for (int i = 1; i <= ZemClient::kMaxInLine; ++i) {
        CHttpXaction* const next = client.Record()->PassTurn();
        ASSERT_EQ(next, line[static_cast<size_t>(i)].get()) << "first in, first out";
        EXPECT_EQ(next->InLine(), client.Record());
        next->InLine()->Release();
    }
    EXPECT_EQ(client.Record()->PassTurn(), nullptr);
    EXPECT_EQ(Write({Entry({1})}, "x"), S_FALSE) << "and it is anybody's turn again";
    ExpectKept(0);
}

// Two bytes may be unwritten; each client's write of three closes the gate.
class WriteGate : public WriteFrame {
protected:
    WriteGate() {
        for (const char* clientId : {"a", "b", "c"})
            Join(clientId);
        access.WriteGate().SetLimits(2, 1000);
        media.pendWrites = true;
    }
    ~WriteGate() override { media.CompletePending(); }
    HRESULT WriteAs(const std::string& clientId, size_t payload_bytes = 3) {
        RequestSpec given = Spec({Entry({3})}, "xyz", payload_bytes);
        given.clientId = clientId;
        return Run(given);
    }
    size_t Written() const { return media.Count("WriteFrame"); }
    void Written(ULONGLONG size_bytes) {
        access.WriteGate().Written(size_bytes);
        server.LeaveWriteGate();
    }
    // The media library was given a frame of each of these, in this order, and no other.
    void ExpectWritten(std::initializer_list<const WCHAR*> clientIds) {
        std::vector<const void*> channels, expected;
        for (const MediaCall& call : media.Calls("WriteFrame"))
            channels.push_back(call.self);
        for (const WCHAR* clientId : clientIds) {
            const CZemIo* channel = server.LookupClient(clientId, false).Channel();
            expected.push_back(channel);
        }
        EXPECT_EQ(channels, expected);
    }
};

TEST_F(WriteGate, AWriteStandsThereWhileMuchIsUnwritten) {
    SetTracing(true);
    EXPECT_EQ(WriteAs("client"), S_FALSE);
    const size_t answered = http.SentCount();
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(http.SentCount(), answered) << "not answered yet";
    EXPECT_EQ(media.Count("GetWriteFrameBuffers"), 1u) << "nor begun";
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(http.SentCount(), answered + 1);
    EXPECT_EQ(Written(), 2u);
    const std::vector<std::string> traces = Traces();
    EXPECT_EQ(std::count(traces.begin(), traces.end(), "a: handling CMD_WRITE_FRAME, transId 4711"),
              1);
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_TRUE(access.WriteGate().IsOpen());
    EXPECT_EQ(access.WriteGate().InLine(), 0);
    ExpectAllHome();
}

TEST_F(WriteGate, ItsClientsNextWritesStandBehindIt) {
    EXPECT_EQ(WriteAs("client"), S_FALSE);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(access.WriteGate().InLine(), 1);
    EXPECT_EQ(access.WritesInLine(), 1);
    for (size_t written = 1; written <= 3; ++written) {
        EXPECT_EQ(Written(), written) << "the second one finds the gate closed by the first";
        EXPECT_EQ(media.CompletePending(), 1u);
    }
    EXPECT_EQ(access.WriteGate().InLine(), 0);
    EXPECT_EQ(access.WritesInLine(), 0);
    ExpectAllHome();
}

// Its client may be slow: then no other end would let anybody in.
TEST_F(WriteGate, WhoGoesOnLetsTheNextInWhileThereIsRoom) {
    EXPECT_EQ(WriteAs("client"), S_FALSE);
    for (const char* clientId : {"a", "b", "c"})
        EXPECT_EQ(WriteAs(clientId), S_FALSE);
    EXPECT_EQ(access.WriteGate().InLine(), 3);
    access.WriteGate().SetLimits(100, 1000);
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(Written(), 4u);
    EXPECT_EQ(media.CompletePending(), 3u);
    ExpectAllHome();
}

// Each keeps a transaction block.
TEST_F(WriteGate, ManySmallWritesCloseItToo) {
    access.WriteGate().SetLimits(1000, 1);
    EXPECT_EQ(WriteAs("client"), S_FALSE);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(Written(), 2u) << "not before more than one is unwritten";
    EXPECT_EQ(WriteAs("b"), S_FALSE);
    EXPECT_EQ(Written(), 2u);
    EXPECT_EQ(media.CompletePending(), 2u);
    EXPECT_EQ(Written(), 3u);
    EXPECT_EQ(media.CompletePending(), 1u);
    ExpectAllHome();
}

TEST_F(WriteGate, WhoComesToItClosedAgainIsTheFirstInLine) {
    access.RealTimeClient().Set(TEXT("b"));
    access.WriteGate().SetLimits(4, 1000);
    access.WriteGate().HandedOver(8);
    for (const char* clientId : {"a", "c", "b"})
        EXPECT_EQ(WriteAs(clientId), S_FALSE);
    Written(4);
    EXPECT_EQ(Written(), 1u) << "beside the real-time client's the next one, which finds it closed";
    EXPECT_EQ(access.WriteGate().InLine(), 2);
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(Written(), 2u);
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(Written(), 3u);
    Written(4);
    EXPECT_EQ(media.CompletePending(), 1u);
    ExpectWritten({TEXT("b"), TEXT("a"), TEXT("c")});
    ExpectAllHome();
}

TEST_F(WriteGate, WhoComesToItClosedAgainStandsBehindTheRealTimeClient) {
    access.RealTimeClient().Set(TEXT("b"));
    CWriteGate& gate = access.WriteGate();
    gate.SetLimits(4, 1000);
    gate.HandedOver(8);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(WriteAs("c"), S_FALSE);
    gate.Written(4);
    CHttpXaction* const letIn = gate.Ended();
    ASSERT_NE(letIn, nullptr);
    gate.HandedOver(4);
    EXPECT_EQ(WriteAs("b"), S_FALSE) << "before the one that was let in is looked at";
    server.FinishRequest(*letIn);
    EXPECT_EQ(gate.InLine(), 3);
    EXPECT_EQ(Written(), 0u);
    Written(4);
    Written(4);
    while (media.CompletePending() != 0) {
    }
    ExpectWritten({TEXT("b"), TEXT("a"), TEXT("c")});
    ExpectAllHome();
}

// A media library may write only what it is asked to flush: a flush passes the gate, whoever stands
// there, and what it has written lets them in.
TEST_F(WriteGate, AFlushPassesItAndOpensIt) {
    media.onCall = [&](const MediaCall& call) {
        if (call.op == "FlushBuffers") media.CompletePending();
    };
    EXPECT_EQ(WriteAs("client"), S_FALSE);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(Written(), 1u);
    for (const char* clientId : {"client", "a", "a"})
        EXPECT_EQ(Post(Command(8, 10, Bytes(ULONGLONG{0x0000000101000042})), clientId), S_OK);
    EXPECT_EQ(Written(), 3u);
    EXPECT_EQ(access.WriteGate().InLine(), 0);
    ExpectAllHome();
}

TEST_F(WriteGate, StaysClosedWhileTooMuchIsUnwritten) {
    access.WriteGate().SetLimits(5, 1000);
    EXPECT_EQ(WriteAs("client"), S_FALSE);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(WriteAs("b"), S_FALSE);
    EXPECT_EQ(Written(), 2u);
    access.WriteGate().SetLimits(2, 1000);  // so that three bytes that are left are too many
    access.WriteGate().HandedOver(3);
    EXPECT_EQ(media.CompletePending(), 2u);
    EXPECT_EQ(Written(), 2u);
    Written(3);
    EXPECT_EQ(Written(), 3u);
    EXPECT_EQ(media.CompletePending(), 1u);
    ExpectAllHome();
}

TEST_F(WriteGate, AWriteThatFailsLetsTheNextIn) {
    EXPECT_EQ(WriteAs("client"), S_FALSE);
    EXPECT_EQ(WriteAs("a", 4), S_FALSE)
        << "its lengths do not agree, which is seen when it is begun";
    EXPECT_EQ(WriteAs("b", 4), S_FALSE);
    EXPECT_EQ(WriteAs("c"), S_FALSE);
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(Written(), 2u);
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(access.WriteGate().InLine(), 0);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    ExpectKept(2);
}

TEST_F(WriteGate, AClientThatLeavesIsKeptForItsWrite) {
    EXPECT_EQ(WriteAs("client"), S_FALSE);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(Post(Command(7, 16), "a"), S_OK);
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(Written(), 2u);
    media.CompletePending();
    ExpectAllHome();
}

TEST_F(WriteGate, TheRealTimeClientGoesBeforeOthers) {
    access.RealTimeClient().Set(TEXT("b"));
    access.WriteGate().SetLimits(4, 1000);
    access.WriteGate().HandedOver(4);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(Written(), 0u) << "three are as many as others may find";
    EXPECT_EQ(WriteAs("b"), S_FALSE);
    EXPECT_EQ(Written(), 1u);
    EXPECT_EQ(WriteAs("b"), S_FALSE);
    EXPECT_EQ(Written(), 1u) << "seven are too many for anybody";
    Written(4);
    EXPECT_EQ(Written(), 2u);
    const void* const channel =
        static_cast<const CZemIo*>(server.LookupClient(TEXT("b"), false).Channel());
    EXPECT_EQ(media.Calls("WriteFrame")[1].self, channel) << "it came later and stood before";
    EXPECT_EQ(media.CompletePending(), 2u);
    EXPECT_EQ(Written(), 3u);
    EXPECT_EQ(media.CompletePending(), 1u);
    ExpectAllHome();
}

// Else a real-time client that writes as fast as it can would keep others out for ever.
TEST_F(WriteGate, WhoStandsInLineGoesOnWhereWhoComesWouldNot) {
    access.WriteGate().SetLimits(4, 1000);
    access.WriteGate().HandedOver(8);
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(WriteAs("b"), S_FALSE);
    Written(4);
    EXPECT_EQ(Written(), 1u) << "one for one";
    EXPECT_EQ(WriteAs("c"), S_FALSE);
    EXPECT_EQ(Written(), 1u);
    Written(4);
    EXPECT_EQ(Written(), 2u) << "the second one of two finds it closed by the first";
    EXPECT_EQ(access.WriteGate().InLine(), 1);
    EXPECT_EQ(media.CompletePending(), 2u);
    EXPECT_EQ(Written(), 3u);
    EXPECT_EQ(media.CompletePending(), 1u);
    ExpectAllHome();
}

// The other blocks are for everybody.
TEST_F(WriteGate, BeyondItsPlacesAWriteIsDropped) {
    access.WriteGate().SetLimits(2, 1000);
    EXPECT_EQ(WriteAs("client"), S_FALSE);
    access.WritesInLine() = kBlocks * 3 / 4 - 1;  // in lines of others
    EXPECT_EQ(WriteAs("a"), S_FALSE);
    EXPECT_EQ(WriteAs("b"), S_OK);
    ExpectImmediateReply();
    EXPECT_EQ(log.Error(TEXT("b: Dropping WriteFrame, request pos 5; too many writes wait for "
                             "their turn, transId 4711"))
                  .hr,
              kNoResources);
    access.WritesInLine() = 0;
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(Written(), 2u);
    EXPECT_EQ(WriteAs("b"), S_FALSE) << "its turn is free again";
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(media.CompletePending(), 1u);
    EXPECT_EQ(Written(), 3u);
    ExpectKept(0);
}

TEST_F(WriteFrame, AnUnknownClientGetsTheOrdinaryReply) {
    SetTracing(true);
    RequestSpec given = Spec({Entry({1})}, "x", 1);
    given.clientId = "ghost";
    EXPECT_EQ(Run(given), S_OK);
    ExpectImmediateReply();
    EXPECT_EQ(http.SentCount(), 2u);
    EXPECT_EQ(log.Error(TEXT("ghost: Unknown client; transId 4711!")).hr, E_INVALIDARG);
    EXPECT_EQ(Traces(), (std::vector<std::string>{"ghost: handling CMD_WRITE_FRAME, transId 4711",
                                                  "ghost: error CMD_WRITE_FRAME, transId 4711"}));
    ExpectKept(0);
}

TEST_F(WriteFrame, DropsShareTheFlagOfReads) {
    TakeAllBlocks();
    EXPECT_EQ(Run(3, FrameBody({Entry({}, 30)})), S_OK);  // a dropped read sets it
    EXPECT_TRUE(access.Dropping());
    EXPECT_EQ(Write({Entry({1}, 31)}, "x"), S_OK);
    ExpectImmediateReply();
    const WString dropping = TEXT(
        "client: Dropping WriteFrame, request pos 31; All frame IO transaction blocks in use, "
        "transId 4711");
    EXPECT_EQ(log.Count(kErrorLogLevelError, dropping), 0u) << "the read told of it";
    GiveBlocksBack();
    EXPECT_EQ(Write({Entry({1}, 32)}, "x"), S_FALSE);
    EXPECT_TRUE(log.Has(kErrorLogLevelMessage,
                        TEXT("client: WriteFrame enabled, request pos 32; Frame IO transaction "
                             "blocks now available, transId 4711")));
    EXPECT_FALSE(access.Dropping());
}

TEST_F(WriteFrame, TheFirstDropIsReportedAndEachIsCounted) {
    SetTracing(true);
    TakeAllBlocks();
    Write({Entry({1}, 31)}, "x");
    ExpectImmediateReply();
    EXPECT_EQ(log.Error(TEXT("client: Dropping WriteFrame, request pos 31; All frame IO "
                             "transaction blocks in use, transId 4711"))
                  .hr,
              kNoResources);
    EXPECT_EQ(Traces().back(), "client: error CMD_WRITE_FRAME, transId 4711");
    EXPECT_EQ(Counters().droppedWriteFrames, 2u) << "by the drop and by the failed command";
    const size_t records = log.Records(LogRecord::CreateChain).size();
    Write({Entry({1}, 31)}, "x");
    ExpectImmediateReply();
    EXPECT_EQ(log.Records(LogRecord::CreateChain).size(), records) << "no second report";
    EXPECT_EQ(Counters().droppedWriteFrames, 4u);
    EXPECT_EQ(media.Count("GetWriteFrameBuffers"), 0u);
}

TEST_F(WriteFrame, AMismatchOfLengthsAndPayloadFailsBeforeABufferIsAskedFor) {
    EXPECT_EQ(Run(Spec({Entry({4, 4})}, "abcd", 7)), S_OK);
    ExpectImmediateReply();
    EXPECT_EQ(log.Error(TEXT("client: WriteFrame data size in header (8 bytes) and payload (7 "
                             "bytes) mismatch, pos 5, transId 4711"))
                  .hr,
              E_UNEXPECTED);
    EXPECT_EQ(media.Count("GetWriteFrameBuffers"), 0u);
    EXPECT_EQ(media.Count("ReleaseWriteFrameBuffers"), 0u);
    EXPECT_EQ(Counters().droppedWriteFrames, 1u);
    ExpectKept(1);
}

TEST_F(WriteFrame, LengthsAreSummedIn64Bits) {
    // 0x80000000 twice is 0 in 32 bits.
    EXPECT_EQ(Run(Spec({Entry({0x80000000, 0x80000000})}, "", 0)), S_OK);
    ExpectImmediateReply();
    EXPECT_EQ(media.Count("GetWriteFrameBuffers"), 0u);
    ExpectKept(1);
}

TEST_F(WriteFrame, AMissingContentLengthIsAMismatch) {
    RequestSpec given = Spec({Entry({1})}, "x", 1);
    given.contentLength.reset();
    EXPECT_EQ(Run(given), S_OK);
    ExpectImmediateReply();
    ExpectKept(1);
}

TEST_F(WriteFrame, ALibraryWithoutBuffersFailsTheRequest) {
    media.results["GetWriteFrameBuffers"] = kNoResources;
    EXPECT_EQ(Write({Entry({4})}, "abcd"), S_OK);
    ExpectImmediateReply();
    EXPECT_EQ(media.Count("ReleaseWriteFrameBuffers"), 0u);
    EXPECT_EQ(media.Count("WriteFrame"), 0u);
    EXPECT_EQ(Counters().droppedWriteFrames, 1u);
    ExpectKept(1);
}

TEST_F(WriteFrame, ALibraryThatThrowsWhenAskedForBuffersFailsTheRequest) {
    media.onGetWriteFrameBuffers = [](CZemChannelIo&, ZemIoDesc&) -> HRESULT {
        throw std::runtime_error("a host's module");
    };
    EXPECT_EQ(Write({Entry({4})}, "abcd"), S_OK);
    ExpectImmediateReply();
    EXPECT_EQ(log.Error(TEXT("Unknown error")).hr, E_FAIL);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::GetWriteFrameBuffer")), 1u);
    EXPECT_EQ(media.Count("WriteFrame"), 0u);
    ExpectKept(1);
}

TEST_F(WriteFrame, FewerBufferBytesThanAskedForFailTheRequest) {
    media.onGetWriteFrameBuffers = [&](CZemChannelIo&, ZemIoDesc& desc) {
        media.writeBuffer.assign(4, 0);
        desc.streamData->entries[0].buffers[0] = {media.writeBuffer.data(), 3};
        return S_OK;
    };
    EXPECT_EQ(Write({Entry({4})}, "abcd"), S_OK);
    ExpectImmediateReply();
    EXPECT_EQ(log.Error(TEXT("client: Unable to allocate expected WriteFrame data size 4 bytes, "
                             "allocated 3 bytes, pos 5, transId 4711"))
                  .hr,
              E_UNEXPECTED);
    EXPECT_EQ(media.Count("ReleaseWriteFrameBuffers"), 1u);
    ExpectKept(1);
}

TEST_F(WriteFrame, AnEntryThatTheLibraryFailedCountsNoBytes) {
    media.onGetWriteFrameBuffers = [&](CZemChannelIo&, ZemIoDesc& desc) {
        desc.streamData->entries[0].status = E_FAIL;
        return S_OK;
    };
    EXPECT_EQ(Write({Entry({4})}, "abcd"), S_OK);
    EXPECT_EQ(log.Error(TEXT("client: Unable to allocate expected WriteFrame data size 4 bytes, "
                             "allocated 0 bytes, pos 5, transId 4711"))
                  .hr,
              E_UNEXPECTED);
    ExpectKept(1);
}

TEST_F(WriteFrame, ALibraryThatGivesNoAddressIsNotWrittenTo) {
    media.onGetWriteFrameBuffers = [](CZemChannelIo&, ZemIoDesc&) { return S_OK; };
    EXPECT_EQ(Write({Entry({4})}, "abcd"), S_OK);
    ExpectImmediateReply();
    ExpectKept(1);
}

TEST_F(WriteFrame, MoreDataThanThePayloadFails) {
    // Only ReadFrameDataIntoBuffer itself can see it: lengths and payload agree.
    EXPECT_EQ(Run(Spec({Entry({2})}, "abcd", 2)), S_OK);
    EXPECT_EQ(
        log.Error(TEXT("client: Partial frame data write size 4 > true frame data size 2")).hr,
        E_UNEXPECTED);
    EXPECT_EQ(media.Count("ReleaseWriteFrameBuffers"), 1u);
    ExpectImmediateReply();
    ExpectKept(1);
}

TEST_F(WriteFrame, AClientThatDisconnectsInMidBodyFailsTheRequest) {
    http.FeedBody("c");
    http.FeedBodyError(ERROR_NETNAME_DELETED);
    EXPECT_EQ(Run(Spec({Entry({10})}, "ab", 10)), S_OK);
    EXPECT_EQ(log.Error(TEXT("client: Error receving remaining framewrite data. Total framedata sz "
                             "10 bytes, received 3 bytes"))
                  .hr,
              HRESULT_FROM_WIN32(ERROR_NETNAME_DELETED));
    EXPECT_EQ(media.Count("ReleaseWriteFrameBuffers"), 1u);
    EXPECT_EQ(media.Count("WriteFrame"), 0u);
    EXPECT_EQ(Counters().droppedWriteFrames, 1u);
    ExpectKept(1);
}

TEST_F(WriteFrame, AReadThatBringsNothingDoesNotRepeatForEver) {
    http.FeedBodyError(NO_ERROR);
    EXPECT_EQ(Run(Spec({Entry({10})}, "ab", 10)), S_OK);
    EXPECT_EQ(log.Error(TEXT("client: Error receving remaining framewrite data. Total framedata sz "
                             "10 bytes, received 2 bytes"))
                  .hr,
              HRESULT_FROM_WIN32(ERROR_HANDLE_EOF));
    ExpectKept(1);
}

TEST_F(WriteFrame, ASlowReceiveIsReportedFrom251Milliseconds) {
    clock.SetTick(10000);
    const auto slowBy = [&](DWORD elapsed_ms) {
        media.onCall = [&, elapsed_ms](const MediaCall& call) {
            if (call.op == "GetWriteFrameBuffers") clock.AdvanceTick(elapsed_ms);
        };
        http.FeedBody("b");
        Run(Spec({Entry({2})}, "a", 2));
    };
    slowBy(250);
    EXPECT_TRUE(log.Texts(kErrorLogLevelSlowOperation).empty());
    slowBy(251);
    EXPECT_TRUE(log.Has(kErrorLogLevelSlowOperation,
                        TEXT("client: Slow ZEM HTTP server WriteFrame data (2 bytes) network reads "
                             "(1), transId 4711")));
}

TEST_F(WriteFrame, CountsOutOfRangeAreRefusedBeforeABlockIsTaken) {
    TakeAllBlocks();
    const std::string payload = "x";
    for (const DWORD count : {0u, 23u, 0xFFFFFFFFu}) {
        RequestSpec given = Spec({Entry({1})}, payload, 1);
        std::memcpy(given.entity.data() + 16, &count, 4);
        EXPECT_EQ(Run(given), S_OK) << count;
        ExpectImmediateReply();
    }
    for (const LONG buffers : {-1, 7, 0x7FFFFFFF}) {
        RequestSpec given = Spec({Entry({1})}, payload, 1);
        std::memcpy(given.entity.data() + 12 + 16 + 24, &buffers, 4);
        EXPECT_EQ(Run(given), S_OK) << buffers;
        ExpectImmediateReply();
    }
    EXPECT_FALSE(access.Dropping()) << "no block was asked for";
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::GetZemWriteFrameRequestFromHttp")), 6u);
    for (const LogRecord& record : log.Records(LogRecord::EntryPoint))
        EXPECT_EQ(static_cast<HRESULT>(record.chainId), E_INVALIDARG);
    EXPECT_EQ(Counters().droppedWriteFrames, 6u);
    GiveBlocksBack();
    ExpectKept(0);
}

TEST_F(WriteFrame, SixBuffersAreAllowedAndASpecialEntryMayHoldAnything) {
    FrameEntrySpec special;
    special.token = 0x0000000107000001ull;
    special.special = std::string(24, '\xFF');
    EXPECT_EQ(Write({Entry({1, 1, 1, 1, 1, 1}), special}, "123456"), S_FALSE);
    EXPECT_EQ(Written(), "123456");
}

TEST_F(WriteFrame, AFailureThatComesAtOnceIsCounted) {
    media.results["WriteFrame"] = E_HANDLE;
    EXPECT_EQ(Write({Entry({1})}, "x"), S_FALSE);
    ExpectImmediateReply();
    EXPECT_EQ(Counters().failedRealTimeIoMsgs, 1u);
    EXPECT_EQ(Counters().droppedWriteFrames, 0u);
    ExpectKept(0);
}

TEST_F(WriteFrame, TheEndOfTheMediaIsNotCounted) {
    media.results["WriteFrame"] = kEndOfMedia;
    Write({Entry({1})}, "x");
    EXPECT_EQ(Counters().failedRealTimeIoMsgs, 0u);
}

TEST_F(WriteFrame, ALibraryWithoutResourcesCountsADroppedFrame) {
    media.pendWrites = true;
    Write({Entry({1})}, "x");
    media.CompletePending(kNoResources);
    EXPECT_EQ(Counters().droppedWriteFrames, 1u);
    EXPECT_EQ(Counters().failedRealTimeIoMsgs, 0u);
}

TEST_F(WriteFrame, AReplyThatCannotBeBuiltGivesBuffersAndBlockBack) {
    media.onCall = [&](const MediaCall& call) {
        if (call.op == "GetWriteFrameBuffers") last->Request()->EntityChunkCount = 0;
    };
    EXPECT_LT(Write({Entry({4})}, "abcd"), 0);
    EXPECT_EQ(media.Count("WriteFrame"), 0u);
    EXPECT_EQ(media.Count("ReleaseWriteFrameBuffers"), 1u);
    EXPECT_EQ(http.Last().status, 500) << "answered once all the same";
    EXPECT_EQ(http.SentCount(), 2u);
    ExpectKept(0);
}

TEST_F(WriteFrame, FieldsBeyondThePostedBufferAreAGenericFailure) {
    RequestSpec given;
    given.entity = Command(kTransId, 4, FrameBody({}, 1, 3) + std::string(96, '\0'));
    given.entityOffset = CHttpXaction::RequestBufferSize() - given.entity.size();
    given.contentLength = std::to_string(given.entity.size());
    EXPECT_EQ(Run(given), E_INVALIDARG);
    ExpectGenericFailure(4, E_INVALIDARG);
    EXPECT_EQ(media.Count("GetWriteFrameBuffers"), 0u);
}

TEST_F(WriteFrame, TheCompletionRoutineIgnoresNull) {
    CHttpCommandHandler::WriteFrameDoneApc(nullptr);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::WriteFrameDoneApc")), 1u);
}

TEST_F(WriteFrame, ALeaveDuringTheLibraryCallKeepsChannelAndLock) {
    media.onWriteFrame = [&](CZemChannelIo&, ZemIoDesc& desc) {
        media.onWriteFrame = nullptr;
        std::thread leaver([&] { Post(Command(1, 16)); });
        leaver.join();
        EXPECT_EQ(media.Count("~CZemChannelIo"), 0u);
        return desc.status = S_OK;
    };
    EXPECT_EQ(Write({Entry({1})}, "x"), S_FALSE);
    EXPECT_EQ(media.Count("~CZemChannelIo"), 1u);
    Join();
}

TEST_F(WriteFrame, TheRegistryGetsTheBlocksOfFailedRequestsBack) {
    const CRegistryValue reclaim(kTestZemKey, TEXT("ReclaimFrameBlocks"), DWORD{1});
    access.FramePool() = std::make_unique<CFrameIoXactionPool>();
    FramePool().Initialize(&server);
    EXPECT_EQ(Run(Spec({Entry({4, 4})}, "abcd", 7)), S_OK);
    ExpectImmediateReply();
    ExpectKept(0);
}

TEST_F(WriteFrame, AReclaimedBlockIsAsUnused) {
    const CRegistryValue reclaim(kTestZemKey, TEXT("ReclaimFrameBlocks"), DWORD{1});
    access.FramePool() = std::make_unique<CFrameIoXactionPool>();
    FramePool().Initialize(&server);
    media.results["GetWriteFrameBuffers"] = E_FAIL;
    EXPECT_EQ(Write({Entry({4})}, "abcd"), S_OK);
    const auto* desc =
        static_cast<const ZemIoDesc*>(media.Calls("GetWriteFrameBuffers")[0].pointer);
    EXPECT_EQ(desc->inUse, 0);
    EXPECT_EQ(desc->streamData->entries[0].token, 0u);
    EXPECT_EQ(desc->streamData->entries[0].buffers[0].length_bytes, 0u);
    EXPECT_EQ(FramePool().FindBlock(last->RequestId()), nullptr);
    ExpectKept(0);
}

TEST_F(WriteFrame, TheLastEntryNeedsOnlyTheFieldsThatAreRead) {
    FrameEntrySpec tail = Entry({});
    tail.userData32 = 0x31323334;
    DWORD seen = 0;
    media.onWriteFrame = [&](CZemChannelIo&, ZemIoDesc& desc) {
        seen = desc.streamData->entries[desc.streamData->entryCount - 1].userData32;
        return desc.status = S_OK;
    };
    for (const auto& entries : {std::vector{tail}, std::vector{Entry({}), tail}}) {
        EXPECT_EQ(Run(CutAtBufferEnd(4, entries, 92)), S_FALSE);
        EXPECT_EQ(seen, tail.userData32);
        seen = 0;
        EXPECT_EQ(Run(CutAtBufferEnd(4, entries, 91)), E_INVALIDARG);
        ExpectGenericFailure(4, E_INVALIDARG);
    }
    EXPECT_EQ(media.Count("WriteFrame"), 2u);
}

TEST_F(WriteFrame, ALibraryThatThrowsFailsTheFrameOnce) {
    media.onWriteFrame = [](CZemChannelIo&, ZemIoDesc&) -> HRESULT {
        throw std::runtime_error("a host's module");
    };
    EXPECT_EQ(Write({Entry({4})}, "abcd"), S_FALSE);
    EXPECT_EQ(http.SentCount(), 2u);
    ExpectImmediateReply();
    EXPECT_EQ(log.Error(TEXT("Unknown error")).hr, E_FAIL);
    EXPECT_EQ(Counters().failedRealTimeIoMsgs, 1u);
    FramePool().WaitUntilIdle();
    ExpectAllHome();
    server.Shutdown();
}

TEST_F(WriteFrame, ALibraryThatThrowsWhenBuffersGoBackKeepsNoActiveFrame) {
    media.onCall = [](const MediaCall& call) {
        if (call.op == "ReleaseWriteFrameBuffers") throw std::runtime_error("a host's module");
    };
    http.FeedBodyError(ERROR_NETNAME_DELETED);
    EXPECT_EQ(Run(Spec({Entry({4})}, "ab", 4)), S_OK);
    ExpectImmediateReply();
    ExpectKept(1);
    // The same while the stack unwinds.
    http.onSend = [](const SentResponse&) { FailNextAllocation(300); };
    EXPECT_EQ(Write({Entry({4})}, "abcd"), S_OK);
    http.onSend = nullptr;
    EXPECT_TRUE(AllocationFailed());
    ExpectKept(1);
}

TEST_F(WriteFrame, AnErrorLogsOwnNumbersDecideNothing) {
    for (const DWORD chainId : {7u, 1u, 0u}) {
        log.chainId = [chainId](HRESULT) { return chainId; };
        size_t sent = http.SentCount();
        const int kept = FramePool().KeptCount();
        const size_t released = media.Count("ReleaseWriteFrameBuffers");
        const ULONGLONG dropped = Counters().droppedWriteFrames;
        RequestSpec given = Spec({Entry({1})}, "x", 1);
        given.clientId = "ghost";
        EXPECT_EQ(Run(given), S_OK);
        EXPECT_EQ(http.SentCount(), ++sent);
        ExpectImmediateReply();

        EXPECT_EQ(Run(Spec({Entry({4, 4})}, "abcd", 7)), S_OK) << "lengths and payload differ";
        EXPECT_EQ(http.SentCount(), ++sent);
        ExpectKept(kept + 1);

        http.FeedBodyError(ERROR_NETNAME_DELETED);
        EXPECT_EQ(Run(Spec({Entry({10})}, "ab", 10)), S_OK) << "the client went away";
        EXPECT_EQ(http.SentCount(), ++sent);
        EXPECT_EQ(media.Count("ReleaseWriteFrameBuffers"), released + 1);
        EXPECT_EQ(Counters().droppedWriteFrames, dropped + 2);
        ExpectKept(kept + 2);
        ReleaseTaken();
    }
    EXPECT_EQ(media.Count("WriteFrame"), 0u);
}

TEST_F(WriteFrame, ABlockThatCannotBeRegisteredGoesBack) {
    http.onSend = [](const SentResponse&) { FailNextAllocation(300); };  // ten nodes of the map
    EXPECT_EQ(Write({Entry({4})}, "abcd"), S_OK);
    http.onSend = nullptr;
    EXPECT_TRUE(AllocationFailed());
    EXPECT_EQ(media.Count("WriteFrame"), 0u);
    EXPECT_EQ(media.Count("ReleaseWriteFrameBuffers"), 1u);
    EXPECT_EQ(http.SentCount(), 2u) << "answered once";
    ExpectImmediateReply();
    EXPECT_EQ(Counters().droppedWriteFrames, 1u);
    ExpectKept(0);
}

}  // namespace
