// Questions about a media file: its elementary-stream descriptor, descriptors of a run of frames,
// its two marks; each by token and by name. These commands lay out the reply before they call the
// library and write its answer into the reply body, over the request: what the library leaves alone
// stays as the client sent it. Worker threads.
#include "zemhttpd/commands/filecommand.h"

#include <algorithm>
#include <memory>
#include <new>

namespace {

constexpr FileCommandText kFileInfo = {
    TEXT("CHttpCommandHandler::On_CMD_GET_FILE_INFO"),
    1823,
    TEXT("CHttpCommandHandler::DoCmdGetFileInfo"),
    1829,
    1836,
    TEXT("GET_FILE_INFO"),
    TEXT("%s token 0x%I64x"),
    TEXT("%s: handling CMD_GET_FILE_INFO, token 0x%I64x, transId %u"),
    TEXT("%s: CMD_GET_FILE_INFO OK, token 0x%I64x, media type %d, transId %u"),
    TEXT("%s: error CMD_GET_FILE_INFO, token 0x%I64x, transId %u"),
};
constexpr FileCommandText kFileInfo2 = {
    TEXT("CHttpCommandHandler::On_CMD_GET_FILE_INFO2"),
    1843,
    TEXT("CHttpCommandHandler::DoCmdGetFileInfo2"),
    1849,
    1856,
    TEXT("GET_FILE_INFO2"),
    TEXT("%s file '%s'"),
    TEXT("%s: handling CMD_GET_FILE_INFO2, file '%s', transId %u"),
    TEXT("%s: CMD_GET_FILE_INFO2 OK, file %s, media type %d, transId %u"),
    TEXT("%s: error CMD_GET_FILE_INFO2, file %s, transId %u"),
};
constexpr FileCommandText kFrameDesc = {
    TEXT("CHttpCommandHandler::On_CMD_GET_FRAME_DESC"),
    1863,
    TEXT("CHttpCommandHandler::DoCmdGetFrameDesc"),
    1869,
    1876,
    TEXT("GET_FRAME_DESC"),
    TEXT("%s token 0x%I64x pos %u"),
    TEXT("%s: handling GET_FRAME_DESC, token 0x%I64x, pos %u, transId %u"),
    TEXT("%s: GET_FRAME_DESC OK, token 0x%I64x, pos %u, transId %u"),
    TEXT("%s: error GET_FRAME_DESC, token 0x%I64x, pos %u, transId %u"),
};
constexpr FileCommandText kFrameDesc2 = {
    TEXT("CHttpCommandHandler::On_CMD_GET_FRAME_DESC2"),
    1883,
    TEXT("CHttpCommandHandler::DoCmdGetFrameDesc2"),
    1889,
    1896,
    TEXT("GET_FRAME_DESC"),  // the token form's word
    TEXT("%s file '%s' pos %u"),
    TEXT("%s: handling GET_FRAME_DESC2, file %s, pos %u, transId %u"),
    TEXT("%s: GET_FRAME_DESC2 OK, file '%s', pos %u, transId %u"),
    TEXT("%s: error GET_FRAME_DESC2, file '%s', pos %u, transId %u"),
};
constexpr FileCommandText kFileMarks = {
    TEXT("CHttpCommandHandler::On_CMD_GET_FILE_MARKS"),
    1923,
    TEXT("CHttpCommandHandler::DoCmdGetFileMarks"),
    1929,
    1936,
    TEXT("GET_FILE_MARKS"),
    TEXT("%s token 0x%I64x"),
    TEXT("%s: handling GET_FILE_MARKS, token 0x%I64x, transId %u"),
    TEXT("%s: GET_FILE_MARKS OK, token 0x%I64x, transId %u"),
    TEXT("%s: error GET_FILE_MARKS, token 0x%I64x, transId %u"),
};
constexpr FileCommandText kFileMarks2 = {
    TEXT("CHttpCommandHandler::On_CMD_GET_FILE_MARKS2"),
    1943,
    TEXT("CHttpCommandHandler::DoCmdGetFileMarks2"),
    1949,
    1956,
    TEXT("GET_FILE_MARKS2"),
    TEXT("%s file '%s'"),
    TEXT("%s: handling GET_FILE_MARKS2, file '%s', transId %u"),
    TEXT("%s: GET_FILE_MARKS2 OK, file '%s', transId %u"),
    TEXT("%s: error GET_FILE_MARKS2, file '%s', transId %u"),
};

constexpr DWORD kInfoReply_bytes = 60;
constexpr size_t kReplyEsDesc = 4;
constexpr DWORD kMarksReply_bytes = 12;
constexpr size_t kReplyFirstMark = 4;
constexpr size_t kReplySecondMark = 8;
constexpr size_t kReplyCount = 4;
constexpr size_t kReplyDescs = 8;

// The file name as it stands in the body now: the name forms print it after the reply was written
// over it.
struct NameInBody {
    WireName text = {};
    explicit NameInBody(const ZemCommand& command) {
        const size_t room_bytes = std::min(command.bodyRoom_bytes, sizeof(text));
        std::memcpy(text, command.body, room_bytes);
        text[kNameUnits - 1] = 0;
    }
};

// Refuses a frame count whose reply cannot be: before the reply is laid out, while the request is
// whole.
void RequireCount(CFileCommand& run, const ZemCommand& command, LONG count, LONGLONG body_bytes) {
    if (count < 0) run.Check(E_OUTOFMEMORY);
    if (body_bytes < static_cast<LONGLONG>(kReplyDescs) ||
        body_bytes > static_cast<LONGLONG>(command.bodyRoom_bytes)) {
        run.Check(E_INVALIDARG);
    }
}

std::unique_ptr<ZemFrameDesc[]> AllocateDescs(CFileCommand& run, LONG count) {
    std::unique_ptr<ZemFrameDesc[]> descs(new (std::nothrow)
                                              ZemFrameDesc[static_cast<size_t>(count)]());
    if (!descs) run.Check(E_OUTOFMEMORY);
    return descs;
}

void PutFrameDesc(BYTE* reply, LONG index, const ZemFrameDesc& desc) {
    WireFrameDesc out = {desc.dataSize, desc.flags, 0};
    std::memcpy(&out.word16, &desc.timecode, sizeof(out.word16));
    PutReply(reply, kReplyDescs + static_cast<size_t>(index) * kFrameDescEntry_bytes, out);
}

}  // namespace

