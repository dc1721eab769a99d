// The two configuration commands: how the text is gathered, what the channel is given, what the
// reply says.
#include <atomic>
#include <thread>

#include "tests/commands/commandtest.h"
#include "tests/fakes/allocfault.h"

namespace {

std::string Text(WStringView text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR)};
}

class UpdateCfg : public CCommandTest {
protected:
    UpdateCfg() { EXPECT_GE(CoInitializeEx(nullptr, COINIT_MULTITHREADED), 0); }
    ~UpdateCfg() override { CoUninitialize(); }

    // Keeps what the channel was given: the document's root element and text.
    void WatchDocument() {
        media.onCall = [this](const MediaCall& call) {
            if (call.op != "UpdateChannelConfigInt") return;
            calls.push_back(call);
            auto* dispatch = static_cast<IDispatch*>(const_cast<void*>(call.pointer));
            IXMLDOMDocument* document = nullptr;
            ASSERT_EQ(
                dispatch->QueryInterface(IID_IXMLDOMDocument, reinterpret_cast<void**>(&document)),
                S_OK);
            IXMLDOMElement* root = nullptr;
            if (document->get_documentElement(&root) == S_OK && root) {
                BSTR name = nullptr;
                root->get_tagName(&name);
                rootName = Utf8(name);
                SysFreeString(name);
                BSTR text = nullptr;
                root->get_text(&text);
                rootText = Utf8(text ? WStringView(text, SysStringLen(text)) : WStringView());
                SysFreeString(text);
                root->Release();
            }
            document->Release();
        };
    }
    void ExpectReply(HRESULT hr) {
        EXPECT_EQ(http.Last().Body(), Bytes(kTransId, DWORD{11}, DWORD{4}, hr));
        EXPECT_EQ(http.Last().status, hr == S_OK ? 200 : 500);
    }
    std::vector<MediaCall> calls;
    std::string rootName, rootText;
};

const WString kXml = TEXT("<channel rate='25'>on</channel>");

TEST_F(UpdateCfg, ADocumentThatCameWholeIsPassedOn) {
    SetTracing(true);
    WatchDocument();
    EXPECT_EQ(Run(14, Text(kXml) + std::string(2, '\0')), S_OK);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].variantType, VT_DISPATCH);
    EXPECT_EQ(calls[0].flags, 0u);
    EXPECT_EQ(rootName, "channel");
    EXPECT_EQ(rootText, "on");
    EXPECT_TRUE(http.BodyReads().empty());
    ExpectReply(S_OK);
    EXPECT_EQ(Traces(), (std::vector<std::string>{"client: handling CMD_UPDATE_CFG, transId 4711",
                                                  "client: Updating channel configuration...",
                                                  "client: Channel configuration updated",
                                                  "client: CMD_UPDATE_CFG OK, transId 4711"}));
    EXPECT_EQ(Stages(), (std::vector<DWORD>{0, 2, 3, 5, 6, 8}));
    EXPECT_EQ(TimerName(), "ZemHttpdXaction client: UPDATE_CFG, transId 4711");
}

TEST_F(UpdateCfg, TheRestOfTheTextIsReadFromTheNetwork) {
    WatchDocument();
    const std::string text = Text(kXml) + std::string(2, '\0');
    RequestSpec given;
    given.entity = Command(kTransId, 14, text.substr(0, 11), static_cast<DWORD>(text.size()));
    http.FeedBody(text.substr(11, 7));
    http.FeedBody(text.substr(18));
    EXPECT_EQ(Run(given), S_OK);
    EXPECT_EQ(rootName, "channel");
    EXPECT_EQ(last->ReceiveCount(), 2);
    EXPECT_EQ(http.BodyReads().at(0).asked_bytes, text.size() - 11);
    ExpectReply(S_OK);
}

TEST_F(UpdateCfg, ATextLongerThanThePostedBufferIsGathered) {
    WatchDocument();
    WString xml = TEXT("<c>");
    xml += WString(50000, TEXT('x'));
    xml += TEXT("</c>");
    const std::string text = Text(xml);
    RequestSpec given;
    given.entity = Command(kTransId, 14, text.substr(0, 2000), static_cast<DWORD>(text.size()));
    http.FeedBody(text.substr(2000));
    EXPECT_EQ(Run(given), S_OK);
    EXPECT_EQ(rootText, std::string(50000, 'x')) << "the text ends without a NUL of its own";
}

TEST_F(UpdateCfg, AnOddLengthEndsBehindItsLastByte) {
    WatchDocument();
    const std::string text = Text(TEXT("<a>z</a>")) + '\0';
    EXPECT_EQ(Run(14, text), S_OK);
    EXPECT_EQ(rootText, "z");
}

