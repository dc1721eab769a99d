// Golden bytes of the file commands in both directions: what reaches the media library, and every
// byte of the reply.
#include "tests/commands/commandtest.h"
#include "tests/fakes/allocfault.h"

namespace {

constexpr ULONGLONG kToken = 0xABCDEF0112345678ull;
constexpr HRESULT kFailure = static_cast<HRESULT>(0x80070002);

class Files : public CCommandTest {
protected:
    std::string Body() const { return http.Last().Body(); }
};

std::string Filled(size_t size_bytes) {
    std::string bytes;
    for (size_t i = 0; i < size_bytes; ++i)
        bytes.push_back(static_cast<char>(i + 1));
    return bytes;
}

// --- open, create, close ---

TEST_F(Files, OpenPassesItsArgumentsAndReturnsTheToken) {
    Run(2, NameBlock(TEXT("a/clip"), TEXT("v0"), 3, 0x55) + Bytes(BYTE{0xEE}, BYTE{2}));
    const MediaCall call = media.Calls("OpenFile").at(0);
    EXPECT_EQ(call.name, TEXT("a/clip"));
    EXPECT_EQ(call.name2, TEXT("v0"));
    EXPECT_EQ(call.type, 3);
    EXPECT_EQ(call.flags, 0x55u);
    EXPECT_TRUE(call.boolean) << "any nonzero byte at 1049";
    // Bytes 4 to 7 stay as the client sent them: the third and fourth unit of the name.
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{2}, DWORD{16}, LONG{0}, WCHAR{'c'}, WCHAR{'l'},
                            ULONGLONG{0x1122334455667788}));
    EXPECT_EQ(Body().size(), 28u);
}

TEST_F(Files, OpenReadsItsBooleanFromTheSecondByte) {
    Run(2, NameBlock(TEXT("a")) + Bytes(BYTE{1}, BYTE{0}));
    EXPECT_FALSE(media.Calls("OpenFile").at(0).boolean);
}

TEST_F(Files, AFailedOpenCarriesTokenZero) {
    media.results["OpenFile"] = kFailure;
    Run(2, NameBlock(TEXT("abcd")) + Bytes(BYTE{0}, BYTE{1}));
    EXPECT_EQ(Body().substr(12), Bytes(LONG{0}, WCHAR{'c'}, WCHAR{'d'}, ULONGLONG{0}));
}

TEST_F(Files, CreatePassesTheDescriptorAsItStands) {
    const std::string esDesc = Filled(56);
    Run(1, NameField(TEXT("n")) + NameField(TEXT("x")) + esDesc + Bytes(DWORD{0x18}));
    const MediaCall call = media.Calls("CreateFile").at(0);
    EXPECT_EQ(call.name, TEXT("n"));
    EXPECT_EQ(call.name2, TEXT("x"));
    EXPECT_EQ(call.flags, 0x18u);
    EXPECT_TRUE(call.boolean);
    EXPECT_EQ(call.pointer, nullptr);
    EXPECT_EQ(std::memcmp(&call.esDesc, esDesc.data(), 56), 0);
    EXPECT_EQ(Body().substr(4, 4), Bytes(DWORD{2})) << "the open reply's code";
    EXPECT_EQ(Body().substr(20), Bytes(ULONGLONG{0x1122334455667788}));
}

TEST_F(Files, ClosePassesTheToken) {
    Run(5, Bytes(kToken));
    EXPECT_EQ(media.Calls("CloseFile").at(0).token, kToken);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{5}, DWORD{4}, LONG{0}));
}

TEST_F(Files, ALongNameIsKeptWholeForTheLibraryAndCutInTheTimer) {
    const WString name(259, TEXT('n'));
    Run(2, NameBlock(name) + Bytes(BYTE{0}, BYTE{0}));
    EXPECT_EQ(media.Calls("OpenFile").at(0).name, name);
    EXPECT_EQ(TimerName().size(), 259u);
}

