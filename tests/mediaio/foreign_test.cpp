// Foreign files through a channel: what is sent from where, what is refused, what is kept beside a
// file, and what a changed or damaged file gives.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "mediaio/foreign/clip.h"
#include "tests/mediaio/foreignfixture.h"

namespace {

using namespace mediatest;

const HRESULT kReadOnly = HRESULT_FROM_WIN32(ERROR_WRITE_PROTECT);
const HRESULT kDamaged = HRESULT_FROM_WIN32(ERROR_CRC);

class Foreign : public CForeignTest {
protected:
    bool IndexExists(const std::string& name) const {
        return std::filesystem::exists(Path("." + name + ".zemindex"));
    }
    ZemFrameDesc Special(ULONGLONG token, uint32_t position, HRESULT* hr = nullptr) {
        Io io;
        io.entries[0].token = token;
        io.entries[0].position = position;
        io.Wait(m_channel->ReadFrame(io.desc));
        ZemFrameDesc desc;
        memcpy(&desc, io.entries[0].special, sizeof desc);
        if (hr != nullptr) *hr = io.entries[0].status;
        return desc;
    }
    std::vector<std::vector<uint8_t>> AllFrames(ULONGLONG token) {
        std::vector<std::vector<uint8_t>> frames(Info(token).frameCount);
        for (uint32_t i = 0; i < frames.size(); ++i)
            EXPECT_EQ(Read(token, i, frames[i]), S_OK) << i;
        return frames;
    }
};

TEST_F(Foreign, SendsPicturesFromTheFilesOwnPages) {
    MakeMov("clip.mov");
    const ULONGLONG token = Open("clip.mov", kFileRead, nullptr, TEXT("v0"));
    EXPECT_EQ(TokenKind(token), kTokenKindVideo);
    const ZemEsDesc desc = Info(token);
    EXPECT_EQ(desc.mediaType, kMediaFileVideo);
    EXPECT_EQ(desc.frameCount, 30u);
    EXPECT_EQ(desc.rateNumerator, 30000u);
    EXPECT_EQ(desc.rateDenominator, 1001u);
    EXPECT_EQ(desc.flags, kEsFlagReadOnly | kEsFlagDropFrame);
    Io io;
    io.entries[0].token = token;
    io.entries[0].position = 7;
    io.Wait(m_channel->ReadFrame(io.desc));
    ASSERT_EQ(io.entries[0].status, S_OK);
    ASSERT_EQ(io.entries[0].bufferCount, 1);
    int descriptor = -1;
    uint64_t offset = 0;
    const ZemIoBuffer buffer = io.entries[0].buffers[0];
    EXPECT_TRUE(FindFileView(buffer.data, buffer.length_bytes, &descriptor, &offset));
    const std::vector<uint8_t> whole = LoadFile(Path("clip.mov"));
    const std::vector<uint8_t> bytes = Fetch(buffer);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(),
                           whole.begin() + static_cast<std::ptrdiff_t>(offset)));
    EXPECT_EQ(m_allocator.BytesInUse(), 0u) << "no memory of the channel was used";
    m_channel->ReadFrameComplete(io.streams);
    EXPECT_FALSE(IndexExists("clip.mov")) << "its own table is enough";
}

TEST_F(Foreign, CutsSoundToThePictures) {
    MakeMov("clip.mov");
    const ULONGLONG token = Open("clip.mov", kFileRead, nullptr, TEXT("a0"));
    EXPECT_EQ(TokenKind(token), kTokenKindAudio);
    const std::vector<std::vector<uint8_t>> frames = AllFrames(token);
    const size_t samples[] = {1602, 1601, 1602, 1601, 1602};
    ASSERT_EQ(frames.size(), 30u);
    for (size_t i = 0; i + 1 < frames.size(); ++i)
        EXPECT_EQ(frames[i].size(), samples[i % 5] * 2) << i;
    // The last one has what is left of the second.
    size_t total = 0;
    for (const auto& frame : frames)
        total += frame.size();
    EXPECT_EQ(total, 48000u * 2);
    EXPECT_EQ(m_allocator.BytesInUse(), 0u);
}

