// CMD_READ_FRAME: what reaches the library, every byte of the reply, drops, failures, and who owns
// the blocks when.
#include <stdexcept>
#include <thread>

#include "tests/fakes/allocfault.h"
#include "tests/frameio/frametest.h"

namespace {

constexpr HRESULT kNoResources = static_cast<HRESULT>(0x800705AA);
constexpr HRESULT kEndOfMedia = static_cast<HRESULT>(0x8007044C);
constexpr HRESULT kCrc = static_cast<HRESULT>(0x80070017);
constexpr ULONGLONG kVideo = 0x0000000101000042ull;
constexpr ULONGLONG kTimecode = 0x0000000107000042ull;

class ReadFrame : public CFrameTest {
protected:
    HRESULT Read(const std::vector<FrameEntrySpec>& entries,
                 const std::string& clientId = "client") {
        return Run(3, FrameBody(entries), clientId);
    }
    FrameEntrySpec Entry(ULONGLONG token = kVideo, DWORD position = 5, DWORD flags = 0) {
        FrameEntrySpec entry;
        entry.token = token;
        entry.position = position;
        entry.streamFlags = flags;
        return entry;
    }
    // The reply of a read that failed before it was issued.
    void ExpectImmediateReply() {
        EXPECT_EQ(http.Last().status, 200);
        EXPECT_EQ(http.Last().Body(), Bytes(kTransId, DWORD{3}, DWORD{4}, LONG{0}));
        EXPECT_EQ(http.Last().Header(HttpHeaderContentLength), "16");
    }
    // What the library fills in, for every entry.
    void Answer(std::function<void(DWORD, ElemStrmEntry&)> fill, HRESULT status = S_OK) {
        media.onReadFrame = [fill, status](CZemChannelIo&, ZemIoDesc& desc) {
            for (DWORD i = 0; i < desc.streamData->entryCount; ++i)
                fill(i, desc.streamData->entries[i]);
            desc.status = status;
            return status;
        };
    }
    std::string Table() const { return http.Last().chunks.at(0).data; }
};

TEST_F(ReadFrame, HandsEveryFieldOfTheRequestToTheLibrary) {
    FrameEntrySpec first = Entry(kVideo, 7, 0x40000001);
    first.userData64 = 0x1112131415161718;
    FrameEntrySpec second = Entry(kTimecode, 9);
    bool seen = false;
    media.onReadFrame = [&](CZemChannelIo& channel, ZemIoDesc& desc) {
        seen = true;
        EXPECT_EQ(&channel, Channel());
        EXPECT_EQ(desc.requestWord, 0x77u);
        EXPECT_EQ(desc.inUse, 1);
        EXPECT_EQ(desc.completionRoutine, &CHttpCommandHandler::ReadFrameDoneApc);
        const auto* block = static_cast<CFrameIoXaction*>(desc.completionContext);
        EXPECT_EQ(&block->ioDesc, &desc);
        EXPECT_EQ(block->httpXaction, last);
        EXPECT_EQ(block->channel, &channel);
        EXPECT_EQ(FramePool().FindBlock(last->RequestId()), block);
        EXPECT_EQ(desc.streamData->entryCount, 2u);
        const ElemStrmEntry* entries = desc.streamData->entries;
        EXPECT_EQ(entries[0].token, kVideo);
        EXPECT_EQ(entries[0].position, 7u);
        EXPECT_EQ(entries[0].streamFlags, 0x40000001u);
        EXPECT_EQ(entries[0].userData64, 0x1112131415161718u);
        EXPECT_EQ(entries[1].token, kTimecode);
        EXPECT_EQ(entries[1].position, 9u);
        desc.status = S_OK;
        return S_OK;
    };
    EXPECT_EQ(Read({first, second}), S_FALSE);
    EXPECT_TRUE(seen);
    EXPECT_EQ(media.Count("ReadFrameComplete"), 1u);
}

TEST_F(ReadFrame, TheReplyOfOneStreamHasABodyOf104Bytes) {
    static const char data[] = "picture";
    FrameEntrySpec request = Entry(kVideo, 6, 0x2);
    request.userData64 = 0xA1A2A3A4A5A6A7A8;
    Answer([](DWORD, ElemStrmEntry& entry) {
        entry.bufferCount = 1;
        entry.buffers[0] = {const_cast<char*>(data), 7};
        entry.userData32 = 0xC1C2C3C4;
    });
    EXPECT_EQ(Read({request}), S_FALSE);
    const SentResponse sent = http.Last();
    EXPECT_EQ(sent.status, 200);
    const auto address = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(data));
    const std::string expected =
        Bytes(kTransId, DWORD{3}, DWORD{104}) +  // header
        Bytes(DWORD{0x77}, DWORD{1}) +           // one byte of the request body came along
        Bytes(LONG{0}, DWORD{0}, kVideo, DWORD{6}, DWORD{2}) + Bytes(DWORD{1}, address, DWORD{7}) +
        std::string(40, '\0') + std::string(4, '\0') +
        Bytes(ULONGLONG{0xA1A2A3A4A5A6A7A8}, DWORD{0xC1C2C3C4}, DWORD{0});
    EXPECT_EQ(Table(), expected);
    ASSERT_EQ(sent.chunks.size(), 2u);
    EXPECT_EQ(sent.chunks[1].address, data) << "straight from the library's buffer";
    EXPECT_EQ(sent.chunks[1].data, "picture");
    EXPECT_EQ(sent.Header(HttpHeaderContentLength), "123");
    EXPECT_EQ(sent.Header(HttpHeaderContentType), "application/octet-string");
    EXPECT_EQ(sent.unknown.at(0),
              std::make_pair(std::string("zem-resphdr-len"), std::string("116")));
}

