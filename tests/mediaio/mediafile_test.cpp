// One media file: frames, versions, index, space, settings.
#include "simfile.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace simfile;
using namespace zemstore;

class MediaFile : public testing::Test {
protected:
    void SetUp() override { FormatVideo(m_device); }
    Device m_device;
};

TEST_F(MediaFile, StartsEmpty) {
    Opened file(m_device);
    ASSERT_EQ(file.hr, S_OK);
    EXPECT_EQ(file->FrameCount(), 0u);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*file.file, 0, bytes), HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA));
    EXPECT_EQ(m_device.content.size(), kLogOffset);
}

TEST_F(MediaFile, AnyPositionInAnyOrderWithHoles) {
    Opened file(m_device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    for (uint32_t position : {7u, 3u, 100000u, 3u, 0u})
        ASSERT_EQ(WriteFrame(*file.file, position, FrameBytes(position, 1, 5000)), S_OK);
    EXPECT_EQ(file->FrameCount(), 100001u);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*file.file, 100000, bytes), S_OK);
    EXPECT_EQ(bytes, FrameBytes(100000, 1, 5000));
    EXPECT_EQ(ReadFrame(*file.file, 5, bytes), kErrorFrameHole);
    EXPECT_EQ(ReadFrame(*file.file, 50000, bytes), kErrorFrameHole);
    EXPECT_EQ(ReadFrame(*file.file, 100001, bytes), HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA));
    EXPECT_EQ(file->EndWriting(), S_OK);
    Opened again(m_device);
    ASSERT_EQ(again.hr, S_OK);
    EXPECT_EQ(again->OpenReport().tailRecords, 0u) << "a closed file has no tail";
    EXPECT_EQ(ReadFrame(*again.file, 100000, bytes), S_OK);
    EXPECT_EQ(bytes, FrameBytes(100000, 1, 5000));
    EXPECT_EQ(ReadFrame(*again.file, 50000, bytes), kErrorFrameHole);
}

TEST_F(MediaFile, FarApartPositions) {
    Opened file(m_device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    for (uint32_t position : {kLastPosition, 0u, 0x80000000u, 0x07FFFFFFu, 0x08000000u})
        ASSERT_EQ(WriteFrame(*file.file, position, FrameBytes(position, 9, 64)), S_OK);
    EXPECT_EQ(file->FrameCount(), kLastPosition + 1);
    ASSERT_EQ(file->EndWriting(), S_OK);
    Opened again(m_device);
    ASSERT_EQ(again.hr, S_OK);
    std::vector<uint8_t> bytes;
    for (uint32_t position : {kLastPosition, 0u, 0x80000000u, 0x07FFFFFFu, 0x08000000u}) {
        ASSERT_EQ(ReadFrame(*again.file, position, bytes), S_OK) << position;
        EXPECT_EQ(bytes, FrameBytes(position, 9, 64));
    }
    EXPECT_LT(m_device.content.size(), size_t{1} << 20);
}

TEST_F(MediaFile, ADamagedFrameIsNotReturned) {
    {
        Opened file(m_device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        for (uint32_t i = 0; i < 3; ++i)
            ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, 5000)), S_OK);
        ASSERT_EQ(file->EndWriting(), S_OK);
    }
    m_device.content[kLogOffset + SlotSize(5000) + 4999] ^= 1;
    Opened file(m_device);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*file.file, 0, bytes), S_OK);
    EXPECT_EQ(ReadFrame(*file.file, 1, bytes), HRESULT_FROM_WIN32(ERROR_CRC));
    EXPECT_EQ(ReadFrame(*file.file, 1, bytes), HRESULT_FROM_WIN32(ERROR_CRC)) << "remembered";
    EXPECT_EQ(ReadFrame(*file.file, 2, bytes), S_OK);
    ZemFrameDesc desc;
    file->FrameDesc(1, desc);
    EXPECT_EQ(desc.flags, kFrameFlagPresent | kFrameFlagCorrupt);
    // A new version is a new chance.
    ASSERT_EQ(file->BeginWriting(), S_OK);
    ASSERT_EQ(WriteFrame(*file.file, 1, FrameBytes(1, 2, 100)), S_OK);
    EXPECT_EQ(ReadFrame(*file.file, 1, bytes), S_OK);
    EXPECT_EQ(bytes, FrameBytes(1, 2, 100));
}