TEST_F(Foreign, ReadsPicturesAndSoundInOneRequest) {
    MakeMov("clip.mov");
    const ULONGLONG video = Open("clip.mov", kFileRead, nullptr, TEXT("v0"));
    const ULONGLONG audio = Open("clip.mov", kFileRead, nullptr, TEXT("a0"));
    const ULONGLONG timecode = Open("clip.mov", kFileRead, nullptr, TEXT("tc"));
    Io io(3);
    const ULONGLONG tokens[] = {video, audio, timecode};
    for (size_t i = 0; i < 3; ++i) {
        io.entries[i].token = tokens[i];
        io.entries[i].position = 11;
    }
    io.Wait(m_channel->ReadFrame(io.desc));
    std::vector<uint8_t> alone;
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(io.entries[i].status, S_OK);
        EXPECT_EQ(Read(tokens[i], 11, alone), S_OK);
        EXPECT_EQ(Fetch(io.entries[i].buffers[0]), alone);
    }
    EXPECT_EQ(io.entries[2].status, S_OK);
    m_channel->ReadFrameComplete(io.streams);
}

TEST_F(Foreign, CarriesItsTimecode) {
    MakeMov("clip.mov");
    const ULONGLONG token = Open("clip.mov", kFileRead, nullptr, TEXT("tc"));
    EXPECT_EQ(TokenKind(token), kTokenKindTimecode);
    EXPECT_EQ(Info(token).mediaType, kMediaFileTimecode);
    // 00:00:59;20 and ten frames on: 00:01:00;02, for 00 and 01 are dropped.
    const ZemFrameDesc desc = Special(token, 10);
    EXPECT_EQ(desc.position, 10u);
    EXPECT_EQ(desc.timecode.minutes, 0x01);
    EXPECT_EQ(desc.timecode.seconds, 0x00);
    EXPECT_EQ(desc.timecode.frames, 0x02 | 0x40);
    HRESULT hr = S_OK;
    Special(token, 30, &hr);
    EXPECT_EQ(hr, kEndOfMedia);
    // The sound counts with the pictures.
    ZemFrameDesc sound{};
    const ULONGLONG audio = Open("clip.mov", kFileRead, nullptr, TEXT("a0"));
    ASSERT_EQ(m_channel->GetFrameDesc(audio, 10, 1, &sound, kFrameRateFile), S_OK);
    EXPECT_EQ(memcmp(&sound.timecode, &desc.timecode, 4), 0);
}

TEST_F(Foreign, CarriesDataStreamsAsDescriptions) {
    MakeMov("clip.mov");  // its timecode track is one: a single packet
    const ULONGLONG token = Open("clip.mov", kFileRead, nullptr, TEXT("d0"));
    EXPECT_EQ(TokenKind(token), kTokenKindData);
    EXPECT_EQ(Info(token).frameCount, 1u);
    const ZemFrameDesc desc = Special(token, 0);
    EXPECT_EQ(desc.dataSize, 4u);
    EXPECT_EQ(desc.flags, kFrameFlagKey | kFrameFlagPresent);
}

TEST_F(Foreign, HasNoMarksOfItsOwn) {
    MakeMov("clip.mov");
    const ULONGLONG token = Open("clip.mov", kFileRead, nullptr, TEXT("mk"));
    HRESULT hr = S_OK;
    Special(token, 0, &hr);
    EXPECT_EQ(hr, kErrorFrameHole);
    DWORD first = 9;
    DWORD second = 9;
    EXPECT_EQ(m_channel->GetFileMarks(token, first, second), S_OK);
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(second, 30u);
}