TEST_F(UpdateCfg, AtMostTheDeclaredBytesAreTaken) {
    WatchDocument();
    RequestSpec given;
    const std::string text = Text(TEXT("<a>z</a>"));
    given.entity =
        Command(kTransId, 14, text + Text(TEXT("garbage")), static_cast<DWORD>(text.size()));
    EXPECT_EQ(Run(given), S_OK);
    EXPECT_EQ(rootText, "z");
}

TEST_F(UpdateCfg, ATextThatDoesNotParseIsPassedOnAsAnEmptyDocument) {
    WatchDocument();
    EXPECT_EQ(Run(14, Text(TEXT("<not closed"))), S_OK);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(rootName, "");
    ExpectReply(S_OK);
}

TEST_F(UpdateCfg, AnEmptyTextIsPassedOn) {
    WatchDocument();
    EXPECT_EQ(Run(14, ""), S_OK);
    EXPECT_EQ(calls.size(), 1u);
}

TEST_F(UpdateCfg, AChannelsRefusalIsAnsweredYetTracedAsOk) {
    SetTracing(true);
    media.results["UpdateChannelConfigInt"] = E_INVALIDARG;
    EXPECT_EQ(Run(14, Text(kXml)), E_INVALIDARG);
    ExpectReply(E_INVALIDARG);
    EXPECT_EQ(http.Last().reason, "Failed 0x80070057");
    EXPECT_EQ(http.SentCount(), 2u) << "no generic failure on top";
    EXPECT_EQ(log.Error(TEXT("client: Failed to update channel config, transId 4711")).hr,
              E_INVALIDARG);
    EXPECT_EQ(Traces(), (std::vector<std::string>{"client: handling CMD_UPDATE_CFG, transId 4711",
                                                  "client: Updating channel configuration...",
                                                  "client: CMD_UPDATE_CFG OK, transId 4711",
                                                  "client: error CMD_UPDATE_CFG, transId 4711"}));
}

TEST_F(UpdateCfg, AnUnknownClientIsAnsweredWithTheFailure) {
    EXPECT_EQ(Run(14, Text(kXml), "ghost"), E_INVALIDARG);
    ExpectReply(E_INVALIDARG);
    EXPECT_EQ(log.Error(TEXT("ghost: Unknown client; transId 4711!")).hr, E_INVALIDARG);
}

TEST_F(UpdateCfg, TheUpdateRunsUnderTheClientLock) {
    // Another thread's look-up, begun during the update, gets through only after the update has
    // left the lock.
    bool updating = false;  // guarded by the client lock, if the update holds it
    bool sawUpdate = true;
    std::thread other;
    media.onCall = [&](const MediaCall& call) {
        if (call.op != "UpdateChannelConfigInt") return;
        updating = true;
        std::atomic<bool> begun{false};
        other = std::thread([&] {
            begun = true;
            begun.notify_one();
            const CClientTable::CLock lock(access.Clients());
            sawUpdate = updating;
        });
        begun.wait(false);
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();
        updating = false;
    };
    EXPECT_EQ(Run(14, Text(kXml)), S_OK);
    other.join();
    media.onCall = nullptr;
    EXPECT_FALSE(sawUpdate);
}

TEST_F(UpdateCfg, SizesBelowTheHeaderAreRefused) {
    RequestSpec given;
    given.entity = Command(kTransId, 14, "", 0xFFFFFFF8);  // 4 with the header's 12, in 32 bits
    EXPECT_EQ(Run(given), E_INVALIDARG);
    ExpectGenericFailure(14, E_INVALIDARG);
    given.entity = Command(kTransId, 14).substr(0, 11);
    EXPECT_EQ(Run(given), E_INVALIDARG);
    EXPECT_EQ(media.Count("UpdateChannelConfigInt"), 0u);
}

TEST_F(UpdateCfg, MoreThan16MiBAreOutOfMemory) {
    RequestSpec given;
    given.entity = Command(kTransId, 14, "", (16u << 20) + 1);
    EXPECT_EQ(Run(given), E_OUTOFMEMORY);
    ExpectGenericFailure(14, E_OUTOFMEMORY);
    EXPECT_TRUE(http.BodyReads().empty());
}

TEST_F(UpdateCfg, ABufferThatCannotBeHadIsOutOfMemory) {
    RequestSpec given;
    given.entity = Command(kTransId, 14, "", 5 << 20);
    FailNextNothrowAllocation(5 << 20);
    EXPECT_EQ(Run(given), E_OUTOFMEMORY);
    EXPECT_TRUE(NothrowAllocationFailed());
    ExpectGenericFailure(14, E_OUTOFMEMORY);
}