TEST_F(MediaFile, OverwritesGoToNewSpaceAndGiveTheOldBack) {
    Opened file(m_device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 1, 50000)), S_OK);
    PinnedFrame old{};
    ASSERT_EQ(file->Pin(0, true, old), S_OK);
    ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 2, 50000)), S_OK);
    ASSERT_EQ(file->Checkpoint(), S_OK);
    const auto at = m_device.content.begin() + static_cast<std::ptrdiff_t>(old.slotOffset);
    const auto oldBytes = FrameBytes(0, 1, 50000);
    EXPECT_TRUE(std::equal(oldBytes.begin(), oldBytes.end(), at)) << "a reader still has it";
    ASSERT_EQ(WriteFrame(*file.file, 1, FrameBytes(1, 1, 10)), S_OK);
    ASSERT_EQ(file->Checkpoint(), S_OK);
    const auto still = m_device.content.begin() + static_cast<std::ptrdiff_t>(old.slotOffset);
    EXPECT_TRUE(std::equal(oldBytes.begin(), oldBytes.end(), still)) << "the reader has it yet";
    file->Unpin(old.epoch);  // and nothing else
    const auto dead = m_device.content.begin() + static_cast<std::ptrdiff_t>(old.slotOffset);
    EXPECT_TRUE(std::all_of(dead, dead + 50000, [](uint8_t b) { return b == 0; }));
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*file.file, 0, bytes), S_OK);
    EXPECT_EQ(bytes, FrameBytes(0, 2, 50000));
}

// The reader is done with it, but not the one to whom it is sent, or the system.
TEST_F(MediaFile, WhatIsStillInSomebodysHandsIsGivenBackLater) {
    uint64_t sent = 0;
    const auto wasted = [&] {
        const auto dead = m_device.content.begin() + static_cast<std::ptrdiff_t>(sent);
        return std::any_of(dead, dead + 50000, [](uint8_t b) { return b != 0; });
    };
    struct Hands {
        uint64_t& begin;
        uint64_t& end;
    };
    const Hands senders{m_device.sentBegin, m_device.sentEnd};
    const Hands systems{m_device.keptBegin, m_device.keptEnd};
    for (const auto& [hands, closed] :
         {std::pair{senders, false}, {senders, true}, {systems, false}, {systems, true}}) {
        SCOPED_TRACE(closed);
        {
            Opened file(m_device);
            ASSERT_EQ(file->BeginWriting(), S_OK);
            ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 1, 50000)), S_OK);
            PinnedFrame old{};
            ASSERT_EQ(file->Pin(0, false, old), S_OK);
            sent = old.slotOffset;
            hands.begin = sent + 40000;
            hands.end = sent + 50000;
            ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 2, 50000)), S_OK);
            ASSERT_EQ(file->Checkpoint(), S_OK);
            ASSERT_TRUE(wasted());
            if (!closed) hands.end = 0;
            ASSERT_EQ(file->EndWriting(), S_OK);
            EXPECT_EQ(wasted(), closed);
        }
        hands.end = 0;
        Opened file(m_device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        ASSERT_EQ(file->EndWriting(), S_OK);
        EXPECT_FALSE(wasted());
        std::vector<uint8_t> bytes;
        EXPECT_EQ(ReadFrame(*file.file, 0, bytes), S_OK);
        EXPECT_EQ(bytes, FrameBytes(0, 2, 50000));
    }
}