// --- metadata ---

TEST_F(Files, FileInfoReturnsTheDescriptor) {
    const std::string esDesc = Filled(56);
    std::memcpy(&media.esDesc, esDesc.data(), 56);
    Run(6, Bytes(kToken));
    EXPECT_EQ(media.Calls("GetFileInfo/token").at(0).token, kToken);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{6}, DWORD{60}, LONG{0}) + esDesc);
}

TEST_F(Files, AFailedFileInfoShowsOnlyTheRequestsOwnBytesAndZeros) {
    media.results["GetFileInfo/token"] = kFailure;
    Run(6, Bytes(kToken));
    EXPECT_EQ(Body().substr(12), Bytes(LONG{0}) + Bytes(kToken).substr(4) + std::string(52, '\0'));
}

TEST_F(Files, FileInfoByNameTakesTheNameBeforeTheReplyIsWrittenOverIt) {
    Run(7, NameBlock(TEXT("media/clip"), TEXT("a1"), 2, 9));
    const MediaCall call = media.Calls("GetFileInfo/name").at(0);
    EXPECT_EQ(call.name, TEXT("media/clip"));
    EXPECT_EQ(call.name2, TEXT("a1"));
    EXPECT_EQ(call.type, 2);
    EXPECT_EQ(call.flags, 9u);
    EXPECT_EQ(Body().size(), 72u);
    EXPECT_EQ(Body().substr(4, 8), Bytes(DWORD{6}, DWORD{60}));
}

TEST_F(Files, FrameDescriptorsOfThreeFramesByTokenAre44Bytes) {
    for (DWORD i = 0; i < 3; ++i) {
        ZemFrameDesc desc{};
        desc.dataSize = 100 + i;
        desc.flags = 200 + i;
        desc.timecode = {static_cast<uint8_t>(i), 2, 3, 4};
        desc.position = 0xAAAAAAAA;
        desc.presentationTimeHigh = 0xBBBBBBBB;
        media.frameDescs.push_back(desc);
    }
    Run(8, Bytes(kToken, DWORD{0}, LONG{3}, LONG{4}));
    const MediaCall call = media.Calls("GetFrameDesc/token").at(0);
    EXPECT_EQ(call.token, kToken);
    EXPECT_EQ(call.position, 0u);
    EXPECT_EQ(call.count, 3);
    EXPECT_EQ(call.rate, 4);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{7}, DWORD{44}, LONG{0}, LONG{3},  //
                            DWORD{100}, DWORD{200}, DWORD{0x04030200},        //
                            DWORD{101}, DWORD{201}, DWORD{0x04030201},        //
                            DWORD{102}, DWORD{202}, DWORD{0x04030202}));
}

TEST_F(Files, NoFrameDescriptorsByTokenAreAnEightByteBody) {
    EXPECT_EQ(Run(8, Bytes(kToken, DWORD{0}, LONG{0}, LONG{0})), S_OK);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{7}, DWORD{8}, LONG{0}, LONG{0}));
}

TEST_F(Files, FrameDescriptorsThatTheLibraryDidNotFillAreZero) {
    media.results["GetFrameDesc/token"] = kFailure;
    Run(8, Bytes(kToken, DWORD{0}, LONG{2}, LONG{0}));
    EXPECT_EQ(Body().substr(12), Bytes(LONG{0}, LONG{2}) + std::string(24, '\0'));
}

TEST_F(Files, ANegativeFrameCountIsOutOfMemory) {
    EXPECT_EQ(Run(8, Bytes(kToken, DWORD{0}, LONG{-1}, LONG{0})), E_OUTOFMEMORY);
    ExpectGenericFailure(8, E_OUTOFMEMORY);
    EXPECT_EQ(Run(9, NameBlock(TEXT("f")) + Bytes(DWORD{0}, LONG{-5})), E_OUTOFMEMORY);
    ExpectGenericFailure(9, E_OUTOFMEMORY);
    EXPECT_EQ(media.Count("GetFrameDesc/token") + media.Count("GetFrameDesc/name"), 0u);
    EXPECT_EQ(Channel()->Counters().failedRealTimeIoMsgs, 2u);
}

