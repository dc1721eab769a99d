// The default error log, through its public functions: how records read, what a slow destination
// costs, rotation, and what is left when the process ends.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mediaio/errorlog.h"
#include "mediaio/errorlog/sink.h"
#include "platform/platform.h"
#include "tests/errorlog/capture.h"
#include "tests/fakes/allocfault.h"

namespace {

using namespace logtest;

TEST(ErrorLogChainId, IsTheResultItself) {
    EXPECT_EQ(ErrorLogCreateChainId(static_cast<HRESULT>(0x80070005)), 0x80070005u);
    EXPECT_EQ(ErrorLogCreateChainId(0), 0u);
}

TEST(ErrorLogLine, ErrorHasPositionResultElapsedAndText) {
    CCapture capture;
    const auto hr = static_cast<HRESULT>(0x80070005);
    EXPECT_TRUE(ErrorLogWriteExW(hr, &kTime, 7, kErrorLogLevelError, TEXT("httpcmdhdlr.cpp"), 142,
                                 37, TEXT("Unable to create it"), ErrorLogCreateChainId(hr)));
    EXPECT_EQ(capture.Text(), kStamp + " error   " + ThisThread() +
                                  "httpcmdhdlr.cpp(142) 0x80070005 37 ms: Unable to create it\n");
}

TEST(ErrorLogLine, ChainOfAnotherSinkIsShown) {
    CCapture capture;
    ErrorLogWriteExW(static_cast<HRESULT>(0x80004005), &kTime, 7, kErrorLogLevelError,
                     TEXT("a.cpp"), 1, 0, TEXT("x"), 0x1234);
    EXPECT_EQ(TextsOf(capture).at(0), "a.cpp(1) 0x80004005 chain 0x00001234: x");
}

TEST(ErrorLogLine, EveryLevelHasItsWord) {
    CCapture capture;
    for (const DWORD level : {2u, 3u, 4u, 6u, 15u, 77u})
        EXPECT_TRUE(WriteMessage(level, TEXT("text")));
    const std::vector<std::string> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 6u);
    const char* const words[] = {"message", "warning", "error  ", "trace  ", "slow   ", "level77"};
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(lines[i], kStamp + " " + words[i] + " " + ThisThread() + "text");
}

TEST(ErrorLogLine, ScopeRecordNamesTheFunction) {
    CCapture capture;
    EXPECT_TRUE(
        ErrorLogWriteEntryPointW(0x80070057, &kTime, TEXT("CHttpCommandHandler::Initialize")));
    EXPECT_EQ(capture.Text(), kStamp + " scope   " + ThisThread() +
                                  "0x80070057 in CHttpCommandHandler::Initialize\n");
}

TEST(ErrorLogLine, OwnerRecordHasAllItsParts) {
    CCapture capture;
    EXPECT_TRUE(ErrorLogWriteOwnerInfoW(5, &kTime, TEXT("a"), TEXT("b"), TEXT("c"), TEXT("d"), -7));
    EXPECT_EQ(capture.Text(), kStamp + " owner   " + ThisThread() + "5: a, b, c, d, -7\n");
}

TEST(ErrorLogLine, OverlongOwnerTextsAreCut) {
    CCapture capture;
    const WString longText(300, u'x');
    EXPECT_TRUE(ErrorLogWriteOwnerInfoW(5, &kTime, longText.c_str(), longText.c_str(), nullptr,
                                        TEXT("d"), 1));
    EXPECT_EQ(TextsOf(capture).at(0), "5: " + std::string(255, 'x') + ", 1");
}

