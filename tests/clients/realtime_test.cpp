// The real-time client: who has the status, how it moves, and what the command answers.
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/entry/entrypoint.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>

namespace {

constexpr DWORD kTrace = kErrorLogLevelTrace;

class RealTime : public CServerFixture {
protected:
    RealTime() { clock.SetTick(1000); }
    HRESULT Switch(const std::string& clientId, DWORD transId = 5) {
        const HRESULT hr = Post(Command(transId, 18), clientId);
        EXPECT_EQ(http.Last().status, 200);
        EXPECT_EQ(http.Last().Body(), Bytes(transId, DWORD{15}, DWORD{4}, DWORD{0}));
        return hr;
    }
    // A command that goes straight to its second half, on any thread.
    static ZemCommand Bare(const WCHAR* clientId) {
        ZemCommand command{};
        command.clientId = clientId;
        return command;
    }
    WString Id() {
        WCHAR id[kNameUnits];
        access.RealTimeClient().Get(id);
        return id;
    }
    std::vector<bool> Switches() {
        std::vector<bool> switches;
        for (const MediaCall& call : media.Calls("SetIoRealTime"))
            switches.push_back(call.boolean);
        return switches;
    }
};

TEST_F(RealTime, CommandInBytes) {
    EXPECT_EQ(Post(std::string("\x2D\0\0\0\x12\0\0\0\0\0\0\0", 12)), S_OK);
    EXPECT_EQ(http.Last().Body(), std::string("\x2D\0\0\0\x0F\0\0\0\x04\0\0\0\0\0\0\0", 16));
}

TEST_F(RealTime, UnknownClientIsToldOkAndChangesNothing) {
    Join("first");
    log.Reset();
    EXPECT_EQ(Switch("nobody"), S_OK);
    EXPECT_EQ(log.Error(TEXT("nobody: Unknown client; transId 5!")).hr, E_INVALIDARG);
    EXPECT_EQ(Id(), TEXT("first"));
    EXPECT_EQ(Switches(), (std::vector<bool>{true}));
}

TEST_F(RealTime, TakingOverDisablesTheOldClient) {
    clock.SetTime(100);
    Join("first");
    Join("second");
    log.Reset();
    clock.SetTime(140);
    EXPECT_EQ(Switch("second"), S_OK);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("second: Disabling real-time IO for first..."),
                                    TEXT("second: Real-time IO disabled for first"),
                                    TEXT("second: Enabling real-time IO for second..."),
                                    TEXT("second: Real-time IO enabled for second")}));
    EXPECT_EQ(log.Messages().size(), 4u);
    EXPECT_EQ(Id(), TEXT("second"));
    EXPECT_EQ(Switches(), (std::vector<bool>{true, false, true}));
    EXPECT_EQ(media.Calls("SetIoRealTime")[1].self, static_cast<CZemIo*>(Channel(TEXT("first"))));
    EXPECT_EQ(media.Calls("SetIoRealTime")[2].self, static_cast<CZemIo*>(Channel(TEXT("second"))));
    EXPECT_EQ(server.LookupClient(TEXT("first"), false).Record()->lastRequestTime, 140)
        << "the old client is touched";
}

TEST_F(RealTime, ClientThatHasItGoesThroughTheEnablingAgain) {
    Join("first");
    log.Reset();
    Switch("first");
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("first: Enabling real-time IO for first..."),
                                    TEXT("first: Real-time IO enabled for first")}));
    EXPECT_EQ(Switches(), (std::vector<bool>{true, true}));
}

TEST_F(RealTime, IdsThatDifferInCaseAreOneHere) {
    Join("ABC");
    Join("abc");
    log.Reset();
    Switch("abc");
    EXPECT_EQ(log.Texts(kTrace).size(), 2u) << "no disabling";
    EXPECT_EQ(Id(), TEXT("abc"));
}

TEST_F(RealTime, OldClientThatIsNotInTheTableIsAmbiguous) {
    Join("second");
    server.SetRealTimeIoClient(TEXT("ghost"));
    log.Reset();
    EXPECT_EQ(Switch("second"), S_OK);
    EXPECT_TRUE(log.Has(kTrace, TEXT("second: Disabling real-time IO for ghost...")));
    EXPECT_EQ(log.Error(TEXT("second: Ambiguous old real-time client 'ghost': cannot switch "
                             "real-time mode; transId 5!"))
                  .hr,
              E_UNEXPECTED);
    EXPECT_EQ(Id(), TEXT("ghost"));
    EXPECT_EQ(Switches().size(), 1u);
}