TEST_F(Files, AFrameCountWhoseReplyDoesNotFitIsRefused) {
    for (const LONG count : {400, 65536 / 12, 5461, 0x7FFFFFFF}) {
        EXPECT_EQ(Run(8, Bytes(kToken, DWORD{0}, count, LONG{0})), E_INVALIDARG) << count;
        ExpectGenericFailure(8, E_INVALIDARG);
    }
    EXPECT_EQ(media.Count("GetFrameDesc/token"), 0u);
}

TEST_F(Files, TheLargestFrameCountThatFitsIsAnswered) {
    RequestSpec given;
    const LONG count = 20;  // 248 bytes of body
    given.entity = Command(kTransId, 8, Bytes(kToken, DWORD{0}, count, LONG{0}));
    given.entityOffset = CHttpXaction::RequestBufferSize() - 12 - 248;
    EXPECT_EQ(Run(given), S_OK);
    EXPECT_EQ(Body().size(), 260u);
    *given.entityOffset += 1;
    EXPECT_EQ(Run(given), E_INVALIDARG);
}

TEST_F(Files, FrameDescriptorsByNameAreLongerThanTheirEntries) {
    const std::string request = NameBlock(TEXT("clip.mov")) + Bytes(DWORD{0}, LONG{3});
    Run(9, request);
    EXPECT_EQ(Body().size(), 12u + 68u);
    EXPECT_EQ(Body().substr(4, 8), Bytes(DWORD{7}, DWORD{68}));
    EXPECT_EQ(Body().substr(12, 8), Bytes(LONG{0}, LONG{3}));
    EXPECT_EQ(Body().substr(20, 36), std::string(36, '\0'));
    EXPECT_EQ(Body().substr(56), request.substr(44, 24)) << "the tail stays as it was sent";
}

TEST_F(Files, FrameDescriptorsByNameSeeTheCountInTheName) {
    Run(9, NameBlock(TEXT("clip.mov"), TEXT("v1"), 1, 2) + Bytes(DWORD{7}, LONG{3}));
    const MediaCall call = media.Calls("GetFrameDesc/name").at(0);
    EXPECT_EQ(call.name, WString({'c', 'l', 3}));
    EXPECT_EQ(call.name2, TEXT("v1"));
    EXPECT_EQ(call.position, 7u);
    EXPECT_EQ(call.count, 3);
    EXPECT_EQ(call.flags, 2u);
}

TEST_F(Files, NoFrameDescriptorsByNameAreRefused) {
    EXPECT_EQ(Run(9, NameBlock(TEXT("f")) + Bytes(DWORD{0}, LONG{0})), E_INVALIDARG);
    ExpectGenericFailure(9, E_INVALIDARG);
}

TEST_F(Files, TheCopyByNameStopsAtTheBoundThatEntry87Brings) {
    media.frameDescs.resize(100);
    for (DWORD i = 0; i < 100; ++i)
        media.frameDescs[i].dataSize = 0x1000 + i;
    media.frameDescs[87].dataSize = 90;  // entries 88 and 89 follow, then the bound is met
    Run(9, NameBlock(TEXT("f")) + Bytes(DWORD{0}, LONG{100}));
    const std::string body = Body().substr(12);
    ASSERT_EQ(body.size(), 24u * 100 - 4);
    const auto word = [&](size_t entry) { return body.substr(8 + 12 * entry, 4); };
    EXPECT_EQ(word(87), Bytes(DWORD{90}));
    EXPECT_EQ(word(88), Bytes(DWORD{0x1000 + 88}));
    EXPECT_EQ(word(89), Bytes(DWORD{0x1000 + 89}));
    EXPECT_EQ(word(90), Bytes(DWORD{0}));
}

