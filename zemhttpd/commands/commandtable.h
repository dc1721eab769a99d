// The commands: code, name as it stands in size messages, reply code, size rule and handler.
// Dispatch and size messages come from this table; docs/protocol.md is compared with it.
#pragma once

#include "zemhttpd/commands/command.h"
#include "zemhttpd/server/httpcmdhdlr.h"

// What a body shorter than its declared size means.
enum class SizeRule : BYTE {
    Completion,  // the rest is fetched from the network before the handler runs
    Strict,      // an error at once
    WriteFrame,  // completion of header and body; frame data follows, counted by Content-Length
    None,        // the handler reads the body itself
};

struct CommandRow {
    DWORD code;
    const char* name;
    DWORD replyCode;  // a numbering of its own; the name forms of a query share the token form's
    SizeRule sizeRule;
    HRESULT (CHttpCommandHandler::*handler)(const ZemCommand& command);
};

inline constexpr CommandRow kCommands[] = {
    {1, "CMD_CREATE_FILE", 2, SizeRule::Completion, &CHttpCommandHandler::On_CMD_CREATE_FILE},
    {2, "CMD_OPEN_FILE", 2, SizeRule::Completion, &CHttpCommandHandler::On_CMD_OPEN_FILE},
    {3, "CMD_READ_FRAME", 3, SizeRule::Completion, &CHttpCommandHandler::On_CMD_READ_FRAME},
    {4, "CMD_WRITE_FRAME", 4, SizeRule::WriteFrame, &CHttpCommandHandler::On_CMD_WRITE_FRAME},
    {5, "CMD_CLOSE_FILE", 5, SizeRule::Completion, &CHttpCommandHandler::On_CMD_CLOSE_FILE},
    {6, "CMD_GET_FILE_INFO", 6, SizeRule::Completion, &CHttpCommandHandler::On_CMD_GET_FILE_INFO},
    {7, "CMD_GET_FILE_INFO2", 6, SizeRule::Completion, &CHttpCommandHandler::On_CMD_GET_FILE_INFO2},
    {8, "CMD_GET_FRAME_DESC", 7, SizeRule::Completion, &CHttpCommandHandler::On_CMD_GET_FRAME_DESC},
    {9, "CMD_GET_FRAME_DESC2", 7, SizeRule::Completion,
     &CHttpCommandHandler::On_CMD_GET_FRAME_DESC2},
    {10, "CMD_FLUSH_BUFFERS", 8, SizeRule::Completion, &CHttpCommandHandler::On_CMD_FLUSH_BUFFERS},
    {11, "CMD_GET_FILE_MARKS", 9, SizeRule::Completion,
     &CHttpCommandHandler::On_CMD_GET_FILE_MARKS},
    {12, "CMD_GET_FILE_MARKS2", 9, SizeRule::Completion,
     &CHttpCommandHandler::On_CMD_GET_FILE_MARKS2},
    {13, "CMD_STRIPE_TIMECODE", 10, SizeRule::Completion,
     &CHttpCommandHandler::On_CMD_STRIPE_TIMECODE},
    {14, "CMD_UPDATE_CFG", 11, SizeRule::None, &CHttpCommandHandler::On_CMD_UPDATE_CFG},
    {15, "CMD_JOIN", 12, SizeRule::Completion, &CHttpCommandHandler::On_CMD_JOIN},
    {16, "CMD_LEAVE", 13, SizeRule::Strict, &CHttpCommandHandler::On_CMD_LEAVE},
    {17, "CMD_KEEP_ALIVE", 14, SizeRule::Strict, &CHttpCommandHandler::On_CMD_KEEP_ALIVE},
    {18, "CMD_SET_IO_REAL_TIME", 15, SizeRule::Strict,
     &CHttpCommandHandler::On_CMD_SET_IO_REAL_TIME},
    {19, "CMD_QUERY_FILESYSTEM_SPACE", 16, SizeRule::Completion,
     &CHttpCommandHandler::On_CMD_QUERY_FILESYSTEM_SPACE},
    {20, "CMD_GET_FILE_ATTRIBS", 17, SizeRule::Completion,
     &CHttpCommandHandler::On_CMD_GET_FILE_ATTRIBS},
    {21, "CMD_DELETE_FILE", 18, SizeRule::Completion, &CHttpCommandHandler::On_CMD_DELETE_FILE},
    {22, "CMD_GET_FILESIZE", 19, SizeRule::Completion, &CHttpCommandHandler::On_CMD_GET_FILESIZE},
    {23, "CMD_CREATE_DIRECTORY", 20, SizeRule::Completion,
     &CHttpCommandHandler::On_CMD_CREATE_DIRECTORY},
    {24, "CMD_MOVE_FILE", 21, SizeRule::Completion, &CHttpCommandHandler::On_CMD_MOVE_FILE},
    {25, "CMD_ERASE_SEGMENT", 22, SizeRule::Completion, &CHttpCommandHandler::On_CMD_ERASE_SEGMENT},
    {26, "CMD_UPDATE_CFG_ATTR_STR", 23, SizeRule::Completion,
     &CHttpCommandHandler::On_CMD_UPDATE_CFG_ATTR_STR},
};

inline constexpr DWORD kCommandCount = sizeof(kCommands) / sizeof(kCommands[0]);
static_assert(kCommandCount == 26);
static_assert([] {
    for (DWORD i = 0; i < kCommandCount; ++i)
        if (kCommands[i].code != i + 1) return false;
    return true;
}());

// The row of a command code, or null for one that is not in the table.
constexpr const CommandRow* FindCommand(DWORD code) {
    return code - 1 < kCommandCount ? &kCommands[code - 1] : nullptr;
}

// REQUIRES: a code of the table.
constexpr DWORD ReplyCode(DWORD code) {
    return FindCommand(code)->replyCode;
}