TEST_F(ReadFrame, TheReplyOfTwoStreamsHasABodyOf248Bytes) {
    Read({Entry(), Entry(kVideo, 6)});
    EXPECT_EQ(Table().size(), 12u + 248u);
    EXPECT_EQ(Table().substr(8, 4), Bytes(DWORD{248}));
    EXPECT_EQ(Table().substr(16, 4), Bytes(DWORD{2}));
    // The entries are 96 bytes apart all the same; what is behind them is zero.
    EXPECT_EQ(Table().substr(12 + 8 + 96 + 16, 4), Bytes(DWORD{6}));
    EXPECT_EQ(Table().substr(12 + 8 + 192), std::string(48, '\0'));
}

TEST_F(ReadFrame, NothingBehindTheFirst13RequestBytesIsEchoed) {
    RequestSpec given;
    given.entity = Command(kTransId, 3, FrameBody({Entry()}, 0xAABBCCDD));
    Run(given);
    EXPECT_EQ(Table().substr(12, 4), std::string("\xDD\0\0\0", 4));
}

TEST_F(ReadFrame, SeveralBuffersOfAStreamAddUpInTheTable) {
    static char a[10], b[20], c[30];
    Answer([](DWORD, ElemStrmEntry& entry) {
        entry.bufferCount = 3;
        entry.buffers[0] = {a, 10};
        entry.buffers[1] = {b, 20};
        entry.buffers[2] = {c, 30};
    });
    Read({Entry()});
    const std::string area = Table().substr(12 + 8 + 24, 52);
    EXPECT_EQ(area.substr(0, 4), Bytes(DWORD{1}));
    EXPECT_EQ(area.substr(8, 4), Bytes(DWORD{60}));
    EXPECT_EQ(area.substr(12), std::string(40, '\0'));
    EXPECT_EQ(http.Last().chunks.size(), 4u);
    EXPECT_EQ(http.Last().Header(HttpHeaderContentLength), std::to_string(116 + 60));
}