HRESULT CHttpCommandHandler::DoCmdGetFileInfo(const ZemCommand& command, ULONGLONG token,
                                              ZemEsDesc& esDesc) {
    return CallChannel(*this, kFileInfo, command,
                       [&](CZemChannelIo& channel) { return channel.GetFileInfo(token, esDesc); });
}

HRESULT CHttpCommandHandler::On_CMD_GET_FILE_INFO(const ZemCommand& command) {
    CFileCommand run(*this, command, kFileInfo);
    WireToken request = {};
    try {
        run.Read(request);
        run.Begin(request.token);
        BYTE* reply = run.BuildReply(kInfoReply_bytes);
        run.MarkIssuing();
        ZemEsDesc esDesc;
        GetReply(reply, kReplyEsDesc, esDesc);
        DoCmdGetFileInfo(command, request.token, esDesc);
        PutReply(reply, kReplyEsDesc, esDesc);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(request.token, esDesc.mediaType);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.CountFailure();
    run.TraceError(request.token);
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdGetFileInfo2(const ZemCommand& command,
                                               const WireNameBlock& block, ZemEsDesc& esDesc) {
    return CallChannel(*this, kFileInfo2, command, [&](CZemChannelIo& channel) -> HRESULT {
        return static_cast<CZemIo&>(channel).GetFileInfo(
            block.names.fileName, block.names.auxName,
            static_cast<MediaFileType>(block.mediaFileType), block.openFlags, esDesc);
    });
}

HRESULT CHttpCommandHandler::On_CMD_GET_FILE_INFO2(const ZemCommand& command) {
    CFileCommand run(*this, command, kFileInfo2);
    try {
        WireNameBlock request;
        run.Read(request);
        run.RequireName(request.names);
        run.Begin(static_cast<const WCHAR*>(request.names.fileName));
        BYTE* reply = run.BuildReply(kInfoReply_bytes);
        run.MarkIssuing();
        ZemEsDesc esDesc;
        GetReply(reply, kReplyEsDesc, esDesc);
        DoCmdGetFileInfo2(command, request, esDesc);
        PutReply(reply, kReplyEsDesc, esDesc);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(static_cast<const WCHAR*>(NameInBody(command).text), esDesc.mediaType);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.CountFailure();
    if (run.Failed()) run.TraceError(static_cast<const WCHAR*>(NameInBody(command).text));
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdGetFrameDesc(const ZemCommand& command, ULONGLONG token,
                                               DWORD position, VioFrameRate_t rate, LONG count,
                                               ZemFrameDesc* descs) {
    return CallChannel(*this, kFrameDesc, command, [&](CZemChannelIo& channel) {
        return channel.GetFrameDesc(token, position, count, descs, rate);
    });
}

HRESULT CHttpCommandHandler::On_CMD_GET_FRAME_DESC(const ZemCommand& command) {
    CFileCommand run(*this, command, kFrameDesc);
    WireFrameDescByToken request = {};
    try {
        run.Read(request);
        run.Begin(request.token, request.position);
        const LONGLONG body_bytes = (LONGLONG{request.count} - 1) * 12 + 20;
        RequireCount(run, command, request.count, body_bytes);
        // Before the reply: a failure is answered with the request's own command code.
        const auto descs = AllocateDescs(run, request.count);
        BYTE* reply = run.BuildReply(static_cast<DWORD>(body_bytes));
        PutReply(reply, kReplyCount, request.count);
        run.MarkIssuing();
        DoCmdGetFrameDesc(command, request.token, request.position,
                          static_cast<VioFrameRate_t>(request.frameRate), request.count,
                          descs.get());
        for (LONG i = 0; i < request.count; ++i)
            PutFrameDesc(reply, i, descs[static_cast<size_t>(i)]);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(request.token, request.position);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.CountFailure();
    run.TraceError(request.token, request.position);
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdGetFrameDesc2(const ZemCommand& command, LONG count,
                                                ZemFrameDesc* descs) {
    return CallChannel(*this, kFrameDesc2, command, [&](CZemChannelIo& channel) -> HRESULT {
        // The count of the reply stands in the third and fourth unit of the name by now.
        WireFrameDescByName request;
        if (!CopyFromBody(command, 0, request)) return E_INVALIDARG;
        const WireNameBlock& block = request.block;
        return channel.GetFrameDesc(block.names.fileName, block.names.auxName,
                                    static_cast<MediaFileType>(block.mediaFileType),
                                    block.openFlags, request.position, count, descs);
    });
}

HRESULT CHttpCommandHandler::On_CMD_GET_FRAME_DESC2(const ZemCommand& command) {
    CFileCommand run(*this, command, kFrameDesc2);
    DWORD position = 0;
    try {
        WireFrameDescByName request;
        run.Read(request);
        position = request.position;
        run.RequireName(request.block.names);
        run.Begin(static_cast<const WCHAR*>(request.block.names.fileName), position);
        // The entries are 12 bytes apart all the same: the tail stays as it was.
        const LONGLONG body_bytes = (LONGLONG{request.count} - 1) * 24 + 20;
        RequireCount(run, command, request.count, body_bytes);
        // Before the reply: a failure is answered with the request's own command code.
        const auto descs = AllocateDescs(run, request.count);
        BYTE* reply = run.BuildReply(static_cast<DWORD>(body_bytes));
        PutReply(reply, kReplyCount, request.count);
        run.MarkIssuing();
        DoCmdGetFrameDesc2(command, request.count, descs.get());
        // The bound is read again from where the request has its count; entry 87 is written over
        // it. It may end the copy early, never prolong it.
        for (LONG i = 0, bound = request.count; i < std::min(bound, request.count); ++i) {
            PutFrameDesc(reply, i, descs[static_cast<size_t>(i)]);
            CopyNumber(command, offsetof(WireFrameDescByName, count), bound);
        }
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(static_cast<const WCHAR*>(NameInBody(command).text), position);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.CountFailure();
    if (run.Failed()) run.TraceError(static_cast<const WCHAR*>(NameInBody(command).text), position);
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdGetFileMarks(const ZemCommand& command, ULONGLONG token,
                                               DWORD& first, DWORD& second) {
    return CallChannel(*this, kFileMarks, command, [&](CZemChannelIo& channel) {
        return channel.GetFileMarks(token, first, second);
    });
}

HRESULT CHttpCommandHandler::On_CMD_GET_FILE_MARKS(const ZemCommand& command) {
    CFileCommand run(*this, command, kFileMarks);
    WireToken request = {};
    try {
        run.Read(request);
        run.Begin(request.token);
        BYTE* reply = run.BuildReply(kMarksReply_bytes);
        run.MarkIssuing();
        DWORD first = 0, second = 0;
        GetReply(reply, kReplyFirstMark, first);
        GetReply(reply, kReplySecondMark, second);
        DoCmdGetFileMarks(command, request.token, first, second);
        PutReply(reply, kReplyFirstMark, first);
        PutReply(reply, kReplySecondMark, second);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(request.token);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.TraceError(request.token);
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdGetFileMarks2(const ZemCommand& command,
                                                const WireNameBlock& block, DWORD& first,
                                                DWORD& second) {
    return CallChannel(*this, kFileMarks2, command, [&](CZemChannelIo& channel) -> HRESULT {
        return channel.GetFileMarks(block.names.fileName, block.names.auxName,
                                    static_cast<MediaFileType>(block.mediaFileType),
                                    block.openFlags, first, second);
    });
}

HRESULT CHttpCommandHandler::On_CMD_GET_FILE_MARKS2(const ZemCommand& command) {
    CFileCommand run(*this, command, kFileMarks2);
    try {
        WireNameBlock request;
        run.Read(request);
        run.RequireName(request.names);
        run.Begin(static_cast<const WCHAR*>(request.names.fileName));
        BYTE* reply = run.BuildReply(kMarksReply_bytes);
        run.MarkIssuing();
        DWORD first = 0, second = 0;
        GetReply(reply, kReplyFirstMark, first);
        GetReply(reply, kReplySecondMark, second);
        DoCmdGetFileMarks2(command, request, first, second);
        PutReply(reply, kReplyFirstMark, first);
        PutReply(reply, kReplySecondMark, second);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(static_cast<const WCHAR*>(NameInBody(command).text));
        run.Send();
    } catch (...) {
        run.Caught();
    }
    if (run.Failed()) run.TraceError(static_cast<const WCHAR*>(NameInBody(command).text));
    return run.GetResult();
}