// However much was erased in a row.
TEST_F(MediaFile, OneSlowClientKeepsLittleFromBeingGivenBack) {
    constexpr size_t kFrame = 8 << 20;
    constexpr uint32_t kFrames = 6;
    Opened file(m_device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    const std::vector<uint8_t> bytes(kFrame, 'f');
    std::vector<uint64_t> slots;
    for (uint32_t i = 0; i < kFrames; ++i) {
        ASSERT_EQ(WriteFrame(*file.file, i, bytes), S_OK);
        PinnedFrame frame{};
        ASSERT_EQ(file->Pin(i, false, frame), S_OK);
        slots.push_back(frame.slotOffset);
    }
    m_device.sentBegin = slots[0] + kFrame - 1;
    m_device.sentEnd = slots[0] + kFrame;
    ASSERT_EQ(file->Erase(0, kFrames), S_OK);
    ASSERT_EQ(file->EndWriting(), S_OK);
    EXPECT_EQ(m_device.content[slots[0]], 'f');
    EXPECT_EQ(m_device.content[slots[0] + kFrame - 1], 'f');
    for (uint32_t i = 2; i < kFrames; ++i)
        EXPECT_EQ(m_device.content[slots[i] + kFrame - 1], 0) << i;
}

// What a crash left, and a record of any size: nothing has to wait behind a large one.
TEST_F(MediaFile, NoHoleIsLargerThanOthers) {
    constexpr size_t kLarge = 40 << 20;
    constexpr uint64_t kMost = 16 << 20;
    const std::vector<uint8_t> large(kLarge, 'l');
    const auto wasted = [&] {  // some such bytes are anywhere
        return std::count(m_device.content.begin(), m_device.content.end(), 'l') > kPageSize;
    };
    for (const bool crashed : {false, true}) {
        SCOPED_TRACE(crashed);
        {
            Opened file(m_device);
            ASSERT_EQ(file->BeginWriting(), S_OK);
            ASSERT_EQ(WriteFrame(*file.file, 0, large), S_OK);
            ASSERT_EQ(WriteFrame(*file.file, 1, FrameBytes(1, 1, 100)), S_OK);
            ASSERT_EQ(file->Checkpoint(), S_OK);
            const HRESULT broken = HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
            if (crashed) m_device.faults.assign(8, {Call::kPunch, 0, broken});
            ASSERT_EQ(file->Erase(0, 1), S_OK);
            ASSERT_EQ(file->EndWriting(), S_OK);
            m_device.faults.clear();
        }
        EXPECT_EQ(wasted(), crashed);
        {
            Opened file(m_device);
            ASSERT_EQ(file->BeginWriting(), S_OK);
            ASSERT_EQ(file->EndWriting(), S_OK);
        }
        EXPECT_FALSE(wasted());
        EXPECT_GT(m_device.largestHole, kMost / 2);
        EXPECT_LE(m_device.largestHole, kMost);
    }
}

// A hole that could not be made is as good as a crash before it.
TEST_F(MediaFile, SpaceThatACrashLeftIsGivenBackByTheNextWriter) {
    uint64_t lost = 0;
    {
        Opened file(m_device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 1, 50000)), S_OK);
        ASSERT_EQ(WriteFrame(*file.file, 1, FrameBytes(1, 1, 50000)), S_OK);
        ASSERT_EQ(file->Checkpoint(), S_OK);
        PinnedFrame old{};
        ASSERT_EQ(file->Pin(0, false, old), S_OK);
        lost = old.slotOffset;
        ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 2, 50000)), S_OK);
        const HRESULT broken = HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
        m_device.faults.assign(8, {Call::kPunch, 0, broken});
        ASSERT_EQ(file->EndWriting(), S_OK);
        m_device.faults.clear();
    }
    const auto wasted = [&] {
        const auto dead = m_device.content.begin() + static_cast<std::ptrdiff_t>(lost);
        return std::any_of(dead, dead + 50000, [](uint8_t b) { return b != 0; });
    };
    ASSERT_TRUE(wasted());
    const auto expectFrames = [](CMediaFile& file) {
        std::vector<uint8_t> bytes;
        for (uint32_t i = 0; i < 2; ++i) {
            EXPECT_EQ(ReadFrame(file, i, bytes), S_OK);
            EXPECT_EQ(bytes, FrameBytes(i, 2 - i, 50000));
        }
    };
    {
        Opened file(m_device);
        expectFrames(*file.file);
        EXPECT_TRUE(wasted()) << "who reads changes nothing";
        const uint64_t writes = m_device.calls[static_cast<size_t>(Call::kWrite)];
        ASSERT_EQ(file->BeginWriting(), S_OK);
        ASSERT_EQ(file->EndWriting(), S_OK);
        EXPECT_FALSE(wasted());
        EXPECT_EQ(m_device.calls[static_cast<size_t>(Call::kWrite)], writes) << "nothing is new";
        expectFrames(*file.file);
    }
    // Nothing is left to do for the next one.
    const uint64_t punches = m_device.calls[static_cast<size_t>(Call::kPunch)];
    Opened file(m_device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    ASSERT_EQ(file->EndWriting(), S_OK);
    EXPECT_EQ(m_device.calls[static_cast<size_t>(Call::kPunch)], punches);
    expectFrames(*file.file);
}

