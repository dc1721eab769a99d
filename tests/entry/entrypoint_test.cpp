// The logging scope, the throw routine and the catch convention, against an error log that keeps
// what it is given.
#include "zemhttpd/entry/entrypoint.h"

#include "tests/fakes/fakeerrorlog.h"
#include "tests/fakes/fakehttp.h"
#include "tests/fakes/slot.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <thread>

namespace {

// What the wrapped event-log calls saw, and what they answer.
struct EventLog {
    WString source, text;
    WORD type = 0;
    int registered = 0, reported = 0, deregistered = 0;
    bool registerFails = false, reportFails = false;
    DWORD eventId = 1, category = 1, dataSize = 1, strings = 0;
};
EventLog* g_eventLog = nullptr;
const HANDLE kLogHandle = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x4242));

}  // namespace

extern "C" {
HANDLE __wrap_RegisterEventSourceW(LPCWSTR, LPCWSTR source) {
    ++g_eventLog->registered;
    g_eventLog->source = source;
    return g_eventLog->registerFails ? nullptr : kLogHandle;
}
BOOL __wrap_ReportEventW(HANDLE log, WORD type, WORD category, DWORD event_id, PSID user,
                         WORD string_count, DWORD data_size, LPCWSTR* strings, LPVOID data) {
    EXPECT_EQ(log, kLogHandle);
    EXPECT_EQ(user, nullptr);
    EXPECT_EQ(data, nullptr);
    ++g_eventLog->reported;
    g_eventLog->type = type;
    g_eventLog->category = category;
    g_eventLog->eventId = event_id;
    g_eventLog->strings = string_count;
    g_eventLog->dataSize = data_size;
    g_eventLog->text = strings[0];
    return !g_eventLog->reportFails;
}
BOOL __wrap_DeregisterEventSource(HANDLE log) {
    EXPECT_EQ(log, kLogHandle);
    ++g_eventLog->deregistered;
    return TRUE;
}
}