// A client leaves in two steps: out of the table, then, with the table free again, out of the
// real-time place. What a switch in between does is the same for every one: it fails, once.
TEST_F(RealTime, SwitchWhileTheOldClientLeavesIsAmbiguousUntilItHasLeft) {
    Join("first");
    Join("second");
    log.Reset();
    bool reached = false;
    log.written = [&](const LogRecord& record) {
        if (record.text != TEXT("first: Relinquishing real-time status...")) return TRUE;
        reached = true;
        EXPECT_EQ(Switch("second"), S_OK);
        return TRUE;
    };
    EXPECT_EQ(Post(Command(1, 16), "first"), S_OK);
    EXPECT_TRUE(reached);
    EXPECT_EQ(log.Texts(kErrorLogLevelError),
              (std::vector<WString>{TEXT("second: Ambiguous old real-time client 'first': cannot "
                                         "switch real-time mode; transId 5!")}));
    EXPECT_EQ(Id(), TEXT("")) << "nobody has the status when the client has left";
    log.Reset();
    EXPECT_EQ(Switch("second"), S_OK);
    EXPECT_TRUE(log.Texts(kErrorLogLevelError).empty());
    EXPECT_EQ(Id(), TEXT("second"));
}

TEST_F(RealTime, LeavingTakesTheStatusFromNobodyElse) {
    Join("first");
    Join("second");
    std::latch switching(1), leaving(1), switched(1);
    media.onCall = [&](const MediaCall& call) {
        if (call.op != "SetIoRealTime" || call.boolean) return;
        switching.count_down();  // the old client has been found
        leaving.wait();
    };
    log.Reset();
    log.written = [&](const LogRecord& record) {
        if (record.text == TEXT("first: Relinquishing real-time status...")) {
            leaving.count_down();
            switched.wait();
        }
        return TRUE;
    };
    std::thread leave([&] {
        switching.wait();
        server.DoCmdLeave(Bare(TEXT("first")));
    });
    EXPECT_EQ(server.DoCmdSetIoRealTime(Bare(TEXT("second"))), S_OK);
    switched.count_down();
    leave.join();
    log.written = nullptr;
    media.onCall = nullptr;
    EXPECT_EQ(Id(), TEXT("second"));
    EXPECT_EQ(Channel(TEXT("first")), nullptr);
    EXPECT_TRUE(log.Texts(kErrorLogLevelError).empty());
}

TEST_F(RealTime, SenderIsRecordedEvenWhenItsChannelRefuses) {
    Join("first");
    Join("second");
    media.results["SetIoRealTime"] = E_FAIL;
    log.Reset();
    Switch("second");
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("second: Disabling real-time IO for first..."),
                                    TEXT("second: Real-time IO disabled for first"),
                                    TEXT("second: Enabling real-time IO for second...")}));
    EXPECT_EQ(Id(), TEXT("second"));
    EXPECT_TRUE(log.Texts(kErrorLogLevelError).empty());
}

TEST_F(RealTime, OldClientThatRefusesToGiveItUpLosesItAllTheSame) {
    Join("first");
    Join("second");
    media.onCall = [this](const MediaCall& call) {
        if (call.op == "SetIoRealTime") media.results[call.op] = call.boolean ? S_OK : E_FAIL;
    };
    log.Reset();
    EXPECT_EQ(Switch("second"), S_OK);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("second: Disabling real-time IO for first..."),
                                    TEXT("second: Real-time IO disabled for first"),
                                    TEXT("second: Enabling real-time IO for second..."),
                                    TEXT("second: Real-time IO enabled for second")}));
    EXPECT_TRUE(log.Texts(kErrorLogLevelError).empty());
    EXPECT_EQ(Id(), TEXT("second"));
    EXPECT_EQ(Switches(), (std::vector<bool>{true, false, true}));
}

TEST_F(RealTime, SenderThatLeavesDuringTheSwitchIsNotRecorded) {
    Join("first");
    Join("second");
    bool left = false;
    media.onCall = [&](const MediaCall& call) {
        if (call.op != "SetIoRealTime" || !call.boolean || left) return;
        left = true;
        Post(Command(9, 16), "second");
        EXPECT_EQ(Channel(TEXT("second")), nullptr);
    };
    Switch("second");
    EXPECT_TRUE(left);
    EXPECT_EQ(Id(), TEXT("")) << "a departed client would keep the status for ever";
    EXPECT_EQ(media.LiveChannels(), 1);
    media.onCall = nullptr;
    Join("third");
    EXPECT_EQ(Id(), TEXT("third"));
}

