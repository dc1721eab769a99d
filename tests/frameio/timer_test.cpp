// The stage timer and its dump.
#include <gtest/gtest.h>

#include <thread>

#include "tests/fakes/fakeerrorlog.h"
#include "tests/fakes/fakehttp.h"
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/frameio/httpxactn.h"

namespace {

class Timer : public ::testing::Test {
protected:
    Timer() { log.Reset(); }
    ~Timer() override { log.Reset(); }
    CFakeErrorLog& log = FakeErrorLog();
    CFakeClock clock;
};

TEST_F(Timer, APlainTimerIsEmptyAndNeverSlow) {
    clock.SetTick(1000);
    {
        CZemTimer timer;
        EXPECT_EQ(timer.Count(), 0);
        EXPECT_STREQ(Utf8(timer.Name()).c_str(), "");
        timer.Start();
        EXPECT_EQ(timer.Count(), 1);
        clock.AdvanceTick(0x7FFFFFFF);
    }
    EXPECT_TRUE(log.Empty());
}

TEST_F(Timer, AMarkHoldsTickAndStage) {
    clock.SetTick(0x1234);
    CZemHttpdXactionTimer timer;
    timer.Start();
    clock.AdvanceTick(6);
    timer.MarkStage(kStagePreparingReply);
    EXPECT_EQ(timer.StageAt(0), 0x1234u);
    EXPECT_EQ(timer.StageAt(1), (5ull << 32) | 0x123A);
    EXPECT_EQ(timer.Count(), 2);
}

TEST_F(Timer, ThirtyMarksStoreStages0To24) {
    clock.SetTick(100);
    CZemHttpdXactionTimer timer;
    timer.Start();
    for (DWORD i = 1; i <= 30; ++i) {
        clock.AdvanceTick(1);
        timer.MarkStage(i % kStageCount);
    }
    EXPECT_EQ(timer.Count(), 31);
    EXPECT_EQ(static_cast<DWORD>(timer.StageAt(24)), 124u);
    clock.AdvanceTick(1000);
    timer.DumpIfSlow();
    EXPECT_EQ(log.Records(LogRecord::Ex).size(), 1u + 24u);
    EXPECT_EQ(timer.Count(), 0);
}

TEST_F(Timer, TheNameIsCutAt259Characters) {
    CZemTimer timer;
    const WString longName(400, TEXT('n'));
    timer.SetName(TEXT("%s"), longName.c_str());
    EXPECT_EQ(WString(timer.Name()), WString(259, TEXT('n')));
}

TEST_F(Timer, StartXactionNamesTheCommand) {
    clock.SetTick(5);
    CZemHttpdXactionTimer timer;
    timer.MarkStage(1);
    timer.StartXaction(TEXT("cl%sient"), TEXT("READ_FRAME token 0x1 pos 2"), 99);
    EXPECT_EQ(Utf8(timer.Name()),
              "ZemHttpdXaction cl%sient: READ_FRAME token 0x1 pos 2, transId 99");
    EXPECT_EQ(timer.Count(), 1);
    EXPECT_EQ(timer.StageAt(0), 5u);
    timer.Discard();
}

TEST_F(Timer, ALongNameIsCutWhereverItsEndFalls) {
    const WString client(250, TEXT('c'));
    for (const size_t units : {0u, 1u, 300u}) {
        CZemHttpdXactionTimer timer;
        timer.StartXaction(client.c_str(), WString(units, TEXT('d')).c_str(), 7);
        const WString whole = TEXT("ZemHttpdXaction ") + client + TEXT(": ") +
                              WString(units, TEXT('d')) + TEXT(", transId 7");
        EXPECT_EQ(WString(timer.Name()), whole.substr(0, 259));
        timer.Discard();
    }
}

TEST_F(Timer, FiveHundredMillisecondsAreNotSlow) {
    clock.SetTick(1000);
    CZemHttpdXactionTimer timer;
    timer.Start();
    timer.MarkStage(3);
    clock.AdvanceTick(500);
    timer.DumpIfSlow();
    EXPECT_TRUE(log.Empty());
    EXPECT_EQ(timer.Count(), 0);
}

TEST_F(Timer, FiveHundredAndOneMillisecondsAreDumpedStageByStage) {
    clock.SetTick(1000);
    CZemHttpdXactionTimer timer;
    timer.StartXaction(TEXT("c"), TEXT("d"), 1);
    clock.AdvanceTick(100);
    timer.MarkStage(kStageIssuingZemRequest);
    timer.MarkStage(kStageBeginIoCompletion);  // no time passed: no line
    clock.AdvanceTick(401);
    timer.MarkStage(kStageIoContextReleased);
    timer.DumpIfSlow();
    const auto records = log.Records(LogRecord::Ex);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].category, 5u);
    EXPECT_EQ(records[0].level, 15u);
    EXPECT_EQ(records[0].elapsed_ms, 501u);
    EXPECT_EQ(Utf8(records[0].text), "ZemHttpdXaction c: d, transId 1");
    EXPECT_EQ(records[0].file, TEXT(""));
    EXPECT_EQ(records[0].line, 0);
    EXPECT_EQ(records[0].hr, 0);
    EXPECT_EQ(records[0].chainId, static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(&timer)));
    EXPECT_EQ(records[1].category, 5u);
    EXPECT_EQ(records[1].level, 16u);
    EXPECT_EQ(records[1].elapsed_ms, 100u);
    EXPECT_EQ(Utf8(records[1].text), "  1100:IssuingZemRequest [prev 1000:Timer start]");
    EXPECT_EQ(records[2].elapsed_ms, 401u);
    EXPECT_EQ(Utf8(records[2].text), "  1501:IoContextReleased [prev 1100:BeginIoCompletion]");
    EXPECT_EQ(records[2].chainId, records[0].chainId);
}