TEST_F(ReadFrame, SixBuffersStayInTheDataArea) {
    static char data[6][8];
    Answer([](DWORD, ElemStrmEntry& entry) {
        entry.bufferCount = 6;
        for (int k = 0; k < 6; ++k)
            entry.buffers[k] = {data[k], 8};
    });
    FrameEntrySpec request = Entry();
    request.userData64 = 0x0101010101010101;
    Read({request});
    EXPECT_EQ(Table().substr(12 + 8 + 32, 4), Bytes(DWORD{48}));
    EXPECT_EQ(Table().substr(12 + 8 + 36, 44), std::string(44, '\0'));
    EXPECT_EQ(Table().substr(12 + 8 + 80, 8), std::string(8, '\1'));
}

TEST_F(ReadFrame, AStreamWithoutDataContributesNoChunks) {
    Answer([](DWORD, ElemStrmEntry& entry) {
        entry.bufferCount = 1;
        entry.buffers[0] = {reinterpret_cast<void*>(0x1234), 99};
    });
    Read({Entry(kVideo, 5, 0x80000000)});
    EXPECT_EQ(http.Last().chunks.size(), 1u);
    EXPECT_EQ(Table().substr(12 + 8 + 24, 16), std::string(16, '\0'));
    EXPECT_EQ(http.Last().Header(HttpHeaderContentLength), "116");
}

TEST_F(ReadFrame, SpecialStreamsCarryTheirDescriptionAndNoChunks) {
    for (const ULONGLONG kind : {7ull, 8ull, 24ull}) {
        Answer([](DWORD, ElemStrmEntry& entry) {
            for (int i = 0; i < 24; ++i)
                entry.special[i] = static_cast<uint8_t>(i + 1);
        });
        Read({Entry((kind << 24) | 0x500000000ull)});
        EXPECT_EQ(http.Last().chunks.size(), 1u) << kind;
        std::string description;
        for (int i = 0; i < 24; ++i)
            description.push_back(static_cast<char>(i + 1));
        EXPECT_EQ(Table().substr(12 + 8 + 24, 52), description + std::string(28, '\0'));
    }
}

TEST_F(ReadFrame, AFailedStreamHasNoDataAndIsTraced) {
    SetTracing(true);
    Answer([](DWORD i, ElemStrmEntry& entry) {
        entry.bufferCount = 1;
        entry.buffers[0] = {&entry, 4};
        if (i == 1) {
            entry.status = kCrc;
            entry.bufferCount = 0;
            entry.buffers[0] = {};
        }
    });
    Read({Entry(kVideo, 5), Entry(kVideo, 6)});
    EXPECT_EQ(http.Last().chunks.size(), 2u);
    EXPECT_EQ(Table().substr(12 + 8 + 96, 4), Bytes(kCrc));
    EXPECT_EQ(Traces(),
              (std::vector<std::string>{
                  "client: handling CMD_READ_FRAME, token 0x101000042 pos 5, transId 4711",
                  "client: handling read-frame complete, transId 4711",
                  "client: Failed read status 0x80070017 on token 0x101000042 idx 1/2 pos 6, "
                  "transId 4711",
                  "client: CMD_READ_FRAME request issued OK, token 0x101000042 pos 5, transId "
                  "4711"}));
}

TEST_F(ReadFrame, TheEndOfTheMediaIsNeitherTracedNorCounted) {
    SetTracing(true);
    Answer([](DWORD, ElemStrmEntry& entry) { entry.status = kEndOfMedia; }, kEndOfMedia);
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    for (const std::string& trace : Traces())
        EXPECT_EQ(trace.find("Failed"), std::string::npos);
    EXPECT_EQ(http.Last().status, 500);
    EXPECT_EQ(http.Last().reason, "Failed 0x8007044c");
    EXPECT_EQ(Counters().failedRealTimeIoMsgs, 0u);
    EXPECT_EQ(Counters().droppedReadFrames, 0u);
    EXPECT_TRUE(log.Records(LogRecord::EntryPoint).empty());
}