TEST_F(UpdateCfg, AReadErrorIsLoggedAndAnsweredByDispatch) {
    RequestSpec given;
    given.entity = Command(kTransId, 14, "abcd", 10);
    http.FeedBody("ef");
    http.FeedBodyError(ERROR_NETNAME_DELETED);
    const HRESULT hr = HRESULT_FROM_WIN32(ERROR_NETNAME_DELETED);
    EXPECT_EQ(Run(given), hr);
    EXPECT_EQ(log.Error(TEXT("client: Error receving remaining channel cfg XML data. Total XML sz "
                             "10 bytes, received 6 bytes"))
                  .hr,
              hr);
    ExpectGenericFailure(14, hr);
}

TEST_F(UpdateCfg, AReadThatBringsNothingDoesNotRepeatForEver) {
    RequestSpec given;
    given.entity = Command(kTransId, 14, "abcd", 10);
    http.FeedBodyError(NO_ERROR);
    EXPECT_EQ(Run(given), HRESULT_FROM_WIN32(ERROR_HANDLE_EOF));
}

TEST_F(UpdateCfg, ASlowReadIsReportedAbove100Milliseconds) {
    clock.SetTick(5000);
    for (const DWORD late_ms : {100u, 101u}) {
        CHttpXaction& xaction = Take();
        RequestSpec given;
        given.entity = Command(kTransId, 14, Text(kXml));
        Lay(xaction, given);
        xaction.SetStartTick(5000 - late_ms);
        EXPECT_EQ(server.ProcessRequest(xaction), S_OK);
        EXPECT_EQ(log.Count(kErrorLogLevelSlowOperation,
                            TEXT("client: Slow ZEM HTTP server config network read (0 reads), "
                                 "transId 4711")),
                  late_ms == 101 ? 1u : 0u);
        Pool().Release(&xaction);
    }
}

std::string Attribute(WStringView name, WStringView value) {
    return NameField(name) + Text(value) + std::string(2, '\0');
}

TEST_F(UpdateCfg, AnAttributeIsPassedWithItsValueTwice) {
    SetTracing(true);
    EXPECT_EQ(Run(26, Attribute(TEXT("frameRate"), TEXT("25"))), S_OK);
    const MediaCall call = media.Calls("UpdateChannelConfigAttr").at(0);
    EXPECT_EQ(call.name, TEXT("frameRate"));
    EXPECT_EQ(call.name2, TEXT("25"));
    EXPECT_EQ(call.variantType, VT_BSTR);
    EXPECT_EQ(call.variantText, TEXT("25"));
    EXPECT_EQ(http.Last().Body(), Bytes(kTransId, DWORD{23}, DWORD{4}, LONG{0}));
    EXPECT_EQ(Traces(),
              (std::vector<std::string>{
                  "client: handling UPDATE_CFG_ATTR_STR, attr \"frameRate\", transId 4711",
                  "client: CMD_UPDATE_CFG_ATTR_STR OK, attr \"frameRate\", transId 4711"}));
    EXPECT_EQ(TimerName(), "ZemHttpdXaction client: UPDATE_CFG_ATTR_STR frameRate, transId 4711");
    EXPECT_EQ(Stages(), (std::vector<DWORD>{0, 3, 5, 6, 8}));
}

TEST_F(UpdateCfg, AFailedAttributeIsAnsweredWithSuccessAndTracedAsOk) {
    SetTracing(true);
    media.results["UpdateChannelConfigAttr"] = E_INVALIDARG;
    EXPECT_EQ(Run(26, Attribute(TEXT("a"), TEXT("b"))), S_OK);
    EXPECT_EQ(http.Last().Body(), Bytes(kTransId, DWORD{23}, DWORD{4}, LONG{0}));
    EXPECT_EQ(Traces().back(), "client: CMD_UPDATE_CFG_ATTR_STR OK, attr \"a\", transId 4711");
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::DoCmdUpdateCfgStrAttr")), 1u);
}

TEST_F(UpdateCfg, AnAttributeOfAnUnknownClientIsLogged) {
    EXPECT_EQ(Run(26, Attribute(TEXT("a"), TEXT("b")), "ghost"), S_OK);
    EXPECT_EQ(log.Error(TEXT("ghost: Unknown client; transId 4711!")).hr, E_INVALIDARG);
}

TEST_F(UpdateCfg, AnAttributeWithoutAValueHasTheEmptyOne) {
    EXPECT_EQ(Run(26, NameField(TEXT("a"))), S_OK);
    EXPECT_EQ(media.Calls("UpdateChannelConfigAttr").at(0).name2, TEXT(""));
}