TEST_F(Files, TheBoundThatEntry87BringsNeverProlongsTheCopy) {
    media.frameDescs.resize(120);
    for (ZemFrameDesc& desc : media.frameDescs)
        desc.dataSize = 0x7FFFFFFF;
    EXPECT_EQ(Run(9, NameBlock(TEXT("f")) + Bytes(DWORD{0}, LONG{100})), S_OK);
    const std::string body = Body().substr(12);
    EXPECT_EQ(body.substr(8 + 12 * 99, 4), Bytes(DWORD{0x7FFFFFFF}));
    EXPECT_EQ(body.substr(8 + 12 * 100, 4), Bytes(DWORD{0}));
}

TEST_F(Files, FrameDescriptorsWithoutScratchMemoryAreAGenericFailure) {
    FailNextNothrowAllocation(40 * sizeof(ZemFrameDesc));
    EXPECT_EQ(Run(8, Bytes(kToken, DWORD{0}, LONG{40}, LONG{0})), E_OUTOFMEMORY);
    EXPECT_TRUE(NothrowAllocationFailed());
    ExpectGenericFailure(8, E_OUTOFMEMORY);
    FailNextNothrowAllocation(40 * sizeof(ZemFrameDesc));
    EXPECT_EQ(Run(9, NameBlock(TEXT("f")) + Bytes(DWORD{0}, LONG{40})), E_OUTOFMEMORY);
    EXPECT_TRUE(NothrowAllocationFailed());
    ExpectGenericFailure(9, E_OUTOFMEMORY);
    EXPECT_EQ(media.Count("GetFrameDesc/token") + media.Count("GetFrameDesc/name"), 0u);
    EXPECT_EQ(Channel()->Counters().failedRealTimeIoMsgs, 2u);
}

TEST_F(Files, MarksAreReturnedByTokenAndByName) {
    media.firstMark = 25;
    media.secondMark = 250;
    Run(11, Bytes(kToken));
    EXPECT_EQ(media.Calls("GetFileMarks/token").at(0).token, kToken);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{9}, DWORD{12}, LONG{0}, DWORD{25}, DWORD{250}));
    Run(12, NameBlock(TEXT("media/clip"), TEXT("v2"), 3, 4));
    const MediaCall call = media.Calls("GetFileMarks/name").at(0);
    EXPECT_EQ(call.name, TEXT("media/clip"));
    EXPECT_EQ(call.name2, TEXT("v2"));
    EXPECT_EQ(call.type, 3);
    EXPECT_EQ(call.flags, 4u);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{9}, DWORD{12}, LONG{0}, DWORD{25}, DWORD{250}));
}

TEST_F(Files, MarksThatFailStayTheRequestsOwnBytes) {
    media.results["GetFileMarks/token"] = kFailure;
    Run(11, Bytes(kToken));
    EXPECT_EQ(Body().substr(12), Bytes(LONG{0}) + Bytes(kToken).substr(4) + std::string(4, '\0'));
    SetTracing(true);
    EXPECT_EQ(Channel()->Counters().failedRealTimeIoMsgs, 0u);
}

// --- file system ---

TEST_F(Files, SpaceReturnsTotalAndFree) {
    media.totalSpace = 0x1111111122222222;
    media.freeSpace = 0x3333333344444444;
    Run(19, NameField(TEXT("vol")));
    EXPECT_EQ(media.Calls("QueryFileSystemSpace").at(0).name, TEXT("vol"));
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{16}, DWORD{24}, LONG{0}, WCHAR{'l'}, WCHAR{0},
                            ULONGLONG{0x1111111122222222}, ULONGLONG{0x3333333344444444}));
}