namespace {

class EntryPoint : public ::testing::Test {
protected:
    EntryPoint() : log(FakeErrorLog()) {
        log.Reset();
        g_eventLog = &events;
    }
    ~EntryPoint() override {
        g_eventLog = nullptr;
        log.Reset();
    }
    WString Name(const CEntryPoint& scope) {
        CEntryPoint copy(scope);
        copy.LogEntryPoint();
        return log.Records(LogRecord::EntryPoint).back().text;
    }
    CFakeErrorLog& log;
    CFakeClock clock;
    EventLog events;
};

TEST_F(EntryPoint, NameIsKeptUpTo127Characters) {
    const WString name(200, u'n');
    EXPECT_EQ(Name(CZemEntry(name.c_str())), WString(127, u'n'));
    const WString fits(127, u'f');
    EXPECT_EQ(Name(CZemEntry(fits.c_str())), fits);
}

TEST_F(EntryPoint, NameIsAFormat) {
    EXPECT_EQ(Name(CEntryPoint(TEXT("pass %d of %s"), 3, TEXT("nine"))), TEXT("pass 3 of nine"));
    EXPECT_EQ(Name(CEntryPoint(TEXT("%s"), WString(300, u'x').c_str())), WString(127, u'x'));
    const WCHAR* const percent = TEXT("100%%");
    EXPECT_EQ(Name(CZemEntry(percent)), TEXT("100%"));
}

TEST_F(EntryPoint, APlainNameIsTakenAsItStands) {
    EXPECT_EQ(Name(CZemEntry(TEXT("CThis::That"))), TEXT("CThis::That"));
}

TEST_F(EntryPoint, FreshScopeHasNoResultNoLineAndNothingLogged) {
    CEntryPoint scope;
    EXPECT_EQ(scope.GetResult(), 0);
    EXPECT_FALSE(scope.Failed());
    EXPECT_FALSE(scope.IsLogged());
    EXPECT_EQ(scope.GetLine(), -1);
    EXPECT_EQ(scope.GetFile()[0], 0);
    EXPECT_EQ(Name(scope), TEXT(""));
}

TEST_F(EntryPoint, DestructionWritesNothing) {
    { CZemEntry scope(TEXT("f")); }
    EXPECT_TRUE(log.Empty());
}

TEST_F(EntryPoint, CopiesCarryEveryField) {
    clock.SetTick(1000);
    CZemEntry scope(TEXT("CThing::Do"));
    scope.LogError(E_ACCESSDENIED, TEXT("a.cpp"), 12, TEXT("x"));
    CEntryPoint copied(scope);
    CEntryPoint assigned;
    assigned = scope;
    log.Reset();
    clock.SetTick(1040);
    for (CEntryPoint* scopeCopy : {&copied, &assigned}) {
        EXPECT_EQ(scopeCopy->GetResult(), E_ACCESSDENIED);
        EXPECT_TRUE(scopeCopy->IsLogged());
        EXPECT_EQ(scopeCopy->GetLine(), 12);
        EXPECT_EQ(WString(scopeCopy->GetFile()), TEXT("a.cpp"));
        EXPECT_EQ(Name(*scopeCopy), TEXT("CThing::Do"));
        scopeCopy->LogError(E_FAIL, TEXT("b.cpp"), 1, TEXT("y"));
        EXPECT_EQ(log.Messages().back().category, 7u);
        EXPECT_EQ(log.Messages().back().elapsed_ms, 40u);
    }
}

TEST_F(EntryPoint, AssigningAResultThatIsNotNegativeNeitherThrowsNorLogs) {
    CZemEntry scope(TEXT("f"));
    scope = S_OK;
    EXPECT_EQ(scope.GetResult(), S_OK);
    scope = S_FALSE;
    EXPECT_EQ(scope.GetResult(), S_FALSE);
    scope = 0x7FFFFFFF;
    EXPECT_FALSE(scope.IsLogged());
    EXPECT_TRUE(log.Empty());
}

TEST_F(EntryPoint, AssigningANegativeResultWritesTheEntryPointAndThrowsIt) {
    CZemEntry scope(TEXT("CThing::Do"));
    HRESULT thrown = 0;
    try {
        scope = E_INVALIDARG;
    } catch (HRESULT hr) {
        thrown = hr;
    }
    EXPECT_EQ(thrown, E_INVALIDARG);
    EXPECT_EQ(scope.GetResult(), E_INVALIDARG);
    EXPECT_TRUE(scope.IsLogged());
    ASSERT_EQ(log.Records().size(), 1u);
    EXPECT_EQ(log.Records()[0].kind, LogRecord::EntryPoint);
    EXPECT_EQ(log.Records()[0].chainId, static_cast<DWORD>(E_INVALIDARG));
    EXPECT_EQ(log.Records()[0].text, TEXT("CThing::Do"));
    EXPECT_NE(log.Records()[0].time.wYear, 0);
}

TEST_F(EntryPoint, LogErrorWritesChainMessageAndEntryPointInThisOrder) {
    clock.SetTick(0xFFFFFFF0u);
    CZemEntry scope(TEXT("CThing::Do"));
    clock.SetTick(0x10);  // the tick counter wrapped
    log.chainId = [](HRESULT) { return 0x1234u; };
    EXPECT_EQ(
        scope.LogError(E_ACCESSDENIED, TEXT("thing.cpp"), 77, TEXT("%s: no %d"), TEXT("cl"), 5), 0);
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].kind, LogRecord::CreateChain);
    EXPECT_EQ(records[0].hr, E_ACCESSDENIED);
    EXPECT_EQ(records[1].kind, LogRecord::Ex);
    EXPECT_EQ(records[1].hr, E_ACCESSDENIED);
    EXPECT_EQ(records[1].category, 7u);
    EXPECT_EQ(records[1].level, 4u);
    EXPECT_EQ(records[1].file, TEXT("thing.cpp"));
    EXPECT_EQ(records[1].line, 77);
    EXPECT_EQ(records[1].elapsed_ms, 0x20u);
    EXPECT_EQ(records[1].text, TEXT("cl: no 5"));
    EXPECT_EQ(records[1].chainId, 0x1234u);
    EXPECT_EQ(records[2].kind, LogRecord::EntryPoint);
    EXPECT_EQ(records[2].chainId, 0x1234u);
    EXPECT_EQ(records[2].text, TEXT("CThing::Do"));
    EXPECT_EQ(scope.GetResult(), 0x1234) << "the result is the chain id";
    EXPECT_EQ(scope.GetLine(), 77);
}

