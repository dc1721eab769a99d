// What files say about themselves, timecode, marks, special streams and the channel's settings.
#include "channelfixture.h"

namespace {

using namespace mediatest;

class Media : public CVolumeTest {
protected:
    ULONGLONG ClipOf(uint32_t frames, const char* name = "clip") {
        const ULONGLONG token = Create(name);
        for (uint32_t i = 0; i < frames; ++i)
            EXPECT_EQ(Write(token, i, Bytes(i, 50 + i)), S_OK);
        return token;
    }
    HRESULT ReadSpecial(ULONGLONG token, uint32_t position, ZemFrameDesc& desc) {
        Io io;
        io.entries[0].token = token;
        io.entries[0].position = position;
        io.Wait(m_channel->ReadFrame(io.desc));
        memcpy(&desc, io.entries[0].special, sizeof desc);
        m_channel->ReadFrameComplete(io.streams);
        return io.entries[0].status;
    }
    HRESULT WriteSpecial(ULONGLONG token, uint32_t position, const ZemFrameDesc& desc) {
        Io io;
        io.entries[0].token = token;
        io.entries[0].position = position;
        memcpy(io.entries[0].special, &desc, sizeof desc);
        EXPECT_EQ(m_channel->GetWriteFrameBuffers(io.desc), S_OK);
        io.Wait(m_channel->WriteFrame(io.desc));
        return io.entries[0].status;
    }
};

TEST_F(Media, FileInfoByTokenAndByName) {
    const ULONGLONG token = ClipOf(3);
    ZemEsDesc byToken{};
    ZemEsDesc byName{};
    ASSERT_EQ(m_channel->GetFileInfo(token, byToken), S_OK);
    ASSERT_EQ(m_channel->CZemIo::GetFileInfo(TEXT("clip"), TEXT(""), kMediaFileAny, 0, byName),
              S_OK);
    EXPECT_EQ(byToken.sizeVersion, kEsDescVersion1);
    EXPECT_EQ(byToken.mediaType, kMediaFileVideo);
    EXPECT_EQ(byToken.frameCount, 3u);
    EXPECT_EQ(memcmp(&byToken, &byName, sizeof byName), 0);
    byName.frameCount = 77;
    EXPECT_EQ(m_channel->GetFileInfo(TEXT("none"), TEXT(""), kMediaFileAny, 0, byName),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(m_channel->GetFileInfo(token ^ 0x100, byName), E_HANDLE);
    EXPECT_EQ(byName.frameCount, 77u) << "outputs are written on success only";
}

// The name may lie where the answer goes.
TEST_F(Media, TheAnswerMayOverwriteTheName) {
    ClipOf(1);
    alignas(8) uint8_t body[520] = {};
    memcpy(body, TEXT("clip"), 10);
    ASSERT_EQ(m_channel->GetFileInfo(reinterpret_cast<const WCHAR*>(body), TEXT(""), kMediaFileAny,
                                     0, *reinterpret_cast<ZemEsDesc*>(body + 4)),
              S_OK);
    EXPECT_EQ(reinterpret_cast<ZemEsDesc*>(body + 4)->frameCount, 1u);
}

TEST_F(Media, FrameDescriptors) {
    const ULONGLONG token = ClipOf(5);
    ZemFrameDesc descs[8];
    memset(descs, 0xEE, sizeof descs);
    ASSERT_EQ(m_channel->GetFrameDesc(token, 3, 4, descs, kFrameRateFile), S_OK);
    EXPECT_EQ(descs[0].dataSize, 53u);
    EXPECT_EQ(descs[1].position, 4u);
    EXPECT_EQ(descs[1].timecode.frames, 4);
    const ZemFrameDesc none{};
    EXPECT_EQ(memcmp(&descs[2], &none, sizeof none), 0);
    EXPECT_EQ(memcmp(&descs[3], &none, sizeof none), 0);
    EXPECT_EQ(descs[4].dataSize, 0xEEEEEEEEu) << "not one more";
    ASSERT_EQ(m_channel->GetFrameDesc(token, 0, 4, descs, kFrameRate50), S_OK);
    EXPECT_EQ(descs[0].position, 0u);
    EXPECT_EQ(descs[1].position, 0u);
    EXPECT_EQ(descs[2].position, 1u);
    ASSERT_EQ(m_channel->GetFrameDesc(TEXT("clip"), TEXT(""), kMediaFileAny, 0, 1, 1, descs), S_OK);
    EXPECT_EQ(descs[0].dataSize, 51u);
    EXPECT_EQ(m_channel->GetFrameDesc(token, 0, -1, descs, kFrameRateFile), E_INVALIDARG);
    EXPECT_EQ(m_channel->GetFrameDesc(token, 0, 0, nullptr, kFrameRateFile), S_OK);
    EXPECT_EQ(m_channel->GetFrameDesc(token, 0, 1, descs, static_cast<VioFrameRate_t>(12)),
              E_INVALIDARG);
    ASSERT_EQ(m_channel->GetFrameDesc(token, 0xFFFFFFFE, 4, descs, kFrameRateFile), S_OK);
    EXPECT_EQ(memcmp(&descs[3], &none, sizeof none), 0) << "positions do not wrap";
}

TEST_F(Media, BaseReadCopies) {
    const ULONGLONG token = ClipOf(3);
    uint8_t room[64];
    DWORD size = sizeof room;
    ASSERT_EQ(m_channel->ReadFrame(token, 2, kFrameRateFile, size, room), S_OK);
    EXPECT_EQ(size, 52u);
    EXPECT_EQ(std::vector<uint8_t>(room, room + 52), Bytes(2, 52));
    size = 10;
    EXPECT_EQ(m_channel->ReadFrame(token, 2, kFrameRateFile, size, room),
              HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(size, 52u);
    size = sizeof room;
    EXPECT_EQ(m_channel->ReadFrame(token, 2, kFrameRate50, size, room), S_OK);
    EXPECT_EQ(size, 51u);
    EXPECT_EQ(m_channel->ReadFrame(token, 3, kFrameRateFile, size, room), kEndOfMedia);
}

TEST_F(Media, StripingIsTimecodeForEveryFrame) {
    const ULONGLONG token = ClipOf(30);
    const vdrTimecode_s start{0x24, 0x59, 0x59, 0x23};
    ASSERT_EQ(
        m_channel->StripeTimecode(TEXT("clip"), TEXT(""), kMediaFileAny, kFileWrite, start, 0),
        S_OK);
    ZemFrameDesc desc;
    ASSERT_EQ(m_channel->GetFrameDesc(token, 0, 1, &desc, kFrameRateFile), S_OK);
    EXPECT_EQ(memcmp(&desc.timecode, &start, 4), 0);
    ASSERT_EQ(m_channel->GetFrameDesc(token, 1, 1, &desc, kFrameRateFile), S_OK);
    const vdrTimecode_s midnight{};
    EXPECT_EQ(memcmp(&desc.timecode, &midnight, 4), 0) << "past midnight it begins again";
    ZemEsDesc info{};
    ASSERT_EQ(m_channel->GetFileInfo(token, info), S_OK);
    EXPECT_EQ(info.flags, kEsFlagStriped | kEsFlagGrowing);
    EXPECT_EQ(memcmp(&info.startTimecode, &start, 4), 0);
    const ULONGLONG timecode = Open("clip", kFileRead, nullptr, TEXT("tc"));
    EXPECT_EQ(TokenKind(timecode), kTokenKindTimecode);
    ASSERT_EQ(ReadSpecial(timecode, 1, desc), S_OK);
    EXPECT_EQ(desc.position, 1u);
    EXPECT_EQ(memcmp(&desc.timecode, &midnight, 4), 0);
    EXPECT_EQ(ReadSpecial(timecode, 30, desc), kEndOfMedia);
    // All or nothing: a refused start leaves what was there.
    const vdrTimecode_s wrong{0x25, 0, 0, 0};
    EXPECT_EQ(m_channel->StripeTimecode(TEXT("clip"), TEXT(""), kMediaFileAny, 0, wrong, 0),
              E_INVALIDARG);
    EXPECT_EQ(m_channel->StripeTimecode(TEXT("clip"), TEXT(""), kMediaFileAny, 0, midnight, 1),
              E_INVALIDARG)
        << "25 frames per second never drop";
    EXPECT_EQ(m_channel->StripeTimecode(TEXT("clip"), TEXT(""), kMediaFileAny, 0, midnight, 2),
              E_INVALIDARG);
    ASSERT_EQ(m_channel->GetFileInfo(token, info), S_OK);
    EXPECT_EQ(memcmp(&info.startTimecode, &start, 4), 0);
}

TEST_F(Media, StripingInDropFrame) {
    ZemEsDesc desc = Describe(kMediaFileVideo);
    desc.rateNumerator = 30000;
    desc.rateDenominator = 1001;
    ULONGLONG token = 0;
    ASSERT_EQ(m_channel->CreateFileW(TEXT("ntsc"), TEXT(""), desc, 0, nullptr, token, true), S_OK);
    ASSERT_EQ(Write(token, 1, Bytes(0, 10)), S_OK);
    const vdrTimecode_s start{0x29, 0x59, 0x00, 0x10};
    ASSERT_EQ(m_channel->StripeTimecode(TEXT("ntsc"), TEXT(""), kMediaFileAny, 0, start, 1), S_OK);
    ZemFrameDesc frame;
    ASSERT_EQ(m_channel->GetFrameDesc(token, 1, 1, &frame, kFrameRateFile), S_OK);
    EXPECT_EQ(frame.timecode.minutes, 0x01);
    EXPECT_EQ(frame.timecode.frames, 0x42) << "numbers 0 and 1 are left out; bit 6 says drop-frame";
    ASSERT_EQ(m_channel->GetFileInfo(token, desc), S_OK);
    EXPECT_EQ(desc.flags & kEsFlagDropFrame, kEsFlagDropFrame);
}

TEST_F(Media, Marks) {
    const ULONGLONG token = ClipOf(10);
    DWORD first = 1;
    DWORD second = 1;
    ASSERT_EQ(m_channel->GetFileMarks(token, first, second), S_OK);
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(second, 10u) << "unset marks are the file's ends";
    const ULONGLONG marks = Open("clip", kFileWrite, nullptr, TEXT("mk"));
    EXPECT_EQ(TokenKind(marks), kTokenKindMarker);
    ZemFrameDesc desc{};
    EXPECT_EQ(ReadSpecial(marks, 0, desc), kErrorFrameHole);
    desc = {};
    desc.position = 3;
    ASSERT_EQ(WriteSpecial(marks, 0, desc), S_OK);
    desc.position = 7;
    ASSERT_EQ(WriteSpecial(marks, 1, desc), S_OK);
    EXPECT_EQ(WriteSpecial(marks, 2, desc), E_INVALIDARG);
    ASSERT_EQ(m_channel->GetFileMarks(TEXT("clip"), TEXT(""), kMediaFileAny, 0, first, second),
              S_OK);
    EXPECT_EQ(first, 3u);
    EXPECT_EQ(second, 7u);
    ASSERT_EQ(ReadSpecial(marks, 1, desc), S_OK);
    EXPECT_EQ(desc.position, 7u);
    EXPECT_EQ(desc.timecode.frames, 7);
    EXPECT_EQ(ReadSpecial(marks, 2, desc), kEndOfMedia);
}

TEST_F(Media, DataStreamsKeepTheirDescriptions) {
    ULONGLONG token = Create("data", kMediaFileData);
    EXPECT_TRUE(IsSpecialToken(token));
    ZemFrameDesc in{};
    for (uint32_t i = 0; i < 200; ++i) {
        in.dataSize = i * 7;
        in.presentationTimeHigh = ~i;
        ASSERT_EQ(WriteSpecial(token, i, in), S_OK);
    }
    for (int round = 0; round < 2; ++round) {
        ZemFrameDesc out{};
        for (uint32_t i = 0; i < 200; ++i) {
            ASSERT_EQ(ReadSpecial(token, i, out), S_OK);
            EXPECT_EQ(out.dataSize, i * 7);
            EXPECT_EQ(out.presentationTimeHigh, ~i);
        }
        EXPECT_EQ(ReadSpecial(token, 200, out), kEndOfMedia);
        ASSERT_EQ(m_channel->CloseFile(token), S_OK);
        token = Open("data");
    }
}

TEST_F(Media, EraseIsForTheWriterAndChecksItsRange) {
    const ULONGLONG token = ClipOf(10);
    const ULONGLONG reader = Open("clip");
    EXPECT_EQ(m_channel->EraseSegment(reader, 0, 5, kMediaFileAny), E_ACCESSDENIED);
    EXPECT_EQ(m_channel->EraseSegment(token, 5, 5, kMediaFileAny), E_INVALIDARG);
    EXPECT_EQ(m_channel->EraseSegment(token, 0, 5, kMediaFileAudio), E_INVALIDARG);
    EXPECT_EQ(m_channel->EraseSegment(token, 10, 12, kMediaFileAny), kEndOfMedia);
    EXPECT_EQ(m_channel->EraseSegment(token, 8, 0xFFFFFFFF, kMediaFileVideo), S_OK);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Read(reader, 7, bytes), S_OK);
    EXPECT_EQ(Read(reader, 8, bytes), kErrorFrameErased);
    EXPECT_EQ(Read(reader, 9, bytes), kErrorFrameErased);
    ASSERT_EQ(m_channel->CloseFile(token), S_OK);
    EXPECT_EQ(m_channel->EraseSegment(token, 0, 5, kMediaFileAny), E_HANDLE);
}

TEST_F(Media, ChannelAttributes) {
    const ULONGLONG token = ClipOf(5);
    VARIANT value{};
    value.vt = VT_BSTR;
    const auto set = [&](const WCHAR* name, const WCHAR* text) {
        value.bstrVal = SysAllocString(text);
        const HRESULT hr = m_channel->UpdateChannelConfigAttr(text, name, value);
        SysFreeString(value.bstrVal);
        return hr;
    };
    EXPECT_EQ(set(TEXT("frameRate"), TEXT("50")), S_OK);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Read(token, 5, bytes), S_OK);
    EXPECT_EQ(bytes, Bytes(2, 52)) << "positions count at the channel's rate";
    EXPECT_EQ(set(TEXT("frameRate"), TEXT("file")), S_OK);
    EXPECT_EQ(Read(token, 5, bytes), kEndOfMedia);
    EXPECT_EQ(set(TEXT("readAhead"), TEXT("8")), S_OK);
    EXPECT_EQ(Read(token, 0, bytes), S_OK);
    EXPECT_EQ(set(TEXT("readAhead"), TEXT("auto")), S_OK);
    EXPECT_EQ(set(TEXT("readAhead"), TEXT("automatic")), E_INVALIDARG);
    EXPECT_EQ(set(TEXT("readAhead"), TEXT("65")), E_INVALIDARG);
    EXPECT_EQ(set(TEXT("readAhead"), TEXT("-1")), E_INVALIDARG);
    EXPECT_EQ(set(TEXT("frameRate"), TEXT("26")), E_INVALIDARG);
    EXPECT_EQ(set(TEXT("colour"), TEXT("red")), E_INVALIDARG);
    value.vt = VT_EMPTY;
    EXPECT_EQ(m_channel->UpdateChannelConfigAttr(TEXT("1"), TEXT("readAhead"), value),
              E_INVALIDARG);
}

TEST_F(Media, ChannelConfigurationAsADocument) {
    const ULONGLONG token = ClipOf(5);
    ASSERT_GE(CoInitializeEx(nullptr, COINIT_MULTITHREADED), 0);
    IXMLDOMDocument* document = nullptr;
    ASSERT_EQ(CoCreateInstance(CLSID_FreeThreadedDOMDocument60, nullptr, CLSCTX_ALL,
                               IID_IXMLDOMDocument, reinterpret_cast<void**>(&document)),
              S_OK);
    VARIANT variant{};
    variant.vt = VT_DISPATCH;
    variant.pdispVal = document;
    const auto load = [&](const WCHAR* text) {
        BSTR xml = SysAllocString(text);
        VARIANT_BOOL good = VARIANT_FALSE;
        document->loadXML(xml, &good);
        SysFreeString(xml);
        return m_channel->UpdateChannelConfigInt(variant, 0);
    };
    std::vector<uint8_t> bytes;
    EXPECT_EQ(load(TEXT("<channelConfig><frameRate>50</frameRate></channelConfig>")), S_OK);
    EXPECT_EQ(Read(token, 8, bytes), S_OK);
    EXPECT_EQ(bytes, Bytes(4, 54));
    EXPECT_EQ(load(TEXT("<channelConfig frameRate='file' readAhead='2'/>")), S_OK);
    EXPECT_EQ(Read(token, 8, bytes), kEndOfMedia);
    EXPECT_EQ(load(TEXT("<channelConfig frameRate='50'><what>1</what></channelConfig>")),
              E_INVALIDARG);
    EXPECT_EQ(Read(token, 8, bytes), kEndOfMedia) << "all or nothing";
    for (const WCHAR* twice :
         {TEXT("<channelConfig><frameRate>50</frameRate><frameRate>50</frameRate></channelConfig>"),
          TEXT("<channelConfig readAhead='2'><readAhead>2</readAhead></channelConfig>")}) {
        EXPECT_EQ(load(twice), E_INVALIDARG) << "an attribute stands in a document once";
    }
    EXPECT_EQ(load(TEXT("<other/>")), E_INVALIDARG);
    EXPECT_EQ(load(TEXT("<channelConfig>")), E_INVALIDARG) << "not well-formed";
    IDispatch* dispatch = document;
    variant.vt = VT_DISPATCH | 0x4000;
    variant.byref = &dispatch;
    EXPECT_EQ(load(TEXT("<channelConfig/>")), S_OK);
    EXPECT_EQ(m_channel->UpdateChannelConfigInt(variant, 1), E_INVALIDARG);
    variant.byref = nullptr;
    EXPECT_EQ(m_channel->UpdateChannelConfigInt(variant, 0), E_INVALIDARG);
    variant.vt = VT_EMPTY;
    EXPECT_EQ(m_channel->UpdateChannelConfigInt(variant, 0), E_INVALIDARG);
    document->Release();
    CoUninitialize();
}

TEST_F(Media, ClientIdAndConnection) {
    EXPECT_EQ(WString(m_channel->GetClientId()), TEXT("client"));
    m_channel->SetClientId(WString(400, u'x').c_str());
    EXPECT_EQ(WString(m_channel->GetClientId()).size(), 259u);
    EXPECT_EQ(m_channel->Connect(TEXT("")), S_OK);
    EXPECT_EQ(m_channel->Connect(TEXT("localhost")), S_OK);
    EXPECT_EQ(m_channel->Connect(TEXT("elsewhere")), HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(m_channel->Disconnect(), S_OK);
    EXPECT_EQ(m_channel->SetIoRealTime(TRUE), S_OK);
    EXPECT_EQ(m_channel->SetRemoteIoRealTime(FALSE), S_OK);
}

}  // namespace
