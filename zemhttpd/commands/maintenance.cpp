// Commands that change or settle what is in a media file: stripe timecode, erase a segment, flush.
// Worker threads.
#include "zemhttpd/commands/filecommand.h"

namespace {

constexpr FileCommandText kStripe = {
    TEXT("CHttpCommandHandler::On_CMD_STRIPE_TIMECODE"),
    1963,
    TEXT("CHttpCommandHandler::DoCmdStripeTimecode"),
    1969,
    1976,
    TEXT("STRIPE_TIMECODE"),
    TEXT("%s file '%s'"),
    TEXT("%s: handling CMD_STRIPE_TIMECODE, file '%s', transId %u"),
    TEXT("%s: CMD_STRIPE_TIMECODE OK, file '%s', transId %u"),
    TEXT("%s: error CMD_STRIPE_TIMECODE, file '%s', transId %u"),
};
constexpr FileCommandText kErase = {
    TEXT("CHttpCommandHandler::On_CMD_ERASE_SEGMENT"),
    2203,
    TEXT("CHttpCommandHandler::DoCmdEraseSegment"),
    2209,
    2216,
    TEXT("ERASE_SEGMENT"),
    TEXT("%s token 0x%I64x"),
    TEXT("%s: handling ERASE_SEGMENT, token 0x%I64x, transId %u"),
    TEXT("%s: CMD_ERASE_SEGMENT OK, token 0x%I64x, transId %u"),
    TEXT("%s: error CMD_ERASE_SEGMENT, token 0x%I64x, transId %u"),
};
constexpr FileCommandText kFlush = {
    TEXT("CHttpCommandHandler::On_CMD_FLUSH_BUFFERS"),
    1903,
    TEXT("CHttpCommandHandler::DoCmdFlushBuffers"),
    1909,
    1916,
    TEXT("FLUSH_BUFFERS"),
    TEXT("%s token 0x%I64x"),
    TEXT("%s: handling CMD_FLUSH_BUFFERS, token %I64x, transId %u"),
    TEXT("%s: CMD_FLUSH_BUFFERS OK, token %I64x, transId %u"),
    TEXT("%s: error CMD_FLUSH_BUFFERS, token 0x%I64x, transId %u"),
};

}  // namespace

HRESULT CHttpCommandHandler::DoCmdStripeTimecode(const ZemCommand& command,
                                                 const WireStripe& request) {
    return CallChannel(*this, kStripe, command, [&](CZemChannelIo& channel) -> HRESULT {
        const WireNameBlock& block = request.block;
        return channel.StripeTimecode(block.names.fileName, block.names.auxName,
                                      static_cast<MediaFileType>(block.mediaFileType),
                                      block.openFlags, request.startTimecode, request.stripeFlags);
    });
}

HRESULT CHttpCommandHandler::On_CMD_STRIPE_TIMECODE(const ZemCommand& command) {
    CFileCommand run(*this, command, kStripe);
    WireStripe request = {};
    const WCHAR* fileName = request.block.names.fileName;
    try {
        run.Read(request);
        run.RequireName(request.block.names);
        run.Begin(fileName);
        run.MarkIssuing();
        DoCmdStripeTimecode(command, request);
        run.MarkPreparing();
        run.PutStatus(run.BuildReply(kStatusBody_bytes));
        run.TraceOk(fileName);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    request.block.names.fileName[kNameUnits - 1] = 0;  // it may be what was refused
    run.TraceError(fileName);
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdEraseSegment(const ZemCommand& command,
                                               const WireErase& request) {
    return CallChannel(*this, kErase, command, [&](CZemChannelIo& channel) -> HRESULT {
        return channel.EraseSegment(request.token, request.segmentA, request.segmentB,
                                    static_cast<MediaFileType>(request.mediaFileType));
    });
}

HRESULT CHttpCommandHandler::On_CMD_ERASE_SEGMENT(const ZemCommand& command) {
    CFileCommand run(*this, command, kErase);
    WireErase request = {};
    try {
        run.Read(request);
        run.Begin(request.token);
        run.MarkIssuing();
        DoCmdEraseSegment(command, request);
        run.MarkPreparing();
        run.PutStatus(run.BuildReply(kStatusBody_bytes));
        run.TraceOk(request.token);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.TraceError(request.token);
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdFlushBuffers(const ZemCommand& command, ULONGLONG token) {
    return CallChannel(*this, kFlush, command,
                       [&](CZemChannelIo& channel) { return channel.FlushBuffers(token); });
}

HRESULT CHttpCommandHandler::On_CMD_FLUSH_BUFFERS(const ZemCommand& command) {
    CFileCommand run(*this, command, kFlush);
    WireToken request = {};
    try {
        run.Read(request);
        run.Begin(request.token);
        run.MarkIssuing();
        DoCmdFlushBuffers(command, request.token);
        run.MarkPreparing();
        run.PutStatus(run.BuildReply(kStatusBody_bytes));
        run.TraceOk(request.token);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.CountFailure();
    run.TraceError(request.token);
    return run.GetResult();
}
