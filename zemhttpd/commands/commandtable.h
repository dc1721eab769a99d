// The 26 commands: code, name as it stands in size messages, reply code, size rule and handler.
// Dispatch, size messages and the protocol page come from this table.
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

#define ZEM_COMMAND_ROW(code, name, replyCode, rule) \
    { code, #name, replyCode, SizeRule::rule, &CHttpCommandHandler::On_##name }

inline constexpr CommandRow kCommands[] = {
    ZEM_COMMAND_ROW(1, CMD_CREATE_FILE, 2, Completion),
    ZEM_COMMAND_ROW(2, CMD_OPEN_FILE, 2, Completion),
    ZEM_COMMAND_ROW(3, CMD_READ_FRAME, 3, Completion),
    ZEM_COMMAND_ROW(4, CMD_WRITE_FRAME, 4, WriteFrame),
    ZEM_COMMAND_ROW(5, CMD_CLOSE_FILE, 5, Completion),
    ZEM_COMMAND_ROW(6, CMD_GET_FILE_INFO, 6, Completion),
    ZEM_COMMAND_ROW(7, CMD_GET_FILE_INFO2, 6, Completion),
    ZEM_COMMAND_ROW(8, CMD_GET_FRAME_DESC, 7, Completion),
    ZEM_COMMAND_ROW(9, CMD_GET_FRAME_DESC2, 7, Completion),
    ZEM_COMMAND_ROW(10, CMD_FLUSH_BUFFERS, 8, Completion),
    ZEM_COMMAND_ROW(11, CMD_GET_FILE_MARKS, 9, Completion),
    ZEM_COMMAND_ROW(12, CMD_GET_FILE_MARKS2, 9, Completion),
    ZEM_COMMAND_ROW(13, CMD_STRIPE_TIMECODE, 10, Completion),
    ZEM_COMMAND_ROW(14, CMD_UPDATE_CFG, 11, None),
    ZEM_COMMAND_ROW(15, CMD_JOIN, 12, Completion),
    ZEM_COMMAND_ROW(16, CMD_LEAVE, 13, Strict),
    ZEM_COMMAND_ROW(17, CMD_KEEP_ALIVE, 14, Strict),
    ZEM_COMMAND_ROW(18, CMD_SET_IO_REAL_TIME, 15, Strict),
    ZEM_COMMAND_ROW(19, CMD_QUERY_FILESYSTEM_SPACE, 16, Completion),
    ZEM_COMMAND_ROW(20, CMD_GET_FILE_ATTRIBS, 17, Completion),
    ZEM_COMMAND_ROW(21, CMD_DELETE_FILE, 18, Completion),
    ZEM_COMMAND_ROW(22, CMD_GET_FILESIZE, 19, Completion),
    ZEM_COMMAND_ROW(23, CMD_CREATE_DIRECTORY, 20, Completion),
    ZEM_COMMAND_ROW(24, CMD_MOVE_FILE, 21, Completion),
    ZEM_COMMAND_ROW(25, CMD_ERASE_SEGMENT, 22, Completion),
    ZEM_COMMAND_ROW(26, CMD_UPDATE_CFG_ATTR_STR, 23, Completion),
};
#undef ZEM_COMMAND_ROW

inline constexpr DWORD kCommandCount = sizeof(kCommands) / sizeof(kCommands[0]);
static_assert(kCommandCount == 26);
static_assert([] {
    for (DWORD i = 0; i < kCommandCount; ++i)
        if (kCommands[i].code != i + 1) return false;
    return true;
}());

// The row of a command code, or null for 0 and codes above 26.
constexpr const CommandRow* FindCommand(DWORD code) {
    return code - 1 < kCommandCount ? &kCommands[code - 1] : nullptr;
}