TEST_F(Files, SpaceThatCannotBeQueriedIsZero) {
    media.results["QueryFileSystemSpace"] = kFailure;
    Run(19, NameField(TEXT("a volume with a long name")));
    EXPECT_EQ(Body().substr(20), std::string(16, '\0'));
    EXPECT_TRUE(log.Empty());
}

TEST_F(Files, AttributesOfAMissingFileAreAllOnesAndNotLogged) {
    media.results["GetFileAttributes"] = kFailure;
    Run(20, NameField(TEXT("gone")));
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{17}, DWORD{8}, LONG{0}, DWORD{0xFFFFFFFF}));
    EXPECT_TRUE(log.Empty());
}

TEST_F(Files, AttributesAreReturned) {
    media.attributes = 0x10;
    Run(20, NameField(TEXT("d")));
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{17}, DWORD{8}, LONG{0}, DWORD{0x10}));
}

TEST_F(Files, TheSizeOfAMissingFileIsZeroAndLogged) {
    media.results["GetFileSize"] = kFailure;
    Run(22, NameField(TEXT("gone")));
    EXPECT_EQ(Body(),
              Bytes(kTransId, DWORD{19}, DWORD{16}, LONG{0}, WCHAR{'n'}, WCHAR{'e'}, ULONGLONG{0}));
    ASSERT_EQ(log.Records(LogRecord::EntryPoint).size(), 1u);
    EXPECT_EQ(static_cast<HRESULT>(log.Records(LogRecord::EntryPoint)[0].chainId), kFailure);
}

TEST_F(Files, DeleteAndCreateDirectoryPassTheName) {
    Run(21, NameField(TEXT("old")));
    EXPECT_EQ(media.Calls("DeleteFile").at(0).name, TEXT("old"));
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{18}, DWORD{4}, LONG{0}));
    Run(23, NameField(TEXT("new")));
    EXPECT_EQ(media.Calls("CreateDirectory").at(0).name, TEXT("new"));
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{20}, DWORD{4}, LONG{0}));
}

TEST_F(Files, MovePassesBothNamesAndTracesTheFirst) {
    SetTracing(true);
    Run(24, NameField(TEXT("here")) + NameField(TEXT("there")));
    const MediaCall call = media.Calls("MoveFile").at(0);
    EXPECT_EQ(call.name, TEXT("here"));
    EXPECT_EQ(call.name2, TEXT("there"));
    for (const std::string& trace : Traces())
        EXPECT_EQ(trace.find("there"), std::string::npos);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{21}, DWORD{4}, LONG{0}));
}

TEST_F(Files, MoveRefusesASecondNameThatFillsItsField) {
    std::string to(520, 'x');
    EXPECT_EQ(Run(24, NameField(TEXT("here")) + to), E_INVALIDARG);
    EXPECT_EQ(media.Count("MoveFile"), 0u);
}

// --- maintenance ---

TEST_F(Files, StripePassesTheTimecodeFromBytes1048To1051) {
    Run(13, NameBlock(TEXT("tc"), TEXT("x"), 3, 4) + std::string("\x01\x02\x03\x04", 4) +
                Bytes(DWORD{6}) + std::string(16, '\x77'));
    const MediaCall call = media.Calls("StripeTimecode").at(0);
    EXPECT_EQ(call.name, TEXT("tc"));
    EXPECT_EQ(call.timecode.frames, 1);
    EXPECT_EQ(call.timecode.hours, 4);
    EXPECT_EQ(call.stripeFlags, 6u);
    EXPECT_EQ(call.type, 3);
    EXPECT_EQ(call.flags, 4u);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{10}, DWORD{4}, LONG{0}));
}

TEST_F(Files, ErasePassesTheSegmentInOrder) {
    Run(25, Bytes(kToken, DWORD{5}, DWORD{6}, LONG{2}));
    const MediaCall call = media.Calls("EraseSegment").at(0);
    EXPECT_EQ(call.token, kToken);
    EXPECT_EQ(call.segmentA, 5u);
    EXPECT_EQ(call.segmentB, 6u);
    EXPECT_EQ(call.type, 2);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{22}, DWORD{4}, LONG{0}));
}