TEST_F(EntryPoint, MessageOf300CharactersIsWrittenAs127And127And46) {
    CZemEntry scope(TEXT("f"));
    WString message;
    for (int i = 0; i < 300; ++i)
        message += static_cast<WCHAR>(u'a' + i % 26);
    scope.LogError(E_FAIL, TEXT("a.cpp"), 1, TEXT("%s"), message.c_str());
    const auto pieces = log.Records(LogRecord::Ex);
    ASSERT_EQ(pieces.size(), 3u);
    EXPECT_EQ(pieces[0].text, message.substr(0, 127));
    EXPECT_EQ(pieces[1].text, message.substr(127, 127));
    EXPECT_EQ(pieces[2].text, message.substr(254));
    for (const LogRecord& piece : pieces) {
        EXPECT_EQ(std::memcmp(&piece.time, &pieces[0].time, sizeof(piece.time)), 0);
        EXPECT_EQ(piece.chainId, pieces[0].chainId);
    }
}

TEST_F(EntryPoint, MessageOfTwiceThePieceIsWrittenAsTwoPieces) {
    CZemEntry scope(TEXT("f"));
    scope.Trace(TEXT("%s"), WString(254, u'x').c_str());
    EXPECT_EQ(log.Records(LogRecord::Ex).size(), 2u);
}

TEST_F(EntryPoint, MessageIsCutAt511Characters) {
    CZemEntry scope(TEXT("f"));
    scope.Trace(TEXT("%s"), WString(600, u'x').c_str());
    const auto pieces = log.Records(LogRecord::Ex);
    ASSERT_EQ(pieces.size(), 5u);
    EXPECT_EQ(pieces[4].text.size(), 3u);
}

TEST_F(EntryPoint, EmptyMessageWritesNoPieceButErrorsStillOpenAChain) {
    CZemEntry scope(TEXT("f"));
    scope.LogError(E_FAIL, TEXT("a.cpp"), 1, TEXT(""));
    EXPECT_TRUE(log.Records(LogRecord::Ex).empty());
    EXPECT_EQ(log.Records(LogRecord::CreateChain).size(), 1u);
    EXPECT_EQ(log.Records(LogRecord::EntryPoint).size(), 1u);
    EXPECT_EQ(scope.LogMsg(TEXT("")), 1);
    EXPECT_EQ(scope.Trace(TEXT("%s"), TEXT("")), 1);
    EXPECT_TRUE(log.Records(LogRecord::Ex).empty());
}

TEST_F(EntryPoint, FileIsRecordedWithoutDirectory) {
    CZemEntry scope(TEXT("f"));
    scope.LogError(E_FAIL, TEXT("d:\\src\\dir\\httpcmdhdlr"), 1, TEXT("m"));
    EXPECT_EQ(log.Messages().back().file, TEXT("httpcmdhdlr"));
    EXPECT_EQ(WString(scope.GetFile()), TEXT("httpcmdhdlr"));
    scope.LogError(E_FAIL, TEXT("plain"), 1, TEXT("m"));
    EXPECT_EQ(log.Messages().back().file, TEXT("plain"));
}