// The search takes for lost what waits for a reader, and the reader keeps it all the same.
TEST_F(MediaFile, TheSearchForLostSpaceLeavesReadersTheirFrames) {
    {
        Opened file(m_device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        for (uint32_t i = 0; i < 3; ++i)
            ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, 5000)), S_OK);
        ASSERT_EQ(file->EndWriting(), S_OK);
    }
    Opened file(m_device);
    PinnedFrame held{};
    ASSERT_EQ(file->Pin(1, true, held), S_OK);
    ASSERT_EQ(file->Erase(1, 2), S_OK) << "without a writer";
    ASSERT_EQ(file->BeginWriting(), S_OK);
    ASSERT_EQ(file->EndWriting(), S_OK);
    std::vector<uint8_t> bytes(held.dataSize);
    size_t done = 0;
    ASSERT_EQ(file->File().ReadAt(bytes.data(), bytes.size(), held.slotOffset, done), S_OK);
    EXPECT_EQ(bytes, FrameBytes(1, 1, 5000));
    file->Unpin(held.epoch);
    ASSERT_EQ(file->File().ReadAt(bytes.data(), bytes.size(), held.slotOffset, done), S_OK);
    EXPECT_EQ(bytes, std::vector<uint8_t>(5000)) << "and then it goes";
}

TEST_F(MediaFile, ErasedFramesGiveTheirSpaceBackWhileTheFileIsOpen) {
    Opened file(m_device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    for (uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, 50000)), S_OK);
    PinnedFrame erased{};
    ASSERT_EQ(file->Pin(1, false, erased), S_OK);
    ASSERT_EQ(file->Erase(1, 2), S_OK);
    const auto dead = m_device.content.begin() + static_cast<std::ptrdiff_t>(erased.slotOffset);
    EXPECT_TRUE(std::all_of(dead, dead + 50000, [](uint8_t b) { return b == 0; }));
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*file.file, 1, bytes), kErrorFrameErased);
    EXPECT_EQ(ReadFrame(*file.file, 2, bytes), S_OK);
    EXPECT_EQ(bytes, FrameBytes(2, 1, 50000));
}

TEST_F(MediaFile, AnEraseIsReadFromItsRecordWhenThereWasNoRoomForTheIndex) {
    {
        Opened file(m_device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        for (uint32_t i = 0; i < 3; ++i)
            ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, 3000)), S_OK);
        m_device.capacity = m_device.content.size() + SlotSize(0);
        ASSERT_EQ(file->Erase(1, 2), S_OK);
    }
    Opened killed(m_device);
    ASSERT_EQ(killed.hr, S_OK);
    EXPECT_EQ(killed->OpenReport().tailRecords, 4u);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*killed.file, 0, bytes), S_OK);
    EXPECT_EQ(ReadFrame(*killed.file, 1, bytes), kErrorFrameErased);
    EXPECT_EQ(ReadFrame(*killed.file, 2, bytes), S_OK);
}

TEST_F(MediaFile, ErasedFramesSaySoAndComeBackWhenWritten) {
    {
        Opened file(m_device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        for (uint32_t i = 0; i < 10; ++i) {
            if (i != 4) {
                ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, 3000)), S_OK);
            }
        }
        ASSERT_EQ(file->Erase(3, 6), S_OK);
        std::vector<uint8_t> bytes;
        EXPECT_EQ(ReadFrame(*file.file, 2, bytes), S_OK);
        EXPECT_EQ(ReadFrame(*file.file, 3, bytes), kErrorFrameErased);
        EXPECT_EQ(ReadFrame(*file.file, 4, bytes), kErrorFrameHole);
        EXPECT_EQ(ReadFrame(*file.file, 6, bytes), S_OK);
        EXPECT_EQ(file->FrameCount(), 10u);
        ASSERT_EQ(WriteFrame(*file.file, 5, FrameBytes(5, 2, 10)), S_OK);
    }
    Opened killed(m_device);
    ASSERT_EQ(killed.hr, S_OK);
    EXPECT_EQ(killed->OpenReport().tailRecords, 1u) << "erasing ends with a checkpoint";
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*killed.file, 3, bytes), kErrorFrameErased);
    EXPECT_EQ(ReadFrame(*killed.file, 5, bytes), S_OK);
    ASSERT_EQ(killed->BeginWriting(), S_OK);
    ASSERT_EQ(killed->EndWriting(), S_OK);
    Opened again(m_device);
    EXPECT_EQ(ReadFrame(*again.file, 3, bytes), kErrorFrameErased);
    EXPECT_EQ(bytes.size(), 10u);
}

