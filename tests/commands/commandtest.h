// A server with one joined client, for tests of command handlers: lays a command into a block, runs
// it through dispatch and keeps the block until the test ends, so that timer and buffer can be
// looked at.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "tests/fakes/serverfixture.h"
#include "zemhttpd/commands/commandtable.h"

class CCommandTest : public CServerFixture {
protected:
    CCommandTest() {
        EXPECT_EQ(Join(), S_OK);
        log.Reset();
    }
    ~CCommandTest() override {
        ReleaseTaken();
        FakeMedia().onCall = nullptr;
    }

    // Gives back the blocks of the requests so far: the pool has few.
    void ReleaseTaken() {
        for (CHttpXaction* xaction : m_taken)
            Pool().Release(xaction);
        m_taken.clear();
    }

    // Runs the request in a block that is taken for the rest of the test, unless an asynchronous
    // completion has it.
    HRESULT Run(const RequestSpec& given) {
        last = &Take();
        Lay(*last, given);
        last->SetStartTick(GetTickCount());
        const HRESULT hr = server.ProcessRequest(*last);
        if (hr != S_FALSE) m_taken.push_back(last);
        return hr;
    }
    HRESULT Run(DWORD code, const std::string& body, const std::string& clientId = "client") {
        RequestSpec given;
        given.clientId = clientId;
        given.entity = Command(kTransId, code, body);
        return Run(given);
    }
    // The command's body cut off at the end of the posted buffer: only the header fits.
    RequestSpec HeaderAtBufferEnd(DWORD code) {
        RequestSpec given;
        given.entity = Command(kTransId, code);
        given.entityOffset = CHttpXaction::RequestBufferSize() - given.entity.size();
        return given;
    }
    void ExpectGenericFailure(DWORD code, HRESULT hr) {
        ASSERT_GT(http.SentCount(), 0u);
        const SentResponse sent = http.Last();
        EXPECT_EQ(sent.status, 500);
        char reason[128];
        snprintf(reason, sizeof(reason), "Failed ZEM request code %u (hr = 0x%x), transId %u", code,
                 static_cast<unsigned>(hr), kTransId);
        EXPECT_EQ(sent.reason, reason);
        EXPECT_EQ(sent.Body(), Bytes(kTransId, code, DWORD{4}, hr));
    }
    std::vector<std::string> Traces() const {
        std::vector<std::string> texts;
        for (const WString& text : log.Texts(kErrorLogLevelTrace))
            texts.push_back(Utf8(text));
        return texts;
    }
    std::string TimerName() const { return Utf8(last->Timer().Name()); }
    std::vector<DWORD> Stages() const {
        std::vector<DWORD> stages;
        for (LONG i = 0; i < last->Timer().Count(); ++i)
            stages.push_back(static_cast<DWORD>(last->Timer().StageAt(i) >> 32));
        return stages;
    }

    static constexpr DWORD kTransId = 4711;
    CHttpXaction* last = nullptr;

private:
    std::vector<CHttpXaction*> m_taken;
};

// Names and type with which the bodies of the name forms begin.
inline std::string NameBlock(WStringView fileName, WStringView auxName = TEXT("v0"), LONG type = 1,
                             DWORD flags = 5) {
    return NameField(fileName) + NameField(auxName) + Bytes(type, flags);
}