TEST_F(EntryPoint, FileIsCutAt31Characters) {
    CZemEntry scope(TEXT("f"));
    const WString file(40, u'q');
    scope.LogError(E_FAIL, file.c_str(), 1, TEXT("m"));
    EXPECT_EQ(log.Messages().back().file, WString(31, u'q'));
}

TEST_F(EntryPoint, LogErrorWritesAllPiecesEvenWhenTheLogRefuses) {
    log.written = [](const LogRecord&) { return FALSE; };
    CZemEntry scope(TEXT("f"));
    EXPECT_EQ(scope.LogError(E_FAIL, TEXT("a"), 1, TEXT("%s"), WString(300, u'x').c_str()), 0);
    EXPECT_EQ(log.Records(LogRecord::Ex).size(), 3u);
}

TEST_F(EntryPoint, MessagesStopAtTheFirstPieceThatIsRefused) {
    int pieces = 0;
    log.written = [&](const LogRecord&) { return ++pieces < 2; };
    CZemEntry scope(TEXT("f"));
    const WString text(500, u'x');
    EXPECT_EQ(scope.LogMsg(TEXT("%s"), text.c_str()), 0);
    EXPECT_EQ(pieces, 2);
    pieces = 0;
    EXPECT_EQ(scope.LogWarning(TEXT("%s"), text.c_str()), 0);
    EXPECT_EQ(scope.Trace(TEXT("x")), 0);
    EXPECT_EQ(scope.LogSlowOperation(1, TEXT("x")), 0);
}

TEST_F(EntryPoint, MessageWarningAndTraceCarryTheirLevels) {
    CZemEntry scope(TEXT("f"));
    EXPECT_EQ(scope.LogMsg(TEXT("m %d"), 1), 1);
    EXPECT_EQ(scope.LogWarning(TEXT("w %d"), 2), 1);
    EXPECT_EQ(scope.Trace(TEXT("t %d"), 3), 1);
    const auto records = log.Messages();
    ASSERT_EQ(records.size(), 3u);
    const DWORD levels[] = {2, 3, 6};
    const WString texts[] = {TEXT("m 1"), TEXT("w 2"), TEXT("t 3")};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(records[i].level, levels[i]);
        EXPECT_EQ(records[i].text, texts[i]);
        EXPECT_EQ(records[i].hr, 0);
        EXPECT_EQ(records[i].category, 7u);
        EXPECT_EQ(records[i].file, TEXT(""));
        EXPECT_EQ(records[i].line, -1);
        EXPECT_EQ(records[i].elapsed_ms, 0u);
        EXPECT_EQ(records[i].chainId, 0u);
    }
    EXPECT_FALSE(scope.IsLogged());
}

TEST_F(EntryPoint, SlowOperationCarriesItsTimeAndNoPlace) {
    CZemEntry scope(TEXT("f"));
    scope.LogError(E_FAIL, TEXT("a.cpp"), 9, TEXT("first"));
    log.Reset();
    EXPECT_EQ(scope.LogSlowOperation(777, TEXT("slow %s"), TEXT("one")), 1);
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 15u);
    EXPECT_EQ(records[0].category, 7u);
    EXPECT_EQ(records[0].file, TEXT(""));
    EXPECT_EQ(records[0].line, 0);
    EXPECT_EQ(records[0].elapsed_ms, 777u);
    EXPECT_EQ(records[0].chainId, 0u);
    EXPECT_EQ(records[0].text, TEXT("slow one"));
}

TEST_F(EntryPoint, OwnerInfoIsPassedOn) {
    CZemEntry scope(TEXT("f"));
    EXPECT_TRUE(scope.LogOwnerInfo(5, TEXT("a"), TEXT("b"), TEXT("c"), TEXT("d"), 9));
    const auto records = log.Records(LogRecord::OwnerInfo);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].id, 5);
    EXPECT_EQ(records[0].text, TEXT("a|b|c|d"));
    EXPECT_EQ(records[0].number, 9);
    log.written = [](const LogRecord&) { return FALSE; };
    EXPECT_FALSE(scope.LogOwnerInfo(5, TEXT("a"), TEXT("b"), TEXT("c"), TEXT("d"), 9));
}

