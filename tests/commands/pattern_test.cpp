// What all file commands have in common, run over every one of them: the reply tells of its own
// building, the log of the operation; traces, stages, and what happens when client, library or
// reply fail.
#include <ostream>
#include <set>
#include <stdexcept>

#include "tests/commands/commandtest.h"

namespace {

struct Row {
    const char* name;  // as in CMD_name
    DWORD code;
    std::string body;
    const char* op;     // of the media library
    const char* doCmd;  // scope of the inner function
    DWORD replyBody_bytes;
    const char* description;
    std::vector<const char*> traces;  // of a success, in order
    const char* error;                // trace of a failure, with the request's arguments
    std::vector<DWORD> stages;
    bool resultLogged = true;  // the library's failure reaches the log
    bool names = false;        // the body begins with a name field
    bool countsFailure = false;
    bool replyFirst = false;  // the reply is built before the library is called
};

// For the names of the tests.
void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

constexpr ULONGLONG kToken = 0xABCDEF0112345678ull;
const std::vector<DWORD> kPlain = {0, 3, 5, 6, 8};

std::string FrameDescToken() {
    return Bytes(kToken, DWORD{10}, LONG{2}, LONG{3});
}

std::vector<Row> Rows() {
    const std::string token = Bytes(kToken);
    const std::string block = NameBlock(TEXT("a/clip"));
    std::vector<Row> rows;
    rows.push_back({"OPEN_FILE",
                    2,
                    block + Bytes(BYTE{0}, BYTE{1}),
                    "OpenFile",
                    "DoCmdOpenFile",
                    16,
                    "OPEN_FILE a/clip",
                    {"client: handling CMD_OPEN_FILE, file 'a/clip', transId 4711",
                     "client: CMD_OPEN_FILE OK, token 0x1122334455667788, transId 4711",
                     "client: Open after sending response token 0x1122334455667788 hr 0x0, transId "
                     "4711"},
                    "client: error CMD_OPEN_FILE, transId 4711",
                    kPlain,
                    true,
                    true});
    rows.push_back({"CREATE_FILE",
                    1,
                    NameField(TEXT("a/clip")) + NameField(TEXT("")) + std::string(60, '\1'),
                    "CreateFile",
                    "DoCmdCreateFile",
                    16,
                    "CREATE_FILE a/clip",
                    {"client: handling CMD_CREATE_FILE, file 'a/clip', transId 4711",
                     "client: CMD_CREATE_FILE OK, token 0x1122334455667788, transId 4711",
                     "client: Create after sending response token 0x1122334455667788 hr 0x0, "
                     "transId 4711"},
                    "client: error CMD_CREATE_FILE, transId 4711",
                    kPlain,
                    true,
                    true});
    rows.push_back({"CLOSE_FILE",
                    5,
                    token,
                    "CloseFile",
                    "DoCmdCloseFile",
                    4,
                    "CLOSE_FILE token 0xabcdef0112345678",
                    {"client: handling CMD_CLOSE_FILE, token abcdef0112345678, transId 4711",
                     "client: CMD_CLOSE_FILE OK, token abcdef0112345678, transId 4711"},
                    "client: error CMD_CLOSE_FILE, token 0xabcdef0112345678, transId 4711",
                    kPlain});
    rows.push_back({"GET_FILE_INFO",
                    6,
                    token,
                    "GetFileInfo/token",
                    "DoCmdGetFileInfo",
                    60,
                    "GET_FILE_INFO token 0xabcdef0112345678",
                    {"client: handling CMD_GET_FILE_INFO, token 0xabcdef0112345678, transId 4711",
                     "client: CMD_GET_FILE_INFO OK, token 0xabcdef0112345678, media type 2, "
                     "transId 4711"},
                    "client: error CMD_GET_FILE_INFO, token 0xabcdef0112345678, transId 4711",
                    kPlain,
                    true,
                    false,
                    true,
                    true});
    rows.push_back({"GET_FILE_INFO2",
                    7,
                    block,
                    "GetFileInfo/name",
                    "DoCmdGetFileInfo2",
                    60,
                    "GET_FILE_INFO2 file 'a/clip'",
                    {"client: handling CMD_GET_FILE_INFO2, file 'a/clip', transId 4711",
                     "client: CMD_GET_FILE_INFO2 OK, file , media type 2, transId 4711"},
                    "client: error CMD_GET_FILE_INFO2, file a/clip, transId 4711",
                    kPlain,
                    true,
                    true,
                    true,
                    true});
    rows.push_back({"GET_FRAME_DESC",
                    8,
                    FrameDescToken(),
                    "GetFrameDesc/token",
                    "DoCmdGetFrameDesc",
                    32,
                    "GET_FRAME_DESC token 0xabcdef0112345678 pos 10",
                    {"client: handling GET_FRAME_DESC, token 0xabcdef0112345678, pos 10, transId "
                     "4711",
                     "client: GET_FRAME_DESC OK, token 0xabcdef0112345678, pos 10, transId 4711"},
                    "client: error GET_FRAME_DESC, token 0xabcdef0112345678, pos 10, transId 4711",
                    kPlain,
                    true,
                    false,
                    true,
                    true});
    rows.push_back({"GET_FRAME_DESC2",
                    9,
                    block + Bytes(DWORD{10}, LONG{2}),
                    "GetFrameDesc/name",
                    "DoCmdGetFrameDesc2",
                    44,
                    "GET_FRAME_DESC file 'a/clip' pos 10",
                    {"client: handling GET_FRAME_DESC2, file a/clip, pos 10, transId 4711",
                     "client: GET_FRAME_DESC2 OK, file '', pos 10, transId 4711"},
                    "client: error GET_FRAME_DESC2, file 'a/clip', pos 10, transId 4711",
                    kPlain,
                    true,
                    true,
                    true,
                    true});
    rows.push_back({"GET_FILE_MARKS",
                    11,
                    token,
                    "GetFileMarks/token",
                    "DoCmdGetFileMarks",
                    12,
                    "GET_FILE_MARKS token 0xabcdef0112345678",
                    {"client: handling GET_FILE_MARKS, token 0xabcdef0112345678, transId 4711",
                     "client: GET_FILE_MARKS OK, token 0xabcdef0112345678, transId 4711"},
                    "client: error GET_FILE_MARKS, token 0xabcdef0112345678, transId 4711",
                    kPlain,
                    true,
                    false,
                    false,
                    true});
    rows.push_back({"GET_FILE_MARKS2",
                    12,
                    block,
                    "GetFileMarks/name",
                    "DoCmdGetFileMarks2",
                    12,
                    "GET_FILE_MARKS2 file 'a/clip'",
                    {"client: handling GET_FILE_MARKS2, file 'a/clip', transId 4711",
                     "client: GET_FILE_MARKS2 OK, file '', transId 4711"},
                    "client: error GET_FILE_MARKS2, file 'a/clip', transId 4711",
                    kPlain,
                    true,
                    true,
                    false,
                    true});
    rows.push_back({"FLUSH_BUFFERS",
                    10,
                    token,
                    "FlushBuffers",
                    "DoCmdFlushBuffers",
                    4,
                    "FLUSH_BUFFERS token 0xabcdef0112345678",
                    {"client: handling CMD_FLUSH_BUFFERS, token abcdef0112345678, transId 4711",
                     "client: CMD_FLUSH_BUFFERS OK, token abcdef0112345678, transId 4711"},
                    "client: error CMD_FLUSH_BUFFERS, token 0xabcdef0112345678, transId 4711",
                    kPlain,
                    true,
                    false,
                    true});
    rows.push_back({"STRIPE_TIMECODE",
                    13,
                    block + Bytes(DWORD{0x01020304}, DWORD{9}),
                    "StripeTimecode",
                    "DoCmdStripeTimecode",
                    4,
                    "STRIPE_TIMECODE file 'a/clip'",
                    {"client: handling CMD_STRIPE_TIMECODE, file 'a/clip', transId 4711",
                     "client: CMD_STRIPE_TIMECODE OK, file 'a/clip', transId 4711"},
                    "client: error CMD_STRIPE_TIMECODE, file 'a/clip', transId 4711",
                    kPlain,
                    true,
                    true});
    rows.push_back({"ERASE_SEGMENT",
                    25,
                    token + Bytes(DWORD{5}, DWORD{6}, LONG{1}),
                    "EraseSegment",
                    "DoCmdEraseSegment",
                    4,
                    "ERASE_SEGMENT token 0xabcdef0112345678",
                    {"client: handling ERASE_SEGMENT, token 0xabcdef0112345678, transId 4711",
                     "client: CMD_ERASE_SEGMENT OK, token 0xabcdef0112345678, transId 4711"},
                    "client: error CMD_ERASE_SEGMENT, token 0xabcdef0112345678, transId 4711",
                    kPlain});
    rows.push_back({"QUERY_FILESYSTEM_SPACE",
                    19,
                    NameField(TEXT("vol")),
                    "QueryFileSystemSpace",
                    "DoCmdQueryFilesystemSpace",
                    24,
                    "QUERY_FILESYSTEM_SPACE vol 'vol'",
                    {"client: handling CMD_QUERY_FILESYSTEM_SPACE, vol 'vol', transId 4711",
                     "client: CMD_QUERY_FILESYSTEM_SPACE OK, vol 'vol', total 4398046511104 "
                     "remaining 1099511627776, transId 4711"},
                    "client: error CMD_QUERY_FILESYSTEM_SPACE, vol 'vol', transId 4711",
                    kPlain,
                    false,
                    true,
                    false,
                    true});
    rows.push_back({"GET_FILE_ATTRIBS",
                    20,
                    NameField(TEXT("f")),
                    "GetFileAttributes",
                    "DoCmdGetFileAttribs",
                    8,
                    "GET_FILE_ATTRIBS 'f'",
                    {"client: handling CMD_GET_FILE_ATTRIBS, file 'f', transId 4711",
                     "client: CMD_GET_FILE_ATTRIBS OK, file 'f', attribs 0x21, transId 4711"},
                    "client: error CMD_GET_FILE_ATTRIBS, file 'f', transId 4711",
                    kPlain,
                    false,
                    true});
    rows.push_back({"DELETE_FILE",
                    21,
                    NameField(TEXT("f")),
                    "DeleteFile",
                    "DoCmdDeleteFile",
                    4,
                    "DELETE_FILE 'f'",
                    {"client: handling CMD_DELETE_FILE, file 'f', transId 4711",
                     "client: CMD_DELETE_FILE OK, file 'f', transId 4711"},
                    "client: error CMD_DELETE_FILE, file 'f', transId 4711",
                    kPlain,
                    true,
                    true});
    rows.push_back({"GET_FILESIZE",
                    22,
                    NameField(TEXT("f")),
                    "GetFileSize",
                    "DoCmdGetFileSize",
                    16,
                    "GET_FILESIZE 'f'",
                    {"client: handling CMD_GET_FILESIZE, file 'f', transId 4711",
                     "client: CMD_GET_FILESIZE OK, file 'f', size 4294967298 (0x100000002), "
                     "transId 4711"},
                    "client: error CMD_GET_FILESIZE, file 'f', transId 4711",
                    kPlain,
                    true,
                    true});
    rows.push_back({"CREATE_DIRECTORY",
                    23,
                    NameField(TEXT("d")),
                    "CreateDirectory",
                    "DoCmdCreateDir",
                    4,
                    "CREATE_DIRECTORY 'd'",
                    {"client: handling CMD_CREATE_DIRECTORY, file 'd', transId 4711",
                     "client: CMD_CREATE_DIRECTORY OK, file 'd', transId 4711"},
                    "client: error CMD_CREATE_DIRECTORY, file 'd', transId 4711",
                    kPlain,
                    true,
                    true});
    rows.push_back({"MOVE_FILE",
                    24,
                    NameField(TEXT("from")) + NameField(TEXT("to")),
                    "MoveFile",
                    "DoCmdMoveFile",
                    4,
                    "MOVE_FILE 'from'",
                    {"client: handling CMD_MOVE_FILE, file 'from', transId 4711",
                     "client: CMD_MOVE_FILE OK, file 'from', transId 4711"},
                    "client: error CMD_MOVE_FILE, file 'from', transId 4711",
                    kPlain,
                    true,
                    true});
    return rows;
}

class FileCommand : public CCommandTest, public ::testing::WithParamInterface<Row> {
protected:
    FileCommand() {
        media.esDesc.mediaType = 2;
        media.totalSpace = 4398046511104;
        media.freeSpace = 1099511627776;
        media.attributes = 0x21;
        media.fileSize = 0x100000002;
    }
    const Row& row = GetParam();
    DWORD ReplyCode() const { return FindCommand(row.code)->replyCode; }

