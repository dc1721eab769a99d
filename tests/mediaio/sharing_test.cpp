// One writer and many readers, in several channels at once.
#include "channelfixture.h"

#include <thread>

namespace {

using namespace mediatest;

class Sharing : public CVolumeTest {};

TEST_F(Sharing, AFrameIsReadableElsewhereOnceItsWriteCompleted) {
    const ULONGLONG writer = Create("clip");
    auto other = NewChannel();
    const ULONGLONG reader = Open("clip", kFileRead, other.get());
    ZemEsDesc desc{};
    ASSERT_EQ(other->GetFileInfo(reader, desc), S_OK);
    EXPECT_EQ(desc.flags & kEsFlagGrowing, kEsFlagGrowing);
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < 100; ++i) {
        ASSERT_EQ(Read(reader, i, bytes, other.get()), kEndOfMedia);
        ASSERT_EQ(Write(writer, i, Bytes(i, 10000)), S_OK);
        ASSERT_EQ(Read(reader, i, bytes, other.get()), S_OK);
        ASSERT_EQ(bytes, Bytes(i, 10000));
    }
    ASSERT_EQ(m_channel->CloseFile(writer), S_OK);
    ASSERT_EQ(other->GetFileInfo(reader, desc), S_OK);
    EXPECT_EQ(desc.flags & kEsFlagGrowing, 0u);
    EXPECT_EQ(desc.frameCount, 100u);
}

TEST_F(Sharing, OneWriter) {
    const ULONGLONG writer = Create("clip");
    auto other = NewChannel();
    ULONGLONG token = 0;
    const HRESULT busy = HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION);
    EXPECT_EQ(other->OpenFile(TEXT("clip"), TEXT(""), kMediaFileAny, kFileWrite, false, token),
              busy);
    const ZemEsDesc desc = Describe(kMediaFileVideo);
    EXPECT_EQ(other->CreateFileW(TEXT("clip"), TEXT(""), desc, kFileTruncate, nullptr, token, true),
              busy);
    EXPECT_EQ(other->CreateFileW(TEXT("clip"), TEXT(""), desc, 0, nullptr, token, true), busy);
    EXPECT_EQ(other->DeleteFileW(TEXT("clip")), busy) << "what is being recorded stays";
    ASSERT_EQ(m_channel->CloseFile(writer), S_OK);
    EXPECT_EQ(other->OpenFile(TEXT("clip"), TEXT(""), kMediaFileAny, kFileWrite, false, token),
              S_OK);
}

TEST_F(Sharing, AWriterThatLeavesFreesTheFile) {
    auto other = NewChannel();
    const ULONGLONG writer = Create("clip", kMediaFileVideo, 0, other.get());
    ASSERT_EQ(Write(writer, 0, Bytes(0, 10), other.get()), S_OK);
    other.reset();
    EXPECT_NE(Open("clip", kFileWrite), 0u);
}

// A reader that follows a writer who also overwrites must always see some whole version.
TEST_F(Sharing, ReadersNeverSeeATornOrStaleFrame) {
    const ULONGLONG writer = Create("clip");
    constexpr uint32_t kFrames = 12;
    constexpr uint32_t kRounds = 40;
    const auto make = [](uint32_t position, uint32_t version) {
        auto bytes = Bytes(position * 1000 + version, 20000 + position * 700);
        memcpy(bytes.data(), &version, sizeof version);
        return bytes;
    };
    for (uint32_t i = 0; i < kFrames; ++i)
        ASSERT_EQ(Write(writer, i, make(i, 0)), S_OK);
    std::atomic<uint32_t> completed[kFrames] = {};
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&, r] {
            auto channel = NewChannel();
            const ULONGLONG token = Open("clip", kFileRead, channel.get());
            std::vector<uint8_t> bytes;
            for (uint32_t i = static_cast<uint32_t>(r); !stop; i = (i + 1) % kFrames) {
                const uint32_t before = completed[i];
                ASSERT_EQ(Read(token, i, bytes, channel.get()), S_OK);
                uint32_t version = 0;
                memcpy(&version, bytes.data(), sizeof version);
                ASSERT_GE(version, before) << "stale";
                ASSERT_EQ(bytes, make(i, version)) << "torn";
            }
        });
    }
    for (uint32_t version = 1; version <= kRounds; ++version) {
        for (uint32_t i = 0; i < kFrames; ++i) {
            EXPECT_EQ(Write(writer, i, make(i, version)), S_OK);
            completed[i] = version;
        }
        if (version % 10 == 0) {
            EXPECT_EQ(m_channel->FlushBuffers(writer), S_OK);
        }
    }
    stop = true;
    for (std::thread& reader : readers)
        reader.join();
}

TEST_F(Sharing, OpenCloseAndUseFromManyThreads) {
    const ULONGLONG writer = Create("clip");
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(Write(writer, i, Bytes(i, 5000)), S_OK);
    ASSERT_EQ(m_channel->CloseFile(writer), S_OK);
    std::atomic<ULONGLONG> shared{Open("clip")};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            std::vector<uint8_t> bytes;
            for (uint32_t i = 0; i < 150; ++i) {
                const HRESULT hr = Read(shared, t, bytes);
                ASSERT_TRUE(hr == S_OK || hr == E_HANDLE);
                if (hr == S_OK) {
                    ASSERT_EQ(bytes, Bytes(t, 5000));
                }
                ZemEsDesc desc{};
                m_channel->GetFileInfo(shared, desc);
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        const ULONGLONG next = Open("clip");
        const ULONGLONG old = shared.exchange(next);
        ASSERT_EQ(m_channel->CloseFile(old), S_OK);
        EXPECT_EQ(m_channel->CloseFile(old), E_HANDLE);
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(Sharing, AThousandAndTwentyFourOpenFiles) {
    Create("clip");
    for (int i = 1; i < 1024; ++i)
        ASSERT_NE(Open("clip"), 0u);
    ULONGLONG token = 0;
    EXPECT_EQ(m_channel->OpenFile(TEXT("clip"), TEXT(""), kMediaFileAny, 0, false, token),
              HRESULT_FROM_WIN32(ERROR_TOO_MANY_OPEN_FILES));
    auto other = NewChannel();
    EXPECT_EQ(other->OpenFile(TEXT("clip"), TEXT(""), kMediaFileAny, 0, false, token), S_OK);
}

}  // namespace
