// Golden bytes of all 26 commands, both directions, against literals; and what must be refused. No
// network.
#include "apps/zem/client/wire.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <set>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"

namespace {

using zem::Command;
using zem::CRequest;
using zem::CZemError;
using zem::ErrorKind;
using zem::HttpReply;

// "0a 1b" as bytes; blanks are for the eye.
std::string Hex(const std::string& text) {
    std::string out;
    std::string digits;
    for (const char c : text) {
        if (c != ' ') digits.push_back(c);
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<char>(std::strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    return out;
}
std::string Zeros(size_t count) {
    return std::string(count, '\0');
}

std::string BytesOf(CRequest request) {
    const std::span<const uint8_t> bytes = request.Finish();
    return {bytes.begin(), bytes.end()};
}

// The field of the name "media/v" (14 bytes and zeros).
std::string NameField() {
    return Hex("6d00 6500 6400 6900 6100 2f00 7600") + Zeros(520 - 14);
}
// The field of the stream name "a1".
std::string AuxField() {
    return Hex("6100 3100") + Zeros(516);
}

zem::FileRef Ref() {
    return {u"media/v", u"a1", kMediaFileAudio, 0x00000005};
}
std::string RefBytes() {
    return NameField() + AuxField() + Hex("02000000 05000000");
}

constexpr uint32_t kId = 0x01020304;
constexpr uint64_t kToken = 0x1122334401667788;
const std::string kTokenBytes = Hex("8877660144332211");

ZemEsDesc Desc() {
    ZemEsDesc desc{};
    desc.sizeVersion = kEsDescVersion1;
    desc.mediaType = kMediaFileVideo;
    desc.codec = 0x6765706D;  // "mpeg"
    desc.rateNumerator = 30000;
    desc.rateDenominator = 1001;
    desc.width = 1280;
    desc.height = 720;
    desc.sampleRate = 48000;
    desc.channels = 2;
    desc.bitsPerSample = 16;
    desc.frameCount = 250;
    desc.startTimecode = {0x52, 0x34, 0x56, 0x10};
    desc.flags = 3;
    return desc;
}
const std::string kDescBytes =
    Hex("38000100 01000000 6d706567 30750000 e9030000 00050000 d0020000 80bb0000"
        "0200 1000 fa000000 52345610 03000000 00000000 00000000");

HttpReply Reply(const std::string& entity, int status = 200) {
    HttpReply reply;
    reply.status = status;
    reply.reason = status == 200 ? "OK" : "Failed";
    reply.protocolVersion = "1";
    reply.entity.assign(entity.begin(), entity.end());
    if (entity.size() >= 12) {
        reply.headerLength_bytes = 12;
        for (size_t i = 0; i < 4; ++i)
            reply.headerLength_bytes += static_cast<int64_t>(reply.entity[8 + i]) << (8 * i);
    }
    return reply;
}

// What `call` throws: its kind, and its HRESULT through `hr`.
template <typename Call>
ErrorKind KindOf(Call call, int32_t* hr = nullptr) {
    try {
        call();
    } catch (const CZemError& error) {
        if (hr != nullptr) *hr = error.Hr();
        EXPECT_STRNE(error.what(), "");
        return error.Kind();
    }
    ADD_FAILURE() << "nothing was thrown";
    return ErrorKind::kInterrupted;
}

void CheckStatusReply(Command command, const std::string& reply_code) {
    const std::string bytes = Hex("04030201" + reply_code + "04000000 00000000");
    EXPECT_NO_THROW(zem::CheckReply(Reply(bytes), command, kId, zem::ReplyBodySize_bytes(command)))
        << zem::InfoOf(command).name;
}

TEST(ZemWireTable, HasEveryCommandOnceInCodeOrder) {
    std::set<std::string> names;
    uint32_t code = 1;
    for (const zem::CommandInfo& info : zem::Commands()) {
        EXPECT_EQ(static_cast<uint32_t>(info.command), code++);
        names.insert(info.name);
    }
    EXPECT_EQ(names.size(), 26u);
}

TEST(ZemWireRequest, CreateFile) {
    EXPECT_EQ(BytesOf(zem::MakeCreateFile(kId, u"media/v", u"a1", Desc(), 0x1B)),
              Hex("04030201 01000000 4c040000") + NameField() + AuxField() + kDescBytes +
                  Hex("1b000000"));
}
TEST(ZemWireRequest, OpenFile) {
    EXPECT_EQ(BytesOf(zem::MakeOpenFile(kId, Ref(), true)),
              Hex("04030201 02000000 1c040000") + RefBytes() + Hex("00010000"));
    EXPECT_EQ(BytesOf(zem::MakeOpenFile(kId, Ref(), false)),
              Hex("04030201 02000000 1c040000") + RefBytes() + Hex("00000000"));
}
TEST(ZemWireRequest, ReadFrameOfTwoStreams) {
    const zem::ReadEntry entries[] = {{kToken, 7, 0, 0xA1A2A3A4A5A6A7A8},
                                      {kToken + 1, 8, 0x80000000, 0}};
    EXPECT_EQ(BytesOf(zem::MakeReadFrame(kId, 0xCAFE, entries)),
              Hex("04030201 03000000 d0000000 fecA0000 02000000") + Zeros(8) + Zeros(8) +
                  kTokenBytes + Hex("07000000 00000000") + Zeros(56) + Hex("a8a7a6a5a4a3a2a1") +
                  Zeros(8) + Zeros(8) + Hex("8977660144332211 08000000 00000080") + Zeros(72));
}
TEST(ZemWireRequest, WriteFrameOrdinaryAndSpecialWithPayload) {
    zem::WriteEntry video;
    video.token = kToken;
    video.position = 9;
    video.streamFlags = 1;
    video.bufferLengths_bytes = {3, 2};
    video.userData64 = 0xA8;
    video.userData32 = 0xB4;
    zem::WriteEntry marker;
    marker.token = 0x18000001;
    marker.position = 10;
    for (size_t i = 0; i < 24; ++i)
        marker.special[i] = static_cast<uint8_t>(i + 1);
    const zem::WriteEntry entries[] = {video, marker};
    CRequest request = zem::MakeWriteFrame(kId, 5, entries);
    const uint8_t payload[] = {'h', 'e', 'l', 'l', 'o'};
    request.Payload(payload);
    EXPECT_EQ(BytesOf(request), Hex("04030201 04000000 d0000000 05000000 02000000") + Zeros(8) +
                                    Zeros(8) + kTokenBytes +
                                    Hex("09000000 01000000 02000000 00000000") +
                                    Hex("03000000 00000000 02000000 00000000") + Zeros(32) +
                                    Hex("a800000000000000 b4000000 00000000") + Zeros(8) +
                                    Hex("0100001800000000 0a000000 00000000") +
                                    Hex("0102030405060708090a0b0c0d0e0f101112131415161718") +
                                    Zeros(32) + Zeros(16) + "hello");
}
TEST(ZemWireRequest, TokenCommands) {
    const std::pair<Command, std::string> expected[] = {{Command::kCloseFile, "05000000"},
                                                        {Command::kGetFileInfo, "06000000"},
                                                        {Command::kFlushBuffers, "0a000000"},
                                                        {Command::kGetFileMarks, "0b000000"}};
    for (const auto& [command, code] : expected) {
        EXPECT_EQ(BytesOf(zem::MakeToken(command, kId, kToken)),
                  Hex("04030201" + code + "08000000") + kTokenBytes);
    }
}
TEST(ZemWireRequest, NameFormQueries) {
    EXPECT_EQ(BytesOf(zem::MakeFileRef(Command::kGetFileInfo2, kId, Ref())),
              Hex("04030201 07000000 18040000") + RefBytes());
    EXPECT_EQ(BytesOf(zem::MakeFileRef(Command::kGetFileMarks2, kId, Ref())),
              Hex("04030201 0c000000 18040000") + RefBytes());
}
TEST(ZemWireRequest, FrameDescriptors) {
    EXPECT_EQ(BytesOf(zem::MakeFrameDesc(kId, kToken, 100, 3, kFrameRate2997)),
              Hex("04030201 08000000 14000000") + kTokenBytes + Hex("64000000 03000000 04000000"));
    EXPECT_EQ(BytesOf(zem::MakeFrameDesc2(kId, Ref(), 100, -1)),
              Hex("04030201 09000000 20040000") + RefBytes() + Hex("64000000 ffffffff"));
}
TEST(ZemWireRequest, StripeTimecode) {
    EXPECT_EQ(BytesOf(zem::MakeStripe(kId, Ref(), {0x52, 0x34, 0x56, 0x10}, 2)),
              Hex("04030201 0d000000 20040000") + RefBytes() + Hex("52345610 02000000"));
}
TEST(ZemWireRequest, UpdateCfg) {
    EXPECT_EQ(BytesOf(zem::MakeUpdateCfg(kId, u"<a/>")),
              Hex("04030201 0e000000 0a000000 3c00 6100 2f00 3e00 0000"));
}
TEST(ZemWireRequest, ClientTable) {
    EXPECT_EQ(BytesOf(zem::MakeJoin(kId, 255)), Hex("04030201 0f000000 04000000 ff000000"));
    EXPECT_EQ(BytesOf(zem::MakeBare(Command::kLeave, kId)), Hex("04030201 10000000 00000000"));
    EXPECT_EQ(BytesOf(zem::MakeBare(Command::kKeepAlive, kId)), Hex("04030201 11000000 00000000"));
    EXPECT_EQ(BytesOf(zem::MakeBare(Command::kSetIoRealTime, kId)),
              Hex("04030201 12000000 00000000"));
}
TEST(ZemWireRequest, FileSystemCommands) {
    const std::pair<Command, std::string> expected[] = {
        {Command::kQueryFilesystemSpace, "13000000"},
        {Command::kGetFileAttribs, "14000000"},
        {Command::kDeleteFile, "15000000"},
        {Command::kGetFileSize, "16000000"},
        {Command::kCreateDirectory, "17000000"}};
    for (const auto& [command, code] : expected) {
        EXPECT_EQ(BytesOf(zem::MakeName(command, kId, u"media/v")),
                  Hex("04030201" + code + "08020000") + NameField());
    }
    EXPECT_EQ(BytesOf(zem::MakeMove(kId, u"media/v", u"a1")),
              Hex("04030201 18000000 10040000") + NameField() + AuxField());
}
TEST(ZemWireRequest, EraseSegment) {
    EXPECT_EQ(BytesOf(zem::MakeErase(kId, kToken, 5, 6, kMediaFileVideo)),
              Hex("04030201 19000000 14000000") + kTokenBytes + Hex("05000000 06000000 01000000"));
}
TEST(ZemWireRequest, UpdateCfgAttrStr) {
    EXPECT_EQ(BytesOf(zem::MakeUpdateCfgAttr(kId, u"media/v", u"25")),
              Hex("04030201 1a000000 0e020000") + NameField() + Hex("3200 3500 0000"));
}
TEST(ZemWireRequest, NamesThatDoNotFitTheirFieldAreRefused) {
    const auto name_of = [](const std::u16string& name) {
        return [name] { zem::MakeName(Command::kDeleteFile, kId, name); };
    };
    EXPECT_NO_THROW(name_of(std::u16string(259, u'x'))());
    EXPECT_EQ(KindOf(name_of(std::u16string(260, u'x'))), ErrorKind::kUsage);
    EXPECT_EQ(KindOf(name_of(std::u16string(u"a\0b", 3))), ErrorKind::kUsage);
    EXPECT_EQ(KindOf([] { zem::MakeUpdateCfg(kId, std::u16string_view(u"\0", 1)); }),
              ErrorKind::kUsage);
}
TEST(ZemWireRequest, StreamAndBufferCountsAreBounded) {
    const std::vector<zem::ReadEntry> reads(23);
    EXPECT_EQ(KindOf([&] { zem::MakeReadFrame(kId, 0, reads); }), ErrorKind::kUsage);
    EXPECT_EQ(KindOf([&] { zem::MakeReadFrame(kId, 0, {}); }), ErrorKind::kUsage);
    EXPECT_NO_THROW(zem::MakeReadFrame(kId, 0, std::span(reads).first(22)));
    const std::vector<zem::WriteEntry> writes(23);
    EXPECT_EQ(KindOf([&] { zem::MakeWriteFrame(kId, 0, writes); }), ErrorKind::kUsage);
    zem::WriteEntry seven;
    seven.bufferLengths_bytes.assign(7, 1);
    EXPECT_EQ(KindOf([&] { zem::MakeWriteFrame(kId, 0, {&seven, 1}); }), ErrorKind::kUsage);
}

TEST(ZemWireReply, StatusOnlyCommands) {
    const std::pair<Command, std::string> expected[] = {
        {Command::kWriteFrame, "04000000"},      {Command::kCloseFile, "05000000"},
        {Command::kFlushBuffers, "08000000"},    {Command::kStripeTimecode, "0a000000"},
        {Command::kUpdateCfg, "0b000000"},       {Command::kJoin, "0c000000"},
        {Command::kLeave, "0d000000"},           {Command::kKeepAlive, "0e000000"},
        {Command::kSetIoRealTime, "0f000000"},   {Command::kDeleteFile, "12000000"},
        {Command::kCreateDirectory, "14000000"}, {Command::kMoveFile, "15000000"},
        {Command::kEraseSegment, "16000000"},    {Command::kUpdateCfgAttrStr, "17000000"}};
    for (const auto& [command, code] : expected)
        CheckStatusReply(command, code);
}
TEST(ZemWireReply, CreateAndOpenShareTheirCode) {
    const std::string bytes = Hex("04030201 02000000 10000000 00000000 deadbeef") + kTokenBytes;
    for (const Command command : {Command::kCreateFile, Command::kOpenFile}) {
        const HttpReply reply = Reply(bytes);
        EXPECT_EQ(zem::DecodeToken(zem::CheckReply(reply, command, kId, 16)), kToken);
    }
}
TEST(ZemWireReply, FileInfo) {
    const HttpReply reply = Reply(Hex("04030201 06000000 3c000000 00000000") + kDescBytes);
    for (const Command command : {Command::kGetFileInfo, Command::kGetFileInfo2}) {
        const ZemEsDesc desc = zem::DecodeEsDesc(
            zem::CheckReply(reply, command, kId, zem::ReplyBodySize_bytes(command)));
        const ZemEsDesc expected = Desc();
        EXPECT_EQ(std::memcmp(&desc, &expected, sizeof(desc)), 0);
    }
}
TEST(ZemWireReply, FrameDescriptorsByTokenAndByName) {
    const std::string entries =
        Hex("10000000 03000000 01020304") + Hex("20000000 02000000 02020304");
    const HttpReply token_form =
        Reply(Hex("04030201 07000000 20000000 00000000 02000000") + entries);
    const HttpReply name_form =
        Reply(Hex("04030201 07000000 2c000000 00000000 02000000") + entries + Zeros(12));
    const std::pair<Command, const HttpReply*> forms[] = {{Command::kGetFrameDesc, &token_form},
                                                          {Command::kGetFrameDesc2, &name_form}};
    for (const auto& [command, reply] : forms) {
        const auto descs = zem::DecodeFrameDescs(
            zem::CheckReply(*reply, command, kId, zem::FrameDescBodySize_bytes(command, 2)), 2);
        ASSERT_EQ(descs.size(), 2u);
        EXPECT_EQ(descs[0].dataSize, 16u);
        EXPECT_EQ(descs[0].flags, 3u);
        EXPECT_EQ(descs[0].timecode.frames, 1);
        EXPECT_EQ(descs[0].timecode.hours, 4);
        EXPECT_EQ(descs[1].dataSize, 32u);
        EXPECT_EQ(descs[1].timecode.frames, 2);
    }
    EXPECT_EQ(zem::FrameDescBodySize_bytes(Command::kGetFrameDesc, 3), 44u);
    EXPECT_EQ(zem::FrameDescBodySize_bytes(Command::kGetFrameDesc2, 3), 68u);
}
TEST(ZemWireReply, MarksSpaceAttributesAndSize) {
    const HttpReply marks = Reply(Hex("04030201 09000000 0c000000 00000000 05000000 06000000"));
    for (const Command command : {Command::kGetFileMarks, Command::kGetFileMarks2}) {
        const auto decoded = zem::DecodeMarks(zem::CheckReply(marks, command, kId, 12));
        EXPECT_EQ(decoded.first, 5u);
        EXPECT_EQ(decoded.second, 6u);
    }
    const HttpReply space = Reply(Hex("04030201 10000000 18000000 00000000 00000000") +
                                  Hex("0000000000010000 0102030405060708"));
    const auto decoded =
        zem::DecodeSpace(zem::CheckReply(space, Command::kQueryFilesystemSpace, kId, 24));
    EXPECT_EQ(decoded.total_bytes, 1099511627776u);
    EXPECT_EQ(decoded.free_bytes, 0x0807060504030201u);
    const HttpReply attributes = Reply(Hex("04030201 11000000 08000000 00000000 ffffffff"));
    EXPECT_EQ(zem::DecodeAttributes(zem::CheckReply(attributes, Command::kGetFileAttribs, kId, 8)),
              zem::kNoAttributes);
    const HttpReply size =
        Reply(Hex("04030201 13000000 10000000 00000000 00000000 0100000002000000"));
    EXPECT_EQ(zem::DecodeFileSize(zem::CheckReply(size, Command::kGetFileSize, kId, 16)),
              0x200000001u);
}

// A read-frame reply of two streams: the table's size counts 144 bytes for the second, its entries
// stand 96 apart.
std::string TwoStreams(const std::string& first_status, const std::string& first_length) {
    return Hex("04030201 03000000 f8000000 04000000 02000000") + Hex(first_status) + Zeros(4) +
           kTokenBytes + Hex("07000000 00000000 01000000 efbeadde" + first_length) + Zeros(44) +
           Hex("a8a7a6a5a4a3a2a1 b4b3b2b1 00000000") +
           Hex("00000000 00000000 0100001800000000 08000000 00000000") +
           Hex("0102030405060708090a0b0c0d0e0f101112131415161718") + Zeros(32) + Zeros(16) +
           Zeros(48);
}
const zem::ReadEntry kAsked[] = {{kToken, 7, 0, 0}, {0x18000001, 8, 0, 0}};

TEST(ZemWireReply, ReadFrame) {
    const HttpReply reply = Reply(TwoStreams("00000000", "05000000") + "hello");
    const auto frames = zem::DecodeReadFrame(reply, kId, kAsked);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].status, 0);
    EXPECT_EQ(frames[0].token, kToken);
    EXPECT_EQ(frames[0].position, 7u);
    EXPECT_EQ(std::string(frames[0].data.begin(), frames[0].data.end()), "hello");
    EXPECT_EQ(frames[0].userData64, 0xA1A2A3A4A5A6A7A8u);
    EXPECT_EQ(frames[0].userData32, 0xB1B2B3B4u);
    EXPECT_TRUE(frames[1].data.empty());
    EXPECT_EQ(frames[1].special[0], 1);
    EXPECT_EQ(frames[1].special[23], 24);
    EXPECT_EQ(zem::ReadFrameBodySize_bytes(1), 104u);
    EXPECT_EQ(zem::ReadFrameBodySize_bytes(2), 248u);
}
TEST(ZemWireReply, ReadFrameAtTheEndIsAStreamStatusUnderHttp500) {
    // The length of a failed stream is stale and must not be counted.
    const HttpReply reply = Reply(TwoStreams("4c040780", "ffffffff"), 500);
    const auto frames = zem::DecodeReadFrame(reply, kId, kAsked);
    EXPECT_EQ(frames[0].status, zem::kHrEndOfMedia);
    EXPECT_TRUE(frames[0].data.empty());
}
TEST(ZemWireReply, ReadFrameThatWasNotStartedSaysSo) {
    int32_t hr = 0;
    const HttpReply reply = Reply(Hex("04030201 03000000 04000000 00000000"));
    EXPECT_EQ(KindOf([&] { zem::DecodeReadFrame(reply, kId, kAsked); }, &hr), ErrorKind::kRefused);
    EXPECT_EQ(hr, zem::kHrFail);
    const HttpReply generic = Reply(Hex("04030201 03000000 04000000 57000780"), 500);
    EXPECT_EQ(KindOf([&] { zem::DecodeReadFrame(generic, kId, kAsked); }, &hr),
              ErrorKind::kRefused);
    EXPECT_EQ(hr, zem::kHrInvalidArg);
}
TEST(ZemWireReply, ReadFrameLengthsMustMatchTheData) {
    for (const char* length : {"06000000", "04000000", "ffffffff", "00000000"}) {
        const HttpReply reply = Reply(TwoStreams("00000000", length) + "hello");
        EXPECT_EQ(KindOf([&] { zem::DecodeReadFrame(reply, kId, kAsked); }), ErrorKind::kBadReply)
            << length;
    }
}
TEST(ZemWireReply, ReadFrameOfAnotherTokenOrCountIsRefused) {
    const HttpReply reply = Reply(TwoStreams("00000000", "05000000") + "hello");
    const zem::ReadEntry other[] = {{kToken + 1, 7, 0, 0}, {0x18000001, 8, 0, 0}};
    EXPECT_EQ(KindOf([&] { zem::DecodeReadFrame(reply, kId, other); }), ErrorKind::kBadReply);
    EXPECT_EQ(KindOf([&] { zem::DecodeReadFrame(reply, kId, std::span(kAsked).first(1)); }),
              ErrorKind::kBadReply);
}

TEST(ZemWireFailure, GenericFailureCarriesTheRequestCode) {
    int32_t hr = 0;
    const HttpReply reply = Reply(Hex("04030201 0f000000 04000000 01400080"), 500);
    EXPECT_EQ(KindOf([&] { zem::CheckReply(reply, Command::kJoin, kId, 4); }, &hr),
              ErrorKind::kRefused);
    EXPECT_EQ(hr, zem::kHrNotImplemented);
}
TEST(ZemWireFailure, CommandFailureCarriesTheReplyCode) {
    int32_t hr = 0;
    const HttpReply reply = Reply(Hex("04030201 0b000000 04000000 57000780"), 500);
    EXPECT_EQ(KindOf([&] { zem::CheckReply(reply, Command::kUpdateCfg, kId, 4); }, &hr),
              ErrorKind::kRefused);
    EXPECT_EQ(hr, zem::kHrInvalidArg);
}
TEST(ZemWireFailure, NegativeStatusUnder200IsAFailure) {
    int32_t hr = 0;
    const HttpReply reply = Reply(Hex("04030201 0c000000 04000000 05400080"));
    EXPECT_EQ(KindOf([&] { zem::CheckReply(reply, Command::kJoin, kId, 4); }, &hr),
              ErrorKind::kRefused);
    EXPECT_EQ(hr, zem::kHrFail);
}
TEST(ZemWireFailure, StatusOnlyRepliesAreToldApart) {
    const auto status_only = [](int status) {
        return [status] {
            HttpReply reply;
            reply.status = status;
            reply.reason = "Error 0x8000ffff";
            zem::CheckReply(reply, Command::kJoin, kId, 4);
        };
    };
    EXPECT_EQ(KindOf(status_only(500)), ErrorKind::kRefused);
    EXPECT_EQ(KindOf(status_only(405)), ErrorKind::kBadReply);
    EXPECT_EQ(KindOf(status_only(200)), ErrorKind::kBadReply);
}

TEST(ZemWireMalformed, EveryFieldOfTheReplyHeaderIsChecked) {
    const std::string good = Hex("04030201 0c000000 04000000 00000000");
    const auto refused = [](const HttpReply& reply) {
        return KindOf([&] { zem::CheckReply(reply, Command::kJoin, kId, 4); }) ==
               ErrorKind::kBadReply;
    };
    EXPECT_FALSE(good.empty());
    for (size_t length = 0; length < good.size(); ++length)
        EXPECT_TRUE(refused(Reply(good.substr(0, length)))) << length;
    EXPECT_TRUE(refused(Reply(Hex("05030201 0c000000 04000000 00000000")))) << "transaction";
    EXPECT_TRUE(refused(Reply(Hex("04030201 0d000000 04000000 00000000")))) << "reply code";
    EXPECT_TRUE(refused(Reply(Hex("04030201 0c000000 05000000 00000000")))) << "too long a size";
    EXPECT_TRUE(refused(Reply(Hex("04030201 0c000000 ffffffff 00000000")))) << "huge size";
    EXPECT_TRUE(refused(Reply(Hex("04030201 0c000000 00000000 00000000")))) << "too short a size";
    EXPECT_TRUE(refused(Reply(good + "x"))) << "bytes behind";
    HttpReply reply = Reply(good);
    reply.headerLength_bytes = 17;
    EXPECT_TRUE(refused(reply)) << "zem-resphdr-len";
    reply.headerLength_bytes = -1;
    EXPECT_TRUE(refused(reply)) << "no zem-resphdr-len";
    reply = Reply(good);
    reply.protocolVersion = "2";
    EXPECT_TRUE(refused(reply)) << "zem-ver";
    reply.protocolVersion.clear();
    EXPECT_TRUE(refused(reply)) << "no zem-ver";
    reply = Reply(good);
    reply.status = 404;
    EXPECT_TRUE(refused(reply)) << "HTTP status";
}
TEST(ZemWireMalformed, FrameDescriptorCountMustBeTheOneAskedFor) {
    const HttpReply reply =
        Reply(Hex("04030201 07000000 14000000 00000000 ffffff7f 01000000 02000000 03000000"));
    const zem::CheckedReply checked = zem::CheckReply(reply, Command::kGetFrameDesc, kId, 20);
    EXPECT_EQ(KindOf([&] { zem::DecodeFrameDescs(checked, 1); }), ErrorKind::kBadReply);
    // A caller that trusted the count would allocate 24 GiB here.
    EXPECT_EQ(KindOf([&] { zem::DecodeFrameDescs(checked, 0x7FFFFFFF); }), ErrorKind::kBadReply);
}

uint64_t Seed() {
    const char* text = std::getenv("ZEM_TEST_SEED");
    const uint64_t seed =
        text != nullptr ? std::strtoull(text, nullptr, 0) : std::random_device()();
    std::printf("ZEM_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
    return seed;
}

// Whatever bytes arrive: a value or a CZemError, nothing else.
TEST(ZemWireFuzz, DamagedRepliesAreDecodedOrRefused) {
    std::mt19937_64 random(Seed());
    const std::string seeds[] = {TwoStreams("00000000", "05000000") + "hello",
                                 Hex("04030201 06000000 3c000000 00000000") + kDescBytes,
                                 Hex("04030201 07000000 20000000 00000000 02000000") + Zeros(24),
                                 Hex("04030201 0c000000 04000000 00000000")};
    int refused = 0;
    int decoded = 0;
    for (int round = 0; round < 40000; ++round) {
        std::string bytes = seeds[random() % std::size(seeds)];
        for (uint64_t edits = random() % 4; edits > 0; --edits)
            bytes[random() % bytes.size()] = static_cast<char>(random());
        if (random() % 4 == 0) bytes.resize(random() % (bytes.size() + 8));
        HttpReply reply = Reply(bytes, random() % 4 == 0 ? 500 : 200);
        if (random() % 16 == 0) reply.headerLength_bytes = static_cast<int64_t>(random());
        const auto command = static_cast<Command>(1 + random() % 26);
        try {
            if (command == Command::kReadFrame) {
                zem::DecodeReadFrame(reply, kId, kAsked);
            } else {
                const auto body = random() % 2 == 0 ? zem::ReplyBodySize_bytes(command)
                                                    : zem::FrameDescBodySize_bytes(command, 2);
                const zem::CheckedReply checked = zem::CheckReply(reply, command, kId, body);
                switch (command) {
                    case Command::kGetFileInfo:
                    case Command::kGetFileInfo2:
                        zem::DecodeEsDesc(checked);
                        break;
                    case Command::kGetFrameDesc:
                    case Command::kGetFrameDesc2:
                        zem::DecodeFrameDescs(checked, 2);
                        break;
                    default:
                        // Deliberately also on bodies that are too short for them.
                        zem::DecodeToken(checked);
                        zem::DecodeMarks(checked);
                        zem::DecodeSpace(checked);
                }
            }
            ++decoded;
        } catch (const CZemError& error) {
            EXPECT_TRUE(error.Kind() == ErrorKind::kBadReply ||
                        error.Kind() == ErrorKind::kRefused);
            ++refused;
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(decoded, 0);
}

TEST(ZemText, ConvertsBothWays) {
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xAC";
    EXPECT_EQ(zem::ToUtf16(text, "t"), u"a\u00E9\u20AC\U0001F3AC");
    EXPECT_EQ(zem::ToUtf8(u"a\u00E9\u20AC\U0001F3AC"), text);
    EXPECT_EQ(zem::ToUtf8(std::u16string(1, char16_t{0xD800})), "\xEF\xBF\xBD");
}
TEST(ZemText, RefusesIllFormedUtf8) {
    for (const char* bad : {"\x80", "\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                            "\xE2\x82", "\xFF", "a\xC3("}) {
        EXPECT_EQ(KindOf([bad] { zem::ToUtf16(bad, "t"); }), ErrorKind::kUsage);
    }
}
TEST(ZemText, ResultsHaveWords) {
    EXPECT_EQ(zem::HresultText(zem::kHrEndOfMedia),
              "0x8007044c (end of media: there is no frame at this position)");
    EXPECT_EQ(zem::HresultText(static_cast<int32_t>(0x80123456u)), "0x80123456");
}

}  // namespace