    void ExpectReplyOk() {
        ASSERT_EQ(http.SentCount(), 2u) << "the join's and this one's";
        const SentResponse sent = http.Last();
        EXPECT_EQ(sent.status, 200);
        EXPECT_EQ(sent.reason, "OK");
        EXPECT_EQ(sent.Body().size(), 12u + row.replyBody_bytes);
        EXPECT_EQ(sent.Body().substr(0, 16),
                  Bytes(kTransId, ReplyCode(), row.replyBody_bytes, LONG{0}));
        EXPECT_EQ(sent.Header(HttpHeaderContentLength), std::to_string(12 + row.replyBody_bytes));
    }
};

INSTANTIATE_TEST_SUITE_P(All, FileCommand, ::testing::ValuesIn(Rows()),
                         [](const auto& param) { return std::string(param.param.name); });

TEST_P(FileCommand, CallsTheLibraryOnceAndReplies) {
    EXPECT_EQ(Run(row.code, row.body), S_OK);
    EXPECT_EQ(media.Count(row.op), 1u);
    ExpectReplyOk();
    EXPECT_TRUE(log.Empty());
}

TEST_P(FileCommand, MarksItsStagesAndNamesTheTimerWithoutTracing) {
    Run(row.code, row.body);
    EXPECT_EQ(TimerName(),
              std::string("ZemHttpdXaction client: ") + row.description + ", transId 4711");
    EXPECT_EQ(Stages(), row.stages);
}

TEST_P(FileCommand, TracesWhatItDoesOnlyWithTheFlag) {
    SetTracing(true);
    Run(row.code, row.body);
    EXPECT_EQ(Traces(), std::vector<std::string>(row.traces.begin(), row.traces.end()));
}

TEST_P(FileCommand, TouchesTheClient) {
    const ULONGLONG before = server.LookupClient(TEXT("client"), false).Record()->requestCount;
    Run(row.code, row.body);
    // Once by dispatch, once by the handler.
    EXPECT_EQ(server.LookupClient(TEXT("client"), false).Record()->requestCount, before + 2);
}

TEST_P(FileCommand, AnswersAnUnknownClientWithSuccessAndLogsIt) {
    SetTracing(true);
    EXPECT_EQ(Run(row.code, row.body, "ghost"), S_OK);
    EXPECT_EQ(media.Count(row.op), 0u);
    ExpectReplyOk();
    const LogRecord error = log.Error(TEXT("ghost: Unknown client; transId 4711!"));
    EXPECT_EQ(error.kind, LogRecord::Ex);
    EXPECT_EQ(error.hr, E_INVALIDARG);
    EXPECT_EQ(error.file, TEXT("httpcmdhdlr.cpp"));
    EXPECT_EQ(Traces().size(), row.traces.size());
}

TEST_P(FileCommand, AnswersALibraryFailureWithSuccessAndLogsIt) {
    const HRESULT failure = static_cast<HRESULT>(0x80070002);
    media.results[row.op] = failure;
    EXPECT_EQ(Run(row.code, row.body), S_OK);
    ExpectReplyOk();
    const auto points = log.Records(LogRecord::EntryPoint);
    if (!row.resultLogged) {
        EXPECT_TRUE(log.Empty()) << "the library's result is not looked at";
        return;
    }
    ASSERT_EQ(points.size(), 1u);
    EXPECT_EQ(Utf8(points[0].text), std::string("CHttpCommandHandler::") + row.doCmd);
    EXPECT_EQ(static_cast<HRESULT>(points[0].chainId), failure);
    EXPECT_TRUE(log.Records(LogRecord::Ex).empty());
    EXPECT_EQ(Channel()->Counters().failedRealTimeIoMsgs, 0u);
}

TEST_P(FileCommand, RefusesABodyBeyondThePostedBuffer) {
    SetTracing(true);
    EXPECT_EQ(Run(HeaderAtBufferEnd(row.code)), E_INVALIDARG);
    EXPECT_EQ(media.Count(row.op), 0u);
    // Header and nothing else fit: the generic failure reply has no room for its HRESULT either.
    EXPECT_EQ(http.Last().status, 500);
    EXPECT_EQ(Channel()->Counters().failedRealTimeIoMsgs, row.countsFailure ? 1u : 0u);
}

TEST_P(FileCommand, RefusesABodyWhoseLastFieldLeavesTheBuffer) {
    RequestSpec given;
    given.entity = Command(kTransId, row.code, row.body.substr(0, 4));
    given.entityOffset = CHttpXaction::RequestBufferSize() - given.entity.size();
    EXPECT_EQ(Run(given), E_INVALIDARG);
    EXPECT_EQ(media.Count(row.op), 0u);
    ExpectGenericFailure(row.code, E_INVALIDARG);
}

TEST_P(FileCommand, ReadsFieldsThatWereNotReceivedAsZero) {
    EXPECT_EQ(Run(row.code, ""), row.code == 9 ? E_INVALIDARG : S_OK);  // a count of 0 by name
    if (row.code == 9) return ExpectGenericFailure(9, E_INVALIDARG);
    ASSERT_EQ(media.Count(row.op), 1u);
    EXPECT_EQ(media.Calls(row.op)[0].name, TEXT(""));
    EXPECT_EQ(media.Calls(row.op)[0].token, 0u);
}

class FileCommandWithName : public FileCommand {};

std::vector<Row> RowsWithName() {
    std::vector<Row> rows = Rows();
    std::erase_if(rows, [](const Row& row) { return !row.names; });
    return rows;
}

INSTANTIATE_TEST_SUITE_P(All, FileCommandWithName, ::testing::ValuesIn(RowsWithName()),
                         [](const auto& param) { return std::string(param.param.name); });

TEST_P(FileCommandWithName, RefusesANameThatFillsItsField) {
    SetTracing(true);
    std::string body = row.body;
    for (size_t i = 0; i < 520; i += 2)
        body[i] = 'x';
    EXPECT_EQ(Run(row.code, body), E_INVALIDARG);
    EXPECT_EQ(media.Count(row.op), 0u);
    ExpectGenericFailure(row.code, E_INVALIDARG);
    ASSERT_EQ(Traces().size(), 1u) << "the error trace alone";
}

TEST_P(FileCommand, LeavesAReplyThatCannotBeBuiltToDispatch) {
    SetTracing(true);
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(kTransId, row.code, row.body);
    Lay(xaction, given);
    HTTP_REQUEST& request = *xaction.Request();
    ZemCommand command{};
    command.clientId = TEXT("client");
    command.transId = kTransId;
    command.code = row.code;
    command.body = static_cast<BYTE*>(request.pEntityChunks[0].FromMemory.pBuffer) + 12;
    command.bodyRoom_bytes = static_cast<size_t>(xaction.RequestBuffer() + 4096 - command.body);
    command.xaction = &xaction;
    request.EntityChunkCount = 0;  // nothing to lay the reply over
    const auto handler = FindCommand(row.code)->handler;
    CHttpCommandHandler* const target = &server;
    const HRESULT hr = (target->*handler)(command);
    EXPECT_EQ(hr, E_INVALIDARG);
    EXPECT_FALSE(xaction.ReplySent());
    EXPECT_EQ(http.SentCount(), 1u) << "the join's only";
    EXPECT_EQ(media.Count(row.op), row.replyFirst ? 0u : 1u);
    EXPECT_EQ(Traces(), (std::vector<std::string>{row.traces[0], row.error}));
    EXPECT_EQ(Channel()->Counters().failedRealTimeIoMsgs, row.countsFailure ? 1u : 0u);
    Pool().Release(&xaction);
}

TEST_P(FileCommand, PrintsPercentSignsOfAClientIdAsTheyAre) {
    SetTracing(true);
    EXPECT_EQ(Run(row.code, row.body, "%s%n%9999x"), S_OK);
    EXPECT_EQ(log.Error(TEXT("%s%n%9999x: Unknown client; transId 4711!")).kind, LogRecord::Ex);
    std::string handling = row.traces[0];
    handling.replace(0, 6, "%s%n%9999x");
    ASSERT_FALSE(Traces().empty());
    EXPECT_EQ(Traces()[0], handling);
}

TEST_P(FileCommand, AFailedSendChangesNothing) {
    http.sendError = ERROR_NETNAME_DELETED;
    EXPECT_EQ(Run(row.code, row.body), S_OK);
    EXPECT_EQ(http.SentCount(), 2u) << "no second answer";
}

// Frames, configurations and clients are no file commands: their tests are in their own rooms.
TEST(FileCommandRows, HaveEveryFileCommand) {
    std::set<DWORD> codes = {3, 4, 14, 15, 16, 17, 18, 26};
    for (const Row& row : Rows())
        EXPECT_TRUE(codes.insert(row.code).second) << row.name;
    for (const CommandRow& command : kCommands)
        EXPECT_EQ(codes.count(command.code), 1u) << command.name;
}

class FileCommandLines : public CCommandTest {};

TEST_F(FileCommandLines, ARecordsLineNamesItsCommand) {
    std::set<LONG> lines;
    const WString unknown = TEXT("ghost: Unknown client; transId 4711!");
    for (const Row& row : Rows()) {
        log.Reset();
        Run(row.code, row.body, "ghost");
        EXPECT_TRUE(lines.insert(log.Error(unknown).line).second) << row.name;
        media.onCall = [&](const MediaCall& call) {
            if (call.op == row.op) throw std::runtime_error("a host's module");
        };
        log.Reset();
        Run(row.code, row.body);
        media.onCall = nullptr;
        const LogRecord inner = log.Error(TEXT("Unknown error"));
        EXPECT_EQ(inner.hr, E_FAIL);
        EXPECT_TRUE(lines.insert(inner.line).second) << row.name;
        ReleaseTaken();
    }
    EXPECT_EQ(lines.size(), 2 * Rows().size());
}

}  // namespace