TEST_F(ReadFrame, AFailureThatComesAtOnceIsAnsweredAndCounted) {
    Answer([](DWORD, ElemStrmEntry& entry) { entry.status = kCrc; }, kCrc);
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    EXPECT_EQ(http.Last().status, 500);
    EXPECT_EQ(http.Last().reason, "Failed 0x80070017");
    EXPECT_EQ(Table().substr(20, 4), Bytes(kCrc));
    EXPECT_EQ(Counters().failedRealTimeIoMsgs, 1u);
}

TEST_F(ReadFrame, ALibraryWithoutResourcesCountsADroppedFrame) {
    Answer([](DWORD, ElemStrmEntry& entry) { entry.status = kNoResources; }, kNoResources);
    Read({Entry()});
    EXPECT_EQ(Counters().droppedReadFrames, 1u);
    EXPECT_EQ(Counters().failedRealTimeIoMsgs, 1u);
}

TEST_F(ReadFrame, AReadThatIsDoneAtOnceIsAnsweredBeforeTheHandlerReturns) {
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    EXPECT_EQ(http.SentCount(), 2u);
    EXPECT_EQ(Pool().FreeCount(), kBlocks) << "the completion gave the block back";
    EXPECT_EQ(FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
    EXPECT_EQ(Stages(), (std::vector<DWORD>{0, 1, 3, 4, 6, 8, 12, 13, 14}));
    EXPECT_EQ(TimerName(),
              "ZemHttpdXaction client: READ_FRAME token 0x101000042 pos 5, transId 4711");
}

TEST_F(ReadFrame, APendingReadIsAnsweredByItsCompletion) {
    media.pendReads = true;
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    EXPECT_EQ(http.SentCount(), 1u) << "the join's";
    EXPECT_EQ(Pool().FreeCount(), kBlocks - 1);
    EXPECT_EQ(FramePool().ActiveCount(), 1);
    CFrameIoXaction* block = FramePool().FindBlock(last->RequestId());
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->ioDesc.inUse, 1);
    std::thread library([&] { media.CompletePending(); });
    FramePool().WaitUntilIdle();
    library.join();
    EXPECT_EQ(http.SentCount(), 2u);
    EXPECT_EQ(http.Last().Body().size(), 116u + 5u);
    EXPECT_EQ(block->ioDesc.inUse, 0);
    EXPECT_EQ(FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    EXPECT_EQ(media.Count("ReadFrameComplete"), 1u);
}

TEST_F(ReadFrame, AClientThatLeavesGetsItsPendingReadCancelled) {
    media.pendReads = true;
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    EXPECT_EQ(Post(Command(1, 16)), S_OK);
    EXPECT_EQ(media.Count("~CZemChannelIo"), 1u);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    EXPECT_EQ(FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
    EXPECT_EQ(Channel(), nullptr);
    Join();
}

TEST_F(ReadFrame, AnUnknownClientGetsTheImmediateReply) {
    SetTracing(true);
    EXPECT_EQ(Read({Entry()}, "ghost"), S_OK);
    ExpectImmediateReply();
    const LogRecord error = log.Error(TEXT("ghost: Unknown client; transId 4711!"));
    EXPECT_EQ(error.hr, E_INVALIDARG);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::DoCmdReadFrame")), 1u);
    EXPECT_EQ(Traces().size(), 1u) << "neither issued nor an error: the reply succeeded";
    EXPECT_EQ(Pool().FreeCount(), kBlocks - 1);
}

TEST_F(ReadFrame, DropsAreReportedOnceUntilABlockIsThereAgain) {
    TakeAllBlocks();
    EXPECT_EQ(Read({Entry(kVideo, 31)}), S_OK);
    ExpectImmediateReply();
    const WString dropping = TEXT(
        "client: Dropping FrameRead, request pos 31; All frame IO transaction blocks in use, "
        "transId 4711");
    EXPECT_EQ(log.Error(dropping).hr, kNoResources);
    EXPECT_EQ(Counters().droppedReadFrames, 1u);

    EXPECT_EQ(Read({Entry(kVideo, 31)}), S_OK);
    ExpectImmediateReply();
    EXPECT_EQ(log.Count(kErrorLogLevelError, dropping), 1u);
    EXPECT_EQ(log.Error(TEXT("Unknown error")).hr, E_FAIL);
    EXPECT_EQ(Counters().droppedReadFrames, 2u);
    EXPECT_EQ(media.Count("ReadFrame"), 0u);

    GiveBlocksBack();
    EXPECT_EQ(Read({Entry(kVideo, 32)}), S_FALSE);
    const WString enabled = TEXT(
        "client: FrameRead enabled, request pos 32; Frame IO transaction blocks now "
        "available, transId 4711");
    EXPECT_TRUE(log.Has(kErrorLogLevelMessage, enabled));
    EXPECT_EQ(Read({Entry(kVideo, 32)}), S_FALSE);
    EXPECT_EQ(log.Count(kErrorLogLevelMessage, enabled), 1u);
}

TEST_F(ReadFrame, AnEntryCountOutside1To22IsRefusedBeforeABlockIsTaken) {
    TakeAllBlocks();
    for (const DWORD count : {0u, 23u, 0xFFFFFFFFu, 0x80000001u}) {
        EXPECT_EQ(Run(3, FrameBody({Entry()}, 1, count)), S_OK) << count;
        ExpectImmediateReply();
    }
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::DoCmdReadFrame")), 4u);
    for (const LogRecord& record : log.Records(LogRecord::EntryPoint))
        EXPECT_EQ(static_cast<HRESULT>(record.chainId), E_INVALIDARG);
    EXPECT_FALSE(access.Dropping()) << "no block was asked for";
    EXPECT_EQ(Counters().droppedReadFrames, 0u);
}

TEST_F(ReadFrame, TwentyTwoStreamsOf131BuffersFit) {
    static char data[8];
    Answer([](DWORD i, ElemStrmEntry& entry) {
        entry.bufferCount = i == 21 ? 5 : 6;
        for (int k = 0; k < entry.bufferCount; ++k)
            entry.buffers[k] = {data, 8};
    });
    EXPECT_EQ(Read(std::vector<FrameEntrySpec>(22, Entry())), S_FALSE);
    EXPECT_EQ(http.Last().status, 200);
    EXPECT_EQ(http.Last().chunks.size(), 132u);
    EXPECT_EQ(Table().size(), 12u + 21 * 144 + 104);
    EXPECT_EQ(http.Last().Body().size(), Table().size() + 131 * 8);
}

TEST_F(ReadFrame, The132ndBufferFailsTheReply) {
    static char data[8];
    Answer([](DWORD, ElemStrmEntry& entry) {
        entry.bufferCount = 6;
        for (int k = 0; k < 6; ++k)
            entry.buffers[k] = {data, 8};
    });
    EXPECT_EQ(Read(std::vector<FrameEntrySpec>(22, Entry())), S_FALSE);
    ExpectGenericFailure(3, E_OUTOFMEMORY);
    EXPECT_EQ(
        log.Error(TEXT("client: Too many read-frame scatter-gather entries (max entries 132); "
                       "transId 4711"))
            .hr,
        E_OUTOFMEMORY);
    EXPECT_EQ(media.Count("ReadFrameComplete"), 1u);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
}

TEST_F(ReadFrame, ARefusedReplyIsFollowedByTheGenericFailure) {
    ULONG error = ERROR_NOT_ENOUGH_MEMORY;  // of the first answer only
    http.onSend = [&](const SentResponse&) { http.sendError = std::exchange(error, NO_ERROR); };
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    http.onSend = nullptr;
    EXPECT_EQ(http.SentCount(), 3u);
    EXPECT_EQ(log.Error(TEXT("client: Error sending HTTP reply for cmd 3, transId 4711")).hr,
              HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY));
    ExpectGenericFailure(3, HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
}

TEST_F(ReadFrame, AClientThatIsGoneGetsNoSecondAnswer) {
    for (const ULONG error : {ERROR_CONNECTION_INVALID, ERROR_NETNAME_DELETED}) {
        http.sendError = error;
        const size_t before = http.SentCount();
        EXPECT_EQ(Read({Entry()}), S_FALSE);
        EXPECT_EQ(http.SentCount(), before + 1);
    }
    EXPECT_EQ(media.Count("ReadFrameComplete"), 2u);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    EXPECT_EQ(FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
}

TEST_F(ReadFrame, AReplyLaterThan500MillisecondsIsReported) {
    clock.SetTick(10000);
    media.pendReads = true;
    Read({Entry()});
    clock.AdvanceTick(501);
    media.CompletePending();
    const WString slow =
        TEXT("client: Slow ZEM HTTP server processing for ReadFrame, transId 4711");
    ASSERT_TRUE(log.Has(kErrorLogLevelSlowOperation, slow));
    for (const LogRecord& record : log.Messages())
        EXPECT_EQ(record.elapsed_ms, 501u);
    log.Reset();
    Read({Entry()});
    clock.AdvanceTick(500);
    media.CompletePending();
    EXPECT_TRUE(log.Empty()) << "exactly 500 ms are not slow";
}

TEST_F(ReadFrame, SlownessIsMeasuredFromTheIssue) {
    clock.SetTick(10000);
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(kTransId, 3, FrameBody({Entry()}));
    Lay(xaction, given);
    xaction.SetStartTick(1);  // taken up long ago
    EXPECT_EQ(server.ProcessRequest(xaction), S_FALSE);
    EXPECT_TRUE(log.Empty());
}

TEST_F(ReadFrame, FieldsBeyondThePostedBufferAreAGenericFailure) {
    RequestSpec given;
    given.entity = Command(kTransId, 3, FrameBody({}, 1, 3) + std::string(96, '\0'));
    given.entityOffset = CHttpXaction::RequestBufferSize() - given.entity.size();
    EXPECT_EQ(Run(given), E_INVALIDARG);
    ExpectGenericFailure(3, E_INVALIDARG);
    EXPECT_EQ(media.Count("ReadFrame"), 0u);
    EXPECT_EQ(Counters().droppedReadFrames, 1u) << "the failed command counts";
}

TEST_F(ReadFrame, AFirstEntryBeyondThePostedBufferIsAGenericFailure) {
    SetTracing(true);
    for (const size_t body_bytes : {15u, 31u, 35u}) {  // head, token, position of entry 0
        RequestSpec given;
        given.entity = Command(kTransId, 3, std::string(body_bytes, '\1'));
        given.entityOffset = CHttpXaction::RequestBufferSize() - given.entity.size();
        log.Reset();
        EXPECT_EQ(Run(given), E_INVALIDARG);
        ExpectGenericFailure(3, E_INVALIDARG);
        EXPECT_EQ(Traces().size(), 1u) << "the request is not traced";
        EXPECT_EQ(Traces().back().substr(0, 34), "client: error CMD_READ_FRAME, pos ");
    }
    EXPECT_EQ(media.Count("ReadFrame"), 0u);
}

TEST_F(ReadFrame, FieldsThatWereNotReceivedReadAsZero) {
    EXPECT_EQ(Run(3, Bytes(DWORD{1}, DWORD{1})), S_FALSE);
    EXPECT_EQ(Table().substr(12 + 8 + 8, 8), std::string(8, '\0'));
}

TEST_F(ReadFrame, ADeadCompletionRoutineIgnoresNull) {
    CHttpCommandHandler::ReadFrameDoneApc(nullptr);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::ReadFrameDoneApc")), 1u);
    EXPECT_EQ(http.SentCount(), 1u);
}

TEST_F(ReadFrame, OldStatusesOfARecycledBlockAreNotSent) {
    Answer([](DWORD, ElemStrmEntry& entry) { entry.status = kCrc; }, kCrc);
    Read({Entry()});
    media.onReadFrame = [](CZemChannelIo&, ZemIoDesc&) { return S_OK; };  // sets nothing
    for (int i = 0; i < CFrameIoXactionPool::kBlocks; ++i) {
        CFrameIoXaction* block = FramePool().AcquireBlock();
        FramePool().ReleaseBlock(block);
        FramePool().EndIo();
        if (i == CFrameIoXactionPool::kBlocks - 2) break;
    }
    Read({Entry()});
    EXPECT_EQ(http.Last().status, 200);
    EXPECT_EQ(Table().substr(20, 4), Bytes(LONG{0}));
}

TEST_F(ReadFrame, ALeaveDuringTheLibraryCallKeepsTheChannel) {
    media.onReadFrame = [&](CZemChannelIo&, ZemIoDesc& desc) {
        media.onReadFrame = nullptr;
        Post(Command(1, 16));
        EXPECT_EQ(media.Count("~CZemChannelIo"), 0u);
        desc.status = S_OK;
        return S_OK;
    };
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    EXPECT_EQ(media.Count("~CZemChannelIo"), 1u);
    Join();
}

TEST_F(ReadFrame, TheLastEntryNeedsOnlyTheFieldsThatAreRead) {
    FrameEntrySpec tail = Entry(kVideo, 9);
    tail.userData64 = 0x2122232425262728;
    ULONGLONG seen = 0;
    Answer([&](DWORD, ElemStrmEntry& entry) { seen = entry.userData64; });
    for (const auto& entries : {std::vector{tail}, std::vector{Entry(), tail}}) {
        EXPECT_EQ(Run(CutAtBufferEnd(3, entries, 88)), S_FALSE);
        EXPECT_EQ(seen, tail.userData64);
        EXPECT_EQ(http.Last().status, 200);
        seen = 0;
        EXPECT_EQ(Run(CutAtBufferEnd(3, entries, 87)), E_INVALIDARG);
        ExpectGenericFailure(3, E_INVALIDARG);
    }
    EXPECT_EQ(media.Count("ReadFrame"), 2u);
}

TEST_F(ReadFrame, ALibraryThatThrowsFailsTheFrameOnce) {
    media.onReadFrame = [](CZemChannelIo&, ZemIoDesc&) -> HRESULT {
        throw std::runtime_error("a host's module");
    };
    EXPECT_EQ(Read({Entry(), Entry()}), S_FALSE);
    EXPECT_EQ(http.SentCount(), 2u);
    EXPECT_EQ(http.Last().status, 500);
    EXPECT_EQ(http.Last().reason, "Failed 0x80004005");
    EXPECT_EQ(Table().substr(12 + 8, 4), Bytes(E_FAIL));
    EXPECT_EQ(Table().substr(12 + 8 + 96, 4), Bytes(E_FAIL));
    EXPECT_EQ(http.Last().chunks.size(), 1u) << "nothing of a half-done frame";
    EXPECT_EQ(log.Error(TEXT("Unknown error")).hr, E_FAIL);
    EXPECT_EQ(media.Count("ReadFrameComplete"), 1u);
    EXPECT_EQ(Counters().failedRealTimeIoMsgs, 1u);
    FramePool().WaitUntilIdle();
    ExpectAllHome();
}

TEST_F(ReadFrame, ACounterThatThrowsIsLoggedAndNothingElse) {
    media.results["ReadFrame"] = E_ACCESSDENIED;
    media.onCall = [](const MediaCall& call) {
        if (call.op == "BumpFailedRealTimeIoMsgs") throw std::runtime_error("a host's module");
    };
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    EXPECT_EQ(http.SentCount(), 2u);
    EXPECT_EQ(log.Error(TEXT("Unknown error")).hr, E_FAIL);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::DoCmdReadFrame")), 1u);
    ExpectAllHome();
}

TEST_F(ReadFrame, ACompletionThatThrowsGivesEverythingBackOnce) {
    media.onCall = [](const MediaCall& call) {
        if (call.op == "ReadFrameComplete") throw std::runtime_error("a host's module");
    };
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    ExpectAllHome();
    EXPECT_EQ(log.Error(TEXT("Unknown error")).hr, E_FAIL);
    media.pendReads = true;
    EXPECT_EQ(Read({Entry()}), S_FALSE);
    EXPECT_EQ(FramePool().ActiveCount(), 1);
    std::thread library([&] { media.CompletePending(); });
    FramePool().WaitUntilIdle();
    library.join();
    ExpectAllHome();
    EXPECT_EQ(http.SentCount(), 3u);
    server.Shutdown();
}

TEST_F(ReadFrame, AnErrorLogsOwnNumbersDecideNothing) {
    for (const DWORD chainId : {7u, 1u, 0u, 0x80070040u}) {
        log.chainId = [chainId](HRESULT) { return chainId; };
        size_t sent = http.SentCount();
        EXPECT_NE(Read({Entry()}, "ghost"), S_FALSE) << chainId;
        EXPECT_EQ(http.SentCount(), ++sent);
        ExpectImmediateReply();

        Answer([](DWORD, ElemStrmEntry& entry) { entry.bufferCount = 6; });
        EXPECT_EQ(Read(std::vector<FrameEntrySpec>(22, Entry())), S_FALSE);
        EXPECT_EQ(http.SentCount(), ++sent) << "too many buffers: the generic failure";
        EXPECT_EQ(http.Last().status, 500);
        EXPECT_LT(http.Last().Word(12), 0);

        Answer([](DWORD, ElemStrmEntry&) {});
        ULONG error = ERROR_NOT_ENOUGH_MEMORY;  // of the first answer only
        http.onSend = [&](const SentResponse&) { http.sendError = std::exchange(error, NO_ERROR); };
        EXPECT_EQ(Read({Entry()}), S_FALSE);
        http.onSend = nullptr;
        EXPECT_EQ(http.SentCount(), sent += 2);
        ExpectGenericFailure(3, HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY));

        http.sendError = ERROR_NETNAME_DELETED;
        EXPECT_EQ(Read({Entry()}), S_FALSE);
        http.sendError = NO_ERROR;
        EXPECT_EQ(http.SentCount(), ++sent) << "nobody is left to be told";
    }
}

TEST_F(ReadFrame, ABlockThatCannotBeRegisteredGoesBack) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(kTransId, 3, FrameBody({Entry()}));
    Lay(xaction, given);
    FailNextAllocation(300);  // ten nodes of the map
    EXPECT_EQ(server.ProcessRequest(xaction), S_OK);
    EXPECT_TRUE(AllocationFailed());
    Pool().Release(&xaction);
    EXPECT_EQ(media.Count("ReadFrame"), 0u);
    EXPECT_EQ(http.SentCount(), 2u);
    ExpectImmediateReply();
    ExpectAllHome();
}

TEST_F(ReadFrame, TheLastPositionOfAllIsPassedAndPrinted) {
    SetTracing(true);
    EXPECT_EQ(Read({Entry(kVideo, 0xFFFFFFFF)}), S_FALSE);
    EXPECT_EQ(Table().substr(12 + 8 + 16, 4), Bytes(DWORD{0xFFFFFFFF}));
    EXPECT_EQ(Traces()[0],
              "client: handling CMD_READ_FRAME, token 0x101000042 pos 4294967295, transId 4711");
}

}  // namespace