TEST_F(Timer, TheStagesAreDatedBackToTheStart) {
    clock.SetTick(0);
    CZemHttpdXactionTimer timer;
    timer.Start();
    clock.AdvanceTick(2000);
    timer.MarkStage(3);
    clock.AdvanceTick(3000);
    timer.DumpIfSlow();
    const auto records = log.Records(LogRecord::Ex);
    ASSERT_EQ(records.size(), 2u);
    FILETIME head, stage;
    SystemTimeToFileTime(&records[0].time, &head);
    SystemTimeToFileTime(&records[1].time, &stage);
    const auto ticks = [](const FILETIME& time) {
        return (static_cast<LONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    };
    // The head is dated now, the stage 3000 ms earlier; the two clocks are read one after the
    // other.
    EXPECT_NEAR(static_cast<double>(ticks(head) - ticks(stage)) / 1e4, 3000, 50);
}

TEST_F(Timer, TheTickCounterMayWrap) {
    clock.SetTick(0xFFFFFFF0);
    CZemHttpdXactionTimer timer;
    timer.Start();
    clock.AdvanceTick(0x20);
    timer.MarkStage(3);
    clock.AdvanceTick(600);
    timer.DumpIfSlow();
    const auto records = log.Records(LogRecord::Ex);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].elapsed_ms, 632u);
    EXPECT_EQ(records[1].elapsed_ms, 32u);
}

TEST_F(Timer, DestructionDumps) {
    clock.SetTick(0);
    {
        CZemHttpdXactionTimer timer;
        timer.Start();
        clock.AdvanceTick(501);
    }
    EXPECT_EQ(log.Records(LogRecord::Ex).size(), 1u);
}

TEST_F(Timer, EveryStageHasItsName) {
    const char* const kNames[] = {"Timer start",
                                  "AcquiringIoContext",
                                  "ReadingReqData",
                                  "IssuingZemRequest",
                                  "BeginIoCompletion",
                                  "PreparingReply",
                                  "SendingZemReplyHdr",
                                  "ZemReplyHdrSendError",
                                  "ZemReplyHdrSent",
                                  "SendingFrameData",
                                  "FrameDataSendError",
                                  "FrameDataSent",
                                  "IssuingZemIoCompletion",
                                  "ZemIoCompletionEnd",
                                  "IoContextReleased"};
    clock.SetTick(0);
    CZemHttpdXactionTimer timer;
    timer.Start();
    for (DWORD stage = 0; stage < kStageCount; ++stage) {
        clock.AdvanceTick(100);
        timer.MarkStage(stage);
    }
    clock.AdvanceTick(100);
    timer.DumpIfSlow();
    const auto records = log.Records(LogRecord::Ex);
    ASSERT_EQ(records.size(), 16u);
    for (DWORD stage = 0; stage < kStageCount; ++stage) {
        const std::string text = Utf8(records[stage + 1].text);
        const std::string start =
            "  " + std::to_string(100 * (stage + 1)) + ":" + kNames[stage] + " [";
        EXPECT_EQ(text.substr(0, start.size()), start);
    }
}

TEST_F(Timer, MarksFromSeveralThreadsTakeDifferentSlots) {
    CZemTimer timer;
    timer.Start();
    std::thread first([&] {
        for (int i = 0; i < 12; ++i)
            timer.MarkStage(1);
    });
    std::thread second([&] {
        for (int i = 0; i < 12; ++i)
            timer.MarkStage(2);
    });
    first.join();
    second.join();
    EXPECT_EQ(timer.Count(), 25);
    int ones = 0, twos = 0;
    for (LONG i = 1; i < 25; ++i) {
        ones += (timer.StageAt(i) >> 32) == 1;
        twos += (timer.StageAt(i) >> 32) == 2;
    }
    EXPECT_EQ(ones, 12);
    EXPECT_EQ(twos, 12);
}

}  // namespace