TEST_F(RealTime, SenderThatLeavesAndRejoinsDuringTheSwitchIsRecorded) {
    Join("first");
    Join("second");
    bool left = false;
    media.onCall = [&](const MediaCall& call) {
        if (call.op != "SetIoRealTime" || !call.boolean || left) return;
        left = true;
        Post(Command(9, 16), "second");
        Join("second");
    };
    Switch("second");
    EXPECT_EQ(Id(), TEXT("second"));
}

TEST_F(RealTime, IdIsClearedOnlyWhileItIsThatOne) {
    CRealTimeClient& client = access.RealTimeClient();
    client.Set(TEXT("Abc"));
    client.ClearIf(TEXT("abcd"));
    EXPECT_EQ(Id(), TEXT("Abc"));
    client.ClearIf(TEXT("aBC"));
    EXPECT_EQ(Id(), TEXT(""));
}

TEST_F(RealTime, IdIsCopiedIntoTheCallersBuffer) {
    WCHAR id[kNameUnits] = {u'x'};
    EXPECT_FALSE(server.GetRealTimeIoClient(id));
    EXPECT_EQ(id[0], 0);
    Join("first");
    EXPECT_TRUE(server.GetRealTimeIoClient(id));
    EXPECT_EQ(WString(id), TEXT("first"));
}

TEST_F(RealTime, WithoutARealTimeClientTheSenderTakesIt) {
    Join("first");
    server.SetRealTimeIoClient(TEXT(""));
    Switch("first");
    EXPECT_EQ(Id(), TEXT("first"));
}

TEST_F(RealTime, AfterTheRealTimeClientLeavesTheNextJoinTakesIt) {
    Join("first");
    Join("second");
    Post(Command(1, 16), "first");
    EXPECT_EQ(Id(), TEXT(""));
    Join("third");
    EXPECT_EQ(Id(), TEXT("third"));
}

TEST_F(RealTime, InFileServerModeTheCommandDoesNothing) {
    Join("first");
    access.FileServerMode() = 1;
    log.Reset();
    EXPECT_EQ(Switch("first"), S_OK);
    EXPECT_EQ(Switch("nobody"), S_OK);
    EXPECT_TRUE(log.Empty());
    EXPECT_EQ(Switches().size(), 1u);
    EXPECT_EQ(server.SetRealTimeIoClient(TEXT("x")), S_OK);
    EXPECT_EQ(Id(), TEXT("first"));
    access.FileServerMode() = 0;
}

TEST_F(RealTime, NoIdIsInvalid) {
    EXPECT_EQ(server.SetRealTimeIoClient(nullptr), E_INVALIDARG);
}

TEST_F(RealTime, CommandIsTracedAsCmWhenTheFlagIsSet) {
    access.FileServerMode() = 1;
    SetTracing(true);
    Switch("me", 9);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("me: handling CM_SET_IO_REAL_TIME, transId 9"),
                                    TEXT("me: CM_SET_IO_REAL_TIME OK, transId 9")}));
    log.Reset();
    RequestSpec given;
    given.entity = Command(4, 18);
    given.entityOffset = 4096 - 12;
    Process(given);
    EXPECT_TRUE(log.Has(kTrace, TEXT("client: error CM_SET_IO_REAL_TIME, transId 4")));
    access.FileServerMode() = 0;
}

TEST_F(RealTime, CommandMarksItsStages) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(1, 18);
    Lay(xaction, given);
    std::vector<DWORD> stages;
    http.onSend = [&](const SentResponse&) {
        for (LONG i = 0; i < xaction.Timer().Count(); ++i)
            stages.push_back(static_cast<DWORD>(xaction.Timer().StageAt(i) >> 32));
    };
    server.ProcessRequest(xaction);
    EXPECT_EQ(stages, (std::vector<DWORD>{0, 3, 5, 6}));
    EXPECT_EQ(WString(xaction.Timer().Name()),
              TEXT("ZemHttpdXaction client: SET_IO_REAL_TIME, transId 1"));
    Pool().Release(&xaction);
}

}  // namespace