TEST_F(EntryPoint, ThrowErrorLogsAndThrowsTheChainId) {
    log.chainId = [](HRESULT) { return 0x80AA0001u; };
    CZemEntry scope(TEXT("f"));
    HRESULT thrown = 0;
    try {
        ThrowError(scope, E_ACCESSDENIED, TEXT("x\\a.cpp"), 33, TEXT("%s: %u"), TEXT("me"), 7u);
    } catch (HRESULT hr) {
        thrown = hr;
    }
    EXPECT_EQ(thrown, static_cast<HRESULT>(0x80AA0001u));
    EXPECT_EQ(scope.GetResult(), thrown);
    EXPECT_TRUE(scope.IsLogged());
    const LogRecord error = log.Error(TEXT("me: 7"));
    EXPECT_EQ(error.hr, E_ACCESSDENIED);
    EXPECT_EQ(error.line, 33);
    EXPECT_EQ(error.file, TEXT("a.cpp"));
}

TEST_F(EntryPoint, WithTheDefaultLogThrownValueAndReturnValueAreTheHresult) {
    const auto function = [] {
        CZemEntry scope(TEXT("f"));
        try {
            ThrowError(scope, E_ACCESSDENIED, TEXT("a.cpp"), 1, TEXT("no"));
        } catch (...) {
            LogCaught(scope, TEXT("a.cpp"), 2);
        }
        return scope.GetResult();
    };
    EXPECT_EQ(function(), E_ACCESSDENIED);
    EXPECT_EQ(log.Messages().size(), 1u) << "logged once";
}

TEST_F(EntryPoint, PercentSignsOfAClientIdAreTextNotFormat) {
    CZemEntry scope(TEXT("f"));
    EXPECT_THROW(ThrowError(scope, E_FAIL, TEXT("a.cpp"), 1, TEXT("%s: gone"), TEXT("%s%n%9999x")),
                 HRESULT);
    EXPECT_EQ(log.Messages().back().text, TEXT("%s%n%9999x: gone"));
}

TEST_F(EntryPoint, CaughtHresultThatNobodyLoggedIsLoggedAtTheCatch) {
    CZemEntry scope(TEXT("CThing::Do"));
    try {
        throw static_cast<HRESULT>(E_OUTOFMEMORY);
    } catch (...) {
        LogCaught(scope, TEXT("own.cpp"), 123);
    }
    const LogRecord error = log.Error(TEXT("Unknown error"));
    EXPECT_EQ(error.kind, LogRecord::Ex);
    EXPECT_EQ(error.hr, E_OUTOFMEMORY);
    EXPECT_EQ(error.file, TEXT("own.cpp"));
    EXPECT_EQ(error.line, 123);
    EXPECT_EQ(scope.GetResult(), E_OUTOFMEMORY);
}

TEST_F(EntryPoint, CaughtHresultThatWasLoggedIsNotLoggedAgain) {
    CZemEntry scope(TEXT("f"));
    try {
        scope = E_HANDLE;
    } catch (...) {
        LogCaught(scope, TEXT("own.cpp"), 123);
    }
    EXPECT_TRUE(log.Messages().empty());
    EXPECT_EQ(log.Records().size(), 1u);
    EXPECT_EQ(scope.GetResult(), E_HANDLE);
}

TEST_F(EntryPoint, CaughtComErrorIsLoggedWithItsMessageAlways) {
    CZemEntry scope(TEXT("f"));
    scope.LogError(E_FAIL, TEXT("first.cpp"), 5, TEXT("first"));
    const _com_error error(static_cast<HRESULT>(0x80040205u));
    try {
        throw error;
    } catch (...) {
        LogCaught(scope, TEXT("own.cpp"), 123);
    }
    const LogRecord record = log.Error(TEXT("IDispatch error #5"));
    EXPECT_EQ(record.hr, static_cast<HRESULT>(0x80040205u));
    EXPECT_EQ(record.file, TEXT("first.cpp")) << "the scope's own place counts";
    EXPECT_EQ(record.line, 5);
    EXPECT_EQ(scope.GetResult(), static_cast<HRESULT>(0x80040205u));
}

