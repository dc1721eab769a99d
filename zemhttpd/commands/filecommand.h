// The shape that every file command has, written once: CFileCommand is what On_CMD_X does around
// its own few lines, and CallChannel what DoCmdX does around its one call into the media library.
// Worker threads only.
//
// The status in a reply is the result of building the reply, never that of the file operation:
// clients rely on it. What the operation gave is in the log, written by DoCmdX's scope.
#pragma once

#include "zemhttpd/commands/commandtable.h"
#include "zemhttpd/commands/wire.h"
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/httpcmdhdlr.h"

// The words of one command, and the line numbers by which its log records are told from others'.
// The formats of description and traces take the arguments of the step; the traces have the client
// ID before and the transId behind them.
struct FileCommandText {
    const WCHAR* scope;  // of On_CMD_X
    LONG catchLine;
    const WCHAR* innerScope;  // of DoCmdX
    LONG unknownClientLine;
    LONG innerCatchLine;
    const WCHAR* word;         // first argument of the description
    const WCHAR* description;  // what the stage timer is named after
    const WCHAR* handling;
    const WCHAR* ok;
    const WCHAR* error;
};

class CFileCommand {
public:
    CFileCommand(CHttpCommandHandler& handler, const ZemCommand& command,
                 const FileCommandText& text)
        : m_handler(handler), m_command(command), m_text(text), m_scope(text.scope) {}

    // Copies the request out. Throws E_INVALIDARG when a field would lie beyond the posted buffer;
    // names are checked by RequireName, before anything is done with them.
    template <class Record>
    void Read(Record& record) {
        if (!CopyFromBody(m_command, 0, record)) Check(E_INVALIDARG);
    }
    template <class Names>
    void RequireName(const Names& names) {
        if (!IsTerminated(names)) Check(E_INVALIDARG);
    }
    void Check(HRESULT hr) { m_scope = hr; }  // throws when negative

    // Names and starts the stage timer and traces the request.
    template <class... Args>
    void Begin(Args... args) {
        WCHAR description[kNameUnits];  // the timer's name keeps no more
        _snwprintf_s(description, kNameUnits, _TRUNCATE, m_text.description, m_text.word, args...);
        m_command.xaction->Timer().StartXaction(m_command.clientId, description, m_command.transId);
        Trace(m_text.handling, m_command.clientId, args..., m_command.transId);
    }

    void MarkIssuing() { m_command.xaction->Timer().MarkStage(kStageIssuingZemRequest); }
    void MarkPreparing() { m_command.xaction->Timer().MarkStage(kStagePreparingReply); }

    // The reply body, laid over the request body; throws when it cannot be had.
    BYTE* BuildReply(DWORD body_bytes) {
        BYTE* body = nullptr;
        Check(m_handler.GetZemReplyMsg(*m_command.xaction, body_bytes, ReplyCode(m_command.code),
                                       &body));
        m_body_bytes = body_bytes;
        return body;
    }
    void PutStatus(BYTE* replyBody) const { PutReply(replyBody, 0, m_scope.GetResult()); }

    template <class... Args>
    void TraceOk(Args... args) {
        Trace(m_text.ok, m_command.clientId, args..., m_command.transId);
    }
    void Send() {
        m_handler.SendZemHttpResponse(*m_command.xaction, m_scope.GetResult(),
                                      ULONGLONG{m_body_bytes} + kZemHeader_bytes,
                                      m_command.clientId);
    }

    // REQUIRES: called in a catch clause.
    void Caught() { LogCaught(m_scope, kSourceCmdHdlr, m_text.catchLine); }

    bool Failed() const { return m_scope.Failed(); }
    HRESULT GetResult() const { return m_scope.GetResult(); }

    // After the send or a caught failure: a failed command counts on the client's channel.
    void CountFailure() {
        if (!Failed()) return;
        const CZemClientRef client = m_handler.LookupClient(m_command.clientId, true);
        if (client) client.Channel()->BumpFailedRealTimeIoMsgs();
    }
    template <class... Args>
    void TraceError(Args... args) {
        if (Failed()) Trace(m_text.error, m_command.clientId, args..., m_command.transId);
    }

    template <class... Args>
    void Trace(const WCHAR* format, Args... args) {
        if (m_handler.Tracing()) m_scope.Trace(format, args...);
    }

private:
    CHttpCommandHandler& m_handler;
    const ZemCommand& m_command;
    const FileCommandText& m_text;
    CZemEntry m_scope;
    DWORD m_body_bytes = 0;
};

// Finds the client, touching it, waits until its answered writes are with the channel, and makes
// one call on that; the result is the scope's. The reference keeps the channel alive while
// call(CZemChannelIo&) runs, no lock is held.
template <class Call>
HRESULT CallChannel(CHttpCommandHandler& handler, const FileCommandText& text,
                    const ZemCommand& command, Call call) {
    CZemEntry scope(text.innerScope);
    try {
        const CZemClientRef client = handler.LookupClient(command.clientId, true);
        if (!client) {
            ThrowError(scope, E_INVALIDARG, kSourceCmdHdlr, text.unknownClientLine, kUnknownClient,
                       command.clientId, command.transId);
        }
        client.Record()->AwaitHandOver();
        scope = call(*client.Channel());
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, text.innerCatchLine);
    }
    return scope.GetResult();
}
