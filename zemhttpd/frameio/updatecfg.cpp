// Channel configuration: CMD_UPDATE_CFG carries an XML document for the client's channel,
// CMD_UPDATE_CFG_ATTR_STR one attribute. Workers, which have entered their apartment; the update of
// a document runs under the client table's lock, so that it never overlaps a join, leave or purge.
#include "zemhttpd/commands/filecommand.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr LONG kLineReceive = 2921;
constexpr LONG kCatchLineOnUpdate = 2950;
constexpr LONG kLineUnknownClient = 2967;
constexpr LONG kLineNoDocument = 2975;
constexpr LONG kLineLoad = 2983;
constexpr LONG kLineUpdate = 2996;
constexpr LONG kCatchLineDoUpdate = 3007;

constexpr DWORD kMaxXml_bytes = 16u << 20;
constexpr DWORD kSlowReceive_ms = 100;

// The XML document class, asked for in any place that can run it.
constexpr CLSID kXmlDocumentClass = {
    0x88D96A06, 0xF192, 0x11D4, {0xA6, 0x5F, 0x00, 0x40, 0x96, 0x32, 0x51, 0xE5}};
constexpr DWORD kAnyServer = 23;

class CDocument {
public:
    CDocument() { VariantInit(&m_variant); }
    ~CDocument() {
        VariantClear(&m_variant);
        if (m_document) m_document->Release();
    }
    CDocument(const CDocument&) = delete;
    CDocument& operator=(const CDocument&) = delete;

    HRESULT Create() {
        return CoCreateInstance(kXmlDocumentClass, nullptr, kAnyServer, IID_IXMLDOMDocument,
                                reinterpret_cast<void**>(&m_document));
    }
    // S_FALSE for a text that does not parse: the channel is the judge of the empty document then.
    HRESULT Load(const WCHAR* xml) {
        const BSTR text = SysAllocString(xml);
        if (!text) return E_OUTOFMEMORY;
        VARIANT_BOOL parsed = VARIANT_FALSE;
        const HRESULT hr = m_document->loadXML(text, &parsed);
        SysFreeString(text);
        return hr;
    }
    // The document as an IDispatch variant with a reference of its own.
    const VARIANT& Variant() {
        m_variant.vt = VT_DISPATCH;
        m_variant.pdispVal = m_document;
        m_document->AddRef();
        return m_variant;
    }

private:
    IXMLDOMDocument* m_document = nullptr;
    VARIANT m_variant;
};

class CTextVariant {
public:
    explicit CTextVariant(const WCHAR* text) {
        VariantInit(&m_variant);
        m_variant.vt = VT_BSTR;
        m_variant.bstrVal = SysAllocString(text);
        if (!m_variant.bstrVal) throw static_cast<HRESULT>(E_OUTOFMEMORY);
    }
    ~CTextVariant() { VariantClear(&m_variant); }
    CTextVariant(const CTextVariant&) = delete;
    CTextVariant& operator=(const CTextVariant&) = delete;
    const VARIANT& Get() const { return m_variant; }

private:
    VARIANT m_variant;
};

constexpr FileCommandText kUpdateAttr = {
    TEXT("CHttpCommandHandler::On_CMD_UPDATE_CFG_ATTR_STR"),
    2223,
    TEXT("CHttpCommandHandler::DoCmdUpdateCfgStrAttr"),
    2229,
    2236,
    TEXT("UPDATE_CFG_ATTR_STR"),
    TEXT("%s %s"),
    TEXT("%s: handling UPDATE_CFG_ATTR_STR, attr \"%s\", transId %u"),
    TEXT("%s: CMD_UPDATE_CFG_ATTR_STR OK, attr \"%s\", transId %u"),
    TEXT("%s: error CMD_UPDATE_CFG_ATTR_STR, attr \"%s\", transId %u"),
};

// Attribute name and value of the request, copied out.
struct AttributeRequest {
    WireOneName attribute = {};
    WCHAR value[kRequestBuffer_bytes / sizeof(WCHAR)];

    // False when the name is not terminated in its field or the value not within the posted buffer.
    bool ReadFrom(const ZemCommand& command) {
        if (!CopyFromBody(command, 0, attribute) || !IsTerminated(attribute.name)) return false;
        const size_t units = (command.bodyRoom_bytes - kAttrValueOffset) / sizeof(WCHAR);
        for (size_t i = 0; i < std::min(units, std::size(value)); ++i) {
            std::memcpy(&value[i], command.body + kAttrValueOffset + i * sizeof(WCHAR),
                        sizeof(WCHAR));
            if (value[i] == 0) return true;
        }
        return false;
    }
};

}  // namespace

