// The command table and the bounded copies in and out of bodies.
#include "zemhttpd/commands/wire.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "mediaio/zemchannelio.h"
#include "tests/fakes/slot.h"
#include "zemhttpd/commands/commandtable.h"

namespace {

TEST(CommandTable, HasTheCommandsWithTheirReplyCodes) {
    constexpr struct {
        const char* name;
        DWORD replyCode;
    } kExpected[] = {
        {"CMD_CREATE_FILE", 2},
        {"CMD_OPEN_FILE", 2},
        {"CMD_READ_FRAME", 3},
        {"CMD_WRITE_FRAME", 4},
        {"CMD_CLOSE_FILE", 5},
        {"CMD_GET_FILE_INFO", 6},
        {"CMD_GET_FILE_INFO2", 6},
        {"CMD_GET_FRAME_DESC", 7},
        {"CMD_GET_FRAME_DESC2", 7},
        {"CMD_FLUSH_BUFFERS", 8},
        {"CMD_GET_FILE_MARKS", 9},
        {"CMD_GET_FILE_MARKS2", 9},
        {"CMD_STRIPE_TIMECODE", 10},
        {"CMD_UPDATE_CFG", 11},
        {"CMD_JOIN", 12},
        {"CMD_LEAVE", 13},
        {"CMD_KEEP_ALIVE", 14},
        {"CMD_SET_IO_REAL_TIME", 15},
        {"CMD_QUERY_FILESYSTEM_SPACE", 16},
        {"CMD_GET_FILE_ATTRIBS", 17},
        {"CMD_DELETE_FILE", 18},
        {"CMD_GET_FILESIZE", 19},
        {"CMD_CREATE_DIRECTORY", 20},
        {"CMD_MOVE_FILE", 21},
        {"CMD_ERASE_SEGMENT", 22},
        {"CMD_UPDATE_CFG_ATTR_STR", 23},
    };
    ASSERT_EQ(kCommandCount, std::size(kExpected));
    for (DWORD i = 0; i < kCommandCount; ++i) {
        EXPECT_EQ(kCommands[i].code, i + 1);
        EXPECT_STREQ(kCommands[i].name, kExpected[i].name);
        EXPECT_EQ(kCommands[i].replyCode, kExpected[i].replyCode) << kExpected[i].name;
        EXPECT_NE(kCommands[i].handler, nullptr);
    }
}

TEST(CommandTable, GivesEachCommandItsSizeRule) {
    for (const CommandRow& row : kCommands) {
        SizeRule expected = SizeRule::Completion;
        if (row.code == 4) expected = SizeRule::WriteFrame;
        if (row.code == 14) expected = SizeRule::None;
        if (row.code >= 16 && row.code <= 18) expected = SizeRule::Strict;
        EXPECT_EQ(row.sizeRule, expected) << row.name;
    }
}

TEST(CommandTable, FindsOnlyTheCodesFrom1On) {
    EXPECT_EQ(FindCommand(0), nullptr);
    EXPECT_EQ(FindCommand(kCommandCount + 1), nullptr);
    EXPECT_EQ(FindCommand(0xFFFFFFFF), nullptr);
    EXPECT_EQ(FindCommand(1), &kCommands[0]);
    EXPECT_EQ(FindCommand(kCommandCount), &kCommands[kCommandCount - 1]);
}

class Wire : public ::testing::Test {
protected:
    ZemCommand WithRoom(size_t room_bytes) {
        ZemCommand command{};
        command.body = m_buffer + 1;  // unaligned
        command.bodyRoom_bytes = room_bytes;
        return command;
    }
    BYTE m_buffer[2048] = {};
};

TEST_F(Wire, CopiesWhatEndsAtTheBuffersLastByte) {
    const ULONGLONG token = 0x0807060504030201ull;
    std::memcpy(m_buffer + 1, &token, sizeof(token));
    WireToken record;
    ASSERT_TRUE(CopyFromBody(WithRoom(8), 0, record));
    EXPECT_EQ(record.token, token);
}

TEST_F(Wire, RefusesAFieldThatEndsOneByteBehindTheBuffer) {
    WireToken record = {77};
    EXPECT_FALSE(CopyFromBody(WithRoom(7), 0, record));
    EXPECT_FALSE(CopyFromBody(WithRoom(12), 5, record));
    EXPECT_FALSE(CopyFromBody(WithRoom(12), static_cast<size_t>(-4), record));
    EXPECT_EQ(record.token, 77u);
}

TEST_F(Wire, AnOpenRequestEndsWithItsLastFieldNotWithThePadding) {
    WireOpenFile record;
    EXPECT_TRUE(CopyFromBody(WithRoom(1050), 0, record));
    EXPECT_FALSE(CopyFromBody(WithRoom(1049), 0, record));
}

TEST_F(Wire, RecordsEndWhereTheirLastFieldEnds) {
    EXPECT_EQ(WireFrameDescByToken::kRead_bytes, 20u);
    EXPECT_EQ(WireErase::kRead_bytes, 20u);
    EXPECT_EQ(WireStripe::kRead_bytes, 1056u);
    EXPECT_EQ(WireCreateFile::kRead_bytes, 1100u);
}

TEST_F(Wire, CopiesANumberWithinTheBufferOnly) {
    m_buffer[1] = 0x44;
    DWORD number = 0;
    EXPECT_TRUE(CopyNumber(WithRoom(4), 0, number));
    EXPECT_EQ(number, 0x44u);
    EXPECT_FALSE(CopyNumber(WithRoom(3), 0, number));
}

TEST_F(Wire, ANameNeedsItsNulInsideTheField) {
    WireName name;
    std::fill(std::begin(name), std::end(name), TEXT('x'));
    EXPECT_FALSE(IsTerminated(name));
    name[259] = 0;
    EXPECT_TRUE(IsTerminated(name));
    WireFileNames names = {};
    EXPECT_TRUE(IsTerminated(names));
    std::fill(std::begin(names.auxName), std::end(names.auxName), TEXT('x'));
    EXPECT_FALSE(IsTerminated(names));
}

// Modules of a host are called by these slots; a destructor takes two.
TEST(MediaInterface, OperationsStandInTheirOrder) {
    using Io = CZemIo;
    using Text = const WCHAR*;
    using Type = MediaFileType;
    size_t slot = 2;
    EXPECT_EQ(Slot(&Io::CreateFileW), slot++);
    EXPECT_EQ(Slot(&Io::OpenFile), slot++);
    EXPECT_EQ(
        Slot<HRESULT (Io::*)(ULONGLONG, DWORD, VioFrameRate_t, DWORD&, void*)>(&Io::ReadFrame),
        slot++);
    EXPECT_EQ(Slot<HRESULT (Io::*)(ZemIoDesc&)>(&Io::ReadFrame), slot++);
    EXPECT_EQ(Slot(&Io::ReadFrameComplete), slot++);
    EXPECT_EQ(Slot(&Io::GetWriteFrameBuffers), slot++);
    EXPECT_EQ(Slot(&Io::WriteFrame), slot++);
    EXPECT_EQ(Slot(&Io::CloseFile), slot++);
    EXPECT_EQ(Slot<HRESULT (Io::*)(Text, Text, Type, DWORD, ZemEsDesc&)>(&Io::GetFileInfo), slot++);
    EXPECT_EQ(Slot<HRESULT (Io::*)(ULONGLONG, ZemEsDesc&)>(&Io::GetFileInfo), slot++);
    EXPECT_EQ(Slot<HRESULT (Io::*)(Text, Text, Type, DWORD, DWORD, LONG, ZemFrameDesc*)>(
                  &Io::GetFrameDesc),
              slot++);
    EXPECT_EQ(Slot<HRESULT (Io::*)(ULONGLONG, DWORD, LONG, ZemFrameDesc*, VioFrameRate_t)>(
                  &Io::GetFrameDesc),
              slot++);
    EXPECT_EQ(Slot(&Io::FlushBuffers), slot++);
    EXPECT_EQ(Slot<HRESULT (Io::*)(ULONGLONG, DWORD&, DWORD&)>(&Io::GetFileMarks), slot++);
    EXPECT_EQ(Slot<HRESULT (Io::*)(Text, Text, Type, DWORD, DWORD&, DWORD&)>(&Io::GetFileMarks),
              slot++);
    EXPECT_EQ(Slot(&Io::StripeTimecode), slot++);
    EXPECT_EQ(Slot(&Io::GetClientId), slot++);
    EXPECT_EQ(Slot(&Io::Connect), slot++);
    EXPECT_EQ(Slot(&Io::Disconnect), slot++);
    EXPECT_EQ(Slot(&Io::SetRemoteIoRealTime), slot++);
    EXPECT_EQ(Slot(&Io::SetIoRealTime), slot++);
    EXPECT_EQ(Slot(&Io::EraseSegment), slot++);
    EXPECT_EQ(Slot(&Io::QueryFileSystemSpace), slot++);
    EXPECT_EQ(Slot(&Io::GetFileAttributesW), slot++);
    EXPECT_EQ(Slot(&Io::DeleteFileW), slot++);
    EXPECT_EQ(Slot(&Io::GetFileSize), slot++);
    EXPECT_EQ(Slot(&Io::CreateDirectoryW), slot++);
    EXPECT_EQ(Slot(&Io::MoveFileW), slot++);
}

TEST(MediaInterface, TheAttributeUpdateIsTheFourthEntryOfTheChannelsOwnTable) {
    EXPECT_EQ(Slot(&IZemChannel::UpdateChannelConfigInt), 2u);
    EXPECT_EQ(Slot(&IZemChannel::UpdateChannelConfigAttr), 3u);
    // The channel's own table comes first in the object, the base I/O class brings its own.
    EXPECT_FALSE((std::is_base_of_v<CZemIo, IZemChannel>));
    CZemChannelIo channel(1);
    EXPECT_EQ(static_cast<void*>(static_cast<IZemChannel*>(&channel)),
              static_cast<void*>(&channel));
}

}  // namespace