TEST_F(Foreign, IsNeverWritten) {
    MakeMov("clip.mov");
    const std::vector<uint8_t> before = LoadFile(Path("clip.mov"));
    ULONGLONG token = 0;
    EXPECT_EQ(TryOpen("clip.mov", kFileRead | kFileWrite, TEXT("v0"), token), kReadOnly);
    ULONGLONG created = 0;
    EXPECT_EQ(m_channel->CreateFileW(TEXT("clip.mov"), TEXT(""), Describe(kMediaFileVideo), 0,
                                     nullptr, created, true),
              kReadOnly);
    EXPECT_EQ(m_channel->StripeTimecode(TEXT("clip.mov"), TEXT(""), kMediaFileAny, kFileRead,
                                        {0, 0, 0, 0x10}, 0),
              kReadOnly);
    token = Open("clip.mov");
    EXPECT_EQ(Write(token, 3, Bytes(1, 100)), kReadOnly);
    EXPECT_EQ(m_channel->EraseSegment(token, 0, 5, kMediaFileVideo), kReadOnly);
    const ULONGLONG marks = Open("clip.mov", kFileRead, nullptr, TEXT("mk"));
    Io io;
    io.entries[0].token = marks;
    io.Wait(m_channel->WriteFrame(io.desc));
    EXPECT_EQ(io.entries[0].status, kReadOnly);
    EXPECT_EQ(m_channel->FlushBuffers(token), S_OK);
    EXPECT_EQ(LoadFile(Path("clip.mov")), before);
}

TEST_F(Foreign, GivesWayToANativeFileWhenThatIsAskedFor) {
    MakeMkv("clip.mkv");
    const ULONGLONG before = Open("clip.mkv");
    std::vector<uint8_t> frame;
    std::vector<uint8_t> again;
    ASSERT_EQ(Read(before, 5, frame), S_OK);
    const ULONGLONG token = Create("clip.mkv", kMediaFileVideo, kFileTruncate);
    EXPECT_EQ(Write(token, 0, Bytes(1, 10)), S_OK);
    EXPECT_EQ(Info(token).frameCount, 1u);
    EXPECT_EQ(Read(before, 5, again), S_OK) << "who has the old file open keeps it";
    EXPECT_EQ(again, frame);
}

TEST_F(Foreign, IsKnownByItsContentAlone) {
    MakeMov("clip.mov");
    std::filesystem::rename(Path("clip.mov"), Path("clip"));
    EXPECT_EQ(Info(Open("clip")).frameCount, 30u);
    const ULONGLONG native = Create("native.mov");
    EXPECT_EQ(Write(native, 0, Bytes(1, 10)), S_OK);
    EXPECT_EQ(Info(native).frameCount, 1u);
}