TEST_F(Files, FlushPassesTheToken) {
    Run(10, Bytes(kToken));
    EXPECT_EQ(media.Calls("FlushBuffers").at(0).token, kToken);
    EXPECT_EQ(Body(), Bytes(kTransId, DWORD{8}, DWORD{4}, LONG{0}));
}

TEST_F(Files, ALeaveDuringTheCallKeepsTheChannelUntilItReturns) {
    media.onCall = [&](const MediaCall& call) {
        if (call.op != "FlushBuffers") return;
        media.onCall = nullptr;
        Post(Command(1, 16));
        EXPECT_EQ(media.Count("~CZemChannelIo"), 0u);
    };
    EXPECT_EQ(Run(10, Bytes(kToken)), S_OK);
    EXPECT_EQ(media.Count("~CZemChannelIo"), 1u);
    EXPECT_EQ(Channel(), nullptr);
}

TEST_F(Files, TheCountOf88EndsWithTheEntryThatLiesOverIt) {
    media.frameDescs.resize(90);
    for (DWORD i = 0; i < 90; ++i)
        media.frameDescs[i].dataSize = 0x1000 + i;
    EXPECT_EQ(Run(9, NameBlock(TEXT("f")) + Bytes(DWORD{7}, LONG{88})), S_OK);
    EXPECT_EQ(media.Calls("GetFrameDesc/name").at(0).count, 88);
    media.frameDescs.clear();
    const std::string body = Body().substr(12);
    ASSERT_EQ(body.size(), 24u * 88 - 4);
    for (DWORD i = 0; i < 83; ++i)  // from position 7 on the library knows 83 frames
        EXPECT_EQ(body.substr(8 + 12 * i, 4), Bytes(DWORD{0x1000 + 7 + i})) << i;
    EXPECT_EQ(body.substr(8 + 12 * 87, 12), std::string(12, '\0')) << "over the count";
    EXPECT_EQ(body.substr(8 + 12 * 88), std::string(body.size() - 8 - 12 * 88, '\0'));
}

TEST_F(Files, TheUnwrittenTailHoldsNothingOfEarlierRequests) {
    // Every block of the pool has seen other bytes where the tail will lie.
    for (int i = 0; i < kBlocks; ++i)
        Post(Command(1, 5, std::string(3000, '\x77')));
    const std::string request =
        NameBlock(TEXT("clip"), TEXT("v0"), 1, 5) + Bytes(DWORD{0}, LONG{80});
    EXPECT_EQ(Run(9, request), S_OK);
    const std::string body = Body().substr(12);
    ASSERT_EQ(body.size(), 24u * 80 - 4);
    const size_t written = 8 + 12 * 80;
    EXPECT_EQ(body.substr(written, request.size() - written), request.substr(written));
    EXPECT_EQ(body.substr(request.size()), std::string(body.size() - request.size(), '\0'));
}

TEST_F(Files, TheLastPositionOfAllIsPassedAndPrinted) {
    SetTracing(true);
    EXPECT_EQ(Run(8, Bytes(kToken, DWORD{0xFFFFFFFF}, LONG{1}, LONG{0})), S_OK);
    EXPECT_EQ(media.Calls("GetFrameDesc/token").at(0).position, 0xFFFFFFFFu);
    EXPECT_EQ(Traces()[0],
              "client: handling GET_FRAME_DESC, token 0xabcdef0112345678, pos 4294967295, transId "
              "4711");
    EXPECT_EQ(Run(9, NameBlock(TEXT("f")) + Bytes(DWORD{0xFFFFFFFE}, LONG{1})), S_OK);
    EXPECT_EQ(media.Calls("GetFrameDesc/name").at(0).position, 0xFFFFFFFEu);
}

}  // namespace