TEST_F(EntryPoint, CaughtComErrorOfAFreshScopeNamesTheCatch) {
    CZemEntry scope(TEXT("f"));
    try {
        throw _com_error(E_ACCESSDENIED);
    } catch (...) {
        LogCaught(scope, TEXT("own.cpp"), 123);
    }
    const LogRecord record = log.Error(_com_error(E_ACCESSDENIED).ErrorMessage());
    EXPECT_EQ(record.kind, LogRecord::Ex);
    EXPECT_EQ(record.file, TEXT("own.cpp"));
    EXPECT_EQ(record.line, 123);
}

TEST_F(EntryPoint, AnythingElseCaughtIsEFailAlwaysLogged) {
    CZemEntry fresh(TEXT("f"));
    CZemEntry marked(TEXT("g"));
    marked.LogError(E_HANDLE, TEXT("first.cpp"), 5, TEXT("first"));
    log.Reset();
    for (CZemEntry* scope : {&fresh, &marked}) {
        try {
            throw std::runtime_error("x");
        } catch (...) {
            LogCaught(*scope, TEXT("own.cpp"), 123);
        }
        EXPECT_EQ(scope->GetResult(), E_FAIL);
    }
    const auto messages = log.Messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].text, TEXT("Unknown error"));
    EXPECT_EQ(messages[0].hr, E_FAIL);
    EXPECT_EQ(messages[0].file, TEXT("own.cpp"));
    EXPECT_EQ(messages[0].line, 123);
    EXPECT_EQ(messages[1].text, TEXT("Unknown error"));
    EXPECT_EQ(messages[1].file, TEXT("first.cpp"));
    EXPECT_EQ(messages[1].line, 5);
}