TEST_F(Foreign, NamesAndTypesSelectStreams) {
    MakeMov("clip.mov");
    struct Case {
        const WCHAR* aux;
        MediaFileType type;
        uint32_t kind;  // 0: not found
    };
    const Case cases[] = {
        {TEXT(""), kMediaFileAny, kTokenKindVideo},
        {TEXT(""), kMediaFileAudio, kTokenKindAudio},
        {TEXT(""), kMediaFileTimecode, kTokenKindTimecode},
        {TEXT(""), kMediaFileData, kTokenKindData},
        {TEXT("v0"), kMediaFileVideo, kTokenKindVideo},
        {TEXT("v0"), kMediaFileAudio, 0},
        {TEXT("v1"), kMediaFileAny, 0},
        {TEXT("a0"), kMediaFileAny, kTokenKindAudio},
        {TEXT("a1"), kMediaFileAny, 0},
        {TEXT("tc"), kMediaFileVideo, 0},
    };
    for (const Case& row : cases) {
        ULONGLONG token = 0;
        const HRESULT hr =
            m_channel->OpenFile(TEXT("clip.mov"), row.aux, row.type, kFileRead, false, token);
        EXPECT_EQ(hr, row.kind != 0 ? S_OK : HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
        EXPECT_EQ(TokenKind(token), row.kind);
    }
}

TEST_F(Foreign, MapsPositionsOfAnotherRate) {
    MakeMov("clip.mov");
    const ULONGLONG token = Open("clip.mov");
    std::vector<uint8_t> own;
    std::vector<uint8_t> mapped;
    ASSERT_EQ(Read(token, 5, own), S_OK);
    VARIANT value;
    value.vt = VT_BSTR;
    value.bstrVal = SysAllocString(TEXT("59.94"));
    ASSERT_EQ(m_channel->UpdateChannelConfigAttr(TEXT("59.94"), TEXT("frameRate"), value), S_OK);
    SysFreeString(value.bstrVal);
    ASSERT_EQ(Read(token, 11, mapped), S_OK);
    EXPECT_EQ(own, mapped);
}

TEST_F(Foreign, ReadsTransportStreamsInAnyOrder) {
    MakeTs("clip.ts");
    const ULONGLONG token = Open("clip.ts");
    const std::vector<std::vector<uint8_t>> frames = AllFrames(token);
    ASSERT_EQ(frames.size(), 50u);
    bool pending = false;
    std::vector<uint8_t> bytes;
    for (const uint32_t position : {49u, 3u, 30u, 31u, 12u, 0u, 48u}) {
        EXPECT_EQ(Read(token, position, bytes, nullptr, &pending), S_OK);
        EXPECT_EQ(bytes, frames[position]) << position;
        EXPECT_TRUE(pending) << "demuxing is not the caller's work";
    }
    EXPECT_TRUE(IndexExists("clip.ts"));
}

TEST_F(Foreign, WithoutMemoryAReadIsDropped) {
    MakeTs("clip.ts");
    const ULONGLONG token = Open("clip.ts");
    m_channel->SetReadAllocator(nullptr);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Read(token, 0, bytes), HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES));
}

TEST_F(Foreign, ManyReadersOfOneClip) {
    MakeTs("clip.ts");
    MakeMov("clip.mov");
    for (const char* name : {"clip.ts", "clip.mov"}) {
        const std::vector<std::vector<uint8_t>> frames = AllFrames(Open(name));
        std::vector<std::thread> readers;
        for (uint32_t reader = 0; reader < 4; ++reader) {
            readers.emplace_back([&, reader] {
                const std::unique_ptr<CZemChannelIo> channel = NewChannel();
                const ULONGLONG token = Open(name, kFileRead, channel.get());
                std::vector<uint8_t> bytes;
                for (uint32_t i = 0; i < 30; ++i) {
                    const uint32_t position = (i * 7 + reader * 5) % 30;
                    EXPECT_EQ(Read(token, position, bytes, channel.get()), S_OK);
                    EXPECT_EQ(bytes, frames[position]);
                }
            });
        }
        for (std::thread& reader : readers)
            reader.join();
    }
}

TEST_F(Foreign, KeepsAnIndexThatCostAPass) {
    MakeMkv("clip.mkv");
    const std::vector<std::vector<uint8_t>> frames = AllFrames(Open("clip.mkv"));
    ASSERT_TRUE(IndexExists("clip.mkv"));
    const auto time = std::filesystem::last_write_time(Path(".clip.mkv.zemindex"));
    m_channel = NewChannel();
    EXPECT_EQ(AllFrames(Open("clip.mkv")), frames);
    EXPECT_EQ(std::filesystem::last_write_time(Path(".clip.mkv.zemindex")), time);
    // Another clip of this name: the index is stale.
    m_channel = NewChannel();
    MakeMkv("clip.mkv", 2);
    EXPECT_EQ(AllFrames(Open("clip.mkv")).size(), 50u);
    EXPECT_NE(std::filesystem::last_write_time(Path(".clip.mkv.zemindex")), time);
}