TEST_F(UpdateCfg, AnAttributeNameThatFillsItsFieldIsRefused) {
    EXPECT_EQ(Run(26, std::string(520, 'x') + Text(TEXT("v"))), E_INVALIDARG);
    ExpectGenericFailure(26, E_INVALIDARG);
    EXPECT_EQ(media.Count("UpdateChannelConfigAttr"), 0u);
}

TEST_F(UpdateCfg, AnAttributeValueThatFillsTheBufferIsRefused) {
    RequestSpec given;
    given.entity = Command(kTransId, 26, NameField(TEXT("a")) + std::string(200, 'v'));
    given.entityOffset = CHttpXaction::RequestBufferSize() - given.entity.size();
    EXPECT_EQ(Run(given), E_INVALIDARG);
    ExpectGenericFailure(26, E_INVALIDARG);
    given.entity[given.entity.size() - 1] = 0;
    given.entity[given.entity.size() - 2] = 0;
    EXPECT_EQ(Run(given), S_OK);
    EXPECT_EQ(media.Calls("UpdateChannelConfigAttr").at(0).name2.size(), 99u);
}

TEST_F(UpdateCfg, WithoutAnApartmentTheDocumentCannotBeCreated) {
    CoUninitialize();
    EXPECT_EQ(Run(14, Text(kXml)), CO_E_NOTINITIALIZED);
    ExpectReply(CO_E_NOTINITIALIZED);
    EXPECT_EQ(log.Error(TEXT("client: Cound not create XMLDOMDocument, transId 4711")).hr,
              CO_E_NOTINITIALIZED);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
}

TEST_F(UpdateCfg, TheUpdateItselfIsTracedWithoutTheFlag) {
    EXPECT_EQ(Run(14, Text(kXml)), S_OK);
    EXPECT_EQ(Traces(), (std::vector<std::string>{"client: Updating channel configuration...",
                                                  "client: Channel configuration updated"}));
}

TEST_F(UpdateCfg, Exactly16MiBAreTaken) {
    constexpr size_t kMax_bytes = size_t{16} << 20;
    const WString xml = TEXT("<c>") + WString(kMax_bytes / 2 - 7, TEXT('x')) + TEXT("</c>");
    const std::string text = Text(xml);
    ASSERT_EQ(text.size(), kMax_bytes);
    size_t length = 0;
    media.onCall = [&](const MediaCall&) { length = http.BodyReads().at(0).asked_bytes; };
    RequestSpec given;
    given.entity = Command(kTransId, 14, text.substr(0, 8), static_cast<DWORD>(text.size()));
    http.FeedBody(text.substr(8));
    EXPECT_EQ(Run(given), S_OK);
    EXPECT_EQ(media.Count("UpdateChannelConfigInt"), 1u);
    EXPECT_EQ(length, kMax_bytes - 8);
    ExpectReply(S_OK);
}

TEST_F(UpdateCfg, AReplyThatCannotBeBuiltLeavesTheChannelAlone) {
    RequestSpec given;
    given.entity = Command(kTransId, 14, "", 4);  // the header fills the posted buffer's end
    given.entityOffset = CHttpXaction::RequestBufferSize() - given.entity.size();
    http.FeedBody("abcd");
    EXPECT_EQ(Run(given), E_INVALIDARG);
    EXPECT_EQ(media.Count("UpdateChannelConfigInt"), 0u);
    EXPECT_EQ(http.SentCount(), 2u);
    EXPECT_EQ(http.Last().status, 500);
    EXPECT_EQ(http.Last().reason, "Error 0x80070057");
}

TEST_F(UpdateCfg, ADocumentThatFindsNoMemoryIsLoggedAndAnswered) {
    // Fails one allocation after the other until the one comes that the document's text needs.
    const WString message = TEXT("client: Error loading remote channel config XML, transId 4711");
    for (uint64_t skipped = 0; skipped < 100 && !log.Has(kErrorLogLevelError, message); ++skipped) {
        CHttpXaction& xaction = Take();
        RequestSpec given;
        given.entity = Command(kTransId, 14, Text(kXml));
        Lay(xaction, given);
        FailAllocationAfter(skipped);
        server.ProcessRequest(xaction);
        AllocationFailed();
        Pool().Release(&xaction);
    }
    EXPECT_EQ(log.Error(message).hr, E_OUTOFMEMORY);
    ExpectReply(E_OUTOFMEMORY);
    EXPECT_EQ(media.Count("UpdateChannelConfigInt"), 0u);
}

}  // namespace