TEST(ErrorLogLine, NullPointersAreEmptyTexts) {
    CCapture capture;
    EXPECT_TRUE(ErrorLogWriteExW(0, nullptr, 7, kErrorLogLevelMessage, nullptr, 0, 0, nullptr, 0));
    EXPECT_TRUE(ErrorLogWriteEntryPointW(0, nullptr, nullptr));
    EXPECT_TRUE(ErrorLogWriteOwnerInfoW(0, nullptr, nullptr, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(TextsOf(capture), (std::vector<std::string>{"", "0x00000000 in ", "0: , 0"}));
}

TEST(ErrorLogText, ControlCharactersAreEscaped) {
    CCapture capture;
    WriteMessage(kErrorLogLevelMessage, TEXT("a\nb\r\tc\x1b[31m\x7f\x85 d"));
    WriteMessage(kErrorLogLevelMessage, TEXT("\u2028\u202e\u2066.\u00a0\u00fc"));
    EXPECT_EQ(TextsOf(capture),
              (std::vector<std::string>{"a\\nb\\r\\tc\\x1b[31m\\x7f\\x85 d",
                                        "\\u2028\\u202e\\u2066.\xC2\xA0\xC3\xBC"}));
}

TEST(ErrorLogText, PercentSignsAreText) {
    CCapture capture;
    WriteMessage(kErrorLogLevelMessage, TEXT("%s%n%9999x 100%"));
    EXPECT_EQ(TextsOf(capture).at(0), "%s%n%9999x 100%");
}

TEST(ErrorLogText, BecomesUtf8) {
    CCapture capture;
    WriteMessage(kErrorLogLevelMessage, TEXT("\u00e9 \u20ac \U0001F3AC"));
    EXPECT_EQ(TextsOf(capture).at(0), "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xAC");
}

TEST(ErrorLogText, IllFormedUtf16BecomesReplacementCharacters) {
    CCapture capture;
    const WCHAR text[] = {u'a', 0xD83C, u'b', 0xDFAC, u'c', 0xD83C, 0};
    WriteMessage(kErrorLogLevelMessage, text);
    EXPECT_EQ(TextsOf(capture).at(0),
              "a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD"
              "c\xEF\xBF\xBD");
}

TEST(ErrorLogPieces, BecomeOneLine) {
    CCapture capture;
    WriteInPieces(WString(127, u'a') + WString(127, u'b') + WString(46, u'c'));
    WriteMessage(kErrorLogLevelMessage, TEXT("next"));
    EXPECT_EQ(TextsOf(capture),
              (std::vector<std::string>{
                  std::string(127, 'a') + std::string(127, 'b') + std::string(46, 'c'), "next"}));
}

TEST(ErrorLogPieces, MessageOfFullPiecesIsNotHeldBack) {
    CCapture capture;
    WriteInPieces(WString(254, u'a'));
    EXPECT_EQ(TextsOf(capture), (std::vector<std::string>{std::string(254, 'a')}));
}

TEST(ErrorLogPieces, AnotherRecordEndsTheMessage) {
    CCapture capture;
    const SYSTEMTIME time = NewTime();
    WriteInPieces(WString(127, u'a'), time);
    ErrorLogWriteEntryPointW(1, &time, TEXT("f"));
    WriteInPieces(WString(127, u'b'), time);
    ErrorLogWriteExW(0, &time, 7, kErrorLogLevelWarning, TEXT(""), -1, 0, TEXT("another level"), 0);
    EXPECT_EQ(TextsOf(capture), (std::vector<std::string>{std::string(127, 'a'), "0x00000001 in f",
                                                          std::string(127, 'b'), "another level"}));
}

TEST(ErrorLogPieces, OfTwoThreadsDoNotMix) {
    CCapture capture;
    capture.Hold();
    WriteMessage(kErrorLogLevelMessage, TEXT("first"));
    capture.WaitUntilHeld();
    const SYSTEMTIME time = NewTime();
    WriteInPieces(WString(127, u'a'), time);
    std::thread([] { WriteInPieces(WString(127, u'x') + WString(5, u'y')); }).join();
    WriteInPieces(WString(5, u'b'), time);
    capture.Release();
    EXPECT_EQ(TextsOf(capture), (std::vector<std::string>{"first", std::string(127, 'x') + "yyyyy",
                                                          std::string(127, 'a') + "bbbbb"}));
}

TEST(ErrorLogPieces, RestOfADroppedPieceIsMarked) {
    CCapture capture;
    capture.Hold();
    WriteMessage(kErrorLogLevelMessage, TEXT("first"));
    capture.WaitUntilHeld();
    WriteInPieces(WString(127, u'a') + WString(5, u'b'));
    for (size_t i = 0; i + 1 < kErrorLogQueueRecords; ++i)
        WriteMessage(kErrorLogLevelMessage, TEXT("x"));
    capture.Release();
    const std::vector<std::string> texts = TextsOf(capture);
    ASSERT_EQ(texts.size(), 2 + kErrorLogQueueRecords);
    EXPECT_EQ(texts[1],
              "error log: 1 older record was dropped, the log could not be written as fast");
    EXPECT_EQ(texts[2], "... bbbbb");
}

TEST(ErrorLogPieces, PairSplitByTheCutIsWholeAgain) {
    CCapture capture;
    WriteInPieces(WString(126, u'a') + TEXT("\U0001F3AC") + WString(4, u'b'));
    EXPECT_EQ(TextsOf(capture), (std::vector<std::string>{std::string(126, 'a') + "\xF0\x9F\x8E\xAC"
                                                                                  "bbbb"}));
}

TEST(ErrorLogQueue, FullQueueDropsTheOldestAndSaysHowMany) {
    CCapture capture;
    capture.Hold();
    WriteMessage(kErrorLogLevelMessage, TEXT("first"));
    capture.WaitUntilHeld();
    constexpr size_t kExtra = 100;
    for (size_t i = 0; i < kErrorLogQueueRecords + kExtra; ++i) {
        const std::string digits = std::to_string(i);
        EXPECT_TRUE(
            WriteMessage(kErrorLogLevelMessage, WString(digits.begin(), digits.end()).c_str()));
    }
    EXPECT_FALSE(ErrorLogFlush(0)) << "the destination is held";
    capture.Release();
    const std::vector<std::string> texts = TextsOf(capture);
    ASSERT_EQ(texts.size(), 2 + kErrorLogQueueRecords);
    EXPECT_EQ(texts[0], "first");
    EXPECT_EQ(texts[1],
              "error log: 100 older records were dropped, the log could not be written as fast");
    for (size_t i = 0; i < kErrorLogQueueRecords; ++i)
        ASSERT_EQ(texts[2 + i], std::to_string(i + kExtra));
}

TEST(ErrorLogQueue, RecordsOfManyThreadsKeepTheirOrderAndTheirLines) {
    CCapture capture;
    constexpr int kThreads = 4;
    constexpr int kRecords = 400;  // all of them fit the queue
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kRecords; ++i) {
                const std::string text =
                    "thread " + std::to_string(t) + " record " + std::to_string(i);
                WriteMessage(kErrorLogLevelTrace, WString(text.begin(), text.end()).c_str());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    std::map<std::string, int> next;
    for (const std::string& text : TextsOf(capture)) {
        const size_t cut = text.find(" record ");
        ASSERT_NE(cut, std::string::npos) << text;
        ASSERT_EQ(text.substr(cut + 8), std::to_string(next[text.substr(0, cut)]++));
    }
    ASSERT_EQ(next.size(), size_t{kThreads});
    for (const auto& [thread, count] : next)
        EXPECT_EQ(count, kRecords) << thread;
}

TEST(ErrorLogQueue, TakingARecordAllocatesNothing) {
    CCapture capture;
    WriteMessage(kErrorLogLevelTrace, TEXT("starts the writer"));
    const uint64_t before = AllocationsOfThisThread();
    for (int i = 0; i < 1000; ++i) {
        WriteMessage(kErrorLogLevelTrace, TEXT("c1: handling CMD_KEEP_ALIVE, transId 1"));
        ErrorLogWriteEntryPointW(0x80004005, &kTime, TEXT("f"));
    }
    EXPECT_EQ(AllocationsOfThisThread(), before);
}

TEST(ErrorLogVerbosityLevels, LeaveOutWhatIsWider) {
    CCapture capture;
    const auto writeAll = [] {
        for (const DWORD level : {2u, 3u, 4u, 6u, 15u})
            EXPECT_TRUE(WriteMessage(level, TEXT("x"))) << "left out is not failed";
        ErrorLogWriteEntryPointW(1, &kTime, TEXT("f"));
    };
    const std::pair<ErrorLogVerbosity, size_t> cases[] = {{ErrorLogVerbosity::kErrors, 2},
                                                          {ErrorLogVerbosity::kWarnings, 4},
                                                          {ErrorLogVerbosity::kMessages, 5},
                                                          {ErrorLogVerbosity::kTraces, 6}};
    size_t expected = 0;
    for (const auto& [verbosity, lines] : cases) {
        capture.Use(verbosity);
        writeAll();
        expected += lines;
        EXPECT_EQ(capture.Lines().size(), expected);
    }
}

TEST(ErrorLogFile, IsAppendedTo) {
    const CTempFolder folder;
    const ErrorLogSettings settings = ToFile(folder.File("log"));
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(ErrorLogConfigure(settings, nullptr));
        WriteMessage(kErrorLogLevelMessage, round == 0 ? TEXT("one") : TEXT("two"));
    }
    ASSERT_TRUE(ErrorLogFlush(kFlush_ms));
    const std::string start = kStamp + " message " + ThisThread();
    EXPECT_EQ(ReadAll(settings.path), start + "one\n" + start + "two\n");
    BeSilent();
}

TEST(ErrorLogFile, RotatesAndKeepsSoMany) {
    const CTempFolder folder;
    ErrorLogSettings settings = ToFile(folder.File("log"));
    settings.rotate_bytes = 200;
    settings.rotateKeep = 2;
    ASSERT_TRUE(ErrorLogConfigure(settings, nullptr));
    const WString filler(100, u'x');
    for (const WCHAR digit : TEXT("01234567")) {
        if (digit == 0) break;
        WriteMessage(kErrorLogLevelMessage, (filler + digit).c_str());
        ASSERT_TRUE(ErrorLogFlush(kFlush_ms));
    }
    const auto endsWith = [&](const std::string& name, const std::string& end) {
        const std::string text = ReadAll(folder.File(name));
        return text.ends_with(end) && std::count(text.begin(), text.end(), '\n') == 1;
    };
    EXPECT_TRUE(endsWith("log", "x7\n"));
    EXPECT_TRUE(endsWith("log.1", "x6\n"));
    EXPECT_TRUE(endsWith("log.2", "x5\n"));
    EXPECT_FALSE(std::filesystem::exists(folder.File("log.3")));
    BeSilent();
}

TEST(ErrorLogFile, ThatCannotBeOpenedIsReportedAndChangesNothing) {
    CCapture capture;
    ErrorLogSettings settings;
    settings.path = "/nonexistent-folder/log";
    std::string problem;
    EXPECT_FALSE(ErrorLogConfigure(settings, &problem));
    EXPECT_EQ(problem,
              "cannot open the log file '/nonexistent-folder/log': No such file or directory");
    WriteMessage(kErrorLogLevelMessage, TEXT("still here"));
    EXPECT_EQ(TextsOf(capture).at(0), "still here");
}

// Writes many records in a process of its own, ends that with `end`, and counts the lines.
void ExpectAllWritten(void (*end)()) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* const kPathVariable = "ERRORLOG_EXIT_TEST";
    // The child runs the test again from its start: it must find the parent's folder.
    const char* const given = std::getenv(kPathVariable);
    std::unique_ptr<CTempFolder> folder;
    std::string path = given ? given : "";
    if (!given) {
        folder = std::make_unique<CTempFolder>();
        path = folder->File("log");
        setenv(kPathVariable, path.c_str(), 1);
    }
    constexpr int kRecords = 500;
    EXPECT_EXIT(
        {
            ErrorLogConfigure(ToFile(path), nullptr);
            for (int i = 0; i < kRecords; ++i)
                WriteMessage(kErrorLogLevelMessage, TEXT("last words"));
            end();
        },
        testing::ExitedWithCode(0), "");
    unsetenv(kPathVariable);
    const std::string text = ReadAll(path);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), kRecords);
}

TEST(ErrorLogExit, WritesWhatIsQueued) {
    ExpectAllWritten([] { std::exit(0); });
}

TEST(ErrorLogExit, NeedsNoExitHandlerAfterStop) {
    ExpectAllWritten([] {
        ErrorLogStop(2000);
        ErrorLogStop(2000);
        WriteMessage(kErrorLogLevelMessage, TEXT("too late, and harmless"));
        std::_Exit(0);
    });
}

}  // namespace