// A caller is not held longer than it has patience; what it asked for is done all the same.
TEST_F(Foreign, APassGoesOnWithoutTheCaller) {
    using zemstore::CForeignClip;
    const std::chrono::milliseconds patience = CForeignClip::s_patience.exchange({});
    bool sentAway = false;
    for (int attempt = 0; attempt < 20 && !sentAway; ++attempt) {
        // The pass may be done before anybody looks; another file then.
        const std::string name = "clip" + std::to_string(attempt) + ".mkv";
        MakeMkv(name);
        ULONGLONG token = 0;
        const HRESULT hr = OpenOnce(name.c_str(), kFileRead, TEXT(""), token);
        sentAway = hr == HRESULT_FROM_WIN32(ERROR_BUSY);
        EXPECT_EQ(hr, sentAway ? HRESULT_FROM_WIN32(ERROR_BUSY) : S_OK);
        CForeignClip::AwaitPasses();
        EXPECT_EQ(AllFrames(Open(name.c_str())).size(), 25u);
        EXPECT_TRUE(IndexExists(name));
    }
    EXPECT_TRUE(sentAway);
    CForeignClip::s_patience = patience;
}

TEST_F(Foreign, ManyOpenOneFileAtOnce) {
    MakeTs("clip.ts");
    StoreFile(Path("noise.bin"), Bytes(3, 3000));
    std::vector<std::thread> openers;
    for (int i = 0; i < 6; ++i) {
        openers.emplace_back([&] {
            const std::unique_ptr<CZemChannelIo> channel = NewChannel();
            std::vector<uint8_t> bytes;
            for (int k = 0; k < 3; ++k) {
                const ULONGLONG token = Open("clip.ts", kFileRead, channel.get());
                EXPECT_EQ(Read(token, 5, bytes, channel.get()), S_OK);
                EXPECT_EQ(channel->CloseFile(token), S_OK);
                ULONGLONG none = 0;
                EXPECT_EQ(channel->OpenFile(TEXT("noise.bin"), TEXT(""), kMediaFileAny, kFileRead,
                                            false, none),
                          HRESULT_FROM_WIN32(ERROR_BAD_FORMAT));
            }
        });
    }
    for (std::thread& opener : openers)
        opener.join();
}

TEST_F(Foreign, ADamagedIndexCountsForNothing) {
    MakeMkv("clip.mkv");
    const std::vector<std::vector<uint8_t>> frames = AllFrames(Open("clip.mkv"));
    const std::string index = Path(".clip.mkv.zemindex");
    const std::vector<uint8_t> good = LoadFile(index);
    const size_t places[] = {0, 9, 17, 30, 41, 60, good.size() / 2, good.size() - 1};
    for (const size_t at : places) {
        m_channel = NewChannel();
        std::vector<uint8_t> bad = good;
        bad[at] ^= 0x40;
        StoreFile(index, bad);
        EXPECT_EQ(AllFrames(Open("clip.mkv")), frames) << at;
        EXPECT_EQ(LoadFile(index), good) << "it was made anew";
    }
    m_channel = NewChannel();
    StoreFile(index, {good.begin(), good.begin() + 100});
    EXPECT_EQ(AllFrames(Open("clip.mkv")), frames);
}