TEST_F(EntryPoint, ErrorNumbersBecomeHresults) {
    EXPECT_EQ(HRESULT_FROM_WIN32(0), 0);
    EXPECT_EQ(HRESULT_FROM_WIN32(5), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(HRESULT_FROM_WIN32(0x12345), static_cast<HRESULT>(0x80072345));
    EXPECT_EQ(HRESULT_FROM_WIN32(static_cast<DWORD>(E_FAIL)), E_FAIL);
}

TEST_F(EntryPoint, EventOfTypeErrorNamesPlaceAndCode) {
    CZemEntry scope(TEXT("CThing::Do"));
    EXPECT_EQ(scope.WriteEventLog(TEXT("ZEM"), EVENTLOG_ERROR_TYPE, E_ACCESSDENIED, TEXT("a.cpp"),
                                  12, TEXT("bad %d"), 3),
              S_OK);
    EXPECT_EQ(events.source, TEXT("ZEM"));
    EXPECT_EQ(events.type, 1);
    EXPECT_EQ(events.text, TEXT("bad 3\r\n  ->CThing::Do\r\na.cpp(12) : Error 0x80070005"));
    EXPECT_EQ(events.category, 0u);
    EXPECT_EQ(events.eventId, 0u);
    EXPECT_EQ(events.strings, 1u);
    EXPECT_EQ(events.dataSize, 0u);
    EXPECT_EQ(events.deregistered, 1);
    EXPECT_EQ(scope.GetResult(), E_ACCESSDENIED);
    EXPECT_TRUE(scope.IsLogged());
}

TEST_F(EntryPoint, EventOfAnotherTypeIsTheMessageAlone) {
    CZemEntry scope(TEXT("f"));
    EXPECT_EQ(scope.WriteEventLog(TEXT("ZEM"), EVENTLOG_INFORMATION_TYPE, S_OK, TEXT("a.cpp"), 12,
                                  TEXT("started")),
              S_OK);
    EXPECT_EQ(events.text, TEXT("started"));
    EXPECT_EQ(events.type, EVENTLOG_INFORMATION_TYPE);
}

TEST_F(EntryPoint, LongEventTextsAreCut) {
    CZemEntry scope(TEXT("f"));
    scope.WriteEventLog(TEXT("ZEM"), EVENTLOG_WARNING_TYPE, S_OK, TEXT("a"), 1, TEXT("%s"),
                        WString(2000, u'x').c_str());
    EXPECT_EQ(events.text, WString(1023, u'x'));
    scope.WriteEventLog(TEXT("ZEM"), EVENTLOG_ERROR_TYPE, E_FAIL, WString(3000, u'f').c_str(), 1,
                        TEXT("m"));
    EXPECT_EQ(events.text.size(), 2599u);
}

TEST_F(EntryPoint, EventFailuresAreEFail) {
    CZemEntry scope(TEXT("f"));
    events.reportFails = true;
    EXPECT_EQ(scope.WriteEventLog(TEXT("Z"), 4, S_OK, TEXT("a"), 1, TEXT("m")), E_FAIL);
    EXPECT_EQ(events.deregistered, 1);
    events.registerFails = true;
    EXPECT_EQ(scope.WriteEventLog(TEXT("Z"), 4, S_OK, TEXT("a"), 1, TEXT("m")), E_FAIL);
    EXPECT_EQ(events.reported, 1);
    EXPECT_EQ(events.deregistered, 1);
}

TEST_F(EntryPoint, SlotOrderIsFixed) {
    EXPECT_EQ(Slot(&CEntryPoint::LogEntryPoint), 0u);
    EXPECT_EQ(Slot(&CEntryPoint::LogError), 1u);
    EXPECT_EQ(Slot(&CEntryPoint::WriteEventLog), 2u);
    EXPECT_EQ(Slot(&CEntryPoint::LogMsg), 3u);
    EXPECT_EQ(Slot(&CEntryPoint::LogWarning), 4u);
    EXPECT_EQ(Slot(&CEntryPoint::LogOwnerInfo), 5u);
    EXPECT_EQ(Slot(&CEntryPoint::Trace), 6u);
    // The destructor takes two slots in this binary interface.
    EXPECT_EQ(Slot(&CZemEntry::LogSlowOperation), 9u);
}

struct Fields : CZemEntry {
    Fields() : CZemEntry(TEXT("f")) {}
    size_t At(const void* field) const {
        return static_cast<size_t>(static_cast<const BYTE*>(field) -
                                   reinterpret_cast<const BYTE*>(this));
    }
    void Check() const {
        EXPECT_EQ(At(m_function), 8u);
        EXPECT_EQ(At(m_file), 264u);
        EXPECT_EQ(At(&m_line), 328u);
        EXPECT_EQ(At(&m_reserved1), 332u);
        EXPECT_EQ(At(&m_startTick), 336u);
        EXPECT_EQ(At(&m_reserved2), 340u);
        EXPECT_EQ(At(&m_time), 344u);
        EXPECT_EQ(At(&m_logged), 360u);
        EXPECT_EQ(At(&m_result), 364u);
        EXPECT_EQ(At(&m_category), 368u);
        EXPECT_EQ(At(&m_chainId), 372u);
        EXPECT_EQ(sizeof(CZemEntry), 376u);
        EXPECT_EQ(m_reserved1, -1);
    }
};

TEST_F(EntryPoint, FieldsStandInTheirOrder) {
    Fields().Check();
}

TEST_F(EntryPoint, ScopesOfManyThreadsLogAtOnce) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 100; ++i) {
                CZemEntry scope(TEXT("f"));
                scope.Trace(TEXT("%d:%d %s"), t, i, WString(200, u'x').c_str());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(log.Messages().size(), 400u);
}

}  // namespace