TEST_F(MediaFile, OneWriterAtATime) {
    Opened file(m_device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    EXPECT_TRUE(file->HasWriter());
    EXPECT_EQ(file->BeginWriting(), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
    ASSERT_EQ(file->EndWriting(), S_OK);
    EXPECT_FALSE(file->HasWriter());
    EXPECT_EQ(file->BeginWriting(), S_OK);
    EXPECT_EQ(file->EndWriting(), S_OK);
}

TEST_F(MediaFile, SettingsLast) {
    {
        Opened file(m_device);
        ASSERT_EQ(file->AppendSettings({2, 5, {0, 0, 0, 0x10}, kSettingStriped}), S_OK);
    }
    m_device.LosePower(0);
    {
        Opened file(m_device);
        EXPECT_EQ(file->CurrentSettings().firstMark, 2u);
        EXPECT_EQ(file->EsDescNow().flags, kEsFlagStriped);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        ASSERT_EQ(file->EndWriting(), S_OK);
    }
    Opened file(m_device);
    EXPECT_EQ(file->OpenReport().tailRecords, 0u);
    EXPECT_EQ(file->CurrentSettings().secondMark, 5u);
    bool drop = true;
    EXPECT_EQ(file->StartTimecode(drop).hours, 0x10);
    EXPECT_FALSE(drop);
}

TEST_F(MediaFile, ManyFramesThroughManyCheckpoints) {
    {
        Opened file(m_device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        for (uint32_t i = 0; i < 3000; ++i) {
            ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, i % 300)), S_OK);
            if (i % 100 == 99) {
                ASSERT_EQ(file->Checkpoint(), S_OK);
            }
        }
        for (uint32_t i = 0; i < 3000; i += 7)
            ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 2, 40)), S_OK);
        ASSERT_EQ(file->EndWriting(), S_OK);
    }
    Opened file(m_device);
    ASSERT_EQ(file.hr, S_OK);
    ASSERT_EQ(file->FrameCount(), 3000u);
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < 3000; ++i) {
        ASSERT_EQ(ReadFrame(*file.file, i, bytes), S_OK);
        ASSERT_EQ(bytes, i % 7 == 0 ? FrameBytes(i, 2, 40) : FrameBytes(i, 1, i % 300));
    }
}

// Counted in reads: of a file that is open, a frame costs its own bytes, wherever it lies.
TEST_F(MediaFile, EveryFrameCostsOneReadOfItsOwnBytes) {
    constexpr uint32_t kFrames = 5000;
    {
        Opened file(m_device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        for (uint32_t i = 0; i < kFrames; ++i)
            ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, 80)), S_OK);
        ASSERT_EQ(file->EndWriting(), S_OK);
    }
    Opened file(m_device);
    const auto reads = [&] { return m_device.calls[static_cast<size_t>(Call::kRead)]; };
    std::vector<uint8_t> bytes;
    for (const uint32_t position : {0u, 1u, kFrames / 3, kFrames / 2, kFrames - 1, 0u}) {
        const uint64_t calls = reads();
        const uint64_t before = m_device.bytesRead;
        ASSERT_EQ(ReadFrame(*file.file, position, bytes), S_OK);
        EXPECT_EQ(reads() - calls, 1u) << position;
        EXPECT_EQ(m_device.bytesRead - before, 80u) << position;
    }
}

TEST_F(MediaFile, FrameDescriptions) {
    Opened file(m_device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 1, 77)), S_OK);
    ASSERT_EQ(WriteFrame(*file.file, 26, FrameBytes(26, 1, 0)), S_OK);
    ZemFrameDesc desc;
    file->FrameDesc(0, desc);
    EXPECT_EQ(desc.dataSize, 77u);
    EXPECT_EQ(desc.flags, kFrameFlagPresent);
    file->FrameDesc(26, desc);
    EXPECT_EQ(desc.position, 26u);
    EXPECT_EQ(desc.flags, kFrameFlagPresent);
    EXPECT_EQ(desc.timecode.seconds, 1);
    EXPECT_EQ(desc.timecode.frames, 1);
    EXPECT_EQ(desc.presentationTimeLow, 10400000u);
    file->FrameDesc(5, desc);
    EXPECT_EQ(desc.flags, 0u);
    EXPECT_EQ(desc.position, 5u);
    file->FrameDesc(27, desc);
    const ZemFrameDesc none{};
    EXPECT_EQ(memcmp(&desc, &none, sizeof desc), 0);
}

}  // namespace