TEST_F(Foreign, AnIndexOfAnotherTimeOrVersionIsMadeAnew) {
    MakeMkv("clip.mkv");
    const std::vector<std::vector<uint8_t>> frames = AllFrames(Open("clip.mkv"));
    const std::string index = Path(".clip.mkv.zemindex");
    const std::vector<uint8_t> good = LoadFile(index);
    // The same size at another time: 24 bytes of the header are the file's time and a checksum.
    m_channel = NewChannel();
    const auto time = std::filesystem::last_write_time(Path("clip.mkv"));
    std::filesystem::last_write_time(Path("clip.mkv"), time + std::chrono::seconds(1));
    EXPECT_EQ(AllFrames(Open("clip.mkv")), frames);
    const std::vector<uint8_t> later = LoadFile(index);
    ASSERT_EQ(later.size(), good.size());
    EXPECT_NE(memcmp(&later[24], &good[24], 8), 0);
    EXPECT_EQ(memcmp(&later[48], &good[48], good.size() - 48), 0);
    // Another version, with checksums that are right.
    m_channel = NewChannel();
    std::vector<uint8_t> other = later;
    ++other[8];
    const uint32_t crc = zemstore::Crc32c(0, other.data(), 44);
    memcpy(&other[44], &crc, sizeof crc);
    StoreFile(index, other);
    EXPECT_EQ(AllFrames(Open("clip.mkv")), frames);
    EXPECT_EQ(LoadFile(index), later);
}

// Another program still writes the file: each opening shows what is there, and keeps to it.
TEST_F(Foreign, AFileThatGrowsShowsMoreAtEachOpening) {
    MakeTs("whole.ts");
    MakeMkv("whole.mkv");
    Make("whole.mxf", kPicture + "25" + kSound + "-t 2 -c:v mpeg2video -g 6 -threads 1");
    Make("whole.mp4",
         kPicture + "25 -t 2 -c:v mpeg4 -g 5 -threads 1 -movflags frag_keyframe+empty_moov");
    for (const char* name : {"whole.ts", "whole.mkv", "whole.mxf", "whole.mp4"}) {
        const std::vector<std::vector<uint8_t>> frames = AllFrames(Open(name));
        const std::vector<uint8_t> bytes = LoadFile(Path(name));
        std::vector<ULONGLONG> tokens;
        std::vector<uint32_t> counts;
        for (const size_t tenths : {5u, 8u, 10u}) {
            std::ofstream out(Path("growing"), std::ios::binary | std::ios::app);
            const auto from = static_cast<size_t>(out.tellp());
            const size_t to = bytes.size() * tenths / 10;
            out.write(reinterpret_cast<const char*>(&bytes[from]),
                      static_cast<std::streamsize>(to - from));
            out.close();
            tokens.push_back(Open("growing"));
            counts.push_back(Info(tokens.back()).frameCount);
        }
        EXPECT_LT(counts[0], counts[1]) << name;
        EXPECT_LT(counts[1], counts[2]) << name;
        EXPECT_EQ(counts[2], frames.size()) << name;
        for (size_t i = 0; i < tokens.size(); ++i) {
            EXPECT_EQ(Info(tokens[i]).frameCount, counts[i]) << name;
            // The last one may have been cut off.
            for (uint32_t position = 0; position + 1 < counts[i]; position += 3) {
                std::vector<uint8_t> frame;
                EXPECT_EQ(Read(tokens[i], position, frame), S_OK) << name << position;
                EXPECT_EQ(frame, frames[position]) << name << position;
            }
        }
        for (const ULONGLONG token : tokens)
            m_channel->CloseFile(token);
        std::filesystem::remove(Path("growing"));
    }
}

TEST_F(Foreign, WithoutAPlaceForTheIndexItStaysInMemory) {
    MakeMkv("clip.mkv");
    std::filesystem::create_directory(Path(".clip.mkv.zemindex"));
    EXPECT_EQ(AllFrames(Open("clip.mkv")).size(), 25u);
}

TEST_F(Foreign, TheIndexGoesWithItsFile) {
    MakeMkv("clip.mkv");
    Open("clip.mkv");
    m_channel = NewChannel();
    EXPECT_EQ(m_channel->MoveFileW(TEXT("clip.mkv"), TEXT("other.mkv")), S_OK);
    EXPECT_FALSE(IndexExists("clip.mkv"));
    EXPECT_TRUE(IndexExists("other.mkv"));
    EXPECT_EQ(m_channel->DeleteFileW(TEXT("other.mkv")), S_OK);
    EXPECT_FALSE(IndexExists("other.mkv"));
}

