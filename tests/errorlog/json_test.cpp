// The error log's lines as JSON objects, and the switch between the two formats.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "mediaio/errorlog.h"
#include "mediaio/errorlog/sink.h"
#include "platform/platform.h"
#include "tests/errorlog/capture.h"

namespace {

using namespace logtest;

// The line without what differs from machine to machine: the zone, which must look like one.
std::string WithoutZone(const std::string& line) {
    static const std::regex zone("(\\.[0-9]{3})[+-][0-9]{2}:[0-9]{2}\"");
    EXPECT_TRUE(std::regex_search(line, zone)) << line;
    return std::regex_replace(line, zone, "$1\"");
}

std::string Start(const std::string& level) {
    return R"({"time":"2025-11-20T18:04:05.067","level":")" + level + R"(","thread":)" +
           std::to_string(GetCurrentThreadId()) + ",";
}

std::vector<std::string> MessagesOf(CCapture& capture) {
    std::vector<std::string> messages;
    for (const std::string& line : capture.Lines()) {
        const size_t at = line.find(R"("message":")");
        EXPECT_NE(at, std::string::npos) << line;
        EXPECT_TRUE(line.ends_with("\"}")) << line;
        messages.push_back(line.substr(at + 11, line.size() - at - 13));
    }
    return messages;
}

class ErrorLogJson : public testing::Test {
protected:
    ErrorLogJson() { capture.Use(ErrorLogVerbosity::kTraces, ErrorLogFormat::kJson); }
    CCapture capture;
};

TEST_F(ErrorLogJson, ErrorHasPositionResultElapsedAndMessage) {
    const auto hr = static_cast<HRESULT>(0x80070005);
    ErrorLogWriteExW(hr, &kTime, 7, kErrorLogLevelError, TEXT("httpcmdhdlr.cpp"), 142, 37,
                     TEXT("Unable to create it"), ErrorLogCreateChainId(hr));
    EXPECT_EQ(WithoutZone(capture.Text()),
              Start("error") + R"("source":"httpcmdhdlr.cpp","line":142,"result":"0x80070005",)"
                               R"("elapsed_ms":37,"message":"Unable to create it"})"
                               "\n");
}

TEST_F(ErrorLogJson, WhatIsNotKnownIsLeftOut) {
    WriteMessage(kErrorLogLevelMessage, TEXT("hello"));
    EXPECT_EQ(WithoutZone(capture.Text()), Start("message") + "\"message\":\"hello\"}\n");
}

TEST_F(ErrorLogJson, ScopeAndOwnerAndChain) {
    ErrorLogWriteEntryPointW(0x80070057, &kTime, TEXT("CHttpCommandHandler::Initialize"));
    ErrorLogWriteOwnerInfoW(5, &kTime, TEXT("a"), TEXT("b"), TEXT("c"), TEXT("d"), -7);
    ErrorLogWriteExW(1, &kTime, 7, 77, TEXT("a.cpp"), -1, 0, TEXT("x"), 0x1234);
    const std::vector<std::string> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(
        WithoutZone(lines[0]),
        Start("scope") + R"("result":"0x80070057","message":"CHttpCommandHandler::Initialize"})");
    EXPECT_EQ(WithoutZone(lines[1]),
              Start("owner") + R"("id":5,"number":-7,"message":"a, b, c, d"})");
    EXPECT_EQ(WithoutZone(lines[2]),
              Start("level77") +
                  R"("source":"a.cpp","line":-1,"result":"0x00000001","chain":"0x00001234",)"
                  R"("message":"x"})");
}

TEST_F(ErrorLogJson, WhatWouldEndOrForgeAnObjectIsEscaped) {
    WriteMessage(kErrorLogLevelMessage, TEXT("\"},{\"level\":\"\\ a\nb\r\tc\x1b[31m\x7f\x85"));
    WriteMessage(kErrorLogLevelMessage, TEXT("\u2028\u202e.\u00fc\U0001F3AC"));
    ErrorLogWriteExW(0, &kTime, 7, kErrorLogLevelMessage, TEXT("a\"\\\n.cpp"), 1, 0, TEXT("x"), 0);
    EXPECT_EQ(MessagesOf(capture), (std::vector<std::string>{
                                       R"(\"},{\"level\":\"\\ a\nb\r\tc\u001b[31m\u007f\u0085)",
                                       "\\u2028\\u202e.\xC3\xBC\xF0\x9F\x8E\xAC",
                                       "x",
                                   }));
    EXPECT_NE(capture.Lines().at(2).find(R"("source":"a\"\\\n.cpp","line":1,)"), std::string::npos);
}

TEST_F(ErrorLogJson, PiecesBecomeOneObject) {
    WriteInPieces(WString(127, u'a') + WString(127, u'"') + WString(46, u'c'));
    WriteMessage(kErrorLogLevelMessage, TEXT("next"));
    std::string quotes;
    for (int i = 0; i < 127; ++i)
        quotes += "\\\"";
    EXPECT_EQ(
        MessagesOf(capture),
        (std::vector<std::string>{std::string(127, 'a') + quotes + std::string(46, 'c'), "next"}));
}

TEST_F(ErrorLogJson, DroppedRecordsAreAnObjectToo) {
    capture.Hold();
    WriteMessage(kErrorLogLevelMessage, TEXT("first"));
    capture.WaitUntilHeld();
    WriteInPieces(WString(127, u'a') + WString(5, u'b'));
    for (size_t i = 0; i + 1 < kErrorLogQueueRecords; ++i)
        WriteMessage(kErrorLogLevelMessage, TEXT("x"));
    capture.Release();
    const std::vector<std::string> messages = MessagesOf(capture);
    ASSERT_EQ(messages.size(), 2 + kErrorLogQueueRecords);
    EXPECT_EQ(messages[1],
              "error log: 1 older record was dropped, the log could not be written as fast");
    EXPECT_EQ(messages[2], "... bbbbb");
}

TEST_F(ErrorLogJson, EachRecordHasTheFormatThatWasInForceWhenItCame) {
    WriteInPieces(WString(127, u'a'));
    capture.Use(ErrorLogVerbosity::kTraces, ErrorLogFormat::kText);
    WriteMessage(kErrorLogLevelMessage, TEXT("text"));
    capture.Use(ErrorLogVerbosity::kTraces, ErrorLogFormat::kJson);
    WriteMessage(kErrorLogLevelMessage, TEXT("json"));
    const std::vector<std::string> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].starts_with("{\"time\":") && lines[0].ends_with("aaa\"}")) << lines[0];
    EXPECT_EQ(lines[1], kStamp + " message " + ThisThread() + "text");
    EXPECT_EQ(WithoutZone(lines[2]), Start("message") + "\"message\":\"json\"}");
}

// What a tool that puts log files away does: it renames the file and has it opened again.
TEST(ErrorLogFileRenamed, IsWrittenToUntilItIsOpenedAgain) {
    const CTempFolder folder;
    const ErrorLogSettings settings = ToFile(folder.File("log"));
    ASSERT_TRUE(ErrorLogConfigure(settings, nullptr));
    WriteMessage(kErrorLogLevelMessage, TEXT("one"));
    ASSERT_TRUE(ErrorLogFlush(kFlush_ms));
    std::filesystem::rename(folder.File("log"), folder.File("old"));
    WriteMessage(kErrorLogLevelMessage, TEXT("two"));
    ASSERT_TRUE(ErrorLogConfigure(settings, nullptr));
    WriteMessage(kErrorLogLevelMessage, TEXT("three"));
    ASSERT_TRUE(ErrorLogFlush(kFlush_ms));
    const std::string start = kStamp + " message " + ThisThread();
    EXPECT_EQ(ReadAll(folder.File("old")), start + "one\n" + start + "two\n");
    EXPECT_EQ(ReadAll(folder.File("log")), start + "three\n");
    BeSilent();
}

}  // namespace