HRESULT CHttpCommandHandler::On_CMD_UPDATE_CFG(const ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::On_CMD_UPDATE_CFG"));
    try {
        CHttpXaction& xaction = *command.xaction;
        xaction.Timer().StartXaction(command.clientId, TEXT("UPDATE_CFG"), command.transId);
        if (Tracing()) {
            scope.Trace(TEXT("%s: handling CMD_UPDATE_CFG, transId %u"), command.clientId,
                        command.transId);
        }
        if (command.expected_bytes < kZemHeader_bytes ||
            command.received_bytes < kZemHeader_bytes) {
            scope = E_INVALIDARG;
        }
        const DWORD size_bytes = command.expected_bytes - kZemHeader_bytes;
        if (size_bytes > kMaxXml_bytes) scope = E_OUTOFMEMORY;
        // Two zero bytes more than declared end the text.
        const size_t units = (size_bytes + 1) / sizeof(WCHAR) + 1;
        const std::unique_ptr<WCHAR[]> xml(new (std::nothrow) WCHAR[units]());
        if (!xml) scope = E_OUTOFMEMORY;
        BYTE* text = reinterpret_cast<BYTE*>(xml.get());
        ULONGLONG have = std::min<ULONGLONG>(
            {command.received_bytes - kZemHeader_bytes, size_bytes, command.bodyRoom_bytes});
        std::memcpy(text, command.body, have);

        xaction.Timer().MarkStage(kStageReadingReqData);
        while (have < size_bytes) {
            ULONG read_bytes = 0;
            ULONG error = HttpReceiveRequestEntityBody(
                m_requestQueue, xaction.RequestId(), 0, text + have,
                static_cast<ULONG>(size_bytes - have), &read_bytes, nullptr);
            if (error == NO_ERROR && read_bytes == 0) error = ERROR_HANDLE_EOF;
            if (error != NO_ERROR) {
                ThrowError(scope, HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineReceive,
                           TEXT("%s: Error receving remaining channel cfg XML data. Total XML sz "
                                "%d bytes, received %d bytes"),
                           command.clientId, size_bytes, static_cast<int>(have));
            }
            xaction.BumpReceiveCount();
            have += read_bytes;
        }
        const DWORD elapsed_ms = GetTickCount() - xaction.StartTick();
        if (elapsed_ms > kSlowReceive_ms) {
            scope.LogSlowOperation(
                elapsed_ms,
                TEXT("%s: Slow ZEM HTTP server config network read (%d reads), transId %u"),
                command.clientId, xaction.ReceiveCount(), command.transId);
        }
        BYTE* reply = nullptr;
        scope = GetZemReplyMsg(xaction, kStatusBody_bytes, ReplyCode(command.code), &reply);
        xaction.Timer().MarkStage(kStageIssuingZemRequest);
        scope.SetResult(DoCmdUpdateCfg(command, xml.get()));
        PutReply(reply, 0, scope.GetResult());
        xaction.Timer().MarkStage(kStagePreparingReply);
        if (Tracing()) {  // whatever the result
            scope.Trace(TEXT("%s: CMD_UPDATE_CFG OK, transId %u"), command.clientId,
                        command.transId);
        }
        SendZemHttpResponse(xaction, scope.GetResult(), kStatusReply_bytes, command.clientId);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineOnUpdate);
    }
    if (scope.Failed() && Tracing()) {
        scope.Trace(TEXT("%s: error CMD_UPDATE_CFG, transId %u"), command.clientId,
                    command.transId);
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdUpdateCfg(const ZemCommand& command, const WCHAR* xml) {
    CZemEntry scope(TEXT("CHttpCommandHandler::DoCmdUpdateCfg"));
    try {
        const CZemClientRef client = LookupClient(command.clientId, true);
        if (!client) {
            ThrowError(scope, E_INVALIDARG, kSourceCmdHdlr, kLineUnknownClient, kUnknownClient,
                       command.clientId, command.transId);
        }
        CDocument document;
        HRESULT hr = document.Create();
        if (FAILED(hr)) {
            ThrowError(scope, hr, kSourceCmdHdlr, kLineNoDocument,
                       TEXT("%s: Cound not create XMLDOMDocument, transId %u"), command.clientId,
                       command.transId);
        }
        hr = document.Load(xml);
        if (FAILED(hr)) {
            ThrowError(scope, hr, kSourceCmdHdlr, kLineLoad,
                       TEXT("%s: Error loading remote channel config XML, transId %u"),
                       command.clientId, command.transId);
        }
        scope.Trace(TEXT("%s: Updating channel configuration..."), command.clientId);
        {
            const CClientTable::CLock lock(m_clients);
            hr = client.Channel()->UpdateChannelConfigInt(document.Variant(), 0);
        }
        if (FAILED(hr)) {
            ThrowError(scope, hr, kSourceCmdHdlr, kLineUpdate,
                       TEXT("%s: Failed to update channel config, transId %u"), command.clientId,
                       command.transId);
        }
        scope.Trace(TEXT("%s: Channel configuration updated"), command.clientId);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDoUpdate);
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::On_CMD_UPDATE_CFG_ATTR_STR(const ZemCommand& command) {
    CFileCommand run(*this, command, kUpdateAttr);
    AttributeRequest request;
    const WCHAR* name = request.attribute.name;
    try {
        if (!request.ReadFrom(command)) {
            request.attribute.name[kNameUnits - 1] = 0;
            run.Check(E_INVALIDARG);
        }
        run.Begin(name);
        run.MarkIssuing();
        DoCmdUpdateCfgStrAttr(command, name, request.value);
        run.MarkPreparing();
        BYTE* reply = run.BuildReply(kStatusBody_bytes);
        run.PutStatus(reply);
        run.TraceOk(name);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.TraceError(name);
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdUpdateCfgStrAttr(const ZemCommand& command, const WCHAR* name,
                                                   const WCHAR* value) {
    return CallChannel(*this, kUpdateAttr, command, [&](CZemChannelIo& channel) -> HRESULT {
        const CTextVariant variant(value);
        return channel.UpdateChannelConfigAttr(value, name, variant.Get());
    });
}