TEST_F(Foreign, BytesThatRotAreNoticed) {
    MakeMkv("clip.mkv");
    const std::vector<std::vector<uint8_t>> frames = AllFrames(Open("clip.mkv"));
    m_channel = NewChannel();
    // Without a trace in the file's time, as a bad device does it.
    std::vector<uint8_t> whole = LoadFile(Path("clip.mkv"));
    const auto time = std::filesystem::last_write_time(Path("clip.mkv"));
    const auto found = std::search(whole.begin(), whole.end(), frames[9].begin(), frames[9].end());
    ASSERT_NE(found, whole.end());
    *(found + 100) ^= 1;
    StoreFile(Path("clip.mkv"), whole);
    std::filesystem::last_write_time(Path("clip.mkv"), time);
    const ULONGLONG token = Open("clip.mkv");
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Read(token, 9, bytes), kDamaged);
    EXPECT_EQ(Read(token, 9, bytes), kDamaged);
    EXPECT_EQ(Read(token, 10, bytes), S_OK);
    ZemFrameDesc desc{};
    EXPECT_EQ(m_channel->GetFrameDesc(token, 9, 1, &desc, kFrameRateFile), S_OK);
    EXPECT_EQ(desc.flags & kFrameFlagCorrupt, kFrameFlagCorrupt);
}

TEST_F(Foreign, WhatIsCutOffIsDamagedAndTheRestIsRead) {
    MakeMov("clip.mov");
    const std::vector<std::vector<uint8_t>> frames = AllFrames(Open("clip.mov"));
    m_channel = NewChannel();
    std::filesystem::resize_file(Path("clip.mov"),
                                 std::filesystem::file_size(Path("clip.mov")) / 2);
    const ULONGLONG token = Open("clip.mov");
    EXPECT_EQ(Info(token).frameCount, 30u);
    uint32_t read = 0;
    bool damaged = false;
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < 30; ++i) {
        const HRESULT hr = Read(token, i, bytes);
        if (hr == S_OK) {
            EXPECT_EQ(bytes, frames[i]);
            EXPECT_FALSE(damaged) << i;
            ++read;
        } else {
            EXPECT_EQ(hr, kDamaged) << i;
            damaged = true;
        }
    }
    EXPECT_GT(read, 5u);
    EXPECT_TRUE(damaged);
}

TEST_F(Foreign, AFileThatShrinksWhileItIsReadGivesErrors) {
    Make("clip.mov", kPicture + "25 -t 2 -c:v rawvideo -movflags faststart");
    const ULONGLONG token = Open("clip.mov");
    std::filesystem::resize_file(Path("clip.mov"), 100000);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Read(token, 49, bytes), kDamaged);
}

TEST_F(Foreign, NoiseIsNoClip) {
    ULONGLONG token = 0;
    for (const size_t size : {0, 1, 7, 8, 100, 5000, 100000}) {
        StoreFile(Path("noise"), Bytes(static_cast<uint32_t>(size), size));
        EXPECT_EQ(TryOpen("noise", kFileRead, TEXT(""), token),
                  HRESULT_FROM_WIN32(ERROR_BAD_FORMAT))
            << size;
    }
}

TEST_F(Foreign, NothingButTheFileIsOpened) {
    MakeMov("clip.mov");
    const std::string texts[] = {
        "ffconcat version 1.0\nfile clip.mov\n",
        "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:10,\nclip.mov\n#EXT-X-ENDLIST\n",
        "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nm=video 9 RTP/AVP 96\n",
    };
    for (const std::string& text : texts) {
        StoreFile(Path("list"), {text.begin(), text.end()});
        ULONGLONG token = 0;
        EXPECT_EQ(TryOpen("list", kFileRead, TEXT(""), token),
                  HRESULT_FROM_WIN32(ERROR_BAD_FORMAT));
    }
}

}  // namespace
